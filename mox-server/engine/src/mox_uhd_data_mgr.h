// CMOXUHDDataMgr: the platform's UHD metadata service, reached through the
// provider library "libmox_uhd_provider.so" in the plug-in directory
// (<mox/mox_uhd_provider.h>). Reached through CMOXSingleton<CMOXUHDDataMgr>.
//
// The provider is loaded on the first request that finds it and kept; while
// it is absent every request looks for it again, so installing it later
// needs no restart. Thread-safe: m_mutex guards the library handle; calls
// into the provider run outside the lock and may overlap.
#pragma once

#include <dlfcn.h>

#include <memory>
#include <string>

#include <mox/mox_uhd_provider.h>

#include "mox_thread_annotations.h"

class CMOXUHDDataMgr {
public:
    CMOXUHDDataMgr();
    ~CMOXUHDDataMgr();
    CMOXUHDDataMgr(const CMOXUHDDataMgr&) = delete;
    CMOXUHDDataMgr& operator=(const CMOXUHDDataMgr&) = delete;

    // 0 on success with strResult the provider's text; the provider's own
    // non-zero code on failure; MOX_UHD_SERVICE_UNAVAILABLE (bAvailable
    // false) when there is no usable provider.
    int UpdateUHDMetadata(const std::string& strUuid, const std::string& strAccessToken, const std::string& strLangId,
                          const std::string& strCountryId, const std::string& strVersion, std::string& strResult,
                          bool& bAvailable);

private:
    struct SLibraryCloser {
        void operator()(void* pHandle) const {
            if (pHandle) dlclose(pHandle);
        }
    };
    mox_update_uhd_metadata_fn m_GetProvider();

    mox::Mutex m_mutex;
    std::unique_ptr<void, SLibraryCloser> m_library GUARDED_BY(m_mutex);
    mox_update_uhd_metadata_fn m_pfnUpdate GUARDED_BY(m_mutex) = nullptr;
};
