#include "mox_request_slice.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

namespace mox_request_slice {

namespace {

// The kernel's struct sched_attr (glibc 2.36 has no wrapper for it).
struct SchedAttr {
    uint32_t size;
    uint32_t policy;
    uint64_t flags;
    int32_t nice;
    uint32_t priority;
    uint64_t runtime;
    uint64_t deadline;
    uint64_t period;
};

constexpr uint64_t kResetOnFork = 0x01;  // SCHED_FLAG_RESET_ON_FORK

}  // namespace

void UseForThisThread() {
    SchedAttr attr{};
    if (syscall(SYS_sched_getattr, 0, &attr, sizeof attr, 0) != 0 || attr.policy != SCHED_OTHER) return;
    attr.size = sizeof attr;
    attr.flags = kResetOnFork;
    attr.runtime = kSliceNs;
    attr.deadline = 0;
    attr.period = 0;
    (void)syscall(SYS_sched_setattr, 0, &attr, 0);
}

}  // namespace mox_request_slice
