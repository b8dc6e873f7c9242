// The USB device service's C interface: backend selection, the one hot-plug
// callback, device lists and the property getters over usb_device_s.
//
// Locks: m_lifeMutex serialises init and fini; m_mutex guards the backend
// pointer only (held briefly, never while calling out); m_cbMutex is held
// while the callback runs so that changing the callback or finishing waits
// for a callback in flight. It is recursive because the callback itself may
// change the callback. Order: m_lifeMutex before m_cbMutex; m_mutex is never
// held together with another. Init and fini refuse to run inside the
// callback (t_delivering): they would take m_lifeMutex under m_cbMutex, and
// fini would join the thread it runs on.
#define MOX_LOG_TAG "MOX-USB"
#include <mox/mox_log.h>

#include <usb_device.h>

#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host_env.h"
#include "mox_thread_annotations.h"
#include "usb_backend.h"
#include "usb_device_record.h"

bool UsbDeviceInfo::operator==(const UsbDeviceInfo& o) const {
    return devname == o.devname && usbClass == o.usbClass && mountPath == o.mountPath && fsType == o.fsType &&
           diskType == o.diskType && vendorId == o.vendorId && manufacturer == o.manufacturer && product == o.product &&
           serial == o.serial && partLabel == o.partLabel && fsUuid == o.fsUuid && address == o.address && bus == o.bus;
}

struct usb_device_list_s {
    std::vector<UsbDeviceRef> devices;
    size_t next = 0;  // index of the device get_next hands out
};

namespace {

// Set while this thread runs the hot-plug callback.
thread_local bool t_delivering = false;

class UsbService : public UsbEventSink {
public:
    int Init();
    int Fini();
    int SetCallback(usb_connected_cb cb, void* userData);
    int List(int usbClass, std::vector<UsbDeviceRef>& out);
    void Deliver(usb_device_h device, const char* action) override;

private:
    std::shared_ptr<UsbBackend> Backend() {
        mox::MutexLock lock(m_mutex);
        return m_backend;
    }

    mox::Mutex m_lifeMutex ACQUIRED_BEFORE(m_cbMutex);
    mox::Mutex m_mutex;
    // Shared so that a list request in progress keeps the backend alive
    // while fini stops it.
    std::shared_ptr<UsbBackend> m_backend GUARDED_BY(m_mutex);
    mox::RecursiveMutex m_cbMutex;
    usb_connected_cb m_cb GUARDED_BY(m_cbMutex) = nullptr;
    void* m_userData GUARDED_BY(m_cbMutex) = nullptr;
};

// Never destroyed: a backend thread may outlive static destruction when a
// process exits without usb_device_fini.
UsbService& Service() {
    static UsbService* service = new UsbService();
    return *service;
}

int UsbService::Init() {
    if (t_delivering) return -EALREADY;
    mox::MutexLock life(m_lifeMutex);
    if (Backend()) {
        MOX_WARN("usb_device_init: already initialised");
        return -EALREADY;
    }
    std::string choice = mox_host::EnvOr("MOX_USB_BACKEND", "udev");
    std::unique_ptr<UsbBackend> backend;
    if (choice == "udev") {
        backend = CreateUsbUdevBackend();
    } else if (choice.rfind("spool:", 0) == 0 && choice.size() > 6) {
        backend = CreateUsbSpoolBackend(choice.substr(6));
    } else {
        MOX_WARN("unknown MOX_USB_BACKEND '%s' (udev or spool:DIR)", choice.c_str());
        return -EINVAL;
    }
    int rc = backend->Start(this);
    if (rc < 0) return rc;
    MOX_INFO("USB device service started (%s)", choice.c_str());
    mox::MutexLock lock(m_mutex);
    m_backend = std::move(backend);
    return 0;
}

int UsbService::Fini() {
    if (t_delivering) {
        MOX_WARN("usb_device_fini called from the hot-plug callback");
        return -EDEADLK;
    }
    mox::MutexLock life(m_lifeMutex);
    std::shared_ptr<UsbBackend> backend;
    {
        mox::MutexLock lock(m_mutex);
        if (!m_backend) return -EALREADY;
        backend = std::move(m_backend);
    }
    backend->Stop();
    mox::RecursiveMutexLock cbLock(m_cbMutex);
    m_cb = nullptr;
    m_userData = nullptr;
    return 0;
}

int UsbService::SetCallback(usb_connected_cb cb, void* userData) {
    if (!Backend()) return -ENODEV;
    mox::RecursiveMutexLock cbLock(m_cbMutex);
    m_cb = cb;
    m_userData = userData;
    return 0;
}

int UsbService::List(int usbClass, std::vector<UsbDeviceRef>& out) {
    std::shared_ptr<UsbBackend> backend = Backend();
    if (!backend) return -ENODEV;
    backend->List(usbClass, out);
    return 0;
}

void UsbService::Deliver(usb_device_h device, const char* action) {
    mox::RecursiveMutexLock cbLock(m_cbMutex);
    if (!m_cb) return;
    struct DeliveringScope {
        DeliveringScope() { t_delivering = true; }
        ~DeliveringScope() { t_delivering = false; }
    } scope;
    m_cb(device, action, m_userData);
}

}  // namespace

