// The content engine daemon: start-up, the process-wide system event
// callbacks and the orderly shutdown. The bus face is CMOXBusService.
//
// Threads: everything here runs on the main loop's thread (the default GLib
// main context), except the storage callbacks, which run on the USB service's
// thread.
#define MOX_LOG_TAG "MOX-ENGINE"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <gio/gio.h>
#include <glib-unix.h>

#include <mox/MOXHttpRequest.h>
#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_singleton.h>
#include <mox/mox_types.h>
#include <mox/mox_util.h>
#include <mox_host_paths.h>
#include <mox_watchdog.h>
#include <power.h>
#include <vconf.h>

#include "cache_folder.h"
#include "cache_pool.h"
#include "mox_bus_service.h"
#include "mox_engine_imp.h"
#include "mox_library.h"
#include "mox_request_list_command.h"
#include "mox_scanner_manager.h"
#include "mox_source_manager.h"
#include "mox_storage_manager.h"
#include "mox_temp_sweep.h"
#include "mox_uhd_data_mgr.h"
#include "shm_mapping.h"

namespace {

constexpr const char* kResetStatusKey = "db/mox/reset_status";
constexpr const char* kDbResetKey = "file/private/mediaserver/db_reset";
constexpr guint kHeartbeatMs = 5000;
constexpr int kWatchdogPeriodSec = 60;
// How long shutdown waits for scanners to end after the engine's own wait;
// they were told to end before it, and one that is not stuck in a system
// call ends within a step.
constexpr std::chrono::milliseconds kScanShutdownWait{300};
// How long the stop waits for library indexers to return from the storage.
constexpr std::chrono::milliseconds kLibraryStopWait{1000};

struct GFreeDeleter {
    void operator()(gchar* p) const { g_free(p); }
};
struct NodeInfoDeleter {
    void operator()(GDBusNodeInfo* p) const { g_dbus_node_info_unref(p); }
};
struct MainLoopDeleter {
    void operator()(GMainLoop* p) const { g_main_loop_unref(p); }
};
struct GErrorDeleter {
    void operator()(GError* p) const { g_error_free(p); }
};

// Process-wide state, created in main and used by the main-loop callbacks.
std::unique_ptr<gchar, GFreeDeleter> g_introspectionXml;
std::unique_ptr<GDBusNodeInfo, NodeInfoDeleter> g_introspectionData;
GMainLoop* g_mainLoop = nullptr;  // owned by main
// The signal sink of the storage notifications (a plain C callback).
CMOXBusService* g_pBus = nullptr;  // owned by main
// The media library the storage events feed (owned by main).
CMOXLibrary* g_pLibrary = nullptr;
int g_nExitStatus = 0;
// The status file this daemon wrote (device, inode; 0 when none): removed at
// the stop only while it is still that file, not one a later daemon wrote.
std::pair<dev_t, ino_t> g_statusFileId{0, 0};

// Reads the introspection XML; the daemon cannot serve without it.
bool initIntrospectionXml() {
    std::string path = mox_host::DbusConfigPath();
    gchar* text = nullptr;
    if (!g_file_get_contents(path.c_str(), &text, nullptr, nullptr)) {
        MOX_DEBUG("load mox_dbus_config error.\n");
        MOX_WARN("cannot read the introspection XML %s (MOX_DBUS_CONFIG moves it).", path.c_str());
        return false;
    }
    g_introspectionXml.reset(text);
    MOX_DEBUG("load mox_dbus_config ok.\n");
    return true;
}

void removeUhdFiles() {
    std::string dir = mox_host::AppDataDir();
    std::string metadata = dir + "/.UHD_Metadata.json";
    std::string rating = dir + "/.UHD_Rating.json";
    if (CMOXUtil::IsFileExist(metadata.c_str()) && CMOXUtil::RemoveFile(metadata.c_str()))
        MOX_TRACE(" REMOVE MOX META DOWNLOAD FILE!!\n");
    if (CMOXUtil::IsFileExist(rating.c_str()) && CMOXUtil::RemoveFile(rating.c_str()))
        MOX_TRACE(" REMOVE MOX RATING DOWNLOAD FILE!!\n");
}

// Clean-up after a factory or service reset that happened while we were down.
int mox_engine_deal_reset_status() {
    int nStatus = 0;
    if (!CMOXUtil::GetVConfigValueInt(kResetStatusKey, &nStatus)) {
        MOX_INFO("get db/mox/reset_status failed\n");
        return 0;
    }
    MOX_INFO("db/mox/reset_status is [%d]\n", nStatus);
    if (nStatus == 1 || nStatus == 2) {
        MOX_INFO("POWER_OFF_REASON_FACTORY_RESET or SERVICE RESET");
        removeUhdFiles();
        if (!CMOXUtil::SetVConfigValueInt(kResetStatusKey, 0)) {
            MOX_INFO("set db/mox/reset_status failed\n");
            return 0;
        }
    }
    MOX_INFO("end of mox_engine_deal_reset_status\n");
    return 1;
}

// The status file lives in a world-writable directory: it is written to a
// fresh name (O_EXCL, never following a planted link) and renamed into place,
// which replaces whatever was planted under the name instead of following it.
int write_engine_status() {
    std::string path = mox_host::StatusFilePath();
    MOX_INFO("%s", path.c_str());
    std::string temp = path + ".XXXXXX";
    int fd = mkostemp(&temp[0], O_CLOEXEC);
    if (fd < 0) {
        MOX_INFO("fp is NULL. file name : %s", path.c_str());
        return -1;
    }
    std::unique_ptr<FILE, int (*)(FILE*)> fp(fdopen(fd, "w"), fclose);
    if (!fp) {
        close(fd);
        unlink(temp.c_str());
        MOX_INFO("fp is NULL. file name : %s", path.c_str());
        return -1;
    }
    fchmod(fd, 0644);
    struct stat st;
    const std::pair<dev_t, ino_t> id =
        fstat(fd, &st) == 0 ? std::make_pair(st.st_dev, st.st_ino) : std::make_pair(dev_t(0), ino_t(0));
    bool bWritten = fputs("MOX_ENGINE OK", fp.get()) >= 0;
    bWritten = fclose(fp.release()) == 0 && bWritten;
    if (!bWritten) MOX_INFO("fputs failed");
    if (!bWritten || rename(temp.c_str(), path.c_str()) != 0) {
        if (bWritten) MOX_INFO("fp is NULL. file name : %s", path.c_str());
        unlink(temp.c_str());
        return bWritten ? -1 : 0;
    }
    g_statusFileId = id;
    return 0;
}

// The heartbeat's lines are debug lines, not the info lines they once were:
// at info an idle daemon would write 1,440 lines an hour saying nothing.
// At the stop: nothing may claim "OK" for a daemon that is gone (the file was
// once left behind).
void removeEngineStatus() {
    if (g_statusFileId.second == 0) return;
    const std::string path = mox_host::StatusFilePath();
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || st.st_dev != g_statusFileId.first || st.st_ino != g_statusFileId.second)
        return;  // gone, or another daemon's by now
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        MOX_WARN("cannot remove the status file %s: %s", path.c_str(), strerror(errno));
}

