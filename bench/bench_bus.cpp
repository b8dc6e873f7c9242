// Daemon-level benchmark helper, two roles on the system bus given by
// DBUS_SYSTEM_BUS_ADDRESS:
//
//   bench_bus echo NAME STORAGES_FILE FOLDER_FILE
//     A raw GDBus service that owns NAME and answers get_usb_storages (us)
//     and check_folder_path (s) with the texts of the two files, read once.
//     It does nothing else: the baseline a daemon method is compared with.
//
//   bench_bus client METHOD ARGS CALLS ROUNDS DEST...
//     Calls METHOD with ARGS (GVariant text, e.g. "(uint32 1,)") CALLS x
//     ROUNDS times on every DEST, alternating call by call, and prints one
//     line per destination: the median latency of one call in nanoseconds.
//     Interleaving makes all destinations see the same machine load. With
//     ROUNDS 0 it makes CALLS
//     calls to the first destination only and prints the text of the
//     first reply (its last string member).
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>
#include <glib-unix.h>
#include <signal.h>

namespace {

constexpr const char* kPath = "/com/orvia/mox/engine";
constexpr const char* kInterface = "com.orvia.mox.engine";

constexpr const char* kIntrospection =
    "<node><interface name='com.orvia.mox.engine'>"
    "<method name='get_usb_storages'><arg type='u' direction='in'/>"
    "<arg type='u' direction='out'/><arg type='s' direction='out'/></method>"
    "<method name='check_folder_path'><arg type='s' direction='in'/>"
    "<arg type='s' direction='out'/></method>"
    "</interface></node>";

struct EchoData {
    std::string storages;
    std::string folder;
};

bool ReadFile(const char* path, std::string& out) {
    gchar* text = nullptr;
    gsize len = 0;
    if (!g_file_get_contents(path, &text, &len, nullptr)) {
        fprintf(stderr, "bench_bus: cannot read %s\n", path);
        return false;
    }
    out.assign(text, len);
    g_free(text);
    return true;
}

void OnEchoCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method, GVariant*,
                GDBusMethodInvocation* invocation, gpointer userData) {
    const EchoData* data = static_cast<const EchoData*>(userData);
    if (strcmp(method, "get_usb_storages") == 0)
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(us)", 0u, data->storages.c_str()));
    else
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", data->folder.c_str()));
}

int RunEcho(const char* name, const char* storagesFile, const char* folderFile) {
    EchoData data;
    if (!ReadFile(storagesFile, data.storages) || !ReadFile(folderFile, data.folder)) return 1;
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!bus) {
        fprintf(stderr, "bench_bus: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    static const GDBusInterfaceVTable vtable = {OnEchoCall, nullptr, nullptr, {nullptr}};
    g_dbus_connection_register_object(bus, kPath, node->interfaces[0], &vtable, &data, nullptr, nullptr);
    guint owner =
        g_bus_own_name_on_connection(bus, name, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr, nullptr);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(
        SIGTERM,
        [](gpointer l) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(l));
            return G_SOURCE_REMOVE;
        },
        loop);
    g_main_loop_run(loop);
    g_bus_unown_name(owner);
    g_main_loop_unref(loop);
    g_dbus_node_info_unref(node);
    g_object_unref(bus);
    return 0;
}

double NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e9 + ts.tv_nsec;
}

bool Call(GDBusConnection* bus, const char* dest, const char* method, GVariant* args, std::string* reply) {
    GError* error = nullptr;
    GVariant* result = g_dbus_connection_call_sync(bus, dest, kPath, kInterface, method, args, nullptr,
                                                   G_DBUS_CALL_FLAGS_NONE, 60000, nullptr, &error);
    if (!result) {
        fprintf(stderr, "bench_bus: %s on %s: %s\n", method, dest, error->message);
        g_error_free(error);
        return false;
    }
    if (reply) {
        // The text a method answers: the last string of the reply tuple.
        reply->clear();
        for (gsize i = 0; i < g_variant_n_children(result); ++i) {
            GVariant* child = g_variant_get_child_value(result, i);
            if (g_variant_is_of_type(child, G_VARIANT_TYPE_STRING)) *reply = g_variant_get_string(child, nullptr);
            g_variant_unref(child);
        }
    }
    g_variant_unref(result);
    return true;
}

int RunClient(const char* method, const char* argsText, int calls, int rounds, std::vector<const char*> dests) {
    GError* error = nullptr;
    GVariant* args = g_variant_parse(nullptr, argsText, nullptr, nullptr, &error);
    if (!args) {
        fprintf(stderr, "bench_bus: bad arguments %s: %s\n", argsText, error->message);
        g_error_free(error);
        return 1;
    }
    g_variant_ref_sink(args);
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!bus) {
        fprintf(stderr, "bench_bus: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    int status = 0;
    if (rounds == 0) {
        std::string reply;
        for (int i = 0; i < calls && status == 0; ++i)
            if (!Call(bus, dests[0], method, args, i == 0 ? &reply : nullptr)) status = 1;
        if (status == 0) fwrite(reply.data(), 1, reply.size(), stdout);
    } else {
        std::vector<std::vector<double>> perCall(dests.size());
        for (size_t d = 0; d < dests.size() && status == 0; ++d)  // warm-up
            for (int i = 0; i < 20 && status == 0; ++i)
                if (!Call(bus, dests[d], method, args, nullptr)) status = 1;
        // Calls alternate between the destinations one by one, and the
        // median of single calls is kept: a burst of load from elsewhere on
        // the machine hits both alike and moves no median.
        for (int r = 0; r < rounds && status == 0; ++r) {
            for (int i = 0; i < calls && status == 0; ++i) {
                for (size_t d = 0; d < dests.size() && status == 0; ++d) {
                    double start = NowNs();
                    if (!Call(bus, dests[d], method, args, nullptr)) status = 1;
                    perCall[d].push_back(NowNs() - start);
                }
            }
        }
        for (size_t d = 0; d < dests.size() && status == 0; ++d) {
            std::vector<double>& v = perCall[d];
            std::sort(v.begin(), v.end());
            printf("%s %.0f\n", dests[d], v[v.size() / 2]);
        }
    }
    g_variant_unref(args);
    g_object_unref(bus);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && strcmp(argv[1], "echo") == 0) return RunEcho(argv[2], argv[3], argv[4]);
    if (argc >= 7 && strcmp(argv[1], "client") == 0) {
        int calls = atoi(argv[4]);
        int rounds = atoi(argv[5]);
        if (calls > 0 && rounds >= 0)
            return RunClient(argv[2], argv[3], calls, rounds, std::vector<const char*>(argv + 6, argv + argc));
    }
    fprintf(stderr,
            "usage: bench_bus echo NAME STORAGES_FILE FOLDER_FILE\n"
            "       bench_bus client METHOD ARGS CALLS ROUNDS DEST...\n");
    return 2;
}
