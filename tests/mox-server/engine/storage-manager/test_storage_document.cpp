// The storage document's exact bytes: clients parse it, some byte by byte,
// so its text must not change when the way it is produced does. It is
// compared, for a stick, a camera and random records with awkward strings,
// with the document jsoncpp's styled writer makes of the same members.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>

#include "mox_storage_manager.h"

namespace {

UsbDevicePtr Record(const char* id, const char* model, const char* mount, int fs, const char* serial,
                    const char* vendor, int index, int usbClass, int address, int bus, const char* label) {
    UsbDevicePtr record = std::make_shared<CMOXUSBDevice>();
    record->SetDeviceID(id);
    record->SetModelName(model);
    record->SetMountPath(mount);
    record->SetFileSystem(fs);
    record->SetSerial(serial);
    record->SetManufacturer(vendor);
    record->SetDeviceIndex(index);
    record->SetDeviceClass(usbClass);
    record->SetAddress(address);
    record->SetBus(bus);
    record->SetPartitionLabel(label);
    return record;
}

// The document as jsoncpp's styled writer renders the same members.
std::string StyledReference(const std::vector<UsbDevicePtr>& list) {
    if (list.empty()) return "null\n";
    Json::Value devices(Json::arrayValue);
    for (const UsbDevicePtr& r : list) {
        const bool bSized = r->GetDeviceMountPath() != MOX_USB_NO_MOUNT_PATH;
        Json::Value d(Json::objectValue);
        d["id"] = r->GetDeviceID();
        d["name"] = r->GetModelName();
        d["totalSize"] = bSized ? std::to_string(r->GetDeviceTotalSize()) : "0";
        d["availableSize"] = bSized ? std::to_string(r->GetDeviceAvailableSize()) : "0";
        d["mountPath"] = r->GetDeviceMountPath();
        d["fileSystem"] = CMOXStorageMgr::GetFileSystemAsString(r->GetFileSystem());
        d["serialNumber"] = r->GetSerial();
        d["vendor"] = r->GetManufacturer();
        d["deviceIndex"] = r->GetDeviceIndex();
        if (r->GetDeviceClass() == MOX_USB_CLASS_PTP) {
            d["deviceAddress"] = std::to_string(r->GetAddress());
            d["deviceBus"] = std::to_string(r->GetBus());
        }
        d["partitionLabel"] = r->GetPartitionLabel();
        d["type"] = CMOXStorageMgr::GetDiskTypeAsString(r->GetDeviceClass());
        devices.append(d);
    }
    Json::Value root(Json::objectValue);
    root["devices"] = devices;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return Json::StyledWriter().write(root);
#pragma GCC diagnostic pop
}

TEST(StorageDocument, StickCameraAndRandomRecordsMatchTheStyledWriter) {
    // No device; a stick with quotes, escapes, controls and non-BMP text;
    // a camera (address and bus, no sizes).
    std::vector<UsbDevicePtr> fixed;
    EXPECT_EQ("null\n", CMOXStorageMgr::ConvertStoragesToJson(fixed));
    fixed = {Record("/dev/sdb1", "Cruzer Blade", "/nonexistent/usb/sdb1", 3, "4C\"53\\0002", "San\tDisk \xc3\xa9", 2, 8,
                    5, 1, "\xf0\x9f\x93\xb7 caf\xc3\xa9\x01"),
             Record("/dev/bus/usb/001/007", "D5300", MOX_USB_NO_MOUNT_PATH, 2, "3001", "Nikon", 1, 6, 7, 1, "")};
    EXPECT_EQ(StyledReference(fixed), CMOXStorageMgr::ConvertStoragesToJson(fixed));

    std::mt19937 rng(12);
    // Device strings come from USB descriptors and labels: any bytes but NUL,
    // including invalid UTF-8, control characters and quotes.
    std::vector<std::string> pieces;
    const std::string table =
        "a|Z| |\"|\\|/|\x01|\x1f|\x7f|\n|\t|\xc3\xa9|\xe2\x82\xac|\xf0\x9f\x98\x80|\xff|\xc3|"
        "\xed\xa0\x80|\xe0\x80\x80|\xf4\x90\x80\x80|%s|{}";
    for (size_t at = 0, bar; at <= table.size(); at = bar + 1) {
        bar = std::min(table.find('|', at), table.size());
        pieces.push_back(table.substr(at, bar - at));
    }
    auto randomText = [&] {
        std::string s;
        for (int n = static_cast<int>(rng() % 12); n > 0; --n) s += pieces[rng() % pieces.size()];
        return s;
    };
    for (int round = 0; round < 300; ++round) {
        std::vector<UsbDevicePtr> list;
        for (int n = static_cast<int>(rng() % 5); n > 0; --n) {
            const std::string id = randomText(), model = randomText(), serial = randomText(), vendor = randomText(),
                              label = randomText();
            const std::string mount = rng() % 3 ? "/nonexistent/" + randomText() : std::string(MOX_USB_NO_MOUNT_PATH);
            list.push_back(Record(id.c_str(), model.c_str(), mount.c_str(), static_cast<int>(rng() % 5) - 1,
                                  serial.c_str(), vendor.c_str(), static_cast<int>(rng() % 102),
                                  rng() % 2 ? 6 : static_cast<int>(rng() % 10), static_cast<int>(rng() % 128),
                                  static_cast<int>(rng() % 8), label.c_str()));
        }
        ASSERT_EQ(StyledReference(list), CMOXStorageMgr::ConvertStoragesToJson(list)) << "round " << round;
    }
}

}  // namespace
