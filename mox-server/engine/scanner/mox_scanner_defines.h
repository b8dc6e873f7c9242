// The records every scanner speaks in: one entry found on a storage
// (SMOXFileInfo), the parameters of one scan (SMOXScannerOption), the outcome
// of a scan (EMOXScannerResult) and the media groups and extension ids.
// Plain values, copied freely; no thread-safety of their own.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

typedef enum {
    MOX_MEDIA_TYPE_NONE = 0,
    MOX_MEDIA_TYPE_PHOTO = 2,
    MOX_MEDIA_TYPE_VIDEO = 3,
    MOX_MEDIA_TYPE_MUSIC = 5,
    MOX_MEDIA_TYPE_PVR = 6,
    MOX_MEDIA_TYPE_UHD = 10,
    MOX_MEDIA_TYPE_SCSA = 11,
    MOX_MEDIA_TYPE_PLAYLIST = 12,
    MOX_MEDIA_TYPE_ALL = 15,
} mox_media_type_e;

// Identifier of a file-name extension: group base + position in the group's
// list (see CMOXMediaExtension); 0 means no (known) extension.
typedef int32_t EMOXMediaExtension;

typedef enum {
    MOX_SCANNER_RESULT_NONE = -1,
    MOX_SCANNER_RESULT_NO_MEDIA = 800,
    MOX_SCANNER_RESULT_ONE_MEDIA = 801,
    MOX_SCANNER_RESULT_MULTI_MEDIA = 802,
    MOX_SCANNER_RESULT_FOLDER_FILES = 803,
    MOX_SCANNER_RESULT_FOLDER_DIRS = 804,
    MOX_SCANNER_RESULT_FOLDER_EMPTY = 805,
} EMOXScannerResultValue;
typedef int32_t EMOXScannerResult;

// Result codes of the directory walk and the scan list.
enum {
    MOX_SCAN_OK = 0,
    MOX_SCAN_FAIL = -1,
    MOX_SCAN_SYSTEM_ERROR = -2,
    MOX_SCAN_BAD_ARGUMENT = -3,
    MOX_SCAN_NO_DIR = -4,
    // Nothing done this step (full list, no walk): the thread waits and
    // tries again instead of ending the scan.
    MOX_SCAN_BUSY = -5,
    MOX_SCAN_RETRY = -6,
    MOX_SCAN_END = -7,
    MOX_SCAN_LIST_EMPTY = -8,
    MOX_SCAN_LIST_FULL = -9,
    MOX_SCAN_TIMEOUT = -10,
    MOX_SCAN_INVALID_STATE = -11,
    MOX_SCAN_NFS_ERROR = -13,
    MOX_SCAN_DEVICE_ERROR = -14,
    MOX_SCAN_SKIPPED = -20,
    MOX_SCAN_ALREADY_STOPPED = -21,
};

enum {
    MOX_SCANNER_TYPE_DIR = 0,
    MOX_SCANNER_TYPE_FILE = 1,
    MOX_SCANNER_START_FLAG = 3,
    MOX_SCANNER_END_FLAG = 4,
};

enum {
    MOX_SCAN_MODE_CHECK = 0,
    MOX_SCAN_MODE_NORMAL = 1,
};

// Longest parent path + name the walk builds (bytes).
constexpr size_t kMoxScanMaxPath = 780;

struct SMOXFileInfo {
    int16_t nType = MOX_SCANNER_TYPE_FILE;
    int16_t nExtensionGroup = 0;
    EMOXMediaExtension eExtension = 0;
    std::string strExtensionName;
    std::string strBasePath;
    std::string strName;
    std::string strExtraID;
    int32_t nPtpObjectHandle = 0;
    int32_t nFilesInAlbum = -1;
    bool bDetailFilled = false;
    bool bParentLink = false;
    int64_t llFileSize = 0;
    int32_t tModified = 0;
    int32_t tCreated = 0;

    // A start (MOX_SCANNER_START_FLAG) or end (MOX_SCANNER_END_FLAG) marker.
    static SMOXFileInfo Marker(int16_t nFlag) {
        SMOXFileInfo info;
        info.nType = nFlag;
        return info;
    }
    // "DIR", "FILE" or "Unknown" (markers included).
    const char* TypeName() const {
        return nType == MOX_SCANNER_TYPE_DIR ? "DIR" : nType == MOX_SCANNER_TYPE_FILE ? "FILE" : "Unknown";
    }
};

// Called once on the scanner's thread when a scan ends.
typedef void (*MOXScannerEndCB)(void* pUserData, int nScannerResult);
// Frees callback data the scanner owns.
typedef void (*MOXScannerDataFree)(void* pUserData);

struct SMOXScannerOption {
    std::string strDevicePath;
    // The trusted directory the walk is confined to: the device path is
    // opened beneath it by descriptor (no link or ".." leads out). Empty: the
    // device path itself is trusted (internal callers only).
    std::string strConfineRoot;
    // Unique bus name of the client that asked for the scan; empty for the
    // engine's own scans.
    std::string strOwner;
    // The per-client share the request counts against (one user's
    // connections share one); the owner when empty.
    std::string strShare;
    std::string strBasePath;
    std::string strThirdPath;
    std::string strFourthPath;
    int16_t nMediaGroup = 0;  // mox_media_type_e; 0 and 15 accept every group
    int32_t nScanMode = MOX_SCAN_MODE_CHECK;
    int32_t nReserved = 0;
    bool bReserved = true;
    bool bFilterByExtension = false;
    std::vector<EMOXMediaExtension> extensionList;
    int16_t nRecursive = 1;
    int16_t nDetail = 0;
    int32_t nListSize = 20;
    int32_t nFileLimit = 0;
    int32_t nPriority = 2;
    int32_t nRequestTag = 0;
    // Normal mode: the walk hands its entries over in runs
    // (CMOXAutoScanner::TakeBatch), without the parent links; the list's
    // size bounds the entries queued.
    bool bBatches = false;
    MOXScannerEndCB pfnEndCallback = nullptr;
    // Owned by the scanner that accepted the option; freed with pfnFreeData
    // (nothing is freed when it is null). Copies of an option alias it.
    void* pCallbackData = nullptr;
    MOXScannerDataFree pfnFreeData = nullptr;
    EMOXScannerResult nResult = MOX_SCANNER_RESULT_NONE;

    // Frees the callback data (when owned) and forgets it.
    void FreeCallbackData() {
        if (pCallbackData != nullptr && pfnFreeData != nullptr) pfnFreeData(pCallbackData);
        pCallbackData = nullptr;
    }
};
