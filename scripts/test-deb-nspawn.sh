#!/usr/bin/env bash
# The packaged unit under a real systemd: boots a Debian 12 container
# (systemd-nspawn -b on a debootstrapped root, with a throw-away overlay over
# it) and there installs the packages, starts mox-engine.service with
# systemctl (Type=notify: the start returns once READY=1 came), checks that
# watchdog pings arrive, rates the sandbox with systemd-analyze security,
# lists a folder as an unprivileged user, reads the journal entries' fields,
# stops the unit and purges the packages. Not part of scripts/test.sh: the
# first run downloads a Debian root (debootstrap) and the packages'
# dependencies, which takes minutes; later runs reuse it.
#   scripts/test-deb-nspawn.sh [DEB_DIR]    (default build-deb; root only)
#   MOX_NSPAWN_ROOT=/var/tmp/mox-nspawn-root  where the prepared root is kept
# Exit 77 when it cannot run here.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
DEBS=$(cd "${1:-$ROOT/build-deb}" 2>/dev/null && pwd) || { echo "SKIP: no package directory" >&2; exit 77; }
BASE=${MOX_NSPAWN_ROOT:-/var/tmp/mox-nspawn-root}
PKGS=(mox-engine moxctl libmoxcommon0)
[ "$(id -u)" -eq 0 ] || { echo "SKIP: needs root" >&2; exit 77; }
for p in "${PKGS[@]}"; do ls "$DEBS/${p}_"*.deb > /dev/null 2>&1 || { echo "SKIP: no $p package" >&2; exit 77; }; done
for tool in debootstrap systemd-nspawn; do
  command -v "$tool" > /dev/null || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    debootstrap systemd-container > /dev/null
done

# The prepared root: Debian 12 with systemd, dbus and the packages'
# dependencies (installed with the packages, which are then removed again).
if [ ! -x "$BASE/usr/bin/systemctl" ]; then
  echo "== debootstrap $BASE"
  debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus,util-linux bookworm "$BASE" \
    http://deb.debian.org/debian > /dev/null
fi
if [ ! -e "$BASE/var/lib/mox-deps-ready" ]; then
  echo "== the packages' dependencies into $BASE"
  mkdir -p "$BASE/debs"
  for p in "${PKGS[@]}"; do cp "$DEBS/${p}_"*.deb "$BASE/debs/"; done
  cp /etc/resolv.conf "$BASE/etc/resolv.conf"
  chroot "$BASE" apt-get update -qq
  chroot "$BASE" sh -c 'DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends /debs/*.deb' > /dev/null
  chroot "$BASE" sh -c "DEBIAN_FRONTEND=noninteractive dpkg --purge ${PKGS[*]}" > /dev/null
  chroot "$BASE" apt-get clean
  rm -rf "$BASE/debs"
  touch "$BASE/var/lib/mox-deps-ready"
fi

T=$(mktemp -d /tmp/mox-nspawn.XXXXXX)
trap 'rm -rf "$T"' EXIT
mkdir -p "$T/debs" "$T/results"
for p in "${PKGS[@]}"; do cp "$DEBS/${p}_"*.deb "$T/debs/"; done

