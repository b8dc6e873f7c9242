// CMOXStorageMgr: the daemon's view of attached storages (USB mass-storage
// partitions and cameras), each record carrying a device index unique per
// model name (1 to 100). It answers get_usb_storages with the storage
// document and, on every hot-plug event, updates its lists, calls the
// daemon's internal callback and then the notification callback once per
// bound client.
//
// Threads and locks: one mutex guards the lists, the index pools, the
// clients and the callbacks. It is never held while a storage is asked for
// anything (sizes, read with a bounded wait, come after it) nor while a
// callback runs: what an event needs is collected under it and the
// callbacks run after, so that the engine's clean-up never holds the
// queries. Queries run on the caller's thread; hot-plug events arrive on the
// USB service's thread. A second mutex, a leaf, guards the text of the last
// get_usb_storages document, which the next one reuses when the records are
// the same. The destructor stops the USB service first (waiting
// for an event in flight), so it must not run on the USB service's thread or
// under a lock the callbacks take.
//
// Device index: a device of a model already holding all 100 indices gets
// index 0 ("no index") and a warning; index 0 is never returned to the pool.
// An arriving device that is already listed (a query enumerated it between
// its appearance and its event) keeps its record's index instead of taking
// a second one. Cameras, which all have mount path "n/a", are matched by
// bus and address as well.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mox_device.h"
#include "mox_storage_defines.h"
#include "mox_thread_annotations.h"
#include "mox_usb_mgr.h"

class CMOXStorageMgr {
public:
    CMOXStorageMgr();
    ~CMOXStorageMgr();
    CMOXStorageMgr(const CMOXStorageMgr&) = delete;
    CMOXStorageMgr& operator=(const CMOXStorageMgr&) = delete;

    // cb == nullptr clears a callback; events then go unreported to it.
    void SetInternalCB(MOXStorageInternalCb cb, void* userData);
    void SetNotificationCB(MOXStorageNotificationCb cb);
    // Stops the USB service and returns once no event callback runs any
    // more (one in flight is waited for): clearing the callbacks alone leaves
    // an event that copied them before still running. The lists stay as they
    // were; nothing arrives afterwards. Never call it from a callback.
    void StopEvents() EXCLUDES(m_mutex);

    void AddNotificationClient(dbus_connection_info_s& client);
    void RemoveNotificationClient(dbus_connection_info_s& client);
    // Forgets every binding of a client that left the bus (unique name).
    void RemoveNotificationClientsOf(const std::string& sender);
    // A copy of the clients bound now (the media library's signals go to them).
    std::vector<dbus_connection_info_s> GetNotificationClients();

    // The storage document of the storages of one type present now (the
    // list is enumerated afresh). 0, or 23 when enumeration fails; a type
    // other than USB or PTP leaves out untouched and returns 0.
    int GetStorages(mox_storage_device_type type, std::string& out, uint64_t nArrival = 0);

    // The same answer in two steps, for a thread that must not wait on a
    // storage (the bus's message thread). PrepareQuick enumerates, asks the
    // sizes and makes the text, as GetStorages does (memory work only); false
    // when only GetStorages can answer (a value the direct writer cannot
    // quote). FinishQuick needs nothing of the manager, which may go
    // meanwhile: the document, when every size asked is in by `deadline`.
    struct SQuickAnswer;
    bool PrepareQuick(mox_storage_device_type type, uint64_t nArrival, SQuickAnswer& answer);
    static bool FinishQuick(const SQuickAnswer& answer, std::chrono::steady_clock::time_point deadline,
                            std::string& out);

