// moxctl library: the media library's state, a wait for a volume to be
// indexed, and a rescan. Status and rescan are request_act documents
// ("mox_library_status", "mox_library_rescan") answered at once with the act
// events; progress comes as mox_library_notification to a client bound for
// storage events. List and search ask the library source
// ("mox_library_source" of libmox_library_source.so) in one request.
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>

#include <mox/mox_events.h>
#include <mox/mox_resultlist.h>
#include <mox/mox_types.h>

#include "moxctl_commands.h"

namespace moxctl {

namespace {

// The library's answer to one document: kExitOk with its "volumes".
// With bMissingOk a storage not (yet) indexed gives kExitNoFolder quietly.
int Ask(Context& ctx, const std::string& command, const std::string& mount, Json::Value& volumes,
        bool bMissingOk = false) {
    Json::Value doc;
    doc["mox_command"] = command;
    if (!mount.empty()) doc["mox_library_mount"] = mount;
    const std::string text = CompactJson(doc);
    std::string error;
    int code = 0;
    // No plug-in is needed: the engine answers these documents itself, on
    // the handle they name.
    const guint32 handle = 0;
    VariantPtr reply =
        ctx.bus.Call("request_act", g_variant_new("(uss)", handle, "", text.c_str()), nullptr, error, code);
    if (!reply) return ctx.Fail(code, error);
    Json::Value payload;
    auto w = WaitCompletion(
        ctx.bus, "mox_request_normal_complete", handle,
        [](int e) { return e == MOX_EVENT_ACT_DONE || e == MOX_EVENT_ACT_FAILED; }, payload);
    if (w != CMOXCtlBus::Wait::kGot) {
        const int rc = CMOXCtlBus::Describe(w, "the library's answer", error);
        return ctx.Fail(rc, error);
    }
    const int result = IntMember(payload, "mox_error_code", -1);
    if (result == 7 && bMissingOk) return kExitNoFolder;
    if (result == 7) return ctx.Fail(kExitFailed, mount + " is not a mounted, indexed storage");
    if (result != 0) return ctx.Fail(kExitFailed, "the engine answered with error code " + std::to_string(result));
    Json::Value answer;
    if (!CMOXCtlOutput::Parse(payload["act_command_and_return_data"].asString(), answer, error))
        return ctx.Fail(kExitFailed, "malformed answer: " + error);
    volumes = answer["volumes"];
    return kExitOk;
}

std::string Bytes(long long n) {
    char buf[32];
    if (n >= 1024 * 1024)
        snprintf(buf, sizeof(buf), "%.1f MiB", static_cast<double>(n) / (1024.0 * 1024.0));
    else
        snprintf(buf, sizeof(buf), "%.1f KiB", static_cast<double>(n) / 1024.0);
    return buf;
}

void DrawBar(const Json::Value& v, bool tty) {
    const long long done = v["done"].asLargestInt(), total = v["total"].asLargestInt();
    const int width = 30;
    const int filled = total > 0 ? static_cast<int>(width * (done > total ? total : done) / total) : 0;
    std::string bar(static_cast<size_t>(filled), '#');
    bar.resize(width, '.');
    printf("%s%s [%s] %lld/%lld files  %s%s", tty ? "\r" : "", v["mount_path"].asString().c_str(), bar.c_str(), done,
           total, v["state"].asString().c_str(), tty ? "   " : "\n");
    fflush(stdout);
}

bool ParseWindow(const std::string& text, int& start, int& end) {
    const size_t dash = text.find('-');
    auto number = [](const std::string& n, int& out) {
        if (n.empty() || n.size() > 9 || n.find_first_not_of("0123456789") != std::string::npos) return false;
        out = std::stoi(n);
        return true;
    };
    if (dash == std::string::npos || !number(text.substr(0, dash), start)) return false;
    if (dash + 1 == text.size()) {
        end = -1;
        return true;
    }
    return number(text.substr(dash + 1), end) && end >= start;
}

// The list document of `library list` / `library search`; false (usage
// error printed) when an argument is malformed.
bool ListDocument(Context& ctx, const LibraryArgs& args, const std::string& mount, Json::Value& doc) {
    doc["mox_command"] = "mox_requestlist";
    doc["mox_source"].append("mox_library_source");
    if (!mount.empty()) doc["mox_library_mount"] = mount;
    if (!args.view.empty()) doc["mox_library_view"] = args.view;
    if (!args.type.empty()) doc["mox_media_type"] = args.type == "photo" ? 2 : args.type == "video" ? 3 : 5;
    if (!args.search.empty()) {
        if (!ctx.Utf8Arg("TEXT", args.search)) return false;
        doc["mox_library_search"] = args.search;
    }
    for (const std::string& filter : args.filters) {
        const size_t eq = filter.find('=');
        if (eq == std::string::npos || eq == 0 || !ctx.Utf8Arg("--filter", filter)) {
            ctx.Fail(kExitUsage, "--filter wants KEY=VALUE, not " + filter);
            return false;
        }
        const std::string key = filter.substr(0, eq), value = filter.substr(eq + 1);
        if (key == "Year") {
            if (value.empty() || value.size() > 4 || value.find_first_not_of("0123456789") != std::string::npos) {
                ctx.Fail(kExitUsage, "--filter Year wants a year, not " + value);
                return false;
            }
            doc["mox_library_filter"][key] = std::stoi(value);
        } else {
            doc["mox_library_filter"][key] = key == "Folder" ? AbsolutePath(value) : value;
        }
    }
    if (!args.sort.empty()) {
        doc["SortedKey"] = args.sort;
        doc["SortedType"] = args.desc ? 2 : 1;
    }
    int start = 0, end = -1;
    if (!args.range.empty() && !ParseWindow(args.range, start, end)) {
        ctx.Fail(kExitUsage, "--range wants A-B or A- (item positions from 0), not " + args.range);
        return false;
    }
    doc["mox_start_index"] = start;
    doc["mox_end_index"] = end;
    return true;
}

std::string When(long long seconds) {
    char buf[32];
    const time_t t = static_cast<time_t>(seconds);
    struct tm tm;
    // DateTaken is a wall-clock time read as UTC: shown as UTC, it reads as
    // the camera showed it.
    if (gmtime_r(&t, &tm) == nullptr || strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M", &tm) == 0) return "?";
    return buf;
}

// The items of one answer as a table (its kind decided by the view).
void PrintItems(const std::string& view, const std::vector<Json::Value>& items) {
    std::vector<std::vector<std::string>> rows;
    auto text = [](const Json::Value& v, const char* key) {
        return CMOXCtlOutput::Printable(v.get(key, "").asString());
    };
    if (view == "volumes") {
        for (const Json::Value& v : items)
            rows.push_back({text(v, "mount_path"), text(v, "state"),
                            std::to_string(v["done"].asLargestInt()) + "/" + std::to_string(v["total"].asLargestInt()),
                            std::to_string(v["counts"]["photo"].asLargestInt()),
                            std::to_string(v["counts"]["video"].asLargestInt()),
                            std::to_string(v["counts"]["music"].asLargestInt()),
                            std::to_string(v["generation"].asLargestInt())});
        CMOXCtlOutput::PrintTable({"MOUNT", "STATE", "DONE", "PHOTO", "VIDEO", "MUSIC", "GENERATION"}, rows);
        return;
    }
    if (!view.empty() && view != "items") {
        for (const Json::Value& v : items)
            rows.push_back({text(v, "GroupName").empty() ? "(none)" : text(v, "GroupName"),
                            std::to_string(v["Count"].asLargestInt()), text(v, "Cover")});
        CMOXCtlOutput::PrintTable({"GROUP", "COUNT", "COVER"}, rows);
        return;
    }
    for (const Json::Value& v : items) {
        const bool taken = v.isMember("DateTaken");
        rows.push_back({MediaTypeName(v["MediaType"].asInt()), CMOXCtlOutput::HumanBytes(v["FileSize"].asDouble()),
                        When(taken ? v["DateTaken"].asLargestInt() : v["FileTime"].asLargestInt()) + (taken ? "" : "*"),
                        text(v, "Title"), text(v, "Artist"), text(v, "Album"), text(v, "FilePath")});
    }
    CMOXCtlOutput::PrintTable({"TYPE", "SIZE", "DATE", "TITLE", "ARTIST", "ALBUM", "PATH"}, rows);
}

int ListLibrary(Context& ctx, const LibraryArgs& args, const std::string& mount) {
    Json::Value doc;
    if (!ListDocument(ctx, args, mount, doc)) return kExitUsage;
    SourceSession session(ctx);
    if (int rc = session.Open("libmox_library_source.so")) return rc;
    const guint32 handle = session.Handle();
    const std::string text = CompactJson(doc);
    std::string error;
    int code = 0;
    VariantPtr reply =
        ctx.bus.Call("get_partial_list", g_variant_new("(uuus)", handle, 0u, 0u, text.c_str()), nullptr, error, code);
    if (!reply) return ctx.Fail(code, error);
    Json::Value payload;
    auto w = WaitCompletion(
        ctx.bus, "mox_request_normal_complete", handle,
        [](int e) {
            return e == MOX_EVENT_LIST_READY || e == MOX_EVENT_LIST_SOURCE_ERROR || e == MOX_EVENT_LIST_FAILED;
        },
        payload);
    if (w != CMOXCtlBus::Wait::kGot) {
        const int rc = CMOXCtlBus::Describe(w, "the list", error);
        return w == CMOXCtlBus::Wait::kInterrupted ? rc : ctx.Fail(rc, error);
    }
    const int event = IntMember(payload, "mox_event_type", MOX_EVENT_LIST_FAILED);
    const int result = IntMember(payload, "mox_error_code", MOX_ERROR_GENERIC);
    std::vector<Json::Value> items;
    int total = 0;
    if (event == MOX_EVENT_LIST_READY) {
        const std::string name = payload["mox_result_list_block_name"].asString();
        {
            CResultList list(name);
            if (!list.IsLoaded()) return ctx.Fail(kExitFailed, "cannot read the result list " + name);
            total = list.GetTotalCount();
            for (int i = list.StartIndex(); i <= list.EndIndex(); ++i) {
                std::string item, block;
                int index = -1;
                Json::Value v;
                if (!list.GetItem(i, item, block, index) || !CMOXCtlOutput::Parse(item.c_str(), v, error))
                    return ctx.Fail(kExitFailed, "item " + std::to_string(i) + " of " + name + " is unreadable");
                items.push_back(std::move(v));
            }
        }
        // The method returns once the list is gone.
        if (!ctx.bus.Call("drop_partial_list", g_variant_new("(us)", handle, name.c_str()), nullptr, error, code))
            return ctx.Fail(code, "dropping " + name + ": " + error);
    } else if (result == MOX_ERROR_INVALID_PARAMETER) {
        return ctx.Fail(kExitFailed, "the library source refused the request (error 7: see the engine's log)");
    } else if (result == MOX_ERROR_NOT_READY) {
        return ctx.Fail(kExitFailed, "no media library runs in the engine (error 8)");
    } else if (result != MOX_ERROR_FAILED_RESULT) {
        return ctx.Fail(kExitSourceFailed, "the library source failed with error " + std::to_string(result));
    }
    if (ctx.out.Json()) {
        for (const Json::Value& v : items) CMOXCtlOutput::PrintJson(v);
        return kExitOk;
    }
    PrintItems(args.view, items);
    printf("%zu of %d\n", items.size(), total);
    return kExitOk;
}

}  // namespace

int RunLibrary(Context& ctx, const LibraryArgs& args) {
    const std::string mount = args.mount.empty() ? "" : AbsolutePath(args.mount);
    if (!mount.empty() && !ctx.Utf8Arg("MOUNT", mount)) return kExitUsage;
    if (args.action == "list" || args.action == "search") return ListLibrary(ctx, args, mount);
    Json::Value volumes;
    if (args.action == "status") {
        if (int rc = Ask(ctx, "mox_library_status", mount, volumes)) return rc;
        if (ctx.out.Json()) {
            for (const Json::Value& v : volumes) CMOXCtlOutput::PrintJson(v);
            return kExitOk;
        }
        std::vector<std::vector<std::string>> rows;
        for (const Json::Value& v : volumes) {
            const Json::Value& c = v["counts"];
            rows.push_back({v["mount_path"].asString(), v["volume_id"].asString(), v["state"].asString(),
                            std::to_string(v["done"].asLargestInt()) + "/" + std::to_string(v["total"].asLargestInt()),
                            std::to_string(c["photo"].asLargestInt()), std::to_string(c["video"].asLargestInt()),
                            std::to_string(c["music"].asLargestInt()), std::to_string(c["other"].asLargestInt()),
                            std::to_string(v["generation"].asLargestInt()), Bytes(v["db_bytes"].asLargestInt())});
        }
        CMOXCtlOutput::PrintTable(
            {"MOUNT", "VOLUME", "STATE", "DONE", "PHOTO", "VIDEO", "MUSIC", "OTHER", "GENERATION", "DATABASE"}, rows);
        return kExitOk;
    }
    if (args.action == "rescan") {
        if (int rc = Ask(ctx, "mox_library_rescan", mount, volumes)) return rc;
        if (ctx.out.Json())
            for (const Json::Value& v : volumes) CMOXCtlOutput::PrintJson(v);
        else
            printf("rescan of %s started\n", mount.c_str());
        return kExitOk;
    }
    // wait: bound first, so that no notification after the status is missed.
    std::string error;
    int code = 0;
    if (!ctx.bus.Call("bind_usb_event", g_variant_new("(u)", 1u), "(u)", error, code)) return ctx.Fail(code, error);
    // A storage not mounted yet is waited for: its notifications start when
    // it is.
    const int asked = Ask(ctx, "mox_library_status", mount, volumes, true);
    if (asked != kExitOk && asked != kExitNoFolder) return asked;
    Json::Value state = volumes.empty() ? Json::Value() : volumes[0];
    if (state.isNull()) {
        state["mount_path"] = mount;
        state["state"] = "waiting";
    }
    const bool tty = !ctx.out.Json() && isatty(STDOUT_FILENO) == 1;
    for (;;) {
        const std::string s = state["state"].asString();
        if (ctx.out.Json())
            CMOXCtlOutput::PrintJson(state);
        else
            DrawBar(state, tty);
        if (s == "ready" || s == "failed") {
            if (tty) printf("\n");
            return s == "ready" ? kExitOk : ctx.Fail(kExitFailed, mount + ": indexing failed");
        }
        EngineSignal sig;
        auto w = ctx.bus.WaitSignal(
            [&](const EngineSignal& candidate) {
                if (candidate.name != "mox_library_notification") return false;
                Json::Value v;
                std::string e;
                return CMOXCtlOutput::Parse(candidate.Text(), v, e) && v["mount_path"].asString() == mount;
            },
            sig);
        if (w != CMOXCtlBus::Wait::kGot) {
            if (tty) printf("\n");
            if (w == CMOXCtlBus::Wait::kInterrupted) return kExitInterrupted;
            const int rc = CMOXCtlBus::Describe(w, "the library's progress", error);
            return ctx.Fail(rc, error);
        }
        CMOXCtlOutput::Parse(sig.Text(), state, error);
    }
}

}  // namespace moxctl
