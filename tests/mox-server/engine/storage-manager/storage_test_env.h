// A simulated USB world for the storage tests: a spool directory for the
// USB service (MOX_USB_BACKEND=spool:DIR) and a USB root (MOX_USB_ROOT) with
// real mount directories, both temporary. Construct before the manager.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <string>

#include <gtest/gtest.h>

#include "temp_dir.h"

namespace moxtest {

class StorageTestEnv {
public:
    StorageTestEnv() {
        m_root = m_dirs.file("usb");
        setenv("MOX_USB_BACKEND", ("spool:" + m_spool.path()).c_str(), 1);
        setenv("MOX_USB_ROOT", m_root.c_str(), 1);
    }

    const std::string& Root() const { return m_root; }
    // A real directory below the USB root standing for a mounted partition.
    std::string MountDir(const std::string& name) {
        std::string dir = m_root + "/" + name;
        WriteTextFile(dir + "/DCIM/keep", "x");
        return dir;
    }

    // Plugs a device in: temporary name, then rename into place.
    void Plug(const std::string& name, const std::string& json) {
        std::string tmp = m_spool.file("." + name + ".tmp");
        ASSERT_TRUE(WriteTextFile(tmp, json));
        ASSERT_EQ(0, rename(tmp.c_str(), m_spool.file(name + ".json").c_str()));
    }
    void Unplug(const std::string& name) { ASSERT_EQ(0, unlink(m_spool.file(name + ".json").c_str())); }

    // A stick of model `product` mounted at `mountPath` (a directory that
    // may or may not exist).
    static std::string Stick(const std::string& devname, const std::string& mountPath,
                             const std::string& product = "Cruzer Blade", int fsType = 0) {
        return R"({"devname": ")" + devname + R"(", "class": 8, "mount_path": ")" + mountPath + R"(", "fs_type": )" +
               std::to_string(fsType) +
               R"(, "disk_type": 1, "vendor_id": 1921, "manufacturer": "SanDisk", "product": ")" + product +
               R"(", "serial": "SN-)" + devname.substr(devname.rfind('/') + 1) +
               R"(", "part_label": "HOLIDAY", "address": 5, "bus": 1})";
    }
    static std::string Camera(const std::string& devname, int address, int bus, const std::string& product = "D5300") {
        return R"({"devname": ")" + devname +
               R"(", "class": 6, "vendor_id": 1200, "manufacturer": "Nikon", )"
               R"("product": ")" +
               product + R"(", "serial": "3001", "address": )" + std::to_string(address) + R"(, "bus": )" +
               std::to_string(bus) + "}";
    }

private:
    TempDir m_spool;
    TempDir m_dirs;
    std::string m_root;
};

}  // namespace moxtest
