#define MOX_LOG_TAG "MOX-STORAGE"
#include <mox/mox_log.h>

#include "mox_storage_manager.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <string>

#include <json/value.h>
#include <json/writer.h>

#include <mox/json_value.h>
#include <mox/mox_types.h>

namespace {

constexpr int kMaxDeviceIndex = 100;
static_assert(kMaxDeviceIndex == 64 + 36, "SFreeIndices holds exactly the indices 1 to 100");

}  // namespace

CMOXStorageMgr::CMOXStorageMgr() {
    // The USB manager installs its platform callback, which waits for a
    // callback in flight; doing it before taking m_mutex keeps the order
    // "platform callback lock, then m_mutex" that events follow. An event
    // arriving meanwhile waits for the first enumeration below.
    m_pMOXUsbManager = std::make_unique<CMOXUSBMgr>();
    m_pMOXUsbManager->SetNotificationCb(cb_mscNotification, this);
    mox::MutexLock lock(m_mutex);
    m_InitFinishFlag = m_Create();
}

CMOXStorageMgr::~CMOXStorageMgr() {
    StopEvents();
    mox::MutexLock lock(m_mutex);
    m_DestroyUSBList();
    m_DestroyPTPList();
}

void CMOXStorageMgr::StopEvents() {
    std::unique_ptr<CMOXUSBMgr> pUsb;
    {
        mox::MutexLock lock(m_mutex);
        pUsb = std::move(m_pMOXUsbManager);
    }
    // Outside m_mutex: stopping waits for an event in flight, which takes it.
    pUsb.reset();
}

bool CMOXStorageMgr::m_Create() {
    if (!m_InitUSBList()) {
        MOX_WARN("m_InitUSBList FAILED...");
        return false;
    }
    if (!m_InitPTPList()) {
        MOX_WARN("m_InitPTPList FAILED...");
        return false;
    }
    return true;
}

void CMOXStorageMgr::SetInternalCB(MOXStorageInternalCb cb, void* userData) {
    mox::MutexLock lock(m_mutex);
    m_storage_internal_cb = cb;
    m_pInternalUserData = userData;
}

void CMOXStorageMgr::SetNotificationCB(MOXStorageNotificationCb cb) {
    mox::MutexLock lock(m_mutex);
    m_storage_notification_cb = cb;
}

void CMOXStorageMgr::AddNotificationClient(dbus_connection_info_s& client) {
    MOX_DEBUG("Calling AddNotificationClient...");
    mox::MutexLock lock(m_mutex);
    if (std::find(m_clients.begin(), m_clients.end(), client) != m_clients.end()) {
        MOX_DEBUG("Already exist client...");
        return;
    }
    m_clients.push_back(client);
}

void CMOXStorageMgr::RemoveNotificationClient(dbus_connection_info_s& client) {
    MOX_DEBUG("Calling RemoveNotificationClient...");
    mox::MutexLock lock(m_mutex);
    auto it = std::find(m_clients.begin(), m_clients.end(), client);
    if (it != m_clients.end()) m_clients.erase(it);
}

std::vector<dbus_connection_info_s> CMOXStorageMgr::GetNotificationClients() {
    mox::MutexLock lock(m_mutex);
    return m_clients;
}

void CMOXStorageMgr::RemoveNotificationClientsOf(const std::string& sender) {
    mox::MutexLock lock(m_mutex);
    size_t nBefore = m_clients.size();
    m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(),
                                   [&](const dbus_connection_info_s& c) { return c.sender == sender; }),
                    m_clients.end());
    if (m_clients.size() != nBefore)
        MOX_INFO("client %s left the bus, %d binding(s) removed.", sender.c_str(),
                 static_cast<int>(nBefore - m_clients.size()));
}

int CMOXStorageMgr::GetStorages(mox_storage_device_type type, std::string& out, uint64_t nArrival) {
    MOX_DEBUG("Calling GetStoraes...");
    // The bus thread's two steps, the sizes waited for as long as a query
    // may. The document is built from a copy of the list, after the lock, so
    // hot-plug events never wait on a slow storage.
    SQuickAnswer answer;
    const bool bText = PrepareQuick(type, nArrival, answer);
    if (answer.bDocument)
        out = bText ? m_Finish(answer) : m_Document(answer.list, nArrival, [](const std::vector<UsbDevicePtr>&) {
            return std::shared_ptr<const SDocumentText>();  // through a Json::Value tree
        });
    return answer.nResult;
}