gboolean notify_callback(gpointer) {
    MOX_DEBUG("mox engine notify_callback begin");
    watchdog_notify();
    MOX_DEBUG("mox engine notify_callback end");
    return G_SOURCE_CONTINUE;
}

// Never subscribed on start-up: the reset key handled at start covers the
// factory-reset case. Only unsubscribed at shutdown.
int cb_dealPowerOff(int reason) {
    MOX_INFO("cb_dealPowerOff...begin....\n");
    if (reason == POWER_OFF_REASON_FACTORY_RESET) {
        MOX_INFO("POWER_OFF_REASON_FACTORY_RESET");
        removeUhdFiles();
    }
    MOX_INFO("cb_dealPowerOff...end....\n");
    return 0;
}

void OnVconfKeyChangedCB(keynode_t* keynode, void*) {
    MOX_INFO("OnVconfKeyChangedCB vconf key changed!");
    const char* name = vconf_keynode_get_name(keynode);
    if (!name) return;
    // Compared over the received name's length: a prefix of the watched key
    // matches too, as the platform has always done.
    if (strncmp(name, kDbResetKey, strlen(name)) != 0) return;
    if (vconf_keynode_get_int(keynode) != 0) CMOXSingleton<CCacheFolder>::Get()->Clear();
}

// Storage events from the storage manager, on the USB service's thread. The
// handler owns the device reference it is given.
void cb_dealUsbEvent(usb_device_h device, EMOXStorageEvent event, void* engine) {
    if (!device) {
        MOX_WARN("usb_device == NULL");
        return;
    }
    std::unique_ptr<std::remove_pointer_t<usb_device_h>, void (*)(usb_device_h)> handle(device, usb_device_unref);
    if (event == MOX_STORAGE_NONE) {
        MOX_WARN("event == MOX_STORAGE_NONE");
        return;
    }
    if (usb_device_get_class(device) != USB_DEVICE_CLASS_MASS_STORAGE) {
        MOX_WARN("usb_device is not storage");
        return;
    }
    const char* szMountPath = usb_device_get_mountpath(device);
    std::string strMountPath = szMountPath ? szMountPath : "";
    if (strMountPath.empty()) {
        MOX_WARN("mount_path == NULL");
        return;
    }
    // No answer listed from a storage outlives it: another stick mounted at
    // the same path must show only its own files (a mount clears too, in
    // case the unmount was never reported).
    CMOXSingleton<CCachePool>::Get()->ForgetTouching(strMountPath);
    if (event == MOX_STORAGE_CONNECTED) {
        // Scanning is requested by clients; on a mount only what a dead
        // engine left half-written goes, once the library's walk of the
        // storage is over (the two walks at once slow each other down) and
        // in the indexer's idle class (the clients it notified come first).
        MOX_INFO("USB MOUNTED : %s", strMountPath.c_str());
        auto sweep = [strRoot = mox_host::UsbRoot(), strMountPath] {
            mox_temp_sweep::SweepInBackground(strRoot, strMountPath);
        };
        if (g_pLibrary)
            g_pLibrary->OnMounted(device, sweep);
        else
            sweep();
    } else if (event == MOX_STORAGE_DISCONNECTED) {
        MOX_INFO("USB UNMOUNTED : %s", strMountPath.c_str());
        if (g_pLibrary) g_pLibrary->OnUnmounted(strMountPath);
        auto* pEngine = static_cast<CMOXEngineImp*>(engine);
        assert(pEngine != NULL);
        pEngine->RemoveScannerOfDevice(strMountPath.c_str());
        pEngine->RemoveThumbnailByDevice(strMountPath.c_str());
        CMOXSingleton<CCacheFolder>::Get()->Clear(strMountPath);
    }
}

