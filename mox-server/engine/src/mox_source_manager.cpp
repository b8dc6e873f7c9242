#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_source_manager.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <set>
#include <vector>

#include <glib.h>

#include <mox/mox_log.h>
#include <mox_host_paths.h>

namespace {

// dlerror() text, never NULL.
const char* LastDlError() {
    const char* sz = dlerror();
    return sz ? sz : "unknown dl error";
}

template <typename Fn>
Fn LookUp(void* pHandle, const char* szSymbol) {
    dlerror();
    return reinterpret_cast<Fn>(dlsym(pHandle, szSymbol));
}

}  // namespace

CMOXSourceMgr::CMOXSourceMgr() = default;

CMOXSourceMgr::~CMOXSourceMgr() {
    mox::MutexLock lock(m_mutex);
    for (auto& entry : m_sources) {
        assert(entry.second != nullptr);
        m_DestroySource(entry.first, entry.second);
    }
    m_sources.clear();
    m_plugins.clear();
    m_libraries.clear();  // closes every library, after its sources are gone
}

bool CMOXSourceMgr::IsPluginFileName(const std::string& strLibName) {
    static const char kPrefix[] = "lib";
    static const char kSuffix[] = ".so";
    if (strLibName.size() <= strlen(kPrefix) + strlen(kSuffix) || strLibName.size() > 255) return false;
    if (strLibName.compare(0, 3, kPrefix) != 0) return false;
    if (strLibName.compare(strLibName.size() - 3, 3, kSuffix) != 0) return false;
    // Letters, digits, '_', '-', '.' only; no directory part, no "..".
    for (char c : strLibName) {
        bool bPlain = g_ascii_isalnum(c) || c == '_' || c == '-' || c == '.';
        if (!bPlain) return false;
    }
    return strLibName.find("..") == std::string::npos;
}

namespace {

// The library's path in the plug-in directory, or false (with a warning) for
// a name that is not a plain lib*.so file name.
bool PluginPath(const std::string& strLibName, std::string& strPath) {
    if (!CMOXSourceMgr::IsPluginFileName(strLibName)) {
        MOX_WARN("Refused plugin name[%.255s]: not a plain lib*.so file name.", strLibName.c_str());
        return false;
    }
    strPath = mox_host::PluginDir();
    if (!strPath.empty() && strPath.back() != '/') strPath += '/';
    strPath += strLibName;
    return true;
}

}  // namespace

bool CMOXSourceMgr::InstallPlugin(const std::string& strLibName) {
    std::string strPath;
    if (!PluginPath(strLibName, strPath)) return false;
    mox::MutexLock lock(m_mutex);
    return m_InstallPlugin(strPath);
}

bool CMOXSourceMgr::m_InstallPlugin(std::string strPath) {
    if (m_libraries.count(strPath)) {
        MOX_DEBUG("Already installed plugin[%s].", strPath.c_str());
        return true;
    }
    LibraryHandle library(dlopen(strPath.c_str(), RTLD_NOW | RTLD_LOCAL));
    if (!library) {
        MOX_WARN("%s.", LastDlError());
        return false;
    }
    auto pfnAbi = LookUp<mox_get_source_abi_version_fn>(library.get(), "GetSourceAbiVersion");
    if (!pfnAbi) {
        MOX_WARN("%s.", LastDlError());
        return false;
    }
    auto pfnCount = LookUp<mox_get_sources_count_fn>(library.get(), "GetSourcesCount");
    if (!pfnCount) {
        MOX_WARN("%s.", LastDlError());
        return false;
    }
    auto pfnName = LookUp<mox_get_source_name_fn>(library.get(), "GetSourceName");
    if (!pfnName) {
        MOX_WARN("%s.", LastDlError());
        return false;
    }
    // Checked now, so that a broken library is refused at connect rather
    // than at its first list.
    if (!LookUp<mox_create_source_fn>(library.get(), "CreateSource")) {
        MOX_WARN("%s.", LastDlError());
        return false;
    }
    int nAbi = 0;
    std::vector<std::string> names;
    try {
        nAbi = pfnAbi();
        if (nAbi < MOX_WEB_SOURCE_MIN_ABI_VERSION || nAbi > MOX_WEB_SOURCE_ABI_VERSION) {
            MOX_WARN("Plugin[%s] built for source ABI %d, engine has %d to %d: refused.", strPath.c_str(), nAbi,
                     MOX_WEB_SOURCE_MIN_ABI_VERSION, MOX_WEB_SOURCE_ABI_VERSION);
            return false;
        }
        int nCount = pfnCount();
        if (nCount < 0 || nCount > kMaxSourcesPerLibrary) {
            MOX_WARN("Plugin[%s] offers %d sources: refused.", strPath.c_str(), nCount);
            return false;
        }
        for (int i = 0; i < nCount; ++i) {
            const char* szSourceName = pfnName(i);
            // A plug-in's answer, not a programming error of ours: refuse it.
            if (szSourceName == nullptr || szSourceName[0] == '\0' ||
                strnlen(szSourceName, kMaxSourceNameBytes + 1) > kMaxSourceNameBytes ||
                !g_utf8_validate(szSourceName, -1, nullptr)) {
                MOX_WARN("Plugin[%s] gave an unusable name for source %d: refused.", strPath.c_str(), i);
                return false;
            }
            names.emplace_back(szSourceName);
        }
    } catch (...) {
        MOX_WARN("Plugin[%s] threw from an entry point: refused.", strPath.c_str());
        return false;
    }
    for (const std::string& name : names) {
        MOX_INFO("szSourceName = %s.", name.c_str());
        // An existing name keeps its first library.
        if (m_plugins.emplace(name, library.get()).second) m_abis[name] = nAbi;
    }
    m_libraries.emplace(strPath, std::move(library));
    MOX_DEBUG("Success to install plugin[%s].", strPath.c_str());
    return true;
}

