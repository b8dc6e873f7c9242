// Collects the USB service's hot-plug callbacks so that a test can wait for
// them. Each event copies what the handle said during the callback and keeps
// a reference to the handle, to check it outlives the callback.
#pragma once

#include <usb_device.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace moxtest {

struct UsbEvent {
    std::string action;
    std::string devname;
    std::string mountPath;  // "" when the device has none
    int usbClass = 0;
    int diskType = 0;
    int vendorId = 0;
    std::string manufacturer;
    std::string product;
    std::string serial;
    std::string partLabel;
    int address = 0;
    std::thread::id thread;
};

inline std::string UsbText(const char* s) {
    return s ? s : "";
}

inline UsbEvent UsbEventOf(usb_device_h device, const char* action) {
    UsbEvent e;
    e.action = UsbText(action);
    e.devname = UsbText(usb_device_get_devname(device));
    e.mountPath = UsbText(usb_device_get_mountpath(device));
    e.usbClass = usb_device_get_class(device);
    e.diskType = usb_mass_storage_get_disk_type(device);
    e.vendorId = usb_device_get_vendor_id(device);
    e.manufacturer = UsbText(usb_device_get_manufacturer(device));
    e.product = UsbText(usb_device_get_product(device));
    e.serial = UsbText(usb_device_get_serial(device));
    e.partLabel = UsbText(usb_device_get_partlabel(device));
    e.address = usb_device_get_address(device);
    e.thread = std::this_thread::get_id();
    return e;
}

class UsbEventRecorder {
public:
    static void Callback(usb_device_h device, const char* action, void* userData) {
        static_cast<UsbEventRecorder*>(userData)->Add(UsbEventOf(device, action));
    }

    void Add(UsbEvent event) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(std::move(event));
        m_cond.notify_all();
    }

    // Waits until at least count events arrived; false on timeout.
    bool WaitFor(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cond.wait_for(lock, timeout, [&] { return m_events.size() >= count; });
    }

    std::vector<UsbEvent> Events() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::vector<UsbEvent> m_events;  // GUARDED_BY(m_mutex)
};

// The devnames of the devices of one class listed now, in list order.
inline std::vector<std::string> UsbListed(int usbClass) {
    std::vector<std::string> names;
    usb_device_list_h list = nullptr;
    if (usb_device_get_device_list(usbClass, &list) != 0) return {"<list failed>"};
    int count = usb_device_list_get_count(list);
    usb_device_h device = nullptr;
    for (int i = 0; i < count; ++i) {
        if ((i == 0 ? usb_device_list_get_first(list, &device) : usb_device_list_get_next(list, &device)) != 0) break;
        names.push_back(UsbText(usb_device_get_devname(device)));
    }
    usb_device_free_device_list(list);
    return names;
}

}  // namespace moxtest
