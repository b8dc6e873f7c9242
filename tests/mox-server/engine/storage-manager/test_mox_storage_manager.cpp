// The storage manager and its USB manager against the simulated USB service
// and real mount directories: listing under the USB root, per-model device
// indices, client notifications, the first-enumeration retry and hot-plug
// during queries.
#include <gtest/gtest.h>

#include <sys/statfs.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <json/reader.h>
#include <json/value.h>

#include "mox_storage_manager.h"
#include "mox_usb_mgr.h"
#include "storage_test_env.h"

namespace {

using moxtest::StorageTestEnv;

struct Notification {
    dbus_connection_info_s client;
    mox_storage_event_e event;
    Json::Value document;
};

struct InternalEvent {
    mox_storage_event_e event;
    std::string mountPath;
    int usbClass;
    void* userData;
};

// The callbacks carry no user data of their own: one recorder per process.
struct Recorder {
    std::mutex mutex;
    std::condition_variable cond;
    std::vector<Notification> notifications;  // GUARDED_BY(mutex)
    std::vector<InternalEvent> internal;      // GUARDED_BY(mutex)
    std::function<void()> duringInternal;     // set while no manager exists

    void Reset() {
        std::lock_guard<std::mutex> lock(mutex);
        notifications.clear();
        internal.clear();
        duringInternal = nullptr;
    }
    bool WaitInternal(size_t n) {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, std::chrono::seconds(10), [&] { return internal.size() >= n; });
    }
    // Notifications follow the internal callback of the same event.
    bool WaitNotifications(size_t n) {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, std::chrono::seconds(10), [&] { return notifications.size() >= n; });
    }
} g_recorder;

Json::Value Parse(const std::string& text) {
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors << text;
    return root;
}

void OnInternal(usb_device_h device, mox_storage_event_e event, void* userData) {
    const char* mount = usb_device_get_mountpath(device);
    InternalEvent e{event, mount ? mount : "", usb_device_get_class(device), userData};
    usb_device_unref(device);  // the handler owns the handle
    std::function<void()> hook;
    {
        std::lock_guard<std::mutex> lock(g_recorder.mutex);
        hook = g_recorder.duringInternal;
    }
    if (hook) hook();
    std::lock_guard<std::mutex> lock(g_recorder.mutex);
    g_recorder.internal.push_back(e);
    g_recorder.cond.notify_all();
}

void OnNotify(const dbus_connection_info_s& client, mox_storage_event_e event, const std::string& payload) {
    Json::Value document = Parse(payload);
    // The payload names its own event.
    EXPECT_EQ(document["event"].asInt(), static_cast<int>(event));
    std::lock_guard<std::mutex> lock(g_recorder.mutex);
    g_recorder.notifications.push_back({client, event, document});
    g_recorder.cond.notify_all();
}

dbus_connection_info_s Client(const char* sender) {
    dbus_connection_info_s c;
    c.sender = sender;
    c.objectPath = "/com/orvia/app";
    c.interfaceName = "com.orvia.app";
    return c;
}

class StorageManager : public ::testing::Test {
protected:
    void SetUp() override { g_recorder.Reset(); }

    // Creates the manager with both callbacks, as the daemon does.
    std::unique_ptr<CMOXStorageMgr> Start() {
        auto manager = std::make_unique<CMOXStorageMgr>();
        manager->SetNotificationCB(&OnNotify);
        manager->SetInternalCB(&OnInternal, &m_engine);
        return manager;
    }

    // The document, checked against the one the bus's message thread makes
    // in two steps (free space may move between the two).
    Json::Value Storages(CMOXStorageMgr& manager, mox_storage_device_type type) {
        std::string text, quick;
        EXPECT_EQ(0, manager.GetStorages(type, text));
        CMOXStorageMgr::SQuickAnswer answer;
        EXPECT_TRUE(manager.PrepareQuick(type, 0, answer));
        EXPECT_EQ(0, answer.nResult);
        EXPECT_TRUE(
            CMOXStorageMgr::FinishQuick(answer, std::chrono::steady_clock::now() + std::chrono::seconds(1), quick));
        Json::Value doc = Parse(text), same = Parse(quick);
        for (Json::Value* d : {&doc, &same})
            if (d->isObject())
                for (Json::Value& device : (*d)["devices"]) device.removeMember("availableSize");
        EXPECT_EQ(doc, same) << text << quick;
        return Parse(text);
    }

