// The media library's one use of the metadata helper: a file already open
// below its volume goes to CMOXExtractClient (the sandboxed mox-extract), and
// what comes back is turned into the index's fields. Kept in one place so that
// changes of the helper's interface touch this file only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The fields the index keeps of one media file; absent fields stay empty.
struct SMOXLibraryFields {
    std::string strTitle;  // tag title, else the file name without extension
    std::string strMimeType;
    std::optional<int64_t> width, height, dateTaken, orientation, duration, trackNumber;
    std::optional<double> latitude, longitude;
    std::string strArtist, strAlbum, strGenre;
};

// One file to extract: an open regular file of its volume (borrowed).
struct SMOXLibraryExtractItem {
    int fd = -1;
    std::string strPath;  // absolute: the helper's log and its list of fatal files
    std::string strFileName;
    int nMediaType = 0;
    int64_t nSize = 0;
    int64_t nTime = 0;
    SMOXLibraryFields fields;  // out: at least the title and MIME type
    bool bParsed = false;      // out: false when the helper crashed or stalled on it
    bool bDeferred = false;    // out: not parsed, the storage stalled on another file: try later
};

namespace mox_library {

// Extracts every item, several files per round trip to the helper. A file
// the helper crashed or stalled on has bParsed false (to be recorded as
// failed); the others are not held back by it.
void ExtractFieldsBatch(std::vector<SMOXLibraryExtractItem>& items);

// Whether files of this group have contents the helper parses.
bool HasContent(int mediaType);

// EXIF "YYYY:MM:DD HH:MM:SS" read as UTC, in seconds since the epoch; with
// an EXIF time zone ("+HH:MM" or "-HH:MM", as OffsetTimeOriginal records it)
// the wall-clock time is taken in that zone. A zone that is not of that form
// is ignored.
std::optional<int64_t> ParseExifDate(const std::string& text, const std::string& offset = std::string());

// The MIME type of a file name's extension ("" when unknown).
std::string MimeTypeOf(const std::string& fileName);

}  // namespace mox_library
