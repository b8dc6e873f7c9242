#define MOX_LOG_TAG "MOX-STORAGE"
#include <mox/mox_log.h>

#include "mox_usb_mgr.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include <mox_host_paths.h>

namespace {

struct UsbListDeleter {
    void operator()(usb_device_list_s* list) const { usb_device_free_device_list(list); }
};
using UsbListPtr = std::unique_ptr<usb_device_list_s, UsbListDeleter>;

// Lists the platform devices of one USB class and calls take(device)
// for each; false when the list cannot be had.
template <typename Take>
bool WalkDeviceList(int usbClass, Take take) {
    usb_device_list_h raw = nullptr;
    int ret = usb_device_get_device_list(usbClass, &raw);
    if (ret < 0) {
        MOX_WARN("usb_device_get_device_list failed[%d]", ret);
        return false;
    }
    UsbListPtr list(raw);  // m_DestroyUSBList: freed on every path
    int count = usb_device_list_get_count(list.get());
    if (usbClass == USB_DEVICE_CLASS_MASS_STORAGE)
        MOX_DEBUG("There are [%d] usb.", count);
    else
        MOX_DEBUG("There are [%d] ptp.", count);
    for (int i = 0; i < count; ++i) {
        usb_device_h device = nullptr;
        if (i == 0) {
            if (usb_device_list_get_first(list.get(), &device) < 0) {
                MOX_WARN(" usb_device_list_get_first failed...");
                break;
            }
        } else if (usb_device_list_get_next(list.get(), &device) < 0) {
            MOX_WARN(" usb_device_list_get_next failed...");
            break;
        }
        take(device);
    }
    return true;
}

const char* OrNull(const char* text) {
    return text ? text : "(null)";
}

}  // namespace

CMOXUSBMgr::CMOXUSBMgr() {
    m_bConnected = m_InitUSB();
}

CMOXUSBMgr::~CMOXUSBMgr() {
    m_DeinitUSB();
}

bool CMOXUSBMgr::m_InitUSB() {
    int ret = usb_device_init();
    if (ret < 0) {
        MOX_WARN("usb_device_init failed...");
        return false;
    }
    ret = usb_set_connected_cb(s_USBConnctedCallback, this);
    if (ret < 0) MOX_WARN("usb_set_connected_cb failed[%d]", ret);
    return true;
}

void CMOXUSBMgr::m_DeinitUSB() {
    // Only the manager that started the service stops it.
    if (m_bConnected) usb_device_fini();
}

void CMOXUSBMgr::SetNotificationCb(MOXUSBNotificationCb cb, void* userData) {
    mox::MutexLock lock(m_cbMutex);
    m_notificationCb = cb;
    m_pUserData = userData;
}

void* CMOXUSBMgr::GetUserData() {
    mox::MutexLock lock(m_cbMutex);
    return m_pUserData;
}

bool CMOXUSBMgr::GetUsbStorages(std::vector<UsbDevicePtr>& out) {
    if (!m_bConnected) {
        MOX_WARN("m_bConnected is false...");
        return false;
    }
    if (!m_GetUsbStorages(out)) {
        MOX_WARN("m_GetUsbStorages failed...");
        return false;
    }
    return true;
}

bool CMOXUSBMgr::GetPtpStorages(std::vector<UsbDevicePtr>& out) {
    if (!m_bConnected) {
        MOX_WARN("m_bConnected is false...");
        return false;
    }
    if (!m_GetPtpStorages(out)) {
        MOX_WARN("m_GetPtpStorages failed...");
        return false;
    }
    return true;
}

void CMOXUSBMgr::m_TakeRecords(std::vector<HandleRef>& devices, std::vector<SKnown>& known,
                               std::vector<UsbDevicePtr>& out) {
    std::vector<SKnown> seen;
    seen.reserve(devices.size());
    for (HandleRef& device : devices) {
        auto it =
            std::find_if(known.begin(), known.end(), [&](const SKnown& k) { return k.handle.get() == device.get(); });
        UsbDevicePtr record;
        if (it != known.end()) {
            record = it->record;
        } else {
            record = std::make_shared<CMOXUSBDevice>();
            m_SetStorageInfo(device.get(), record);
        }
        out.push_back(record);
        seen.push_back({std::move(device), std::move(record)});
    }
    known.swap(seen);
}

