// Fixed paths of the daemon and their environment overrides. Every fixed path
// keeps its default and can be moved by one variable (tests, demo, non-root).
#pragma once

#include <string>

namespace mox_host {

// Value of the environment variable `name`, or `fallback` when unset or empty.
std::string EnvOr(const char* name, const char* fallback);

}  // namespace mox_host
