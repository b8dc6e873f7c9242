#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_bus_service.h"

#include <cassert>
#include <chrono>
#include <climits>
#include <cstring>
#include <map>
#include <memory>

#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_singleton.h>
#include <mox/mox_types.h>

#include "cache_folder.h"
#include "mox_bus_text.h"
#include "mox_engine_imp.h"
#include "mox_storage_manager.h"
#include "mox_thread_annotations.h"
#include "mox_usb_file.h"

namespace {

constexpr const char* kBusName = "com.orvia.mox.engine";

struct GErrorDeleter {
    void operator()(GError* p) const { g_error_free(p); }
};

using Call = CMOXBusService::Call;

// ---- failure replies -------------------------------------------------------

GVariant* NoReply() {
    return nullptr;
}
GVariant* InvalidHandle() {
    return g_variant_new("(u)", CMOXEngineImp::kInvalidHandle);
}
GVariant* GenericCode() {
    return g_variant_new("(u)", guint32(MOX_ERROR_GENERIC));
}
GVariant* False() {
    return g_variant_new("(b)", FALSE);
}
GVariant* EmptyText() {
    return g_variant_new("(s)", "");
}
GVariant* NotStarted() {
    return g_variant_new("(bu)", FALSE, 0u);
}

// ---- file jobs -------------------------------------------------------------

// usb_file_write and usb_file_remove run on a worker thread, so a slow stick
// or a large object never holds up the main loop; the reply follows when the
// file is done. The caller's user id is known before the job starts.
struct FileJob {
    GDBusMethodInvocation* invocation;  // owned reference
    bool bWrite;
    std::string path;
    std::string shmName;
    uid_t callerUid;
    ~FileJob() { g_object_unref(invocation); }
};

void RunFileJob(GTask* task, gpointer, gpointer data, GCancellable*) {
    auto* job = static_cast<FileJob*>(data);
    bool bResult =
        job->bWrite ? CMOXUsbFile::Write(job->path, job->shmName, job->callerUid) : CMOXUsbFile::Remove(job->path);
    g_task_return_boolean(task, bResult);
}

void FinishFileJob(GObject*, GAsyncResult* result, gpointer) {
    GTask* task = G_TASK(result);
    auto* job = static_cast<FileJob*>(g_task_get_task_data(task));
    gboolean bResult = g_task_propagate_boolean(task, nullptr);
    g_dbus_method_invocation_return_value(g_object_ref(job->invocation), g_variant_new("(b)", bResult));
}

void StartFileJob(const Call& call, bool bWrite) {
    const gchar* szPath = nullptr;
    const gchar* szSecond = nullptr;
    g_variant_get(call.parameters, "(&s&s)", &szPath, &szSecond);
    uid_t uid = bWrite ? call.service->CallerUid(call.invocation) : static_cast<uid_t>(-1);
    auto job = std::make_unique<FileJob>(
        FileJob{G_DBUS_METHOD_INVOCATION(g_object_ref(call.invocation)), bWrite, szPath, bWrite ? szSecond : "", uid});
    GTask* task = g_task_new(nullptr, nullptr, FinishFileJob, nullptr);
    // The task owns the job from here.
    g_task_set_task_data(task, job.release(), [](gpointer p) { std::unique_ptr<FileJob>(static_cast<FileJob*>(p)); });
    g_task_run_in_thread(task, RunFileJob);
    g_object_unref(task);
}

// ---- handlers --------------------------------------------------------------

void StartServer(const Call& call) {
    call.Reply(g_variant_new("(s)", "MOX_SERVER_START_SUCCESS"));
}

void Connect(const Call& call) {
    const gchar* szSourceName = nullptr;
    g_variant_get(call.parameters, "(&s)", &szSourceName);
    call.Reply(g_variant_new("(u)", call.service->Engine()->Connect(szSourceName)));
}

// The handle-and-document requests: (us).
void HandleAndText(const Call& call,
                   bool (CMOXEngineImp::*pfnRequest)(const std::string&, guint32, const connect_info_s&)) {
    guint32 nHandleId = 0;
    const gchar* szParam = nullptr;
    g_variant_get(call.parameters, "(u&s)", &nHandleId, &szParam);
    (call.service->Engine()->*pfnRequest)(szParam, nHandleId, call.Caller());
    call.Reply(nullptr);
}

void RequestDetail(const Call& call) {
    HandleAndText(call, &CMOXEngineImp::RequestDetail);
}
void DropPartialList(const Call& call) {
    HandleAndText(call, &CMOXEngineImp::DropPartialList);
}
void RequestMetadata(const Call& call) {
    HandleAndText(call, &CMOXEngineImp::RequestMetadata);
}

void CancelDetail(const Call& call) {
    guint32 nHandleId = 0;
    g_variant_get(call.parameters, "(u)", &nHandleId);
    call.service->Engine()->CancelDetail(nHandleId, call.Caller());
    call.Reply(nullptr);
}

void Disconnect(const Call& call) {
    guint32 nHandleId = 0;
    g_variant_get(call.parameters, "(u)", &nHandleId);
    call.service->Engine()->Disconnect(nHandleId, call.Caller());
    call.Reply(nullptr);
}

void GetPartialList(const Call& call) {
    guint32 nHandleId = 0, nIgnored1 = 0, nIgnored2 = 0;
    const gchar* szParam = nullptr;
    g_variant_get(call.parameters, "(uuu&s)", &nHandleId, &nIgnored1, &nIgnored2, &szParam);
    call.service->Engine()->GetPartialList(szParam, nHandleId, call.Caller());
    call.Reply(nullptr);
}

void RequestAct(const Call& call) {
    guint32 nHandleId = 0;
    const gchar* szSelectionListBlockName = nullptr;
    const gchar* szParam = nullptr;
    g_variant_get(call.parameters, "(u&s&s)", &nHandleId, &szSelectionListBlockName, &szParam);
    MOX_DEBUG("szParam: %s", mox_bus::ForLog(szParam).c_str());
    MOX_DEBUG("szSelectionListBlockName: %s", mox_bus::ForLog(szSelectionListBlockName).c_str());
    call.service->Engine()->Act(szParam, szSelectionListBlockName, nHandleId, call.Caller());
    call.Reply(nullptr);
}

void StopAct(const Call& call) {
    guint32 nHandleId = 0;
    const gchar* szParam = nullptr;
    g_variant_get(call.parameters, "(u&s)", &nHandleId, &szParam);
    MOX_DEBUG("szParam: %s", mox_bus::ForLog(szParam).c_str());
    guint32 nResult = call.service->Engine()->StopActSync(szParam, nHandleId, call.Caller());
    call.Reply(g_variant_new("(u)", nResult));
}

void UsbFileWrite(const Call& call) {
    StartFileJob(call, true);
}
void UsbFileRemove(const Call& call) {
    StartFileJob(call, false);
}

// check_folder_path: add (0) or find (1) a folder id in the folder map.
void CheckFolderPath(const Call& call) {
    const gchar* szParam = nullptr;
    g_variant_get(call.parameters, "(&s)", &szParam);
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
    MOX_DEBUG("strFolderId[%s]", mox_bus::ForLog(strFolderId).c_str());
    call.Reply(mox_bus::NewStringTuple(strFolderId, "check_folder_path"));
}

// The arguments of start_scanner_thumb and stop_scanner_thumb: (ssuu).
struct ThumbArgs {
    const gchar* szFolderPath = nullptr;
    const gchar* szCategory = nullptr;
    guint32 nCount = 0;
    guint32 nPid = 0;
    explicit ThumbArgs(GVariant* parameters) {
        g_variant_get(parameters, "(&s&suu)", &szFolderPath, &szCategory, &nCount, &nPid);
    }
};

// A reply given later, possibly on another thread (GDBus sends from any
// thread): the engine answers the calls that name a storage path once a path
// job has resolved it, so the main loop never waits on the storage.
class CDeferredReply {
public:
    explicit CDeferredReply(GDBusMethodInvocation* invocation)
        : m_invocation(G_DBUS_METHOD_INVOCATION(g_object_ref(invocation)), g_object_unref) {}
    void operator()(GVariant* value) const {
        g_dbus_method_invocation_return_value(G_DBUS_METHOD_INVOCATION(g_object_ref(m_invocation.get())), value);
    }

private:
    std::shared_ptr<GDBusMethodInvocation> m_invocation;  // copies share it
};

void StartScannerThumb(const Call& call) {
    const ThumbArgs a(call.parameters);
    CDeferredReply reply(call.invocation);
    call.service->Engine()->FolderThumbnailScan(call.Caller(), a.szFolderPath, a.szCategory, a.nCount,
                                                static_cast<int>(a.nPid), [reply](bool bStarted) {
                                                    MOX_DEBUG("start_scanner_thumb return [%d]", bStarted);
                                                    reply(g_variant_new("(b)", bStarted));
                                                });
}

void StopScannerThumb(const Call& call) {
    const ThumbArgs a(call.parameters);
    const connect_info_s caller = call.Caller();
    const bool bRoot = caller.uid == 0;
    CDeferredReply reply(call.invocation);
    call.service->Engine()->RemoveScannerOfFolder(
        a.szFolderPath, a.szCategory, a.nCount, static_cast<int>(a.nPid), caller, [bRoot] { return bRoot; },
        [reply](bool) { reply(nullptr); });
}

void StartScanner(const Call& call) {
    const gchar* szKind = nullptr;
    const gchar* szParam = nullptr;
    g_variant_get(call.parameters, "(&s&s)", &szKind, &szParam);
    if (g_strcmp0(szKind, "check_device") == 0) {
        CDeferredReply reply(call.invocation);
        call.service->Engine()->StartCheckingDevice(call.Caller(), szParam, [reply](bool bStarted, int nScannerId) {
            reply(g_variant_new("(bu)", bStarted ? TRUE : FALSE, static_cast<guint32>(bStarted ? nScannerId : 0)));
        });
        return;
    }
    if (g_strcmp0(szKind, "scan_folder") == 0) MOX_WARN("unsupport yet, method(%s).", szKind);
    call.Reply(g_variant_new("(bu)", FALSE, 0u));
}

void StopScanner(const Call& call) {
    guint32 nScannerId = 0;
    g_variant_get(call.parameters, "(u)", &nScannerId);
    // Ids are positive ints; larger values name no scanner.
    if (nScannerId <= static_cast<guint32>(INT_MAX)) {
        const connect_info_s caller = call.Caller();
        call.service->Engine()->RemoveScanner(static_cast<int>(nScannerId), caller.sender,
                                              [&caller] { return caller.uid == 0; });
    }
    call.Reply(nullptr);
}

void GetUsbStorages(const Call& call) {
    guint32 nType = 0;
    g_variant_get(call.parameters, "(u)", &nType);
    std::string strStorages;
    // The filter asked for the sizes when this call, or a later one, arrived.
    int nResult = call.service->Storage()->GetStorages(static_cast<mox_storage_device_type>(nType), strStorages,
                                                       CMOXUSBDevice::LatestArrival());
    GVariant* reply[] = {g_variant_new_uint32(guint32(nResult)), mox_bus::NewString(strStorages, "get_usb_storages")};
    call.Reply(g_variant_new_tuple(reply, 2));
}

void BindUsbEvent(const Call& call) {
    guint32 nBind = 0;
    g_variant_get(call.parameters, "(u)", &nBind);
    SDBusConnectionInfo client = call.Caller();
    if (nBind == 1)
        call.service->Storage()->AddNotificationClient(client);
    else
        call.service->Storage()->RemoveNotificationClient(client);
    call.Reply(g_variant_new("(u)", 0u));
}

// The request methods and the kind of command each may make: a request
// refused before dispatch still gets its failure signal.
bool RequestKindOf(const std::string& method, EMOXCommandKind& eKind) {
    static const std::map<std::string, EMOXCommandKind> kRequests = {{"get_partial_list", EMOXCommandKind::kList},
                                                                     {"request_detail", EMOXCommandKind::kDetail},
                                                                     {"request_metadata", EMOXCommandKind::kMeta},
                                                                     {"request_act", EMOXCommandKind::kAct}};
    auto found = kRequests.find(method);
    if (found == kRequests.end()) return false;
    eKind = found->second;
    return true;
}

// Client strings are bounded: a huge argument would be copied, parsed and
// logged several times over.
bool ArgumentsFit(const char* szMethodName, GVariant* parameters) {
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

// ---- undeclared methods ------------------------------------------------------

// GDBus answers calls of undeclared methods with an UnknownMethod error before
// any handler runs. Clients of this engine expect an empty reply instead, so
// such calls are taken off the wire by a filter and answered on the main loop.
struct UnknownCall {
    GDBusConnection* connection;
    GDBusMessage* message;
};

gboolean AnswerUnknownMethod(gpointer data) {
    std::unique_ptr<UnknownCall> call(static_cast<UnknownCall*>(data));
    const gchar* szMethodName = g_dbus_message_get_member(call->message);
    MOX_DEBUG("recive method(%s).", szMethodName);
    MOX_WARN("unkown method(%s).", szMethodName);
    GDBusMessage* reply = g_dbus_message_new_method_reply(call->message);
    g_dbus_connection_send_message(call->connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(reply);
    g_object_unref(call->message);
    g_object_unref(call->connection);
    return G_SOURCE_REMOVE;
}

// What the filter needs, owned by the filter: it runs on the GDBus worker
// thread and may outlive the service by a little.
struct FilterData {
    std::string path;
    GDBusInterfaceInfo* iface;
    std::shared_ptr<CMOXBusService::EngineSlot> engine;
};

// The list requests are taken where they arrive, on the GDBus worker thread:
// drop_partial_list is answered there (a look-up in the delivered lists, the
// list's shm objects unlinked, the cache pool's counts of its blocks), and
// get_partial_list joins or starts its job there, whose command then runs on
// the worker pool (the engine's bookkeeping plus one parse of the document,
// at most kMaxArgumentBytes). Both are bounded memory work, no storage and no
// plug-in; taking them here spares the hand-off to the main loop (and for the
// drop the one back), each a wait for a CPU on a busy machine. Signals, reply
// and log lines are those of the main loop's path. A call of another shape,
// with an argument over the bound, while no engine is attached, or (a list)
// from a caller whose user id is not known yet takes the main loop's path,
// which answers or refuses it as before.
bool AnswerListCall(GDBusConnection* connection, GDBusMessage* message, const FilterData& filter, bool bDrop) {
    GVariant* body = g_dbus_message_get_body(message);
    const gchar* szSender = g_dbus_message_get_sender(message);
    if (body == nullptr || szSender == nullptr ||
        !g_variant_is_of_type(body, G_VARIANT_TYPE(bDrop ? "(us)" : "(uuus)")))
        return false;
    guint32 nHandleId = 0, nIgnored1 = 0, nIgnored2 = 0;
    const gchar* szText = nullptr;
    if (bDrop)
        g_variant_get(body, "(u&s)", &nHandleId, &szText);
    else
        g_variant_get(body, "(uuu&s)", &nHandleId, &nIgnored1, &nIgnored2, &szText);
    if (strlen(szText) > mox_bus::kMaxArgumentBytes) return false;
    CMOXBusService::EngineSlot& slot = *filter.engine;
    mox::MutexLock lock(slot.mutex);
    if (slot.pEngine == nullptr) return false;
    connect_info_s caller;
    caller.connection = connection;
    caller.sender = szSender;
    caller.objectPath = filter.path;
    caller.interfaceName = filter.iface->name;
    caller.uid = static_cast<uid_t>(-1);  // a drop names its holder by unique name only
    if (!bDrop) {
        // A list counts against its caller's share, which its user id names.
        auto found = slot.uidBySender.find(caller.sender);
        if (found == slot.uidBySender.end()) return false;
        caller.uid = found->second;
    }
    MOX_DEBUG("recive method(%s).", bDrop ? "drop_partial_list" : "get_partial_list");
    if (bDrop)
        slot.pEngine->DropPartialList(szText, nHandleId, caller);
    else
        slot.pEngine->GetPartialList(szText, nHandleId, caller);
    if ((g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
        GDBusMessage* reply = g_dbus_message_new_method_reply(message);
        g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
        g_object_unref(reply);
    }
    g_object_unref(message);
    return true;
}

// get_usb_storages is answered on the GDBus worker thread too, when its
// sizes come quickly. Its own work is memory work (the device list from the
// USB service, the document's text), and the sizes were asked of the prober
// as the call arrived. They are waited for here at most kQuickSizesWait, and
// not at all for a stick whose statfs is stuck: answered here, the call
// wakes no other thread than the prober, as the echo of a plain service
// wakes its main loop. A call whose sizes are not in by then (a stuck stick,
// a busy machine), of another shape, or while nothing is attached, takes
// the main loop's path, which waits up to 50 ms with the same requests.
constexpr std::chrono::milliseconds kQuickSizesWait{1};

bool AnswerStoragesCall(GDBusConnection* connection, GDBusMessage* message, const FilterData& filter,
                        uint64_t nArrival) {
    GVariant* body = g_dbus_message_get_body(message);
    if (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE("(u)"))) return false;
    guint32 nType = 0;
    g_variant_get(body, "(u)", &nType);
    CMOXStorageMgr::SQuickAnswer answer;
    {
        // Held for the memory work only: Detach waits for it.
        CMOXBusService::EngineSlot& slot = *filter.engine;
        mox::MutexLock lock(slot.mutex);
        if (slot.pStorage == nullptr ||
            !slot.pStorage->PrepareQuick(static_cast<mox_storage_device_type>(nType), nArrival, answer))
            return false;
    }
    std::string strStorages;
    if (!CMOXStorageMgr::FinishQuick(answer, std::chrono::steady_clock::now() + kQuickSizesWait, strStorages))
        return false;
    MOX_DEBUG("recive method(get_usb_storages).");
    if ((g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
        GVariant* values[] = {g_variant_new_uint32(guint32(answer.nResult)),
                              mox_bus::NewString(strStorages, "get_usb_storages")};
        GDBusMessage* reply = g_dbus_message_new_method_reply(message);
        g_dbus_message_set_body(reply, g_variant_new_tuple(values, 2));
        g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
        g_object_unref(reply);
    }
    g_object_unref(message);
    return true;
}

void FreeFilterData(gpointer data) {
    std::unique_ptr<FilterData> filter(static_cast<FilterData*>(data));
    g_dbus_interface_info_unref(filter->iface);
}

GDBusMessage* FilterUnknownMethods(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                                   gpointer data) {
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) return message;
    auto* filter = static_cast<const FilterData*>(data);
    if (g_strcmp0(g_dbus_message_get_path(message), filter->path.c_str()) != 0 ||
        g_strcmp0(g_dbus_message_get_interface(message), filter->iface->name) != 0)
        return message;
    const gchar* member = g_dbus_message_get_member(message);
    if (g_strcmp0(member, "get_usb_storages") == 0) {
        const uint64_t nArrival = CMOXUSBDevice::AskSizesOnArrival();
        return AnswerStoragesCall(connection, message, *filter, nArrival) ? nullptr : message;
    }
    const bool bDrop = g_strcmp0(member, "drop_partial_list") == 0;
    if ((bDrop || g_strcmp0(member, "get_partial_list") == 0) && AnswerListCall(connection, message, *filter, bDrop))
        return nullptr;
    if (member && g_dbus_interface_info_lookup_method(filter->iface, member)) return message;
    auto call = std::make_unique<UnknownCall>(UnknownCall{G_DBUS_CONNECTION(g_object_ref(connection)), message});
    g_main_context_invoke(nullptr, AnswerUnknownMethod, call.release());  // AnswerUnknownMethod owns it
    return nullptr;  // the message's reference now belongs to `call`
}

}  // namespace

const CMOXBusService::Method CMOXBusService::kMethods[] = {
    {"start_server", "", NoReply, StartServer},
    {"connect", "s", InvalidHandle, Connect},
    {"request_detail", "us", NoReply, RequestDetail},
    {"request_cancel_detail", "u", NoReply, CancelDetail},
    {"get_partial_list", "uuus", NoReply, GetPartialList},
    {"drop_partial_list", "us", NoReply, DropPartialList},
    {"request_act", "uss", NoReply, RequestAct},
    {"disconnect", "u", NoReply, Disconnect},
    {"usb_file_write", "ss", False, UsbFileWrite},
    {"usb_file_remove", "ss", False, UsbFileRemove},
    {"check_folder_path", "s", EmptyText, CheckFolderPath},
    {"stop_act", "us", GenericCode, StopAct},
    {"request_metadata", "us", NoReply, RequestMetadata},
    {"start_scanner_thumb", "ssuu", False, StartScannerThumb},
    {"stop_scanner_thumb", "ssuu", NoReply, StopScannerThumb},
    {"start_scanner", "ss", NotStarted, StartScanner},
    {"stop_scanner", "u", NoReply, StopScanner},
    {"get_usb_storages", "u", NoReply, GetUsbStorages},
    {"bind_usb_event", "u", NoReply, BindUsbEvent},
};

connect_info_s CMOXBusService::Call::Caller() const {
    connect_info_s client;
    client.connection = g_dbus_method_invocation_get_connection(invocation);
    client.sender = g_dbus_method_invocation_get_sender(invocation);
    client.objectPath = g_dbus_method_invocation_get_object_path(invocation);
    client.interfaceName = g_dbus_method_invocation_get_interface_name(invocation);
    client.uid = service->CallerUid(invocation);
    return client;
}

void CMOXBusService::Call::Reply(GVariant* value) const {
    g_dbus_method_invocation_return_value(invocation, value);
}

CMOXBusService::CMOXBusService(GDBusNodeInfo* node, std::function<void()> onClosed)
    : m_pNode(g_dbus_node_info_ref(node)),
      m_onClosed(std::move(onClosed)),
      m_pEngineSlot(std::make_shared<EngineSlot>()) {}

CMOXBusService::~CMOXBusService() {
    if (m_nOwnerId) g_bus_unown_name(m_nOwnerId);
    if (m_pConnection) {
        if (m_nRegistrationId) g_dbus_connection_unregister_object(m_pConnection, m_nRegistrationId);
        g_dbus_connection_signal_unsubscribe(m_pConnection, m_nNameOwnerSubscription);
        g_signal_handlers_disconnect_by_data(m_pConnection, this);
        g_object_unref(m_pConnection);
    }
    g_dbus_node_info_unref(m_pNode);
}

void CMOXBusService::Attach(CMOXEngineImp* pEngine, CMOXStorageMgr* pStorage) {
    // Waits for a list call under way on the GDBus worker thread.
    mox::MutexLock lock(m_pEngineSlot->mutex);
    m_pEngineSlot->pEngine = pEngine && pStorage ? pEngine : nullptr;
    m_pEngineSlot->pStorage = pEngine && pStorage ? pStorage : nullptr;
    m_pEngine = pEngine;
    m_pStorage = pStorage;
}

void CMOXBusService::Own(std::function<void()> onNameAcquired) {
    m_onNameAcquired = std::move(onNameAcquired);
    m_nOwnerId = g_bus_own_name(G_BUS_TYPE_SYSTEM, kBusName, G_BUS_NAME_OWNER_FLAGS_NONE, s_OnBusAcquired,
                                s_OnNameAcquired, s_OnNameLost, this, nullptr);
}

void CMOXBusService::Unown() {
    if (m_nOwnerId) g_bus_unown_name(m_nOwnerId);
    m_nOwnerId = 0;
}

void CMOXBusService::s_OnBusAcquired(GDBusConnection* connection, const gchar*, gpointer self) {
    auto* pThis = static_cast<CMOXBusService*>(self);
    GDBusNodeInfo* node = pThis->m_pNode;
    auto filter = std::make_unique<FilterData>(
        FilterData{node->path, g_dbus_interface_info_ref(node->interfaces[0]), pThis->m_pEngineSlot});
    g_dbus_connection_add_filter(connection, FilterUnknownMethods, filter.release(), FreeFilterData);
    if (!pThis->m_pConnection) {
        pThis->m_pConnection = G_DBUS_CONNECTION(g_object_ref(connection));
        // GDBus's own exit-on-close would raise SIGTERM at any moment, also in
        // the middle of the shutdown: the daemon stops in order instead.
        g_dbus_connection_set_exit_on_close(connection, FALSE);
        g_signal_connect(connection, "closed", G_CALLBACK(s_OnClosed), pThis);
        pThis->m_nNameOwnerSubscription = g_dbus_connection_signal_subscribe(
            connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", "/org/freedesktop/DBus",
            nullptr, G_DBUS_SIGNAL_FLAGS_NONE, s_OnNameOwnerChanged, pThis, nullptr);
    }
    static const GDBusInterfaceVTable kVTable = {s_OnMethodCall, nullptr, nullptr, {nullptr}};
    pThis->m_nRegistrationId = g_dbus_connection_register_object(connection, node->path, node->interfaces[0], &kVTable,
                                                                 pThis, nullptr, nullptr);
    MOX_DEBUG("BusAcquired.");
    assert(pThis->m_nRegistrationId > 0);
}

void CMOXBusService::s_OnNameAcquired(GDBusConnection*, const gchar*, gpointer self) {
    MOX_DEBUG("NameAcquired.");
    auto* pThis = static_cast<CMOXBusService*>(self);
    if (pThis->m_onNameAcquired) pThis->m_onNameAcquired();
}

void CMOXBusService::s_OnNameLost(GDBusConnection*, const gchar*, gpointer) {
    MOX_DEBUG("NameLost.");
}

void CMOXBusService::s_OnClosed(GDBusConnection*, gboolean, GError*, gpointer self) {
    MOX_WARN("bus connection closed, stopping.");
    auto* pThis = static_cast<CMOXBusService*>(self);
    if (pThis->m_onClosed) pThis->m_onClosed();
}

// A client that leaves the bus is forgotten: its storage bindings (sending to
// a dead name costs every later event, without bound), its requests and the
// result lists it alone held. GDBus delivers this on the main loop.
void CMOXBusService::s_OnNameOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                          GVariant* parameters, gpointer self) {
    auto* pThis = static_cast<CMOXBusService*>(self);
    const gchar* szName = nullptr;
    const gchar* szOldOwner = nullptr;
    const gchar* szNewOwner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", &szName, &szOldOwner, &szNewOwner);
    if (szName[0] != ':' || szNewOwner[0] != '\0') return;
    {
        mox::MutexLock lock(pThis->m_pEngineSlot->mutex);
        pThis->m_pEngineSlot->uidBySender.erase(szName);
    }
    if (pThis->m_pStorage) pThis->m_pStorage->RemoveNotificationClientsOf(szName);
    if (pThis->m_pEngine) {
        pThis->m_pEngine->RemoveClient(szName);
        pThis->m_pEngine->RemoveScannersOfClient(szName);
    }
}

uid_t CMOXBusService::CallerUid(GDBusMethodInvocation* invocation) {
    const std::string sender = g_dbus_method_invocation_get_sender(invocation);
    {
        mox::MutexLock lock(m_pEngineSlot->mutex);
        auto found = m_pEngineSlot->uidBySender.find(sender);
        if (found != m_pEngineSlot->uidBySender.end()) return found->second;
    }
    // Asked without the lock: the GDBus worker thread, which reads the
    // answer, may be waiting for it.
    GError* rawError = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        g_dbus_method_invocation_get_connection(invocation), "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus", "GetConnectionUnixUser", g_variant_new("(s)", sender.c_str()), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &rawError);
    std::unique_ptr<GError, GErrorDeleter> error(rawError);
    if (!reply) {
        MOX_WARN("cannot tell the caller's user: %s", error ? error->message : "unknown error");
        return static_cast<uid_t>(-1);
    }
    guint32 uid = 0;
    g_variant_get(reply, "(u)", &uid);
    g_variant_unref(reply);
    mox::MutexLock lock(m_pEngineSlot->mutex);
    m_pEngineSlot->uidBySender.emplace(sender, static_cast<uid_t>(uid));
    return static_cast<uid_t>(uid);
}

