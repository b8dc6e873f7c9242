#include "systemd_api.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>

namespace mox_systemd {

namespace {

Api LoadOnce() {
    Api api;
    // Kept for the life of the process: the pointers are used until exit.
    void* handle = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* error = dlerror();
        fprintf(stderr, "W/systemd(%d): cannot load libsystemd (%s)\n", static_cast<int>(getpid()),
                error ? error : "unknown error");
        return api;
    }
    api.journal_sendv = reinterpret_cast<decltype(api.journal_sendv)>(dlsym(handle, "sd_journal_sendv"));
    api.notify = reinterpret_cast<decltype(api.notify)>(dlsym(handle, "sd_notify"));
    if (!api.journal_sendv || !api.notify)
        fprintf(stderr, "W/systemd(%d): libsystemd lacks sd_journal_sendv or sd_notify\n", static_cast<int>(getpid()));
    return api;
}

}  // namespace

const Api& Load() {
    static const Api api = LoadOnce();
    return api;
}

}  // namespace mox_systemd