// Sends one bound client a storage event, on the USB service's thread.
void notify_storages(const SDBusConnectionInfo& client, EMOXStorageEvent, const std::string& payload) {
    if (g_pBus) g_pBus->Emit(client, "mox_usb_notification", payload);
}

gboolean onQuitSignal(gpointer) {
    MOX_INFO("termination signal received, leaving the main loop.");
    if (g_mainLoop) g_main_loop_quit(g_mainLoop);
    return G_SOURCE_CONTINUE;
}

// The object is registered at the root node's path with its first interface;
// a file without them cannot be served.
bool parseIntrospectionData() {
    GError* rawError = nullptr;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(g_introspectionXml.get(), &rawError);
    std::unique_ptr<GError, GErrorDeleter> error(rawError);
    if (!node) {
        MOX_WARN("invalid introspection XML: %s", error ? error->message : "unknown error");
        return false;
    }
    g_introspectionData.reset(node);
    if (!node->path || !g_variant_is_object_path(node->path) || !node->interfaces || !node->interfaces[0]) {
        MOX_WARN("introspection XML lacks an object path or an interface.");
        return false;
    }
    return true;
}

// The engine left alive for commands that did not end at shutdown.
CMOXEngineImp* g_pEngineAtExit = nullptr;
// Set when a thread was left stuck in a system call at shutdown.
bool g_bThreadsAbandoned = false;
CMOXBusService* g_pBusAtExit = nullptr;  // likewise: the kept engine's signal sink
// A library whose indexer is stuck on a storage, and the storage manager it
// reads bound clients from: kept until the process ends.
CMOXLibrary* g_pLibraryAtExit = nullptr;
CMOXStorageMgr* g_pStorageAtExit = nullptr;

