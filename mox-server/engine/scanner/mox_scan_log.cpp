#include "mox_scan_log.h"

#include <mox/platform/dlog.h>

namespace mox_scan_log {

// The platform log's own level check (MOX_LOG_LEVEL and its default): one
// load and a compare once the sink is configured.
bool DebugOn() {
    return dlog_is_loggable(DLOG_DEBUG) != 0;
}
bool InfoOn() {
    return dlog_is_loggable(DLOG_INFO) != 0;
}

}  // namespace mox_scan_log
