#include "mox_scan_log.h"

#include <cstdlib>
#include <cstring>

namespace mox_scan_log {
namespace {

// 0 debug, 1 info, 2 warning: the same reading the platform log makes.
int Level() {
    static const int s_level = [] {
        const char* value = std::getenv("MOX_LOG_LEVEL");
        if (value == nullptr) return 0;
        if (std::strcmp(value, "info") == 0) return 1;
        if (std::strcmp(value, "warning") == 0) return 2;
        return 0;
    }();
    return s_level;
}

}  // namespace

bool DebugOn() {
    return Level() <= 0;
}
bool InfoOn() {
    return Level() <= 1;
}

}  // namespace mox_scan_log
