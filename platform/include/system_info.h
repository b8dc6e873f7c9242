// Platform system information. Boolean features come from $MOX_FEATURES_FILE,
// lines "KEY=true|false" with KEY the decimal feature number.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef int system_info_key_e;

enum {
    SYSTEM_INFO_ERROR_NONE = 0,
    SYSTEM_INFO_ERROR_INVALID_PARAMETER = -22,
    SYSTEM_INFO_ERROR_IO_ERROR = -5,
};

// The feature number of the kinview support flag.
#define SYSTEM_INFO_KEY_KINVIEW_SUPPORT 524

// SYSTEM_INFO_ERROR_NONE and *value on success; an error code when the file
// or the key is missing or the value is neither "true" nor "false".
int system_info_get_value_bool(system_info_key_e key, bool* value);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
