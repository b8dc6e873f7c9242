// The media library's mounted volumes as the engine sees them now, for the
// library source plug-in (which runs in the engine's process and reads the
// index files itself). The engine's library registers a provider while it
// runs; a plug-in asks for the volumes on any thread.
//
// The provider is called with the registry's lock held, so that the library
// can not go away during the call: it must be quick and must never call back
// into this registry.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct SMOXLibraryVolumeState {
    std::string strMountPath;  // raw bytes, no trailing slash
    std::string strVolumeId;
    std::string strDbPath;    // the index file (SQLite, WAL)
    int64_t nGeneration = 0;  // committed changes so far
    std::string strStatus;    // the mox_library_notification document
};

class CMOXLibraryState {
public:
    using Provider = std::function<std::vector<SMOXLibraryVolumeState>()>;
    // Registers the provider (an empty one unregisters); returns once no
    // call of the previous provider runs any more.
    static void SetProvider(Provider provider);
    // The volumes mounted now; false when no library runs in this process.
    static bool Volumes(std::vector<SMOXLibraryVolumeState>& volumes);
};

#pragma GCC visibility pop
