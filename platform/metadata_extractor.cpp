// Media metadata extractor over TagLib (audio) and libavformat (video and
// audio TagLib cannot read). See metadata_extractor.h for the contract.
#include <metadata_extractor.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include <glib.h>

#include <taglib/aifffile.h>
#include <taglib/apefile.h>
#include <taglib/flacfile.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/tfilestream.h>
#include <taglib/tpropertymap.h>
#include <taglib/vorbisfile.h>
#include <taglib/wavfile.h>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/log.h>
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
}

#include <mox_unique_fd.h>

namespace {

// No single text a caller asks for needs more; a crafted tag may be huge.
constexpr size_t kMaxTextBytes = 64 * 1024;
// Wall-clock budget of all libavformat work on one file.
constexpr auto kAvDeadline = std::chrono::seconds(4);
// libavformat reads at most this much to find the streams.
constexpr int64_t kProbeBytes = 4 * 1024 * 1024;

enum class Reader { kNone, kTagLib, kAvFormat, kFailed };

// Valid UTF-8 without NULs, at most kMaxTextBytes. Text that is not UTF-8 is
// taken as Latin-1 (ID3v1 and many old tags), which maps every byte.
std::string CleanText(const char* data, size_t len) {
    if (len > kMaxTextBytes) {
        len = kMaxTextBytes;
        // Back up over continuation bytes so the cut does not split a character.
        while (len > 0 && (static_cast<unsigned char>(data[len]) & 0xC0) == 0x80) --len;
    }
    std::string out;
    if (g_utf8_validate_len(data, len, nullptr)) {
        out.assign(data, len);
    } else {
        out.reserve(len * 2);
        for (size_t i = 0; i < len; ++i) {
            unsigned char c = static_cast<unsigned char>(data[i]);
            if (c < 0x80) {
                out.push_back(static_cast<char>(c));
            } else {
                out.push_back(static_cast<char>(0xC0 | (c >> 6)));
                out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
            }
        }
    }
    std::string clean;
    clean.reserve(out.size());
    for (char c : out)
        if (c != '\0') clean.push_back(c);
    return clean;
}

std::string Lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

std::string ExtensionOf(const std::string& name) {
    size_t slash = name.find_last_of('/');
    size_t dot = name.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return std::string();
    return Lower(name.substr(dot + 1));
}

struct AvFormatCloser {
    void operator()(AVFormatContext* ctx) const { avformat_close_input(&ctx); }
};
struct AvIoFreer {
    void operator()(AVIOContext* io) const {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};

}  // namespace

struct metadata_extractor_s {
    mox_util::UniqueFd fd;
    std::string name;
    int64_t fileSize = 0;
    Reader reader = Reader::kNone;

    // TagLib: the stream must outlive the file that reads it (members are
    // destroyed in reverse order).
    std::unique_ptr<TagLib::FileStream> tagStream;
    std::unique_ptr<TagLib::File> tagFile;
    std::unique_ptr<TagLib::PropertyMap> tagProps;  // built on first use

    // libavformat over our own I/O on fd (pread: no shared file offset).
    std::unique_ptr<AVIOContext, AvIoFreer> avio;
    std::unique_ptr<AVFormatContext, AvFormatCloser> fmt;
    int64_t avPos = 0;
    bool avStreamInfo = false;
    std::chrono::steady_clock::time_point avDeadline;

