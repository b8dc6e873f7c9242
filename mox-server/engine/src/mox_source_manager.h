// CMOXSourceMgr: loads source plug-in libraries (<mox/mox_web_source.h>)
// from the plug-in directory, remembers which library offers which source
// name, creates each source on first use and keeps it for every later user.
// Reached through CMOXSingleton<CMOXSourceMgr>.
//
// Only plain file names of the form "lib*.so" are loaded, and only from
// MOX_PLUGIN_DIR; a library lacking any of the four entry points or built
// against an ABI version the engine does not know is closed again and
// registers nothing. What a library answers (source count, names) is
// checked before use.
//
// Threads: every public operation holds m_mutex, so the engine's main loop
// and the command threads may call concurrently. Sources handed out stay
// valid until the manager is destroyed: the destructor requires that no
// command still uses them.
#pragma once

#include <dlfcn.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <mox/mox_web_source.h>

#include "mox_thread_annotations.h"

// Marks a source as being in a call for the guard's lifetime, so that
// shutdown never closes a source a command thread is still inside.
class CMOXSourceCall {
public:
    explicit CMOXSourceCall(std::string strSourceName);
    ~CMOXSourceCall();
    CMOXSourceCall(const CMOXSourceCall&) = delete;
    CMOXSourceCall& operator=(const CMOXSourceCall&) = delete;

private:
    std::string m_strSourceName;
};

class CMOXSourceMgr {
public:
    CMOXSourceMgr();
    ~CMOXSourceMgr();
    CMOXSourceMgr(const CMOXSourceMgr&) = delete;
    CMOXSourceMgr& operator=(const CMOXSourceMgr&) = delete;

    // Loads MOX_PLUGIN_DIR/strLibName. False (warning) for a name that is not
    // a plain "lib*.so" file name or a library that cannot be used.
    bool InstallPlugin(const std::string& strLibName);
    // The source named strSourceName, created and initialised on first use;
    // NULL when no installed library offers it or creation fails.
    IWebSource* GetSource(std::string strSourceName);
    // The ABI version of the library offering strSourceName (0 when none):
    // operations of a later version are never called on an older source.
    int GetSourceAbi(const std::string& strSourceName);

    // Shutdown with sources stuck in a call: closes and destroys every
    // source not in a call now (a warning names each one left alone).
    void CloseIdleSources();
    // The sources in a call now (each name once).
    static std::vector<std::string> BusySources();

    // True for a plain "lib*.so" file name (no directory part, no "..").
    static bool IsPluginFileName(const std::string& strLibName);

    static const int kMaxSourcesPerLibrary = 256;
    static const size_t kMaxSourceNameBytes = 255;

private:
    struct SLibraryCloser {
        void operator()(void* pHandle) const {
            if (pHandle) dlclose(pHandle);
        }
    };
    using LibraryHandle = std::unique_ptr<void, SLibraryCloser>;

    bool m_InstallPlugin(std::string strPath) REQUIRES(m_mutex);
    IWebSource* m_CreateSource(const std::string& strSourceName) REQUIRES(m_mutex);
    void m_DestroySource(const std::string& strSourceName, IWebSource* pSource);

    mox::Mutex m_mutex;
    std::map<std::string, IWebSource*> m_sources GUARDED_BY(m_mutex);      // owned, released by Destroy()
    std::map<std::string, void*> m_plugins GUARDED_BY(m_mutex);            // source name -> library
    std::map<std::string, int> m_abis GUARDED_BY(m_mutex);                 // source name -> its library's ABI
    std::map<std::string, LibraryHandle> m_libraries GUARDED_BY(m_mutex);  // path -> library
};
