// Watchdog over sd_notify; sd_notify itself does nothing without NOTIFY_SOCKET.
#include <mox_watchdog.h>

#include <systemd/sd-daemon.h>

extern "C" int watchdog_register(int period_sec) {
    // The period lives in the unit file (WatchdogSec=); nothing to register here.
    return period_sec > 0 ? 0 : -1;
}

extern "C" int watchdog_notify_ready(void) {
    return sd_notify(0, "READY=1") < 0 ? -1 : 0;
}

extern "C" int watchdog_notify(void) {
    return sd_notify(0, "WATCHDOG=1") < 0 ? -1 : 0;
}