    void Close() {
        tagProps.reset();
        tagFile.reset();
        tagStream.reset();
        fmt.reset();
        avio.reset();
        avPos = 0;
        avStreamInfo = false;
        reader = Reader::kNone;
        fd.Reset();
    }
};

namespace {

int AvRead(void* opaque, uint8_t* buf, int size) {
    auto* h = static_cast<metadata_extractor_s*>(opaque);
    ssize_t n;
    do {
        n = pread(h->fd.Get(), buf, static_cast<size_t>(size), h->avPos);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return AVERROR(errno);
    if (n == 0) return AVERROR_EOF;
    h->avPos += n;
    return static_cast<int>(n);
}

int64_t AvSeek(void* opaque, int64_t offset, int whence) {
    auto* h = static_cast<metadata_extractor_s*>(opaque);
    whence &= ~AVSEEK_FORCE;
    int64_t target;
    switch (whence) {
        case AVSEEK_SIZE: return h->fileSize;
        case SEEK_SET: target = offset; break;
        case SEEK_CUR: target = h->avPos + offset; break;
        case SEEK_END: target = h->fileSize + offset; break;
        default: return AVERROR(EINVAL);
    }
    if (target < 0) return AVERROR(EINVAL);
    h->avPos = target;
    return target;
}

int AvInterrupt(void* opaque) {
    auto* h = static_cast<metadata_extractor_s*>(opaque);
    return std::chrono::steady_clock::now() > h->avDeadline ? 1 : 0;
}

bool IsTagLibExtension(const std::string& ext) {
    // Not ASF/WMA: TagLib's ASF reader can spend many seconds on a small
    // crafted file, while libavformat's work is cut off at the deadline.
    static const char* const kExts[] = {"mp3", "mpa", "flac", "ogg", "m4a", "wav", "aif", "aiff", "aifc", "ape"};
    for (const char* e : kExts)
        if (ext == e) return true;
    return false;
}

std::unique_ptr<TagLib::File> OpenTagLib(const std::string& ext, TagLib::IOStream* stream) {
    auto* factory = TagLib::ID3v2::FrameFactory::instance();
    const bool props = true;
    const auto style = TagLib::AudioProperties::Average;
    if (ext == "mp3" || ext == "mpa") return std::make_unique<TagLib::MPEG::File>(stream, factory, props, style);
    if (ext == "flac") return std::make_unique<TagLib::FLAC::File>(stream, factory, props, style);
    if (ext == "ogg") return std::make_unique<TagLib::Ogg::Vorbis::File>(stream, props, style);
    if (ext == "m4a") return std::make_unique<TagLib::MP4::File>(stream, props, style);
    if (ext == "wav") return std::make_unique<TagLib::RIFF::WAV::File>(stream, props, style);
    if (ext == "aif" || ext == "aiff" || ext == "aifc")
        return std::make_unique<TagLib::RIFF::AIFF::File>(stream, props, style);
    if (ext == "ape") return std::make_unique<TagLib::APE::File>(stream, props, style);
    return nullptr;
}

bool OpenWithTagLib(metadata_extractor_s* h) {
    std::string ext = ExtensionOf(h->name);
    if (!IsTagLibExtension(ext)) return false;
    int dupFd = fcntl(h->fd.Get(), F_DUPFD_CLOEXEC, 0);
    if (dupFd < 0) return false;
    // FileStream takes the descriptor over (fdopen) and closes it.
    auto stream = std::make_unique<TagLib::FileStream>(dupFd, true);
    if (!stream->isOpen()) return false;
    stream->seek(0);
    auto file = OpenTagLib(ext, stream.get());
    if (!file || !file->isValid()) return false;
    h->tagStream = std::move(stream);
    h->tagFile = std::move(file);
    h->reader = Reader::kTagLib;
    return true;
}

// The demuxer a file's extension names, for containers whose header check
// is strict (a file that is something else fails at once). Probing every
// demuxer against the file's first bytes costs about as much as reading the
// whole header of a short clip.
const AVInputFormat* DemuxerOf(const std::string& ext) {
    struct SRow {
        const char* ext;
        const AVInputFormat* demuxer;
    };
    // Looked up once: a lookup compares the names of every demuxer.
    static const SRow kTable[] = {
        {"mp4", av_find_input_format("mp4")},      {"m4v", av_find_input_format("mp4")},
        {"mov", av_find_input_format("mov")},      {"3gp", av_find_input_format("3gp")},
        {"3g2", av_find_input_format("3g2")},      {"avi", av_find_input_format("avi")},
        {"asf", av_find_input_format("asf")},      {"wmv", av_find_input_format("asf")},
        {"wma", av_find_input_format("asf")},      {"mkv", av_find_input_format("matroska")},
        {"mka", av_find_input_format("matroska")}, {"webm", av_find_input_format("matroska")}};
    for (const SRow& row : kTable)
        if (ext == row.ext) return row.demuxer;
    return nullptr;
}

// One attempt at the container's header: with the demuxer given, else
// probed.
bool OpenAvInput(metadata_extractor_s* h, const AVInputFormat* format) {
    constexpr int kBufferSize = 32 * 1024;
    h->fmt.reset();
    h->avio.reset();
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferSize));
    if (!buffer) return false;
    h->avPos = 0;
    AVIOContext* io = avio_alloc_context(buffer, kBufferSize, 0, h, AvRead, nullptr, AvSeek);
    if (!io) {
        av_free(buffer);
        return false;
    }
    h->avio.reset(io);
    AVFormatContext* ctx = avformat_alloc_context();
    if (!ctx) return false;
    ctx->pb = io;
    ctx->flags |= AVFMT_FLAG_CUSTOM_IO;
    ctx->probesize = kProbeBytes;
    ctx->max_analyze_duration = 5 * AV_TIME_BASE;
    ctx->interrupt_callback.callback = AvInterrupt;
    ctx->interrupt_callback.opaque = h;
    // On failure avformat_open_input frees ctx itself.
    if (avformat_open_input(&ctx, "", format, nullptr) < 0) return false;
    h->fmt.reset(ctx);
    return true;
}

bool OpenWithAvFormat(metadata_extractor_s* h) {
    // A file named for another container than it holds is probed after all.
    const AVInputFormat* format = DemuxerOf(ExtensionOf(h->name));
    h->avDeadline = std::chrono::steady_clock::now() + kAvDeadline;  // for both attempts
    if (!(format && OpenAvInput(h, format)) && !OpenAvInput(h, nullptr)) return false;
    h->reader = Reader::kAvFormat;
    return true;
}

// Parses the file on first use: TagLib for audio extensions, libavformat for
// the rest and for audio TagLib rejects.
bool EnsureOpen(metadata_extractor_s* h) {
    if (h->reader == Reader::kTagLib || h->reader == Reader::kAvFormat) return true;
    if (h->reader == Reader::kFailed || !h->fd.IsValid()) return false;
    if (OpenWithTagLib(h) || OpenWithAvFormat(h)) return true;
    h->tagFile.reset();
    h->tagStream.reset();
    h->avio.reset();
    h->reader = Reader::kFailed;
    return false;
}

bool EnsureStreamInfo(metadata_extractor_s* h) {
    if (h->avStreamInfo) return true;
    h->avStreamInfo = true;
    h->avDeadline = std::chrono::steady_clock::now() + kAvDeadline;
    return avformat_find_stream_info(h->fmt.get(), nullptr) >= 0;
}

std::string Number(long long value) {
    return std::to_string(value);
}

// Text of a TagLib attribute; empty when absent.
std::string TagLibValue(metadata_extractor_s* h, metadata_extractor_attr_e attr) {
    TagLib::File* file = h->tagFile.get();
    TagLib::Tag* tag = file->tag();
    TagLib::AudioProperties* props = file->audioProperties();
    auto prop = [&](const char* key) -> std::string {
        if (!h->tagProps) h->tagProps = std::make_unique<TagLib::PropertyMap>(file->properties());
        auto it = h->tagProps->find(key);
        if (it == h->tagProps->end() || it->second.isEmpty()) return std::string();
        return it->second.front().to8Bit(true);
    };
    auto text = [&](const TagLib::String& s) { return s.isEmpty() ? std::string() : s.to8Bit(true); };
    switch (attr) {
        case METADATA_DURATION: return props ? Number(props->lengthInMilliseconds()) : std::string();
        case METADATA_AUDIO_BITRATE:
            return props ? Number(static_cast<long long>(props->bitrate()) * 1000) : std::string();
        case METADATA_AUDIO_SAMPLERATE: return props ? Number(props->sampleRate()) : std::string();
        case METADATA_AUDIO_CHANNELS: return props ? Number(props->channels()) : std::string();
        case METADATA_HAS_AUDIO: return Number(props ? 1 : 0);
        case METADATA_HAS_VIDEO: return Number(0);
        case METADATA_ARTIST: return tag ? text(tag->artist()) : std::string();
        case METADATA_TITLE: return tag ? text(tag->title()) : std::string();
        case METADATA_ALBUM: return tag ? text(tag->album()) : std::string();
        case METADATA_GENRE: return tag ? text(tag->genre()) : std::string();
        case METADATA_COMMENT: return tag ? text(tag->comment()) : std::string();
        case METADATA_ALBUM_ARTIST: return prop("ALBUMARTIST");
        case METADATA_AUTHOR: return prop("COMPOSER");
        case METADATA_COPYRIGHT: return prop("COPYRIGHT");
        case METADATA_CONDUCTOR: return prop("CONDUCTOR");
        case METADATA_DESCRIPTION: return prop("DESCRIPTION");
        case METADATA_RECDATE: return prop("DATE");
        case METADATA_DATE: {
            unsigned year = tag ? tag->year() : 0;
            return year ? Number(year) : std::string();
        }
        case METADATA_TRACK_NUM: {
            std::string track = prop("TRACKNUMBER");
            if (track.empty() && tag && tag->track()) track = Number(tag->track());
            return track;
        }
        default: return std::string();
    }
}

// A tag from the container, else from the first stream that has it.
std::string AvTag(AVFormatContext* fmt, const char* key) {
    const AVDictionaryEntry* e = av_dict_get(fmt->metadata, key, nullptr, 0);
    for (unsigned i = 0; !e && i < fmt->nb_streams; ++i) e = av_dict_get(fmt->streams[i]->metadata, key, nullptr, 0);
    if (!e || !e->value) return std::string();
    return std::string(e->value, strnlen(e->value, kMaxTextBytes + 1));
}

const AVStream* AvFirstStream(AVFormatContext* fmt, AVMediaType type) {
    for (unsigned i = 0; i < fmt->nb_streams; ++i) {
        const AVStream* s = fmt->streams[i];
        if (s->codecpar && s->codecpar->codec_type == type && !(s->disposition & AV_DISPOSITION_ATTACHED_PIC)) return s;
    }
    return nullptr;
}

int AvCount(AVFormatContext* fmt, AVMediaType type) {
    int n = 0;
    for (unsigned i = 0; i < fmt->nb_streams; ++i)
        if (fmt->streams[i]->codecpar && fmt->streams[i]->codecpar->codec_type == type &&
            !(fmt->streams[i]->disposition & AV_DISPOSITION_ATTACHED_PIC))
            ++n;
    return n;
}

std::string AvValue(metadata_extractor_s* h, metadata_extractor_attr_e attr) {
    AVFormatContext* fmt = h->fmt.get();
    switch (attr) {
        case METADATA_ARTIST: return AvTag(fmt, "artist");
        case METADATA_TITLE: return AvTag(fmt, "title");
        case METADATA_ALBUM: return AvTag(fmt, "album");
        case METADATA_ALBUM_ARTIST: return AvTag(fmt, "album_artist");
        case METADATA_GENRE: return AvTag(fmt, "genre");
        case METADATA_AUTHOR: {
            std::string composer = AvTag(fmt, "composer");
            return composer.empty() ? AvTag(fmt, "author") : composer;
        }
        case METADATA_COPYRIGHT: return AvTag(fmt, "copyright");
        case METADATA_DESCRIPTION: return AvTag(fmt, "description");
        case METADATA_COMMENT: return AvTag(fmt, "comment");
        case METADATA_CONDUCTOR: return AvTag(fmt, "conductor");
        case METADATA_TRACK_NUM: return AvTag(fmt, "track");
        case METADATA_DATE: {
            std::string date = AvTag(fmt, "date");
            // Only the year: "2019-05-04" and "2019" both give 2019.
            if (date.size() >= 4 && g_ascii_isdigit(date[0]) && g_ascii_isdigit(date[1]) && g_ascii_isdigit(date[2]) &&
                g_ascii_isdigit(date[3]))
                return date.substr(0, 4);
            return date;
        }
        case METADATA_RECDATE: {
            std::string date = AvTag(fmt, "creation_time");
            return date.empty() ? AvTag(fmt, "date") : date;
        }
        default: break;
    }

    // A video's size and length as its container's header states them, when
    // it does: probing the streams decodes frames, many times the cost.
    if (!h->avStreamInfo) {
        if (const AVStream* video = AvFirstStream(fmt, AVMEDIA_TYPE_VIDEO)) {
            const AVRational ms = {1, 1000};
            switch (attr) {
                case METADATA_VIDEO_WIDTH:
                    if (video->codecpar->width > 0) return Number(video->codecpar->width);
                    break;
                case METADATA_VIDEO_HEIGHT:
                    if (video->codecpar->height > 0) return Number(video->codecpar->height);
                    break;
                case METADATA_DURATION:
                    if (fmt->duration != AV_NOPTS_VALUE && fmt->duration > 0) return Number(fmt->duration / 1000);
                    if (video->duration != AV_NOPTS_VALUE && video->duration > 0 && video->time_base.num > 0 &&
                        video->time_base.den > 0)
                        return Number(av_rescale_q(video->duration, video->time_base, ms));
                    break;
                default: break;
            }
        }
    }

    // Stream properties need the streams probed.
    EnsureStreamInfo(h);
    const AVStream* video = AvFirstStream(fmt, AVMEDIA_TYPE_VIDEO);
    const AVStream* audio = AvFirstStream(fmt, AVMEDIA_TYPE_AUDIO);
    switch (attr) {
        case METADATA_DURATION:
            if (fmt->duration == AV_NOPTS_VALUE || fmt->duration < 0) return std::string();
            return Number(fmt->duration / 1000);
        case METADATA_VIDEO_BITRATE:
            if (video && video->codecpar->bit_rate > 0) return Number(video->codecpar->bit_rate);
            return fmt->bit_rate > 0 && video ? Number(fmt->bit_rate) : std::string();
        case METADATA_VIDEO_FPS:
            if (!video || video->avg_frame_rate.den <= 0 || video->avg_frame_rate.num <= 0) return std::string();
            return Number(video->avg_frame_rate.num / video->avg_frame_rate.den);
        case METADATA_VIDEO_WIDTH:
            return video && video->codecpar->width > 0 ? Number(video->codecpar->width) : std::string();
        case METADATA_VIDEO_HEIGHT:
            return video && video->codecpar->height > 0 ? Number(video->codecpar->height) : std::string();
        case METADATA_HAS_VIDEO: return Number(AvCount(fmt, AVMEDIA_TYPE_VIDEO));
        case METADATA_HAS_AUDIO: return Number(AvCount(fmt, AVMEDIA_TYPE_AUDIO));
        case METADATA_AUDIO_BITRATE:
            if (audio && audio->codecpar->bit_rate > 0) return Number(audio->codecpar->bit_rate);
            return fmt->bit_rate > 0 && audio && !video ? Number(fmt->bit_rate) : std::string();
        case METADATA_AUDIO_SAMPLERATE:
            return audio && audio->codecpar->sample_rate > 0 ? Number(audio->codecpar->sample_rate) : std::string();
        case METADATA_AUDIO_CHANNELS:
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 28, 100)
            return audio && audio->codecpar->ch_layout.nb_channels > 0 ? Number(audio->codecpar->ch_layout.nb_channels)
                                                                       : std::string();
#else
            return audio && audio->codecpar->channels > 0 ? Number(audio->codecpar->channels) : std::string();
#endif
        default: return std::string();
    }
}

