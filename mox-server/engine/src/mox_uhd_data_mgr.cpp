#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_uhd_data_mgr.h"

#include <mox/mox_log.h>
#include <mox_host_paths.h>

namespace {

constexpr const char* kProviderName = "libmox_uhd_provider.so";

struct SResultSink {
    std::string strText;
    bool bTooLong = false;
};

void OnResult(void* pContext, const char* szText, size_t nLength) {
    auto* pSink = static_cast<SResultSink*>(pContext);
    if (pSink == nullptr) return;
    if (szText == nullptr || nLength > MOX_UHD_RESULT_MAX_BYTES) {
        pSink->bTooLong = szText != nullptr;
        pSink->strText.clear();
        return;
    }
    pSink->bTooLong = false;
    pSink->strText.assign(szText, nLength);
}

}  // namespace

CMOXUHDDataMgr::CMOXUHDDataMgr() = default;
CMOXUHDDataMgr::~CMOXUHDDataMgr() = default;

mox_update_uhd_metadata_fn CMOXUHDDataMgr::m_GetProvider() {
    mox::MutexLock lock(m_mutex);
    if (m_pfnUpdate) return m_pfnUpdate;
    std::string strPath = mox_host::PluginDir();
    if (!strPath.empty() && strPath.back() != '/') strPath += '/';
    strPath += kProviderName;
    std::unique_ptr<void, SLibraryCloser> library(dlopen(strPath.c_str(), RTLD_NOW | RTLD_LOCAL));
    if (!library) {
        const char* szError = dlerror();
        MOX_WARN("UHD metadata service unavailable: %s.", szError ? szError : strPath.c_str());
        return nullptr;
    }
    dlerror();
    auto pfnUpdate = reinterpret_cast<mox_update_uhd_metadata_fn>(dlsym(library.get(), "UpdateUHDMetadata"));
    if (!pfnUpdate) {
        MOX_WARN("UHD provider[%s] lacks UpdateUHDMetadata.", strPath.c_str());
        return nullptr;
    }
    m_library = std::move(library);
    m_pfnUpdate = pfnUpdate;
    return m_pfnUpdate;
}

int CMOXUHDDataMgr::UpdateUHDMetadata(const std::string& strUuid, const std::string& strAccessToken,
                                      const std::string& strLangId, const std::string& strCountryId,
                                      const std::string& strVersion, std::string& strResult, bool& bAvailable) {
    strResult.clear();
    mox_update_uhd_metadata_fn pfnUpdate = m_GetProvider();
    bAvailable = pfnUpdate != nullptr;
    if (!bAvailable) return MOX_UHD_SERVICE_UNAVAILABLE;
    SResultSink sink;
    int nRet = -1;
    try {
        nRet = pfnUpdate(strUuid.c_str(), strAccessToken.c_str(), strLangId.c_str(), strCountryId.c_str(),
                         strVersion.c_str(), OnResult, &sink);
    } catch (...) {
        MOX_WARN("UHD provider threw.");
        return -1;
    }
    if (sink.bTooLong) {
        MOX_WARN("UHD provider result longer than %d bytes refused.", MOX_UHD_RESULT_MAX_BYTES);
        return -1;
    }
    strResult = std::move(sink.strText);
    return nRet;
}