    // Device indices of the notifications so far, in order.
    std::vector<int> NotifiedIndices() {
        std::lock_guard<std::mutex> lock(g_recorder.mutex);
        std::vector<int> indices;
        for (const Notification& n : g_recorder.notifications)
            indices.push_back(n.document["devices"][0]["deviceIndex"].asInt());
        return indices;
    }

    StorageTestEnv m_env;
    int m_engine = 0;  // stands for the engine object given as user data
};

TEST_F(StorageManager, QueriesListSizedPartitionsUnderTheRootAndCameras) {
    auto manager = Start();
    std::string text = "untouched";
    EXPECT_EQ(0, manager->GetStorages(MOX_STORAGE_DEVICE_USB, text));
    EXPECT_EQ("null\n", text);
    text = "untouched";
    EXPECT_EQ(0, manager->GetStorages(static_cast<mox_storage_device_type>(3), text));
    EXPECT_EQ("untouched", text);
    manager.reset();

    std::string mount = m_env.MountDir("sdb1");
    m_env.Plug("a", StorageTestEnv::Stick("/dev/sdb1", mount));
    m_env.Plug("b", StorageTestEnv::Stick("/dev/sdc1", "/media/elsewhere"));
    m_env.Plug("cam", StorageTestEnv::Camera("/dev/bus/usb/001/007", 7, 3));
    // Indices are per model.
    m_env.Plug("c", StorageTestEnv::Stick("/dev/sdd1", m_env.MountDir("sdd1"), "Beta"));
    m_env.Plug("d", StorageTestEnv::Stick("/dev/sde1", m_env.MountDir("sde1")));
    manager = Start();
    { CMOXUSBMgr second; }  // its init fails: it must not finish the service the first one uses
    Json::Value doc = Storages(*manager, MOX_STORAGE_DEVICE_USB);
    std::map<std::string, int> index;
    Json::Value d;
    for (const Json::Value& device : doc["devices"]) {
        index[device["id"].asString()] = device["deviceIndex"].asInt();
        if (device["id"] == "/dev/sdb1") d = device;
    }
    EXPECT_EQ((std::map<std::string, int>{{"/dev/sdb1", 1}, {"/dev/sdd1", 1}, {"/dev/sde1", 2}}), index);
    EXPECT_EQ(mount, d["mountPath"].asString());
    struct statfs st;
    ASSERT_EQ(0, statfs(mount.c_str(), &st));
    EXPECT_EQ(std::to_string(static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_blocks) / 1024),
              d["totalSize"].asString());
    // Free space moves with other processes' writes; reserved blocks count.
    long long available = std::stoll(d["availableSize"].asString());
    EXPECT_GT(available, 0);
    EXPECT_NEAR(static_cast<double>(st.f_bsize) * static_cast<double>(st.f_bfree) / 1024, available, 64.0 * 1024);
    EXPECT_LE(available, std::stoll(d["totalSize"].asString()));

    doc = Storages(*manager, MOX_STORAGE_DEVICE_PTP);
    ASSERT_EQ(1u, doc["devices"].size());
    EXPECT_EQ("0", doc["devices"][0]["totalSize"].asString());
    EXPECT_EQ("3", doc["devices"][0]["deviceBus"].asString());
    EXPECT_EQ(1, doc["devices"][0]["deviceIndex"].asInt());
}

