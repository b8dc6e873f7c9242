#include "mox_media_extension.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace MOXMEDIAEXTENSION {
const std::vector<std::string> g_MusicExtensionList = {"mp3",   "wma",   "m4a",  "aac",  "mpa", "flac",  "ogg",
                                                       "wav",   "mid",   "midi", "ape",  "pcm", "lpcm1", "lpcm2",
                                                       "lpcm3", "lpcm4", "aif",  "aiff", "aifc"};
const std::vector<std::string> g_PhotoExtensionList = {"jpg", "jpeg", "mpo", "bmp", "png"};
const std::vector<std::string> g_VideoExtensionList = {
    "avi", "mpg",  "mpeg", "mp4",  "vob", "vro", "ts",   "trp", "tp",   "svi",  "mkv", "wmv", "asf",
    "3gp", "divx", "flv",  "m2ts", "mov", "rm",  "rmvb", "mts", "webm", "s4ud", "ps",  "avs"};
const std::vector<std::string> g_UhdExtensionList = {"um4", "km4", "sum4"};
const std::vector<std::string> g_ScsaExtensionList = {"scsa", "uvu", "uva",  "uvp",  "smp",
                                                      "dmp",  "sca", "scaa", "scav", "svp"};
const std::vector<std::string> g_PltExtensionList = {"plt"};
const std::vector<std::string> g_PvrExtensionList = {"srf"};
}  // namespace MOXMEDIAEXTENSION

