// Storages and their notifications end to end: the daemon on a private bus
// with the simulated (spool) USB service, devices plugged by writing files.
// The storage manager's own rules (order, indices per model, cameras,
// malformed spool files) are its unit suite's; here what needs the bus.
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <json/json.h>

#include "bus_client.h"

using moxtest::BusClient;
using moxtest::CallResult;
using moxtest::EngineHarness;
using moxtest::WriteTextFile;

namespace {

using moxtest::Parse;

constexpr const char* kNotification = "mox_usb_notification";

std::string StoragesText(EngineHarness& h, guint32 type, guint32* code = nullptr) {
    CallResult r = h.Call("get_usb_storages", g_variant_new("(u)", type));
    EXPECT_TRUE(r.ok()) << r.error;
    guint32 c = 99;
    const gchar* text = "<no reply>";
    if (r.ok()) g_variant_get(r.reply.get(), "(u&s)", &c, &text);
    if (code) *code = c;
    return text;
}

Json::Value Storages(EngineHarness& h, guint32 type, guint32* code = nullptr) {
    return Parse(StoragesText(h, type, code));
}

guint32 Bind(BusClient& client, guint32 how) {
    CallResult r = client.Call("bind_usb_event", g_variant_new("(u)", how));
    guint32 v = 99;
    if (r.ok()) g_variant_get(r.reply.get(), "(u)", &v);
    return v;
}

}  // namespace

// Lists over the bus, one notification per event to each bound client,
// none after unbinding or to a client never bound, a client leaving the bus
// forgotten, and an unmount forgets the folder map of that storage only.
// (Sizes, cameras and indices: the storage manager's suite.)
TEST(EngineStorage, ListsNotifiesBoundClientsAndForgetsUnmounted) {
    EngineHarness h;
    h.Plug("sdb1", "Cruzer");
    h.Plug("sdc1", "Ultra");
    ASSERT_TRUE(h.Start());
    guint32 code = 99;
    EXPECT_EQ(Storages(h, 1, &code)["devices"].size(), 2u);
    EXPECT_EQ(code, 0u);
    code = 99;
    EXPECT_EQ(StoragesText(h, 7, &code), "");  // an unknown type
    EXPECT_EQ(code, 0u);

    auto folder = [&](int op, const std::string& path, const std::string& id) {
        std::string json = "{\"OPERATION_TYPE\":" + std::to_string(op) + ",\"FOLDER_PATH\":\"" + path +
                           "\",\"FOLDER_ID\":\"" + id + "\"}";
        CallResult r = h.Call("check_folder_path", g_variant_new("(s)", json.c_str()));
        const gchar* s = "<error>";
        if (r.ok()) g_variant_get(r.reply.get(), "(&s)", &s);
        return std::string(s);
    };
    const std::string b = h.UsbRoot() + "/sdb1/DCIM", c = h.UsbRoot() + "/sdc1/Music";
    folder(0, b, "1");
    folder(0, c, "2");

    BusClient a(h), unbound(h);
    auto other = std::make_unique<BusClient>(h);
    // Bound twice: still one notification per event, one binding.
    for (BusClient* client : {&a, &a, other.get(), other.get()}) EXPECT_EQ(Bind(*client, 1), 0u);
    // Each event reaches a bound client after the engine forgot what it
    // knew of the storage.
    h.Unplug("sdb1");
    EXPECT_EQ(a.Next(kNotification)["event"].asInt(), 2);
    EXPECT_EQ(folder(1, b, ""), "");
    EXPECT_EQ(folder(1, c, ""), "2");
    h.Plug("sdb1", "Cruzer");
    Json::Value plugged = a.Next(kNotification);
    EXPECT_EQ(plugged["event"].asInt(), 1);
    EXPECT_EQ(plugged["devices"][0]["mountPath"].asString(), h.UsbRoot() + "/sdb1");
    EXPECT_EQ(folder(1, c, ""), "2");

    // Unbinding (any value but 1) stops the notifications.
    EXPECT_EQ(Bind(a, 2), 0u);
    h.Unplug("sdc1");
    EXPECT_EQ(other->Next(kNotification)["event"].asInt(), 2);  // sdb1 out and in, then sdc1 out
    EXPECT_EQ(other->Next(kNotification)["event"].asInt(), 1);
    EXPECT_EQ(other->Next(kNotification)["devices"][0]["mountPath"].asString(), h.UsbRoot() + "/sdc1");
    a.Drain(300);
    EXPECT_EQ(a.Count(kNotification), 2u);
    EXPECT_EQ(unbound.Count(kNotification), 0u);

    // A bound client that leaves the bus without unbinding is forgotten (the
    // log line is the only trace of a binding).
    other.reset();
    EXPECT_TRUE(h.WaitForLog("left the bus, 1 binding(s) removed."));
    EXPECT_EQ(h.Stop(), 0);
}

// The bus daemon goes away while a client is bound and events keep coming:
// the engine warns and stops in order instead of aborting.
TEST(EngineStorage, BusGoneWhileClientsAreBound) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    EXPECT_EQ(StoragesText(h, 1), "null\n");  // no storage yet
    BusClient a(h);
    EXPECT_EQ(Bind(a, 1), 0u);
    ASSERT_EQ(kill(h.BusPid(), SIGKILL), 0);
    for (int i = 0; i < 3; ++i) {
        h.Plug("sd" + std::string(1, char('b' + i)) + "1", "Cruzer");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    // Status 1 once it noticed the bus was gone (the service manager restarts
    // it), 0 when the stop came first; never a signal or an abort.
    int status = h.Stop();
    EXPECT_TRUE(status == 0 || status == 1) << status;
    EXPECT_EQ(h.Output().find("Assertion"), std::string::npos) << h.Output();
}
