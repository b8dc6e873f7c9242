// A UHD metadata provider for tests: answers {"uhd_uuid": <uuid>,
// "uhd_token": <token>}; the uuid "fail" makes it fail with code 9, the uuid
// "huge" makes it hand over a text above the engine's limit.
#include <string>

#include <mox/mox_uhd_provider.h>

extern "C" __attribute__((visibility("default"))) int UpdateUHDMetadata(const char* szUuid, const char* szAccessToken,
                                                                        const char*, const char*, const char*,
                                                                        mox_uhd_result_fn pfnResult, void* pContext) {
    std::string strUuid = szUuid;
    if (strUuid == "fail") return 9;
    if (strUuid == "huge") {
        std::string strHuge(MOX_UHD_RESULT_MAX_BYTES + 1, 'x');
        pfnResult(pContext, strHuge.data(), strHuge.size());
        return 0;
    }
    std::string strText = "{\"uhd_uuid\":\"" + strUuid + "\",\"uhd_token\":\"" + szAccessToken + "\"}";
    pfnResult(pContext, strText.data(), strText.size());
    return 0;
}