IWebSource* CMOXSourceMgr::GetSource(std::string strSourceName) {
    mox::MutexLock lock(m_mutex);
    auto found = m_sources.find(strSourceName);
    if (found != m_sources.end()) return found->second;
    MOX_DEBUG("strSourceName = %.255s", strSourceName.c_str());
    if (strSourceName == "test") return nullptr;
    IWebSource* pSource = m_CreateSource(strSourceName);
    if (!pSource) return nullptr;
    bool bInit = false;
    try {
        bInit = pSource->Init();
    } catch (...) {
        MOX_WARN("Source[%s] threw from Init.", strSourceName.c_str());
    }
    if (!bInit) {
        MOX_WARN("Init of source[%s] failed.", strSourceName.c_str());
        try {
            pSource->Destroy();
        } catch (...) {
            MOX_WARN("Source[%s] threw from Destroy.", strSourceName.c_str());
        }
        return nullptr;
    }
    m_sources.emplace(strSourceName, pSource);
    return pSource;
}

namespace {

struct SBusySources {
    mox::Mutex mutex;
    std::multiset<std::string> names GUARDED_BY(mutex);
};

SBusySources& Busy() {
    // Never destroyed: a stuck command thread may still leave its call at exit.
    static SBusySources* s_pBusy = new SBusySources();  // NOLINT(cppcoreguidelines-owning-memory): never destroyed
    return *s_pBusy;
}

}  // namespace

CMOXSourceCall::CMOXSourceCall(std::string strSourceName) : m_strSourceName(std::move(strSourceName)) {
    SBusySources& busy = Busy();
    mox::MutexLock lock(busy.mutex);
    busy.names.insert(m_strSourceName);
}

CMOXSourceCall::~CMOXSourceCall() {
    SBusySources& busy = Busy();
    mox::MutexLock lock(busy.mutex);
    auto found = busy.names.find(m_strSourceName);
    if (found != busy.names.end()) busy.names.erase(found);
}

std::vector<std::string> CMOXSourceMgr::BusySources() {
    SBusySources& busy = Busy();
    mox::MutexLock lock(busy.mutex);
    std::set<std::string> unique(busy.names.begin(), busy.names.end());
    return std::vector<std::string>(unique.begin(), unique.end());
}

void CMOXSourceMgr::CloseIdleSources() {
    const std::vector<std::string> busy = BusySources();
    mox::MutexLock lock(m_mutex);
    for (auto it = m_sources.begin(); it != m_sources.end();) {
        if (std::find(busy.begin(), busy.end(), it->first) != busy.end()) {
            MOX_WARN("Source[%s] is stuck in a call at exit: not closed.", it->first.c_str());
            ++it;
            continue;
        }
        m_DestroySource(it->first, it->second);
        it = m_sources.erase(it);
    }
}

int CMOXSourceMgr::GetSourceAbi(const std::string& strSourceName) {
    mox::MutexLock lock(m_mutex);
    auto found = m_abis.find(strSourceName);
    return found == m_abis.end() ? 0 : found->second;
}

IWebSource* CMOXSourceMgr::m_CreateSource(const std::string& strSourceName) {
    auto plugin = m_plugins.find(strSourceName);
    if (plugin == m_plugins.end()) {
        MOX_WARN("There is no plugin for source[%.255s].", strSourceName.c_str());
        return nullptr;
    }
    auto pfnCreate = LookUp<mox_create_source_fn>(plugin->second, "CreateSource");
    if (!pfnCreate) {
        MOX_WARN("%s.", LastDlError());
        return nullptr;
    }
    IWebSource* pSource = nullptr;
    try {
        pSource = pfnCreate(strSourceName.c_str());
    } catch (...) {
        MOX_WARN("CreateSource [%s] threw.", strSourceName.c_str());
        pSource = nullptr;
    }
    if (!pSource) MOX_WARN("CreateSource [%s] failed.", strSourceName.c_str());
    return pSource;
}

void CMOXSourceMgr::m_DestroySource(const std::string& strSourceName, IWebSource* pSource) {
    try {
        pSource->Close();
    } catch (...) {
        MOX_WARN("Source[%s] threw from Close.", strSourceName.c_str());
    }
    try {
        pSource->Destroy();
    } catch (...) {
        MOX_WARN("Source[%s] threw from Destroy.", strSourceName.c_str());
    }
}
