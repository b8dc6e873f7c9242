#include "moxctl_bus.h"

#include <algorithm>
#include <csignal>

#include <glib-unix.h>

namespace moxctl {

namespace {

struct GErrorFree {
    void operator()(GError* e) const {
        if (e) g_error_free(e);
    }
};
using ErrorPtr = std::unique_ptr<GError, GErrorFree>;

bool EngineAbsentError(const GError* e) {
    if (e->domain == G_DBUS_ERROR)
        return e->code == G_DBUS_ERROR_SERVICE_UNKNOWN || e->code == G_DBUS_ERROR_NAME_HAS_NO_OWNER ||
               e->code == G_DBUS_ERROR_NO_REPLY || e->code == G_DBUS_ERROR_TIMEOUT ||
               e->code == G_DBUS_ERROR_TIMED_OUT || e->code == G_DBUS_ERROR_DISCONNECTED;
    if (e->domain == G_IO_ERROR) return e->code == G_IO_ERROR_TIMED_OUT || e->code == G_IO_ERROR_CLOSED;
    return false;
}

std::string ErrorText(GError* e) {
    // Remote errors carry "GDBus.Error:name: text"; the name is enough noise.
    if (g_dbus_error_is_remote_error(e)) g_dbus_error_strip_remote_error(e);
    return e->message ? e->message : "unknown error";
}

// Signals kept for a later WaitSignal at most; older ones are dropped.
constexpr size_t kMaxQueued = 4096;

}  // namespace

std::string EngineSignal::Text() const {
    if (!params || !g_variant_is_of_type(params.get(), G_VARIANT_TYPE_TUPLE) || g_variant_n_children(params.get()) == 0)
        return {};
    VariantPtr first(g_variant_get_child_value(params.get(), 0));
    if (!g_variant_is_of_type(first.get(), G_VARIANT_TYPE_STRING)) return {};
    return g_variant_get_string(first.get(), nullptr);
}

CMOXCtlBus::CMOXCtlBus(GDBusConnection* connection, std::chrono::milliseconds timeout)
    : m_connection(connection), m_timeout(timeout) {
    m_signalSub = g_dbus_connection_signal_subscribe(m_connection, kEngineName, kEngineInterface, nullptr, kEnginePath,
                                                     nullptr, G_DBUS_SIGNAL_FLAGS_NONE, s_OnSignal, this, nullptr);
    m_ownerSub = g_dbus_connection_signal_subscribe(m_connection, "org.freedesktop.DBus", "org.freedesktop.DBus",
                                                    "NameOwnerChanged", "/org/freedesktop/DBus", kEngineName,
                                                    G_DBUS_SIGNAL_FLAGS_NONE, s_OnOwnerChanged, this, nullptr);
    m_closedHandler = g_signal_connect(m_connection, "closed", G_CALLBACK(s_OnClosed), this);
    const int signals[3] = {SIGINT, SIGTERM, SIGHUP};
    for (int i = 0; i < 3; ++i) m_unixSources[i] = g_unix_signal_add(signals[i], s_OnUnixSignal, this);
}

CMOXCtlBus::~CMOXCtlBus() {
    for (guint id : m_unixSources)
        if (id) g_source_remove(id);
    g_signal_handler_disconnect(m_connection, m_closedHandler);
    g_dbus_connection_signal_unsubscribe(m_connection, m_signalSub);
    g_dbus_connection_signal_unsubscribe(m_connection, m_ownerSub);
    // Pending outgoing messages (a last drop or unbind) leave before we go.
    g_dbus_connection_flush_sync(m_connection, nullptr, nullptr);
    g_object_unref(m_connection);
}

std::unique_ptr<CMOXCtlBus> CMOXCtlBus::Open(const Options& options, std::string& error) {
    GError* raw = nullptr;
    GDBusConnection* connection = nullptr;
    if (options.address.empty()) {
        connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &raw);
    } else {
        connection = g_dbus_connection_new_for_address_sync(
            options.address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &raw);
    }
    ErrorPtr e(raw);
    if (!connection) {
        error = "cannot connect to the bus" + (options.address.empty() ? std::string() : " at " + options.address) +
                ": " + ErrorText(e.get());
        return nullptr;
    }
    // A vanished bus must not kill the tool with SIGTERM; calls then fail.
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    return std::unique_ptr<CMOXCtlBus>(new CMOXCtlBus(connection, options.timeout));
}

