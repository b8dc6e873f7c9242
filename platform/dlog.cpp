// Host sink of the platform log. The sink is chosen once, on the first call,
// from MOX_LOG; lines below MOX_LOG_LEVEL are dropped.
#include <dlog.h>

#include <fcntl.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <systemd/sd-journal.h>

#include "host_env.h"

namespace {

enum class Sink { kStderr, kJournal, kFile };

struct LogConfig {
    Sink sink = Sink::kStderr;
    int minPriority = DLOG_DEBUG;
    int fd = STDERR_FILENO;  // stderr or the O_APPEND file; never closed
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
            fprintf(stderr, "dlog: cannot open log file %s (%s), using stderr\n", sink.c_str() + 5,
                    strerror(errno));
        }
    } else if (sink != "stderr") {
        fprintf(stderr, "dlog: unknown MOX_LOG value '%s', using stderr\n", sink.c_str());
    }
    std::string level = mox_host::EnvOr("MOX_LOG_LEVEL", "debug");
    if (level == "info")
        config.minPriority = DLOG_INFO;
    else if (level == "warning")
        config.minPriority = DLOG_WARN;
    return config;
}

const LogConfig& Config() {
    static const LogConfig config = LoadConfig();
    return config;
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

void WriteAll(int fd, const std::string& line) {
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // nowhere left to report a failing log sink
        p += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
    (void)log_id;
    const LogConfig& config = Config();
    if (prio < config.minPriority) return 0;
    if (!tag) tag = "";
    if (!fmt) return -1;

    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    char stackBuf[1024];
    int len = vsnprintf(stackBuf, sizeof(stackBuf), fmt, args);
    va_end(args);
    if (len < 0) {
        va_end(copy);
        return -1;
    }
    std::string message;
    if (static_cast<size_t>(len) < sizeof(stackBuf)) {
        message.assign(stackBuf, static_cast<size_t>(len));
    } else {
        std::vector<char> big(static_cast<size_t>(len) + 1);
        vsnprintf(big.data(), big.size(), fmt, copy);
        message.assign(big.data(), static_cast<size_t>(len));
    }
    va_end(copy);

    if (config.sink == Sink::kJournal) {
        sd_journal_send("MESSAGE=%s", message.c_str(), "PRIORITY=%i", JournalPriority(prio),
                        "SYSLOG_IDENTIFIER=%s", tag, nullptr);
        return len;
    }
    // "P/TAG(pid): message" as the platform log viewer prints it, one write per line.
    std::string line;
    line.reserve(message.size() + 32);
    line += PriorityLetter(prio);
    line += '/';
    line += tag;
    line += '(';
    line += std::to_string(getpid());
    line += "): ";
    line += message;
    line += '\n';
    WriteAll(config.fd, line);
    return len;
}
