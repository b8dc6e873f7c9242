// CMOXUSBMgr: the only user of the platform USB service. It lists the
// storages present now as CMOXUSBDevice records and forwards the service's
// hot-plug callbacks, as filled records, to one notification callback.
//
// Threads: GetUsbStorages/GetPtpStorages run on the caller's thread; the
// notification callback runs on the USB service's thread, with no lock of
// this class held, and must not destroy this manager. The destructor stops
// the service and waits for a callback in flight, so it must not run while
// holding a lock that the notification callback takes.
// m_knownMutex, a leaf, guards the records of the last enumerations.
// One manager at a time per process: the platform service is initialised once.
#pragma once

#include <memory>
#include <type_traits>
#include <vector>

#include <usb_device.h>

#include "mox_device.h"
#include "mox_storage_defines.h"
#include "mox_thread_annotations.h"

// device: borrowed for the call (take a reference to keep it); record: the
// device's filled record; connected: arrival (true) or departure (false).
// The platform's action text becomes this event once, here; everything after
// it carries the enumeration.
typedef void (*MOXUSBNotificationCb)(usb_device_h device, UsbDevicePtr& record, mox_storage_event_e event,
                                     void* userData);

class CMOXUSBMgr {
public:
    CMOXUSBMgr();
    ~CMOXUSBMgr();
    CMOXUSBMgr(const CMOXUSBMgr&) = delete;
    CMOXUSBMgr& operator=(const CMOXUSBMgr&) = delete;

    void SetNotificationCb(MOXUSBNotificationCb cb, void* userData);
    // False when the platform service did not start: nothing is listed and
    // no event comes until a new manager starts it.
    bool IsConnected() const { return m_bConnected; }
    void* GetUserData();

    // Appends a record per mass-storage partition mounted under the USB root.
    bool GetUsbStorages(std::vector<UsbDevicePtr>& out);
    // Appends a record per camera.
    bool GetPtpStorages(std::vector<UsbDevicePtr>& out);

private:
    // Fills record from the platform device's properties.
    static void m_SetStorageInfo(usb_device_h device, UsbDevicePtr& record);
    bool m_InitUSB();
    void m_DeinitUSB();
    bool m_GetUsbStorages(std::vector<UsbDevicePtr>& out);
    bool m_GetPtpStorages(std::vector<UsbDevicePtr>& out);

    struct SHandleUnref {
        void operator()(usb_device_h device) const { usb_device_unref(device); }
    };
    using HandleRef = std::unique_ptr<std::remove_pointer_t<usb_device_h>, SHandleUnref>;
    struct SKnown {
        HandleRef handle;  // a reference of our own: the address is not reused
        UsbDevicePtr record;
    };
    // Appends the record of each device to out: the one `known` (the last
    // enumeration of that class) has for its handle, or a new one; `known`
    // then holds this enumeration.
    void m_TakeRecords(std::vector<HandleRef>& devices, std::vector<SKnown>& known, std::vector<UsbDevicePtr>& out)
        REQUIRES(m_knownMutex);

    static void s_USBConnctedCallback(usb_device_h device, const char* action, void* userData);

    // The service may report an event before SetNotificationCb: the two
    // fields are read on its thread.
    mox::Mutex m_cbMutex;
    MOXUSBNotificationCb m_notificationCb GUARDED_BY(m_cbMutex) = nullptr;
    void* m_pUserData GUARDED_BY(m_cbMutex) = nullptr;
    bool m_bConnected = false;  // set by the constructor only
    // A handle is an immutable snapshot, so a device the service still lists
    // by the same handle keeps its record: the storage manager then finds the
    // same records and reuses the document text it made from them.
    mox::Mutex m_knownMutex;
    std::vector<SKnown> m_knownUsb GUARDED_BY(m_knownMutex);
    std::vector<SKnown> m_knownPtp GUARDED_BY(m_knownMutex);
};
