// Nothing on a Debian host announces a power-off to the daemon.
#include <power.h>

extern "C" int power_subscribe_poweroff(power_poweroff_cb) {
    return 0;
}

extern "C" int power_unsubscribe_poweroff(power_poweroff_cb) {
    return 0;
}
