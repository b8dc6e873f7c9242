// The UHD metadata service as the engine reaches it on a host: a provider
// library "libmox_uhd_provider.so" in the plug-in directory, loaded when the
// first metadata request arrives. Without it, metadata requests fail with
// MOX_UHD_SERVICE_UNAVAILABLE.
//
// The provider exports, with C linkage:
//   int UpdateUHDMetadata(const char* szUuid, const char* szAccessToken,
//                         const char* szLangId, const char* szCountryId,
//                         const char* szVersion, mox_uhd_result_fn pfnResult,
//                         void* pContext);
// It returns 0 on success and hands its result text (a JSON object) to
// pfnResult(pContext, text, length) before returning; only the last text
// handed over counts, and texts above MOX_UHD_RESULT_MAX_BYTES are refused.
// Any thread may call it, also concurrently. It must not throw.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <cstddef>

#define MOX_UHD_SERVICE_UNAVAILABLE 2
#define MOX_UHD_RESULT_MAX_BYTES (1024 * 1024)

typedef void (*mox_uhd_result_fn)(void* pContext, const char* szText, size_t nLength);
typedef int (*mox_update_uhd_metadata_fn)(const char* szUuid, const char* szAccessToken, const char* szLangId,
                                          const char* szCountryId, const char* szVersion, mox_uhd_result_fn pfnResult,
                                          void* pContext);

#pragma GCC visibility pop