// The engine drops the result lists clients still hold; the sources, the
// cached blocks and the UHD provider go only when no command runs any more.
// True when the engine had to be kept for a stuck command.
bool shutDownEngine(std::unique_ptr<CMOXEngineImp> pEngine) {
    if (!pEngine->Shutdown()) {
        // A source stuck in a call: its thread still reaches the engine, the
        // pool and the source when (if) it returns, so they stay; everything
        // else is closed and no object of ours outlives the process.
        MOX_WARN("Commands still running: the sources they call and the cache kept until exit.");
        CMOXSingleton<CMOXSourceMgr>::Get()->CloseIdleSources();
        CMOXRequestListCommand::UnlinkBlocksInProgress();
        CMOXSingleton<CCachePool>::Get()->UnlinkAllAtExit();
        g_pEngineAtExit = pEngine.release();
        return true;
    }
    pEngine.reset();
    CMOXSingleton<CMOXSourceMgr>::Destroy();
    CMOXSingleton<CCachePool>::Destroy();
    CMOXSingleton<CMOXUHDDataMgr>::Destroy();
    return false;
}

// Everything main builds, torn down in reverse in one place whatever stage
// start-up reached.
struct Daemon {
    std::unique_ptr<CMOXBusService> pBus;
    std::unique_ptr<CMOXEngineImp> pEngine;
    std::unique_ptr<CMOXStorageMgr> pStorage;
    std::unique_ptr<CMOXLibrary> pLibrary;
    bool bKeyWatched = false;

    ~Daemon() {
        if (pBus) {
            pBus->Unown();
            pBus->Detach();
        }
        // No storage event runs any more, not even one already under way,
        // so the library can go; its indexers stop while the storage manager
        // (their list of bound clients), the engine and the bus are still
        // there.
        if (pStorage) pStorage->StopEvents();
        g_pLibrary = nullptr;
        bool bLibraryKept = false;
        if (pLibrary && !pLibrary->Stop(kLibraryStopWait)) {
            // Its stuck indexer still uses it and the storage manager.
            bLibraryKept = true;
            g_pLibraryAtExit = pLibrary.release();
            g_pStorageAtExit = pStorage.release();
        }
        pLibrary.reset();
        pStorage.reset();
        // Scans end while the engine waits for its commands.
        CMOXSingleton<CMOXScanManager>::Get()->BeginShutdown();
        const bool bEngineKept = pEngine && shutDownEngine(std::move(pEngine));
        if (bKeyWatched) vconf_ignore_key_changed(kDbResetKey, OnVconfKeyChangedCB);
        // Scanner threads end before the connection their callbacks use goes.
        // One stuck in a system call (a hung storage) is abandoned, never
        // freed under it: the manager it uses stays, and so does the bus
        // service its end callback would send through. A kept engine may
        // still start scanners (a path job stuck in its last step).
        const bool bScansEnded = CMOXSingleton<CMOXScanManager>::Get()->Shutdown(kScanShutdownWait);
        if (bScansEnded && !bEngineKept)
            CMOXSingleton<CMOXScanManager>::Destroy();
        else
            MOX_WARN("Scans still running: the scan manager kept until exit.");
        CMOXSingleton<CCacheFolder>::Destroy();
        // A kept engine still sends through the bus service when its stuck
        // command returns: the service stays too, until the process ends.
        g_bThreadsAbandoned = bEngineKept || !bScansEnded || bLibraryKept;
        if (g_bThreadsAbandoned)
            g_pBusAtExit = pBus.release();
        else
            pBus.reset();
        g_pBus = nullptr;
        g_introspectionData.reset();
        g_introspectionXml.reset();
        MOXHttpRequest::GlobalCleanup();
    }
};

