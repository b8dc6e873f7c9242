// Fuzz target of media metadata extraction, the code the mox-extract helper
// runs on every photo, song and clip of a storage. The first input byte picks
// the file kind (extension and media type), the rest is the file's contents,
// handed over as a memory file. The daemon-side decoder of the helper's
// answers gets the same bytes.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "fuzz_shm_util.h"
#include "mox_extract_wire.h"
#include "mox_extractor.h"

namespace {

struct Kind {
    const char* name;
    int mediaType;
};
constexpr Kind kKinds[] = {
    {"f.jpg", 2},  {"f.mp3", 5}, {"f.flac", 5}, {"f.ogg", 5}, {"f.m4a", 5}, {"f.wav", 5}, {"f.wma", 5},
    {"f.aiff", 5}, {"f.ape", 5}, {"f.aac", 5},  {"f.mp4", 3}, {"f.mkv", 3}, {"f.avi", 3}, {"f.ts", 3},
};
constexpr size_t kKindCount = sizeof(kKinds) / sizeof(kKinds[0]);

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    moxfuzz::QuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    {
        media_info_s decoded;
        mox_extract_wire::DecodeAnswer(std::string(reinterpret_cast<const char*>(data), size), decoded);
    }
    const Kind& kind = kKinds[data[0] % kKindCount];
    int fd = memfd_create("mox_fuzz_media", MFD_CLOEXEC);
    if (fd < 0) return 0;
    const uint8_t* body = data + 1;
    size_t left = size - 1;
    while (left > 0) {
        ssize_t n = write(fd, body, left);
        if (n <= 0) break;
        body += n;
        left -= static_cast<size_t>(n);
    }
    media_info_s info;
    CMOXExtractor::ExtractContent(fd, kind.name, kind.mediaType, info);
    close(fd);
    return 0;
}