void CMOXStorageMgr::m_RestartServiceIfDown() {
    {
        mox::MutexLock lock(m_mutex);
        if (m_InitFinishFlag || !m_pMOXUsbManager || m_pMOXUsbManager->IsConnected()) return;
    }
    // The service could not start (its spool directory missing, udev not
    // ready): start it again, or a service that comes later is never seen.
    // Made outside m_mutex, like the first one: installing the platform
    // callback comes before m_mutex in the order events take them.
    auto pFresh = std::make_unique<CMOXUSBMgr>();
    if (!pFresh->IsConnected()) return;  // still down, or another query started it
    pFresh->SetNotificationCb(cb_mscNotification, this);
    std::unique_ptr<CMOXUSBMgr> pOld;
    mox::MutexLock lock(m_mutex);
    if (!m_pMOXUsbManager) return;  // stopped meanwhile: pFresh stops the service again
    pOld = std::move(m_pMOXUsbManager);
    m_pMOXUsbManager = std::move(pFresh);
}

int CMOXStorageMgr::m_RefreshAndCopy(mox_storage_device_type type, std::vector<UsbDevicePtr>& listed) {
    m_RestartServiceIfDown();
    mox::MutexLock lock(m_mutex);
    if (!m_InitFinishFlag) {
        MOX_WARN("m_InitFinishFlag is false, retry init");
        m_InitFinishFlag = m_Create();
        if (!m_InitFinishFlag) {
            MOX_WARN("m_InitFinishFlag is false...");
            return MOX_ERROR_GENERIC;
        }
    } else if (type == MOX_STORAGE_DEVICE_USB) {
        if (!m_InitUSBList()) {
            MOX_WARN("m_InitUSBList FAILED...");
            return MOX_ERROR_GENERIC;
        }
    } else if (type == MOX_STORAGE_DEVICE_PTP) {
        if (!m_InitPTPList()) {
            MOX_WARN("m_InitPTPList FAILED...");
            return MOX_ERROR_GENERIC;
        }
    }
    if (type == MOX_STORAGE_DEVICE_USB)
        listed = m_USBList;
    else if (type == MOX_STORAGE_DEVICE_PTP)
        listed = m_PTPList;
    return MOX_ERROR_NONE;
}

bool CMOXStorageMgr::m_InitUSBList() {
    return m_InitList(m_USBList, true);
}

bool CMOXStorageMgr::m_InitPTPList() {
    return m_InitList(m_PTPList, false);
}

bool CMOXStorageMgr::m_InitList(std::vector<UsbDevicePtr>& list, bool bUsb) {
    if (!m_pMOXUsbManager) {
        MOX_WARN("m_pMOXUsbManager == NULL");
        return false;
    }
    // Enumerate first: a failed enumeration leaves the list and its
    // indices as they were.
    std::vector<UsbDevicePtr> fresh;
    if (!(bUsb ? m_pMOXUsbManager->GetUsbStorages(fresh) : m_pMOXUsbManager->GetPtpStorages(fresh))) return false;
    for (UsbDevicePtr& record : list) m_AssignDevIndex(record, false);
    list.swap(fresh);
    m_InitDevIndex(list);
    m_PrintList(list);
    return true;
}

void CMOXStorageMgr::m_InitDevIndex(std::vector<UsbDevicePtr>& list) {
    for (UsbDevicePtr& record : list) m_AssignDevIndex(record, true);
}

int CMOXStorageMgr::SFreeIndices::TakeSmallest() {
    assert(!Empty());
    const int nWord = bits[0] != 0 ? 0 : 1;
    const int nBit = __builtin_ctzll(bits[nWord]);
    bits[nWord] &= bits[nWord] - 1;
    return nWord * 64 + nBit + 1;
}

void CMOXStorageMgr::SFreeIndices::Put(int nIndex) {
    assert(nIndex >= 1 && nIndex <= kMaxDeviceIndex);
    bits[(nIndex - 1) / 64] |= 1ULL << ((nIndex - 1) % 64);
}

