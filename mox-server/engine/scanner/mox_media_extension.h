// CMOXMediaExtension: file-name extensions <-> extension ids <-> media groups.
// Two ordered maps built together and kept in step. Built once, then only
// read: concurrent const use is safe.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "mox_scanner_defines.h"

namespace MOXMEDIAEXTENSION {
extern const std::vector<std::string> g_MusicExtensionList;  // group 5, ids 1-19
extern const std::vector<std::string> g_PhotoExtensionList;  // group 2, ids 51-55
extern const std::vector<std::string> g_VideoExtensionList;  // group 3, ids 101-125
extern const std::vector<std::string> g_UhdExtensionList;    // group 10, ids 151-153
extern const std::vector<std::string> g_ScsaExtensionList;   // group 11, ids 201-210
extern const std::vector<std::string> g_PltExtensionList;    // group 12, id 251
extern const std::vector<std::string> g_PvrExtensionList;    // group 6, id 301
}  // namespace MOXMEDIAEXTENSION

class CMOXMediaExtension {
public:
    // The default table: music, photo, video, UHD and SCSA (62 entries).
    CMOXMediaExtension();
    // An empty list gives the default table, otherwise exactly the listed ids
    // (unknown ids skipped, repeats once).
    explicit CMOXMediaExtension(const std::vector<EMOXMediaExtension>& list);
    virtual ~CMOXMediaExtension() = default;

    EMOXMediaExtension FindExtensionValue(const std::string& ext) const;
    std::string FindExtensionName(EMOXMediaExtension id) const;
    // Id of the extension of `path` (text after the last dot of the last
    // component, lower-cased into `ext`); 0 when there is none or it is unknown.
    EMOXMediaExtension ExtractExtension(const std::string& path, std::string& ext) const;
    // Group of an id by the fixed ranges, whether or not this table holds it.
    static mox_media_type_e GetMediaTypeFromExtension(EMOXMediaExtension id);
    // Ids of this table in group `type` (15: every group 2-14), ascending.
    void GetMediaExtensionList(mox_media_type_e type, std::vector<EMOXMediaExtension>& out) const;
    size_t Size() const { return m_idToName.size(); }

private:
    void m_Insert(EMOXMediaExtension id, const std::string& name);
    void m_MakeDefaultList();
    void m_MakeUserList(const std::vector<EMOXMediaExtension>& list);

    std::map<EMOXMediaExtension, std::string> m_idToName;
    std::map<std::string, EMOXMediaExtension> m_nameToId;
};
