// The worker pool's threads, which answer client requests off the main
// loop, ask the kernel for a short time slice.
//
// Why: on a loaded set a woken thread may find its CPU taken by a task that
// computes. With the default slice the request waits for that task's slice
// to end (milliseconds), and these waits make a request's p99. With a short
// slice the kernel lets the woken thread run first. Its share of the CPU
// stays the same: a short slice is not a higher priority, and a thread that
// computes long is preempted more often.
//
// Only there: the main loop, the bus's message thread and the storages' size
// probers wake one another for every quick call, and with short slices each
// woken one preempted the one that woke it. Quick methods were 15-20% slower
// on an idle set, and the loaded p99 was no better.
//
// Threads and processes started by such a thread begin with the default
// slice (the flag resets on fork). A kernel without per-task slices (before
// Linux 6.12) accepts the call and ignores the value; a failure changes
// timing only and is not reported.
#pragma once

namespace mox_request_slice {

// Slice asked for, in nanoseconds: the shortest the kernel grants.
constexpr unsigned long long kSliceNs = 100000;

// Gives the calling thread the short slice; keeps its policy and nice value.
// A thread in SCHED_IDLE or a real-time class is left as it is.
void UseForThisThread();

}  // namespace mox_request_slice
