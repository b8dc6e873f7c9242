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
// its watch's generation or else its entries' sizes and times) does. The
// sorted entries of the folders listed last are kept with the stamp they
// were read under (CFolderSnapshots): the sections of one folder, read one
// window after another, walk and stat it once while it stays the same.
// Concurrent calls are safe.
#define MOX_LOG_TAG "MOX-ENGINE"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>

#include "mox_thread_annotations.h"

#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_util.h>
#include <mox/mox_web_source.h>

#include "mox_local_folder.h"

namespace {

constexpr const char* kSourceName = "mox_local_source";

// The length of the name without its extension; a name without one is its
// own title.
size_t TitleLength(const std::string& strName) {
    size_t nDot = strName.find_last_of('.');
    return nDot == std::string::npos || nDot == 0 ? strName.size() : nDot;
}

// Appends n bytes as the inside of a JSON string literal.
void AppendJsonText(std::string& out, const char* pText, size_t n) {
    static const char kHex[] = "0123456789abcdef";
    for (size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(pText[i]);
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
}

// Appends n bytes of a name escaped for a JSON string literal, in the
// engine's UTF-8 rule for names (CMOXUtil::FileNameToUtf8: stray bytes and
// backslashes as "\xNN"), so that items in shared memory read like the bus
// texts. Plain ASCII names, the common case, are not copied first.
void AppendEscaped(std::string& out, const char* pText, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(pText[i]);
        if (c >= 0x80 || c == '\\') {
            const std::string text = CMOXUtil::FileNameToUtf8(std::string_view(pText, n));
            AppendJsonText(out, text.data(), text.size());
            return;
        }
    }
    AppendJsonText(out, pText, n);
}

// Appends text as a JSON string literal.
void AppendQuoted(std::string& out, const std::string& text) {
    out += '"';
    AppendEscaped(out, text.data(), text.size());
    out += '"';
}

void AppendNumber(std::string& out, long long llValue) {
    char szNumber[24];
    const int n = snprintf(szNumber, sizeof(szNumber), "%lld", llValue);
    out.append(szNumber, static_cast<size_t>(n));
}

// Appends one compact item object. Written by hand: a folder of 10,000 files
// makes 10,000 of them, and a JSON document per item would cost more than
// reading the folder. strFolder ends with '/'.
void AppendItemJson(std::string& item, const SMOXLocalEntry& entry, const std::string& strFolder) {
    item += "{\"FileName\":";
    AppendQuoted(item, entry.strName);
    item += ",\"FilePath\":\"";
    AppendEscaped(item, strFolder.data(), strFolder.size());
    AppendEscaped(item, entry.strName.data(), entry.strName.size());
    item += '"';
    item += ",\"FileSize\":";
    AppendNumber(item, entry.llSize);
    item += ",\"FileTime\":";
    AppendNumber(item, entry.llTime);
    item += ",\"IsFolder\":";
    item += entry.bIsFolder ? "true" : "false";
    item += ",\"MediaType\":";
    AppendNumber(item, entry.nMediaType);
    item += ",\"Title\":\"";
    AppendEscaped(item, entry.strName.data(), entry.bIsFolder ? entry.strName.size() : TitleLength(entry.strName));
    item += "\"}";
}

std::string ItemJson(const SMOXLocalEntry& entry, const std::string& strFullPath) {
    const size_t nSlash = strFullPath.find_last_of('/');
    std::string item;
    AppendItemJson(item, entry, strFullPath.substr(0, nSlash + 1));
    return item;
}

// The sorted, filtered entries of one folder as read under one stamp.
struct SFolderSnapshot {
    std::string strFolder;  // as the client named it
    int nMediaType = 0;
    std::string strStamp;
    std::string strResolved;
    std::vector<SMOXLocalEntry> entries;
    int nFolders = 0;
    size_t nBytes = 0;  // what it holds, roughly
};

// The snapshots of the folders listed last, newest first. Bounds: at most
// kMaxSnapshots of them, kMaxBytes in all; a bigger one is used once and not
// kept. Every operation holds m_mutex (never across a walk).
class CFolderSnapshots {
public:
    static constexpr size_t kMaxSnapshots = 4;
    static constexpr size_t kMaxBytes = 128u * 1024 * 1024;

