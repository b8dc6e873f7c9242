#define MOX_LOG_TAG "MOX-SCANNER"
#include <mox/mox_log.h>

#include "mox_scanner_base.h"

#include <cctype>

#include "mox_scan_log.h"

namespace {
constexpr int kKindBase = -1;
}

CMOXScannerBase::CMOXScannerBase() : CMOXScannerBase(kKindBase) {}

CMOXScannerBase::CMOXScannerBase(int nKind) : m_nKind(nKind) {}

CMOXScannerBase::~CMOXScannerBase() = default;

int CMOXScannerBase::Create(const SMOXScannerOption& option) {
    m_option = option;
    // The owner keeps the end callback and its data; a walk never calls them.
    m_option.pfnEndCallback = nullptr;
    m_option.pCallbackData = nullptr;
    m_option.pfnFreeData = nullptr;
    m_pExtension = std::make_unique<CMOXMediaExtension>(option.extensionList);
    m_pendingDirs.clear();
    m_bFinished = false;
    m_nRetryCount = 0;
    m_bQueueFullLogged = false;
    m_bReadError = false;
    MOX_INFO("Scanner Option : %d|%s|%s|%s|%d|%d|%d", m_nKind, m_option.strDevicePath.c_str(),
             m_option.strBasePath.c_str(), m_option.strThirdPath.c_str(), m_option.nScanMode, m_option.nRecursive,
             m_option.nListSize);
    if (m_nKind == -2 || m_nKind == -3) return t_Create();
    return -1;
}

void CMOXScannerBase::Destroy() {
    m_bFinished = true;
    t_Destroy();
    m_pendingDirs.clear();
    m_pendingDirs.shrink_to_fit();
}

int CMOXScannerBase::ReadFileInfo(SMOXFileInfo& info) {
    if (m_bFinished) return MOX_SCAN_END;
    int nResult = t_ReadFile(info);
    switch (nResult) {
        case MOX_SCAN_OK:
            if (info.strBasePath.empty() || info.strName.empty()) {
                MOX_INFO("No DIR/FILE Name...");
                m_bFinished = true;
                return MOX_SCAN_END;
            }
            if (info.nType == MOX_SCANNER_TYPE_DIR && m_option.nRecursive != 0) t_AddDir(info);
            return MOX_SCAN_OK;
        case MOX_SCAN_DEVICE_ERROR:
        case MOX_SCAN_NFS_ERROR:
            m_bReadError = true;
            m_bFinished = true;
            return MOX_SCAN_END;
        case MOX_SCAN_SKIPPED: return MOX_SCAN_SKIPPED;
        case MOX_SCAN_END:
        case MOX_SCAN_NO_DIR: {
            if (m_option.nRecursive != 0) {
                int nMove = t_MoveNextDir();
                if (nMove == MOX_SCAN_OK) return MOX_SCAN_SKIPPED;
                if (nMove == MOX_SCAN_DEVICE_ERROR || nMove == MOX_SCAN_NFS_ERROR) {
                    m_bReadError = true;
                    m_bFinished = true;
                    return MOX_SCAN_END;
                }
                if (nMove != MOX_SCAN_END && nMove != MOX_SCAN_NO_DIR) return nMove;
                m_bFinished = true;
                return nMove;
            }
            m_bFinished = true;
            return nResult;
        }
        default: return MOX_SCAN_FAIL;
    }
}

bool CMOXScannerBase::t_FilterExtension(SMOXFileInfo& info) {
    if (!m_option.bFilterByExtension) return true;
    if (!m_pExtension) return false;
    // Classified in place; the name of the extension is written only for the
    // media kept (most entries of a walk are not).
    info.eExtension = m_pExtension->Classify(info.strName.data(), info.strName.size());
    if (info.eExtension == 0) return false;
    info.strExtensionName = m_pExtension->FindExtensionName(info.eExtension);
    info.nExtensionGroup = static_cast<int16_t>(CMOXMediaExtension::GetMediaTypeFromExtension(info.eExtension));
    return true;
}

bool CMOXScannerBase::m_FilterFolder(const std::string& name) {
    if (name.empty() || name == "." || name == "..") return false;
    // Only names of the skip list's lengths need lower-casing.
    if (name.size() != 8 && name.size() != 10 && name.size() != 12 && name.size() != 25) return true;
    std::string lower(name);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower != "recycler" && lower != "$recycle.bin" && lower != "system volume information" &&
           lower != "lost+found";
}
