#!/usr/bin/env bash
# Builds the engine (Release) and runs a short real client session against it:
# a private system bus, mox-engine on it with every host path moved into a
# temporary directory, and gdbus calls as a client application makes them.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD

scripts/install-deps.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DMOX_BUILD_TESTS=OFF > /dev/null
cmake --build build-release -j"$(nproc)"

WORK=$(mktemp -d /tmp/mox-demo.XXXXXX)
BUS_PID=""
ENGINE_PID=""
cleanup() {
  [ -n "$ENGINE_PID" ] && kill "$ENGINE_PID" 2>/dev/null || true
  [ -n "$BUS_PID" ] && kill "$BUS_PID" 2>/dev/null || true
  rm -rf "$WORK"
}
trap cleanup EXIT

mkdir -p "$WORK"/{vconf,usb,appdata,plugins,spool}
cat > "$WORK/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$WORK/bus.socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/><allow own="*"/>
    <allow send_type="method_call"/><allow send_type="signal"/>
    <allow send_type="method_return"/><allow send_type="error"/>
    <allow receive_type="method_call"/><allow receive_type="signal"/>
    <allow receive_type="method_return"/><allow receive_type="error"/>
  </policy>
</busconfig>
CONF
dbus-daemon --nofork --nopidfile --config-file="$WORK/bus.conf" &
BUS_PID=$!
for _ in $(seq 100); do [ -S "$WORK/bus.socket" ] && break; sleep 0.05; done

export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$WORK/bus.socket"
export MOX_DBUS_CONFIG="$ROOT/data/mox_dbus_config.xml"
export MOX_STATUS_FILE="$WORK/mox-engine.status"
export MOX_PLUGIN_DIR="$WORK/plugins"
export MOX_APP_DATA_DIR="$WORK/appdata"
export MOX_USB_ROOT="$WORK/usb"
export MOX_VCONF_DIR="$WORK/vconf"
export MOX_FEATURES_FILE="$WORK/features"
export MOX_CA_BUNDLE="$WORK/ca.pem"
export MOX_USB_BACKEND="spool:$WORK/spool"
export MOX_LOG="file:$WORK/engine.log"
export MOX_LOG_LEVEL=info

# A pending factory reset: the daemon clears it at start.
build-release/platform/tools/mox-vconf set db/mox/reset_status 2
echo '{}' > "$WORK/appdata/.UHD_Metadata.json"

build-release/mox-server/engine/src/mox-engine &
ENGINE_PID=$!
for _ in $(seq 200); do
  gdbus call --system --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
    --method org.freedesktop.DBus.NameHasOwner com.orvia.mox.engine 2>/dev/null | grep -q true && break
  sleep 0.05
done

call() {
  echo "\$ gdbus call ... --method com.orvia.mox.engine.$1 ${*:2}"
  gdbus call --system --dest com.orvia.mox.engine --object-path /com/orvia/mox/engine \
    --method "com.orvia.mox.engine.$1" "${@:2}"
}

echo "== status file: $(cat "$MOX_STATUS_FILE")"
echo "== reset key after start: $(build-release/platform/tools/mox-vconf get db/mox/reset_status)," \
     "UHD metadata file $( [ -e "$WORK/appdata/.UHD_Metadata.json" ] && echo kept || echo removed)"
call start_server
call check_folder_path "{\"OPERATION_TYPE\":0,\"FOLDER_PATH\":\"$MOX_USB_ROOT/sda1/Photos\",\"FOLDER_ID\":\"42\"}"
call check_folder_path "{\"OPERATION_TYPE\":1,\"FOLDER_PATH\":\"$MOX_USB_ROOT/sda1/Photos\"}"

# A client hands a text to the engine as a shared-memory object: a 32-bit
# length, then the bytes. The engine writes it into a file and unlinks it.
TEXT="Written by mox-engine from shared memory."
printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(( ${#TEXT} & 255 )) $(( ${#TEXT} >> 8 & 255 )) 0 0)%s" "$TEXT" \
  > /dev/shm/mox_demo_text
call usb_file_write "$MOX_USB_ROOT/demo.txt" /mox_demo_text
echo "== $MOX_USB_ROOT/demo.txt: $(cat "$MOX_USB_ROOT/demo.txt")"
echo "== /dev/shm/mox_demo_text $( [ -e /dev/shm/mox_demo_text ] && echo 'still there' || echo 'consumed')"
call usb_file_remove "$MOX_USB_ROOT/demo.txt" ""

# A media database reset clears the folder map.
build-release/platform/tools/mox-vconf set file/private/mediaserver/db_reset 1
sleep 0.3
call check_folder_path "{\"OPERATION_TYPE\":1,\"FOLDER_PATH\":\"$MOX_USB_ROOT/sda1/Photos\"}"
call foo

kill -TERM "$ENGINE_PID"
wait "$ENGINE_PID" && status=0 || status=$?
ENGINE_PID=""
echo "== mox-engine stopped with status $status"
echo "== last lines of its log:"
tail -n 5 "$WORK/engine.log" | sed 's/\x1b\[[0-9;]*m//g'
exit "$status"
