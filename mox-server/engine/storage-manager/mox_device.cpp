#define MOX_LOG_TAG "MOX-STORAGE"
#include <mox/mox_log.h>

#include "mox_device.h"

#include <sys/statfs.h>

#include <cstring>

namespace {

void AssignIfSet(std::string& field, const char* value) {
    if (value) field = value;
}

// statfs of path into *out; false when it fails (the record then reports 0).
bool StatFs(const std::string& path, struct statfs* out) {
    memset(out, 0, sizeof(*out));
    return statfs(path.c_str(), out) == 0;
}

}  // namespace

void CMOXDevice::SetDeviceID(const char* szID) {
    AssignIfSet(m_strDeviceID, szID);
}
void CMOXDevice::SetDeviceName(const char* szName) {
    AssignIfSet(m_strDeviceName, szName);
}

void CMOXUSBDevice::SetManufacturer(const char* szManufacturer) {
    AssignIfSet(m_strManufacturer, szManufacturer);
}
void CMOXUSBDevice::SetModelName(const char* szModelName) {
    AssignIfSet(m_strModelName, szModelName);
}
void CMOXUSBDevice::SetSerial(const char* szSerial) {
    AssignIfSet(m_strSerial, szSerial);
}
void CMOXUSBDevice::SetMountPath(const char* szMountPath) {
    AssignIfSet(m_strMountPath, szMountPath);
}
void CMOXUSBDevice::SetPartitionLabel(const char* szPartitionLabel) {
    AssignIfSet(m_strPartitionLabel, szPartitionLabel);
}

void CMOXUSBDevice::SetDiskType(int nPlatformDiskType) {
    m_nDiskType = nPlatformDiskType == 1 ? MOX_USB_DISK_TYPE_1 : MOX_USB_DISK_TYPE_OTHER;
}

void CMOXUSBDevice::SetFileSystem(int nPlatformFileSystem) {
    switch (nPlatformFileSystem) {
        case 0: m_nFileSystem = MOX_USB_FS_VFAT; break;
        case 2: m_nFileSystem = MOX_USB_FS_EXT4; break;
        case 3: m_nFileSystem = MOX_USB_FS_NTFS; break;
        default: m_nFileSystem = MOX_USB_FS_UNKNOWN; break;
    }
}

void CMOXUSBDevice::SetDeviceClass(int nUsbClass) {
    switch (nUsbClass) {
        case 8: m_nDeviceClass = MOX_USB_CLASS_MSC; break;
        case 6: m_nDeviceClass = MOX_USB_CLASS_PTP; break;
        default: m_nDeviceClass = MOX_USB_CLASS_OTHER; break;
    }
}

long long CMOXUSBDevice::GetDeviceTotalSize() const {
    struct statfs st;
    if (!StatFs(m_strMountPath, &st)) return 0;
    return static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_blocks) / 1024;
}

long long CMOXUSBDevice::GetDeviceAvailableSize() const {
    struct statfs st;
    if (!StatFs(m_strMountPath, &st)) return 0;
    // f_bfree, not f_bavail: the blocks reserved for root count as available.
    return static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_bfree) / 1024;
}

void CMOXUSBDevice::GetDeviceSizes(long long& llTotal, long long& llAvailable) const {
    struct statfs st;
    if (!StatFs(m_strMountPath, &st)) {
        llTotal = llAvailable = 0;
        return;
    }
    llTotal = static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_blocks) / 1024;
    llAvailable = static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_bfree) / 1024;
}

void CMOXUSBDevice::PrintUSBInfo(bool bConnected) const {
    MOX_DEBUG("  ============== %s ============= ", bConnected ? "Connect" : "Disconnect");
    MOX_DEBUG("  MountPath : %s \n", m_strMountPath.c_str());
    MOX_DEBUG("  Device Name : %s \n", GetDeviceName().c_str());
    MOX_DEBUG("  Manufacturer :%s \n", m_strManufacturer.c_str());
    MOX_DEBUG("  Model Name : %s \n", m_strModelName.c_str());
    MOX_DEBUG("  Device Index : %d\n", m_nDeviceIndex);
}

void CMOXDLNADevice::PrintDlnaInfo(bool bConnected) const {
    MOX_DEBUG("  ============== %s ============= ", bConnected ? "Connect" : "Disconnect");
    MOX_DEBUG(" Dlna Device ID = %s \n", GetDeviceID().c_str());
    MOX_DEBUG(" Dlna Device Name = %s \n", GetDeviceName().c_str());
    MOX_DEBUG(" Dlna Device IP = %s \n", m_strDeviceIP.c_str());
    MOX_DEBUG(" Dlna IsNorvellDevice = %d", m_bNorvellDevice);
}
