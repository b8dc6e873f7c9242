// CCacheFolder: folder path -> folder id given by the metadata database, so the
// engine does not look an id up twice. Reached through
// CMOXSingleton<CCacheFolder>. Every operation takes the map's mutex, so the
// main loop, the USB service thread (unmount clean-up) and scanner threads may
// call it concurrently.
#pragma once

#include <map>
#include <string>

#include "mox_thread_annotations.h"

// Bounded: clients fill it, so at most kMaxEntries pairs and kMaxBytes of
// path and id text; further adds are refused (Add returns false).
class CCacheFolder {
public:
    static constexpr size_t kMaxEntries = 10000;
    static constexpr size_t kMaxBytes = 16u << 20;

    // Sets strFolderId when the path is known; leaves it untouched otherwise.
    bool Find(const std::string& strFolderPath, std::string& strFolderId);
    // Inserts the pair unless the path is already known (the first id stays);
    // false when the map is full.
    bool Add(std::string strFolderPath, std::string strFolderId);
    // Forgets every path that contains strMountPath anywhere (substring match).
    bool Clear(const std::string& strMountPath);
    // Forgets everything (media database reset).
    bool Clear();

private:
    mox::Mutex m_mutex;
    void m_Erase(std::map<std::string, std::string>::iterator it) REQUIRES(m_mutex);

    std::map<std::string, std::string> m_folders GUARDED_BY(m_mutex);
    size_t m_nBytes GUARDED_BY(m_mutex) = 0;
};
