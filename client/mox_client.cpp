// mox-client: a command-line client of the content engine.
//   mox-client watch-usb [COUNT] [SECONDS]
//     binds to storage events and prints each mox_usb_notification payload;
//     exits 0 after COUNT notifications (default 1), 1 when SECONDS (default
//     30) pass first. Prints "bound" once it is bound, so scripts can wait.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gio/gio.h>

namespace {

constexpr const char* kName = "com.orvia.mox.engine";
constexpr const char* kPath = "/com/orvia/mox/engine";
constexpr const char* kInterface = "com.orvia.mox.engine";

struct Watch {
    GMainLoop* loop;
    int remaining;
};

void OnNotification(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                    GVariant* params, gpointer data) {
    auto* watch = static_cast<Watch*>(data);
    const gchar* payload = nullptr;
    g_variant_get(params, "(&s)", &payload);
    printf("mox_usb_notification:\n%s", payload);
    fflush(stdout);
    if (--watch->remaining <= 0) g_main_loop_quit(watch->loop);
}

gboolean OnTimeout(gpointer data) {
    fprintf(stderr, "mox-client: timed out\n");
    g_main_loop_quit(static_cast<Watch*>(data)->loop);
    return G_SOURCE_REMOVE;
}

int WatchUsb(int count, int seconds) {
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!bus) {
        fprintf(stderr, "mox-client: no system bus: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    Watch watch{g_main_loop_new(nullptr, FALSE), count};
    guint sub = g_dbus_connection_signal_subscribe(bus, kName, kInterface, "mox_usb_notification", kPath,
                                                   nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnNotification,
                                                   &watch, nullptr);
    int status = 1;
    GVariant* reply = g_dbus_connection_call_sync(bus, kName, kPath, kInterface, "bind_usb_event",
                                                  g_variant_new("(u)", 1u), G_VARIANT_TYPE("(u)"),
                                                  G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
    if (!reply) {
        fprintf(stderr, "mox-client: bind_usb_event failed: %s\n", error->message);
        g_error_free(error);
    } else {
        g_variant_unref(reply);
        printf("bound\n");
        fflush(stdout);
        guint timer = g_timeout_add_seconds(static_cast<guint>(seconds), OnTimeout, &watch);
        g_main_loop_run(watch.loop);
        if (watch.remaining <= 0) {
            status = 0;
            g_source_remove(timer);
        }
        reply = g_dbus_connection_call_sync(bus, kName, kPath, kInterface, "bind_usb_event",
                                            g_variant_new("(u)", 0u), nullptr, G_DBUS_CALL_FLAGS_NONE,
                                            10000, nullptr, nullptr);
        if (reply) g_variant_unref(reply);
    }
    g_dbus_connection_signal_unsubscribe(bus, sub);
    g_main_loop_unref(watch.loop);
    g_object_unref(bus);
    return status;
}

int Usage() {
    fprintf(stderr, "usage: mox-client watch-usb [COUNT] [SECONDS]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && strcmp(argv[1], "watch-usb") == 0 && argc <= 4) {
        int count = argc >= 3 ? atoi(argv[2]) : 1;
        int seconds = argc >= 4 ? atoi(argv[3]) : 30;
        if (count < 1 || seconds < 1) return Usage();
        return WatchUsb(count, seconds);
    }
    return Usage();
}
