// Host sink of the platform log. The sink is chosen once, on the first call,
// from MOX_LOG; lines below MOX_LOG_LEVEL are dropped. Colour escapes reach
// only a terminal: the file and journal sinks (and a redirected stderr) get
// the plain text.
#include <dlog.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <systemd/sd-journal.h>

#include "host_env.h"

__attribute__((visibility("default"))) int dlog_min_priority_cache = -1;

namespace {

enum class Sink { kStderr, kJournal, kFile };

struct LogConfig {
    Sink sink = Sink::kStderr;
    int minPriority = DLOG_DEBUG;
    int fd = STDERR_FILENO;  // stderr or the O_APPEND file; never closed
    bool bColour = false;    // keep the escapes: the sink is a terminal
};

LogConfig LoadConfig() {
    LogConfig config;
    // systemd sets JOURNAL_STREAM for services whose output goes to the journal.
    std::string sink = mox_host::EnvOr("MOX_LOG", std::getenv("JOURNAL_STREAM") ? "journal" : "stderr");
    if (sink == "journal") {
        config.sink = Sink::kJournal;
    } else if (sink.rfind("file:", 0) == 0) {
        // O_APPEND makes each single write() of a line atomic with respect to
        // other threads and processes appending to the same file.
        int fd = open(sink.c_str() + 5, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd >= 0) {
            config.sink = Sink::kFile;
            config.fd = fd;
        } else {
            fprintf(stderr, "dlog: cannot open log file %s (%s), using stderr\n", sink.c_str() + 5, strerror(errno));
        }
    } else if (sink != "stderr") {
        fprintf(stderr, "dlog: unknown MOX_LOG value '%s', using stderr\n", sink.c_str());
    }
    std::string level = mox_host::EnvOr("MOX_LOG_LEVEL", "debug");
    if (level == "info")
        config.minPriority = DLOG_INFO;
    else if (level == "warning")
        config.minPriority = DLOG_WARN;
    config.bColour = config.sink == Sink::kStderr && isatty(STDERR_FILENO) == 1;
    return config;
}

const LogConfig& Config() {
    static const LogConfig config = [] {
        LogConfig loaded = LoadConfig();
        __atomic_store_n(&dlog_min_priority_cache, loaded.minPriority, __ATOMIC_RELEASE);
        return loaded;
    }();
    return config;
}

// getpid() and gettid() are system calls; both are cached and renewed in a
// forked child, whose ids differ from its parent's.
std::atomic<int> g_pid{0};
thread_local int t_tid = 0;

void RenewIdsAfterFork() {
    g_pid.store(0, std::memory_order_relaxed);
    t_tid = 0;  // the child's only thread is the one that forked
}

const int g_atforkRegistered = pthread_atfork(nullptr, nullptr, RenewIdsAfterFork);

int CachedPid() {
    int pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = static_cast<int>(getpid());
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

// Removes the SGR escapes ("\e[" digits/semicolons "m") in place; returns
// the new length. Text between escapes moves in whole runs.
size_t StripColour(char* text, size_t len) {
    char* first = static_cast<char*>(memchr(text, '\033', len));
    if (!first) return len;
    char* out = first;
    const char* end = text + len;
    const char* p = first;
    while (p < end) {
        // p is at an escape character here.
        const char* q = p + 1;
        if (q < end && *q == '[') {
            ++q;
            while (q < end && ((*q >= '0' && *q <= '9') || *q == ';')) ++q;
            if (q < end && *q == 'm') {
                p = q + 1;
            } else {
                *out++ = *p++;  // not a colour: the escape character stays
            }
        } else {
            *out++ = *p++;
        }
        const char* next = p < end ? static_cast<const char*>(memchr(p, '\033', static_cast<size_t>(end - p))) : end;
        if (!next) next = end;
        memmove(out, p, static_cast<size_t>(next - p));
        out += next - p;
        p = next;
    }
    return static_cast<size_t>(out - text);
}

char PriorityLetter(int prio);

// "P/TAG(pid): " into out (at most nRoom bytes; a tag too long is cut);
// returns its length. Built by hand: it is on every written line, and a
// printf format costs more than the line's own body.
size_t WritePrefix(char* out, size_t nRoom, int prio, const char* tag) {
    char digits[16];
    size_t nDigits = 0;
    for (unsigned pid = static_cast<unsigned>(CachedPid()); nDigits == 0 || pid != 0; pid /= 10)
        digits[nDigits++] = static_cast<char>('0' + pid % 10);
    const size_t nFixed = 2 + 1 + nDigits + 3;  // "P/" "(" digits "): "
    size_t nTag = strnlen(tag, nRoom - nFixed);
    char* p = out;
    *p++ = PriorityLetter(prio);
    *p++ = '/';
    memcpy(p, tag, nTag);
    p += nTag;
    *p++ = '(';
    while (nDigits > 0) *p++ = digits[--nDigits];
    memcpy(p, "): ", 3);
    return static_cast<size_t>(p + 3 - out);
}

char PriorityLetter(int prio) {
    switch (prio) {
        case DLOG_VERBOSE: return 'V';
        case DLOG_DEBUG: return 'D';
        case DLOG_INFO: return 'I';
        case DLOG_WARN: return 'W';
        case DLOG_ERROR: return 'E';
        case DLOG_FATAL: return 'F';
        default: return '?';
    }
}

int JournalPriority(int prio) {
    switch (prio) {
        case DLOG_VERBOSE:
        case DLOG_DEBUG: return LOG_DEBUG;
        case DLOG_INFO: return LOG_INFO;
        case DLOG_WARN: return LOG_WARNING;
        case DLOG_ERROR: return LOG_ERR;
        default: return LOG_CRIT;
    }
}

void WriteAll(int fd, const char* p, size_t left) {
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // nowhere left to report a failing log sink
        p += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace

extern "C" int dlog_min_priority(void) {
    return Config().minPriority;
}

extern "C" int dlog_gettid(void) {
    if (t_tid == 0) t_tid = static_cast<int>(syscall(SYS_gettid));
    return t_tid;
}

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
    (void)log_id;
    (void)g_atforkRegistered;
    const LogConfig& config = Config();
    if (prio < config.minPriority) return 0;
    if (!tag) tag = "";
    if (!fmt) return -1;

    // "P/TAG(pid): message\n" as the platform log viewer prints it, formatted
    // in place behind its prefix and written with one write().
    char stackBuf[1024];
    int nPrefix = 0;
    if (config.sink != Sink::kJournal) {
        nPrefix = static_cast<int>(WritePrefix(stackBuf, sizeof(stackBuf) / 2, prio, tag));
    }
    char* buf = stackBuf;
    const size_t room = sizeof(stackBuf) - static_cast<size_t>(nPrefix) - 1;  // 1 for the newline
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    int len = vsnprintf(buf + nPrefix, room, fmt, args);
    va_end(args);
    std::vector<char> big;
    if (len >= 0 && static_cast<size_t>(len) >= room) {
        big.resize(static_cast<size_t>(nPrefix) + static_cast<size_t>(len) + 2);
        memcpy(big.data(), stackBuf, static_cast<size_t>(nPrefix));
        buf = big.data();
        vsnprintf(buf + nPrefix, static_cast<size_t>(len) + 1, fmt, copy);
    }
    va_end(copy);
    if (len < 0) return -1;

    size_t nMessage = static_cast<size_t>(len);
    if (!config.bColour) nMessage = StripColour(buf + nPrefix, nMessage);
    if (config.sink == Sink::kJournal) {
        buf[nMessage] = '\0';
        sd_journal_send("MESSAGE=%s", buf, "PRIORITY=%i", JournalPriority(prio), "SYSLOG_IDENTIFIER=%s", tag, nullptr);
        return len;
    }
    size_t nLine = static_cast<size_t>(nPrefix) + nMessage;
    buf[nLine++] = '\n';
    WriteAll(config.fd, buf, nLine);
    return len;
}
