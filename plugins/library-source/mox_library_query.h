// One list request of the library source: the client's document read and
// checked (SMOXLibraryQuery::Parse), then answered from the index files of
// the volumes it names (CMOXLibraryReader), which a read-only SQLite
// connection of its own reads (WAL: it never blocks the indexer, which
// keeps writing meanwhile).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <mox/mox_library_state.h>
#include <mox/mox_types.h>

enum class EMOXLibraryView { kItems, kVolumes, kFolders, kAlbums, kArtists, kGenres, kYears, kMonths };

struct SMOXLibraryQuery {
    EMOXLibraryView eView = EMOXLibraryView::kItems;
    // The volumes asked for (all mounted ones when no mount is named).
    std::vector<SMOXLibraryVolumeState> volumes;
    int nMediaType = 0;  // 0: every media type
    // "mox_library_filter"; an empty text opens the group of files without
    // that tag.
    std::optional<std::string> artist, album, genre, month;
    std::optional<int64_t> year;
    std::optional<std::string> folder;  // below the one volume of `volumes`, raw bytes ("" its top)
    std::string strMatch;               // FTS5 expression of quoted prefix tokens; empty: no search
    bool bSearch = false;
    std::string strSortKey;  // empty: the view's default order
    bool bDescending = false;
    int nStart = 0;
    int nEnd = -1;  // -1: to the last

    // Reads strDocument; the volumes come from the engine's library. 7
    // (warning) for anything unknown or malformed; 6 for a search without a
    // word (it can match nothing). bQuiet: nothing logged (the document is
    // parsed again, and its faults logged, when the data is asked for).
    static mox_error_code_e Parse(const std::string& strDocument, SMOXLibraryQuery& query, bool bQuiet = false);
    // True when the answer is in the order "SortedKey"/"SortedType" ask for.
    bool Ordered() const { return !strSortKey.empty(); }
};

// The FTS5 expression of a search text: each word a quoted prefix token,
// all of them required; nWords counts them. Empty when the text holds no
// word. Never client syntax: quotes, operators and column filters are only
// separators.
std::string MoxLibraryMatchExpression(const std::string& strText, size_t& nWords);

// The items of an answer, back to back, and each one's length.
struct SMOXLibraryItems {
    // Bound of an answer's bytes (a data block holds at most 2 GiB).
    static constexpr size_t kMaxBytes = 1u << 30;
    std::string data;
    std::vector<int32_t> lengths;
    // The item appended to data since nBefore is complete; false (warning)
    // past the bound.
    bool Added(size_t nBefore);
};

class CMOXLibraryReader {
public:
    // Answers the query: items (compact JSON objects) of the window, and the
    // count of all matching. bStop ends a running query.
    static mox_error_code_e List(const SMOXLibraryQuery& query, const bool& bStop, SMOXLibraryItems& items,
                                 int& nTotal);
    // The item object of one file (absolute path, raw bytes); 5 when the
    // index does not know it, 7 outside every mounted volume.
    static mox_error_code_e Detail(const std::string& strPath, std::string& strItem);
};