bool CMOXUSBMgr::m_GetUsbStorages(std::vector<UsbDevicePtr>& out) {
    const std::string root = mox_host::UsbRoot();
    std::vector<HandleRef> devices;
    bool ok = WalkDeviceList(USB_DEVICE_CLASS_MASS_STORAGE, [&](usb_device_h device) {
        const char* mountPath = usb_device_get_mountpath(device);
        if (!mountPath || !strstr(mountPath, root.c_str())) {
            MOX_DEBUG("%s is not mounted under %s", OrNull(usb_device_get_devname(device)), root.c_str());
            return;
        }
        devices.emplace_back(usb_device_ref(device));
    });
    if (!ok) return false;
    mox::MutexLock lock(m_knownMutex);
    m_TakeRecords(devices, m_knownUsb, out);
    return true;
}

bool CMOXUSBMgr::m_GetPtpStorages(std::vector<UsbDevicePtr>& out) {
    std::vector<HandleRef> devices;
    bool ok = WalkDeviceList(USB_DEVICE_CLASS_STILL_IMAGE, [&](usb_device_h device) {
        if (usb_device_get_class(device) == USB_DEVICE_CLASS_STILL_IMAGE) devices.emplace_back(usb_device_ref(device));
    });
    if (!ok) return false;
    mox::MutexLock lock(m_knownMutex);
    m_TakeRecords(devices, m_knownPtp, out);
    return true;
}

void CMOXUSBMgr::m_SetStorageInfo(usb_device_h device, UsbDevicePtr& record) {
    const char* devname = usb_device_get_devname(device);
    // The platform's device name is the identity clients see as "id".
    record->SetDeviceName(devname);
    record->SetDeviceID(devname);
    record->SetDiskType(usb_mass_storage_get_disk_type(device));
    record->SetManufacturer(usb_device_get_manufacturer(device));
    record->SetVendorID(usb_device_get_vendor_id(device));
    record->SetFileSystem(usb_mass_storage_get_filesystem_type(device));
    record->SetModelName(usb_device_get_product(device));
    record->SetSerial(usb_device_get_serial(device));
    record->SetMountPath(usb_device_get_mountpath(device));
    record->SetPartitionLabel(usb_device_get_partlabel(device));
    record->SetAddress(usb_device_get_address(device));
    record->SetBus(usb_device_get_bus(device));
    record->SetDeviceClass(usb_device_get_class(device));
}

void CMOXUSBMgr::s_USBConnctedCallback(usb_device_h device, const char* action, void* userData) {
    if (!action || !userData) {
        MOX_WARN("action[%p], user_data[%p]...", static_cast<const void*>(action), userData);
        return;
    }
    auto* pThis = static_cast<CMOXUSBMgr*>(userData);
    try {
        UsbDevicePtr record = std::make_shared<CMOXUSBDevice>();
        mox_storage_event_e event;
        if (!strcmp(action, "mounted") || !strcmp(action, "blocked")) {
            MOX_INFO("ACTION: %s, PATH: %s, F/S: %d, TYPE: %d", action, OrNull(usb_device_get_mountpath(device)),
                     usb_mass_storage_get_filesystem_type(device), usb_device_get_class(device));
            event = action[0] == 'm' ? MOX_STORAGE_CONNECTED : MOX_STORAGE_DISCONNECTED;
        } else if ((!strcmp(action, "added") || !strcmp(action, "removed")) &&
                   usb_device_get_class(device) == USB_DEVICE_CLASS_STILL_IMAGE) {
            MOX_INFO("ACTION : [%s], is USB_CAMERA...", action);
            event = action[0] == 'a' ? MOX_STORAGE_CONNECTED : MOX_STORAGE_DISCONNECTED;
        } else {
            // Mass storage is reported through "mounted"/"blocked" only.
            return;
        }
        m_SetStorageInfo(device, record);

        MOXUSBNotificationCb cb;
        void* cbData;
        {
            mox::MutexLock lock(pThis->m_cbMutex);
            cb = pThis->m_notificationCb;
            cbData = pThis->m_pUserData;
        }
        if (!cb) {
            MOX_WARN("no notification callback yet, %s of %s dropped", action, OrNull(usb_device_get_devname(device)));
            return;
        }
        cb(device, record, event, cbData);
    } catch (const std::exception& e) {
        // Nothing may unwind into the platform's C thread.
        MOX_WARN("USB event %s failed: %s", action, e.what());
    }
}