void CMOXStorageMgr::m_AssignDevIndex(UsbDevicePtr& record, bool bAssign) {
    const std::string model = record->GetModelName();
    auto map_iter = m_mapUSBDevName.find(model);
    if (bAssign) {
        if (map_iter == m_mapUSBDevName.end()) map_iter = m_mapUSBDevName.emplace(model, SFreeIndices()).first;
        assert(map_iter != m_mapUSBDevName.end());
        SFreeIndices& freeIndices = map_iter->second;
        if (freeIndices.Empty()) {
            MOX_WARN("[%s] has no free device index, %s gets none", model.c_str(), record->GetDeviceName().c_str());
            record->SetDeviceIndex(0);
            return;
        }
        record->SetDeviceIndex(freeIndices.TakeSmallest());
        return;
    }
    if (map_iter == m_mapUSBDevName.end()) {
        MOX_INFO("[%s] is not exist.", model.c_str());
        return;
    }
    int index = record->GetDeviceIndex();
    if (index < 1 || index > kMaxDeviceIndex) return;  // never had one
    map_iter->second.Put(index);
    if (map_iter->second.All()) m_mapUSBDevName.erase(map_iter);
}

void CMOXStorageMgr::m_DestroyUSBList() {
    for (UsbDevicePtr& record : m_USBList) m_AssignDevIndex(record, false);
    m_USBList.clear();
}

void CMOXStorageMgr::m_DestroyPTPList() {
    for (UsbDevicePtr& record : m_PTPList) m_AssignDevIndex(record, false);
    m_PTPList.clear();
}

bool CMOXStorageMgr::m_IsSameDevice(const UsbDevicePtr& a, const UsbDevicePtr& b) {
    if (a->GetDeviceMountPath() != b->GetDeviceMountPath()) return false;
    if (a->GetDeviceClass() != MOX_USB_CLASS_PTP) return true;
    return a->GetBus() == b->GetBus() && a->GetAddress() == b->GetAddress();
}

void CMOXStorageMgr::m_UpdateUsbSotrages(UsbDevicePtr& record, mox_storage_event_e event) {
    m_UpdateList(m_USBList, record, event);
}

void CMOXStorageMgr::m_UpdatePtpSotrages(UsbDevicePtr& record, mox_storage_event_e event) {
    m_UpdateList(m_PTPList, record, event);
}

void CMOXStorageMgr::m_UpdateList(std::vector<UsbDevicePtr>& list, UsbDevicePtr& record, mox_storage_event_e event) {
    auto listed = std::find_if(list.begin(), list.end(),
                               [&](const UsbDevicePtr& entry) { return m_IsSameDevice(entry, record); });
    if (event == MOX_STORAGE_CONNECTED) {
        if (listed != list.end() && (*listed)->GetModelName() == record->GetModelName()) {
            // Already enumerated by a query that ran between the device's
            // appearance and this event: keep its index.
            record->SetDeviceIndex((*listed)->GetDeviceIndex());
            *listed = record;
            return;
        }
        m_AssignDevIndex(record, true);
        list.push_back(record);
        return;
    }
    if (listed == list.end()) return;
    record->SetDeviceIndex((*listed)->GetDeviceIndex());
    m_AssignDevIndex(*listed, false);
    list.erase(listed);
}