bool IsSupported(metadata_extractor_attr_e attr) {
    switch (attr) {
        case METADATA_CLASSIFICATION:
        case METADATA_RATING:
        case METADATA_LONGITUDE:
        case METADATA_LATITUDE:
        case METADATA_ALTITUDE:
        case METADATA_UNSYNCLYRICS:
        case METADATA_SYNCLYRICS_NUM: return false;
        default: return attr >= METADATA_DURATION && attr <= METADATA_RECDATE;
    }
}

int AdoptFd(metadata_extractor_s* h, mox_util::UniqueFd fd, const char* name) {
    struct stat st;
    if (fstat(fd.Get(), &st) != 0) return METADATA_EXTRACTOR_ERROR_OPERATION_FAILED;
    if (!S_ISREG(st.st_mode)) return METADATA_EXTRACTOR_ERROR_FILE_EXISTS;
    h->Close();
    h->fd = std::move(fd);
    h->fileSize = st.st_size;
    h->name = name ? name : "";
    return METADATA_EXTRACTOR_ERROR_NONE;
}

}  // namespace

extern "C" {

int metadata_extractor_create(metadata_extractor_h* metadata) {
    if (!metadata) return METADATA_EXTRACTOR_ERROR_INVALID_PARAMETER;
    // Corrupt files are expected; their details are not worth a log line each.
    static std::once_flag s_quiet;
    std::call_once(s_quiet, [] { av_log_set_level(AV_LOG_QUIET); });
    *metadata = new (std::nothrow) metadata_extractor_s();
    return *metadata ? METADATA_EXTRACTOR_ERROR_NONE : METADATA_EXTRACTOR_ERROR_OUT_OF_MEMORY;
}

int metadata_extractor_set_path(metadata_extractor_h metadata, const char* path) {
    if (!metadata || !path || !*path) return METADATA_EXTRACTOR_ERROR_INVALID_PARAMETER;
    mox_util::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd.IsValid())
        return errno == EACCES || errno == EPERM ? METADATA_EXTRACTOR_ERROR_PERMISSION_DENIED
                                                 : METADATA_EXTRACTOR_ERROR_FILE_EXISTS;
    try {
        return AdoptFd(metadata, std::move(fd), path);
    } catch (...) {
        return METADATA_EXTRACTOR_ERROR_OUT_OF_MEMORY;
    }
}

