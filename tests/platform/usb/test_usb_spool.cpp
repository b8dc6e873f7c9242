// The simulated USB device service: spool files in a real temporary
// directory, callbacks on the service's thread, malformed files, shutdown
// with a callback in flight.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <tuple>

#include <usb_device.h>

#include "temp_dir.h"
#include "usb_event_recorder.h"

namespace {

using moxtest::UsbEvent;
using moxtest::UsbEventRecorder;
using moxtest::UsbListed;

const char kStick[] = R"({"devname": "/dev/sdb1", "class": 8, "mount_path": "/opt/storage/usb/sdb1",
  "fs_type": 0, "disk_type": 1, "vendor_id": 1921, "manufacturer": "SanDisk", "product": "Cruzer Blade",
  "serial": "4C530001", "part_label": "HOLIDAY", "address": 5, "bus": 1})";
const char kCamera[] = R"({"devname": "/dev/bus/usb/001/007", "class": 6, "vendor_id": 1200,
  "manufacturer": "Nikon", "product": "D5300", "serial": "3001", "address": 7, "bus": 1})";

std::string Stick(const std::string& devname, const std::string& mount) {
    return R"({"devname": ")" + devname + R"(", "class": 8, "mount_path": ")" + mount + R"(", "product": "Stick"})";
}

std::string LogPath() {
    const char* sink = std::getenv("MOX_LOG");
    return (sink && std::string(sink).rfind("file:", 0) == 0) ? std::string(sink + 5) : std::string();
}

class UsbSpool : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("MOX_USB_BACKEND", ("spool:" + m_spool.path()).c_str(), 1);
        m_logStart = moxtest::ReadTextFile(LogPath()).size();
    }
    void TearDown() override { usb_device_fini(); }

    // Plugs a device in the way the spool contract asks: temporary name, then rename.
    void Plug(const std::string& name, const std::string& json) {
        std::string tmp = m_spool.file("." + name + ".tmp");
        ASSERT_TRUE(moxtest::WriteTextFile(tmp, json));
        ASSERT_EQ(0, rename(tmp.c_str(), m_spool.file(name + ".json").c_str()));
    }
    void Unplug(const std::string& name) { ASSERT_EQ(0, unlink(m_spool.file(name + ".json").c_str())); }

    void StartWithRecorder() {
        ASSERT_EQ(0, usb_device_init());
        ASSERT_EQ(0, usb_set_connected_cb(&UsbEventRecorder::Callback, &m_recorder));
    }

    std::string NewLog() const { return moxtest::ReadTextFile(LogPath()).substr(m_logStart); }

    // Plugs a valid marker device and waits for it: every event of files
    // written before it has then been handled.
    void Barrier(size_t expectedEvents) {
        Plug("zz-barrier", Stick("/dev/barrier", "/opt/storage/usb/barrier"));
        ASSERT_TRUE(m_recorder.WaitFor(expectedEvents));
    }

    moxtest::TempDir m_spool;
    UsbEventRecorder m_recorder;
    size_t m_logStart = 0;
};

TEST_F(UsbSpool, MalformedFilesAreIgnoredWithAWarningAndTheServiceCarriesOn) {
    StartWithRecorder();
    struct Bad {
        const char* name;
        std::string text;
    } bad[] = {
        {"not-json", "{\"devname\": \"/dev/sdc1\", "},
        {"array", "[1, 2]"},
        {"no-devname", R"({"class": 8, "mount_path": "/opt/storage/usb/x"})"},
        {"no-class", R"({"devname": "/dev/sdc1", "mount_path": "/opt/storage/usb/x"})"},
        {"class-string", R"({"devname": "/dev/sdc1", "class": "8", "mount_path": "/opt/storage/usb/x"})"},
        {"negative-bus", R"({"devname": "/dev/sdc1", "class": 6, "bus": -1})"},
        {"huge-address", R"({"devname": "/dev/sdc1", "class": 6, "address": 99999999999})"},
        {"storage-without-mount", R"({"devname": "/dev/sdc1", "class": 8})"},
        {"serial-number", R"({"devname": "/dev/sdc1", "class": 6, "serial": 12})"},
        {"trailing-garbage", R"({"devname": "/dev/sdc1", "class": 6} x)"},
        {"too-big", "{\"devname\": \"/dev/sdc1\", \"class\": 6, \"product\": \"" + std::string(70000, 'a') + "\"}"},
    };
    for (const Bad& b : bad) Plug(b.name, b.text);
    // Not regular files: a FIFO must not stall the service, a directory is no device.
    ASSERT_EQ(0, mkfifo(m_spool.file("fifo.tmp").c_str(), 0600));
    ASSERT_EQ(0, rename(m_spool.file("fifo.tmp").c_str(), m_spool.file("fifo.json").c_str()));
    ASSERT_EQ(0, mkdir(m_spool.file("dir.tmp").c_str(), 0700));
    ASSERT_EQ(0, rename(m_spool.file("dir.tmp").c_str(), m_spool.file("dir.json").c_str()));

    Barrier(1);
    auto events = m_recorder.Events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ("/dev/barrier", events[0].devname);
    EXPECT_EQ(std::vector<std::string>{"/dev/barrier"}, UsbListed(USB_DEVICE_CLASS_MASS_STORAGE));
    EXPECT_TRUE(UsbListed(USB_DEVICE_CLASS_STILL_IMAGE).empty());

    std::string log = NewLog();
    if (LogPath().empty()) GTEST_SKIP() << "MOX_LOG is not a file: cannot check the warnings";
    for (const Bad& b : bad) EXPECT_NE(std::string::npos, log.find(std::string(b.name) + ".json ignored")) << b.name;
    EXPECT_NE(std::string::npos, log.find("fifo.json ignored: not a regular file"));
}