void CMOXBusService::s_OnMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* szMethod,
                                    GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self) {
    static_cast<CMOXBusService*>(self)->m_Dispatch(szMethod, parameters, invocation);
}

void CMOXBusService::m_Dispatch(const char* szMethod, GVariant* parameters, GDBusMethodInvocation* invocation) {
    MOX_DEBUG("recive method(%s).", szMethod);
    const Method* pMethod = nullptr;
    for (const Method& method : kMethods)
        if (strcmp(method.szName, szMethod) == 0) pMethod = &method;
    if (pMethod == nullptr) {
        // Declared in the XML but not served: an empty reply, as for others.
        MOX_WARN("unkown method(%s).", szMethod);
        g_dbus_method_invocation_return_value(invocation, nullptr);
        return;
    }
    Call call{invocation, parameters, this};
    // GDBus checked the signature against the XML; the table must agree.
    const std::string signature = std::string("(") + pMethod->szInSignature + ")";
    const bool bShapeOk = parameters && g_variant_is_of_type(parameters, G_VARIANT_TYPE(signature.c_str()));
    if (!bShapeOk || !ArgumentsFit(szMethod, parameters) || m_pEngine == nullptr || m_pStorage == nullptr) {
        if (!bShapeOk) MOX_WARN("method(%s): arguments of another shape, refused.", szMethod);
        // A refused request still gets its failure signal: a client must not
        // wait for an answer that never comes.
        EMOXCommandKind eKind;
        if (bShapeOk && m_pEngine && RequestKindOf(szMethod, eKind)) {
            guint32 nHandleId = 0;
            g_variant_get_child(parameters, 0, "u", &nHandleId);
            m_pEngine->EmitRequestFailure(eKind, nHandleId, call.Caller());
        }
        call.Reply(pMethod->pfnFailure());
        return;
    }
    pMethod->pfnHandler(call);
}

