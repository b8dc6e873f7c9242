// CMOXExtractor: the metadata record of one file found on a storage and its
// JSON text (sent with scan results).
//
// Extract() is what the engine calls: name, size and dates come from the file
// system in the calling process; photo, music and video contents are parsed in
// the unprivileged mox-extract helper (CMOXExtractClient), never in the
// daemon. ExtractHere() and ExtractContent() are the same extraction done in
// the calling process: the helper, the tests and the fuzz target use them.
//
// Usage (scanner threads; one extractor per file, any number of threads):
//   CMOXExtractor extractor(basePath, name, mediaType, bKnown, size, mtime);
//   media_info_s info;
//   if (extractor.Extract(info)) text = extractor.ToString(info);
// Every text of the record is valid UTF-8: tags that are not UTF-8 are read
// as Latin-1, and file names go through FileNameToUtf8.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The engine's metadata record of one file. Texts are owned copies.
struct media_info_s {
    int nMediaType = 0;  // mox_media_type_e
    std::string strDisplayName;
    std::string strFilePath;
    unsigned long long ullSize = 0;
    unsigned long ulModifiedTime = 0;
    std::string strModifiedMonth;  // "%Y%m", local time

    // Photo (title is shared with music and video).
    std::string strTitle;
    std::string strDateTaken;
    std::string strExposureTime;
    std::string strModel;
    double dLatitude = -200.0;  // -200.0: unknown
    double dLongitude = -200.0;
    double dFNumber = 0.0;
    int nISOSpeed = 0;
    int nOrientation = 0;
    int nWidth = 0;
    int nHeight = 0;

    // Music and video.
    std::string strAlbum;
    std::string strArtist;
    std::string strGenre;
    std::string strComposer;
    std::string strYear;
    std::string strRecordedDate;
    std::string strCopyright;
    std::string strTrackNum;
    int nBitrate = 0;
    int nDuration = 0;  // milliseconds
    int nSampleRate = 0;
    int nChannels = 0;
};

// What the media library reads beyond the record, which keeps its own rules
// (a video's record carries no numbers): a video's stream properties from the
// container and the time zone of a photo's date taken. Only filled when asked.
struct SMOXExtractExtra {
    int nVideoWidth = 0;
    int nVideoHeight = 0;
    int nVideoDuration = 0;     // milliseconds
    std::string strDateOffset;  // EXIF OffsetTimeOriginal, else OffsetTime ("+HH:MM"), as tagged
};

class CMOXExtractor {
public:
    // `mediaType` is a mox_media_type_e. When `bKnown`, `size` and `mtime` are
    // taken as given instead of read with stat.
    CMOXExtractor(std::string basePath, std::string name, int mediaType, bool bKnown = false,
                  unsigned long long size = 0, unsigned long mtime = 0);
    virtual ~CMOXExtractor() = default;

    // Basic information here, contents through the helper. False when the file
    // cannot be stat'ed or the helper crashed or timed out on it (or did so
    // before: such a file is not parsed again).
    bool Extract(media_info_s& info);
    // The whole extraction in this process. False only when stat fails.
    bool ExtractHere(media_info_s& info);
    // The content step alone on an open regular file: photo tags for type 2,
    // video tags for 3, music tags and properties for 5; other types leave
    // `info` untouched. `name` chooses the reader by its extension. Never
    // fails: missing tags keep their defaults. With `pExtra`, the library's
    // further fields are read into it as well.
    static void ExtractContent(int fd, const std::string& name, int mediaType, media_info_s& info,
                               SMOXExtractExtra* pExtra = nullptr);

    // The JSON object text of the record.
    std::string ToString(const media_info_s& info) const;

    // Text that may not be UTF-8 (tags): returned as is when valid, else read
    // as Latin-1; NULs dropped; cut to `maxBytes` on a character boundary.
    static std::string TextToUtf8(std::string_view text, size_t maxBytes = kMaxTextBytes);
    // CMOXUtil::FileNameToUtf8: a file name or path as UTF-8 that still tells
    // names apart ("\xNN" for stray bytes and backslashes).
    static std::string FileNameToUtf8(std::string_view name);

    // Longest tag text kept.
    static constexpr size_t kMaxTextBytes = 1024;

private:
    bool m_ExtractBasicInfo(media_info_s& info);
    bool m_ExtractFolder(media_info_s& info) { return m_ExtractBasicInfo(info); }
    // Defaults of the content fields, set before the content step.
    static void m_SetContentDefaults(int mediaType, media_info_s& info);
    static void m_ExtractImage(int fd, const std::string& name, media_info_s& info, SMOXExtractExtra* pExtra);
    static void m_ExtractAv(int fd, const std::string& name, bool bMusic, media_info_s& info, SMOXExtractExtra* pExtra);
    // True for the types whose contents are parsed (2, 3, 5).
    static bool m_HasContent(int mediaType);

    std::string m_strBasePath;
    std::string m_strName;
    std::string m_strFullPath;
    int m_nMediaType;
    bool m_bKnown;
    unsigned long long m_ullSize;
    unsigned long m_ulModifiedTime;
};
