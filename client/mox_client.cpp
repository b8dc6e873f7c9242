// mox-client: a command-line client of the content engine.
//   mox-client watch-usb [COUNT] [SECONDS]
//     binds to storage events and prints each mox_usb_notification payload;
//     exits 0 after COUNT notifications (default 1), 1 when SECONDS (default
//     30) pass first. Prints "bound" once it is bound, so scripts can wait.
//   mox-client list LIBRARY DOCUMENT [SECONDS]
//     connects to the source plug-in LIBRARY, sends the list command
//     DOCUMENT, maps the result list it gets back and prints its items one a
//     line ("[index] item"), then drops the list. Exits 0 when the list was
//     read and dropped, 1 otherwise (failure event, timeout after SECONDS,
//     default 30).
//   mox-client copy SRC DST [SECONDS]
//     asks the transfer source to copy SRC (a file below the USB root, or an
//     http/https URL) to DST, prints each progress report and the final
//     event; exits 0 when the transfer ended with code 0.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <string>

#include <gio/gio.h>
#include <json/json.h>

#include <mox/mox_resultlist.h>

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

// Waits for the next mox_request_normal_complete addressed to `handle`.
struct Completion {
    GMainLoop* loop = nullptr;
    guint32 handle = 0;
    Json::Value payload;
    bool received = false;
};

void OnComplete(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* params,
                gpointer data) {
    auto* completion = static_cast<Completion*>(data);
    const gchar* text = nullptr;
    g_variant_get(params, "(&s)", &text);
    Json::Value payload;
    Json::Reader reader;
    if (!reader.parse(text, payload) || !payload.isObject() || !payload["mox_handle_id"].isUInt() ||
        payload["mox_handle_id"].asUInt() != completion->handle)
        return;
    completion->payload = payload;
    completion->received = true;
    g_main_loop_quit(completion->loop);
}

gboolean OnCompletionTimeout(gpointer data) {
    g_main_loop_quit(static_cast<Completion*>(data)->loop);
    return G_SOURCE_REMOVE;
}