void CMOXBusService::Emit(const connect_info_s& client, const char* szSignal, const std::string& strPayload) {
    if (client.connection == nullptr) return;
    GError* rawError = nullptr;
    // A client that left, or a connection that is closing, is not the
    // engine's fault: the signal is lost for that client, nothing more.
    if (!g_dbus_connection_emit_signal(client.connection, client.sender.c_str(), client.objectPath.c_str(),
                                       client.interfaceName.c_str(), szSignal,
                                       mox_bus::NewStringTuple(strPayload, szSignal), &rawError)) {
        std::unique_ptr<GError, GErrorDeleter> error(rawError);
        MOX_WARN("Emit of %s to [%s] failed: %s.", szSignal, client.sender.c_str(),
                 error ? error->message : "unknown error");
    }
}

void CMOXBusService::EmitScannerDone(const connect_info_s& client, uint32_t nScannerId, uint32_t nResult,
                                     uint32_t nMediaType, const std::string& strBasePath, const std::string& strName,
                                     const std::string& strMedia) {
    if (client.connection == nullptr) return;
    GVariant* params = g_variant_new(
        "(uuu@s@s@s)", nScannerId, nResult, nMediaType, mox_bus::NewString(strBasePath, "mox_scanner_done base path"),
        mox_bus::NewString(strName, "mox_scanner_done name"), mox_bus::NewString(strMedia, "mox_scanner_done media"));
    GError* rawError = nullptr;
    if (!g_dbus_connection_emit_signal(client.connection, client.sender.c_str(), client.objectPath.c_str(),
                                       client.interfaceName.c_str(), "mox_scanner_done", params, &rawError)) {
        std::unique_ptr<GError, GErrorDeleter> error(rawError);
        MOX_WARN("Emit of mox_scanner_done to [%s] failed: %s.", client.sender.c_str(),
                 error ? error->message : "unknown error");
    }
}
