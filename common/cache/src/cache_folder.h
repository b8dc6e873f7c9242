// CCacheFolder: folder path -> folder id given by the metadata database, so the
// engine does not look an id up twice. Reached through
// CMOXSingleton<CCacheFolder>. Every operation takes the map's mutex, so the
// main loop, the USB service thread (unmount clean-up) and scanner threads may
// call it concurrently.
#pragma once

#include <map>
#include <mutex>
#include <string>

class CCacheFolder {
public:
    // Sets strFolderId when the path is known; leaves it untouched otherwise.
    bool Find(std::string strFolderPath, std::string& strFolderId);
    // Inserts the pair unless the path is already known (the first id stays).
    bool Add(std::string strFolderPath, std::string strFolderId);
    // Forgets every path that contains strMountPath anywhere (substring match).
    bool Clear(std::string strMountPath);
    // Forgets everything (media database reset).
    bool Clear();

private:
    std::mutex m_mutex;
    std::map<std::string, std::string> m_folders;  // GUARDED_BY(m_mutex)
};
