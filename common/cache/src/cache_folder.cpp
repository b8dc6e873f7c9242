#define MOX_LOG_TAG "MOX-CACHE"
#include "cache_folder.h"

#include <vector>

#include <mox/mox_log.h>

bool CCacheFolder::Find(std::string strFolderPath, std::string& strFolderId) {
    MOX_INFO("Find: strFolderPath[%s].", strFolderPath.c_str());
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_folders.find(strFolderPath);
    bool bFound = it != m_folders.end();
    if (bFound) strFolderId = it->second;
    MOX_INFO("Find: strFolderId[%s].", strFolderId.c_str());
    return bFound;
}

bool CCacheFolder::Add(std::string strFolderPath, std::string strFolderId) {
    MOX_INFO("Add: strFolderPath[%s] strFolderId[%s].", strFolderPath.c_str(), strFolderId.c_str());
    std::lock_guard<std::mutex> lock(m_mutex);
    m_folders.emplace(std::move(strFolderPath), std::move(strFolderId));
    return true;
}

bool CCacheFolder::Clear(std::string strMountPath) {
    MOX_INFO("Clear: strMountPath[%s].", strMountPath.c_str());
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> doomed;
    for (const auto& entry : m_folders)
        if (entry.first.find(strMountPath) != std::string::npos) doomed.push_back(entry.first);
    for (const auto& key : doomed) m_folders.erase(key);
    return true;
}

bool CCacheFolder::Clear() {
    MOX_INFO("Clear: after DB Reset.");
    std::lock_guard<std::mutex> lock(m_mutex);
    m_folders.clear();
    return true;
}
