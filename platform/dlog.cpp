// Host sink of the platform log. The sink is chosen once, on the first call,
// from MOX_LOG; lines below MOX_LOG_LEVEL are dropped (default info, warning
// under systemd). Colour escapes reach only a terminal: the file and journal
// sinks (and a redirected stderr) get the plain text.
//
// Whatever a caller passes, one call is one event on one line: newlines in
// the message are written as "\n", a message is cut at 4 KiB with the
// "...(N bytes)" marker, and the values of members named like a credential
// ("token", "password", "secret", "cookie", "authorization") are written as
// "***", so that no logged document leaks one.
#include <dlog.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/uio.h>

#include "host_env.h"
#include "systemd_api.h"

__attribute__((visibility("default"))) int dlog_min_priority_cache = -1;

namespace {

enum class Sink { kStderr, kJournal, kFile };

struct LogConfig {
    Sink sink = Sink::kStderr;
    int minPriority = DLOG_DEBUG;
    int fd = STDERR_FILENO;  // stderr or the O_APPEND file; never closed
    bool bColour = false;    // keep the escapes: the sink is a terminal
};

constexpr size_t kMaxMessageBytes = 4096;
constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

int CachedPid();
void WriteAll(int fd, const char* p, size_t left);

// The journal was chosen but is not there (or went away): said once, then
// every line goes to stderr. (The journal library itself drops lines
// silently when its socket is missing.)
std::atomic<bool> g_bJournalLost{false};

void LoseJournal(int error) {
    if (g_bJournalLost.exchange(true)) return;
    char warning[256];
    const int n =
        snprintf(warning, sizeof(warning), "W/dlog(%d): the journal is not reachable (%s): logging to stderr instead\n",
                 CachedPid(), strerror(error));
    if (n > 0) WriteAll(STDERR_FILENO, warning, std::min(static_cast<size_t>(n), sizeof(warning) - 1));
}

// systemd sets INVOCATION_ID for every service it runs and JOURNAL_STREAM for
// those whose output goes to the journal.
bool UnderSystemd() {
    return std::getenv("INVOCATION_ID") || std::getenv("JOURNAL_STREAM");
}

LogConfig LoadConfig() {
    LogConfig config;
    std::string sink = mox_host::EnvOr("MOX_LOG", std::getenv("JOURNAL_STREAM") ? "journal" : "stderr");
    if (sink == "journal") {
        config.sink = Sink::kJournal;
        if (access(kJournalSocket, F_OK) != 0)
            LoseJournal(errno);
        else if (!mox_systemd::Load().journal_sendv)
            LoseJournal(ENOSYS);
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
    // A service logs what needs attention; a run by hand what it does.
    std::string level = mox_host::EnvOr("MOX_LOG_LEVEL", UnderSystemd() ? "warning" : "info");
    if (level == "debug") {
        config.minPriority = DLOG_DEBUG;
    } else if (level == "warning") {
        config.minPriority = DLOG_WARN;
    } else {
        if (level != "info") fprintf(stderr, "dlog: unknown MOX_LOG_LEVEL value '%s', using info\n", level.c_str());
        config.minPriority = DLOG_INFO;
    }
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

// A member name that names a credential (compared without case).
bool IsSecretName(const char* p, size_t n) {
    static const char* const kWords[] = {"token", "password", "secret", "cookie", "authorization"};
    for (const char* word : kWords) {
        const size_t w = strlen(word);
        for (size_t i = 0; i + w <= n; ++i)
            if (strncasecmp(p + i, word, w) == 0) return true;
    }
    return false;
}

// End of a quoted value that starts at `from` (just after its opening
// quote): the next quote not escaped by a backslash; in a document that is
// itself quoted inside the message (`\"`-style), the next `\"`. npos when
// the message ends inside the value (it was cut).
size_t ValueEnd(const std::string& s, size_t from, bool bEscapedStyle) {
    for (size_t i = from; i < s.size(); ++i) {
        if (s[i] == '\\') {
            if (bEscapedStyle && i + 1 < s.size() && s[i + 1] == '"') return i;
            ++i;  // the escaped character
        } else if (s[i] == '"' && !bEscapedStyle) {
            return i;
        }
    }
    return std::string::npos;
}

// End of an unquoted value at `from`: a balanced object or array, or a bare
// word up to the next delimiter.
size_t BareValueEnd(const std::string& s, size_t from) {
    if (from < s.size() && (s[from] == '{' || s[from] == '[')) {
        int depth = 0;
        for (size_t i = from; i < s.size(); ++i) {
            if (s[i] == '{' || s[i] == '[') ++depth;
            if ((s[i] == '}' || s[i] == ']') && --depth == 0) return i + 1;
        }
        return s.size();
    }
    size_t end = s.find_first_of(",}] \t\r\n')", from);
    return end == std::string::npos ? s.size() : end;
}

// Replaces with "***" the value of every member `"NAME": value` whose name
// names a credential, in plain JSON and in JSON quoted inside a text.
void RedactSecrets(std::string& s) {
    size_t i = 0;
    while ((i = s.find('"', i)) != std::string::npos) {
        const bool bEscaped = i > 0 && s[i - 1] == '\\';
        const size_t nameStart = i + 1;
        const size_t nameEnd = ValueEnd(s, nameStart, bEscaped);
        if (nameEnd == std::string::npos) return;
        const size_t afterName = nameEnd + (bEscaped ? 2 : 1);
        size_t j = afterName;
        while (j < s.size() && (s[j] == ' ' || s[j] == '\t')) ++j;
        if (j >= s.size() || s[j] != ':' || nameEnd - nameStart > 256 ||
            !IsSecretName(s.data() + nameStart, nameEnd - nameStart)) {
            i = afterName;
            continue;
        }
        ++j;
        while (j < s.size() && (s[j] == ' ' || s[j] == '\t')) ++j;
        size_t valueStart = j;
        size_t valueEnd = std::string::npos;
        size_t nClose = 0;  // the closing quote, skipped after the value
        if (s.compare(j, 2, "\\\"") == 0) {
            valueStart = j + 2;
            valueEnd = ValueEnd(s, valueStart, true);
            nClose = 2;
        } else if (j < s.size() && s[j] == '"') {
            valueStart = j + 1;
            valueEnd = ValueEnd(s, valueStart, false);
            nClose = 1;
        } else {
            valueEnd = BareValueEnd(s, j);
        }
        if (valueEnd == std::string::npos) {
            s.replace(valueStart, std::string::npos, "***");
            return;
        }
        s.replace(valueStart, valueEnd - valueStart, "***");
        i = valueStart + 3 + nClose;
    }
}

// One event, one line: trailing newlines go, inner ones (and carriage
// returns) are written as "\n" and "\r".
void EscapeLineBreaks(std::string& s, bool bColour) {
    const std::string reset = "\033[0m";
    size_t end = s.size();
    if (bColour && end >= reset.size() && s.compare(end - reset.size(), reset.size(), reset) == 0) end -= reset.size();
    size_t trimmed = end;
    while (trimmed > 0 && (s[trimmed - 1] == '\n' || s[trimmed - 1] == '\r')) --trimmed;
    s.erase(trimmed, end - trimmed);
    std::string out;
    out.reserve(s.size() + 16);
    for (char c : s) {
        if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else
            out += c;
    }
    s.swap(out);
}

// Cuts a message above kMaxMessageBytes at a character boundary and marks
// it with its full length, as logged arguments are marked.
void CutLong(std::string& s, bool bColour) {
    if (s.size() <= kMaxMessageBytes) return;
    size_t cut = kMaxMessageBytes;
    while (cut > 0 && (static_cast<unsigned char>(s[cut]) & 0xC0) == 0x80) --cut;
    const size_t total = s.size();
    s.resize(cut);
    s += "...(" + std::to_string(total) + " bytes)";
    if (bColour) s += "\033[0m";
}

bool SendToJournal(int prio, const char* tag, const char* file, int line, const char* func, const char* message,
                   size_t nMessage) {
    if (g_bJournalLost.load(std::memory_order_relaxed)) return false;
    std::string fields[8];
    fields[0] = "MESSAGE=";
    fields[0].append(message, nMessage);
    fields[1] = "PRIORITY=" + std::to_string(JournalPriority(prio));
    fields[2] = std::string("SYSLOG_IDENTIFIER=") + tag;
    fields[3] = std::string("MOX_TAG=") + tag;
    fields[4] = "TID=" + std::to_string(dlog_gettid());
    size_t n = 5;
    if (file && func) {
        fields[n++] = std::string("CODE_FILE=") + file;
        fields[n++] = "CODE_LINE=" + std::to_string(line);
        fields[n++] = std::string("CODE_FUNC=") + func;
    }
    struct iovec iov[8];
    for (size_t i = 0; i < n; ++i) iov[i] = {&fields[i][0], fields[i].size()};
    const int r = mox_systemd::Load().journal_sendv(iov, static_cast<int>(n));
    if (r >= 0) return true;
    LoseJournal(-r);
    return false;
}

int Print(int prio, const char* tag, const char* file, int line, const char* func, const char* fmt, va_list args) {
    (void)g_atforkRegistered;
    const LogConfig& config = Config();
    if (prio < config.minPriority) return 0;
    if (!tag) tag = "";
    if (!fmt) return -1;
    const bool bJournal = config.sink == Sink::kJournal && !g_bJournalLost.load(std::memory_order_relaxed);

    // "P/TAG(pid): message\n" as the platform log viewer prints it, formatted
    // in place behind its prefix and written with one write().
    char stackBuf[1024];
    size_t nPrefix = bJournal ? 0 : WritePrefix(stackBuf, sizeof(stackBuf) / 2, prio, tag);
    char* buf = stackBuf;
    const size_t room = sizeof(stackBuf) - nPrefix - 1;  // 1 for the newline
    va_list copy;
    va_copy(copy, args);
    int len = vsnprintf(buf + nPrefix, room, fmt, args);
    std::vector<char> big;
    if (len >= 0 && static_cast<size_t>(len) >= room) {
        big.resize(nPrefix + static_cast<size_t>(len) + 2);
        memcpy(big.data(), stackBuf, nPrefix);
        buf = big.data();
        vsnprintf(buf + nPrefix, static_cast<size_t>(len) + 1, fmt, copy);
    }
    va_end(copy);
    if (len < 0) return -1;

    size_t nMessage = static_cast<size_t>(len);
    if (!config.bColour) nMessage = StripColour(buf + nPrefix, nMessage);
    const char* message = buf + nPrefix;
    // Most lines need none of this: one pass of memchr each tells.
    std::string text;
    if (nMessage > kMaxMessageBytes || memchr(message, '\n', nMessage) || memchr(message, '\r', nMessage) ||
        memchr(message, '"', nMessage)) {
        text.assign(message, nMessage);
        RedactSecrets(text);
        EscapeLineBreaks(text, config.bColour);
        CutLong(text, config.bColour);
        message = text.c_str();
        nMessage = text.size();
    }
    if (bJournal && SendToJournal(prio, tag, file, line, func, message, nMessage)) return len;

    if (!text.empty() || bJournal) {
        // Rebuilt behind the prefix (which a journal line did not have).
        std::string out(nPrefix ? std::string(buf, nPrefix) : std::string());
        if (bJournal) {
            char prefix[512];
            out.assign(prefix, WritePrefix(prefix, sizeof(prefix), prio, tag));
        }
        out.append(message, nMessage);
        out += '\n';
        WriteAll(config.sink == Sink::kFile ? config.fd : STDERR_FILENO, out.data(), out.size());
        return len;
    }
    size_t nLine = nPrefix + nMessage;
    buf[nLine++] = '\n';
    WriteAll(config.fd, buf, nLine);
    return len;
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
    va_list args;
    va_start(args, fmt);
    int n = Print(prio, tag, nullptr, 0, nullptr, fmt, args);
    va_end(args);
    return n;
}

extern "C" int dlog_print_at(log_id_t log_id, int prio, const char* tag, const char* file, int line, const char* func,
                             const char* fmt, ...) {
    (void)log_id;
    va_list args;
    va_start(args, fmt);
    int n = Print(prio, tag, file, line, func, fmt, args);
    va_end(args);
    return n;
}
