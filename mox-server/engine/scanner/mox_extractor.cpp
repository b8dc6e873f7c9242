#define MOX_LOG_TAG "MOX-SCANNER"

#include "mox_extractor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include <glib.h>
#include <libexif/exif-data.h>
#include <libexif/exif-loader.h>

#include <metadata_extractor.h>
#include <mox/json_value.h>
#include <mox/mox_confined_path.h>
#include <mox/mox_log.h>
#include <mox/mox_util.h>
#include <mox_host_paths.h>
#include <mox_unique_fd.h>

#include "mox_extract_client.h"

namespace {

// libexif reads at most the start of a file; a crafted file could claim more.
constexpr off_t kMaxExifScanBytes = 16 * 1024 * 1024;
// Text buffer of one EXIF value.
constexpr size_t kExifTextBytes = 129;

constexpr int kTypeNone = 0, kTypeFolder = 1, kTypePhoto = 2, kTypeVideo = 3, kTypeMusic = 5, kTypePvr = 6,
              kTypeUhd = 10, kTypeScsa = 11, kTypePlaylist = 12;

struct ExifDataUnref {
    void operator()(ExifData* d) const { exif_data_unref(d); }
};
using ExifDataPtr = std::unique_ptr<ExifData, ExifDataUnref>;
struct ExifLoaderUnref {
    void operator()(ExifLoader* l) const { exif_loader_unref(l); }
};
struct ExtractorDestroy {
    void operator()(metadata_extractor_s* h) const { metadata_extractor_destroy(h); }
};

ExifDataPtr LoadExif(int fd) {
    std::unique_ptr<ExifLoader, ExifLoaderUnref> loader(exif_loader_new());
    if (!loader) return nullptr;
    unsigned char buf[8192];
    off_t offset = 0;
    while (offset < kMaxExifScanBytes) {
        ssize_t n = pread(fd, buf, sizeof(buf), offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        offset += n;
        // 0: the loader has what it needs or has given up on the data.
        if (!exif_loader_write(loader.get(), buf, static_cast<unsigned int>(n))) break;
    }
    return ExifDataPtr(exif_loader_get_data(loader.get()));
}

// The entry of `tag`: GPS tags only from the GPS IFD (their numbers are
// reused by the interoperability IFD), the others from any IFD.
ExifEntry* FindEntry(ExifData* exif, ExifTag tag, bool bGps) {
    if (bGps) return exif_content_get_entry(exif->ifd[EXIF_IFD_GPS], tag);
    for (int i = 0; i < EXIF_IFD_COUNT; ++i) {
        if (ExifEntry* e = exif_content_get_entry(exif->ifd[i], tag)) return e;
    }
    return nullptr;
}

bool RationalAt(const ExifEntry* e, ExifByteOrder order, unsigned index, double& value) {
    if (e->format != EXIF_FORMAT_RATIONAL || e->components <= index || !e->data ||
        e->size < (index + 1) * exif_format_get_size(EXIF_FORMAT_RATIONAL))
        return false;
    ExifRational r = exif_get_rational(e->data + index * 8, order);
    if (r.denominator == 0) return false;
    value = static_cast<double>(r.numerator) / r.denominator;
    return true;
}

// Reads `tag` as text (buf), integer (SHORT or LONG) or double (RATIONAL,
// degrees-minutes-seconds folded for GPS coordinates). Any of the outputs may
// be null when not wanted; false when the tag is absent or has another shape.
bool m_ExtractExif(ExifData* exif, ExifTag tag, char* buf, int* nValue, double* dValue, bool bGps = false) {
    if (!exif) {
        MOX_WARN("ExifData is NULL");
        return false;
    }
    ExifEntry* e = FindEntry(exif, tag, bGps);
    if (!e) return false;
    ExifByteOrder order = exif_data_get_byte_order(exif);
    if (buf) {
        buf[0] = '\0';
        if (e->format == EXIF_FORMAT_RATIONAL) {
            if (e->components < 1 || !e->data || e->size < 8) {
                MOX_WARN("Value is invalid");
                return false;
            }
            ExifRational r = exif_get_rational(e->data, order);
            snprintf(buf, kExifTextBytes, "%ld/%ld", static_cast<long>(r.numerator), static_cast<long>(r.denominator));
        } else if (e->format == EXIF_FORMAT_ASCII) {
            // Raw bytes: exif_entry_get_value would turn stray bytes into
            // escapes; TextToUtf8 reads them as Latin-1 instead.
            size_t len = e->data ? strnlen(reinterpret_cast<const char*>(e->data), e->size) : 0;
            if (len > kExifTextBytes - 1) len = kExifTextBytes - 1;
            if (len) memcpy(buf, e->data, len);
            buf[len] = '\0';
            // Same trimming as exif_entry_get_value: trailing blanks dropped.
            while (len > 0 && buf[len - 1] == ' ') buf[--len] = '\0';
        } else {
            exif_entry_get_value(e, buf, kExifTextBytes);
        }
        return true;
    }
    if (nValue) {
        if (!e->data || e->components < 1) return false;
        if (e->format == EXIF_FORMAT_SHORT && e->size >= 2) {
            *nValue = exif_get_short(e->data, order);
            return true;
        }
        if (e->format == EXIF_FORMAT_LONG && e->size >= 4) {
            ExifLong v = exif_get_long(e->data, order);
            *nValue = v > INT_MAX ? INT_MAX : static_cast<int>(v);
            return true;
        }
        MOX_WARN("Value is invalid");
        return false;
    }
    if (dValue) {
        double first = 0;
        if (!RationalAt(e, order, 0, first)) {
            MOX_WARN("Value is invalid");
            return false;
        }
        double minutes = 0, seconds = 0;
        if (bGps && RationalAt(e, order, 1, minutes) && RationalAt(e, order, 2, seconds))
            first += minutes / 60.0 + seconds / 3600.0;
        *dValue = first;
        return true;
    }
    MOX_WARN("buf is NULL");
    return false;
}

std::string ExifText(const char* buf) {
    return CMOXExtractor::TextToUtf8(std::string_view(buf, strnlen(buf, kExifTextBytes)));
}

int ToInt(const char* text) {
    errno = 0;
    char* end = nullptr;
    long long v = strtoll(text, &end, 10);
    if (end == text || errno == ERANGE) return 0;
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}

const char* AttrName(metadata_extractor_attr_e attr) {
    switch (attr) {
        case METADATA_TITLE: return "METADATA_TITLE";
        case METADATA_ALBUM: return "METADATA_ALBUM";
        case METADATA_ARTIST: return "METADATA_ARTIST";
        case METADATA_GENRE: return "METADATA_GENRE";
        case METADATA_AUTHOR: return "METADATA_AUTHOR";
        case METADATA_DATE: return "METADATA_DATE";
        case METADATA_RECDATE: return "METADATA_RECDATE";
        case METADATA_COPYRIGHT: return "METADATA_COPYRIGHT";
        case METADATA_TRACK_NUM: return "METADATA_TRACK_NUM";
        case METADATA_AUDIO_BITRATE: return "METADATA_AUDIO_BITRATE";
        case METADATA_AUDIO_SAMPLERATE: return "METADATA_AUDIO_SAMPLERATE";
        case METADATA_AUDIO_CHANNELS: return "METADATA_AUDIO_CHANNELS";
        case METADATA_DURATION: return "METADATA_DURATION";
        case METADATA_VIDEO_WIDTH: return "METADATA_VIDEO_WIDTH";
        case METADATA_VIDEO_HEIGHT: return "METADATA_VIDEO_HEIGHT";
        default: return "METADATA_?";
    }
}

}  // namespace

CMOXExtractor::CMOXExtractor(std::string basePath, std::string name, int mediaType, bool bKnown,
                             unsigned long long size, unsigned long mtime)
    : m_strBasePath(std::move(basePath)),
      m_strName(std::move(name)),
      m_strFullPath(m_strBasePath + "/" + m_strName),
      m_nMediaType(mediaType),
      m_bKnown(bKnown),
      m_ullSize(size),
      m_ulModifiedTime(mtime) {}

bool CMOXExtractor::m_HasContent(int mediaType) {
    return mediaType == kTypePhoto || mediaType == kTypeVideo || mediaType == kTypeMusic;
}

bool CMOXExtractor::m_ExtractBasicInfo(media_info_s& info) {
    info.nMediaType = m_nMediaType;
    info.strDisplayName = m_strName;
    info.strFilePath = m_strFullPath;
    if (m_bKnown) {
        info.ullSize = m_ullSize;
        info.ulModifiedTime = m_ulModifiedTime;
    } else {
        struct stat64 st;
        if (stat64(m_strFullPath.c_str(), &st) != 0) {
            MOX_WARN("stat file(%s) error...", FileNameToUtf8(m_strFullPath).c_str());
            return false;
        }
        info.ullSize = static_cast<unsigned long long>(st.st_size);
        info.ulModifiedTime = static_cast<unsigned long>(st.st_mtime);
    }
    char month[7] = "";
    time_t t = static_cast<time_t>(info.ulModifiedTime);
    struct tm tmLocal;
    if (localtime_r(&t, &tmLocal) && strftime(month, sizeof(month), "%Y%m", &tmLocal) > 0)
        info.strModifiedMonth = month;
    else
        info.strModifiedMonth.clear();
    return true;
}

void CMOXExtractor::m_SetContentDefaults(int mediaType, media_info_s& info) {
    if (mediaType == kTypePhoto) {
        info.strTitle = "Unknown";
        info.strDateTaken = "Unknown";
    }
}

// Opens the file for the content step without following it into a FIFO or a
// device: only a regular file that is still the one stat'ed is parsed.
static mox_util::UniqueFd OpenRegular(const std::string& path) {
    mox_util::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd.IsValid()) return fd;
    struct stat st;
    if (fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode)) return mox_util::UniqueFd();
    return fd;
}