void CMOXStorageMgr::cb_mscNotification(usb_device_h device, UsbDevicePtr& record, mox_storage_event_e event,
                                        void* userData) {
    CMOXStorageMgr* pThis = static_cast<CMOXStorageMgr*>(userData);
    assert(pThis != NULL);
    // What the callbacks need is collected under the lock and they run after
    // it: the engine's clean-up may wait for a scanner stuck on a storage,
    // and nobody else (get_usb_storages on the main loop) must wait with it.
    // The daemon calls StopEvents, which waits for this to return, before
    // the library and the engine the callbacks use go.
    MOXStorageInternalCb internalCb = nullptr;
    void* pInternalUserData = nullptr;
    MOXStorageNotificationCb notificationCb = nullptr;
    std::vector<dbus_connection_info_s> clients;
    std::string strPayload;
    {
        mox::MutexLock lock(pThis->m_mutex);
        if (usb_device_get_class(device) == USB_DEVICE_CLASS_STILL_IMAGE)
            pThis->m_UpdatePtpSotrages(record, event);
        else
            pThis->m_UpdateUsbSotrages(record, event);
        record->PrintUSBInfo(event == MOX_STORAGE_CONNECTED);
        if (pThis->m_clients.empty())
            MOX_DEBUG("There is no client...");
        else
            MOX_INFO("Notify %d client with storage %s", static_cast<int>(pThis->m_clients.size()),
                     event == MOX_STORAGE_CONNECTED ? "connect" : "disconnect");
        internalCb = pThis->m_storage_internal_cb;
        pInternalUserData = pThis->m_pInternalUserData;
        notificationCb = pThis->m_storage_notification_cb;
        clients = pThis->m_clients;
    }
    // One document per event, whatever the number of clients; built after
    // the lock, as it asks the storage for its sizes.
    if (notificationCb && !clients.empty()) {
        std::vector<UsbDevicePtr> changed{record};
        strPayload = NotificationDocument(event, ConvertStoragesToJson(changed));
    }
    if (internalCb) internalCb(usb_device_ref(device), event, pInternalUserData);
    if (notificationCb)
        for (const dbus_connection_info_s& client : clients) notificationCb(client, event, strPayload);
}

std::string CMOXStorageMgr::NotificationDocument(mox_storage_event_e event, const std::string& strStorages) {
    CJsonValue parsed(strStorages);
    CJsonValue notification;
    notification.Set("event", static_cast<int>(event));
    notification.SetValue("devices", parsed.IsValid() ? parsed.Root().get("devices", Json::Value()) : Json::Value());
    return notification.ToStyledString();
}

std::string CMOXStorageMgr::GetFileSystemAsString(int nFileSystem) {
    switch (nFileSystem) {
        case MOX_USB_FS_VFAT: return "VFAT";
        case MOX_USB_FS_EXT4: return "EXT4";
        case MOX_USB_FS_NTFS: return "NTFS";
        default: return "UNKNOWN";
    }
}

std::string CMOXStorageMgr::GetDiskTypeAsString(int nDeviceClass) {
    switch (nDeviceClass) {
        case MOX_USB_CLASS_MSC: return "msc";
        case MOX_USB_CLASS_PTP: return "ptp";
        default: return "unknown";
    }
}

std::string CMOXStorageMgr::ConvertNumberToString(int nNumber) {
    return std::to_string(nNumber);
}

std::string CMOXStorageMgr::ConvertNumberToString(long long llNumber) {
    return std::to_string(llNumber);
}

namespace {

// jsoncpp's styled writer quotes a string through valueToQuotedString; text
// of printable ASCII without quote or backslash comes out unchanged, so only
// other text needs it.
bool NeedsEscaping(const std::string& text) {
    for (unsigned char c : text)
        if (c < 0x20 || c >= 0x7f || c == '"' || c == '\\') return true;
    return false;
}

// One member line of a device object, exactly as the styled writer puts it.
// False when the text holds a NUL, which valueToQuotedString would cut.
bool AppendMember(std::string& doc, const char* key, const std::string& value, bool bLast) {
    doc += "         \"";
    doc += key;
    doc += "\" : ";
    if (!NeedsEscaping(value)) {
        doc += '"';
        doc += value;
        doc += '"';
    } else {
        if (value.find('\0') != std::string::npos) return false;
        doc += Json::valueToQuotedString(value.c_str());
    }
    doc += bLast ? "\n" : ",\n";
    return true;
}

}  // namespace

namespace {

// Starts the statfs of every mounted storage before any is waited for.
std::vector<uint64_t> AskSizes(const std::vector<UsbDevicePtr>& list, uint64_t nArrival) {
    std::vector<uint64_t> asked(list.size(), 0);
    for (size_t i = 0; i < list.size(); ++i)
        if (list[i]->GetDeviceMountPath() != MOX_USB_NO_MOUNT_PATH) asked[i] = list[i]->AskDeviceSizes(nArrival);
    return asked;
}

void AppendNumber(std::string& doc, long long llNumber) {
    char buf[24];
    doc.append(buf, std::to_chars(buf, buf + sizeof buf, llNumber).ptr);
}

}  // namespace

