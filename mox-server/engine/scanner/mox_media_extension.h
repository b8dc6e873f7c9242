// CMOXMediaExtension: file-name extensions <-> extension ids <-> media groups.
// Two ordered maps built together and kept in step, and for the walk's look-up
// per entry a sorted table of extensions packed, lower-case, into integers
// (Classify: no copy, no allocation, no case-folded string). Built once, then
// only read: concurrent const use is safe.
#pragma once

#include <cstddef>
#include <cstdint>
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
    // Id of the extension of the file name szName (nLength bytes: text after
    // its last dot, letters in any case); 0 when there is none or it is
    // unknown. Reads the name in place: the walk calls it for every entry.
    EMOXMediaExtension Classify(const char* szName, size_t nLength) const;
    // Group of an id by the fixed ranges, whether or not this table holds it.
    static mox_media_type_e GetMediaTypeFromExtension(EMOXMediaExtension id);
    // Ids of this table in group `type` (15: every group 2-14), ascending.
    void GetMediaExtensionList(mox_media_type_e type, std::vector<EMOXMediaExtension>& out) const;
    size_t Size() const { return m_idToName.size(); }

private:
    void m_Insert(EMOXMediaExtension id, const std::string& name);
    void m_MakeDefaultList();
    void m_MakeUserList(const std::vector<EMOXMediaExtension>& list);

    // An extension of 1 to 7 bytes, ASCII letters lower-cased, as one
    // integer (bytes in order, the length in the top byte); false for any
    // other length, which no table entry has.
    static bool m_Pack(const char* pText, size_t nLength, uint64_t& nKey);

    std::map<EMOXMediaExtension, std::string> m_idToName;
    std::map<std::string, EMOXMediaExtension> m_nameToId;
    std::vector<std::pair<uint64_t, EMOXMediaExtension>> m_packed;  // sorted by key
};
