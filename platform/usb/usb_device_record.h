// The object behind a usb_device_h: one device's properties, fixed when the
// backend creates it, plus an atomic reference count. Because the properties
// never change, a handle may be read from any thread without a lock; the
// backends keep the handle of a device as "last known" and report exactly it
// when the device goes.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <utility>

#include <usb_device.h>

struct UsbDeviceInfo {
    std::string devname;
    int usbClass = 0;
    std::optional<std::string> mountPath;
    int fsType = USB_MASS_STORAGE_FS_UNKNOWN;
    int diskType = 0;
    int vendorId = 0;
    std::optional<std::string> manufacturer;
    std::optional<std::string> product;
    std::optional<std::string> serial;
    std::optional<std::string> partLabel;
    std::optional<std::string> fsUuid;
    int address = 0;
    int bus = 0;

    bool operator==(const UsbDeviceInfo& other) const;
    bool operator!=(const UsbDeviceInfo& other) const { return !(*this == other); }
};

struct usb_device_s {
    explicit usb_device_s(UsbDeviceInfo i) : info(std::move(i)) {}
    std::atomic<int> refs{1};
    const UsbDeviceInfo info;
};

// Owning reference to a handle (one usb_device_ref/usb_device_unref pair).
class UsbDeviceRef {
public:
    UsbDeviceRef() = default;
    // A new handle holding info, with its first reference owned here.
    static UsbDeviceRef Create(UsbDeviceInfo info) { return UsbDeviceRef(new usb_device_s(std::move(info))); }
    // Takes an additional reference to an existing handle.
    static UsbDeviceRef Share(usb_device_h device) { return UsbDeviceRef(usb_device_ref(device)); }

    ~UsbDeviceRef() { usb_device_unref(m_device); }
    UsbDeviceRef(const UsbDeviceRef& other) : m_device(usb_device_ref(other.m_device)) {}
    UsbDeviceRef(UsbDeviceRef&& other) noexcept : m_device(std::exchange(other.m_device, nullptr)) {}
    UsbDeviceRef& operator=(UsbDeviceRef other) noexcept {
        std::swap(m_device, other.m_device);
        return *this;
    }

    usb_device_h get() const { return m_device; }
    const UsbDeviceInfo& info() const { return m_device->info; }
    explicit operator bool() const { return m_device != nullptr; }
    // Gives up ownership of the reference to the caller.
    usb_device_h release() { return std::exchange(m_device, nullptr); }

private:
    explicit UsbDeviceRef(usb_device_h device) : m_device(device) {}
    usb_device_h m_device = nullptr;
};