TEST_F(UsbSpool, PartialInPlaceWriteIsIgnoredUntilTheFileIsComplete) {
    if (LogPath().empty()) GTEST_SKIP() << "MOX_LOG is not a file: cannot see the partial write being refused";
    StartWithRecorder();
    std::string path = m_spool.file("stick.json");
    std::string text = kStick;
    ASSERT_TRUE(moxtest::WriteTextFile(path, text.substr(0, text.size() / 2)));
    // Complete the file only once the service has refused the half.
    for (int i = 0; i < 1000 && NewLog().find("stick.json ignored: not valid JSON") == std::string::npos; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_NE(std::string::npos, NewLog().find("stick.json ignored: not valid JSON"));
    EXPECT_TRUE(m_recorder.Events().empty());
    ASSERT_TRUE(moxtest::WriteTextFile(path, text));
    ASSERT_TRUE(m_recorder.WaitFor(1));
    EXPECT_EQ("/dev/sdb1", m_recorder.Events()[0].devname);

    // A broken rewrite of a known device leaves that device plugged in.
    ASSERT_TRUE(moxtest::WriteTextFile(path, "{"));
    Barrier(2);
    EXPECT_EQ((std::vector<std::string>{"/dev/sdb1", "/dev/barrier"}), UsbListed(USB_DEVICE_CLASS_MASS_STORAGE));
}

// Cameras coming and going are the storage manager suite's.
TEST_F(UsbSpool, PlugRewriteAndUnplugAreReportedOnTheServiceThreadOnlyWhenTheyChange) {
    StartWithRecorder();
    Plug("stick", kStick);
    ASSERT_TRUE(m_recorder.WaitFor(1));
    EXPECT_EQ(std::vector<std::string>{"/dev/sdb1"}, UsbListed(USB_DEVICE_CLASS_MASS_STORAGE));
    Plug("stick", kStick);  // identical: nothing
    Plug("stick", Stick("/dev/sdb1", "/opt/storage/usb/sdb1-2"));
    ASSERT_TRUE(m_recorder.WaitFor(3));
    Unplug("stick");
    ASSERT_TRUE(m_recorder.WaitFor(4));
    EXPECT_TRUE(UsbListed(USB_DEVICE_CLASS_MASS_STORAGE).empty());

    auto events = m_recorder.Events();
    ASSERT_EQ(4u, events.size());
    const char* actions[] = {"mounted", "blocked", "mounted", "blocked"};
    const char* mounts[] = {"/opt/storage/usb/sdb1", "/opt/storage/usb/sdb1", "/opt/storage/usb/sdb1-2",
                            "/opt/storage/usb/sdb1-2"};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(actions[i], events[i].action) << i;
        EXPECT_EQ(mounts[i], events[i].mountPath) << i;
        EXPECT_NE(std::this_thread::get_id(), events[i].thread);
    }
    // "blocked" reports the device as it was last known.
    for (size_t i = 0; i < 2; ++i) {
        const UsbEvent& e = events[i];
        EXPECT_EQ(std::tie(e.devname, e.usbClass, e.diskType, e.vendorId, e.manufacturer, e.product, e.serial,
                           e.partLabel, e.address),
                  std::make_tuple("/dev/sdb1", 8, 1, 1921, "SanDisk", "Cruzer Blade", "4C530001", "HOLIDAY", 5))
            << i;
    }
}