bool CallAndWait(GDBusConnection* bus, Completion& completion, const char* method, GVariant* params,
                 int seconds) {
    completion.received = false;
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(bus, kName, kPath, kInterface, method, params, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
    if (!reply) {
        fprintf(stderr, "mox-client: %s failed: %s\n", method, error->message);
        g_error_free(error);
        return false;
    }
    g_variant_unref(reply);
    guint timer = g_timeout_add_seconds(static_cast<guint>(seconds), OnCompletionTimeout, &completion);
    g_main_loop_run(completion.loop);
    if (completion.received) g_source_remove(timer);
    else fprintf(stderr, "mox-client: timed out waiting for %s\n", method);
    return completion.received;
}

int PrintList(GDBusConnection* bus, Completion& completion, guint32 handle, const std::string& name,
              int seconds) {
    CResultList list(name);
    if (!list.IsLoaded()) {
        fprintf(stderr, "mox-client: can not read result list %s\n", name.c_str());
        return 1;
    }
    printf("%s: items %d..%d of %d\n", name.c_str(), list.StartIndex(), list.EndIndex(), list.GetTotalCount());
    int status = 0;
    for (int i = list.StartIndex(); i <= list.EndIndex(); ++i) {
        std::string item, block;
        int index = -1;
        if (!list.GetItem(i, item, block, index)) {
            status = 1;
            continue;
        }
        // The last item of a block carries its padding NULs.
        printf("[%d] %s\n", i, item.c_str());
    }
    if (!CallAndWait(bus, completion, "drop_partial_list", g_variant_new("(us)", handle, name.c_str()), seconds) ||
        completion.payload["mox_event_type"].asInt() != 10)
        return 1;
    printf("dropped %s\n", name.c_str());
    return status;
}

int List(const char* library, const char* document, int seconds) {
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!bus) {
        fprintf(stderr, "mox-client: no system bus: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    Completion completion;
    completion.loop = g_main_loop_new(nullptr, FALSE);
    completion.handle = 0;
    guint sub = g_dbus_connection_signal_subscribe(bus, kName, kInterface, "mox_request_normal_complete", kPath,
                                                   nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnComplete, &completion,
                                                   nullptr);
    int status = 1;
    GVariant* reply = g_dbus_connection_call_sync(bus, kName, kPath, kInterface, "connect",
                                                  g_variant_new("(s)", library), G_VARIANT_TYPE("(u)"),
                                                  G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
    guint32 handle = 4294967295u;
    if (!reply) {
        fprintf(stderr, "mox-client: connect failed: %s\n", error->message);
        g_error_free(error);
    } else {
        g_variant_get(reply, "(u)", &handle);
        g_variant_unref(reply);
    }
    if (handle == 4294967295u) {
        fprintf(stderr, "mox-client: the engine refused source library %s\n", library);
    } else {
        completion.handle = handle;
        printf("connected, handle %u\n", handle);
        if (CallAndWait(bus, completion, "get_partial_list", g_variant_new("(uuus)", handle, 0u, 0u, document),
                        seconds)) {
            int event = completion.payload["mox_event_type"].asInt();
            std::string name = completion.payload["mox_result_list_block_name"].asString();
            if (event == 0 && !name.empty())
                status = PrintList(bus, completion, handle, name, seconds);
            else
                fprintf(stderr, "mox-client: list request ended with event %d\n", event);
        }
    }
    g_dbus_connection_signal_unsubscribe(bus, sub);
    g_main_loop_unref(completion.loop);
    g_object_unref(bus);
    return status;
}

// Waits for the next signal to the completion's handle, without a call.
bool WaitNext(Completion& completion, int seconds) {
    completion.received = false;
    guint timer = g_timeout_add_seconds(static_cast<guint>(seconds), OnCompletionTimeout, &completion);
    g_main_loop_run(completion.loop);
    if (completion.received) g_source_remove(timer);
    return completion.received;
}

int Copy(const char* src, const char* dst, int seconds) {
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!bus) {
        fprintf(stderr, "mox-client: no system bus: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    Completion completion;
    completion.loop = g_main_loop_new(nullptr, FALSE);
    guint sub = g_dbus_connection_signal_subscribe(bus, kName, kInterface, "mox_request_normal_complete", kPath,
                                                   nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnComplete, &completion,
                                                   nullptr);
    int status = 1;
    GVariant* reply = g_dbus_connection_call_sync(bus, kName, kPath, kInterface, "connect",
                                                  g_variant_new("(s)", "libmox_ra_source.so"), G_VARIANT_TYPE("(u)"),
                                                  G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
    if (!reply) {
        fprintf(stderr, "mox-client: connect failed: %s\n", error->message);
        g_error_free(error);
    } else {
        g_variant_get(reply, "(u)", &completion.handle);
        g_variant_unref(reply);
        Json::Value doc;
        doc["mox_command"] = "mox_file_transfer";
        doc["mox_source"] = "mox_ra_source";
        doc["mox_transfer_id"] = "mox-client-" + std::to_string(getpid());
        doc["mox_transfer_src"] = src;
        doc["mox_transfer_dst"] = dst;
        std::string text = Json::FastWriter().write(doc);
        bool ok = CallAndWait(bus, completion, "request_act", g_variant_new("(uss)", completion.handle, "", text.c_str()),
                              seconds);
        while (ok && completion.payload["mox_file_transfer_signal"].asInt() == 1) {
            Json::Value data;
            Json::Reader().parse(completion.payload["mox_file_transter_data"].asString(), data);
            printf("progress: %.0f of %.0f bytes\n", data["mox_file_transter_dlnow"].asDouble(),
                   data["mox_file_transter_dltotal"].asDouble());
            fflush(stdout);
            ok = WaitNext(completion, seconds);
        }
        if (ok) {
            int code = completion.payload["mox_error_code"].asInt();
            printf("finished: event %d, code %d\n", completion.payload["mox_event_type"].asInt(), code);
            status = code == 0 ? 0 : 1;
        } else {
            fprintf(stderr, "mox-client: no end of the transfer within %d s\n", seconds);
        }
    }
    g_dbus_connection_signal_unsubscribe(bus, sub);
    g_main_loop_unref(completion.loop);
    g_object_unref(bus);
    return status;
}

int Usage() {
    fprintf(stderr, "usage: mox-client watch-usb [COUNT] [SECONDS]\n"
                    "       mox-client list LIBRARY DOCUMENT [SECONDS]\n"
                    "       mox-client copy SRC DST [SECONDS]\n");
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
    if (argc >= 4 && strcmp(argv[1], "list") == 0 && argc <= 5) {
        int seconds = argc >= 5 ? atoi(argv[4]) : 30;
        if (seconds < 1) return Usage();
        return List(argv[2], argv[3], seconds);
    }
    if (argc >= 4 && strcmp(argv[1], "copy") == 0 && argc <= 5) {
        int seconds = argc >= 5 ? atoi(argv[4]) : 60;
        if (seconds < 1) return Usage();
        return Copy(argv[2], argv[3], seconds);
    }
    return Usage();
}
