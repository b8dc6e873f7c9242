#define MOX_LOG_TAG "MOX-COMMON"
#include <mox/mox_library_state.h>

#include <exception>

#include <mox/mox_log.h>

#include "mox_thread_annotations.h"

namespace {

struct SRegistry {
    mox::Mutex mutex;
    CMOXLibraryState::Provider provider GUARDED_BY(mutex);
};

SRegistry& Registry() {
    // Never destroyed: plug-in threads may still ask at exit.
    static SRegistry* s_pRegistry = new SRegistry();  // NOLINT(cppcoreguidelines-owning-memory)
    return *s_pRegistry;
}

}  // namespace

void CMOXLibraryState::SetProvider(Provider provider) {
    SRegistry& registry = Registry();
    mox::MutexLock lock(registry.mutex);
    registry.provider = std::move(provider);
}

bool CMOXLibraryState::Volumes(std::vector<SMOXLibraryVolumeState>& volumes) {
    volumes.clear();
    SRegistry& registry = Registry();
    mox::MutexLock lock(registry.mutex);
    if (!registry.provider) return false;
    try {
        volumes = registry.provider();
    } catch (const std::exception& e) {
        MOX_WARN("Library state provider failed: %s.", e.what());
        volumes.clear();
        return false;
    } catch (...) {
        MOX_WARN("Library state provider failed.");
        volumes.clear();
        return false;
    }
    return true;
}
