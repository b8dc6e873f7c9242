// "mox_library_source": lists, groups and searches the media library index
// of the mounted storages (the engine's library keeps one SQLite file per
// volume; this source only reads them, each request on a read-only
// connection of its own, so it never blocks the indexer and never touches
// a storage).
//
// List document: "mox_library_mount" (a mounted volume; absent: every
// mounted one), "mox_media_type", "mox_library_view", "mox_library_filter",
// "mox_library_search", "SortedKey"/"SortedType" (ordered by the database),
// "mox_start_index"/"mox_end_index". See the README's library source.
//
// Validity: an answer is stamped with the volumes it read and their
// generations, so a kept answer is served only while none of them changed;
// the "volumes" view (live progress) is never kept. Every answer is in the
// asked order already (MOX_ANSWER_ORDERED): the engine does not sort it.
#define MOX_LOG_TAG "MOX-LIBRARY"

#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_util.h>
#include <mox/mox_web_source.h>

#include "mox_library_query.h"

namespace {

constexpr const char* kSourceName = "mox_library_source";
constexpr size_t kMaxStampBytes = 256;

// The stamp of an answer over these volumes: their mounts, identities and
// generations (long lists are hashed to fit the engine's stamp bound).
std::string StampOf(const SMOXLibraryQuery& query) {
    std::string strStamp = "lib1";
    for (const SMOXLibraryVolumeState& volume : query.volumes) {
        char szGeneration[32];
        snprintf(szGeneration, sizeof(szGeneration), "%" PRId64, volume.nGeneration);
        strStamp += '|' + volume.strVolumeId + '@' + volume.strMountPath + '#' + szGeneration;
    }
    if (strStamp.size() <= kMaxStampBytes) return strStamp;
    // FNV-1a, twice with different seeds: 128 bits.
    uint64_t h1 = 14695981039346656037ULL, h2 = 1099511628211ULL * 31;
    for (const unsigned char c : strStamp) {
        h1 = (h1 ^ c) * 1099511628211ULL;
        h2 = (h2 ^ c) * 0x100000001b3ULL + 0x9e3779b97f4a7c15ULL;
    }
    char szHash[64];
    snprintf(szHash, sizeof(szHash), "lib1h%016" PRIx64 "%016" PRIx64 "-%zu", h1, h2, strStamp.size());
    return szHash;
}

class CMOXLibrarySource final : public IWebSource {
public:
    bool Init() override { return true; }
    void Close() override {}
    mox_error_code_e GetData(bool& bStop, std::string& strQueryCmd, FILE* stream, int& nLen, int& nStartIndex,
                             int& nEndIndex, int& nTotalCount, std::vector<mox_data_group_s>& groups,
                             std::vector<mox_data_length_s>& lengths) override;
    mox_error_code_e GetDetail(bool& bStop, std::string& strCommand, std::string& strResult) override;
    void Destroy() override { delete this; }
    mox_answer_validity_e GetAnswerValidity(const std::string& strQueryCmd, std::string& strStamp) override;
};

mox_answer_validity_e CMOXLibrarySource::GetAnswerValidity(const std::string& strQueryCmd, std::string& strStamp) {
    strStamp.clear();
    SMOXLibraryQuery query;
    // A document GetData will refuse: not kept (GetData says why).
    if (SMOXLibraryQuery::Parse(strQueryCmd, query, true) != MOX_ERROR_NONE) return MOX_ANSWER_NO_KEEP;
    const int nOrdered = MOX_ANSWER_ORDERED;
    if (query.eView == EMOXLibraryView::kVolumes)
        return static_cast<mox_answer_validity_e>(MOX_ANSWER_NO_KEEP | nOrdered);
    strStamp = StampOf(query);
    return static_cast<mox_answer_validity_e>(MOX_ANSWER_STAMPED | nOrdered);
}

mox_error_code_e CMOXLibrarySource::GetData(bool& bStop, std::string& strQueryCmd, FILE* stream, int& nLen,
                                            int& nStartIndex, int& nEndIndex, int& nTotalCount,
                                            std::vector<mox_data_group_s>& groups,
                                            std::vector<mox_data_length_s>& lengths) {
    SMOXLibraryQuery query;
    mox_error_code_e eError = SMOXLibraryQuery::Parse(strQueryCmd, query);
    if (eError != MOX_ERROR_NONE) return eError;
    SMOXLibraryItems items;
    int nTotal = 0;
    eError = CMOXLibraryReader::List(query, bStop, items, nTotal);
    if (eError != MOX_ERROR_NONE) return eError;
    nTotalCount = nTotal;
    if (items.lengths.empty()) return MOX_ERROR_NONE;  // the engine answers "empty" (6)
    if (fwrite(items.data.data(), 1, items.data.size(), stream) != items.data.size()) {
        MOX_WARN("Library list: can not write the items.");
        return MOX_ERROR_GENERIC;
    }
    lengths.reserve(items.lengths.size());
    for (const int32_t nLength : items.lengths) lengths.push_back(mox_data_length_s{nLength});
    groups.push_back(mox_data_group_s{0, nTotal});
    nLen = static_cast<int>(items.data.size());
    nStartIndex = query.nStart;
    nEndIndex = query.nStart + static_cast<int>(items.lengths.size()) - 1;
    return MOX_ERROR_NONE;
}

mox_error_code_e CMOXLibrarySource::GetDetail(bool&, std::string& strCommand, std::string& strResult) {
    strResult.clear();
    CJsonValue doc(strCommand);
    std::string strPath;
    if (!doc.IsValid() || !doc.IsString("FilePath") || !doc.Get("FilePath", strPath)) {
        MOX_WARN("Library detail without \"FilePath\".");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    return CMOXLibraryReader::Detail(CMOXUtil::FileNameFromUtf8(strPath), strResult);
}

}  // namespace

MOX_WEB_SOURCE_DEFINE_SINGLE_SOURCE(kSourceName, CMOXLibrarySource)
