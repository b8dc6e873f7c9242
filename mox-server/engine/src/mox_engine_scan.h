// CMOXEngineScan: the engine's device checks and folder thumbnail requests
// over the scan manager, and the end callbacks that answer the client with
// mox_scanner_done / mox_folder_thumb_done. Start and remove calls run on the
// main loop (removals by device also on the USB service's thread); the end
// callbacks run on scanner threads and take no engine lock. Meant to be
// folded into CMOXEngineImp, whose members these are.
#pragma once

#include <gio/gio.h>

#include <string>

class CMOXEngineScan {
public:
    // Starts a check-mode scanner on `mountPath`, which must resolve below the
    // USB root. true and the scanner's id, or false (nothing left behind).
    static bool StartCheckingDevice(GDBusConnection* connection, const char* sender, const char* objectPath,
                                    const char* interfaceName, const char* mountPath, int& scannerId);
    // Queues a folder thumbnail request for a folder below the USB root.
    static bool FolderThumbnailScan(GDBusConnection* connection, const char* sender, const char* objectPath,
                                    const char* interfaceName, const char* folderPath, const char* category,
                                    unsigned int count, int pid);

    static void cb_scannerEnd(void* pUserData, int nScannerResult);
    static void cb_scanFolderThumbEnd(void* pUserData, int nScannerResult);

    static void RemoveScanner(int id);
    static void RemoveScannerOfDevice(const char* mountPath);
    static void RemoveScannerOfFolder(const char* folderPath, const char* category, unsigned int count, int pid);
    static void RemoveThumbnailByDevice(const char* mountPath);

    // `path` resolved (links and ".." included) strictly below the USB root,
    // spelt with the USB root as configured; false (logged) otherwise.
    static bool ConfineToUsbRoot(const char* path, std::string& confined);
    // Media group filter of a content category ("CONTENT-IMAGE" 2, ... 15).
    static int MediaGroupOfCategory(const std::string& category);
    // Mount path of a folder below the USB root: cut at the first "/" from
    // the third character of the device name on; empty when `folder` is not
    // below the root.
    static std::string MountPathOf(const std::string& folder);
};
