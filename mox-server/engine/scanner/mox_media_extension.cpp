#include "mox_media_extension.h"

#include <algorithm>
#include <cctype>

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
    auto at = std::lower_bound(m_packed.begin(), m_packed.end(), std::make_pair(nKey, EMOXMediaExtension(0)));
    m_packed.insert(at, std::make_pair(nKey, id));
}

bool CMOXMediaExtension::m_Pack(const char* pText, size_t nLength, uint64_t& nKey) {
    if (nLength == 0 || nLength > 7) return false;
    nKey = static_cast<uint64_t>(nLength) << 56;
    for (size_t i = 0; i < nLength; ++i) {
        unsigned char c = static_cast<unsigned char>(pText[i]);
        if (c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c | 0x20);
        nKey |= static_cast<uint64_t>(c) << (8 * i);
    }
    return true;
}

EMOXMediaExtension CMOXMediaExtension::Classify(const char* szName, size_t nLength) const {
    // The extension is at most 7 bytes: look for the dot among the last 8.
    const size_t nFloor = nLength > 8 ? nLength - 8 : 0;
    size_t i = nLength;
    while (i > nFloor && szName[i - 1] != '.') {
        if (szName[i - 1] == '/' || szName[i - 1] == '\\') return 0;
        --i;
    }
    if (i == nFloor || i == nLength) return 0;  // no dot near the end, or a trailing one
    uint64_t nKey = 0;
    if (!m_Pack(szName + i, nLength - i, nKey)) return 0;
    auto at = std::lower_bound(m_packed.begin(), m_packed.end(), std::make_pair(nKey, EMOXMediaExtension(0)));
    return at != m_packed.end() && at->first == nKey ? at->second : 0;
}

void CMOXMediaExtension::m_MakeDefaultList() {
    m_idToName.clear();
    m_nameToId.clear();
    m_packed.clear();
    for (size_t g = 0; g < kDefaultGroups; ++g) {
        const Group& group = kGroups[g];
        for (size_t i = 0; i < group.list->size(); ++i)
            m_Insert(group.base + static_cast<EMOXMediaExtension>(i), (*group.list)[i]);
    }
}

void CMOXMediaExtension::m_MakeUserList(const std::vector<EMOXMediaExtension>& list) {
    m_idToName.clear();
    m_nameToId.clear();
    m_packed.clear();
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
