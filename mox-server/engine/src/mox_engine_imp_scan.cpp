#define MOX_LOG_TAG "MOX-ENGINE"
#include <mox/mox_log.h>

#include "mox_engine_imp.h"

#include <sys/stat.h>

#include <fcntl.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include <mox/json_value.h>
#include <mox/mox_confined_path.h>
#include <mox/mox_events.h>
#include <mox/mox_singleton.h>
#include <mox/mox_util.h>
#include <mox_host_paths.h>
#include <mox_unique_fd.h>

#include "mox_bus_text.h"
#include "mox_extractor.h"
#include "mox_scanner_manager.h"

namespace {

// The client a scan answers, owned by the scanner that runs the scan.
struct SMOXScanCallbackData {
    int nScannerId = 0;
    // The manager that runs the scan: the callback must not go through the
    // singleton accessor, which would make a new manager while the old one
    // is being destroyed (its scanners' last callbacks run then).
    CMOXScanManager* pManager = nullptr;
    // Outlives every scanner: the daemon destroys the scan manager first.
    IMOXSignalSink* pSink = nullptr;
    connect_info_s client;  // its connection referenced
};

void FreeCallbackData(void* pData) {
    std::unique_ptr<SMOXScanCallbackData> data(static_cast<SMOXScanCallbackData*>(pData));
    if (data->client.connection) g_object_unref(data->client.connection);
}

// Handed to the scanner as its C callback data; FreeCallbackData frees it.
SMOXScanCallbackData* NewCallbackData(int nScannerId, const connect_info_s& caller, IMOXSignalSink& sink) {
    auto data = std::make_unique<SMOXScanCallbackData>();
    data->nScannerId = nScannerId;
    data->pManager = CMOXSingleton<CMOXScanManager>::Get();
    data->pSink = &sink;
    data->client = caller;
    if (caller.connection) g_object_ref(caller.connection);
    return data.release();
}

CMOXScanManager* Manager() {
    return CMOXSingleton<CMOXScanManager>::Get();
}

std::string StripTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// The content category of a file's media group, as a folder view names it.
const char* ItemTypeOf(int nGroup) {
    switch (nGroup) {
        case MOX_MEDIA_TYPE_PHOTO: return "CONTENT-IMAGE";
        case MOX_MEDIA_TYPE_VIDEO: return "CONTENT-VIDEO";
        case MOX_MEDIA_TYPE_MUSIC: return "CONTENT-MUSIC";
        case MOX_MEDIA_TYPE_UHD: return "CONTENT-UHD";
        case MOX_MEDIA_TYPE_PVR: return "CONTENT-PVR";
        default: return "CONTENT-OTHER";
    }
}

// `path` resolved strictly below the USB root by descriptor (openat2
// beneath the root: no link or ".." leads out, and a refusal is the same
// whatever exists outside), spelt with the USB root as configured; false
// (logged) otherwise. The walk opens the result beneath the root again.
bool ConfineToUsbRoot(const char* szPath, std::string& confined) {
    if (szPath == nullptr || *szPath == '\0' || std::strlen(szPath) >= PATH_MAX) {
        MOX_WARN("path refused: empty or too long");
        return false;
    }
    // Paths come back as the engine's texts named them ("\xNN" for bytes).
    const std::string decoded = CMOXUtil::FileNameFromUtf8(szPath);
    const char* path = decoded.c_str();
    std::string root = StripTrailingSlashes(mox_host::UsbRoot());
    std::unique_ptr<char, decltype(&free)> realRoot(realpath(root.c_str(), nullptr), free);
    mox_util::UniqueFd fd(CMOXConfinedPath(root).OpenPath(path));
    std::string strPath;
    if (!realRoot || !fd.IsValid() || !CMOXConfinedPath::PathOfDescriptor(fd.Get(), strPath)) {
        MOX_WARN("path(%s) refused: not a place below %s", mox_bus::ForLog(path).c_str(), root.c_str());
        return false;
    }
    std::string strRoot(realRoot.get());
    if (strRoot == "/") strRoot.clear();
    if (strPath.size() <= strRoot.size() + 1 || strPath.compare(0, strRoot.size(), strRoot) != 0 ||
        strPath[strRoot.size()] != '/') {
        MOX_WARN("path(%s) refused: not strictly below %s", mox_bus::ForLog(path).c_str(), root.c_str());
        return false;
    }
    confined = root + strPath.substr(strRoot.size());
    return true;
}

int MediaGroupOfCategory(const std::string& category) {
    if (category == "CONTENT-IMAGE") return MOX_MEDIA_TYPE_PHOTO;
    if (category == "CONTENT-VIDEO") return MOX_MEDIA_TYPE_VIDEO;
    if (category == "CONTENT-MUSIC") return MOX_MEDIA_TYPE_MUSIC;
    if (category == "CONTENT-UHD") return MOX_MEDIA_TYPE_UHD;
    if (category == "CONTENT-PVR" || category == "CONTENT-PVR-SCHEDULED" || category == "CONTENT-PVR-UNWATCHED")
        return MOX_MEDIA_TYPE_PVR;
    return MOX_MEDIA_TYPE_ALL;
}

// Mount path of a folder below the USB root: cut at the first "/" from the
// third character of the device name on (position 19 of "/opt/storage/usb/").
std::string MountPathOf(const std::string& folder) {
    std::string prefix = StripTrailingSlashes(mox_host::UsbRoot()) + "/";
    if (folder.compare(0, prefix.size(), prefix) != 0) return std::string();
    // Two characters of the device name at least, as "/opt/storage/usb/" + 2.
    size_t nFrom = prefix.size() + 2;
    size_t nCut = nFrom < folder.size() ? folder.find('/', nFrom) : std::string::npos;
    return nCut == std::string::npos ? folder : folder.substr(0, nCut);
}

}  // namespace