TEST_F(StorageManager, BoundClientsAreNotifiedInOrderWithTheChangedDeviceAndItsIndex) {
    auto manager = Start();
    dbus_connection_info_s first = Client(":1.10");
    dbus_connection_info_s second = Client(":1.11");
    manager->AddNotificationClient(first);
    manager->AddNotificationClient(second);
    manager->AddNotificationClient(first);  // once only

    // Two sticks of one model get 1 and 2; the first leaves; a third gets 1.
    m_env.Plug("s1", StorageTestEnv::Stick("/dev/sdb1", m_env.MountDir("s1")));
    ASSERT_TRUE(g_recorder.WaitInternal(1));
    m_env.Plug("s2", StorageTestEnv::Stick("/dev/sdc1", m_env.MountDir("s2")));
    ASSERT_TRUE(g_recorder.WaitInternal(2));
    m_env.Unplug("s1");
    ASSERT_TRUE(g_recorder.WaitInternal(3));
    m_env.Plug("s3", StorageTestEnv::Stick("/dev/sdd1", m_env.MountDir("s3")));
    ASSERT_TRUE(g_recorder.WaitNotifications(8));
    EXPECT_EQ((std::vector<int>{1, 1, 2, 2, 1, 1, 1, 1}), NotifiedIndices());

    {
        std::lock_guard<std::mutex> lock(g_recorder.mutex);
        ASSERT_EQ(8u, g_recorder.notifications.size());
        for (size_t i = 0; i < 8; ++i) {
            const Notification& n = g_recorder.notifications[i];
            EXPECT_EQ(i % 2 == 0 ? first : second, n.client);
            EXPECT_EQ(i / 2 == 2 ? MOX_STORAGE_DISCONNECTED : MOX_STORAGE_CONNECTED, n.event);
            ASSERT_EQ(1u, n.document["devices"].size());
        }
        EXPECT_EQ(m_env.Root() + "/s1", g_recorder.notifications[4].document["devices"][0]["mountPath"].asString());
        // The internal callback precedes the notifications, with the engine as user data.
        ASSERT_EQ(4u, g_recorder.internal.size());
        EXPECT_EQ(MOX_STORAGE_DISCONNECTED, g_recorder.internal[2].event);
        EXPECT_EQ(m_env.Root() + "/s1", g_recorder.internal[2].mountPath);
        EXPECT_EQ(&m_engine, g_recorder.internal[2].userData);
    }

    // A query assigns the indices afresh in list order, and every later
    // query shows what changed since, though records and text are reused.
    auto devices = [&] {
        std::vector<std::pair<std::string, int>> seen;
        const Json::Value doc = Storages(*manager, MOX_STORAGE_DEVICE_USB);
        for (const Json::Value& d : doc["devices"])
            seen.emplace_back(d["mountPath"].asString(), d["deviceIndex"].asInt());
        return seen;
    };
    using Seen = std::vector<std::pair<std::string, int>>;
    const std::string root = m_env.Root();
    EXPECT_EQ((Seen{{root + "/s2", 1}, {root + "/s3", 2}}), devices());
    EXPECT_EQ((Seen{{root + "/s2", 1}, {root + "/s3", 2}}), devices());
    m_env.Unplug("s2");
    ASSERT_TRUE(g_recorder.WaitInternal(5));
    EXPECT_EQ((Seen{{root + "/s3", 1}}), devices());
    // The same device name again, mounted elsewhere.
    m_env.Plug("s2", StorageTestEnv::Stick("/dev/sdc1", m_env.MountDir("s2b")));
    ASSERT_TRUE(g_recorder.WaitInternal(6));
    EXPECT_EQ((Seen{{root + "/s2b", 1}, {root + "/s3", 2}}), devices());
    // Cameras draw from the same per-model pool: the same record gets a new
    // index when a camera of its model leaves.
    m_env.Unplug("s2");
    ASSERT_TRUE(g_recorder.WaitInternal(7));
    m_env.Plug("cam", StorageTestEnv::Camera("/dev/bus/usb/001/009", 9, 1, "Cruzer Blade"));
    ASSERT_TRUE(g_recorder.WaitInternal(8));
    EXPECT_EQ((Seen{{root + "/s3", 2}}), devices());
    m_env.Unplug("cam");
    ASSERT_TRUE(g_recorder.WaitInternal(9));
    EXPECT_EQ((Seen{{root + "/s3", 1}}), devices());
}

