// Media metadata extractor of the platform: tags and stream properties of one
// audio or video file. Audio files (chosen by the file name's extension) are
// read with TagLib, everything else and audio that TagLib cannot read with
// libavformat. The file is opened once, parsed lazily on the first
// metadata_extractor_get_metadata call, and only the parts an attribute needs
// are read (libavformat probes the streams only for stream properties).
// A corrupt or hostile file gives an error code or an absent value, never a
// crash of the caller's making; libavformat work is cut off after a few
// seconds. The daemon itself only calls this inside the mox-extract helper.
// A handle is used by one thread at a time; different handles are independent.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    METADATA_EXTRACTOR_ERROR_NONE = 0,
    METADATA_EXTRACTOR_ERROR_INVALID_PARAMETER = -22,         // -EINVAL
    METADATA_EXTRACTOR_ERROR_OUT_OF_MEMORY = -12,             // -ENOMEM
    METADATA_EXTRACTOR_ERROR_FILE_EXISTS = -2,                // the file is missing or not a regular file
    METADATA_EXTRACTOR_ERROR_PERMISSION_DENIED = -13,         // -EACCES
    METADATA_EXTRACTOR_ERROR_OPERATION_FAILED = -0x01920101,  // the file could not be parsed
} metadata_extractor_error_e;

typedef enum {
    METADATA_DURATION = 0,   // milliseconds
    METADATA_VIDEO_BITRATE,  // bits per second
    METADATA_VIDEO_FPS,
    METADATA_VIDEO_WIDTH,
    METADATA_VIDEO_HEIGHT,
    METADATA_HAS_VIDEO,         // number of video streams
    METADATA_AUDIO_BITRATE,     // bits per second
    METADATA_AUDIO_SAMPLERATE,  // Hz
    METADATA_AUDIO_CHANNELS,
    METADATA_HAS_AUDIO,  // number of audio streams
    METADATA_ARTIST,
    METADATA_TITLE,
    METADATA_ALBUM,
    METADATA_ALBUM_ARTIST,
    METADATA_GENRE,
    METADATA_AUTHOR,  // composer
    METADATA_COPYRIGHT,
    METADATA_DATE,  // year
    METADATA_DESCRIPTION,
    METADATA_COMMENT,
    METADATA_TRACK_NUM,  // as tagged, e.g. "3" or "3/12"
    METADATA_CLASSIFICATION,
    METADATA_RATING,
    METADATA_LONGITUDE,
    METADATA_LATITUDE,
    METADATA_ALTITUDE,
    METADATA_CONDUCTOR,
    METADATA_UNSYNCLYRICS,
    METADATA_SYNCLYRICS_NUM,
    METADATA_RECDATE,  // recording date as tagged
} metadata_extractor_attr_e;

typedef struct metadata_extractor_s* metadata_extractor_h;

// Creates a handle without a file.
int metadata_extractor_create(metadata_extractor_h* metadata);

// Opens `path` read-only (non-blocking, so a FIFO never hangs; only regular
// files are accepted). Replaces a file set before.
int metadata_extractor_set_path(metadata_extractor_h metadata, const char* path);

// Host addition: uses an already opened regular file. `fd` is duplicated (the
// caller keeps its own); `name` is the file name whose extension chooses the
// reader, as the path's does for metadata_extractor_set_path.
int metadata_extractor_set_fd(metadata_extractor_h metadata, int fd, const char* name);

// On success *value is a malloc'd UTF-8 text the caller frees, or NULL when
// the file has no such value. Numbers come as decimal text.
int metadata_extractor_get_metadata(metadata_extractor_h metadata, metadata_extractor_attr_e attribute, char** value);

// Closes the file and frees the handle.
int metadata_extractor_destroy(metadata_extractor_h metadata);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