VariantPtr CMOXCtlBus::Call(const char* method, GVariant* params, const char* replyType, std::string& error,
                            int& exitCode) {
    GError* raw = nullptr;
    auto timeoutMs = static_cast<gint>(std::min<long long>(m_timeout.count(), G_MAXINT));
    GVariant* reply = g_dbus_connection_call_sync(m_connection, kEngineName, kEnginePath, kEngineInterface, method,
                                                  params, replyType ? G_VARIANT_TYPE(replyType) : nullptr,
                                                  G_DBUS_CALL_FLAGS_NO_AUTO_START, timeoutMs, nullptr, &raw);
    ErrorPtr e(raw);
    if (!reply) {
        bool absent = EngineAbsentError(e.get());
        exitCode = absent ? kExitUnavailable : kExitFailed;
        if (e->domain == G_DBUS_ERROR &&
            (e->code == G_DBUS_ERROR_SERVICE_UNKNOWN || e->code == G_DBUS_ERROR_NAME_HAS_NO_OWNER))
            error = std::string("the engine (") + kEngineName + ") is not on the bus";
        else
            error = std::string(method) + " failed: " + ErrorText(e.get());
        return nullptr;
    }
    return VariantPtr(reply);
}

CMOXCtlBus::Wait CMOXCtlBus::WaitSignal(const std::function<bool(const EngineSignal&)>& match, EngineSignal& out) {
    return WaitSignal(match, out, m_timeout);
}

CMOXCtlBus::Wait CMOXCtlBus::WaitSignal(const std::function<bool(const EngineSignal&)>& match, EngineSignal& out,
                                        std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        for (auto it = m_queue.begin(); it != m_queue.end(); ++it) {
            if (match(*it)) {
                out = std::move(*it);
                m_queue.erase(it);
                return Wait::kGot;
            }
        }
        if (m_bInterrupted) return Wait::kInterrupted;
        if (m_bEngineGone) return Wait::kEngineGone;
        auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return Wait::kTimeout;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count() + 1;
        guint timer = g_timeout_add(static_cast<guint>(std::min<long long>(left, G_MAXINT)), s_OnTick, this);
        g_main_context_iteration(nullptr, TRUE);
        GSource* source = g_main_context_find_source_by_id(nullptr, timer);
        if (source && !g_source_is_destroyed(source)) g_source_remove(timer);
    }
}

void CMOXCtlBus::Poll() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

int CMOXCtlBus::Describe(Wait w, const std::string& what, std::string& error) {
    switch (w) {
        case Wait::kGot: return kExitOk;
        case Wait::kTimeout: error = "timed out waiting for " + what; return kExitUnavailable;
        case Wait::kInterrupted: error = "interrupted"; return kExitInterrupted;
        case Wait::kEngineGone: error = "the engine left the bus while waiting for " + what; return kExitUnavailable;
    }
    return kExitFailed;
}

void CMOXCtlBus::s_OnSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name,
                            GVariant* params, gpointer self) {
    EngineSignal s;
    s.name = name;
    s.params.reset(params ? g_variant_ref(params) : nullptr);
    auto* bus = static_cast<CMOXCtlBus*>(self);
    // Signals nobody waits for must not pile up without end.
    if (bus->m_queue.size() >= kMaxQueued) bus->m_queue.pop_front();
    bus->m_queue.push_back(std::move(s));
}

void CMOXCtlBus::s_OnClosed(GDBusConnection*, gboolean, GError*, gpointer self) {
    static_cast<CMOXCtlBus*>(self)->m_bEngineGone = true;
}

void CMOXCtlBus::s_OnOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                  GVariant* params, gpointer self) {
    if (!g_variant_is_of_type(params, G_VARIANT_TYPE("(sss)"))) return;
    const gchar* name = nullptr;
    const gchar* oldOwner = nullptr;
    const gchar* newOwner = nullptr;
    g_variant_get(params, "(&s&s&s)", &name, &oldOwner, &newOwner);
    if (g_strcmp0(name, kEngineName) == 0 && (!newOwner || !*newOwner))
        static_cast<CMOXCtlBus*>(self)->m_bEngineGone = true;
}

gboolean CMOXCtlBus::s_OnUnixSignal(gpointer self) {
    static_cast<CMOXCtlBus*>(self)->m_bInterrupted = true;
    return G_SOURCE_CONTINUE;
}

gboolean CMOXCtlBus::s_OnTick(gpointer) {
    return G_SOURCE_REMOVE;
}

}  // namespace moxctl
