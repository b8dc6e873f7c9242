// Simulated USB device service over a spool directory: every DIR/NAME.json
// (NAME not empty and not starting with '.') describes one attached device.
// A file that is renamed into place or closed after writing plugs its device
// in; deleting or renaming it away unplugs the device as it was last read.
// A file rewritten with different contents unplugs the old device and plugs
// the new one; identical contents change nothing. Malformed or partial files
// (not a JSON object, wrong member types or negative integers, missing
// "devname"/"class", a mass storage without "mount_path", over 64 KiB, not a
// regular file) are ignored with a warning and leave the device of that name
// as it was. A file deleted before the service read it was never plugged in.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <mox_unique_fd.h>
#include "mox_thread_annotations.h"
#include "usb_backend.h"
#include "usb_poll_thread.h"

class UsbSpoolBackend : public UsbBackend {
public:
    explicit UsbSpoolBackend(std::string dir);
    ~UsbSpoolBackend() override;

    int Start(UsbEventSink* sink) override;
    void Stop() override;
    void List(int usbClass, std::vector<UsbDeviceRef>& out) override;

    // Reads one device file: 0, -ENOENT when it is gone, -EINVAL (with the
    // reason) when it does not describe a device.
    static int ReadDeviceFile(const std::string& path, UsbDeviceInfo& info, std::string& why);
    // Parses the text of a device file; false (with the reason) when invalid.
    static bool ParseDevice(const std::string& text, UsbDeviceInfo& info, std::string& why);

private:
    struct Event {
        UsbDeviceRef device;
        const char* action;
    };

    void t_Run(int stopFd);
    // Each takes m_mutex, updates m_devices and appends what to report.
    void m_Load(const std::string& name, std::vector<Event>& events);
    void m_Unplug(const std::string& name, std::vector<Event>& events);
    void m_Rescan(std::vector<Event>& events);
    void m_UnplugAll(std::vector<Event>& events);
    // Replaces (or, with an empty device, removes) the device of name.
    void m_SetLocked(const std::string& name, UsbDeviceRef device, std::vector<Event>& events) REQUIRES(m_mutex);

    static bool IsDeviceFileName(const char* name);

    const std::string m_dir;
    UsbEventSink* m_sink = nullptr;  // set by Start, before the thread exists
    mox_util::UniqueFd m_inotify;
    UsbPollThread m_thread;
    mox::Mutex m_mutex;
    std::map<std::string, UsbDeviceRef> m_devices GUARDED_BY(m_mutex);  // file name -> device
};
