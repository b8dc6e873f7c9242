// The content engine daemon: start-up, the D-Bus method dispatcher, the
// process-wide system event callbacks and the orderly shutdown.
//
// Threads: everything here runs on the main loop's thread (the default GLib
// main context), except the message filter (GDBus worker thread; it only hands
// the message to the main loop) and the storage callbacks, which run on the USB
// service's thread.
#define MOX_LOG_TAG "MOX-ENGINE"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

#include <curl/curl.h>
#include <gio/gio.h>
#include <glib-unix.h>

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
#include "mox_bus_text.h"
#include "mox_engine_imp.h"
#include "mox_scanner_manager.h"
#include "mox_source_manager.h"
#include "mox_storage_manager.h"
#include "mox_uhd_data_mgr.h"
#include "mox_usb_file.h"

namespace {

constexpr const char* kBusName = "com.orvia.mox.engine";
constexpr const char* kResetStatusKey = "db/mox/reset_status";
constexpr const char* kDbResetKey = "file/private/mediaserver/db_reset";
constexpr guint kHeartbeatMs = 5000;
constexpr int kWatchdogPeriodSec = 60;
constexpr guint32 kInvalidHandle = 4294967295u;

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
std::unique_ptr<CMOXEngineImp> pMOXEngineImp;
std::unique_ptr<CMOXStorageMgr> g_pStorageMgr;
// The bus connection, referenced for as long as the storage manager may hand
// its pointer (held in bound-client records) to notify_storages.
GDBusConnection* g_pConnection = nullptr;
guint g_nNameOwnerSubscription = 0;  // on g_pConnection
int g_nExitStatus = 0;

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
    bool bWritten = fputs("MOX_ENGINE OK", fp.get()) >= 0;
    bWritten = fclose(fp.release()) == 0 && bWritten;
    if (!bWritten) MOX_INFO("fputs failed");
    if (!bWritten || rename(temp.c_str(), path.c_str()) != 0) {
        if (bWritten) MOX_INFO("fp is NULL. file name : %s", path.c_str());
        unlink(temp.c_str());
        return bWritten ? -1 : 0;
    }
    return 0;
}

gboolean notify_callback(gpointer) {
    MOX_INFO("mox engine notify_callback begin");
    watchdog_notify();
    MOX_INFO("mox engine notify_callback end");
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
    std::unique_ptr<std::remove_pointer_t<usb_device_h>, void (*)(usb_device_h)> handle(
        device, usb_device_unref);
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
    if (event == MOX_STORAGE_CONNECTED) {
        // Scanning is requested by clients; nothing to do on a mount.
        MOX_INFO("USB MOUNTED : %s", strMountPath.c_str());
    } else if (event == MOX_STORAGE_DISCONNECTED) {
        MOX_INFO("USB UNMOUNTED : %s", strMountPath.c_str());
        auto* pEngine = static_cast<CMOXEngineImp*>(engine);
        assert(pEngine != NULL);
        pEngine->RemoveScannerOfDevice(strMountPath.c_str());
        pEngine->RemoveThumbnailByDevice(strMountPath.c_str());
        CMOXSingleton<CCacheFolder>::Get()->Clear(strMountPath);
    }
}

// Sends one bound client a storage event, on the USB service's thread.
void notify_storages(SDBusConnectionInfo client, EMOXStorageEvent event, std::string storages) {
    CJsonValue parsed(storages);
    if (!parsed.IsValid()) {
        MOX_INFO("Can't parse storages:\n%s", storages.c_str());
        return;
    }
    CJsonValue notification;
    notification.Set("event", static_cast<int>(event));
    notification.SetValue("devices", parsed.Root().get("devices", Json::Value()));
    std::string strPayload = notification.ToStyledString();
    GError* rawError = nullptr;
    // A client that left, or a bus connection that closed, is not the
    // engine's fault: the event is lost for that client, nothing more.
    if (!g_dbus_connection_emit_signal(client.connection, client.sender.c_str(), client.objectPath.c_str(),
                                       client.interfaceName.c_str(), "mox_usb_notification",
                                       mox_bus::NewStringTuple(strPayload, "mox_usb_notification"),
                                       &rawError)) {
        std::unique_ptr<GError, GErrorDeleter> error(rawError);
        MOX_WARN("mox_usb_notification to %s not sent: %s", client.sender.c_str(),
                 error ? error->message : "unknown error");
    }
}

