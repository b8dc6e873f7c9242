// What the USB device service needs from a backend. A backend keeps the
// devices present now, reports changes to the sink on its own thread, and
// answers List from any thread. Start and Stop are called once each, by the
// service's init and fini, never concurrently.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "usb_device_record.h"

class UsbEventSink {
public:
    virtual ~UsbEventSink() = default;
    // Called on the backend's thread, one event at a time, in order.
    virtual void Deliver(usb_device_h device, const char* action) = 0;
};

class UsbBackend {
public:
    virtual ~UsbBackend() = default;
    // Takes the first inventory (no events for it) and starts the thread;
    // 0 or a negative errno value (logged).
    virtual int Start(UsbEventSink* sink) = 0;
    // Stops and joins the thread: no Deliver runs once it returns.
    virtual void Stop() = 0;
    // Appends the devices of usbClass present now.
    virtual void List(int usbClass, std::vector<UsbDeviceRef>& out) = 0;
};

std::unique_ptr<UsbBackend> CreateUsbSpoolBackend(const std::string& dir);
std::unique_ptr<UsbBackend> CreateUsbUdevBackend();

// The action that reports a device of usbClass arriving or leaving.
inline const char* UsbArrivalAction(int usbClass) {
    return usbClass == USB_DEVICE_CLASS_MASS_STORAGE ? "mounted" : "added";
}
inline const char* UsbDepartureAction(int usbClass) {
    return usbClass == USB_DEVICE_CLASS_MASS_STORAGE ? "blocked" : "removed";
}