bool CMOXExtractor::Extract(media_info_s& info) {
    if (!m_ExtractBasicInfo(info)) {
        MOX_WARN("m_ExtractBasicInfo failed...");
        return false;
    }
    switch (m_nMediaType) {
        case kTypePhoto:
        case kTypeVideo:
        case kTypeMusic: break;
        case kTypeFolder:
        case kTypePvr:
        case kTypeUhd:
        case kTypeScsa:
        case kTypePlaylist: return true;
        default: MOX_WARN("unsupported type(%d)...", m_nMediaType); return true;
    }
    m_SetContentDefaults(m_nMediaType, info);

    // The helper parses only what lies below the USB root, whatever links on
    // the storage point to: the file is opened beneath it.
    mox_util::UniqueFd fd(CMOXConfinedPath(mox_host::UsbRoot()).OpenRegularForRead(m_strFullPath));
    if (!fd.IsValid()) {
        MOX_WARN("Extract: (%s) is not a readable regular file below the USB root, contents not read.",
                 FileNameToUtf8(m_strFullPath).c_str());
        return true;
    }
    return CMOXExtractClient::Get().Extract(fd.Get(), m_strFullPath, m_nMediaType, info.ullSize, info.ulModifiedTime,
                                            info);
}

bool CMOXExtractor::ExtractHere(media_info_s& info) {
    if (!m_ExtractBasicInfo(info)) {
        MOX_WARN("m_ExtractBasicInfo failed...");
        return false;
    }
    if (!m_HasContent(m_nMediaType)) {
        if (m_nMediaType == kTypeNone || m_nMediaType == 4 || (m_nMediaType >= 7 && m_nMediaType <= 9) ||
            m_nMediaType < 0 || m_nMediaType > 12)
            MOX_WARN("unsupported type(%d)...", m_nMediaType);
        return true;
    }
    m_SetContentDefaults(m_nMediaType, info);
    mox_util::UniqueFd fd = OpenRegular(m_strFullPath);
    if (!fd.IsValid()) {
        MOX_WARN("Extract: (%s) is not a readable regular file, contents not read.",
                 FileNameToUtf8(m_strFullPath).c_str());
        return true;
    }
    ExtractContent(fd.Get(), m_strName, m_nMediaType, info);
    return true;
}

