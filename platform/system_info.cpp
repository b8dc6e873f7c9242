// Boolean platform features from $MOX_FEATURES_FILE ("KEY=true|false" lines).
#include <system_info.h>

#include <fstream>
#include <string>

#include <mox_host_paths.h>

namespace {

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

}  // namespace

extern "C" int system_info_get_value_bool(system_info_key_e key, bool* value) {
    if (!value) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    std::ifstream in(mox_host::FeaturesFile());
    if (!in) return SYSTEM_INFO_ERROR_IO_ERROR;
    const std::string wanted = std::to_string(key);
    std::string line;
    while (std::getline(in, line)) {
        line = Trim(line);
        if (line.empty() || line[0] == '#') continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos || Trim(line.substr(0, eq)) != wanted) continue;
        std::string v = Trim(line.substr(eq + 1));
        if (v == "true") {
            *value = true;
            return SYSTEM_INFO_ERROR_NONE;
        }
        if (v == "false") {
            *value = false;
            return SYSTEM_INFO_ERROR_NONE;
        }
        return SYSTEM_INFO_ERROR_IO_ERROR;
    }
    return SYSTEM_INFO_ERROR_IO_ERROR;
}