// Builds the daemon's parts, runs the main loop and returns the exit status;
// `daemon` tears everything down.
int Serve(Daemon& daemon, GMainLoop* loop) {
    daemon.pBus = std::make_unique<CMOXBusService>(g_introspectionData.get(), [] {
        // The bus went away (its daemon restarted): stop in order and exit
        // non-zero, so that the service manager starts a daemon that connects
        // afresh.
        g_nExitStatus = 1;
        if (g_mainLoop) g_main_loop_quit(g_mainLoop);
    });
    g_pBus = daemon.pBus.get();
    daemon.pEngine = std::make_unique<CMOXEngineImp>(*daemon.pBus);
    daemon.pStorage = std::make_unique<CMOXStorageMgr>();
    CMOXStorageMgr* pStorage = daemon.pStorage.get();
    daemon.pLibrary =
        std::make_unique<CMOXLibrary>(*daemon.pBus, [pStorage] { return pStorage->GetNotificationClients(); });
    g_pLibrary = daemon.pLibrary.get();
    daemon.pStorage->SetNotificationCB(notify_storages);
    MOX_DEBUG("SetInternalCB in mox_engine.cpp...");
    daemon.pStorage->SetInternalCB(cb_dealUsbEvent, daemon.pEngine.get());
    daemon.pLibrary->IndexMounted();
    daemon.pBus->Attach(daemon.pEngine.get(), daemon.pStorage.get());

    mox_engine_deal_reset_status();
    vconf_notify_key_changed(kDbResetKey, OnVconfKeyChangedCB, nullptr);
    daemon.bKeyWatched = true;

    daemon.pBus->Own([] { watchdog_notify_ready(); });
    write_engine_status();

    watchdog_register(kWatchdogPeriodSec);
    guint nHeartbeatId = g_timeout_add(kHeartbeatMs, notify_callback, loop);
    g_main_loop_run(loop);
    g_source_remove(nHeartbeatId);
    power_unsubscribe_poweroff(cb_dealPowerOff);
    return g_nExitStatus;
}

