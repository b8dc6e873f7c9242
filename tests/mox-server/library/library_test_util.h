// Helpers the library suites share: a shell command, a one-value query of an
// index file (read-only, as a client of the index would), and a client of a
// daemon that indexes into a temporary MOX_LIBRARY_DIR.
#pragma once

#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <json/json.h>

#include "engine_fixture.h"

namespace moxtest {

inline bool HaveMediaTools() {
    return Shell("command -v convert && command -v exiftool && command -v ffmpeg");
}

// What a command wrote to stdout.
inline std::string Output(const std::string& command) {
    std::string out;
    std::unique_ptr<FILE, int (*)(FILE*)> p(popen(command.c_str(), "r"), pclose);
    char buf[4096];
    while (p && fgets(buf, sizeof(buf), p.get())) out += buf;
    return out;
}

// The first column of the first row as text ("" when none or unreadable).
inline std::string Query(const std::string& db, const std::string& sql) {
    sqlite3* p = nullptr;
    std::string out;
    if (sqlite3_open_v2(db.c_str(), &p, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(p, sql.c_str(), -1, &s, nullptr) == SQLITE_OK && sqlite3_step(s) == SQLITE_ROW &&
            sqlite3_column_text(s, 0))
            out = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
        sqlite3_finalize(s);
    }
    sqlite3_close(p);
    return out;
}

inline int QueryInt(const std::string& db, const std::string& sql) {
    return std::atoi(Query(db, sql).c_str());
}

// A bound client of the daemon of `h`. Sticks are named by their spool file;
// stick NAME has the file system id "F-NAME", so its index is Db(NAME).
class LibraryClient {
public:
    explicit LibraryClient(EngineHarness& harness) : h(harness) {
        h.SetEnv("MOX_LIBRARY_DIR", h.Path("library"));
        h.SetEnv("MOX_EXTRACT_TEST_FAULTS", "1");
        chmod(h.Path("").c_str(), 0755);
    }
    // Starts the daemon and connects to `source`.
    bool Start(const std::string& source = "test") {
        if (!h.Start()) return false;
        signals.reset();
        seen.clear();
        conn = h.Connect();
        signals = std::make_unique<SignalCollector>(conn.get());
        auto b = h.Call("bind_usb_event", g_variant_new("(u)", 1u), conn.get());
        auto c = h.Call("connect", g_variant_new("(s)", source.c_str()), conn.get());
        if (!b.ok() || !c.ok()) return false;
        g_variant_get(c.reply.get(), "(u)", &handle);
        return handle != 0xFFFFFFFFu;
    }
    std::string Mount(const std::string& dir) const { return h.UsbRoot() + "/" + dir; }
    std::string Db(const std::string& name) const { return h.Path("library") + "/uuid-f-" + name + ".db"; }
    // Stick `name` mounted at Mount(dir), dir defaulting to the name.
    void Plug(const std::string& name, std::string dir = "") {
        mounts[name] = Mount(dir.empty() ? name : dir);
        const std::string tmp = h.SpoolDir() + "/." + name;
        ASSERT_TRUE(WriteTextFile(tmp, R"({"devname":"/dev/)" + name + R"(","class":8,"mount_path":")" + mounts[name] +
                                           R"(","fs_type":2,"fs_uuid":"F-)" + name + R"("})"));
        ASSERT_EQ(rename(tmp.c_str(), (h.SpoolDir() + "/" + name + ".json").c_str()), 0);
    }
    void Unplug(const std::string& name) {
        ASSERT_EQ(remove((h.SpoolDir() + "/" + name + ".json").c_str()), 0);
        ASSERT_TRUE(h.WaitForLog("USB UNMOUNTED : " + mounts[name]));
    }
    // The next notice of Mount(dir) in `state` (with a generation above
    // `above`); each mount's notices are read in order.
    Json::Value Wait(const std::string& dir, const std::string& state, int64_t above = -1) {
        for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(180);
             std::chrono::steady_clock::now() < end;) {
            auto all = signals->Named("mox_library_notification");
            for (size_t& i = seen[dir]; i < all.size();) {
                Json::Value v = Parse(all[i++]->text());
                if (v["mount_path"].asString() == Mount(dir) && v["state"].asString() == state &&
                    v["generation"].asInt64() > above)
                    return v;
            }
            signals->WaitFor("mox_library_notification", all.size() + 1, std::chrono::milliseconds(200));
        }
        ADD_FAILURE() << "no \"" << state << "\" for " << dir;
        return Json::Value();
    }
    // The first completion after signal number `before` with an event in
    // [first, last] (drops answer with completions of their own).
    Json::Value Answer(size_t before, int first = INT_MIN, int last = INT_MAX) {
        for (size_t n = before + 1; signals->WaitFor("mox_request_normal_complete", n); ++n) {
            Json::Value ev = Parse(signals->Named("mox_request_normal_complete")[n - 1]->text());
            if (ev["mox_event_type"].asInt() >= first && ev["mox_event_type"].asInt() <= last) return ev;
        }
        ADD_FAILURE() << "no answer";
        return Json::Value();
    }
    // The act answer of a library document.
    Json::Value Act(const std::string& doc) {
        const size_t before = signals->Named("mox_request_normal_complete").size();
        EXPECT_TRUE(h.Call("request_act", g_variant_new("(uss)", handle, "", doc.c_str()), conn.get()).ok());
        return Answer(before);
    }
    Json::Value Volumes() {
        return Parse(
            Act(R"({"mox_command":"mox_library_status"})")["act_command_and_return_data"].asString())["volumes"];
    }
    // The status of Mount(dir) once it is in `state`: for a daemon started
    // with the stick plugged, whose notices may all precede the binding.
    Json::Value WaitStatus(const std::string& dir, const std::string& state) {
        Json::Value volumes;
        for (int i = 0; i < 1800; ++i) {
            volumes = Volumes();
            for (const Json::Value& v : volumes)
                if (v["mount_path"].asString() == Mount(dir) && v["state"].asString() == state) return v;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        ADD_FAILURE() << "status never \"" << state << "\" for " << dir << ": " << volumes.toStyledString();
        return Json::Value();
    }

    EngineHarness& h;
    ConnectionPtr conn;
    std::unique_ptr<SignalCollector> signals;
    guint32 handle = 0;

private:
    std::map<std::string, std::string> mounts;
    std::map<std::string, size_t> seen;
};

}  // namespace moxtest
