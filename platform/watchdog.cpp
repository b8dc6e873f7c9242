// Watchdog over sd_notify. Without NOTIFY_SOCKET (not run by a service
// manager) there is nobody to tell, and libsystemd is not even loaded.
#include <mox_watchdog.h>

#include <cstdlib>

#include "systemd_api.h"

namespace {

int Notify(const char* state) {
    if (!std::getenv("NOTIFY_SOCKET")) return 0;
    const auto notify = mox_systemd::Load().notify;
    return notify && notify(0, state) >= 0 ? 0 : -1;
}

}  // namespace

extern "C" int watchdog_register(int period_sec) {
    // The period lives in the unit file (WatchdogSec=); nothing to register here.
    return period_sec > 0 ? 0 : -1;
}

extern "C" int watchdog_notify_ready(void) {
    return Notify("READY=1");
}

extern "C" int watchdog_notify(void) {
    return Notify("WATCHDOG=1");
}
