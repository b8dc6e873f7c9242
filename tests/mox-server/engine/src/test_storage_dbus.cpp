// Storages and their notifications end to end: the daemon on a private bus
// with the simulated (spool) USB service, devices plugged by writing files.
// The storage manager's own rules (order, indices per model, cameras,
// malformed spool files) are its unit suite's; here what needs the bus.
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <json/json.h>

#include "engine_fixture.h"

using moxtest::CallResult;
using moxtest::EngineHarness;
using moxtest::SignalCollector;
using moxtest::WriteTextFile;

namespace {

using moxtest::Parse;

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

guint32 Bind(EngineHarness& h, GDBusConnection* c, guint32 how) {
    CallResult r = h.Call("bind_usb_event", g_variant_new("(u)", how), c);
    EXPECT_TRUE(r.ok()) << r.error;
    guint32 v = 99;
    g_variant_get(r.reply.get(), "(u)", &v);
    return v;
}

}  // namespace

// Lists over the bus, one notification per event to each bound client
// (bound twice or not), none after unbinding or leaving the bus, and an
// unmount forgets the folder map of that storage only.
TEST(EngineStorage, ListsNotifiesBoundClientsAndForgetsUnmounted) {
    EngineHarness h;
    h.Plug("sdb1", "Cruzer");
    h.Plug("sdc1", "Ultra");
    // A camera, there before the daemon starts.
    WriteTextFile(h.SpoolDir() + "/cam.json",
                  R"({"devname":"/dev/bus/usb/001/009","class":6,"product":"EOS","address":9,"bus":1})");
    ASSERT_TRUE(h.Start());
    guint32 code = 99;
    Json::Value doc = Storages(h, 1, &code);
    EXPECT_EQ(code, 0u);
    ASSERT_EQ(doc["devices"].size(), 2u);
    EXPECT_GT(std::stoll(doc["devices"][0]["totalSize"].asString()), 0);
    EXPECT_EQ(Storages(h, 2)["devices"][0]["deviceAddress"].asString(), "9");
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

    auto a = h.Connect();
    auto other = h.Connect();
    auto unbound = h.Connect();
    SignalCollector sa(a.get()), so(other.get()), su(unbound.get());
    EXPECT_EQ(Bind(h, a.get(), 1), 0u);
    EXPECT_EQ(Bind(h, a.get(), 1), 0u);  // bound twice: still one entry
    EXPECT_EQ(Bind(h, other.get(), 1), 0u);
    // Each event reaches a bound client after the engine forgot what it
    // knew of the storage.
    h.Unplug("sdb1");
    ASSERT_TRUE(sa.WaitFor("mox_usb_notification", 1));
    EXPECT_EQ(folder(1, b, ""), "");
    EXPECT_EQ(folder(1, c, ""), "2");
    h.Plug("sdb1", "Cruzer");
    ASSERT_TRUE(sa.WaitFor("mox_usb_notification", 2));
    ASSERT_TRUE(so.WaitFor("mox_usb_notification", 2));
    EXPECT_EQ(folder(1, c, ""), "2");
    auto got = sa.Named("mox_usb_notification");
    EXPECT_EQ(Parse(got[0]->text())["event"].asInt(), 2);
    Json::Value plugged = Parse(got[1]->text());
    EXPECT_EQ(plugged["event"].asInt(), 1);
    EXPECT_EQ(plugged["devices"][0]["mountPath"].asString(), h.UsbRoot() + "/sdb1");

    // Unbinding (any value but 1) stops the notifications.
    EXPECT_EQ(Bind(h, a.get(), 2), 0u);
    h.Unplug("cam");
    ASSERT_TRUE(so.WaitFor("mox_usb_notification", 3));
    EXPECT_EQ(Parse(so.Named("mox_usb_notification")[2]->text())["devices"][0]["type"].asString(), "ptp");
    sa.Drain(std::chrono::milliseconds(300));
    EXPECT_EQ(sa.Named("mox_usb_notification").size(), 2u);
    EXPECT_TRUE(su.Named("mox_usb_notification").empty());

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
    auto a = h.Connect();
    EXPECT_EQ(Bind(h, a.get(), 1), 0u);
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
