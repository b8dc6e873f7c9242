// Test helper run by EngineHarness::CallAsUser after it dropped to another
// user: connects to $DBUS_SYSTEM_BUS_ADDRESS, makes the calls named on the
// command line in order on one connection, and reports on stdout what came
// back, one line each:
//   reply N <value>          the reply of call N (GVariant text, typed)
//   error N <name>\t<text>   the D-Bus error of call N
//   signal <name> <value>    an engine signal that reached this connection
//   fatal <text>             no connection could be made
//   whoami <uid> <gid>       the identity the calls are made with (first line)
//   mox_call_as WAIT_MS (INTERFACE METHOD PARAMS)...
// PARAMS is GVariant text or "" for none; "%HANDLE%" in it stands for the
// handle of the last successful "connect" reply. Signals are collected while
// the calls run and for WAIT_MS after the last one.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include <gio/gio.h>

namespace {

constexpr const char* kEngineName = "com.orvia.mox.engine";
constexpr const char* kEnginePath = "/com/orvia/mox/engine";
constexpr const char* kEngineInterface = "com.orvia.mox.engine";

std::string OneLine(const char* text) {
    std::string out = text ? text : "";
    for (char& c : out)
        if (c == '\n' || c == '\r') c = ' ';
    return out;
}

void PrintValue(const char* head, GVariant* value) {
    gchar* text = g_variant_print(value, TRUE);
    printf("%s %s\n", head, text);
    g_free(text);
    fflush(stdout);
}

void OnSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name, GVariant* params,
              gpointer) {
    PrintValue(("signal " + std::string(name)).c_str(), params);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || (argc - 2) % 3 != 0) {
        fprintf(stderr, "usage: mox_call_as WAIT_MS (INTERFACE METHOD PARAMS)...\n");
        return 2;
    }
    printf("whoami %u %u\n", static_cast<unsigned>(geteuid()), static_cast<unsigned>(getegid()));
    const char* address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    GError* error = nullptr;
    GDBusConnection* conn = g_dbus_connection_new_for_address_sync(
        address ? address : "",
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!conn) {
        printf("fatal %s\n", OneLine(error ? error->message : "no bus address").c_str());
        if (error) g_error_free(error);
        return 3;
    }
    guint subscription =
        g_dbus_connection_signal_subscribe(conn, nullptr, kEngineInterface, nullptr, kEnginePath, nullptr,
                                           G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, nullptr, nullptr);
    std::string handle = "4294967295";
    for (int i = 2, n = 0; i + 2 < argc; i += 3, ++n) {
        std::string text = argv[i + 2];
        for (size_t pos = text.find("%HANDLE%"); pos != std::string::npos; pos = text.find("%HANDLE%"))
            text.replace(pos, 8, handle);
        GVariant* params = nullptr;
        if (!text.empty()) {
            params = g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, &error);
            if (!params) {
                printf("error %d mox_call_as.BadParams\t%s\n", n, OneLine(error->message).c_str());
                g_clear_error(&error);
                continue;
            }
        }
        GVariant* reply = g_dbus_connection_call_sync(conn, kEngineName, kEnginePath, argv[i], argv[i + 1], params,
                                                      nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
        if (reply) {
            PrintValue(("reply " + std::to_string(n)).c_str(), reply);
            if (strcmp(argv[i + 1], "connect") == 0 && g_variant_is_of_type(reply, G_VARIANT_TYPE("(u)"))) {
                guint32 value = 0;
                g_variant_get(reply, "(u)", &value);
                handle = std::to_string(value);
            }
            g_variant_unref(reply);
        } else {
            gchar* name = g_dbus_error_get_remote_error(error);
            printf("error %d %s\t%s\n", n, name ? name : "local", OneLine(error->message).c_str());
            fflush(stdout);
            g_free(name);
            g_clear_error(&error);
        }
        // Signals that arrived meanwhile are reported in order.
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
    }
    gint64 until = g_get_monotonic_time() + std::atoll(argv[1]) * 1000;
    while (g_get_monotonic_time() < until) {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        g_usleep(5000);
    }
    g_dbus_connection_signal_unsubscribe(conn, subscription);
    g_dbus_connection_close_sync(conn, nullptr, nullptr);
    g_object_unref(conn);
    return 0;
}