int metadata_extractor_set_fd(metadata_extractor_h metadata, int fd, const char* name) {
    if (!metadata || fd < 0 || !name) return METADATA_EXTRACTOR_ERROR_INVALID_PARAMETER;
    mox_util::UniqueFd copy(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!copy.IsValid()) return METADATA_EXTRACTOR_ERROR_INVALID_PARAMETER;
    try {
        return AdoptFd(metadata, std::move(copy), name);
    } catch (...) {
        return METADATA_EXTRACTOR_ERROR_OUT_OF_MEMORY;
    }
}

int metadata_extractor_get_metadata(metadata_extractor_h metadata, metadata_extractor_attr_e attribute, char** value) {
    if (!metadata || !value || !IsSupported(attribute)) return METADATA_EXTRACTOR_ERROR_INVALID_PARAMETER;
    *value = nullptr;
    if (!metadata->fd.IsValid()) return METADATA_EXTRACTOR_ERROR_INVALID_PARAMETER;
    try {
        if (!EnsureOpen(metadata)) return METADATA_EXTRACTOR_ERROR_OPERATION_FAILED;
        std::string text =
            metadata->reader == Reader::kTagLib ? TagLibValue(metadata, attribute) : AvValue(metadata, attribute);
        if (text.empty()) return METADATA_EXTRACTOR_ERROR_NONE;
        text = CleanText(text.data(), text.size());
        if (text.empty()) return METADATA_EXTRACTOR_ERROR_NONE;
        *value = strdup(text.c_str());
        return *value ? METADATA_EXTRACTOR_ERROR_NONE : METADATA_EXTRACTOR_ERROR_OUT_OF_MEMORY;
    } catch (...) {
        // TagLib allocates freely; a crafted size may exhaust memory.
        return METADATA_EXTRACTOR_ERROR_OPERATION_FAILED;
    }
}

int metadata_extractor_destroy(metadata_extractor_h metadata) {
    if (!metadata) return METADATA_EXTRACTOR_ERROR_INVALID_PARAMETER;
    delete metadata;
    return METADATA_EXTRACTOR_ERROR_NONE;
}

}  // extern "C"