void CMOXExtractor::ExtractContent(int fd, const std::string& name, int mediaType, media_info_s& info,
                                   SMOXExtractExtra* pExtra) {
    try {
        m_SetContentDefaults(mediaType, info);
        switch (mediaType) {
            case kTypePhoto: m_ExtractImage(fd, name, info, pExtra); break;
            case kTypeVideo: m_ExtractAv(fd, name, false, info, pExtra); break;
            case kTypeMusic: m_ExtractAv(fd, name, true, info, pExtra); break;
            default: break;
        }
    } catch (const std::exception& e) {
        MOX_WARN("Extract (%s): %s", FileNameToUtf8(name).c_str(), e.what());
    }
}

void CMOXExtractor::m_ExtractImage(int fd, const std::string& name, media_info_s& info, SMOXExtractExtra* pExtra) {
    ExifDataPtr exif = LoadExif(fd);
    if (!exif) {
        MOX_WARN("There is no exif data in [ %s ]", FileNameToUtf8(name).c_str());
        return;
    }
    ExifData* ed = exif.get();
    char buf[kExifTextBytes];
    int nValue = 0;
    double dValue = 0;

    if (m_ExtractExif(ed, static_cast<ExifTag>(EXIF_TAG_GPS_LATITUDE_REF), buf, nullptr, nullptr, true) && buf[0]) {
        if (m_ExtractExif(ed, static_cast<ExifTag>(EXIF_TAG_GPS_LATITUDE), nullptr, nullptr, &dValue, true))
            info.dLatitude = (buf[0] == 'S') ? -dValue : dValue;
    }
    if (m_ExtractExif(ed, static_cast<ExifTag>(EXIF_TAG_GPS_LONGITUDE_REF), buf, nullptr, nullptr, true) && buf[0]) {
        if (m_ExtractExif(ed, static_cast<ExifTag>(EXIF_TAG_GPS_LONGITUDE), nullptr, nullptr, &dValue, true))
            info.dLongitude = (buf[0] == 'W') ? -dValue : dValue;
    }
    if (m_ExtractExif(ed, EXIF_TAG_IMAGE_DESCRIPTION, buf, nullptr, nullptr) && buf[0]) info.strTitle = ExifText(buf);

    bool bDateFound = false;
    if (m_ExtractExif(ed, EXIF_TAG_DATE_TIME_ORIGINAL, buf, nullptr, nullptr) && buf[0]) {
        buf[19] = '\0';
        info.strDateTaken = ExifText(buf);
        bDateFound = true;
    }
    if (!bDateFound && m_ExtractExif(ed, EXIF_TAG_DATE_TIME, buf, nullptr, nullptr)) {
        // Deliberately inverted: the value is copied only when it is empty, so
        // a DateTime without DateTimeOriginal leaves "Unknown".
        if (buf[0] == '\0') {
            buf[19] = '\0';
            info.strDateTaken = ExifText(buf);
        }
    }
    if (m_ExtractExif(ed, EXIF_TAG_EXPOSURE_TIME, buf, nullptr, nullptr) && buf[0])
        info.strExposureTime = ExifText(buf);
    if (m_ExtractExif(ed, EXIF_TAG_FNUMBER, nullptr, nullptr, &dValue) && dValue > 0 && std::isfinite(dValue))
        info.dFNumber = dValue;
    if (m_ExtractExif(ed, EXIF_TAG_ISO_SPEED_RATINGS, nullptr, &nValue, nullptr) && nValue > 0) info.nISOSpeed = nValue;
    if (m_ExtractExif(ed, EXIF_TAG_MODEL, buf, nullptr, nullptr) && buf[0]) info.strModel = ExifText(buf);
    if (m_ExtractExif(ed, EXIF_TAG_ORIENTATION, nullptr, &nValue, nullptr) && nValue >= 0 && nValue <= 8)
        info.nOrientation = nValue;
    if (m_ExtractExif(ed, EXIF_TAG_PIXEL_X_DIMENSION, nullptr, &nValue, nullptr) && nValue > 0) info.nWidth = nValue;
    if (m_ExtractExif(ed, EXIF_TAG_PIXEL_Y_DIMENSION, nullptr, &nValue, nullptr) && nValue > 0) info.nHeight = nValue;
    // The zone of the date taken: the tag that goes with DateTimeOriginal,
    // else the file's general one.
    if (pExtra && bDateFound) {
        for (ExifTag tag : {EXIF_TAG_OFFSET_TIME_ORIGINAL, EXIF_TAG_OFFSET_TIME}) {
            if (m_ExtractExif(ed, tag, buf, nullptr, nullptr) && buf[0]) {
                pExtra->strDateOffset = ExifText(buf);
                break;
            }
        }
    }
}