void CMOXEngineImp::StartCheckingDevice(const connect_info_s& caller, const char* mountPath,
                                        const std::function<void(bool, int)>& reply) {
    if (mountPath == nullptr) {
        MOX_WARN("mount_path is null.");
        reply(false, 0);
        return;
    }
    MOX_INFO("Checking %s.", mox_bus::ForLog(mountPath).c_str());
    // The scanner is made now (no storage touched), so that it counts against
    // the client's share and goes with the client at once; the path job gives
    // it its folder and starts it.
    CMOXScanManager* pManager = Manager();
    int id = -1;
    if (pManager->CreateScanner(id, caller.sender, ShareOf(caller)) != 0) {
        // The manager has said why, once.
        MOX_INFO("CreateScanner failed.");
        reply(false, 0);
        return;
    }
    MOX_INFO("Got Scanner(%d).", id);
    auto pResolved = std::make_shared<std::string>();
    auto pConfined = std::make_shared<bool>(false);
    std::string strPath = mountPath;
    auto resolve = [strPath, pResolved, pConfined] { *pConfined = ConfineToUsbRoot(strPath.c_str(), *pResolved); };
    auto finish = [this, caller, id, pManager, pResolved, pConfined, reply] {
        if (!*pConfined || !m_StartChecking(caller, id, *pResolved)) {
            pManager->RemoveScanner(id);
            reply(false, 0);
            return;
        }
        MOX_INFO("Start Scanner(%d) success.", id);
        reply(true, id);
    };
    if (!m_pathJobs.Run(ShareOf(caller), std::move(resolve), std::move(finish))) {
        pManager->RemoveScanner(id);
        reply(false, 0);
    }
}

