// Platform USB device service: mass-storage partitions and cameras attached to
// the set, listed on demand and reported by a hot-plug callback.
//
// Backend (MOX_USB_BACKEND, read by usb_device_init):
//   "udev" (default)  libudev enumeration and monitor plus the mount table.
//                     Mass storage is reported "mounted" when a USB partition
//                     appears mounted under the USB root (MOX_USB_ROOT, default
//                     /opt/storage/usb) and "blocked" when that mount or the
//                     partition goes; cameras (USB class 6) "added"/"removed".
//                     The mount table is /proc/self/mountinfo; MOX_MOUNTINFO
//                     names another file in the same format instead (a test
//                     seam: the file is re-read whenever it is rewritten or
//                     renamed into place).
//   "spool:DIR"       simulated devices: each DIR/NAME.json is one device;
//                     renaming it into place plugs it in, deleting it unplugs
//                     it. Malformed or partial files are ignored with a warning.
//
// Threads: hot-plug callbacks run on the backend's own thread, one at a time,
// never on a GLib main loop. Every other function may be called from any
// thread, including from inside the callback, except usb_device_fini.
// usb_set_connected_cb and usb_device_fini wait for a callback in flight, so
// neither may be called while holding a lock that the callback takes.
//
// Handles: a usb_device_h is an immutable, reference-counted snapshot of a
// device's properties. Strings returned by the getters live as long as the
// handle. A handle passed to the hot-plug callback is borrowed for the call;
// a callee that keeps it (or hands it on, e.g. to a handler that "frees" it)
// takes its own reference with usb_device_ref and drops it with
// usb_device_unref. Handles taken from a list are borrowed from the list and
// stay valid until usb_device_free_device_list unless referenced. Handles
// stay valid after usb_device_fini.
//
// Return codes: 0 on success, a negative errno value on failure.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

typedef struct usb_device_s* usb_device_h;
typedef struct usb_device_list_s* usb_device_list_h;

// USB class codes as the service reports them (usb_device_get_class) and as
// usb_device_get_device_list selects them.
enum {
    USB_DEVICE_CLASS_STILL_IMAGE = 6,   // cameras (PTP)
    USB_DEVICE_CLASS_MASS_STORAGE = 8,  // disks; one device per mounted partition
};

// File-system codes of usb_mass_storage_get_filesystem_type.
enum {
    USB_MASS_STORAGE_FS_VFAT = 0,
    USB_MASS_STORAGE_FS_EXT4 = 2,
    USB_MASS_STORAGE_FS_NTFS = 3,
    USB_MASS_STORAGE_FS_UNKNOWN = 9,  // any other or no file system
};

// Disk-type codes of usb_mass_storage_get_disk_type (udev backend: the
// disk's "removable" attribute; the spool backend passes its value through).
enum {
    USB_MASS_STORAGE_DISK_REMOVABLE = 1,  // flash stick, card reader
    USB_MASS_STORAGE_DISK_FIXED = 2,      // hard disk in a USB enclosure
};

// device: borrowed for the duration of the call. action: "mounted",
// "blocked" (mass storage), "added", "removed" (every other class). A
// "blocked" or "removed" device carries the properties it had when it was
// last seen, mount path included.
typedef void (*usb_connected_cb)(usb_device_h device, const char* action, void* user_data);

// Starts the backend chosen by MOX_USB_BACKEND and takes the first inventory
// of devices (no callback is made for devices present at start). -EALREADY
// when already initialised, -EINVAL for an unknown backend, another negative
// value when the backend cannot start.
int usb_device_init(void);
// Stops the backend and joins its thread; when it returns, no callback is
// running or will run. Clears the callback. -EALREADY when not initialised,
// -EDEADLK when called from inside the callback.
int usb_device_fini(void);

// Installs (cb != NULL) or removes (cb == NULL) the one hot-plug callback.
// -ENODEV when not initialised.
int usb_set_connected_cb(usb_connected_cb cb, void* user_data);

// The devices of one USB class present now (mass storage: mounted partitions
// under the USB root). The list owns one reference to each device.
// -EINVAL for a null out pointer, -ENODEV when not initialised.
int usb_device_get_device_list(int usb_class, usb_device_list_h* list);
// Number of devices, or -EINVAL for a null list.
int usb_device_list_get_count(usb_device_list_h list);
// Rewinds the list and gives its first device (borrowed); -ENODATA when empty.
int usb_device_list_get_first(usb_device_list_h list, usb_device_h* device);
// The device after the last one handed out (borrowed); -ENODATA at the end.
int usb_device_list_get_next(usb_device_list_h list, usb_device_h* device);
// Frees the list and drops its references; NULL is accepted.
int usb_device_free_device_list(usb_device_list_h list);

// Takes a reference; returns device (NULL stays NULL).
usb_device_h usb_device_ref(usb_device_h device);
// Drops a reference; the last one frees the handle. NULL is accepted.
void usb_device_unref(usb_device_h device);

// String properties: NULL when the device has none (a camera has no mount
// path, file-system label, ...) or the handle is NULL.
const char* usb_device_get_devname(usb_device_h device);
const char* usb_device_get_manufacturer(usb_device_h device);
const char* usb_device_get_product(usb_device_h device);
const char* usb_device_get_serial(usb_device_h device);
const char* usb_device_get_mountpath(usb_device_h device);
const char* usb_device_get_partlabel(usb_device_h device);
// The file system's UUID (udev ID_FS_UUID, spool member "fs_uuid"); NULL when
// unknown.
const char* usb_device_get_fs_uuid(usb_device_h device);

// Integer properties: the value (0 when unknown), -EINVAL for a NULL handle.
int usb_device_get_vendor_id(usb_device_h device);
int usb_device_get_address(usb_device_h device);
int usb_device_get_bus(usb_device_h device);
int usb_device_get_class(usb_device_h device);
// USB_MASS_STORAGE_FS_* (a spool file may carry any code); -EINVAL for NULL.
int usb_mass_storage_get_filesystem_type(usb_device_h device);
// USB_MASS_STORAGE_DISK_* (0 when unknown); -EINVAL for NULL.
int usb_mass_storage_get_disk_type(usb_device_h device);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
