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
"$PREFIX/bin/moxctl" --version | grep -q '^moxctl [0-9]' || fail "moxctl --version"
ldd "$PREFIX/bin/mox-engine" | grep "libmoxcommon.so.0 =>" | grep "$PREFIX/" > /dev/null || fail "libmoxcommon not from the prefix"

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
         lib/systemd/system/mox-engine.service lib/tmpfiles.d/mox-engine.conf bin/mox_dbus_config.xml \
         share/man/man1/moxctl.1 share/bash-completion/completions/moxctl; do
  [ -f "$PREFIX/$f" ] || fail "missing $f"
done
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