bool CMOXEngineImp::m_StartChecking(const connect_info_s& caller, int id, const std::string& strMountPath) {
    CMOXScanManager* pManager = Manager();
    SMOXScannerOption option;
    option.strDevicePath = strMountPath;
    option.strConfineRoot = mox_host::UsbRoot();
    option.strOwner = caller.sender;
    option.strShare = ShareOf(caller);
    option.strBasePath = strMountPath;
    option.nMediaGroup = MOX_MEDIA_TYPE_NONE;
    option.nScanMode = MOX_SCAN_MODE_CHECK;
    option.nReserved = 0;
    option.bReserved = true;
    // Media are told apart from other files by the default extension table.
    option.bFilterByExtension = true;
    option.nRecursive = 1;
    option.nDetail = 0;
    option.nListSize = 20;
    option.nFileLimit = 0;
    option.nPriority = 2;
    option.nRequestTag = 0;
    option.pfnEndCallback = cb_scannerEnd;
    option.pCallbackData = NewCallbackData(id, caller, m_sink);
    option.pfnFreeData = FreeCallbackData;
    option.nResult = MOX_SCANNER_RESULT_NONE;
    if (pManager->SetScannerOption(id, option) != 0) {
        // Removed meanwhile (its client left, its stick went) or refused.
        MOX_WARN("SetScannerOption failed, Scanner(%d).", id);
        // Not accepted: the data is still ours.
        option.FreeCallbackData();
        return false;
    }
    if (pManager->StartScanner(id) != 0) {
        MOX_WARN("StartScanner failed, Scanner(%d).", id);
        return false;
    }
    return true;
}

void CMOXEngineImp::cb_scannerEnd(void* pUserData, int nScannerResult) {
    assert(pUserData != NULL);
    const auto& client = *static_cast<SMOXScanCallbackData*>(pUserData);
    SMOXFileInfo entry;
    entry.nFilesInAlbum = -1;
    std::string strMediaText;
    int nMediaType = 0;
    if (nScannerResult == MOX_SCANNER_RESULT_ONE_MEDIA) {
        if (client.pManager->GetNextFileInfo(client.nScannerId, entry) != 0) {
            // Removed meanwhile: the answer still goes out, without the file.
            entry = SMOXFileInfo();
        }
        nMediaType = CMOXScanManager::ConvertMediaType(entry.nExtensionGroup);
        // Only a regular file is handed to the extractor: a FIFO, device node
        // or link named like media is reported without metadata. Its folder
        // is opened beneath the USB root again (it may have been swapped for
        // a link since the walk), and size and time come from that stat, so
        // nothing outside the root is ever described.
        struct stat st;
        media_info_s info;
        mox_util::UniqueFd folder(
            entry.strName.empty() ? -1 : CMOXConfinedPath(mox_host::UsbRoot()).OpenPath(entry.strBasePath));
        if (folder.IsValid() && fstatat(folder.Get(), entry.strName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode)) {
            CMOXExtractor extractor(entry.strBasePath, entry.strName, entry.nExtensionGroup, true,
                                    static_cast<unsigned long long>(st.st_size),
                                    static_cast<unsigned long>(st.st_mtime));
            if (extractor.Extract(info)) strMediaText = extractor.ToString(info);
        }
        if (strMediaText.empty())
            MOX_WARN("Extract (%s/%s) failed...", entry.strBasePath.c_str(), entry.strName.c_str());
    }
    // Names reach the client in the extractor's rule: valid UTF-8 unchanged,
    // any other byte (and a backslash) as "\xNN", so two names stay apart.
    const std::string strBasePath = CMOXExtractor::FileNameToUtf8(entry.strBasePath);
    const std::string strName = CMOXExtractor::FileNameToUtf8(entry.strName);
    int nCode = CMOXScanManager::ConvertScannerResult(nScannerResult);
    MOX_INFO("Emit signal[%s|%d|%d|%d|%s|%s|%s]", "mox_scanner_done", client.nScannerId, nCode, nMediaType,
             strBasePath.c_str(), strName.c_str(), mox_bus::ForLog(strMediaText).c_str());
    client.pSink->EmitScannerDone(client.client, static_cast<uint32_t>(client.nScannerId), static_cast<uint32_t>(nCode),
                                  static_cast<uint32_t>(nMediaType), strBasePath, strName, strMediaText);
}

