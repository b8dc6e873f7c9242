// Types shared by the storage manager and the daemon: storage events, the
// storage kinds of get_usb_storages, the record of a bound client and the two
// callbacks the daemon registers.
#pragma once

#include <sys/types.h>

#include <string>

#include <gio/gio.h>

#include <usb_device.h>

typedef enum {
    MOX_STORAGE_NONE = 0,
    MOX_STORAGE_CONNECTED = 1,     // mounted
    MOX_STORAGE_DISCONNECTED = 2,  // unmounted
} mox_storage_event_e;
typedef mox_storage_event_e EMOXStorageEvent;

typedef enum {
    MOX_STORAGE_DEVICE_USB = 1,  // mass-storage partitions
    MOX_STORAGE_DEVICE_PTP = 2,  // cameras
} mox_storage_device_type;

// A client bound to storage notifications. connection is the daemon's own bus
// connection, not owned by the record. Equal when all four fields are equal.
struct dbus_connection_info_s {
    GDBusConnection* connection = nullptr;
    std::string sender;
    std::string objectPath;
    std::string interfaceName;
    // The caller's user id as the bus knows it; (uid_t)-1 when unknown. Not
    // part of the identity: the sender's unique name already is.
    uid_t uid = static_cast<uid_t>(-1);

    bool operator==(const dbus_connection_info_s& other) const {
        return connection == other.connection && sender == other.sender && objectPath == other.objectPath &&
               interfaceName == other.interfaceName;
    }
    bool operator!=(const dbus_connection_info_s& other) const { return !(*this == other); }
};
typedef dbus_connection_info_s SDBusConnectionInfo;

// The daemon's handler of storage events. It owns the device handle it is
// given and releases it with usb_device_unref ("frees" it) on every path.
typedef void (*MOXStorageInternalCb)(usb_device_h device, mox_storage_event_e event, void* userData);
// Sends one bound client the notification of an event: `payload` is the
// finished mox_usb_notification text (CMOXStorageMgr::NotificationDocument),
// built once per event.
typedef void (*MOXStorageNotificationCb)(const dbus_connection_info_s& client, mox_storage_event_e event,
                                         const std::string& payload);
