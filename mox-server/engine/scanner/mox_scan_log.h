// Per-entry log lines of the walk (one per file met) must cost nothing when
// their level is filtered out: these checks read the log level once and let
// the caller skip formatting and the thread-id system call.
#pragma once

namespace mox_scan_log {

// True when MOX_LOG_LEVEL lets debug lines through.
bool DebugOn();
// True when MOX_LOG_LEVEL lets info lines through.
bool InfoOn();

}  // namespace mox_scan_log

#define MOX_SCAN_DEBUG(fmt, ...)                                    \
    do {                                                            \
        if (mox_scan_log::DebugOn()) MOX_DEBUG(fmt, ##__VA_ARGS__); \
    } while (0)
#define MOX_SCAN_INFO(fmt, ...)                                   \
    do {                                                          \
        if (mox_scan_log::InfoOn()) MOX_INFO(fmt, ##__VA_ARGS__); \
    } while (0)