// Every variable the daemon (and its helper) reads, with the value in force.
void printHelp() {
    printf(
        "Usage: mox-engine [--help | --version]\n\n"
        "The MOX content engine daemon: owns com.orvia.mox.engine on the system bus. It\n"
        "takes no options and has no configuration file; SIGTERM or SIGINT stops it\n"
        "(exit status 0; 1 when the introspection XML is unusable or the bus went away).\n\n"
        "Environment (value in force now; see mox-engine(8)):\n");
    const std::pair<const char*, std::string> paths[] = {
        {"MOX_DBUS_CONFIG", mox_host::DbusConfigPath()}, {"MOX_PLUGIN_DIR", mox_host::PluginDir()},
        {"MOX_STATUS_FILE", mox_host::StatusFilePath()}, {"MOX_USB_ROOT", mox_host::UsbRoot()},
        {"MOX_VCONF_DIR", mox_host::VconfDir()},         {"MOX_APP_DATA_DIR", mox_host::AppDataDir()},
        {"MOX_CA_BUNDLE", mox_host::CaBundlePath()},     {"MOX_FEATURES_FILE", mox_host::FeaturesFile()},
        {"MOX_LIBRARY_DIR", mox_host::LibraryDir()},
    };
    for (const auto& [name, value] : paths) printf("  %-24s %s\n", name, value.c_str());
    printf(
        "  %-24s udev (default) or spool:DIR, the simulated USB service\n"
        "  %-24s mount table of the udev backend (default /proc/self/mountinfo)\n"
        "  %-24s the media parsing helper (default: beside the daemon, else installed)\n"
        "  %-24s the user the helper becomes (default nobody)\n"
        "  %-24s test hook of the helper: 1 lets named files crash or stall it\n"
        "  %-24s the media library's rows per volume (default 2000000; tests lower it)\n"
        "  %-24s the media library's total index bytes (default 268435456; tests)\n"
        "  %-24s stderr (default), journal (default under systemd) or file:PATH\n"
        "  %-24s debug, info (default) or warning (default under systemd)\n"
        "  %-24s the system bus (default: the system bus)\n"
        "  %-24s set by systemd: readiness and watchdog notices, service detection\n",
        "MOX_USB_BACKEND", "MOX_MOUNTINFO", "MOX_EXTRACT_HELPER", "MOX_EXTRACT_USER", "MOX_EXTRACT_TEST_FAULTS",
        "MOX_LIBRARY_MAX_ROWS", "MOX_LIBRARY_MAX_BYTES", "MOX_LOG", "MOX_LOG_LEVEL", "DBUS_SYSTEM_BUS_ADDRESS",
        "NOTIFY_SOCKET, JOURNAL_STREAM, INVOCATION_ID");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        if (strcmp(argv[1], "--version") == 0) {
            printf("mox-engine %s\n", MOX_VERSION);
            return 0;
        }
        if (strcmp(argv[1], "--help") == 0) {
            printHelp();
            return 0;
        }
        fprintf(stderr, "mox-engine: unknown argument '%s' (try --help)\n", argv[1]);
        return 2;
    }
    // Objects of an instance that died without cleaning up (kill -9, a
    // watchdog abort) are nobody's any more, and so are the temporary files
    // it was writing on the storages mounted now.
    mox_shm::RemoveStaleObjects();
    mox_temp_sweep::SweepMountedInBackground(mox_host::UsbRoot());
    // Linked here (not only by the plug-ins that make HTTP calls) so that a
    // plug-in finds libmoxhttp loaded wherever the daemon is installed.
    MOXHttpRequest::GlobalInit();
    // Until the teardown is over a second SIGTERM (a service manager that
    // stops the daemon while it is already stopping) only wakes a loop nobody
    // runs instead of killing the process half-way through.
    std::unique_ptr<GMainLoop, MainLoopDeleter> loop(g_main_loop_new(nullptr, FALSE));
    g_mainLoop = loop.get();
    guint nTermId = g_unix_signal_add(SIGTERM, onQuitSignal, nullptr);
    guint nIntId = g_unix_signal_add(SIGINT, onQuitSignal, nullptr);
    int nStatus = 1;
    {
        Daemon daemon;
        // A missing or malformed file is a broken installation: say so and
        // stop instead of aborting.
        if (initIntrospectionXml() && parseIntrospectionData()) {
            MOX_DEBUG("init_introspection_xml ok.");
            nStatus = Serve(daemon, loop.get());
        }
    }
    g_mainLoop = nullptr;
    loop.reset();
    g_source_remove(nIntId);
    g_source_remove(nTermId);
    signal(SIGTERM, SIG_IGN);  // the process is ending in order anyway
    signal(SIGINT, SIG_IGN);
    // Nothing may claim "OK" for a daemon that is gone: the status file goes
    // with it (it was once left behind).
    removeEngineStatus();
    if (g_bThreadsAbandoned) {
        // The exit-time destructors and handlers would run under threads
        // still inside a storage's or a source's call (and a leak check
        // would wait for them forever): everything of ours is closed, so the
        // process ends here. The kernel lets it go once those calls return.
        MOX_WARN("mox engine stopped, leaving threads stuck in system calls.");
        mox_shm::ReleaseInstanceLock();
        fflush(nullptr);
        _exit(nStatus);
    }
    MOX_INFO("mox engine stopped.");
    return nStatus;
}
