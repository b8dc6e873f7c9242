// Platform log service. On the host the sink is chosen by MOX_LOG
// ("stderr", "journal" or "file:PATH") and filtered by MOX_LOG_LEVEL
// ("debug", "info", "warning"; default info, warning under systemd). Each
// call writes one line: newlines escaped, cut at 4 KiB, credential members
// of logged documents masked. Callable from any thread.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    LOG_ID_MAIN = 0,
    LOG_ID_RADIO = 1,
    LOG_ID_SYSTEM = 2,
    LOG_ID_APPS = 3,
} log_id_t;

typedef enum {
    DLOG_UNKNOWN = 0,
    DLOG_DEFAULT = 1,
    DLOG_VERBOSE = 2,
    DLOG_DEBUG = 3,
    DLOG_INFO = 4,
    DLOG_WARN = 5,
    DLOG_ERROR = 6,
    DLOG_FATAL = 7,
    DLOG_SILENT = 8,
} log_priority;

// Formats one line and hands it to the sink. Returns the number of bytes of
// the formatted message, 0 when the line was filtered out, -1 on error.
int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Host extension: __dlog_print with the caller's source file, line and
// function, which the journal sink records as CODE_FILE, CODE_LINE and
// CODE_FUNC (the tag also as MOX_TAG).
int dlog_print_at(log_id_t log_id, int prio, const char* tag, const char* file, int line, const char* func,
                  const char* fmt, ...) __attribute__((format(printf, 7, 8)));

// Host extensions that let a caller skip a filtered-out line before it
// formats anything or makes a system call.
//
// Lowest priority the sink writes; -1 until the sink is configured (on the
// first dlog_min_priority or __dlog_print call, from MOX_LOG/MOX_LOG_LEVEL).
extern int dlog_min_priority_cache;
// Configures the sink if needed and returns its lowest written priority.
int dlog_min_priority(void);
// Kernel thread id of the calling thread, cached per thread (and renewed in
// the child after fork).
int dlog_gettid(void);

// True when a line of priority prio would be written: one relaxed load once
// the sink is configured.
static inline int dlog_is_loggable(int prio) {
    int nMin = __atomic_load_n(&dlog_min_priority_cache, __ATOMIC_RELAXED);
    if (nMin < 0) nMin = dlog_min_priority();
    return prio >= nMin;
}

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
