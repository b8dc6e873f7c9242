#!/usr/bin/env bash
# The installed tree as a packager gets it: `cmake --install` into a
# temporary prefix, then the binaries start there without LD_LIBRARY_PATH,
# the files land where the bus and systemd read them, the unit verifies and
# its sandbox rates "OK", and the public headers serve a consumer that knows
# only pkg-config.
set -euo pipefail
BUILD=$1
PREFIX=$(mktemp -d)
trap 'rm -rf "$PREFIX"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
unset LD_LIBRARY_PATH

cmake --install "$BUILD" --prefix "$PREFIX" > /dev/null

# Run path: the daemon and the tools start from the prefix.
"$PREFIX/bin/mox-engine" --version | grep -q '^mox-engine [0-9]' || fail "mox-engine --version"
"$PREFIX/bin/mox-engine" --help | grep -q 'Usage: mox-engine' || fail "mox-engine --help"
"$PREFIX/bin/mox-vconf" get no/such/key >/dev/null 2>&1 && fail "mox-vconf get of a missing key"
"$PREFIX/bin/mox-vconf" --help 2>/dev/null | grep -q '^usage: mox-vconf get KEY' || fail "mox-vconf --help on stdout"
# The compiled-in defaults follow the prefix the build was configured with;
# --help names every variable the daemon reads.
CONFIGURED=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$BUILD/CMakeCache.txt")
LIBDIR=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$BUILD/CMakeCache.txt")
HELP=$(env -u MOX_DBUS_CONFIG -u MOX_PLUGIN_DIR "$PREFIX/bin/mox-engine" --help)
grep -q "MOX_DBUS_CONFIG *$CONFIGURED/share/mox/mox_dbus_config.xml$" <<< "$HELP" || fail "XML default: $HELP"
grep -q "MOX_PLUGIN_DIR *$CONFIGURED/$LIBDIR/mox/plugins/$" <<< "$HELP" || fail "plug-in default: $HELP"
for var in $(cat "$(dirname "$0")/../../platform/host_env.cpp" "$(dirname "$0")/../../platform/dlog.cpp" \
               "$(dirname "$0")/../../platform/usb/"*.cpp "$(dirname "$0")/../../mox-server/engine/scanner/"*.cpp |
             grep -o '\(EnvOr\|getenv\)("[A-Z_]*"' | grep -o '[A-Z_]\{4,\}' | sort -u); do
  grep -q "$var" <<< "$HELP" || fail "--help does not name $var"
done
set +e
"$PREFIX/libexec/mox/mox-extract" 2> "$PREFIX/extract.txt"
rc=$?
set -e
[ "$rc" = 2 ] && grep -q 'internal helper' "$PREFIX/extract.txt" || fail "mox-extract by hand: $rc"
"$PREFIX/bin/moxctl" --version | grep -q '^moxctl [0-9]' || fail "moxctl --version"
ldd "$PREFIX/bin/mox-engine" | grep "libmoxcommon.so.0 =>" | grep "$PREFIX/" > /dev/null || fail "libmoxcommon not from the prefix"
# Plug-ins find libmoxhttp already loaded by the daemon; a client loads
# neither libcurl nor libsystemd (their loading was most of its start-up).
ldd "$PREFIX/bin/mox-engine" | grep "libmoxhttp.so.0 =>" | grep "$PREFIX/" > /dev/null || fail "libmoxhttp not from the prefix"
ldd "$PREFIX/bin/moxctl" | grep -E "libcurl|libsystemd" && fail "moxctl loads libcurl or libsystemd"

# A missing introspection file: status 1 and a warning naming it and its variable.
set +e
MOX_DBUS_CONFIG=$PREFIX/none.xml MOX_LOG=stderr "$PREFIX/bin/mox-engine" 2> "$PREFIX/err.txt"
rc=$?
set -e
[ "$rc" = 1 ] || fail "missing introspection XML exit status $rc"
grep -q "$PREFIX/none.xml (MOX_DBUS_CONFIG" "$PREFIX/err.txt" || fail "warning does not name the path and variable"
grep -q $'\033\[' "$PREFIX/err.txt" && fail "colour codes in a log that is not a terminal"

