// The media library's one use of the metadata helper: a file already open
// below its volume goes to CMOXExtractClient (the sandboxed mox-extract), and
// what comes back is turned into the index's fields. Kept in one place so that
// changes of the helper's interface touch this file only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

// The fields the index keeps of one media file; absent fields stay empty.
struct SMOXLibraryFields {
    std::string strTitle;  // tag title, else the file name without extension
    std::string strMimeType;
    std::optional<int64_t> width, height, dateTaken, orientation, duration, trackNumber;
    std::optional<double> latitude, longitude;
    std::string strArtist, strAlbum, strGenre;
};

namespace mox_library {

// Parses the open regular file `fd` (absolute path `path`, used for the
// helper's log and its list of fatal files) of group `mediaType`. False when
// the helper crashed or stalled on it (the file is then recorded as failed);
// `out` always holds at least the title and MIME type.
bool ExtractFields(int fd, const std::string& path, const std::string& fileName, int mediaType, int64_t size,
                   int64_t mtime, SMOXLibraryFields& out);

// Whether files of this group have contents the helper parses.
bool HasContent(int mediaType);

// EXIF "YYYY:MM:DD HH:MM:SS" read as UTC, in seconds since the epoch.
std::optional<int64_t> ParseExifDate(const std::string& text);

// The MIME type of a file name's extension ("" when unknown).
std::string MimeTypeOf(const std::string& fileName);

}  // namespace mox_library
