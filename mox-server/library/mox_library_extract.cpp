#include "mox_library_extract.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>

#include "mox_extract_client.h"
#include "mox_extractor.h"
#include "mox_scanner_defines.h"

namespace mox_library {

namespace {

std::string BaseName(const std::string& fileName) {
    const size_t nDot = fileName.rfind('.');
    return (nDot == std::string::npos || nDot == 0) ? fileName : fileName.substr(0, nDot);
}

std::string Known(const std::string& text) {
    return (text.empty() || text == "Unknown") ? std::string() : CMOXExtractor::TextToUtf8(text);
}

}  // namespace

bool HasContent(int mediaType) {
    return mediaType == MOX_MEDIA_TYPE_PHOTO || mediaType == MOX_MEDIA_TYPE_VIDEO || mediaType == MOX_MEDIA_TYPE_MUSIC;
}

std::optional<int64_t> ParseExifDate(const std::string& text) {
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    char tail = 0;
    if (sscanf(text.c_str(), "%4d:%2d:%2d %2d:%2d:%2d%c", &y, &mo, &d, &h, &mi, &s, &tail) != 6) return std::nullopt;
    if (y < 1900 || y > 9999 || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60 || h < 0 ||
        mi < 0 || s < 0)
        return std::nullopt;
    struct tm tmValue;
    memset(&tmValue, 0, sizeof(tmValue));
    tmValue.tm_year = y - 1900;
    tmValue.tm_mon = mo - 1;
    tmValue.tm_mday = d;
    tmValue.tm_hour = h;
    tmValue.tm_min = mi;
    tmValue.tm_sec = s;
    return static_cast<int64_t>(timegm(&tmValue));
}

std::string MimeTypeOf(const std::string& fileName) {
    static const std::map<std::string, std::string> kTypes = {
        {"jpg", "image/jpeg"},  {"jpeg", "image/jpeg"},      {"mpo", "image/mpo"},       {"bmp", "image/bmp"},
        {"png", "image/png"},   {"mp3", "audio/mpeg"},       {"m4a", "audio/mp4"},       {"aac", "audio/aac"},
        {"flac", "audio/flac"}, {"ogg", "audio/ogg"},        {"wav", "audio/wav"},       {"wma", "audio/x-ms-wma"},
        {"mid", "audio/midi"},  {"midi", "audio/midi"},      {"aif", "audio/aiff"},      {"aiff", "audio/aiff"},
        {"mp4", "video/mp4"},   {"mkv", "video/x-matroska"}, {"avi", "video/x-msvideo"}, {"mov", "video/quicktime"},
        {"webm", "video/webm"}, {"mpg", "video/mpeg"},       {"mpeg", "video/mpeg"},     {"ts", "video/mp2t"},
        {"m2ts", "video/mp2t"}, {"mts", "video/mp2t"},       {"3gp", "video/3gpp"},      {"wmv", "video/x-ms-wmv"},
        {"flv", "video/x-flv"}, {"asf", "video/x-ms-asf"}};
    const size_t nDot = fileName.rfind('.');
    if (nDot == std::string::npos) return std::string();
    std::string ext = fileName.substr(nDot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    auto found = kTypes.find(ext);
    return found == kTypes.end() ? std::string() : found->second;
}

bool ExtractFields(int fd, const std::string& path, const std::string& fileName, int mediaType, int64_t size,
                   int64_t mtime, SMOXLibraryFields& out) {
    out = SMOXLibraryFields();
    out.strMimeType = MimeTypeOf(fileName);
    out.strTitle = CMOXExtractor::FileNameToUtf8(BaseName(fileName));
    if (!HasContent(mediaType)) return true;
    media_info_s info;
    info.nMediaType = mediaType;
    // The record's defaults for missing tags, as the extractor sets them.
    info.strTitle.clear();
    if (!CMOXExtractClient::Get().Extract(fd, path, mediaType, static_cast<unsigned long long>(size),
                                          static_cast<unsigned long>(mtime), info))
        return false;
    const std::string strTitle = Known(info.strTitle);
    if (!strTitle.empty()) out.strTitle = strTitle;
    if (info.nWidth > 0) out.width = info.nWidth;
    if (info.nHeight > 0) out.height = info.nHeight;
    if (info.nOrientation > 0) out.orientation = info.nOrientation;
    if (info.nDuration > 0) out.duration = info.nDuration;
    if (info.dLatitude >= -90.0 && info.dLatitude <= 90.0 && info.dLongitude >= -180.0 && info.dLongitude <= 180.0 &&
        !(info.dLatitude == 0.0 && info.dLongitude == 0.0)) {
        out.latitude = info.dLatitude;
        out.longitude = info.dLongitude;
    }
    out.dateTaken = ParseExifDate(info.strDateTaken);
    out.strArtist = Known(info.strArtist);
    out.strAlbum = Known(info.strAlbum);
    out.strGenre = Known(info.strGenre);
    int nTrack = 0;
    if (sscanf(info.strTrackNum.c_str(), "%d", &nTrack) == 1 && nTrack > 0) out.trackNumber = nTrack;
    return true;
}

}  // namespace mox_library
