// Platform power-off notice. On the host nothing ever announces a power-off,
// so subscribing and unsubscribing succeed and do nothing.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*power_poweroff_cb)(int reason);

#define POWER_OFF_REASON_FACTORY_RESET 14

int power_subscribe_poweroff(power_poweroff_cb cb);
int power_unsubscribe_poweroff(power_poweroff_cb cb);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