TEST_F(UsbSpool, DevicesPresentAtStartAreListedAndHandlesOutliveTheirListAndTheService) {
    Plug("stick", kStick);
    Plug("camera", kCamera);
    StartWithRecorder();
    EXPECT_EQ(std::vector<std::string>{"/dev/bus/usb/001/007"}, UsbListed(USB_DEVICE_CLASS_STILL_IMAGE));
    EXPECT_TRUE(UsbListed(3).empty());
    Barrier(1);  // no callback for what was there at start
    EXPECT_EQ("/dev/barrier", m_recorder.Events()[0].devname);
    Unplug("zz-barrier");
    ASSERT_TRUE(m_recorder.WaitFor(2));

    usb_device_list_h list = nullptr;
    ASSERT_EQ(0, usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, &list));
    ASSERT_EQ(1, usb_device_list_get_count(list));
    usb_device_h device = nullptr;
    ASSERT_EQ(0, usb_device_list_get_first(list, &device));
    EXPECT_EQ(-ENODATA, usb_device_list_get_next(list, &device));
    usb_device_h kept = usb_device_ref(device);
    usb_device_free_device_list(list);
    EXPECT_EQ(0, usb_device_fini());
    EXPECT_STREQ("/opt/storage/usb/sdb1", usb_device_get_mountpath(kept));
    EXPECT_STREQ("HOLIDAY", usb_device_get_partlabel(kept));
    usb_device_unref(kept);

    Unplug("camera");
    ASSERT_EQ(0, usb_device_init());
    ASSERT_EQ(0, usb_device_get_device_list(USB_DEVICE_CLASS_STILL_IMAGE, &list));
    EXPECT_EQ(0, usb_device_list_get_count(list));
    EXPECT_EQ(-ENODATA, usb_device_list_get_first(list, &device));
    usb_device_free_device_list(list);
}

TEST_F(UsbSpool, LifecycleAndArgumentErrors) {
    usb_device_list_h list = nullptr;
    EXPECT_EQ(-ENODEV, usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, &list));
    EXPECT_EQ(-ENODEV, usb_set_connected_cb(&UsbEventRecorder::Callback, &m_recorder));
    EXPECT_EQ(-EALREADY, usb_device_fini());

    setenv("MOX_USB_BACKEND", "floppy", 1);
    EXPECT_EQ(-EINVAL, usb_device_init());
    setenv("MOX_USB_BACKEND", ("spool:" + m_spool.file("missing")).c_str(), 1);
    EXPECT_EQ(-ENOENT, usb_device_init());
    setenv("MOX_USB_BACKEND", ("spool:" + m_spool.path()).c_str(), 1);
    EXPECT_EQ(0, usb_device_init());
    EXPECT_EQ(-EALREADY, usb_device_init());
    EXPECT_EQ(-EINVAL, usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, nullptr));
    EXPECT_EQ(-EINVAL, usb_device_list_get_count(nullptr));
    EXPECT_EQ(nullptr, usb_device_get_devname(nullptr));
    EXPECT_EQ(-EINVAL, usb_device_get_class(nullptr));
    EXPECT_EQ(0, usb_device_fini());
    EXPECT_EQ(-EALREADY, usb_device_fini());
}

TEST_F(UsbSpool, CallbackMayListButNotFinishAndFiniWaitsForTheCallbackInFlight) {
    struct Ctx {
        std::vector<std::string> listed;
        int finiResult = 0;
        std::promise<void> entered;
        std::shared_future<void> release;
        std::atomic<int> calls{0};
    } ctx;
    std::promise<void> release;
    ctx.release = release.get_future().share();
    ASSERT_EQ(0, usb_device_init());
    ASSERT_EQ(0, usb_set_connected_cb(
                     [](usb_device_h, const char*, void* data) {
                         auto* c = static_cast<Ctx*>(data);
                         if (c->calls.fetch_add(1) != 0) return;
                         c->listed = UsbListed(USB_DEVICE_CLASS_MASS_STORAGE);
                         c->finiResult = usb_device_fini();
                         c->entered.set_value();
                         c->release.wait();
                     },
                     &ctx));
    Plug("stick", kStick);
    ctx.entered.get_future().wait();
    EXPECT_EQ(std::vector<std::string>{"/dev/sdb1"}, ctx.listed);
    EXPECT_EQ(-EDEADLK, ctx.finiResult);
    std::atomic<bool> finished{false};
    std::thread finisher([&] {
        EXPECT_EQ(0, usb_device_fini());
        finished = true;
    });
    // While the callback is blocked, fini cannot have returned.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(finished.load());
    release.set_value();
    finisher.join();
    Plug("camera", kCamera);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(1, ctx.calls.load());
}

TEST_F(UsbSpool, BurstOfDevicesWhileAnotherThreadLists) {
    StartWithRecorder();
    std::atomic<bool> stop{false};
    std::thread lister([&] {
        while (!stop) UsbListed(USB_DEVICE_CLASS_MASS_STORAGE);
    });
    const int kDevices = 40;
    for (int i = 0; i < kDevices; ++i)
        Plug("d" + std::to_string(i), Stick("/dev/sd" + std::to_string(i), "/opt/storage/usb/p" + std::to_string(i)));
    EXPECT_TRUE(m_recorder.WaitFor(kDevices));
    for (int i = 0; i < kDevices; ++i) Unplug("d" + std::to_string(i));
    EXPECT_TRUE(m_recorder.WaitFor(2 * kDevices));
    stop = true;
    lister.join();
    EXPECT_TRUE(UsbListed(USB_DEVICE_CLASS_MASS_STORAGE).empty());
    int mounted = 0;
    for (const UsbEvent& e : m_recorder.Events()) mounted += e.action == "mounted";
    EXPECT_EQ(kDevices, mounted);
}

}  // namespace
