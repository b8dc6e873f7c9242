// What the engine's bus suites share: a client with its own connection and
// signals, list documents of the local source, and result lists and shared
// objects as a client sees them. Needs moxcommon (CResultList).
#pragma once

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include <mox/mox_resultlist.h>

#include "engine_fixture.h"

namespace moxtest {

constexpr guint32 kFailedHandle = 4294967295u;
constexpr const char* kComplete = "mox_request_normal_complete";

class BusClient {
public:
    explicit BusClient(EngineHarness& h) : m_h(h), m_conn(h.Connect()), m_signals(m_conn.get()) {}

    GDBusConnection* conn() const { return m_conn.get(); }
    SignalCollector& signals() { return m_signals; }
    CallResult Call(const std::string& method, GVariant* params) {
        CallResult r = m_h.Call(method, params, m_conn.get());
        EXPECT_TRUE(r.ok()) << method << ": " << r.error;
        return r;
    }
    // A handle of the plug-in, or kFailedHandle.
    guint32 Connect(const std::string& plugin) {
        CallResult r = Call("connect", g_variant_new("(s)", plugin.c_str()));
        guint32 handle = kFailedHandle;
        if (r.ok()) g_variant_get(r.reply.get(), "(u)", &handle);
        return handle;
    }
    void List(guint32 handle, const std::string& doc) {
        Call("get_partial_list", g_variant_new("(uuus)", handle, 0u, 0u, doc.c_str()));
    }
    // The payload of the next signal `name` this client has not read yet.
    Json::Value Next(const std::string& name, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        const size_t n = ++m_read[name];
        EXPECT_TRUE(m_signals.WaitFor(name, n, timeout)) << "no signal " << name << " #" << n;
        auto all = m_signals.Named(name);
        return all.size() >= n ? Parse(all[n - 1]->text()) : Json::Value();
    }
    // Lists and waits for the answer.
    Json::Value ListNext(guint32 handle, const std::string& doc) {
        List(handle, doc);
        return Next(kComplete);
    }
    size_t Count(const std::string& name) const { return m_signals.Named(name).size(); }
    void Drain(int ms) { m_signals.Drain(std::chrono::milliseconds(ms)); }
    void Close() { g_dbus_connection_close_sync(m_conn.get(), nullptr, nullptr); }

private:
    EngineHarness& m_h;
    ConnectionPtr m_conn;
    SignalCollector m_signals;
    std::map<std::string, size_t> m_read;
};

// A list request of the local source for `folder`; `extra` adds members.
inline std::string LocalListDoc(const std::string& folder, const std::string& extra = "") {
    return R"({"mox_command":"mox_requestlist","mox_source":["mox_local_source"],"mox_folder_path":)" +
           Json::valueToQuotedString(folder.c_str()) + extra + "}";
}

// The items of a result list, as a client reads them.
inline std::vector<Json::Value> ReadList(const std::string& name) {
    std::vector<Json::Value> items;
    CResultList list(name);
    EXPECT_TRUE(list.IsLoaded()) << name;
    for (int i = list.StartIndex(); list.IsLoaded() && i <= list.EndIndex(); ++i) {
        std::string item, block;
        int index = -1;
        EXPECT_TRUE(list.GetItem(i, item, block, index)) << i;
        items.push_back(Parse(item));
    }
    return items;
}

inline std::vector<std::string> ListNames(const std::string& name) {
    std::vector<std::string> names;
    for (const auto& item : ReadList(name)) names.push_back(item["FileName"].asString());
    return names;
}

// Waits until get_usb_storages lists `mount` (or, `listed` false, no longer does).
inline bool WaitForStorage(EngineHarness& h, const std::string& mount, bool listed = true) {
    for (int i = 0; i < 500; ++i) {
        CallResult r = h.Call("get_usb_storages", g_variant_new("(u)", 1u));
        const gchar* text = "";
        if (r.ok()) g_variant_get(r.reply.get(), "(u&s)", nullptr, &text);
        if ((std::string(text).find(Json::valueToQuotedString(mount.c_str())) != std::string::npos) == listed)
            return true;
        PumpMainContext(std::chrono::milliseconds(20));
    }
    return false;
}

// The objects in /dev/shm named with `prefix` (the tests run with a private
// /dev/shm), sorted.
inline std::vector<std::string> ShmObjects(const std::string& prefix = "mox_") {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        std::string name = entry.path().filename().string();
        if (name.compare(0, prefix.size(), prefix) == 0) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The objects of the engine instance `tag` (its pid): data blocks, result
// lists and its lock. Objects of test processes running beside it do not
// count.
inline std::vector<std::string> EngineObjects(const std::string& tag) {
    std::vector<std::string> names = ShmObjects("mox_datablock_" + tag + "_");
    for (std::string& name : ShmObjects("mox_resultlist_" + tag + "_")) names.push_back(std::move(name));
    if (ShmExists("mox_lock_" + tag)) names.push_back("mox_lock_" + tag);
    return names;
}

}  // namespace moxtest
