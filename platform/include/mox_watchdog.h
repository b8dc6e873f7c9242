// Platform watchdog over the systemd notify protocol. Without NOTIFY_SOCKET
// every call does nothing and succeeds.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

// Registers the daemon with a period in seconds; 0 on success.
int watchdog_register(int period_sec);
// Tells the service manager that start-up is done (READY=1).
int watchdog_notify_ready(void);
// One liveness notification (WATCHDOG=1).
int watchdog_notify(void);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
