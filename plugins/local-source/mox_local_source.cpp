// "mox_local_source": the content of one folder of a mounted USB storage.
//
// List document: "mox_folder_path" (absolute folder below MOX_USB_ROOT),
// optional "mox_media_type" (0 or 15 every entry; 2, 3, 5, 6 one media
// group, folders always kept), optional inclusive window "mox_start_index"
// and "mox_end_index" (-1 or absent: to the last entry). Entries: folders
// first, then files, each part by name. Items are compact JSON objects
// (FileName, FilePath, FileSize, FileTime, Title, MediaType, IsFolder); one
// group per part present.
//
// Detail document: "FilePath"; the answer is the entry's item object.
//
// Answers stay valid while the folder's stamp (its identity and times, and
// its watch's generation or else its entries' sizes and times) does. The source keeps no state between calls,
// so concurrent calls are safe.
#define MOX_LOG_TAG "MOX-ENGINE"

#include <algorithm>
#include <climits>
#include <cstring>

#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_util.h>
#include <mox/mox_web_source.h>

#include "mox_local_folder.h"

namespace {

constexpr const char* kSourceName = "mox_local_source";

// The name without its extension; a name without one is its own title.
std::string TitleOf(const std::string& strName) {
    size_t nDot = strName.find_last_of('.');
    return nDot == std::string::npos || nDot == 0 ? strName : strName.substr(0, nDot);
}

// Appends a name as a JSON string literal, in the engine's UTF-8 rule for
// names (CMOXUtil::FileNameToUtf8: stray bytes and backslashes as "\xNN"),
// so that items in shared memory read like the bus texts.
void AppendQuoted(std::string& out, const std::string& name) {
    static const char kHex[] = "0123456789abcdef";
    const std::string text = CMOXUtil::FileNameToUtf8(name);
    out += '"';
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            out += "\\u00";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    out += '"';
}

// One compact item object. Written by hand: a folder of 10,000 files makes
// 10,000 of them, and a JSON document per item would cost more than reading
// the folder.
std::string ItemJson(const SMOXLocalEntry& entry, const std::string& strFullPath) {
    std::string item;
    item.reserve(96 + 2 * entry.strName.size() + strFullPath.size());
    item += "{\"FileName\":";
    AppendQuoted(item, entry.strName);
    item += ",\"FilePath\":";
    AppendQuoted(item, strFullPath);
    item += ",\"FileSize\":";
    item += std::to_string(entry.llSize);
    item += ",\"FileTime\":";
    item += std::to_string(entry.llTime);
    item += ",\"IsFolder\":";
    item += entry.bIsFolder ? "true" : "false";
    item += ",\"MediaType\":";
    item += std::to_string(entry.nMediaType);
    item += ",\"Title\":";
    AppendQuoted(item, entry.bIsFolder ? entry.strName : TitleOf(entry.strName));
    item += '}';
    return item;
}

// An optional integer member: absent gives nDefault; present but not an int
// is a bad document.
bool OptionalInt(const CJsonValue& doc, const char* szKey, int nDefault, int& nValue) {
    nValue = nDefault;
    if (!doc.Has(szKey)) return true;
    if (!doc.IsInt(szKey)) {
        MOX_WARN("\"%s\" is not an integer.", szKey);
        return false;
    }
    return doc.Get(szKey, nValue);
}

class CMOXLocalSource final : public IWebSource {
public:
    bool Init() override { return true; }
    void Close() override {}
    mox_error_code_e GetData(bool& bStop, std::string& strQueryCmd, FILE* stream, int& nLen, int& nStartIndex,
                             int& nEndIndex, int& nTotalCount, std::vector<mox_data_group_s>& groups,
                             std::vector<mox_data_length_s>& lengths) override;
    mox_error_code_e GetDetail(bool& bStop, std::string& strCommand, std::string& strResult) override;
    void Destroy() override { delete this; }
    // A folder's answer stays valid while the folder's stamp does.
    mox_answer_validity_e GetAnswerValidity(const std::string& strQueryCmd, std::string& strStamp) override {
        strStamp.clear();
        CJsonValue doc(strQueryCmd);
        std::string strFolder;
        if (doc.IsValid() && doc.IsString("mox_folder_path") && doc.Get("mox_folder_path", strFolder))
            strStamp = CMOXLocalFolder::Stamp(strFolder);
        return MOX_ANSWER_STAMPED;  // an empty stamp: asked afresh, not kept
    }
};

mox_error_code_e CMOXLocalSource::GetData(bool& bStop, std::string& strQueryCmd, FILE* stream, int& nLen,
                                          int& nStartIndex, int& nEndIndex, int& nTotalCount,
                                          std::vector<mox_data_group_s>& groups,
                                          std::vector<mox_data_length_s>& lengths) {
    CJsonValue doc(strQueryCmd);
    std::string strFolder;
    if (!doc.IsValid() || !doc.IsString("mox_folder_path") || !doc.Get("mox_folder_path", strFolder)) {
        MOX_WARN("List document without \"mox_folder_path\".");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    int nMediaType = 0, nStart = 0, nEnd = -1;
    if (!OptionalInt(doc, "mox_media_type", 0, nMediaType) || !OptionalInt(doc, "mox_start_index", 0, nStart) ||
        !OptionalInt(doc, "mox_end_index", -1, nEnd))
        return MOX_ERROR_INVALID_PARAMETER;
    if (nMediaType != 0 && nMediaType != 15 && nMediaType != 2 && nMediaType != 3 && nMediaType != 5 &&
        nMediaType != 6) {
        MOX_WARN("Unknown \"mox_media_type\" %d.", nMediaType);
        return MOX_ERROR_INVALID_PARAMETER;
    }
    if (nStart < 0 || nEnd < -1 || (nEnd != -1 && nEnd < nStart)) {
        MOX_WARN("Bad window [%d..%d].", nStart, nEnd);
        return MOX_ERROR_INVALID_PARAMETER;
    }

    std::vector<SMOXLocalEntry> entries;
    std::string strResolved;
    mox_error_code_e eError = CMOXLocalFolder::List(strFolder, bStop, entries, strResolved);
    if (eError != MOX_ERROR_NONE) return eError;
    if (nMediaType != 0 && nMediaType != 15) {
        entries.erase(std::remove_if(
                          entries.begin(), entries.end(),
                          [nMediaType](const SMOXLocalEntry& e) { return !e.bIsFolder && e.nMediaType != nMediaType; }),
                      entries.end());
    }
    std::sort(entries.begin(), entries.end(), [](const SMOXLocalEntry& a, const SMOXLocalEntry& b) {
        if (a.bIsFolder != b.bIsFolder) return a.bIsFolder;
        return a.strName < b.strName;
    });
    const int nMatching = static_cast<int>(entries.size());
    const int nFolders = static_cast<int>(
        std::count_if(entries.begin(), entries.end(), [](const SMOXLocalEntry& e) { return e.bIsFolder; }));
    nTotalCount = nMatching;
    if (nMatching == 0) return MOX_ERROR_NONE;  // the engine reports an empty folder
    if (nStart >= nMatching) {
        MOX_WARN("Window start %d beyond the %d entries.", nStart, nMatching);
        return MOX_ERROR_INVALID_PARAMETER;
    }
    const int nLast = (nEnd == -1 || nEnd >= nMatching) ? nMatching - 1 : nEnd;

    const std::string strPrefix = strResolved + '/';
    long long llWritten = 0;
    for (int i = nStart; i <= nLast; ++i) {
        if (MoxStopRequested(bStop)) return MOX_ERROR_GENERIC;
        std::string strItem = ItemJson(entries[i], strPrefix + entries[i].strName);
        if (llWritten + static_cast<long long>(strItem.size()) > INT_MAX / 2 ||
            fwrite(strItem.data(), 1, strItem.size(), stream) != strItem.size()) {
            MOX_WARN("Can not write the items of folder[%.256s].", strFolder.c_str());
            return MOX_ERROR_GENERIC;
        }
        llWritten += static_cast<long long>(strItem.size());
        lengths.push_back(mox_data_length_s{static_cast<int32_t>(strItem.size())});
    }
    if (nFolders > 0) groups.push_back(mox_data_group_s{0, nFolders});
    if (nMatching > nFolders) groups.push_back(mox_data_group_s{nFolders, nMatching - nFolders});
    nLen = static_cast<int>(llWritten);
    nStartIndex = nStart;
    nEndIndex = nLast;
    return MOX_ERROR_NONE;
}

mox_error_code_e CMOXLocalSource::GetDetail(bool&, std::string& strCommand, std::string& strResult) {
    strResult.clear();
    CJsonValue doc(strCommand);
    std::string strPath;
    if (!doc.IsValid() || !doc.IsString("FilePath") || !doc.Get("FilePath", strPath)) {
        MOX_WARN("Detail document without \"FilePath\".");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    SMOXLocalEntry entry;
    std::string strFullPath;
    mox_error_code_e eError = CMOXLocalFolder::Describe(strPath, entry, strFullPath);
    if (eError != MOX_ERROR_NONE) return eError;
    strResult = ItemJson(entry, strFullPath);
    return MOX_ERROR_NONE;
}

}  // namespace

MOX_WEB_SOURCE_DEFINE_ABI_VERSION()

extern "C" __attribute__((visibility("default"))) int GetSourcesCount(void) {
    return 1;
}

extern "C" __attribute__((visibility("default"))) const char* GetSourceName(int nIndex) {
    return nIndex == 0 ? kSourceName : nullptr;
}

extern "C" __attribute__((visibility("default"))) IWebSource* CreateSource(const char* szSourceName) {
    if (szSourceName == nullptr || strcmp(szSourceName, kSourceName) != 0) return nullptr;
    return new (std::nothrow) CMOXLocalSource();
}
