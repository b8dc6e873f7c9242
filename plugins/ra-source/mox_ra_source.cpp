// "mox_ra_source": file transfers onto USB storages (copies between
// storages, downloads from http/https) with progress and stop, and the
// normal actions on local storage. Documents and codes: <mox/mox_ra_source.h>.
//
// Running transfers are registered by id and by destination under m_mutex,
// so that a stop finds its transfer and no two transfers write one file. A
// stop only flags the transfer and returns: it runs on the engine's main
// loop, and the transfer's own thread does the cleaning up.
#define MOX_LOG_TAG "MOX-ENGINE"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include <mox/json_value.h>
#include <mox/mox_confined_path.h>
#include <mox/mox_log.h>
#include <mox/mox_ra_source.h>
#include <mox/mox_util.h>
#include <mox/mox_web_source.h>
#include <mox_host_paths.h>
#include <mox_unique_fd.h>

#include "mox_ra_transfer.h"

namespace {

constexpr const char* kSourceName = "mox_ra_source";
const size_t kMaxIdBytes = 255;
const size_t kMaxPathBytes = 4096;
const size_t kMaxUrlBytes = 8192;
const size_t kMaxTransfers = 32;

bool StringMember(const CJsonValue& doc, const char* szKey, std::string& strValue) {
    return doc.IsValid() && doc.IsString(szKey) && doc.Get(szKey, strValue);
}

// An optional bool member: absent is bDefault, present but not a bool fails.
bool BoolMember(const CJsonValue& doc, const char* szKey, bool bDefault, bool& bValue) {
    const Json::Value& value = doc.Root()[szKey];
    if (value.isNull()) {
        bValue = bDefault;
        return true;
    }
    if (!value.isBool()) return false;
    bValue = value.asBool();
    return true;
}

class CMOXRaSource final : public IWebSource {
public:
    bool Init() override { return true; }
    void Close() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& entry : m_byId) entry.second->RequestStop();
    }
    void Destroy() override { delete this; }

    mox_error_code_e GetData(bool&, std::string&, FILE*, int&, int&, int&, int&, std::vector<mox_data_group_s>&,
                             std::vector<mox_data_length_s>&) override {
        MOX_WARN("%s offers no lists.", kSourceName);
        return MOX_ERROR_FAILED_RESULT;
    }

    mox_error_code_e Act(bool& bStop, std::string& strCommand) override;
    int Execute(bool& bStop, std::string& strParam, mox_transfer_progress_cb pfnProgress, void* pUserData) override;

private:
    int m_Stop(const std::string& strId);
    int m_CreateAlbum(const CJsonValue& doc);

    std::mutex m_mutex;
    std::map<std::string, std::shared_ptr<CMOXRaTransfer>> m_byId;  // GUARDED_BY(m_mutex)
    std::map<std::string, std::string> m_byDestination;             // GUARDED_BY(m_mutex); key -> id
};