void CMOXEngineImp::FolderThumbnailScan(const connect_info_s& caller, const char* folderPath, const char* category,
                                        unsigned int count, int pid, const std::function<void(bool)>& reply) {
    if (folderPath == nullptr) {
        MOX_WARN("folder_path is null.");
        reply(false);
        return;
    }
    if (category == nullptr) {
        MOX_WARN("SortCategory is null.");
        reply(false);
        return;
    }
    if (count == 0) {
        MOX_WARN("nFileCount i<= 0.");
        reply(false);
        return;
    }
    MOX_INFO("Checking path:%s content:%s count:%d. nPID:%d ", mox_bus::ForLog(folderPath).c_str(),
             mox_bus::ForLog(category).c_str(), static_cast<int>(count), pid);
    std::string prefix = StripTrailingSlashes(mox_host::UsbRoot()) + "/";
    if (std::string(folderPath).compare(0, prefix.size(), prefix) != 0) {
        MOX_WARN("Checking path:%s error ", mox_bus::ForLog(folderPath).c_str());
        reply(false);
        return;
    }
    SMOXScannerOption option;
    option.strConfineRoot = mox_host::UsbRoot();
    option.strOwner = caller.sender;
    option.strShare = ShareOf(caller);
    option.strFourthPath = category;
    option.nMediaGroup = static_cast<int16_t>(MediaGroupOfCategory(category));
    option.bFilterByExtension = true;
    for (int id = 1; id <= 19; ++id) option.extensionList.push_back(id);
    for (int id = 51; id <= 55; ++id) option.extensionList.push_back(id);
    for (int id = 101; id <= 125; ++id) option.extensionList.push_back(id);
    for (int id = 151; id <= 153; ++id) option.extensionList.push_back(id);
    option.extensionList.push_back(301);
    option.nScanMode = 2;
    option.nRecursive = 0;
    option.nDetail = 0;
    option.nListSize = 20;
    option.nFileLimit = count > static_cast<unsigned int>(INT_MAX) ? INT_MAX : static_cast<int>(count);
    option.nPriority = 2;
    option.nRequestTag = pid;
    option.pfnEndCallback = cb_scanFolderThumbEnd;
    option.pfnFreeData = FreeCallbackData;
    option.nResult = MOX_SCANNER_RESULT_NONE;
    auto pOption = std::make_shared<SMOXScannerOption>(std::move(option));
    auto pConfined = std::make_shared<bool>(false);
    std::string strPath = folderPath;
    auto resolve = [strPath, pOption, pConfined] {
        *pConfined = ConfineToUsbRoot(strPath.c_str(), pOption->strDevicePath);
        if (!*pConfined) MOX_WARN("Checking path:%s error ", mox_bus::ForLog(strPath).c_str());
    };
    auto finish = [this, caller, pOption, pConfined, reply] {
        if (!*pConfined) {
            reply(false);
            return;
        }
        SMOXScannerOption& request = *pOption;
        request.strBasePath = MountPathOf(request.strDevicePath);
        request.pCallbackData = NewCallbackData(0, caller, m_sink);
        // The thumbnail scanner owns the data from here on, also on failure.
        if (Manager()->AddThumbnailScanner(request) != 0) {
            // The thumbnail scanner has said why, once.
            MOX_INFO("SetScannerOption failed");
            reply(false);
            return;
        }
        reply(true);
    };
    if (!m_pathJobs.Run(ShareOf(caller), std::move(resolve), std::move(finish))) reply(false);
}

void CMOXEngineImp::cb_scanFolderThumbEnd(void* pUserData, int nScannerResult) {
    assert(pUserData != NULL);
    const auto& client = *static_cast<SMOXScanCallbackData*>(pUserData);
    CMOXScanManager* pManager = client.pManager;
    int nCode = CMOXScanManager::ConvertScannerResult(nScannerResult);

    CJsonValue inner;
    if (nCode == MOX_SCAN_FOLDER_FILES || nCode == MOX_SCAN_FOLDER_DIRS || nCode == MOX_SCAN_FOLDER_EMPTY) {
        inner.Set("mox_folder_thumbnail_error_code", 0);
        inner.Set("mox_folder_thumbnail_type", nCode - MOX_SCAN_FOLDER_FILES);
    } else {
        inner.Set("mox_folder_thumbnail_error_code", 1);
    }
    if (nCode == MOX_SCAN_FOLDER_FILES) {
        std::vector<SMOXFileInfo> files;
        if (pManager->GetCurrentFileInfoList(files) == 0 && !files.empty()) {
            std::vector<std::string> items, types;
            for (const SMOXFileInfo& file : files) {
                items.push_back(CMOXExtractor::FileNameToUtf8(file.strBasePath + "/" + file.strName));
                types.push_back(ItemTypeOf(file.nExtensionGroup));
            }
            inner.Set("mox_folder_thumbnail_items", items);
            inner.Set("mox_folder_thumbnail_itemstype", types);
        }
    }
    CJsonValue outer;
    SMOXScannerOption option;
    if (pManager->GetCurrentScannerOption(option) == 0) {
        outer.Set("mox_folder_thumbnail_error_code", 0);
        outer.Set("mox_folder_thumbnail_path", CMOXExtractor::FileNameToUtf8(option.strDevicePath));
        outer.Set("mox_folder_thumbnail_content_type", mox_bus::ValidUtf8(option.strFourthPath, "category"));
        outer.Set("mox_folder_thumbnail_request_num", static_cast<unsigned int>(option.nFileLimit));
        outer.Set("mox_folder_thumbnail_data", inner.ToString());
    } else {
        outer.Set("mox_folder_thumbnail_error_code", 1);
    }
    std::string strPayload = outer.ToString();
    MOX_INFO("Emit signal[%s|%d|%s]", "mox_folder_thumb_done", nCode, mox_bus::ForLog(strPayload).c_str());
    client.pSink->Emit(client.client, "mox_folder_thumb_done", strPayload);
}

