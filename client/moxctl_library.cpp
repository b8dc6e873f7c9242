// moxctl library: the media library's state, a wait for a volume to be
// indexed, and a rescan. Status and rescan are request_act documents
// ("mox_library_status", "mox_library_rescan") answered at once with the act
// events; progress comes as mox_library_notification to a client bound for
// storage events.
#include <unistd.h>

#include <cstdio>

#include <mox/mox_events.h>

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

}  // namespace

int RunLibrary(Context& ctx, const LibraryArgs& args) {
    const std::string mount = args.mount.empty() ? "" : AbsolutePath(args.mount);
    if (!mount.empty() && !ctx.Utf8Arg("MOUNT", mount)) return kExitUsage;
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
