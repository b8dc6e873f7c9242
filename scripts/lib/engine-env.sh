# Sourced by the scripts that run the daemon by hand: a private system bus and
# every host path moved into $WORK. The caller sets WORK and ROOT and a trap
# that calls engine_env_cleanup.

BUS_PID=""
ENGINE_PID=""

engine_env_cleanup() {
  [ -n "$ENGINE_PID" ] && kill "$ENGINE_PID" 2>/dev/null || true
  [ -n "$BUS_PID" ] && kill "$BUS_PID" 2>/dev/null || true
  rm -rf "$WORK"
}

engine_env_start_bus() {
  mkdir -p "$WORK"/{vconf,usb,appdata,plugins,spool,library}
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
  # The bus prints its address once it accepts connections.
  dbus-daemon --nofork --nopidfile --config-file="$WORK/bus.conf" --print-address=3 \
    3>"$WORK/bus.address" 2>"$WORK/bus.err" &
  BUS_PID=$!
  for _ in $(seq 200); do [ -s "$WORK/bus.address" ] && break; sleep 0.05; done

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
  export MOX_LIBRARY_DIR="$WORK/library"
  export MOX_LOG="file:$WORK/engine.log"
}

# Waits until the engine owns its name on the private bus (up to ~20 s).
engine_env_wait_for_name() {
  for _ in $(seq 400); do
    gdbus call --system --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
      --method org.freedesktop.DBus.NameHasOwner com.orvia.mox.engine 2>/dev/null | grep -q true \
      && return 0
    sleep 0.05
  done
  echo "mox-engine did not own its name" >&2
  return 1
}

engine_call() {
  gdbus call --system --dest com.orvia.mox.engine --object-path /com/orvia/mox/engine \
    --method "com.orvia.mox.engine.$1" "${@:2}"
}
