// Device records of attached storages. A CMOXUSBDevice describes one USB
// mass-storage partition or one camera as the platform USB service reports
// it; records are shared through UsbDevicePtr between the USB manager, which
// creates and fills them on the thread that enumerates or receives the
// hot-plug event, and the storage manager, which keeps them in its lists.
// A record is filled completely before it is shared; afterwards only the
// storage manager changes it (the device index), under its mutex. Records do
// no locking of their own. The USB manager hands out the same record again
// for as long as the service lists the device by the same handle.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

// CMOXUSBDevice::GetFileSystem values.
enum {
    MOX_USB_FS_VFAT = 1,
    MOX_USB_FS_EXT4 = 2,
    MOX_USB_FS_NTFS = 3,
    MOX_USB_FS_UNKNOWN = 4,
};

// CMOXUSBDevice::GetDeviceClass values.
enum {
    MOX_USB_CLASS_MSC = 0,  // mass storage
    MOX_USB_CLASS_PTP = 1,  // camera (still image)
    MOX_USB_CLASS_OTHER = 2,
};

// CMOXUSBDevice::GetDiskType values.
enum {
    MOX_USB_DISK_TYPE_1 = 1,  // the platform's disk type 1
    MOX_USB_DISK_TYPE_OTHER = 2,
};

// Mount path of a record whose device has none (cameras).
#define MOX_USB_NO_MOUNT_PATH "n/a"

class CMOXDevice {
public:
    CMOXDevice() = default;
    virtual ~CMOXDevice() = default;

    virtual std::string GetDeviceID() const { return m_strDeviceID; }
    virtual std::string GetDeviceName() const { return m_strDeviceName; }
    // A null string keeps the previous value.
    void SetDeviceID(const char* szID);
    void SetDeviceName(const char* szName);

private:
    std::string m_strDeviceID;
    std::string m_strDeviceName;
};

class CMOXUSBDevice : public CMOXDevice {
public:
    CMOXUSBDevice() = default;

    int GetVendorID() const { return m_nVendorID; }
    void SetVendorID(int nVendorID) { m_nVendorID = nVendorID; }
    std::string GetManufacturer() const { return m_strManufacturer; }
    void SetManufacturer(const char* szManufacturer);
    int GetDiskType() const { return m_nDiskType; }
    // Takes the platform's disk type: 1 stays 1, everything else is 2.
    void SetDiskType(int nPlatformDiskType);
    int GetFileSystem() const { return m_nFileSystem; }
    // Takes the platform's file-system code: 0 VFAT, 2 EXT4, 3 NTFS, else unknown.
    void SetFileSystem(int nPlatformFileSystem);
    std::string GetModelName() const { return m_strModelName; }
    void SetModelName(const char* szModelName);
    std::string GetSerial() const { return m_strSerial; }
    void SetSerial(const char* szSerial);
    std::string GetDeviceMountPath() const { return m_strMountPath; }
    void SetMountPath(const char* szMountPath);
    std::string GetPartitionLabel() const { return m_strPartitionLabel; }
    void SetPartitionLabel(const char* szPartitionLabel);
    int GetAddress() const { return m_nAddress; }
    void SetAddress(int nAddress) { m_nAddress = nAddress; }
    int GetBus() const { return m_nBus; }
    void SetBus(int nBus) { m_nBus = nBus; }
    int GetDeviceClass() const { return m_nDeviceClass; }
    // Takes the USB class: 8 mass storage, 6 still image, anything else other.
    void SetDeviceClass(int nUsbClass);
    int GetDeviceIndex() const { return m_nDeviceIndex.load(std::memory_order_relaxed); }
    void SetDeviceIndex(int nDeviceIndex) { m_nDeviceIndex.store(nDeviceIndex, std::memory_order_relaxed); }

    // Sizes in KiB of the file system at the mount path, asked of statfs on
    // every call; 0 when it cannot be asked. The available size counts the
    // blocks reserved for the superuser too.
    long long GetDeviceTotalSize() const;
    long long GetDeviceAvailableSize() const;
    // Both sizes from one statfs call (both 0 when it cannot be asked);
    // nAsked, when not 0, names the call AskDeviceSizes() started.
    void GetDeviceSizes(long long& llTotal, long long& llAvailable, uint64_t nAsked = 0) const;
    // Starts the statfs call that GetDeviceSizes(.., returned value) waits
    // for, so that several storages are asked at once, not one after another.
    // nArrival (from LatestArrival(), read when a get_usb_storages call is
    // taken) lets it use the call asked when that call arrived.
    uint64_t AskDeviceSizes(uint64_t nArrival = 0) const;
    // Whether the statfs AskDeviceSizes() returned nAsked for has answered,
    // waiting for it until `deadline` at most, and not at all while the
    // storage's statfs is stuck. GetDeviceSizes(.., nAsked) then returns at once.
    bool SizesIn(uint64_t nAsked, std::chrono::steady_clock::time_point deadline) const;
    // Asks every storage queried lately for a statfs now, if the prober runs:
    // called on the bus's message thread when a get_usb_storages call
    // arrives, so that the sizes are read while the call travels to the main
    // loop. Returns the arrival's number.
    static uint64_t AskSizesOnArrival();
    // The number of the latest AskSizesOnArrival() (0: none yet).
    static uint64_t LatestArrival();

    void PrintUSBInfo(bool bConnected) const;

private:
    int m_nVendorID = 0;
    std::string m_strManufacturer;
    int m_nDiskType = MOX_USB_DISK_TYPE_OTHER;
    int m_nFileSystem = MOX_USB_FS_UNKNOWN;
    std::string m_strModelName;  // also the key of device-index assignment
    std::string m_strSerial;
    std::string m_strMountPath = MOX_USB_NO_MOUNT_PATH;
    std::string m_strPartitionLabel;
    int m_nAddress = 0;
    int m_nBus = 0;
    int m_nDeviceClass = MOX_USB_CLASS_OTHER;
    // 1 to 100 once assigned. Atomic: a record stays in use while the device
    // is listed, and a document may be read from it while a query assigns.
    std::atomic<int> m_nDeviceIndex{0};
};

// A network media server.
class CMOXDLNADevice : public CMOXDevice {
public:
    CMOXDLNADevice() = default;

    std::string GetDeviceIP() const { return m_strDeviceIP; }  // NOLINT(bugprone-virtual-near-miss): not an ID
    void SetDeviceIP(std::string strDeviceIP) { m_strDeviceIP = std::move(strDeviceIP); }
    // Whether the server is one of the maker's own devices.
    bool IsNorvellDev() const { return m_bNorvellDevice; }
    void SetNorvellDev(bool bNorvellDevice) { m_bNorvellDevice = bNorvellDevice; }

    void PrintDlnaInfo(bool bConnected) const;

private:
    std::string m_strDeviceIP;
    bool m_bNorvellDevice = false;
};

typedef std::shared_ptr<CMOXUSBDevice> UsbDevicePtr;
