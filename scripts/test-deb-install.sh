#!/usr/bin/env bash
# The Debian packages as installed: installs the built .deb files into a
# throw-away root (a private mount namespace with overlays over /usr, /etc and
# /var and fresh /run, /tmp and /dev/shm, so the host keeps none of it), and
# there starts the installed daemon on a system bus that reads the installed
# policy, runs `moxctl status` and a list through the installed plug-in as an
# unprivileged user, stops it, purges the packages and checks that no file of
# theirs (nor any the daemon made) is left.
#   scripts/test-deb-install.sh [DEB_DIR]     (default build-deb; root only)
# Exit 77 when it cannot run here (not root, no .deb files).
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
DEBS=$(cd "${1:-$ROOT/build-deb}" 2>/dev/null && pwd) || { echo "SKIP: no package directory" >&2; exit 77; }
[ "$(id -u)" -eq 0 ] || { echo "SKIP: needs root (mount namespace, dpkg)" >&2; exit 77; }
ls "$DEBS"/*.deb > /dev/null 2>&1 || { echo "SKIP: no .deb in $DEBS (scripts/build-deb.sh)" >&2; exit 77; }

if [ -z "${MOX_DEB_THROWAWAY:-}" ]; then
  exec unshare --mount --propagation private env MOX_DEB_THROWAWAY=1 "$0" "$DEBS"
fi

fail() { echo "FAIL: $*" >&2; [ -f "${T:-}/engine.log" ] && tail -n 20 "$T/engine.log" >&2; exit 1; }
step() { echo "== $*"; }

# --- the throw-away root -----------------------------------------------------
mount -t tmpfs -o mode=1777 tmpfs /tmp
T=$(mktemp -d /tmp/mox-deb.XXXXXX)
chmod 755 "$T"
mkdir -p "$T/ovl"
mount -t tmpfs tmpfs "$T/ovl"
for d in usr etc var; do
  mkdir -p "$T/ovl/$d.up" "$T/ovl/$d.work"
  mount -t overlay overlay -o "lowerdir=/$d,upperdir=$T/ovl/$d.up,workdir=$T/ovl/$d.work" "/$d"
done
mount -t tmpfs tmpfs /run
mount -t tmpfs -o mode=1777 tmpfs /dev/shm
# What dpkg and its triggers keep about any package (the database, its log,
# the manual-page index, the linker caches), which a purge rightly updates.
BOOKKEEPING='^(var/lib/dpkg/|var/log/|var/cache/man/|var/cache/debconf/|var/cache/ldconfig/|etc/ld\.so\.cache$)'

PKGS=(mox-engine moxctl libmoxcommon-dev libmoxcommon0)
step "install ${PKGS[*]}"
DEBIAN_FRONTEND=noninteractive dpkg -i $(for p in "${PKGS[@]}"; do ls "$DEBS/${p}_"*.deb; done) > "$T/dpkg-install.log" 2>&1 || { cat "$T/dpkg-install.log"; fail "dpkg -i"; }
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}\n' "$p" | grep -q "install ok installed" || fail "$p not installed"
  dpkg -L "$p" >> "$T/files.txt"
done
ENGINE_FILES=$(dpkg -L mox-engine)
grep -q '^/usr/bin/mox-engine$' <<< "$ENGINE_FILES" || fail "no /usr/bin/mox-engine"
PLUGIN_DIR=$(grep -m1 '/mox/plugins$' <<< "$ENGINE_FILES") || fail "no private plug-in directory"
[ -f "$PLUGIN_DIR/libmox_local_source.so" ] || fail "local source not in $PLUGIN_DIR"
[ -f /usr/share/mox/mox_dbus_config.xml ] || fail "introspection XML not in /usr/share/mox"
ls /usr/lib/*/libmox_*source* > /dev/null 2>&1 && fail "a plug-in in the public library directory"
[ -d /var/lib/mox/vconf ] || fail "tmpfiles entry did not create the key store"

step "the installed programs"
help=$(env -i /usr/bin/mox-engine --help)
grep -q "MOX_DBUS_CONFIG *\/usr\/share\/mox\/mox_dbus_config.xml" <<< "$help" || fail "XML default: $help"
grep -q "MOX_PLUGIN_DIR *$PLUGIN_DIR/" <<< "$help" || fail "plug-in default: $help"
env -i /usr/bin/mox-vconf --help | grep -q 'usage: mox-vconf' || fail "mox-vconf --help"
set +e
/usr/libexec/mox/mox-extract 2> "$T/extract.txt" 3<&-
rc=$?
set -e
[ "$rc" = 2 ] && grep -q "internal helper" "$T/extract.txt" || fail "mox-extract run by hand: $rc"
for page in mox-engine.8 mox-vconf.1 moxctl.1; do
  [ -f "/usr/share/man/man${page##*.}/$page.gz" ] || fail "no manual page $page"
done

