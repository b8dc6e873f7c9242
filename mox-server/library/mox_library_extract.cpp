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

namespace {

// "+HH:MM" / "-HH:MM" in seconds east of UTC; nullopt for anything else.
std::optional<int> ParseExifOffset(const std::string& offset) {
    if (offset.size() != 6 || (offset[0] != '+' && offset[0] != '-') || offset[3] != ':') return std::nullopt;
    for (size_t i : {1, 2, 4, 5})
        if (offset[i] < '0' || offset[i] > '9') return std::nullopt;
    const int h = (offset[1] - '0') * 10 + (offset[2] - '0');
    const int m = (offset[4] - '0') * 10 + (offset[5] - '0');
    // Zones in use run from -12:00 to +14:00.
    if (h > 14 || m > 59 || h * 60 + m > 14 * 60) return std::nullopt;
    const int seconds = (h * 60 + m) * 60;
    return offset[0] == '-' ? -seconds : seconds;
}

}  // namespace

std::optional<int64_t> ParseExifDate(const std::string& text, const std::string& offset) {
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
    const int64_t wall = static_cast<int64_t>(timegm(&tmValue));
    // Local wall-clock time in a zone east of UTC is ahead of UTC.
    if (std::optional<int> east = ParseExifOffset(offset)) return wall - *east;
    return wall;
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

void ExtractFieldsBatch(std::vector<SMOXLibraryExtractItem>& items) {
    std::vector<media_info_s> infos(items.size());
    std::vector<SMOXExtractExtra> extras(items.size());
    std::vector<SMOXExtractItem> batch;
    batch.reserve(items.size());
    for (size_t i = 0; i < items.size(); ++i) {
        SMOXLibraryExtractItem& item = items[i];
        item.fields = SMOXLibraryFields();
        item.fields.strMimeType = MimeTypeOf(item.strFileName);
        item.fields.strTitle = CMOXExtractor::FileNameToUtf8(BaseName(item.strFileName));
        item.bParsed = true;
        if (!HasContent(item.nMediaType)) continue;
        media_info_s& info = infos[i];
        info.nMediaType = item.nMediaType;
        // Missing tags stay empty here, not the record's "Unknown".
        info.strTitle.clear();
        SMOXExtractItem one;
        one.fd = item.fd;
        one.strPath = item.strPath;
        one.nMediaType = item.nMediaType;
        one.ullSize = static_cast<unsigned long long>(item.nSize);
        one.ulModifiedTime = static_cast<unsigned long>(item.nTime);
        one.pInfo = &info;
        one.pExtra = &extras[i];
        batch.push_back(std::move(one));
    }
    if (batch.empty()) return;
    CMOXExtractClient::Get().ExtractBatch(batch, true);

    size_t b = 0;
    for (size_t i = 0; i < items.size(); ++i) {
        SMOXLibraryExtractItem& item = items[i];
        if (!HasContent(item.nMediaType)) continue;
        const SMOXExtractItem::EResult eResult = batch[b++].eResult;
        if (eResult == SMOXExtractItem::EResult::kFailed) {
            item.bParsed = false;
            continue;
        }
        if (eResult == SMOXExtractItem::EResult::kDeferred) {
            item.bDeferred = true;
            continue;
        }
        // Not read (no helper): the basic fields only.
        if (eResult != SMOXExtractItem::EResult::kParsed) continue;
        const media_info_s& info = infos[i];
        const SMOXExtractExtra& extra = extras[i];
        SMOXLibraryFields& out = item.fields;
        const std::string strTitle = Known(info.strTitle);
        if (!strTitle.empty()) out.strTitle = strTitle;
        // A video's record keeps zeros; its numbers come from the container.
        const bool bVideo = item.nMediaType == MOX_MEDIA_TYPE_VIDEO;
        const int nWidth = bVideo ? extra.nVideoWidth : info.nWidth;
        const int nHeight = bVideo ? extra.nVideoHeight : info.nHeight;
        const int nDuration = bVideo ? extra.nVideoDuration : info.nDuration;
        if (nWidth > 0) out.width = nWidth;
        if (nHeight > 0) out.height = nHeight;
        if (info.nOrientation > 0) out.orientation = info.nOrientation;
        if (nDuration > 0) out.duration = nDuration;
        if (info.dLatitude >= -90.0 && info.dLatitude <= 90.0 && info.dLongitude >= -180.0 &&
            info.dLongitude <= 180.0 && !(info.dLatitude == 0.0 && info.dLongitude == 0.0)) {
            out.latitude = info.dLatitude;
            out.longitude = info.dLongitude;
        }
        if (item.nMediaType == MOX_MEDIA_TYPE_PHOTO)
            out.dateTaken = ParseExifDate(info.strDateTaken, extra.strDateOffset);
        out.strArtist = Known(info.strArtist);
        out.strAlbum = Known(info.strAlbum);
        out.strGenre = Known(info.strGenre);
        int nTrack = 0;
        if (sscanf(info.strTrackNum.c_str(), "%d", &nTrack) == 1 && nTrack > 0) out.trackNumber = nTrack;
    }
}

}  // namespace mox_library