void CMOXExtractor::m_ExtractAv(int fd, const std::string& name, bool bMusic, media_info_s& info,
                                SMOXExtractExtra* pExtra) {
    metadata_extractor_h raw = nullptr;
    int ret = metadata_extractor_create(&raw);
    if (ret != METADATA_EXTRACTOR_ERROR_NONE || !raw) {
        MOX_WARN("metadata_extractor_create fail, ret[%d].", ret);
        return;
    }
    std::unique_ptr<metadata_extractor_s, ExtractorDestroy> handle(raw);
    ret = metadata_extractor_set_fd(raw, fd, name.c_str());
    if (ret != METADATA_EXTRACTOR_ERROR_NONE) {
        MOX_WARN("LOCAL-SOURCE: metadata_extractor_set_path fail, ret[%d].", ret);
        return;
    }

    // Copies one text attribute; the service's string is freed after copying.
    auto text = [&](metadata_extractor_attr_e attr, std::string& out) {
        char* value = nullptr;
        int r = metadata_extractor_get_metadata(raw, attr, &value);
        std::unique_ptr<char, decltype(&free)> owner(value, &free);
        if (r != METADATA_EXTRACTOR_ERROR_NONE) {
            MOX_WARN("metadata_extractor_get_metadata %s fail, ret[%d].", AttrName(attr), r);
            return false;
        }
        if (value) out = TextToUtf8(value);
        return value != nullptr;
    };
    auto number = [&](metadata_extractor_attr_e attr, int& out) {
        std::string value;
        if (text(attr, value)) out = ToInt(value.c_str());
    };

    text(METADATA_TITLE, info.strTitle);
    text(METADATA_ALBUM, info.strAlbum);
    text(METADATA_ARTIST, info.strArtist);
    text(METADATA_GENRE, info.strGenre);
    text(METADATA_AUTHOR, info.strComposer);
    text(METADATA_DATE, info.strYear);
    text(METADATA_RECDATE, info.strRecordedDate);
    text(METADATA_COPYRIGHT, info.strCopyright);
    text(METADATA_TRACK_NUM, info.strTrackNum);
    if (!bMusic) {
        // The record of a video carries no numbers (they go out as 0); the
        // library asks for the container's.
        if (pExtra) {
            number(METADATA_VIDEO_WIDTH, pExtra->nVideoWidth);
            number(METADATA_VIDEO_HEIGHT, pExtra->nVideoHeight);
            number(METADATA_DURATION, pExtra->nVideoDuration);
        }
        return;
    }
    number(METADATA_AUDIO_BITRATE, info.nBitrate);
    number(METADATA_AUDIO_SAMPLERATE, info.nSampleRate);
    number(METADATA_AUDIO_CHANNELS, info.nChannels);
    number(METADATA_DURATION, info.nDuration);
}