TEST_F(StorageManager, UnboundClientsAndCamerasAreHandled) {
    auto manager = Start();
    dbus_connection_info_s client = Client(":1.20");
    manager->AddNotificationClient(client);
    dbus_connection_info_s other = client;
    other.objectPath = "/other";
    manager->RemoveNotificationClient(other);  // not registered: nothing
    // A hub comes and goes as "added"/"removed": not a storage event.
    m_env.Plug("hub", R"({"devname": "/dev/bus/usb/001/002", "class": 9})");
    m_env.Plug("cam1", StorageTestEnv::Camera("/dev/bus/usb/001/007", 7, 1));
    m_env.Plug("cam2", StorageTestEnv::Camera("/dev/bus/usb/001/008", 8, 1));
    ASSERT_TRUE(g_recorder.WaitInternal(2));
    manager->RemoveNotificationClient(client);
    // Cameras share the mount path "n/a": the one that leaves is found by address.
    m_env.Unplug("cam2");
    ASSERT_TRUE(g_recorder.WaitInternal(3));
    ASSERT_TRUE(g_recorder.WaitNotifications(2));
    EXPECT_EQ((std::vector<int>{1, 2}), NotifiedIndices());
    Json::Value doc = Storages(*manager, MOX_STORAGE_DEVICE_PTP);
    ASSERT_EQ(1u, doc["devices"].size());
    EXPECT_EQ("7", doc["devices"][0]["deviceAddress"].asString());
    std::lock_guard<std::mutex> lock(g_recorder.mutex);
    ASSERT_EQ(3u, g_recorder.internal.size());
    for (const InternalEvent& e : g_recorder.internal) EXPECT_EQ(6, e.usbClass);  // platform class
}

TEST_F(StorageManager, HundredAndFirstDeviceOfOneModelGetsNoIndex) {
    for (int i = 0; i < 101; ++i)
        m_env.Plug("d" + std::to_string(1000 + i), StorageTestEnv::Stick("/dev/sd" + std::to_string(1000 + i),
                                                                         m_env.MountDir(std::to_string(1000 + i))));
    auto manager = Start();
    Json::Value doc = Storages(*manager, MOX_STORAGE_DEVICE_USB);
    ASSERT_EQ(101u, doc["devices"].size());
    std::multiset<int> indices;
    for (const Json::Value& d : doc["devices"]) indices.insert(d["deviceIndex"].asInt());
    EXPECT_EQ(1u, indices.count(0));
    for (int i = 1; i <= 100; ++i) EXPECT_EQ(1u, indices.count(i)) << i;

    // The device without an index leaves: no index is freed by it...
    dbus_connection_info_s client = Client(":1.30");
    manager->AddNotificationClient(client);
    m_env.Unplug("d1100");
    ASSERT_TRUE(g_recorder.WaitInternal(1));
    // ...one with an index leaves, and the next arrival takes that index.
    m_env.Unplug("d1004");
    ASSERT_TRUE(g_recorder.WaitInternal(2));
    m_env.Plug("new", StorageTestEnv::Stick("/dev/sdnew", m_env.MountDir("new")));
    ASSERT_TRUE(g_recorder.WaitNotifications(3));
    EXPECT_EQ((std::vector<int>{0, 5, 5}), NotifiedIndices());
}

// A USB service that could not start (its spool directory missing) is
// started by a later query once it can be, with its devices and its events.
TEST_F(StorageManager, ServiceThatFailedToStartIsStartedByALaterQuery) {
    moxtest::TempDir dir;
    const std::string spool = dir.file("spool");
    setenv("MOX_USB_BACKEND", ("spool:" + spool).c_str(), 1);
    auto manager = Start();
    std::string text = "untouched";
    EXPECT_EQ(23, manager->GetStorages(MOX_STORAGE_DEVICE_USB, text));
    EXPECT_EQ(23, manager->GetStorages(MOX_STORAGE_DEVICE_PTP, text));
    EXPECT_EQ("untouched", text);

    ASSERT_TRUE(moxtest::WriteTextFile(spool + "/old.json", StorageTestEnv::Stick("/dev/sdb1", m_env.MountDir("old"))));
    EXPECT_EQ(1u, Storages(*manager, MOX_STORAGE_DEVICE_USB)["devices"].size());
    ASSERT_TRUE(moxtest::WriteTextFile(spool + "/.new.tmp", StorageTestEnv::Stick("/dev/sdc1", m_env.MountDir("new"))));
    ASSERT_EQ(0, rename((spool + "/.new.tmp").c_str(), (spool + "/new.json").c_str()));
    ASSERT_TRUE(g_recorder.WaitInternal(1));
    EXPECT_EQ(2u, Storages(*manager, MOX_STORAGE_DEVICE_USB)["devices"].size());
}