extern "C" {

int usb_device_init(void) {
    return Service().Init();
}

int usb_device_fini(void) {
    return Service().Fini();
}

int usb_set_connected_cb(usb_connected_cb cb, void* user_data) {
    return Service().SetCallback(cb, user_data);
}

int usb_device_get_device_list(int usb_class, usb_device_list_h* list) {
    if (!list) return -EINVAL;
    auto result = std::make_unique<usb_device_list_s>();
    int rc = Service().List(usb_class, result->devices);
    if (rc < 0) return rc;
    *list = result.release();
    return 0;
}

int usb_device_list_get_count(usb_device_list_h list) {
    if (!list) return -EINVAL;
    return static_cast<int>(list->devices.size());
}

int usb_device_list_get_first(usb_device_list_h list, usb_device_h* device) {
    if (!list || !device) return -EINVAL;
    list->next = 0;
    return usb_device_list_get_next(list, device);
}

int usb_device_list_get_next(usb_device_list_h list, usb_device_h* device) {
    if (!list || !device) return -EINVAL;
    if (list->next >= list->devices.size()) return -ENODATA;
    *device = list->devices[list->next++].get();
    return 0;
}

int usb_device_free_device_list(usb_device_list_h list) {
    delete list;
    return 0;
}

usb_device_h usb_device_ref(usb_device_h device) {
    if (device) device->refs.fetch_add(1, std::memory_order_relaxed);
    return device;
}

void usb_device_unref(usb_device_h device) {
    if (!device) return;
    // acq_rel: the thread freeing the handle must see every other thread's
    // last use of it.
    int before = device->refs.fetch_sub(1, std::memory_order_acq_rel);
    assert(before > 0);
    if (before == 1) delete device;
}

#define MOX_USB_STRING_GETTER(fn, member)                                                \
    const char* fn(usb_device_h device) {                                                \
        return (device && device->info.member) ? device->info.member->c_str() : nullptr; \
    }
MOX_USB_STRING_GETTER(usb_device_get_manufacturer, manufacturer)
MOX_USB_STRING_GETTER(usb_device_get_product, product)
MOX_USB_STRING_GETTER(usb_device_get_serial, serial)
MOX_USB_STRING_GETTER(usb_device_get_mountpath, mountPath)
MOX_USB_STRING_GETTER(usb_device_get_partlabel, partLabel)
MOX_USB_STRING_GETTER(usb_device_get_fs_uuid, fsUuid)
#undef MOX_USB_STRING_GETTER

const char* usb_device_get_devname(usb_device_h device) {
    return device ? device->info.devname.c_str() : nullptr;
}

#define MOX_USB_INT_GETTER(fn, member)                 \
    int fn(usb_device_h device) {                      \
        return device ? device->info.member : -EINVAL; \
    }
MOX_USB_INT_GETTER(usb_device_get_vendor_id, vendorId)
MOX_USB_INT_GETTER(usb_device_get_address, address)
MOX_USB_INT_GETTER(usb_device_get_bus, bus)
MOX_USB_INT_GETTER(usb_device_get_class, usbClass)
MOX_USB_INT_GETTER(usb_mass_storage_get_filesystem_type, fsType)
MOX_USB_INT_GETTER(usb_mass_storage_get_disk_type, diskType)
#undef MOX_USB_INT_GETTER

}  // extern "C"