    std::shared_ptr<const SFolderSnapshot> Find(const std::string& strFolder, int nMediaType,
                                                const std::string& strStamp) {
        mox::MutexLock lock(m_mutex);
        for (const auto& pSnapshot : m_snapshots)
            if (pSnapshot->strFolder == strFolder && pSnapshot->nMediaType == nMediaType &&
                pSnapshot->strStamp == strStamp)
                return pSnapshot;
        return nullptr;
    }
    void Keep(std::shared_ptr<const SFolderSnapshot> pSnapshot) {
        if (pSnapshot->strStamp.empty() || pSnapshot->nBytes > kMaxBytes) return;
        mox::MutexLock lock(m_mutex);
        // An older state of the same folder is of no use any more.
        for (auto it = m_snapshots.begin(); it != m_snapshots.end();) {
            if ((*it)->strFolder == pSnapshot->strFolder && (*it)->nMediaType == pSnapshot->nMediaType) {
                m_nBytes -= (*it)->nBytes;
                it = m_snapshots.erase(it);
            } else {
                ++it;
            }
        }
        m_nBytes += pSnapshot->nBytes;
        m_snapshots.push_front(std::move(pSnapshot));
        while (m_snapshots.size() > kMaxSnapshots || m_nBytes > kMaxBytes) {
            m_nBytes -= m_snapshots.back()->nBytes;
            m_snapshots.pop_back();
        }
    }

private:
    mox::Mutex m_mutex;
    std::deque<std::shared_ptr<const SFolderSnapshot>> m_snapshots GUARDED_BY(m_mutex);
    size_t m_nBytes GUARDED_BY(m_mutex) = 0;
};

// The stamp this thread took last (the engine asks for the validity, then
// for the data, on one thread): the data call need not stamp the folder again.
// Used once, and only when just taken.
struct SLastStamp {
    std::string strFolder;
    std::string strStamp;
    std::chrono::steady_clock::time_point taken;
};
thread_local SLastStamp t_lastStamp;

std::string StampOf(const std::string& strFolder) {
    SLastStamp last = std::move(t_lastStamp);
    t_lastStamp = SLastStamp();
    if (last.strFolder == strFolder && !last.strStamp.empty() &&
        std::chrono::steady_clock::now() - last.taken < std::chrono::seconds(1))
        return last.strStamp;
    return CMOXLocalFolder::Stamp(strFolder);
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
        if (doc.IsValid() && doc.IsString("mox_folder_path") && doc.Get("mox_folder_path", strFolder)) {
            strFolder = CMOXUtil::FileNameFromUtf8(strFolder);
            strStamp = CMOXLocalFolder::Stamp(strFolder);
            t_lastStamp = SLastStamp{strFolder, strStamp, std::chrono::steady_clock::now()};
        }
        return MOX_ANSWER_STAMPED;  // an empty stamp: asked afresh, not kept
    }

private:
    // The folder's entries, sorted and filtered: the kept snapshot while the
    // stamp holds, else read afresh (and kept).
    mox_error_code_e m_Entries(const std::string& strFolder, int nMediaType, const bool& bStop,
                               std::shared_ptr<const SFolderSnapshot>& pSnapshot);

    CFolderSnapshots m_snapshots;
};

mox_error_code_e CMOXLocalSource::m_Entries(const std::string& strFolder, int nMediaType, const bool& bStop,
                                            std::shared_ptr<const SFolderSnapshot>& pSnapshot) {
    // Taken before the walk: a change during it gives a later stamp that
    // this snapshot never matches.
    const std::string strStamp = StampOf(strFolder);
    if (!strStamp.empty() && (pSnapshot = m_snapshots.Find(strFolder, nMediaType, strStamp)) != nullptr)
        return MOX_ERROR_NONE;
    auto pNew = std::make_shared<SFolderSnapshot>();
    std::vector<SMOXLocalEntry>& entries = pNew->entries;
    mox_error_code_e eError = CMOXLocalFolder::List(strFolder, bStop, entries, pNew->strResolved);
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
    pNew->nFolders = static_cast<int>(
        std::count_if(entries.begin(), entries.end(), [](const SMOXLocalEntry& e) { return e.bIsFolder; }));
    pNew->strFolder = strFolder;
    pNew->nMediaType = nMediaType;
    pNew->strStamp = strStamp;
    pNew->nBytes = entries.capacity() * sizeof(SMOXLocalEntry);
    for (const SMOXLocalEntry& entry : entries)
        if (entry.strName.capacity() > 15) pNew->nBytes += entry.strName.capacity() + 1;
    MOX_INFO("Folder[%.256s]: %zu entries read under stamp[%s].", strFolder.c_str(), entries.size(), strStamp.c_str());
    pSnapshot = pNew;
    m_snapshots.Keep(std::move(pNew));
    return MOX_ERROR_NONE;
}

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
    // Paths come back as items named them (the engine's rule for names).
    strFolder = CMOXUtil::FileNameFromUtf8(strFolder);
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

    std::shared_ptr<const SFolderSnapshot> pSnapshot;
    mox_error_code_e eError = m_Entries(strFolder, nMediaType, bStop, pSnapshot);
    if (eError != MOX_ERROR_NONE) return eError;
    const std::vector<SMOXLocalEntry>& entries = pSnapshot->entries;
    const int nMatching = static_cast<int>(entries.size());
    const int nFolders = pSnapshot->nFolders;
    nTotalCount = nMatching;
    if (nMatching == 0) return MOX_ERROR_NONE;  // the engine reports an empty folder
    if (nStart >= nMatching) {
        MOX_WARN("Window start %d beyond the %d entries.", nStart, nMatching);
        return MOX_ERROR_INVALID_PARAMETER;
    }
    const int nLast = (nEnd == -1 || nEnd >= nMatching) ? nMatching - 1 : nEnd;

    const std::string strPrefix = pSnapshot->strResolved + '/';
    // Items go out in runs of about 64 KiB: one write per run, one buffer.
    const size_t kRun = 64 * 1024;
    std::string run;
    run.reserve(kRun + 4096);
    long long llWritten = 0;
    lengths.reserve(static_cast<size_t>(nLast - nStart + 1));
    auto flush = [&]() {
        if (run.empty()) return true;
        if (llWritten + static_cast<long long>(run.size()) > INT_MAX / 2 ||
            fwrite(run.data(), 1, run.size(), stream) != run.size()) {
            MOX_WARN("Can not write the items of folder[%.256s].", strFolder.c_str());
            return false;
        }
        llWritten += static_cast<long long>(run.size());
        run.clear();
        return true;
    };
    for (int i = nStart; i <= nLast; ++i) {
        if ((i & 1023) == 0 && MoxStopRequested(bStop)) return MOX_ERROR_GENERIC;
        const size_t nBefore = run.size();
        AppendItemJson(run, entries[i], strPrefix);
        lengths.push_back(mox_data_length_s{static_cast<int32_t>(run.size() - nBefore)});
        if (run.size() >= kRun && !flush()) return MOX_ERROR_GENERIC;
    }
    if (!flush()) return MOX_ERROR_GENERIC;
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
    strPath = CMOXUtil::FileNameFromUtf8(strPath);
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
