// A benchmark's client of the engine on the bus DBUS_SYSTEM_BUS_ADDRESS
// names: a connection of its own, bound to one source, and the request
// signals it receives, in order.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <vector>

#include <gio/gio.h>
#include <json/json.h>

namespace moxbench {

constexpr const char* kName = "com.orvia.mox.engine";
constexpr const char* kPath = "/com/orvia/mox/engine";
constexpr const char* kIface = "com.orvia.mox.engine";

inline GDBusConnection* NewConnection() {
    GError* error = nullptr;
    GDBusConnection* c = g_dbus_connection_new_for_address_sync(
        getenv("DBUS_SYSTEM_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!c) {
        fprintf(stderr, "no bus: %s\n", error->message);
        exit(1);
    }
    return c;
}

struct BusClient {
    GDBusConnection* conn = NewConnection();
    std::vector<Json::Value> events;
    guint sub = 0;
    guint32 handle = 0;
    int nTimeoutMs;

    // Connects to the source plug-in szPlugin; exits when the engine refuses.
    BusClient(const char* szPlugin, int nCallTimeoutMs) : nTimeoutMs(nCallTimeoutMs) {
        sub = g_dbus_connection_signal_subscribe(conn, nullptr, kIface, "mox_request_normal_complete", kPath, nullptr,
                                                 G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, this, nullptr);
        GVariant* r = g_dbus_connection_call_sync(conn, kName, kPath, kIface, "connect", g_variant_new("(s)", szPlugin),
                                                  nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
        if (!r) exit(1);
        g_variant_get(r, "(u)", &handle);
        g_variant_unref(r);
    }
    ~BusClient() {
        g_dbus_connection_signal_unsubscribe(conn, sub);
        g_object_unref(conn);
    }
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    static void OnSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* p,
                         gpointer self) {
        const gchar* text = nullptr;
        g_variant_get(p, "(&s)", &text);
        Json::Value v;
        Json::Reader().parse(text, v);
        static_cast<BusClient*>(self)->events.push_back(v);
    }
    // Calls without waiting for the reply: the answer comes as a signal.
    void Send(const char* method, GVariant* params) {
        g_dbus_connection_call(conn, kName, kPath, kIface, method, params, nullptr, G_DBUS_CALL_FLAGS_NONE, nTimeoutMs,
                               nullptr, nullptr, nullptr);
    }
    Json::Value Wait() {
        while (events.empty()) g_main_context_iteration(nullptr, TRUE);
        Json::Value v = events.front();
        events.erase(events.begin());
        return v;
    }
};

}  // namespace moxbench