std::shared_ptr<const CMOXStorageMgr::SDocumentText> CMOXStorageMgr::m_MakeDocumentText(
    const std::vector<UsbDevicePtr>& list) {
    // Written directly in the styled writer's layout (three-blank indent,
    // members in key order) instead of building and copying a Json::Value
    // tree; the bytes are the same.
    auto made = std::make_shared<SDocumentText>();
    made->records = list;
    made->text.reserve(2 * list.size() + 1);
    std::string doc = "{\n   \"devices\" : [\n";
    for (size_t i = 0; i < list.size(); ++i) {
        const CMOXUSBDevice& record = *list[i];
        made->indices.push_back(record.GetDeviceIndex());
        doc += "      {\n         \"availableSize\" : \"";
        made->text.push_back(std::move(doc));
        doc = "\",\n";
        bool bOk = true;
        if (record.GetDeviceClass() == MOX_USB_CLASS_PTP) {
            bOk = AppendMember(doc, "deviceAddress", ConvertNumberToString(record.GetAddress()), false) &&
                  AppendMember(doc, "deviceBus", ConvertNumberToString(record.GetBus()), false);
        }
        doc += "         \"deviceIndex\" : ";
        AppendNumber(doc, made->indices.back());
        doc += ",\n";
        bOk = bOk && AppendMember(doc, "fileSystem", GetFileSystemAsString(record.GetFileSystem()), false) &&
              AppendMember(doc, "id", record.GetDeviceID(), false) &&
              AppendMember(doc, "mountPath", record.GetDeviceMountPath(), false) &&
              AppendMember(doc, "name", record.GetModelName(), false) &&
              AppendMember(doc, "partitionLabel", record.GetPartitionLabel(), false) &&
              AppendMember(doc, "serialNumber", record.GetSerial(), false);
        if (!bOk) return nullptr;
        doc += "         \"totalSize\" : \"";
        made->text.push_back(std::move(doc));
        doc = "\",\n";
        if (!AppendMember(doc, "type", GetDiskTypeAsString(record.GetDeviceClass()), false) ||
            !AppendMember(doc, "vendor", record.GetManufacturer(), true))
            return nullptr;
        doc += i + 1 < list.size() ? "      },\n" : "      }\n";
    }
    doc += "   ]\n}\n";
    made->text.push_back(std::move(doc));
    return made;
}

bool CMOXStorageMgr::SDocumentText::MadeFrom(const std::vector<UsbDevicePtr>& list) const {
    if (list != records) return false;
    for (size_t i = 0; i < list.size(); ++i)
        if (list[i]->GetDeviceIndex() != indices[i]) return false;
    return true;
}

std::string CMOXStorageMgr::m_JoinDocument(const SDocumentText& text, const std::vector<UsbDevicePtr>& list,
                                           const std::vector<uint64_t>& asked) {
    size_t nBytes = 0;
    for (const std::string& part : text.text) nBytes += part.size();
    std::string doc;
    doc.reserve(nBytes + list.size() * 40);
    for (size_t i = 0; i < list.size(); ++i) {
        long long llTotal = 0, llAvailable = 0;
        // 0: no mount path, or no prober could start (logged); the sizes stay 0.
        if (asked[i] != 0) list[i]->GetDeviceSizes(llTotal, llAvailable, asked[i]);
        doc += text.text[2 * i];
        AppendNumber(doc, llAvailable);
        doc += text.text[2 * i + 1];
        AppendNumber(doc, llTotal);
    }
    doc += text.text.back();
    return doc;
}

std::string CMOXStorageMgr::m_Document(std::vector<UsbDevicePtr>& list, uint64_t nArrival, const TextFor& textFor) {
    if (list.empty()) return "null\n";
    try {
        // The storages are asked first: their statfs runs while the text is made.
        const std::vector<uint64_t> asked = AskSizes(list, nArrival);
        std::shared_ptr<const SDocumentText> text = textFor(list);
        return text ? m_JoinDocument(*text, list, asked) : m_ConvertWithJsonValue(list);
    } catch (const std::exception& e) {
        MOX_WARN("storage document failed: %s", e.what());
        return "null\n";
    }
}