// The engine's clean-up of an event may wait for a scanner stuck on a
// storage: queries never wait with it, and already see the event's lists.
TEST_F(StorageManager, QueriesDoNotWaitForAnEventsCleanUp) {
    auto manager = Start();
    auto entered = std::make_shared<std::promise<void>>();
    auto left = std::make_shared<std::promise<void>>();
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    {
        std::lock_guard<std::mutex> lock(g_recorder.mutex);
        g_recorder.duringInternal = [entered, left, released] {
            entered->set_value();
            released.wait();
            left->set_value();
        };
    }
    m_env.Plug("s1", StorageTestEnv::Stick("/dev/sdb1", m_env.MountDir("s1")));
    entered->get_future().wait();
    std::string text;
    EXPECT_EQ(0, manager->GetStorages(MOX_STORAGE_DEVICE_USB, text));
    EXPECT_EQ(1u, Parse(text)["devices"].size());
    {
        std::lock_guard<std::mutex> lock(g_recorder.mutex);
        g_recorder.duringInternal = nullptr;
    }
    release.set_value();
    left->get_future().wait();
}

TEST_F(StorageManager, DevicesComingAndGoingWhileClientsListStorages) {
    auto manager = Start();
    dbus_connection_info_s client = Client(":1.40");
    manager->AddNotificationClient(client);
    std::atomic<bool> stop{false};
    std::atomic<int> queries{0};
    std::thread lister([&] {
        while (!stop) {
            std::string text;
            EXPECT_EQ(0, manager->GetStorages(MOX_STORAGE_DEVICE_USB, text));
            Json::Value doc = Parse(text);
            EXPECT_TRUE(doc.isNull() || doc["devices"].isArray());
            ++queries;
        }
    });
    const int kRounds = 30;
    for (int i = 0; i < kRounds; ++i) {
        std::string dir = m_env.MountDir("r" + std::to_string(i % 3));
        m_env.Plug("s", StorageTestEnv::Stick("/dev/sdb" + std::to_string(i), dir));
        ASSERT_TRUE(g_recorder.WaitInternal(2 * i + 1));
        m_env.Unplug("s");
        ASSERT_TRUE(g_recorder.WaitInternal(2 * i + 2));
    }
    stop = true;
    lister.join();
    EXPECT_GT(queries.load(), 0);
    // Nothing is left over, and the model's indices are all free again.
    std::string text;
    EXPECT_EQ(0, manager->GetStorages(MOX_STORAGE_DEVICE_USB, text));
    EXPECT_EQ("null\n", text);
    m_env.Plug("last", StorageTestEnv::Stick("/dev/sdz1", m_env.MountDir("last")));
    ASSERT_TRUE(g_recorder.WaitNotifications(2 * kRounds + 1));
    EXPECT_EQ(1, NotifiedIndices().back());
}

TEST_F(StorageManager, EventsAfterTheCallbacksAreClearedAreDroppedNotFatal) {
    auto manager = Start();
    manager->SetNotificationCB(nullptr);
    manager->SetInternalCB(nullptr, nullptr);
    m_env.Plug("s1", StorageTestEnv::Stick("/dev/sdb1", m_env.MountDir("s1")));
    // The event still updates the list, which a query then shows.
    std::string text = "null\n";
    for (int i = 0; i < 500 && text == "null\n"; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        manager->GetStorages(MOX_STORAGE_DEVICE_USB, text);
    }
    EXPECT_NE("null\n", text);
    manager.reset();  // destroyed while the spool is still live
    std::lock_guard<std::mutex> lock(g_recorder.mutex);
    EXPECT_TRUE(g_recorder.internal.empty());
    EXPECT_TRUE(g_recorder.notifications.empty());
}

}  // namespace