bool CMOXEngineImp::RemoveScanner(int id, const std::string& sender, const std::function<bool()>& callerIsRoot) {
    CMOXScanManager* pManager = Manager();
    std::string owner;
    // Ids are never reused, so the owner read here stays the scanner's.
    if (!pManager->GetScannerOwner(id, owner)) {
        MOX_INFO("Scanner(%d) does not exist.", id);
        return true;
    }
    if (owner != sender && !callerIsRoot()) {
        MOX_WARN("stop_scanner(%d) from %s refused: the scanner is another client's", id, sender.c_str());
        return false;
    }
    pManager->RemoveScanner(id);
    return true;
}

void CMOXEngineImp::RemoveScannerOfDevice(const char* mountPath) {
    if (mountPath == nullptr) return;
    Manager()->RemoveScanner(mountPath);
}

void CMOXEngineImp::RemoveScannerOfFolder(const char* folderPath, const char* category, unsigned int count, int pid,
                                          const connect_info_s& caller, const std::function<bool()>& callerIsRoot,
                                          const std::function<void(bool)>& reply) {
    if (folderPath == nullptr || category == nullptr) {
        reply(true);
        return;
    }
    // Requests hold the folder as resolved when they were queued.
    auto pFolder = std::make_shared<std::string>();
    std::string strPath = folderPath;
    auto resolve = [strPath, pFolder] {
        if (!ConfineToUsbRoot(strPath.c_str(), *pFolder)) *pFolder = strPath;
    };
    std::string strCategory = category;
    unsigned int limit = count > static_cast<unsigned int>(INT_MAX) ? static_cast<unsigned int>(INT_MAX) : count;
    const std::string sender = caller.sender;
    auto finish = [pFolder, strPath, strCategory, limit, pid, sender, callerIsRoot, reply] {
        CMOXScanManager* pManager = Manager();
        // The caller's own requests first; the bus is asked about root only
        // when another client's request matches.
        if (pManager->RemoveScanner(pFolder->c_str(), strCategory.c_str(), limit, pid, &sender) == 0) {
            reply(true);
            return;
        }
        if (!callerIsRoot()) {
            MOX_WARN("stop_scanner_thumb(%s) from %s refused: the request is another client's",
                     mox_bus::ForLog(strPath).c_str(), sender.c_str());
            reply(false);
            return;
        }
        pManager->RemoveScanner(pFolder->c_str(), strCategory.c_str(), limit, pid, nullptr);
        reply(true);
    };
    if (!m_pathJobs.Run(ShareOf(caller), std::move(resolve), std::move(finish))) reply(false);
}

void CMOXEngineImp::RemoveScannersOfClient(const std::string& sender) {
    if (sender.empty()) return;
    Manager()->RemoveScannersOfOwner(sender);
}

void CMOXEngineImp::RemoveThumbnailByDevice(const char* mountPath) {
    if (mountPath == nullptr) return;
    Manager()->RemoveThumbnailByDevice(mountPath);
}
