#include "host_env.h"

#include <cstdlib>

namespace mox_host {

std::string EnvOr(const char* name, const char* fallback) {
    const char* value = std::getenv(name);
    return (value && *value) ? std::string(value) : std::string(fallback);
}

}  // namespace mox_host