int CMOXRaSource::m_Stop(const std::string& strId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_byId.find(strId);
    if (found == m_byId.end()) {
        MOX_WARN("Stop of an unknown transfer id.");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    found->second->RequestStop();
    MOX_INFO("Stop requested for a running transfer.");
    return MOX_ERROR_NONE;
}

int CMOXRaSource::Execute(bool& bStop, std::string& strParam, mox_transfer_progress_cb pfnProgress, void* pUserData) {
    CJsonValue doc(strParam);
    if (!doc.IsValid()) {
        MOX_WARN("Transfer document is not a JSON object.");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    SMOXRaRequest request;
    bool bStopRequest = false;
    if (!StringMember(doc, "mox_transfer_id", request.strId) || request.strId.empty() ||
        request.strId.size() > kMaxIdBytes || !BoolMember(doc, "mox_file_transfer_stop", false, bStopRequest)) {
        MOX_WARN("Transfer document without a valid \"mox_transfer_id\".");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    if (bStopRequest) return m_Stop(request.strId);

    if (!StringMember(doc, "mox_transfer_src", request.strSrc) ||
        !StringMember(doc, "mox_transfer_dst", request.strDst) ||
        !BoolMember(doc, "mox_transfer_overwrite", false, request.bOverwrite)) {
        MOX_WARN(
            "Transfer document needs strings \"mox_transfer_src\", \"mox_transfer_dst\" and an optional bool "
            "\"mox_transfer_overwrite\".");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    const bool bUrl = CMOXRaTransfer::IsUrl(request.strSrc);
    // Paths come back as items named them (the engine's rule for names).
    if (!bUrl) request.strSrc = CMOXUtil::FileNameFromUtf8(request.strSrc);
    request.strDst = CMOXUtil::FileNameFromUtf8(request.strDst);
    if ((!bUrl && (request.strSrc.empty() || request.strSrc[0] != '/')) ||
        request.strSrc.size() > (bUrl ? kMaxUrlBytes : kMaxPathBytes) || request.strDst.empty() ||
        request.strDst[0] != '/' || request.strDst.size() > kMaxPathBytes) {
        MOX_WARN("Transfer source must be an absolute path or an http(s) URL, destination an absolute path.");
        return MOX_ERROR_INVALID_PARAMETER;
    }

    auto pTransfer = std::make_shared<CMOXRaTransfer>(request, strParam, pfnProgress, pUserData, bStop);
    int nResult = pTransfer->Prepare();
    if (nResult != MOX_ERROR_NONE) return nResult;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_byId.count(request.strId) || m_byDestination.count(pTransfer->DestinationKey())) {
            MOX_WARN("A transfer with this id or to this destination is running: refused.");
            return MOX_RA_ERROR_BUSY;
        }
        if (m_byId.size() >= kMaxTransfers) {
            MOX_WARN("%zu transfers running: refused.", m_byId.size());
            return MOX_RA_ERROR_BUSY;
        }
        m_byId.emplace(request.strId, pTransfer);
        m_byDestination.emplace(pTransfer->DestinationKey(), request.strId);
    }
    try {
        nResult = pTransfer->Run();
    } catch (...) {
        MOX_WARN("Transfer failed with an exception.");
        nResult = MOX_ERROR_GENERIC;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_byId.erase(request.strId);
    m_byDestination.erase(pTransfer->DestinationKey());
    return nResult;
}

int CMOXRaSource::m_CreateAlbum(const CJsonValue& doc) {
    std::string strPath;
    if (!StringMember(doc, "mox_album_path", strPath) || strPath.empty() || strPath[0] != '/' ||
        strPath.size() > kMaxPathBytes) {
        MOX_WARN("\"mox_create_album\" needs an absolute \"mox_album_path\".");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    strPath = CMOXUtil::FileNameFromUtf8(strPath);
    CMOXConfinedPath root(mox_host::UsbRoot());
    std::string strLeaf;
    mox_util::UniqueFd dir(root.OpenParent(strPath, strLeaf));
    if (!dir.IsValid()) {
        MOX_WARN("Album path refused (not below the USB root): %s.", strerror(errno));
        return MOX_ERROR_INVALID_PARAMETER;
    }
    if (mkdirat(dir.Get(), strLeaf.c_str(), 0755) == 0) return MOX_ERROR_NONE;
    int nError = errno;
    struct stat st;
    if (nError == EEXIST) {
        // An existing folder is what was asked for; anything else is in the way.
        if (fstatat(dir.Get(), strLeaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode))
            return MOX_ERROR_NONE;
        MOX_WARN("Album path exists and is not a folder.");
        return MOX_RA_ERROR_EXISTS;
    }
    MOX_WARN("Album folder can not be created: %s.", strerror(nError));
    return MOX_RA_ERROR_WRITE;
}

mox_error_code_e CMOXRaSource::Act(bool& bStop, std::string& strCommand) {
    (void)bStop;
    CJsonValue doc(strCommand);
    std::string strName;
    if (!StringMember(doc, "mox_command", strName)) {
        MOX_WARN("Act document without \"mox_command\".");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    if (strName == "mox_create_album") return static_cast<mox_error_code_e>(m_CreateAlbum(doc));
    if (strName == "mox_setlike" || strName == "mox_uploadcomment") {
        MOX_WARN("%s has no meaning for local storage.", strName.c_str());
        return static_cast<mox_error_code_e>(MOX_RA_ERROR_UNSUPPORTED);
    }
    MOX_WARN("%s does not act on this command.", kSourceName);
    return MOX_ERROR_INVALID_PARAMETER;
}

}  // namespace

MOX_WEB_SOURCE_DEFINE_ABI_VERSION()

extern "C" __attribute__((visibility("default"))) int GetSourcesCount(void) {
    return 1;
}

extern "C" __attribute__((visibility("default"))) const char* GetSourceName(int nIndex) {
    return nIndex == 0 ? kSourceName : "";
}

extern "C" __attribute__((visibility("default"))) IWebSource* CreateSource(const char* szSourceName) {
    if (szSourceName == nullptr || strcmp(szSourceName, kSourceName) != 0) return nullptr;
    return new (std::nothrow) CMOXRaSource();
}
