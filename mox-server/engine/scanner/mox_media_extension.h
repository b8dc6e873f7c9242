// CMOXMediaExtension: file-name extensions <-> extension ids <-> media groups.
// Two ordered maps built together and kept in step, and for the walk's look-up
// per entry a hash table of extensions packed, lower-case, into integers
// (Classify: no copy, no allocation, no case-folded string). Built once, then
// only read: concurrent const use is safe.
#pragma once

#include <array>
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
    static bool m_Pack(const char* pText, size_t nLength, uint64_t& nKey) {
        if (nLength == 0 || nLength > 7) return false;
        uint64_t nBytes = 0;
        for (size_t i = 0; i < nLength; ++i)
            nBytes |= static_cast<uint64_t>(static_cast<unsigned char>(pText[i])) << (8 * i);
        nKey = m_Key(nBytes, nLength);
        return true;
    }
    // The key of nLength bytes packed as above: ASCII upper-case letters to
    // lower case, eight bytes at once, and the length in the top byte.
    static uint64_t m_Key(uint64_t nBytes, size_t nLength) {
        const uint64_t nLow7 = nBytes & 0x7F7F7F7F7F7F7F7Full;
        const uint64_t nAboveZ = nLow7 + 0x2525252525252525ull;  // high bit set above 'Z'
        const uint64_t nFromA = nLow7 + 0x3F3F3F3F3F3F3F3Full;   // high bit set from 'A'
        const uint64_t nUpper = ~nBytes & (nFromA ^ nAboveZ) & 0x8080808080808080ull;
        return (nBytes | (nUpper >> 2)) | static_cast<uint64_t>(nLength) << 56;
    }
    static size_t m_Hash(uint64_t nKey) { return static_cast<size_t>((nKey * 0x9E3779B97F4A7C15ull) >> 56); }

    // The 64 extensions there are fill a quarter of it (m_Hash gives 8 bits).
    static constexpr size_t kSlots = 256;

    std::map<EMOXMediaExtension, std::string> m_idToName;
    std::map<std::string, EMOXMediaExtension> m_nameToId;
    // Packed extension -> id, open addressing; a key of 0 marks a free slot.
    std::array<std::pair<uint64_t, EMOXMediaExtension>, kSlots> m_table{};
};