namespace {

struct Group {
    const std::vector<std::string>* list;
    EMOXMediaExtension base;
    mox_media_type_e type;
};

// In id order; the first five make the default table.
const Group kGroups[] = {
    {&MOXMEDIAEXTENSION::g_MusicExtensionList, 1, MOX_MEDIA_TYPE_MUSIC},
    {&MOXMEDIAEXTENSION::g_PhotoExtensionList, 51, MOX_MEDIA_TYPE_PHOTO},
    {&MOXMEDIAEXTENSION::g_VideoExtensionList, 101, MOX_MEDIA_TYPE_VIDEO},
    {&MOXMEDIAEXTENSION::g_UhdExtensionList, 151, MOX_MEDIA_TYPE_UHD},
    {&MOXMEDIAEXTENSION::g_ScsaExtensionList, 201, MOX_MEDIA_TYPE_SCSA},
    {&MOXMEDIAEXTENSION::g_PltExtensionList, 251, MOX_MEDIA_TYPE_PLAYLIST},
    {&MOXMEDIAEXTENSION::g_PvrExtensionList, 301, MOX_MEDIA_TYPE_PVR},
};
constexpr size_t kDefaultGroups = 5;

const Group* GroupOf(EMOXMediaExtension id) {
    for (const Group& g : kGroups) {
        if (id >= g.base && id < g.base + static_cast<EMOXMediaExtension>(g.list->size())) return &g;
    }
    return nullptr;
}

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace

CMOXMediaExtension::CMOXMediaExtension() {
    m_MakeDefaultList();
}

CMOXMediaExtension::CMOXMediaExtension(const std::vector<EMOXMediaExtension>& list) {
    if (list.empty())
        m_MakeDefaultList();
    else
        m_MakeUserList(list);
}

void CMOXMediaExtension::m_Insert(EMOXMediaExtension id, const std::string& name) {
    m_idToName.emplace(id, name);
    if (!m_nameToId.emplace(name, id).second) return;
    uint64_t nKey = 0;
    if (!m_Pack(name.data(), name.size(), nKey)) return;
    // Open addressing; the table is at most a quarter full (asserted by size).
    for (size_t nSlot = m_Hash(nKey);; nSlot = (nSlot + 1) % kSlots) {
        if (m_table[nSlot].first == 0) {
            m_table[nSlot] = std::make_pair(nKey, id);
            return;
        }
    }
}

EMOXMediaExtension CMOXMediaExtension::Classify(const char* szName, size_t nLength) const {
    // The extension is at most 7 bytes: the dot is among the last 8. A
    // separator after it leaves a text that no table entry has.
    uint64_t nKey = 0;
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    if (nLength >= 8) {
        // The last 8 bytes at once: the last dot is the highest byte equal
        // to '.', found without a carry crossing bytes.
        uint64_t nBytes;
        memcpy(&nBytes, szName + nLength - 8, 8);
        const uint64_t nDots = nBytes ^ 0x2E2E2E2E2E2E2E2Eull;
        const uint64_t nZero =
            ~(((nDots & 0x7F7F7F7F7F7F7F7Full) + 0x7F7F7F7F7F7F7F7Full) | nDots | 0x7F7F7F7F7F7F7F7Full);
        if (nZero == 0) return 0;
        const int nDot = (63 - __builtin_clzll(nZero)) / 8;  // byte index of the last dot
        if (nDot == 7) return 0;                             // a trailing dot
        nKey = m_Key(nBytes >> (8 * (nDot + 1)), static_cast<size_t>(7 - nDot));
    } else
#endif
    {
        size_t i = nLength;
        while (i > 0 && szName[i - 1] != '.') --i;
        if (i == 0 || !m_Pack(szName + i, nLength - i, nKey)) return 0;  // no extension
    }
    for (size_t nSlot = m_Hash(nKey);; nSlot = (nSlot + 1) % kSlots) {
        if (m_table[nSlot].first == nKey) return m_table[nSlot].second;
        if (m_table[nSlot].first == 0) return 0;
    }
}

void CMOXMediaExtension::m_MakeDefaultList() {
    m_idToName.clear();
    m_nameToId.clear();
    m_table.fill(std::make_pair(uint64_t(0), EMOXMediaExtension(0)));
    for (size_t g = 0; g < kDefaultGroups; ++g) {
        const Group& group = kGroups[g];
        for (size_t i = 0; i < group.list->size(); ++i)
            m_Insert(group.base + static_cast<EMOXMediaExtension>(i), (*group.list)[i]);
    }
}

void CMOXMediaExtension::m_MakeUserList(const std::vector<EMOXMediaExtension>& list) {
    m_idToName.clear();
    m_nameToId.clear();
    m_table.fill(std::make_pair(uint64_t(0), EMOXMediaExtension(0)));
    for (EMOXMediaExtension id : list) {
        const Group* group = GroupOf(id);
        if (group == nullptr) continue;  // not an extension id: skipped silently
        m_Insert(id, (*group->list)[static_cast<size_t>(id - group->base)]);
    }
}

EMOXMediaExtension CMOXMediaExtension::FindExtensionValue(const std::string& ext) const {
    auto it = m_nameToId.find(Lower(ext));
    return it == m_nameToId.end() ? 0 : it->second;
}

std::string CMOXMediaExtension::FindExtensionName(EMOXMediaExtension id) const {
    auto it = m_idToName.find(id);
    return it == m_idToName.end() ? std::string() : it->second;
}

EMOXMediaExtension CMOXMediaExtension::ExtractExtension(const std::string& path, std::string& ext) const {
    if (path.empty()) return 0;
    char last = path.back();
    if (last == '/' || last == '\\' || last == '.') return 0;
    size_t i = path.size() - 1;
    while (true) {
        char c = path[i];
        if (c == '/' || c == '\\') return 0;
        if (c == '.') break;
        if (i == 0) return 0;
        --i;
    }
    ext = Lower(path.substr(i + 1));
    return FindExtensionValue(ext);
}

mox_media_type_e CMOXMediaExtension::GetMediaTypeFromExtension(EMOXMediaExtension id) {
    const Group* group = GroupOf(id);
    return group == nullptr ? MOX_MEDIA_TYPE_NONE : group->type;
}

void CMOXMediaExtension::GetMediaExtensionList(mox_media_type_e type, std::vector<EMOXMediaExtension>& out) const {
    out.clear();
    for (const auto& entry : m_idToName) {
        mox_media_type_e group = GetMediaTypeFromExtension(entry.first);
        bool match = type == MOX_MEDIA_TYPE_ALL ? (group >= 2 && group <= 14) : group == type;
        if (match) out.push_back(entry.first);
    }
}