std::string CMOXStorageMgr::ConvertStoragesToJson(std::vector<UsbDevicePtr>& list, uint64_t nArrival) {
    return m_Document(list, nArrival, m_MakeDocumentText);
}

std::shared_ptr<const CMOXStorageMgr::SDocumentText> CMOXStorageMgr::m_ReusedText(
    const std::vector<UsbDevicePtr>& list) {
    {
        mox::MutexLock lock(m_docMutex);
        if (m_lastDocument && m_lastDocument->MadeFrom(list)) return m_lastDocument;
    }
    std::shared_ptr<const SDocumentText> text = m_MakeDocumentText(list);
    if (text) {
        mox::MutexLock lock(m_docMutex);
        m_lastDocument = text;
    }
    return text;
}

std::string CMOXStorageMgr::m_ConvertWithJsonValue(std::vector<UsbDevicePtr>& list) {
    CJsonValue document;
    if (list.empty()) return document.ToStyledString();
    try {
        Json::Value devices(Json::arrayValue);
        for (const UsbDevicePtr& record : list) {
            const std::string mountPath = record->GetDeviceMountPath();
            const bool bSized = mountPath != MOX_USB_NO_MOUNT_PATH;
            Json::Value device(Json::objectValue);
            device["id"] = record->GetDeviceID();
            device["name"] = record->GetModelName();
            device["totalSize"] = bSized ? ConvertNumberToString(record->GetDeviceTotalSize()) : "0";
            device["availableSize"] = bSized ? ConvertNumberToString(record->GetDeviceAvailableSize()) : "0";
            device["mountPath"] = mountPath;
            device["fileSystem"] = GetFileSystemAsString(record->GetFileSystem());
            device["serialNumber"] = record->GetSerial();
            device["vendor"] = record->GetManufacturer();
            device["deviceIndex"] = record->GetDeviceIndex();
            if (record->GetDeviceClass() == MOX_USB_CLASS_PTP) {
                device["deviceAddress"] = ConvertNumberToString(record->GetAddress());
                device["deviceBus"] = ConvertNumberToString(record->GetBus());
            }
            device["partitionLabel"] = record->GetPartitionLabel();
            device["type"] = GetDiskTypeAsString(record->GetDeviceClass());
            devices.append(std::move(device));
        }
        document.SetValue("devices", devices);
    } catch (const std::exception& e) {
        MOX_WARN("storage document failed: %s", e.what());
        return CJsonValue().ToStyledString();
    }
    return document.ToStyledString();
}

void CMOXStorageMgr::m_PrintList(const std::vector<UsbDevicePtr>& list) {
    for (const UsbDevicePtr& record : list) record->PrintUSBInfo(true);
}

bool CMOXStorageMgr::PrepareQuick(mox_storage_device_type type, uint64_t nArrival, SQuickAnswer& answer) {
    answer = SQuickAnswer();
    answer.nResult = m_RefreshAndCopy(type, answer.list);
    answer.bDocument =
        answer.nResult == MOX_ERROR_NONE && (type == MOX_STORAGE_DEVICE_USB || type == MOX_STORAGE_DEVICE_PTP);
    if (!answer.bDocument || answer.list.empty()) return true;
    try {
        answer.asked = AskSizes(answer.list, nArrival);
        answer.text = m_ReusedText(answer.list);
    } catch (const std::exception& e) {
        MOX_WARN("storage document failed: %s", e.what());
        return false;
    }
    return answer.text != nullptr;
}

bool CMOXStorageMgr::FinishQuick(const SQuickAnswer& answer, std::chrono::steady_clock::time_point deadline,
                                 std::string& out) {
    if (!answer.bDocument) return true;  // out untouched, as GetStorages leaves it
    for (size_t i = 0; i < answer.list.size(); ++i)
        if (answer.asked[i] != 0 && !answer.list[i]->SizesIn(answer.asked[i], deadline)) return false;
    out = m_Finish(answer);
    return true;
}

std::string CMOXStorageMgr::m_Finish(const SQuickAnswer& answer) {
    if (answer.list.empty()) return "null\n";
    try {
        return m_JoinDocument(*answer.text, answer.list, answer.asked);
    } catch (const std::exception& e) {
        MOX_WARN("storage document failed: %s", e.what());
        return "null\n";
    }
}
