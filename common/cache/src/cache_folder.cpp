#define MOX_LOG_TAG "MOX-CACHE"
#include "cache_folder.h"

#include <malloc.h>

#include <vector>

#include <mox/mox_log.h>
#include <mox/mox_util.h>

bool CCacheFolder::Find(const std::string& strFolderPath, std::string& strFolderId) {
    MOX_DEBUG("Find: strFolderPath[%s].", CMOXUtil::CutForLog(strFolderPath).c_str());
    mox::MutexLock lock(m_mutex);
    auto it = m_folders.find(strFolderPath);
    bool bFound = it != m_folders.end();
    if (bFound) strFolderId = it->second;
    MOX_DEBUG("Find: strFolderId[%s].", CMOXUtil::CutForLog(strFolderId).c_str());
    return bFound;
}

bool CCacheFolder::Add(std::string strFolderPath, std::string strFolderId) {
    MOX_DEBUG("Add: strFolderPath[%s] strFolderId[%s].", CMOXUtil::CutForLog(strFolderPath).c_str(),
              CMOXUtil::CutForLog(strFolderId).c_str());
    mox::MutexLock lock(m_mutex);
    if (m_folders.count(strFolderPath)) return true;
    size_t nBytes = strFolderPath.size() + strFolderId.size();
    if (m_folders.size() >= kMaxEntries || m_nBytes + nBytes > kMaxBytes) {
        MOX_WARN("Add: folder map full (%zu entries, %zu bytes), refused.", m_folders.size(), m_nBytes);
        return false;
    }
    m_folders.emplace(std::move(strFolderPath), std::move(strFolderId));
    m_nBytes += nBytes;
    return true;
}

bool CCacheFolder::Clear(const std::string& strMountPath) {
    MOX_INFO("Clear: strMountPath[%s].", CMOXUtil::CutForLog(strMountPath).c_str());
    mox::MutexLock lock(m_mutex);
    std::vector<std::string> doomed;
    for (const auto& entry : m_folders)
        if (entry.first.find(strMountPath) != std::string::npos) doomed.push_back(entry.first);
    for (const auto& key : doomed) m_Erase(m_folders.find(key));
    return true;
}

bool CCacheFolder::Clear() {
    MOX_INFO("Clear: after DB Reset.");
    mox::MutexLock lock(m_mutex);
    m_folders.clear();
    m_nBytes = 0;
    // Large ids leave the heap grown; give the pages back after a reset.
    malloc_trim(0);
    return true;
}

void CCacheFolder::m_Erase(std::map<std::string, std::string>::iterator it) {
    m_nBytes -= it->first.size() + it->second.size();
    m_folders.erase(it);
}