step "a system bus reading the installed policy"
mkdir -p /run/dbus
dbus-daemon --system --nofork --nopidfile --print-address=3 3> "$T/bus.address" 2> "$T/bus.err" &
BUS_PID=$!
ENGINE_PID=""
trap '[ -n "$ENGINE_PID" ] && kill "$ENGINE_PID" 2>/dev/null; kill "$BUS_PID" 2>/dev/null || true' EXIT
for _ in $(seq 200); do [ -S /run/dbus/system_bus_socket ] && break; sleep 0.05; done
[ -S /run/dbus/system_bus_socket ] || fail "system bus did not start: $(cat "$T/bus.err")"
AS_USER=(setpriv --reuid=nobody --regid=nogroup --clear-groups env -i PATH=/usr/bin:/bin)
# The installed policy is the one in force: a user may not own the name.
"${AS_USER[@]}" gdbus call --system --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
  --method org.freedesktop.DBus.RequestName com.orvia.mox.engine 0 > /dev/null 2>&1 &&
  fail "an unprivileged user owned com.orvia.mox.engine"

step "the installed daemon, its compiled-in paths (no MOX_DBUS_CONFIG, no MOX_PLUGIN_DIR)"
mkdir -p "$T/usb/sdb1/DCIM" "$T/spool"
for n in beach harbour sunset; do head -c 30000 /dev/urandom > "$T/usb/sdb1/DCIM/$n.jpg"; done
chmod -R a+rX "$T/usb"
env -i PATH=/usr/bin:/bin MOX_USB_ROOT="$T/usb" MOX_USB_BACKEND="spool:$T/spool" MOX_LOG="file:$T/engine.log" \
  /usr/bin/mox-engine 2> "$T/engine.err" &
ENGINE_PID=$!
for _ in $(seq 400); do [ -s /tmp/.mox-engine ] && break; sleep 0.05; done
[ "$(cat /tmp/.mox-engine 2>/dev/null)" = "MOX_ENGINE OK" ] || fail "no status file"
printf '{"devname": "/dev/sdb1", "class": 8, "mount_path": "%s", "fs_type": 0, "part_label": "HOLIDAY"}' \
  "$T/usb/sdb1" > "$T/spool/.sdb1"
mv "$T/spool/.sdb1" "$T/spool/sdb1.json"

step "moxctl as an unprivileged user"
ok=""
for _ in $(seq 100); do
  "${AS_USER[@]}" moxctl status > "$T/status.txt" 2>&1 && grep -q sdb1 "$T/status.txt" && ok=1 && break
  sleep 0.1
done
cat "$T/status.txt"
[ -n "$ok" ] || fail "moxctl status"
"${AS_USER[@]}" moxctl list "$T/usb/sdb1/DCIM" --sort FileName > "$T/list.txt" 2>&1 || { cat "$T/list.txt"; fail "moxctl list"; }
cat "$T/list.txt"
for n in beach harbour sunset; do grep -q "$n.jpg" "$T/list.txt" || fail "$n.jpg not listed"; done
[ "$(ls /dev/shm | grep -c '^mox_resultlist_')" = 0 ] || fail "result list not dropped"

step "stop"
kill -TERM "$ENGINE_PID"
rc=0
wait "$ENGINE_PID" || rc=$?
ENGINE_PID=""
[ "$rc" = 0 ] || fail "daemon exit status $rc"
[ -e /tmp/.mox-engine ] && fail "status file left after a clean stop"
ls /dev/shm | grep -q '^mox_' && fail "shared memory left: $(ls /dev/shm)"
echo "log at the default level: $(wc -l < "$T/engine.log") lines"
kill "$BUS_PID"
wait "$BUS_PID" 2>/dev/null || true

step "purge"
DEBIAN_FRONTEND=noninteractive dpkg --purge "${PKGS[@]}" > "$T/dpkg-purge.log" 2>&1 || { cat "$T/dpkg-purge.log"; fail "dpkg --purge"; }
left=""
while read -r f; do
  [ -z "$f" ] && continue
  # Directories the packages share with the system stay (/lib is one, as a
  # link), files and links go.
  [ -d "$f" ] && continue
  if [ -e "$f" ] || [ -L "$f" ]; then left+="$f"$'\n'; fi
done < "$T/files.txt"
for d in /var/lib/mox /usr/share/mox /usr/libexec/mox "$PLUGIN_DIR" /usr/include/mox /tmp/.mox-engine; do
  [ -e "$d" ] && left+="$d"$'\n'
done
# Anything new on the overlays, beyond dpkg's own bookkeeping.
for d in usr etc var; do
  (cd "$T/ovl/$d.up" && find . \( -type f -o -type l \) | sed "s|^\./|$d/|") 
done | grep -Ev "$BOOKKEEPING" > "$T/new.txt" || true
[ -s "$T/new.txt" ] && left+=$(cat "$T/new.txt")$'\n'
if [ -n "$left" ]; then
  printf '%s' "$left" >&2
  fail "files left after dpkg --purge"
fi
echo "installed packages ran as installed and left nothing after purge"