# Runs in the container once it has booted, then powers it off.
cat > "$T/check.sh" <<'CHECK'
#!/bin/bash
exec > /results/log.txt 2>&1
set -x
fail() { echo "FAIL: $*"; echo FAIL > /results/verdict; systemctl poweroff; exit 1; }
DEBIAN_FRONTEND=noninteractive dpkg -i /debs/*.deb || fail "dpkg -i"
systemctl is-enabled mox-engine.service || fail "unit not enabled"
# No USB in a container: a simulated stick (the spool service) through a
# drop-in, as an administrator would add one.
mkdir -p /opt/storage/usb/sdb1/DCIM /run/mox-spool /etc/systemd/system/mox-engine.service.d
for n in a b c; do head -c 1000 /dev/urandom > /opt/storage/usb/sdb1/DCIM/$n.jpg; done
printf '{"devname": "/dev/sdb1", "class": 8, "mount_path": "/opt/storage/usb/sdb1", "fs_type": 2}' > /run/mox-spool/sdb1.json
printf '[Service]\nEnvironment=MOX_USB_BACKEND=spool:/run/mox-spool\n' > /etc/systemd/system/mox-engine.service.d/spool.conf
systemctl daemon-reload
# Type=notify: start returns once the daemon sent READY=1.
timeout 60 systemctl start mox-engine.service || fail "start"
systemctl show -p ActiveState -p SubState -p Type -p NotifyAccess -p WatchdogUSec mox-engine.service
[ "$(systemctl show -p ActiveState --value mox-engine.service)" = active ] || fail "not active after READY=1"
w1=$(systemctl show -p WatchdogTimestampMonotonic --value mox-engine.service)
sleep 11
w2=$(systemctl show -p WatchdogTimestampMonotonic --value mox-engine.service)
echo "watchdog timestamps: $w1 -> $w2"
[ "$w2" -gt "$w1" ] || fail "no watchdog ping in 11 s"
systemd-analyze security mox-engine.service | tail -n 1
systemd-analyze security mox-engine.service | grep -q 'Overall exposure level for mox-engine.service: [0-3]\.' || fail "exposure"
setpriv --reuid=nobody --regid=nogroup --clear-groups moxctl ping || fail "moxctl ping as nobody"
setpriv --reuid=nobody --regid=nogroup --clear-groups moxctl status || fail "moxctl status as nobody"
setpriv --reuid=nobody --regid=nogroup --clear-groups moxctl list /opt/storage/usb/sdb1/DCIM ||
  { journalctl -u mox-engine.service -o cat | tail -n 20; fail "moxctl list as nobody"; }
# Under systemd the level is warning: the successful calls above wrote nothing.
n=$(journalctl -u mox-engine.service -o cat SYSLOG_IDENTIFIER=MOX-ENGINE SYSLOG_IDENTIFIER=MOX-CACHE | wc -l)
echo "journal lines of the engine's tags after start, status and a list: $n"
# A warning on purpose (a refused plug-in name) shows the entry's fields.
setpriv --reuid=nobody --regid=nogroup --clear-groups moxctl list --plugin libc.so.6 /opt/storage/usb/sdb1/DCIM
journalctl -u mox-engine.service -o verbose MOX_TAG=MOX-ENGINE PRIORITY=4 | tee /results/entry.txt
grep -q 'CODE_FILE=mox_source_manager.cpp' /results/entry.txt || fail "CODE_FILE of the caller"
grep -q 'CODE_FUNC=' /results/entry.txt && grep -q 'CODE_LINE=' /results/entry.txt || fail "CODE_LINE/FUNC"
grep -q 'dlog.cpp' /results/entry.txt && fail "the sink's own location"
systemctl stop mox-engine.service
systemctl show -p ExecMainStatus -p Result mox-engine.service
[ "$(systemctl show -p ExecMainStatus --value mox-engine.service)" = 0 ] || fail "exit status"
[ -e /tmp/.mox-engine ] && fail "status file after the stop"
DEBIAN_FRONTEND=noninteractive dpkg --purge moxctl mox-engine libmoxcommon0 || fail "purge"
[ -e /var/lib/mox ] && fail "/var/lib/mox after purge"
rm -r /etc/systemd/system/mox-engine.service.d
ls /etc/systemd/system/multi-user.target.wants/ | grep mox && fail "enablement left"
echo OK > /results/verdict
systemctl poweroff
CHECK
chmod +x "$T/check.sh"
cat > "$T/mox-check.service" <<'UNIT'
[Unit]
Description=Check the installed mox-engine packages
After=multi-user.target dbus.socket
[Service]
Type=oneshot
ExecStart=/check.sh
UNIT

echo "== booting the container"
# --register=no --keep-unit: no machined or host systemd is needed;
# --volatile=overlay: the root stays as prepared.
timeout 300 systemd-nspawn -q -b -D "$BASE" --volatile=overlay --register=no --keep-unit \
  --bind-ro="$T/debs:/debs" --bind="$T/results:/results" --bind-ro="$T/check.sh:/check.sh" \
  --bind-ro="$T/mox-check.service:/etc/systemd/system/mox-check.service" \
  systemd.wants=mox-check.service > "$T/console.txt" 2>&1 < /dev/null || true
cat "$T/results/log.txt" 2>/dev/null || tail -n 30 "$T/console.txt"
[ "$(cat "$T/results/verdict" 2>/dev/null)" = OK ] || { echo "FAIL: see above" >&2; exit 1; }
echo "the unit started with READY=1, pinged the watchdog, served and stopped under systemd"