SDBusConnectionInfo callerOf(GDBusMethodInvocation* invocation) {
    SDBusConnectionInfo client;
    client.connection = g_dbus_method_invocation_get_connection(invocation);
    client.sender = g_dbus_method_invocation_get_sender(invocation);
    client.objectPath = g_dbus_method_invocation_get_object_path(invocation);
    client.interfaceName = g_dbus_method_invocation_get_interface_name(invocation);
    return client;
}

// check_folder_path: add (0) or find (1) a folder id in the folder map.
std::string checkFolderPath(const char* szParam) {
    MOX_DEBUG("szParam: %s", mox_bus::ForLog(szParam).c_str());
    CJsonValue param{std::string(szParam)};
    int eOperationType = -1;
    if (param.Has("OPERATION_TYPE")) param.Get("OPERATION_TYPE", eOperationType);
    MOX_DEBUG("eOperationType[%d].", eOperationType);

    std::string strFolderPath;
    std::string strFolderId;
    CCacheFolder* pFolderMap = CMOXSingleton<CCacheFolder>::Get();
    if (eOperationType == 0) {
        param.Get("FOLDER_PATH", strFolderPath);
        param.Get("FOLDER_ID", strFolderId);
        // The reply says success whatever the add returned; only the log tells.
        if (!pFolderMap->Add(strFolderPath, strFolderId)) MOX_WARN("Find Folder Path failed.");
        strFolderId = "AddFolderMapSuccess";
    } else if (eOperationType == 1) {
        param.Get("FOLDER_PATH", strFolderPath);
        if (!pFolderMap->Find(strFolderPath, strFolderId)) {
            strFolderId.clear();
            MOX_WARN("Find Folder Path failed.");
        }
    } else {
        MOX_WARN("Invalid eOperationType[%d].", eOperationType);
        MOX_WARN("Find Folder Path failed.");
    }
    MOX_INFO("strFolderId[%s]", mox_bus::ForLog(strFolderId).c_str());
    return strFolderId;
}

// The reply a method gives when it fails before doing anything; null is the
// empty reply.
GVariant* failureReply(const std::string& method) {
    if (method == "connect") return g_variant_new("(u)", kInvalidHandle);
    if (method == "stop_act") return g_variant_new("(u)", guint32(MOX_ERROR_GENERIC));
    if (method == "usb_file_write" || method == "usb_file_remove" || method == "start_scanner_thumb")
        return g_variant_new("(b)", FALSE);
    if (method == "check_folder_path") return g_variant_new("(s)", "");
    if (method == "start_scanner") return g_variant_new("(bu)", FALSE, 0u);
    return nullptr;
}

// Client strings are bounded: a huge argument would be copied, parsed and
// logged several times over.
bool argumentsFit(const char* szMethodName, GVariant* parameters) {
    if (!parameters) return true;
    gsize n = g_variant_n_children(parameters);
    for (gsize i = 0; i < n; ++i) {
        GVariant* child = g_variant_get_child_value(parameters, i);
        gsize len = 0;
        if (g_variant_is_of_type(child, G_VARIANT_TYPE_STRING)) g_variant_get_string(child, &len);
        g_variant_unref(child);
        if (len > mox_bus::kMaxArgumentBytes) {
            MOX_WARN("method(%s): argument %zu of %zu bytes exceeds %zu bytes, refused.", szMethodName,
                     static_cast<size_t>(i), static_cast<size_t>(len), mox_bus::kMaxArgumentBytes);
            return false;
        }
    }
    return true;
}

// usb_file_write and usb_file_remove run on a worker thread, so a slow stick
// or a large object never holds up the main loop; the reply follows when the
// file is done.
struct FileJob {
    GDBusMethodInvocation* invocation;  // owned reference
    bool bWrite;
    std::string path;
    std::string shmName;
    ~FileJob() { g_object_unref(invocation); }
};

