// The one logging facility. Every translation unit defines MOX_LOG_TAG (its
// module's tag, e.g. "MOX-CACHE") before including this header. Each macro
// writes exactly one line in the fixed envelope
//   "<file>: <func>(<line>) > <colour>[<level>][<func>:<line>] [Thread Id:[<tid>]] <body>\e[0m"
// The envelope is concatenated with the body at build time, so the body may use
// any printf conversion; the compiler checks the arguments.
//
// A line below the sink's level costs one load and a compare: neither the
// arguments are evaluated nor anything formatted, and no system call is made.
// Each macro is an expression worth what __dlog_print returns (0 when the
// line is filtered out). The sink keeps each call on one line (newlines
// escaped), cuts it at 4 KiB and masks credential members of documents.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <sys/syscall.h>  // kept: includers rely on it
#include <unistd.h>
#include <cassert>

#include <mox/platform/dlog.h>

#ifndef MOX_LOG_TAG
#error "define MOX_LOG_TAG before including mox_log.h"
#endif

// Kernel thread id of the caller (not a library thread handle), cached per thread.
static inline int mox_log_gettid(void) {
    return dlog_gettid();
}

#ifdef __FILE_NAME__
#define MOX_LOG_FILE_ __FILE_NAME__
#else
constexpr const char* mox_log_basename_(const char* path) {
    const char* base = path;
    for (const char* p = path; *p; ++p)
        if (*p == '/') base = p + 1;
    return base;
}
#define MOX_LOG_FILE_ mox_log_basename_(__FILE__)
#endif

#define MOX_LOG_PRINT_(prio, colour, level, fmt, ...)                                                           \
    (dlog_is_loggable(prio)                                                                                     \
         ? dlog_print_at(LOG_ID_SYSTEM, prio, MOX_LOG_TAG, MOX_LOG_FILE_, __LINE__, __func__,                   \
                         "%s: %s(%d) > " colour level "[%s:%d] [Thread Id:[%d]] " fmt "\033[0m", MOX_LOG_FILE_, \
                         __func__, __LINE__, __func__, __LINE__, mox_log_gettid(), ##__VA_ARGS__)               \
         : 0)

// Green debug line.
#define MOX_DEBUG(fmt, ...) MOX_LOG_PRINT_(DLOG_DEBUG, "\033[32m", "", fmt, ##__VA_ARGS__)
// Yellow trace line (function entry and progress traces). Debug priority,
// not info: traces are one per call or per progress step, and a service's
// info level says what happened (a list or a copy in a line or two), not
// which functions ran.
#define MOX_TRACE(fmt, ...) MOX_LOG_PRINT_(DLOG_DEBUG, "\033[33m", "", fmt, ##__VA_ARGS__)
// Red info line with the "[INFO]:" word.
#define MOX_INFO(fmt, ...) MOX_LOG_PRINT_(DLOG_INFO, "\033[31m", " [INFO]:", fmt, ##__VA_ARGS__)
// Red warning line; "WARNNING" is the system's own spelling.
#define MOX_WARN(fmt, ...) MOX_LOG_PRINT_(DLOG_WARN, "\033[31m", " [WARNNING]:", fmt, ##__VA_ARGS__)

// Soft assertion for callbacks: logs a warning and carries on.
#define MOX_ASSERT(expr)                                          \
    do {                                                          \
        if (!(expr)) MOX_WARN("MOX_ASSERT( %s ) failed.", #expr); \
    } while (0)

// Destroys an owned object held by a raw pointer and nulls the pointer.
#define MOX_SAFE_DELETE_PTR(p) \
    do {                       \
        delete (p);            \
        (p) = nullptr;         \
    } while (0)

#pragma GCC visibility pop