# Only what the public headers declare is exported.
LIB=$(find "$PREFIX" -name 'libmoxcommon.so.0' | head -1)
nm -DC --defined-only "$LIB" > "$PREFIX/symbols.txt"
grep 'CJsonValue::' "$PREFIX/symbols.txt" > /dev/null || fail "public class not exported"
grep 'mox_shm::' "$PREFIX/symbols.txt" > /dev/null && fail "internal symbols exported"

# Files where the system bus and systemd read them.
for f in share/dbus-1/system.d/com.orvia.mox.engine.conf share/dbus-1/system-services/com.orvia.mox.engine.service \
         lib/systemd/system/mox-engine.service lib/tmpfiles.d/mox-engine.conf share/mox/mox_dbus_config.xml \
         share/man/man1/moxctl.1 share/man/man1/mox-vconf.1 share/man/man8/mox-engine.8 \
         share/bash-completion/completions/moxctl libexec/mox/mox-extract \
         "$LIBDIR/mox/plugins/libmox_local_source.so" "$LIBDIR/mox/plugins/libmox_ra_source.so"; do
  [ -f "$PREFIX/$f" ] || fail "missing $f"
done
# Plug-ins only in the private directory; the example is not installed.
find "$PREFIX" -name 'libmox_*source*.so' | grep -v "/mox/plugins/" && fail "plug-in outside the plug-in directory"
find "$PREFIX" -name 'libmox_example_source.so' | grep . && fail "example plug-in installed"
[ -e "$PREFIX/bin/mox_dbus_config.xml" ] && fail "XML in bin/"
UNIT=$PREFIX/lib/systemd/system/mox-engine.service
grep -q "^ExecStart=$PREFIX/bin/mox-engine$" "$UNIT" || fail "ExecStart does not point into the prefix"

if command -v systemd-analyze > /dev/null; then
  systemd-analyze verify "$UNIT" 2>&1 | grep -v 'dbus.service' | grep . && fail "unit does not verify"
  exposure=$(systemd-analyze security --offline=true "$UNIT" 2>&1 | sed -n 's/.*Overall exposure level for mox-engine.service: \([0-9.]*\).*/\1/p')
  echo "exposure: $exposure"
  [ -n "$exposure" ] && awk -v e="$exposure" 'BEGIN { exit !(e <= 4.0) }' || fail "exposure $exposure above 4.0"
fi

# A consumer that knows only pkg-config: no bare platform header on its path,
# the public C headers compile as C, the C++ headers and library link.
export PKG_CONFIG_PATH=$(dirname "$(find "$PREFIX" -name libmoxcommon.pc)")
CFLAGS=$(pkg-config --cflags libmoxcommon)
LIBS=$(pkg-config --libs libmoxcommon)
echo '#include <vconf.h>' | cc $CFLAGS -fsyntax-only -x c - 2>/dev/null && fail "bare vconf.h on the include path"
for h in dlog vconf usb_device power system_info mox_watchdog; do
  echo "#include <mox/platform/$h.h>" | cc $CFLAGS -Wall -Wextra -Werror -fsyntax-only -x c - || fail "$h.h as C"
done
cat > "$PREFIX/consumer.cpp" <<'CPP'
#define MOX_LOG_TAG "CONSUMER"
#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_util.h>
int main() {
    CJsonValue v(std::string("{\"a\":1}"));
    MOX_DEBUG("consumer %s", CMOXUtil::int2str(v.IsValid()).c_str());
    return v.IsValid() ? 0 : 1;
}
CPP
# A sanitizer build's library needs its runtime in the consumer too.
SAN=""
ldd "$PREFIX/bin/mox-engine" | grep libasan > /dev/null && SAN="-fsanitize=address,undefined"
ldd "$PREFIX/bin/mox-engine" | grep libtsan > /dev/null && SAN="-fsanitize=thread"
c++ $SAN -std=c++17 "$PREFIX/consumer.cpp" -o "$PREFIX/consumer" $CFLAGS $LIBS -Wl,-rpath,"$(pkg-config --variable=libdir libmoxcommon)" \
  || fail "consumer does not build"
"$PREFIX/consumer" || fail "consumer does not run"
echo "installed tree OK"
