// copy and download: a "mox_file_transfer" act through the transfer source,
// progress signals drawn as they come, Ctrl-C turned into stop_act. act: any
// act document against a named plug-in, its events printed as they come.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>

#include <glib.h>

#include <mox/mox_events.h>
#include <mox/mox_ra_source.h>

#include "moxctl_commands.h"
#include "moxctl_progress.h"

namespace moxctl {

namespace {

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool IsHttpUrl(const std::string& s) {
    return g_ascii_strncasecmp(s.c_str(), "http://", 7) == 0 || g_ascii_strncasecmp(s.c_str(), "https://", 8) == 0;
}

double DoubleMember(const Json::Value& v, const char* key) {
    return v.isObject() && v[key].isNumeric() ? v[key].asDouble() : 0;
}

// The four progress figures: the payload's own "mox_file_transter_data"
// text, else the same member inside the command it echoes.
bool ProgressFigures(const Json::Value& payload, double& done, double& total) {
    std::string error;
    Json::Value data;
    const Json::Value& text = payload["mox_file_transter_data"];
    if (!text.isString() || !CMOXCtlOutput::Parse(text.asString(), data, error) || !data.isObject()) {
        Json::Value command;
        const Json::Value& echoed = payload["act_command_and_return_data"];
        if (!echoed.isString() || !CMOXCtlOutput::Parse(echoed.asString(), command, error) || !command.isObject())
            return false;
        const Json::Value& inner = command["mox_file_transter_data"];
        if (inner.isObject())
            data = inner;
        else if (!inner.isString() || !CMOXCtlOutput::Parse(inner.asString(), data, error) || !data.isObject())
            return false;
    }
    done = DoubleMember(data, "mox_file_transter_dlnow");
    total = DoubleMember(data, "mox_file_transter_dltotal");
    if (total <= 0 && done <= 0) {
        done = DoubleMember(data, "mox_file_transter_ulnow");
        total = DoubleMember(data, "mox_file_transter_ultotal");
    }
    return true;
}

std::string TransferError(int code) {
    switch (code) {
        case 7: return "refused (a path outside the USB root, or a malformed request)";
        case MOX_RA_ERROR_STOPPED: return "stopped";
        case MOX_RA_ERROR_EXISTS: return "the destination exists (--overwrite replaces it)";
        case MOX_RA_ERROR_SOURCE: return "the source is missing or not a readable regular file";
        case MOX_RA_ERROR_HTTP: return "the server answered with an error status";
        case MOX_RA_ERROR_NETWORK: return "network, TLS or redirect failure";
        case MOX_RA_ERROR_WRITE: return "the destination cannot be written (full, unplugged, read-only?)";
        case MOX_RA_ERROR_BUSY: return "the destination is already being written by another transfer";
        default: return "error code " + std::to_string(code);
    }
}

// The next act signal (progress or end) of `handle`.
CMOXCtlBus::Wait WaitActEvent(Context& ctx, guint32 handle, Json::Value& payload) {
    return WaitCompletion(
        ctx.bus, "mox_request_normal_complete", handle,
        [](int e) { return e == MOX_EVENT_ACT_DONE || e == MOX_EVENT_ACT_FAILED || e == MOX_EVENT_ACT_PROGRESS; },
        payload);
}

}  // namespace

int RunTransfer(Context& ctx, const TransferArgs& args) {
    std::string src = args.src;
    if (args.url) {
        if (!IsHttpUrl(src)) return ctx.Fail(kExitUsage, "URL must start with http:// or https://: " + src);
    } else {
        src = AbsolutePath(src);
    }
    std::string dst = AbsolutePath(args.dst);
    if (!ctx.Utf8Arg(args.url ? "URL" : "SRC", src) || !ctx.Utf8Arg("DST", dst)) return kExitUsage;
    const bool dstExisted = Exists(dst);

    SourceSession session(ctx);
    if (int rc = session.Open(args.plugin)) return rc;
    Json::Value doc;
    doc["mox_command"] = "mox_file_transfer";
    doc["mox_source"] = args.source;
    doc["mox_transfer_id"] = "moxctl-" + std::to_string(getpid()) + "-" + std::to_string(g_get_monotonic_time());
    doc["mox_transfer_src"] = src;
    doc["mox_transfer_dst"] = dst;
    doc["mox_transfer_overwrite"] = args.overwrite;
    std::string text = CompactJson(doc), error;
    int code = 0;
    VariantPtr reply =
        ctx.bus.Call("request_act", g_variant_new("(uss)", session.Handle(), "", text.c_str()), nullptr, error, code);
    if (!reply) return ctx.Fail(code, error);

    CMOXCtlProgress::Mode mode = ctx.out.Json()               ? CMOXCtlProgress::Mode::kJson
                                 : isatty(STDOUT_FILENO) == 1 ? CMOXCtlProgress::Mode::kBar
                                                              : CMOXCtlProgress::Mode::kLines;
    CMOXCtlProgress progress(mode, args.url ? "download" : "copy");
    bool stopping = false;
    auto started = std::chrono::steady_clock::now();
    for (;;) {
        Json::Value payload;
        auto w = WaitActEvent(ctx, session.Handle(), payload);
        if (w == CMOXCtlBus::Wait::kInterrupted && !stopping) {
            stopping = true;
            progress.Finish();
            Json::Value stop = doc;
            stop["mox_file_transfer_stop"] = true;
            std::string stopText = CompactJson(stop);
            VariantPtr answer =
                ctx.bus.Call("stop_act", g_variant_new("(us)", session.Handle(), stopText.c_str()), "(u)", error, code);
            if (!answer) return ctx.Fail(code, "stopping the transfer: " + error);
            ctx.bus.ClearInterrupted();
            continue;  // the engine still sends the final signal
        }
        if (w != CMOXCtlBus::Wait::kGot) {
            progress.Finish();
            int rc = CMOXCtlBus::Describe(w, "the transfer", error);
            if (w == CMOXCtlBus::Wait::kTimeout && !stopping) {
                // Nobody will watch it any more: do not leave it running.
                Json::Value stop = doc;
                stop["mox_file_transfer_stop"] = true;
                std::string stopText = CompactJson(stop), ignored;
                int ignoredCode = 0;
                ctx.bus.Call("stop_act", g_variant_new("(us)", session.Handle(), stopText.c_str()), "(u)", ignored,
                             ignoredCode);
                error += " (no progress for " + std::to_string(ctx.bus.Timeout().count() / 1000) + " s; stopped it)";
            }
            return ctx.Fail(rc, error);
        }
        int event = IntMember(payload, "mox_event_type", MOX_EVENT_ACT_FAILED);
        if (event == MOX_EVENT_ACT_PROGRESS) {
            double done = 0, total = 0;
            if (ProgressFigures(payload, done, total)) progress.Update(done, total);
            continue;
        }
        progress.Finish();
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        if (stopping) {
            bool left = Exists(dst) && !dstExisted;
            if (ctx.out.Json()) {
                Json::Value v;
                v["result"] = "stopped";
                v["destination"] = dst;
                v["left_behind"] = left;
                CMOXCtlOutput::PrintJson(v);
            }
            CMOXCtlOutput::Error(ctx.command, left ? "stopped, but a file was left at " + dst
                                                   : std::string("stopped; nothing was left at ") + dst);
            return kExitInterrupted;
        }
        if (event == MOX_EVENT_ACT_FAILED) {
            int errorCode = IntMember(payload, "mox_error_code", -1);
            if (ctx.out.Json()) {
                Json::Value v;
                v["result"] = "failed";
                v["destination"] = dst;
                v["error_code"] = errorCode;
                CMOXCtlOutput::PrintJson(v);
            }
            return ctx.Fail(kExitFailed, "the transfer to " + dst + " failed: " + TransferError(errorCode));
        }
        if (ctx.out.Json()) {
            Json::Value v;
            v["result"] = "done";
            v["source"] = src;
            v["destination"] = dst;
            v["bytes"] = progress.Done();
            v["seconds"] = seconds;
            CMOXCtlOutput::PrintJson(v);
        } else {
            printf("%s %s to %s (%s in %.1f s)\n", args.url ? "Downloaded" : "Copied",
                   CMOXCtlOutput::Printable(src).c_str(), CMOXCtlOutput::Printable(dst).c_str(),
                   CMOXCtlOutput::HumanBytes(progress.Done()).c_str(), seconds);
        }
        return kExitOk;
    }
}

namespace {

// The document's text, at most kMaxDocument bytes; false (with error) when it
// cannot be read or is larger.
bool ReadDocument(const std::string& from, std::string& text, std::string& error) {
    const size_t kMaxDocument = 1 << 20;
    std::ifstream file;
    std::istream* in = &std::cin;
    if (from != "-") {
        file.open(from, std::ios::binary);
        if (!file) {
            error = "cannot read " + from;
            return false;
        }
        in = &file;
    }
    text.clear();
    char buf[4096];
    while (in->read(buf, sizeof(buf)) || in->gcount() > 0) {
        text.append(buf, static_cast<size_t>(in->gcount()));
        if (text.size() > kMaxDocument) {
            error = "the document is larger than 1 MiB";
            return false;
        }
    }
    return true;
}

}  // namespace

int RunAct(Context& ctx, const ActArgs& args) {
    std::string text, error;
    if (!ReadDocument(args.document, text, error)) return ctx.Fail(kExitUsage, error);
    Json::Value doc;
    if (!CMOXCtlOutput::Parse(text, doc, error) || !doc.isObject() || !doc["mox_command"].isString())
        return ctx.Fail(kExitUsage, "the document is not a JSON object with a string \"mox_command\"");
    SourceSession session(ctx);
    if (int rc = session.Open(args.plugin)) return rc;
    text = CompactJson(doc);
    int code = 0;
    VariantPtr reply =
        ctx.bus.Call("request_act", g_variant_new("(uss)", session.Handle(), "", text.c_str()), nullptr, error, code);
    if (!reply) return ctx.Fail(code, error);
    for (;;) {
        Json::Value payload;
        auto w = WaitActEvent(ctx, session.Handle(), payload);
        if (w != CMOXCtlBus::Wait::kGot) {
            // Leaving drops the handle: a request nobody waits for is stopped.
            int rc = CMOXCtlBus::Describe(w, "the act", error);
            return w == CMOXCtlBus::Wait::kInterrupted ? rc : ctx.Fail(rc, error);
        }
        // One compact JSON line per event, whatever the output mode.
        printf("%s\n", CompactJson(payload).c_str());
        fflush(stdout);
        int event = IntMember(payload, "mox_event_type", MOX_EVENT_ACT_FAILED);
        if (event == MOX_EVENT_ACT_PROGRESS) continue;
        if (event == MOX_EVENT_ACT_DONE) return kExitOk;
        return ctx.Fail(kExitFailed,
                        "the act failed with error " + std::to_string(IntMember(payload, "mox_error_code", -1)));
    }
}

}  // namespace moxctl