// The caller's user id as the bus daemon knows it; (uid_t)-1 when unknown.
uid_t callerUid(GDBusMethodInvocation* invocation) {
    GError* rawError = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        g_dbus_method_invocation_get_connection(invocation), "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus", "GetConnectionUnixUser",
        g_variant_new("(s)", g_dbus_method_invocation_get_sender(invocation)), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &rawError);
    std::unique_ptr<GError, GErrorDeleter> error(rawError);
    if (!reply) {
        MOX_WARN("cannot tell the caller's user: %s", error ? error->message : "unknown error");
        return static_cast<uid_t>(-1);
    }
    guint32 uid = 0;
    g_variant_get(reply, "(u)", &uid);
    g_variant_unref(reply);
    return static_cast<uid_t>(uid);
}

void runFileJob(GTask* task, gpointer, gpointer data, GCancellable*) {
    auto* job = static_cast<FileJob*>(data);
    bool bResult = job->bWrite ? CMOXUsbFile::Write(job->path, job->shmName, callerUid(job->invocation))
                               : CMOXUsbFile::Remove(job->path);
    g_task_return_boolean(task, bResult);
}

void finishFileJob(GObject*, GAsyncResult* result, gpointer) {
    GTask* task = G_TASK(result);
    auto* job = static_cast<FileJob*>(g_task_get_task_data(task));
    gboolean bResult = g_task_propagate_boolean(task, nullptr);
    g_dbus_method_invocation_return_value(g_object_ref(job->invocation), g_variant_new("(b)", bResult));
}

void startFileJob(GDBusMethodInvocation* invocation, bool bWrite, const char* szPath, const char* szShmName) {
    auto* job = new FileJob{G_DBUS_METHOD_INVOCATION(g_object_ref(invocation)), bWrite, szPath,
                            szShmName ? szShmName : ""};
    GTask* task = g_task_new(nullptr, nullptr, finishFileJob, nullptr);
    g_task_set_task_data(task, job, [](gpointer p) { delete static_cast<FileJob*>(p); });
    g_task_run_in_thread(task, runFileJob);
    g_object_unref(task);
}

void handleMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                      const gchar* szMethodName, GVariant* parameters,
                      GDBusMethodInvocation* invocation, gpointer) {
    MOX_INFO("recive method(%s).", szMethodName);
    const std::string method(szMethodName);
    if (!argumentsFit(szMethodName, parameters)) {
        g_dbus_method_invocation_return_value(invocation, failureReply(method));
        return;
    }

    if (method == "start_server") {
        g_dbus_method_invocation_return_value(invocation,
                                              g_variant_new("(s)", "MOX_SERVER_START_SUCCESS"));
    } else if (method == "connect") {
        const gchar* szSourceName = nullptr;
        g_variant_get(parameters, "(&s)", &szSourceName);
        guint32 nHandleId = pMOXEngineImp->Connect(szSourceName);
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", nHandleId));
    } else if (method == "request_detail" || method == "drop_partial_list" || method == "request_metadata") {
        guint32 nHandleId = 0;
        const gchar* szParam = nullptr;
        g_variant_get(parameters, "(u&s)", &nHandleId, &szParam);
        connect_info_s caller = callerOf(invocation);
        if (method == "request_detail")
            pMOXEngineImp->RequestDetail(szParam, nHandleId, caller);
        else if (method == "drop_partial_list")
            pMOXEngineImp->DropPartialList(szParam, nHandleId, caller);
        else
            pMOXEngineImp->RequestMetadata(szParam, nHandleId, caller);
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (method == "get_partial_list") {
        guint32 nHandleId = 0, nIgnored1 = 0, nIgnored2 = 0;
        const gchar* szParam = nullptr;
        g_variant_get(parameters, "(uuu&s)", &nHandleId, &nIgnored1, &nIgnored2, &szParam);
        pMOXEngineImp->GetPartialList(szParam, nHandleId, callerOf(invocation));
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (method == "request_cancel_detail" || method == "disconnect") {
        guint32 nHandleId = 0;
        g_variant_get(parameters, "(u)", &nHandleId);
        if (method == "disconnect")
            pMOXEngineImp->Disconnect(nHandleId, callerOf(invocation));
        else
            pMOXEngineImp->CancelDetail(nHandleId, callerOf(invocation));
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (method == "request_act") {
        guint32 nHandleId = 0;
        const gchar* szSelectionListBlockName = nullptr;
        const gchar* szParam = nullptr;
        g_variant_get(parameters, "(u&s&s)", &nHandleId, &szSelectionListBlockName, &szParam);
        MOX_DEBUG("szParam: %s", mox_bus::ForLog(szParam).c_str());
        MOX_DEBUG("szSelectionListBlockName: %s", mox_bus::ForLog(szSelectionListBlockName).c_str());
        pMOXEngineImp->Act(szParam, szSelectionListBlockName, nHandleId, callerOf(invocation));
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (method == "usb_file_write") {
        const gchar* szFilePath = nullptr;
        const gchar* szShmName = nullptr;
        g_variant_get(parameters, "(&s&s)", &szFilePath, &szShmName);
        startFileJob(invocation, true, szFilePath, szShmName);
    } else if (method == "usb_file_remove") {
        const gchar* szFilePath = nullptr;
        const gchar* szIgnored = nullptr;
        g_variant_get(parameters, "(&s&s)", &szFilePath, &szIgnored);
        startFileJob(invocation, false, szFilePath, nullptr);
    } else if (method == "check_folder_path") {
        const gchar* szParam = nullptr;
        g_variant_get(parameters, "(&s)", &szParam);
        std::string strFolderId = checkFolderPath(szParam);
        g_dbus_method_invocation_return_value(invocation,
                                              mox_bus::NewStringTuple(strFolderId, "check_folder_path"));
    } else if (method == "stop_act") {
        guint32 nHandleId = 0;
        const gchar* szParam = nullptr;
        g_variant_get(parameters, "(u&s)", &nHandleId, &szParam);
        MOX_DEBUG("szParam: %s", mox_bus::ForLog(szParam).c_str());
        guint32 nResult = pMOXEngineImp->StopActSync(szParam, nHandleId, callerOf(invocation));
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", nResult));
    } else if (method == "start_scanner_thumb") {
        const gchar* szFolderPath = nullptr;
        const gchar* szCategory = nullptr;
        guint32 nCount = 0;
        guint32 nPid = 0;
        g_variant_get(parameters, "(&s&suu)", &szFolderPath, &szCategory, &nCount, &nPid);
        gboolean bStarted = pMOXEngineImp->FolderThumbnailScan(callerOf(invocation), szFolderPath, szCategory,
                                                               nCount, static_cast<int>(nPid))
                                ? TRUE
                                : FALSE;
        MOX_INFO("start_scanner_thumb return [%d]", bStarted);
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(b)", bStarted));
        MOX_INFO("start_scanner_thumb return end[%d]", bStarted);
    } else if (method == "stop_scanner_thumb") {
        const gchar* szFolderPath = nullptr;
        const gchar* szCategory = nullptr;
        guint32 nCount = 0;
        guint32 nPid = 0;
        g_variant_get(parameters, "(&s&suu)", &szFolderPath, &szCategory, &nCount, &nPid);
        pMOXEngineImp->RemoveScannerOfFolder(szFolderPath, szCategory, nCount, static_cast<int>(nPid),
                                             callerOf(invocation).sender,
                                             [invocation] { return callerUid(invocation) == 0; });
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (method == "stop_scanner") {
        guint32 nScannerId = 0;
        g_variant_get(parameters, "(u)", &nScannerId);
        // Ids are positive ints; larger values name no scanner.
        if (nScannerId <= static_cast<guint32>(INT_MAX))
            pMOXEngineImp->RemoveScanner(static_cast<int>(nScannerId), callerOf(invocation).sender,
                                         [invocation] { return callerUid(invocation) == 0; });
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (method == "start_scanner") {
        const gchar* szKind = nullptr;
        const gchar* szParam = nullptr;
        g_variant_get(parameters, "(&s&s)", &szKind, &szParam);
        gboolean bStarted = FALSE;
        int nScannerId = 0;
        if (g_strcmp0(szKind, "check_device") == 0) {
            if (pMOXEngineImp->StartCheckingDevice(callerOf(invocation), szParam, nScannerId))
                bStarted = TRUE;
            else
                nScannerId = 0;
        } else if (g_strcmp0(szKind, "scan_folder") == 0) {
            MOX_WARN("unsupport yet, method(%s).", szKind);
        }
        g_dbus_method_invocation_return_value(invocation,
                                              g_variant_new("(bu)", bStarted, static_cast<guint32>(nScannerId)));
    } else if (method == "get_usb_storages") {
        guint32 nType = 0;
        g_variant_get(parameters, "(u)", &nType);
        std::string strStorages;
        int nResult = g_pStorageMgr->GetStorages(static_cast<mox_storage_device_type>(nType), strStorages);
        GVariant* reply[] = {g_variant_new_uint32(guint32(nResult)),
                             mox_bus::NewString(strStorages, "get_usb_storages")};
        g_dbus_method_invocation_return_value(invocation, g_variant_new_tuple(reply, 2));
    } else if (method == "bind_usb_event") {
        guint32 nBind = 0;
        g_variant_get(parameters, "(u)", &nBind);
        SDBusConnectionInfo client = callerOf(invocation);
        if (nBind == 1)
            g_pStorageMgr->AddNotificationClient(client);
        else
            g_pStorageMgr->RemoveNotificationClient(client);
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", 0u));
    } else {
        MOX_WARN("unkown method(%s).", szMethodName);
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }
}

const GDBusInterfaceVTable kInterfaceVTable = {handleMethodCall, nullptr, nullptr, {nullptr}};

// GDBus answers calls of undeclared methods with an UnknownMethod error before
// any handler runs. Clients of this engine expect an empty reply instead, so
// such calls are taken off the wire here and answered on the main loop.
struct UnknownCall {
    GDBusConnection* connection;
    GDBusMessage* message;
};

gboolean answerUnknownMethod(gpointer data) {
    std::unique_ptr<UnknownCall> call(static_cast<UnknownCall*>(data));
    const gchar* szMethodName = g_dbus_message_get_member(call->message);
    MOX_INFO("recive method(%s).", szMethodName);
    MOX_WARN("unkown method(%s).", szMethodName);
    GDBusMessage* reply = g_dbus_message_new_method_reply(call->message);
    g_dbus_connection_send_message(call->connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                   nullptr, nullptr);
    g_object_unref(reply);
    g_object_unref(call->message);
    g_object_unref(call->connection);
    return G_SOURCE_REMOVE;
}

// What the filter needs, owned by the filter: it runs on the GDBus worker
// thread and may outlive the introspection data by a little.
struct FilterData {
    std::string path;
    GDBusInterfaceInfo* iface;
};

void freeFilterData(gpointer data) {
    auto* filter = static_cast<FilterData*>(data);
    g_dbus_interface_info_unref(filter->iface);
    delete filter;
}

GDBusMessage* filterUnknownMethods(GDBusConnection* connection, GDBusMessage* message,
                                   gboolean incoming, gpointer data) {
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL)
        return message;
    auto* filter = static_cast<const FilterData*>(data);
    if (g_strcmp0(g_dbus_message_get_path(message), filter->path.c_str()) != 0 ||
        g_strcmp0(g_dbus_message_get_interface(message), filter->iface->name) != 0)
        return message;
    const gchar* member = g_dbus_message_get_member(message);
    if (member && g_dbus_interface_info_lookup_method(filter->iface, member)) return message;
    auto* call = new UnknownCall{G_DBUS_CONNECTION(g_object_ref(connection)), message};
    g_main_context_invoke(nullptr, answerUnknownMethod, call);
    return nullptr;  // the message's reference now belongs to `call`
}

// A client that leaves the bus is forgotten: its storage bindings (sending to
// a dead name costs every later event, without bound), its requests and the
// result lists it alone held. GDBus delivers this on the main loop.
void onNameOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                        GVariant* parameters, gpointer) {
    const gchar* szName = nullptr;
    const gchar* szOldOwner = nullptr;
    const gchar* szNewOwner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", &szName, &szOldOwner, &szNewOwner);
    if (szName[0] != ':' || szNewOwner[0] != '\0') return;
    if (g_pStorageMgr) g_pStorageMgr->RemoveNotificationClientsOf(szName);
    if (pMOXEngineImp) pMOXEngineImp->RemoveClient(szName);
    if (pMOXEngineImp) pMOXEngineImp->RemoveScannersOfClient(szName);
}

// The bus went away (its daemon restarted): stop in order and exit non-zero,
// so that the service manager starts a daemon that connects afresh. GDBus's
// own exit-on-close would raise SIGTERM at any moment, also in the middle of
// the shutdown, after the handler is gone.
void onConnectionClosed(GDBusConnection*, gboolean, GError*, gpointer) {
    MOX_WARN("bus connection closed, stopping.");
    g_nExitStatus = 1;
    if (g_mainLoop) g_main_loop_quit(g_mainLoop);
}

void onBusAcquired(GDBusConnection* connection, const gchar*, gpointer) {
    GDBusNodeInfo* node = g_introspectionData.get();
    auto* filter = new FilterData{node->path, g_dbus_interface_info_ref(node->interfaces[0])};
    g_dbus_connection_add_filter(connection, filterUnknownMethods, filter, freeFilterData);
    if (!g_pConnection) {
        g_pConnection = G_DBUS_CONNECTION(g_object_ref(connection));
        g_dbus_connection_set_exit_on_close(connection, FALSE);
        g_signal_connect(connection, "closed", G_CALLBACK(onConnectionClosed), nullptr);
        g_nNameOwnerSubscription = g_dbus_connection_signal_subscribe(
            connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
            "/org/freedesktop/DBus", nullptr, G_DBUS_SIGNAL_FLAGS_NONE, onNameOwnerChanged, nullptr, nullptr);
    }
    guint nRegistrationId = g_dbus_connection_register_object(
        connection, node->path, node->interfaces[0], &kInterfaceVTable, nullptr, nullptr, nullptr);
    MOX_DEBUG("BusAcquired.");
    assert(nRegistrationId > 0);
}

void onNameAcquired(GDBusConnection*, const gchar*, gpointer) {
    MOX_DEBUG("NameAcquired.");
    watchdog_notify_ready();
}

void onNameLost(GDBusConnection*, const gchar*, gpointer) { MOX_DEBUG("NameLost."); }

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
    if (!node->path || !g_variant_is_object_path(node->path) || !node->interfaces ||
        !node->interfaces[0]) {
        MOX_WARN("introspection XML lacks an object path or an interface.");
        return false;
    }
    return true;
}

// The engine drops the result lists clients still hold; the sources, the
// cached blocks and the UHD provider go only when no command runs any more.
void shutDownEngine() {
    bool bIdle = pMOXEngineImp->WaitIdle(std::chrono::seconds(10));
    pMOXEngineImp.reset();
    if (!bIdle) {
        MOX_WARN("Commands still running: sources and cache kept until exit.");
        return;
    }
    CMOXSingleton<CMOXSourceMgr>::Destroy();
    CMOXSingleton<CCachePool>::Destroy();
    CMOXSingleton<CMOXUHDDataMgr>::Destroy();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        if (strcmp(argv[1], "--version") == 0) {
            printf("mox-engine %s\n", MOX_VERSION);
            return 0;
        }
        if (strcmp(argv[1], "--help") == 0) {
            printf("Usage: mox-engine [--help | --version]\n\n"
                   "The MOX content engine daemon: owns com.orvia.mox.engine on the system bus\n"
                   "(DBUS_SYSTEM_BUS_ADDRESS moves it). It takes no options; its paths move with\n"
                   "MOX_DBUS_CONFIG, MOX_STATUS_FILE, MOX_PLUGIN_DIR, MOX_APP_DATA_DIR, MOX_USB_ROOT,\n"
                   "MOX_CA_BUNDLE, MOX_VCONF_DIR and MOX_FEATURES_FILE; MOX_LOG and MOX_LOG_LEVEL\n"
                   "choose the log sink and level. SIGTERM stops it.\n");
            return 0;
        }
        fprintf(stderr, "mox-engine: unknown argument '%s' (try --help)\n", argv[1]);
        return 2;
    }
    MOX_DEBUG("curl_global_init.");
    curl_global_init(CURL_GLOBAL_ALL);
    MOX_DEBUG("curl_global_init end.");

    if (!initIntrospectionXml()) {
        MOX_DEBUG("init_introspection_xml error.");
        curl_global_cleanup();
        return 1;
    }
    MOX_DEBUG("init_introspection_xml ok.");

    try {
        pMOXEngineImp = std::make_unique<CMOXEngineImp>();
    } catch (...) {
        MOX_WARN(" new CMOXEngineImp faild.");
    }
    assert(pMOXEngineImp != NULL);

    g_pStorageMgr = std::make_unique<CMOXStorageMgr>();
    g_pStorageMgr->SetNotificationCB(notify_storages);
    MOX_DEBUG("SetInternalCB in mox_engine.cpp...");
    g_pStorageMgr->SetInternalCB(cb_dealUsbEvent, pMOXEngineImp.get());

    mox_engine_deal_reset_status();
    vconf_notify_key_changed(kDbResetKey, OnVconfKeyChangedCB, nullptr);

    // A malformed file is a broken installation: say so and stop, as for a
    // missing one, instead of aborting.
    if (!parseIntrospectionData()) {
        vconf_ignore_key_changed(kDbResetKey, OnVconfKeyChangedCB);
        g_pStorageMgr->SetNotificationCB(nullptr);
        g_pStorageMgr->SetInternalCB(nullptr, nullptr);
        g_pStorageMgr.reset();
        pMOXEngineImp.reset();
        g_introspectionData.reset();
        g_introspectionXml.reset();
        curl_global_cleanup();
        return 1;
    }

    guint nOwnerId = g_bus_own_name(G_BUS_TYPE_SYSTEM, kBusName, G_BUS_NAME_OWNER_FLAGS_NONE,
                                    onBusAcquired, onNameAcquired, onNameLost, nullptr, nullptr);
    write_engine_status();

    std::unique_ptr<GMainLoop, MainLoopDeleter> loop(g_main_loop_new(nullptr, FALSE));
    g_mainLoop = loop.get();
    watchdog_register(kWatchdogPeriodSec);
    guint nHeartbeatId = g_timeout_add(kHeartbeatMs, notify_callback, loop.get());
    guint nTermId = g_unix_signal_add(SIGTERM, onQuitSignal, nullptr);
    guint nIntId = g_unix_signal_add(SIGINT, onQuitSignal, nullptr);
    g_main_loop_run(loop.get());

    g_source_remove(nHeartbeatId);
    g_bus_unown_name(nOwnerId);
    g_introspectionData.reset();
    power_unsubscribe_poweroff(cb_dealPowerOff);
    g_pStorageMgr->SetNotificationCB(nullptr);
    g_pStorageMgr->SetInternalCB(nullptr, nullptr);
    g_pStorageMgr.reset();
    shutDownEngine();
    vconf_ignore_key_changed(kDbResetKey, OnVconfKeyChangedCB);
    // Scanner threads end before the connection their callbacks use goes.
    CMOXSingleton<CMOXScanManager>::Destroy();
    CMOXSingleton<CCacheFolder>::Destroy();
    if (g_pConnection) {
        g_dbus_connection_signal_unsubscribe(g_pConnection, g_nNameOwnerSubscription);
        g_object_unref(g_pConnection);
    }
    g_pConnection = nullptr;
    g_mainLoop = nullptr;
    loop.reset();
    g_introspectionXml.reset();
    curl_global_cleanup();
    // Removed last: until here a second SIGTERM (a service manager that stops
    // the daemon while it is already stopping) only wakes a loop nobody runs
    // instead of killing the process half-way through the teardown.
    g_source_remove(nIntId);
    g_source_remove(nTermId);
    signal(SIGTERM, SIG_IGN);  // the process is ending in order anyway
    signal(SIGINT, SIG_IGN);
    MOX_INFO("mox engine stopped.");
    return g_nExitStatus;
}
