// Storage, folder-map, liveness, monitor, device-check and thumbnail commands.
#include "moxctl_commands.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <ctime>

#include <glib.h>

#include <mox/mox_events.h>

namespace moxctl {

namespace {

constexpr guint32 kRefusedHandle = 4294967295u;

}  // namespace

std::string MediaTypeName(int type) {
    switch (type) {
        case 0: return "none";
        case 2: return "photo";
        case 3: return "video";
        case 5: return "music";
        case 6: return "recording";
        case 10: return "uhd";
        case 11: return "scsa";
        case 12: return "playlist";
        case 15: return "all";
        default: return std::to_string(type);
    }
}

namespace {

std::string StringMember(const Json::Value& v, const char* key) {
    if (!v.isObject()) return {};
    const Json::Value& m = v[key];
    return m.isString() ? m.asString() : std::string();
}

// Storage sizes arrive as decimal KiB strings.
double KiB(const Json::Value& device, const char* key) {
    std::string text = StringMember(device, key);
    char* end = nullptr;
    double value = g_ascii_strtod(text.c_str(), &end);
    return end && end != text.c_str() && value >= 0 ? value * 1024.0 : 0;
}

Json::Value StorageDevices(const std::string& document) {
    Json::Value doc;
    std::string error;
    if (!CMOXCtlOutput::Parse(document, doc, error) || !doc.isObject() || !doc["devices"].isArray())
        return Json::Value(Json::arrayValue);  // "null": no storage of that type
    return doc["devices"];
}

std::string Timestamp() {
    char buf[32];
    time_t now = time(nullptr);
    struct tm tm {};
    localtime_r(&now, &tm);
    strftime(buf, sizeof buf, "%H:%M:%S", &tm);
    return buf;
}

}  // namespace

bool Context::Utf8Arg(const char* what, const std::string& value) const {
    if (g_utf8_validate(value.data(), static_cast<gssize>(value.size()), nullptr) &&
        value.find('\0') == std::string::npos)
        return true;
    Fail(kExitUsage, std::string(what) + " is not valid UTF-8: " + CMOXCtlOutput::Printable(value));
    return false;
}

std::string AbsolutePath(const std::string& path) {
    gchar* canonical = g_canonicalize_filename(path.c_str(), nullptr);
    std::string out(canonical);
    g_free(canonical);
    return out;
}

int IntMember(const Json::Value& v, const char* key, int fallback) {
    if (!v.isObject()) return fallback;
    const Json::Value& m = v[key];
    return m.isInt() ? m.asInt() : fallback;
}

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

CMOXCtlBus::Wait WaitCompletion(CMOXCtlBus& bus, const char* name, guint32 handle,
                                const std::function<bool(int)>& events, Json::Value& payload) {
    EngineSignal s;
    auto w = bus.WaitSignal(
        [&](const EngineSignal& sig) {
            if (sig.name != name) return false;
            Json::Value v;
            std::string error;
            if (!CMOXCtlOutput::Parse(sig.Text(), v, error) || !v.isObject()) return false;
            if (!v["mox_handle_id"].isIntegral() || v["mox_handle_id"].asLargestInt() != handle) return false;
            if (!v["mox_event_type"].isInt() || !events(v["mox_event_type"].asInt())) return false;
            payload = v;
            return true;
        },
        s);
    return w;
}

SourceSession::~SourceSession() {
    if (!m_bOpen) return;
    std::string error;
    int code = 0;
    // Best effort: the engine also forgets a client that leaves the bus.
    m_ctx.bus.Call("disconnect", g_variant_new("(u)", m_handle), nullptr, error, code);
}

int SourceSession::Open(const std::string& plugin) {
    if (!m_ctx.Utf8Arg("plug-in name", plugin)) return kExitUsage;
    std::string error;
    int code = 0;
    VariantPtr reply = m_ctx.bus.Call("connect", g_variant_new("(s)", plugin.c_str()), "(u)", error, code);
    if (!reply) return m_ctx.Fail(code, error);
    g_variant_get(reply.get(), "(u)", &m_handle);
    if (m_handle == kRefusedHandle)
        return m_ctx.Fail(kExitFailed, "the engine refused the source library " + plugin +
                                           " (only lib*.so names in its plug-in directory load)");
    m_bOpen = true;
    return kExitOk;
}

int RunStatus(Context& ctx) {
    Json::Value all(Json::arrayValue);
    for (guint32 type : {1u, 2u}) {
        std::string error;
        int code = 0;
        VariantPtr reply = ctx.bus.Call("get_usb_storages", g_variant_new("(u)", type), "(us)", error, code);
        if (!reply) return ctx.Fail(code, error);
        guint32 result = 0;
        const gchar* document = nullptr;
        g_variant_get(reply.get(), "(u&s)", &result, &document);
        if (result != 0)
            return ctx.Fail(kExitFailed, std::string("the engine could not list ") + (type == 1 ? "USB" : "PTP") +
                                             " storages (code " + std::to_string(result) + ")");
        for (const auto& d : StorageDevices(document))
            if (d.isObject()) all.append(d);
    }
    if (ctx.out.Json()) {
        Json::Value v;
        v["storages"] = all;
        CMOXCtlOutput::PrintJson(v);
        return kExitOk;
    }
    if (all.empty()) {
        printf("No storage.\n");
        return kExitOk;
    }
    std::vector<std::vector<std::string>> rows;
    for (const auto& d : all) {
        double total = KiB(d, "totalSize");
        double used = total - KiB(d, "availableSize");
        rows.push_back({d["deviceIndex"].isNumeric() ? std::to_string(d["deviceIndex"].asLargestInt()) : "?",
                        CMOXCtlOutput::Printable(StringMember(d, "name")),
                        CMOXCtlOutput::Printable(StringMember(d, "partitionLabel")),
                        CMOXCtlOutput::Printable(StringMember(d, "mountPath")),
                        CMOXCtlOutput::Printable(StringMember(d, "fileSystem")),
                        CMOXCtlOutput::HumanBytes(used < 0 ? 0 : used) + " / " + CMOXCtlOutput::HumanBytes(total)});
    }
    CMOXCtlOutput::PrintTable({"INDEX", "NAME", "LABEL", "MOUNT PATH", "FS", "USED / TOTAL"}, rows);
    return kExitOk;
}

int RunMonitor(Context& ctx, const MonitorArgs& args) {
    std::string error;
    int code = 0;
    VariantPtr reply = ctx.bus.Call("bind_usb_event", g_variant_new("(u)", 1u), "(u)", error, code);
    if (!reply) return ctx.Fail(code, error);
    if (ctx.out.Json()) {
        Json::Value v;
        v["monitor"] = "bound";
        CMOXCtlOutput::PrintJson(v);
    } else {
        printf("Watching storage events%s; Ctrl-C stops.\n", args.all ? " and every signal for this client" : "");
        fflush(stdout);
    }
    int status = kExitOk;
    int seen = 0;
    while (args.count == 0 || seen < args.count) {
        EngineSignal s;
        // Every signal is taken, so that ignored ones do not pile up.
        auto w = ctx.bus.WaitSignal([](const EngineSignal&) { return true; }, s, std::chrono::hours(24 * 365));
        if (w == CMOXCtlBus::Wait::kInterrupted) break;
        if (w == CMOXCtlBus::Wait::kTimeout) continue;
        if (w == CMOXCtlBus::Wait::kEngineGone) {
            status = ctx.Fail(kExitUnavailable, "the engine left the bus");
            break;
        }
        if (!args.all && s.name != "mox_usb_notification") continue;
        ++seen;
        Json::Value payload;
        std::string text = s.Text();
        bool parsed = CMOXCtlOutput::Parse(text, payload, error) && payload.isObject();
        if (s.name == "mox_usb_notification") {
            int event = parsed && payload["event"].isInt() ? payload["event"].asInt() : 0;
            const Json::Value& devices = parsed ? payload["devices"] : Json::Value::nullSingleton();
            if (ctx.out.Json()) {
                Json::Value v;
                v["signal"] = s.name;
                v["event"] = event;
                v["devices"] = devices.isArray() ? devices : Json::Value(Json::arrayValue);
                CMOXCtlOutput::PrintJson(v);
            } else {
                std::string what = event == 1 ? "connected" : event == 2 ? "disconnected" : "changed";
                std::string names;
                if (devices.isArray())
                    for (const auto& d : devices)
                        names += " " + CMOXCtlOutput::Printable(StringMember(d, "mountPath")) + " (" +
                                 CMOXCtlOutput::Printable(StringMember(d, "name")) + ")";
                printf("%s storage %s:%s\n", Timestamp().c_str(), what.c_str(), names.empty() ? " -" : names.c_str());
                fflush(stdout);
            }
            continue;
        }
        // Any other signal, with its arguments as they came.
        if (ctx.out.Json()) {
            Json::Value v;
            v["signal"] = s.name;
            gchar* printed = s.params ? g_variant_print(s.params.get(), FALSE) : g_strdup("()");
            v["args"] = CMOXCtlOutput::Utf8(printed);
            g_free(printed);
            if (parsed) v["payload"] = payload;
            CMOXCtlOutput::PrintJson(v);
        } else {
            gchar* printed = s.params ? g_variant_print(s.params.get(), FALSE) : g_strdup("()");
            printf("%s %s %s\n", Timestamp().c_str(), s.name.c_str(), CMOXCtlOutput::Printable(printed).c_str());
            g_free(printed);
            fflush(stdout);
        }
    }
    if (!ctx.bus.EngineGone()) {
        VariantPtr unbound = ctx.bus.Call("bind_usb_event", g_variant_new("(u)", 0u), "(u)", error, code);
        if (!unbound && status == kExitOk) status = ctx.Fail(code, error);
    }
    return status;
}

int RunPing(Context& ctx) {
    std::string error;
    int code = 0;
    auto start = std::chrono::steady_clock::now();
    VariantPtr reply = ctx.bus.Call("start_server", nullptr, "(s)", error, code);
    if (!reply) return ctx.Fail(code, error);
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    const gchar* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    if (g_strcmp0(text, "MOX_SERVER_START_SUCCESS") != 0)
        return ctx.Fail(kExitFailed, std::string("unexpected answer: ") + text);
    if (ctx.out.Json()) {
        Json::Value v;
        v["reply"] = text;
        v["milliseconds"] = ms;
        CMOXCtlOutput::PrintJson(v);
    } else {
        printf("%s answered in %.2f ms\n", kEngineName, ms);
    }
    return kExitOk;
}

namespace {

int FolderCall(Context& ctx, const Json::Value& request, std::string& answer) {
    std::string error;
    int code = 0;
    std::string text = CompactJson(request);
    VariantPtr reply = ctx.bus.Call("check_folder_path", g_variant_new("(s)", text.c_str()), "(s)", error, code);
    if (!reply) return ctx.Fail(code, error);
    const gchar* s = nullptr;
    g_variant_get(reply.get(), "(&s)", &s);
    answer = s;
    return kExitOk;
}

}  // namespace

int RunFolderAdd(Context& ctx, const std::string& path, const std::string& id) {
    if (!ctx.Utf8Arg("PATH", path) || !ctx.Utf8Arg("ID", id)) return kExitUsage;
    Json::Value request;
    request["OPERATION_TYPE"] = 0;
    request["FOLDER_PATH"] = path;
    request["FOLDER_ID"] = id;
    std::string answer;
    if (int rc = FolderCall(ctx, request, answer)) return rc;
    // The engine answers success even when its map is full; look it up.
    Json::Value find;
    find["OPERATION_TYPE"] = 1;
    find["FOLDER_PATH"] = path;
    std::string found;
    if (int rc = FolderCall(ctx, find, found)) return rc;
    if (found != id) return ctx.Fail(kExitFailed, "the engine did not keep " + path + " (folder map full?)");
    if (ctx.out.Json()) {
        Json::Value v;
        v["path"] = path;
        v["id"] = id;
        CMOXCtlOutput::PrintJson(v);
    } else {
        printf("%s -> %s\n", CMOXCtlOutput::Printable(path).c_str(), CMOXCtlOutput::Printable(id).c_str());
    }
    return kExitOk;
}

int RunFolderFind(Context& ctx, const std::string& path) {
    if (!ctx.Utf8Arg("PATH", path)) return kExitUsage;
    Json::Value find;
    find["OPERATION_TYPE"] = 1;
    find["FOLDER_PATH"] = path;
    std::string found;
    if (int rc = FolderCall(ctx, find, found)) return rc;
    if (found.empty()) return ctx.Fail(kExitFailed, "no folder id for " + path);
    if (ctx.out.Json()) {
        Json::Value v;
        v["path"] = path;
        v["id"] = found;
        CMOXCtlOutput::PrintJson(v);
    } else {
        printf("%s\n", CMOXCtlOutput::Printable(found).c_str());
    }
    return kExitOk;
}

int RunCheck(Context& ctx, const std::string& mountArg) {
    std::string mount = AbsolutePath(mountArg);
    if (!ctx.Utf8Arg("MOUNT", mount)) return kExitUsage;
    std::string error;
    int code = 0;
    VariantPtr reply =
        ctx.bus.Call("start_scanner", g_variant_new("(ss)", "check_device", mount.c_str()), "(bu)", error, code);
    if (!reply) return ctx.Fail(code, error);
    gboolean started = FALSE;
    guint32 id = 0;
    g_variant_get(reply.get(), "(bu)", &started, &id);
    if (!started) return ctx.Fail(kExitFailed, "the engine refused to check " + mount + " (see its log)");
    EngineSignal s;
    auto w = ctx.bus.WaitSignal(
        [&](const EngineSignal& sig) {
            if (sig.name != "mox_scanner_done" || !sig.params ||
                !g_variant_is_of_type(sig.params.get(), G_VARIANT_TYPE("(uuusss)")))
                return false;
            guint32 sid = 0;
            g_variant_get_child(sig.params.get(), 0, "u", &sid);
            return sid == id;
        },
        s);
    // The scanner stays in the engine until stopped.
    std::string ignored;
    int ignoredCode = 0;
    if (w != CMOXCtlBus::Wait::kEngineGone)
        ctx.bus.Call("stop_scanner", g_variant_new("(u)", id), nullptr, ignored, ignoredCode);
    if (w != CMOXCtlBus::Wait::kGot) {
        int rc = CMOXCtlBus::Describe(w, "the device check", error);
        return ctx.Fail(rc, error);
    }
    guint32 sid = 0, result = 0, mediaType = 0;
    const gchar *dir = nullptr, *name = nullptr, *meta = nullptr;
    g_variant_get(s.params.get(), "(uuu&s&s&s)", &sid, &result, &mediaType, &dir, &name, &meta);
    const char* verdict = result == MOX_SCAN_NO_MEDIA      ? "none"
                          : result == MOX_SCAN_ONE_MEDIA   ? "one"
                          : result == MOX_SCAN_MULTI_MEDIA ? "several"
                                                           : "failed";
    Json::Value metadata;
    std::string parseError;
    bool hasMeta = *meta && CMOXCtlOutput::Parse(meta, metadata, parseError);
    if (ctx.out.Json()) {
        Json::Value v;
        v["scanner"] = sid;
        v["code"] = result;
        v["result"] = verdict;
        if (result == MOX_SCAN_ONE_MEDIA) {
            v["media_type"] = MediaTypeName(static_cast<int>(mediaType));
            v["directory"] = dir;
            v["name"] = name;
            v["metadata"] = hasMeta ? metadata : Json::Value(Json::objectValue);
        }
        CMOXCtlOutput::PrintJson(v);
    } else if (result == MOX_SCAN_NO_MEDIA) {
        printf("none: no media on %s\n", CMOXCtlOutput::Printable(mount).c_str());
    } else if (result == MOX_SCAN_MULTI_MEDIA) {
        printf("several: more than one media file on %s\n", CMOXCtlOutput::Printable(mount).c_str());
    } else if (result == MOX_SCAN_ONE_MEDIA) {
        printf("one: %s/%s (%s)\n", CMOXCtlOutput::Printable(dir).c_str(), CMOXCtlOutput::Printable(name).c_str(),
               MediaTypeName(static_cast<int>(mediaType)).c_str());
        if (hasMeta && metadata.isObject())
            for (const auto& key : metadata.getMemberNames()) {
                const Json::Value& m = metadata[key];
                std::string text = m.isString() ? m.asString() : CompactJson(m);
                if (!text.empty())
                    printf("  %s: %s\n", CMOXCtlOutput::Printable(key).c_str(), CMOXCtlOutput::Printable(text).c_str());
            }
    }
    if (result < 24 || result > 26)
        return ctx.Fail(kExitFailed, "the check of " + mount + " failed (code " + std::to_string(result) + ")");
    return kExitOk;
}

int RunThumbs(Context& ctx, const ThumbsArgs& args) {
    std::string folder = AbsolutePath(args.folder);
    if (!ctx.Utf8Arg("FOLDER", folder) || !ctx.Utf8Arg("--type", args.type)) return kExitUsage;
    std::string error;
    int code = 0;
    auto pid = static_cast<guint32>(getpid());
    auto params = [&] { return g_variant_new("(ssuu)", folder.c_str(), args.type.c_str(), args.count, pid); };
    VariantPtr reply = ctx.bus.Call("start_scanner_thumb", params(), "(b)", error, code);
    if (!reply) return ctx.Fail(code, error);
    gboolean started = FALSE;
    g_variant_get(reply.get(), "(b)", &started);
    if (!started) return ctx.Fail(kExitFailed, "the engine refused a thumbnail scan of " + folder + " (see its log)");
    Json::Value outer;
    EngineSignal s;
    auto w = ctx.bus.WaitSignal(
        [&](const EngineSignal& sig) {
            if (sig.name != "mox_folder_thumb_done") return false;
            Json::Value v;
            std::string e;
            if (!CMOXCtlOutput::Parse(sig.Text(), v, e) || !v.isObject()) return false;
            // An answer without its option (error code 1) can only be ours.
            if (IntMember(v, "mox_folder_thumbnail_error_code", 1) == 0 &&
                (StringMember(v, "mox_folder_thumbnail_path") != folder ||
                 StringMember(v, "mox_folder_thumbnail_content_type") != args.type))
                return false;
            outer = v;
            return true;
        },
        s);
    if (w != CMOXCtlBus::Wait::kGot) {
        if (w != CMOXCtlBus::Wait::kEngineGone) ctx.bus.Call("stop_scanner_thumb", params(), nullptr, error, code);
        int rc = CMOXCtlBus::Describe(w, "the thumbnail scan", error);
        return ctx.Fail(rc, error);
    }
    Json::Value inner;
    if (IntMember(outer, "mox_folder_thumbnail_error_code", 1) != 0 ||
        !CMOXCtlOutput::Parse(StringMember(outer, "mox_folder_thumbnail_data"), inner, error) || !inner.isObject() ||
        IntMember(inner, "mox_folder_thumbnail_error_code", 1) != 0)
        return ctx.Fail(kExitFailed, "the thumbnail scan of " + folder + " failed");
    int type = IntMember(inner, "mox_folder_thumbnail_type", -1);
    const Json::Value& items = inner["mox_folder_thumbnail_items"];
    const Json::Value& types = inner["mox_folder_thumbnail_itemstype"];
    Json::Value list(Json::arrayValue);
    if (items.isArray())
        for (Json::ArrayIndex i = 0; i < items.size(); ++i) {
            Json::Value item;
            item["path"] = items[i].isString() ? items[i].asString() : "";
            item["type"] = types.isArray() && i < types.size() && types[i].isString() ? types[i].asString() : "";
            list.append(item);
        }
    const char* what = type == 0 ? "files" : type == 1 ? "only folders" : type == 2 ? "empty" : "unknown";
    if (ctx.out.Json()) {
        Json::Value v;
        v["folder"] = folder;
        v["content_type"] = args.type;
        v["requested"] = args.count;
        v["result"] = what;
        v["items"] = list;
        CMOXCtlOutput::PrintJson(v);
    } else {
        if (list.empty()) printf("No thumbnail files in %s (%s).\n", CMOXCtlOutput::Printable(folder).c_str(), what);
        for (const auto& item : list)
            printf("%-14s %s\n", CMOXCtlOutput::Printable(item["type"].asString()).c_str(),
                   CMOXCtlOutput::Printable(item["path"].asString()).c_str());
    }
    return kExitOk;
}

}  // namespace moxctl
