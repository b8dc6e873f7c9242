// libsystemd, loaded on first use. Only a process that logs to the journal
// or reports to a service manager needs it; linked in, it and the
// compression and crypto libraries it brings were loaded and relocated at the
// start of every client of the platform layer.
#pragma once

struct iovec;

namespace mox_systemd {

struct Api {
    int (*journal_sendv)(const struct iovec* iov, int n) = nullptr;
    int (*notify)(int unset_environment, const char* state) = nullptr;
};

// The functions, loaded once (thread-safe); null when the library or a
// function is missing, which the first call reports with one log line on
// stderr.
const Api& Load();

}  // namespace mox_systemd