    // Document conversions.
    static std::string GetFileSystemAsString(int nFileSystem);
    // "type" of a record from its device class.
    static std::string GetDiskTypeAsString(int nDeviceClass);
    static std::string ConvertNumberToString(int nNumber);
    static std::string ConvertNumberToString(long long llNumber);
    // {"devices": [...]} in styled form; an empty list is "null\n".
    static std::string ConvertStoragesToJson(std::vector<UsbDevicePtr>& list, uint64_t nArrival = 0);
    // The mox_usb_notification payload of an event, in styled form:
    // {"devices": [...], "event": n}.
    static std::string NotificationDocument(mox_storage_event_e event, const std::string& strStorages);

private:
    // The list of `type` enumerated afresh (GetStorages), copied out.
    int m_RefreshAndCopy(mox_storage_device_type type, std::vector<UsbDevicePtr>& listed) EXCLUDES(m_mutex);
    void m_RestartServiceIfDown() EXCLUDES(m_mutex);
    // All m_ operations below require m_mutex held.
    bool m_Create() REQUIRES(m_mutex);
    bool m_InitUSBList() REQUIRES(m_mutex);
    bool m_InitPTPList() REQUIRES(m_mutex);
    bool m_InitList(std::vector<UsbDevicePtr>& list, bool bUsb) REQUIRES(m_mutex);
    void m_InitDevIndex(std::vector<UsbDevicePtr>& list) REQUIRES(m_mutex);
    void m_AssignDevIndex(UsbDevicePtr& record, bool bAssign) REQUIRES(m_mutex);
    void m_DestroyUSBList() REQUIRES(m_mutex);
    void m_DestroyPTPList() REQUIRES(m_mutex);
    void m_UpdateUsbSotrages(UsbDevicePtr& record, mox_storage_event_e event) REQUIRES(m_mutex);
    void m_UpdatePtpSotrages(UsbDevicePtr& record, mox_storage_event_e event) REQUIRES(m_mutex);
    void m_UpdateList(std::vector<UsbDevicePtr>& list, UsbDevicePtr& record, mox_storage_event_e event)
        REQUIRES(m_mutex);
    // The storage document apart from its sizes, cut where they go: for
    // device i, text[2i] comes before its available size and text[2i + 1]
    // before its total size; text.back() ends the document. Records change
    // only in their index once shared, so the same records with the same
    // indices make the same text.
    struct SDocumentText {
        std::vector<UsbDevicePtr> records;  // held: their addresses are not reused
        std::vector<int> indices;
        std::vector<std::string> text;
        bool MadeFrom(const std::vector<UsbDevicePtr>& list) const;
    };
    // Null when a value holds a NUL (then m_ConvertWithJsonValue).
    static std::shared_ptr<const SDocumentText> m_MakeDocumentText(const std::vector<UsbDevicePtr>& list);

public:
    struct SQuickAnswer {
        int nResult = 0;
        std::vector<UsbDevicePtr> list;
        bool bDocument = false;  // a type with a document, enumerated
        std::shared_ptr<const SDocumentText> text;
        std::vector<uint64_t> asked;
    };

private:
    // The document of a prepared answer with text, each size waited for as
    // GetDeviceSizes waits; "null\n" for an empty list.
    static std::string m_Finish(const SQuickAnswer& answer);
    // The document: text with the sizes asked of each storage (asked[i],
    // from AskDeviceSizes; 0 for none) put in.
    static std::string m_JoinDocument(const SDocumentText& text, const std::vector<UsbDevicePtr>& list,
                                      const std::vector<uint64_t>& asked);
    // The text of the last get_usb_storages document when it was made from
    // these records and indices, else a new one (kept for the next call).
    std::shared_ptr<const SDocumentText> m_ReusedText(const std::vector<UsbDevicePtr>& list) EXCLUDES(m_docMutex);
    // The document of list, its text from textFor (ConvertStoragesToJson
    // makes it anew, get_usb_storages reuses it).
    using TextFor = std::function<std::shared_ptr<const SDocumentText>(const std::vector<UsbDevicePtr>&)>;
    static std::string m_Document(std::vector<UsbDevicePtr>& list, uint64_t nArrival, const TextFor& textFor);
    // The document through a Json::Value tree: for text the direct writer
    // cannot quote like jsoncpp (an embedded NUL).
    static std::string m_ConvertWithJsonValue(std::vector<UsbDevicePtr>& list);
    static bool m_IsSameDevice(const UsbDevicePtr& a, const UsbDevicePtr& b);
    static void m_PrintList(const std::vector<UsbDevicePtr>& list);

    static void cb_mscNotification(usb_device_h device, UsbDevicePtr& record, mox_storage_event_e event,
                                   void* userData);

    std::vector<UsbDevicePtr> m_USBList GUARDED_BY(m_mutex);
    std::vector<UsbDevicePtr> m_PTPList GUARDED_BY(m_mutex);
    // Free device indices 1 to 100 of one model: bit i - 1 set = index i free.
    struct SFreeIndices {
        uint64_t bits[2] = {~0ULL, (1ULL << 36) - 1};  // all 100 free
        bool All() const { return bits[0] == ~0ULL && bits[1] == (1ULL << 36) - 1; }
        bool Empty() const { return bits[0] == 0 && bits[1] == 0; }
        int TakeSmallest();    // requires !Empty()
        void Put(int nIndex);  // 1 to 100
    };
    std::map<std::string, SFreeIndices> m_mapUSBDevName GUARDED_BY(m_mutex);  // model -> free indices
    std::vector<dbus_connection_info_s> m_clients GUARDED_BY(m_mutex);
    // A standard mutex rather than a GMutex: GLib's futex-based GMutex is
    // invisible to ThreadSanitizer.
    mox::Mutex m_mutex;
    bool m_InitFinishFlag GUARDED_BY(m_mutex) = false;
    std::unique_ptr<CMOXUSBMgr> m_pMOXUsbManager GUARDED_BY(m_mutex);  // null once stopped
    MOXStorageInternalCb m_storage_internal_cb GUARDED_BY(m_mutex) = nullptr;
    void* m_pInternalUserData GUARDED_BY(m_mutex) = nullptr;
    MOXStorageNotificationCb m_storage_notification_cb GUARDED_BY(m_mutex) = nullptr;
    // A leaf: held only to read or replace the pointer, never while a
    // storage is asked.
    mox::Mutex m_docMutex;
    std::shared_ptr<const SDocumentText> m_lastDocument GUARDED_BY(m_docMutex);
};