std::string CMOXExtractor::ToString(const media_info_s& info) const {
    CJsonValue json;
    int type = info.nMediaType;
    bool bSent = type == kTypeFolder || type == kTypePhoto || type == kTypeVideo || type == kTypeMusic ||
                 type == kTypePvr || type == kTypeUhd || type == kTypeScsa;
    json.Set("MEDIA_TYPE", bSent ? type : 0);
    json.Set("DISPLAY_NAME", FileNameToUtf8(info.strDisplayName));
    json.Set("FILE_PATH", FileNameToUtf8(info.strFilePath));
    json.Set("SIZE", info.ullSize);
    json.Set("MODIFIED_TIME", static_cast<long long>(info.ulModifiedTime));
    json.Set("MODIFIED_MONTH", info.strModifiedMonth);
    auto avStrings = [&]() {
        json.Set("TITLE", TextToUtf8(info.strTitle));
        json.Set("ALBUM", TextToUtf8(info.strAlbum));
        json.Set("ARTIST", TextToUtf8(info.strArtist));
        json.Set("GENRE", TextToUtf8(info.strGenre));
        json.Set("COMPOSER", TextToUtf8(info.strComposer));
        json.Set("YEAR", TextToUtf8(info.strYear));
        json.Set("RECORDED_DATE", TextToUtf8(info.strRecordedDate));
        json.Set("COPYRIGHT", TextToUtf8(info.strCopyright));
        json.Set("TRACK_NUM", TextToUtf8(info.strTrackNum));
    };
    if (type == kTypeVideo) {
        avStrings();
        json.Set("BITRATE", info.nBitrate);
        json.Set("DURATION", info.nDuration);
        json.Set("WIDTH", info.nWidth);
        json.Set("HEIGHT", info.nHeight);
    } else if (type == kTypeMusic) {
        avStrings();
        json.Set("BITRATE", info.nBitrate);
        json.Set("SAMPLERATE", info.nSampleRate);
        json.Set("CHANNEL", info.nChannels);
        json.Set("DURATION", info.nDuration);
    } else if (type == kTypePhoto) {
        json.Set("TITLE", TextToUtf8(info.strTitle));
        json.Set("DATE_TAKEN", TextToUtf8(info.strDateTaken));
        json.Set("EXPOSURE_TIME", TextToUtf8(info.strExposureTime));
        json.Set("MODEL", TextToUtf8(info.strModel));
        json.Set("FNUMBER", std::isfinite(info.dFNumber) ? info.dFNumber : 0.0);
        json.Set("ORIENTATION", info.nOrientation);
        json.Set("WIDTH", info.nWidth);
        json.Set("HEIGHT", info.nHeight);
    }
    return json.ToString();
}

std::string CMOXExtractor::TextToUtf8(std::string_view text, size_t maxBytes) {
    std::string out;
    if (g_utf8_validate_len(text.data(), text.size(), nullptr)) {
        // Valid UTF-8 holds no NUL byte: nothing to drop.
        if (text.size() <= maxBytes) return std::string(text);
        out.assign(text);
    } else {
        out.reserve(text.size() * 2);
        for (char ch : text) {
            unsigned char c = static_cast<unsigned char>(ch);
            if (c < 0x80) {
                out.push_back(ch);
            } else {
                out.push_back(static_cast<char>(0xC0 | (c >> 6)));
                out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
            }
        }
    }
    std::string clean;
    clean.reserve(out.size() < maxBytes ? out.size() : maxBytes);
    for (char c : out)
        if (c != '\0') clean.push_back(c);
    if (clean.size() > maxBytes) {
        size_t cut = maxBytes;
        while (cut > 0 && (static_cast<unsigned char>(clean[cut]) & 0xC0) == 0x80) --cut;
        clean.resize(cut);
    }
    return clean;
}

std::string CMOXExtractor::FileNameToUtf8(std::string_view name) {
    return CMOXUtil::FileNameToUtf8(name);
}
