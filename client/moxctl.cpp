// moxctl: drives the content engine from a shell. Parses the command line,
// opens the bus and runs one command; see `moxctl --help` and moxctl(1).
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "moxctl_bus.h"
#include "moxctl_commands.h"
#include "moxctl_output.h"

#ifndef MOXCTL_VERSION
#define MOXCTL_VERSION "unknown"
#endif

using namespace moxctl;

namespace {

const char* const kFooter =
    "Exit status: 0 success, 1 the engine reported a failure, 2 usage error,\n"
    "3 no bus, engine absent or timed out, 130 interrupted (Ctrl-C).";

}  // namespace

int main(int argc, char** argv) {
    // The library's readers log through the platform log; their warnings
    // become this tool's own one-line errors, so the log stays out of the
    // way unless MOXCTL_LOG names a sink ("stderr", "file:PATH", "journal").
    if (const char* sink = getenv("MOXCTL_LOG")) {
        setenv("MOX_LOG", sink, 1);
    } else {
        setenv("MOX_LOG", "file:/dev/null", 1);
        setenv("MOX_LOG_LEVEL", "warning", 1);
    }
    CLI::App app{"moxctl: drive the MOX content engine (" + std::string(kEngineName) + ") over D-Bus", "moxctl"};
    app.footer(kFooter);
    app.set_version_flag("--version", "moxctl " MOXCTL_VERSION);
    app.require_subcommand(1);
    app.fallthrough();

    std::string address;
    bool system = false;
    double timeoutSeconds = 30;
    bool json = false;
    auto* addressOpt = app.add_option("--address", address, "D-Bus address of the bus the engine is on");
    auto* systemOpt = app.add_flag("--system", system, "the system bus (default; DBUS_SYSTEM_BUS_ADDRESS moves it)");
    addressOpt->excludes(systemOpt);
    app.add_option("--timeout", timeoutSeconds, "seconds to wait for a reply or an answer (default 30)")
        ->check(CLI::Range(0.001, 86400.0));
    app.add_flag("--json", json, "print one JSON document a line instead of text");

    std::function<int(Context&)> run;

    auto* status =
        app.add_subcommand("status", "list the storages: index, name, label, mount path, file system, usage");
    status->callback([&] { run = [](Context& c) { return RunStatus(c); }; });

    MonitorArgs monitor;
    auto* mon = app.add_subcommand("monitor", "print storage events, one line each, until Ctrl-C");
    mon->add_flag("--all", monitor.all, "also every other signal the engine sends this client");
    mon->add_option("--count", monitor.count, "stop after N events")->check(CLI::PositiveNumber);
    mon->callback([&] { run = [&](Context& c) { return RunMonitor(c, monitor); }; });

    ListArgs list;
    auto* ls = app.add_subcommand("list", "list a folder through a source; the result list is always dropped");
    ls->add_option("FOLDER", list.folder, "folder to list (below the USB root for the local source)")->required();
    ls->add_option("--source", list.source, "source name (default mox_local_source)");
    ls->add_option("--plugin", list.plugin, "source library (default libmox_local_source.so)");
    ls->add_option("--sort", list.sort, "sort key")
        ->check(CLI::IsMember({"FileName", "FileSize", "FileTime", "Title"}));
    ls->add_flag("--desc", list.desc, "sort descending");
    ls->add_option("--type", list.type, "only this media (folders always shown)")
        ->check(CLI::IsMember({"photo", "video", "music"}));
    ls->add_option("--range", list.range, "item positions A-B or A- (from 0, in the source's order)");
    ls->add_option("--section-size", list.sectionSize, "items per request when reading long folders (10000)")
        ->check(CLI::Range(1, 1000000))
        ->group("");
    ls->callback([&] { run = [&](Context& c) { return RunList(c, list); }; });

    DetailArgs detail;
    auto* det = app.add_subcommand("detail", "print the detail of one item");
    det->add_option("PATH", detail.path, "the item's file path")->required();
    det->add_option("--source", detail.source, "source name (default mox_local_source)");
    det->add_option("--plugin", detail.plugin, "source library (default libmox_local_source.so)");
    det->callback([&] { run = [&](Context& c) { return RunDetail(c, detail); }; });

    MetaArgs meta;
    auto* mt = app.add_subcommand("meta", "send a metadata request (needs the UHD provider)");
    mt->add_option("--uuid", meta.uuid, "mox_uuid");
    mt->add_option("--token", meta.token, "mox_accesstoken");
    mt->add_option("--lang", meta.lang, "mox_langid");
    mt->add_option("--country", meta.country, "mox_countryid");
    mt->add_option("--version", meta.version, "mox_version");
    mt->add_option("--plugin", meta.plugin, "source library to connect (default libmox_local_source.so)");
    mt->callback([&] { run = [&](Context& c) { return RunMeta(c, meta); }; });

    TransferArgs copy;
    auto* cp = app.add_subcommand("copy", "copy a file between storages, with progress; Ctrl-C stops it");
    cp->add_option("SRC", copy.src, "file to copy")->required();
    cp->add_option("DST", copy.dst, "destination file")->required();
    cp->add_flag("--overwrite", copy.overwrite, "replace an existing destination");
    cp->callback([&] { run = [&](Context& c) { return RunTransfer(c, copy); }; });

    TransferArgs download;
    download.url = true;
    auto* dl = app.add_subcommand("download", "download an http(s) URL onto a storage, with progress");
    dl->add_option("URL", download.src, "http:// or https:// URL")->required();
    dl->add_option("DST", download.dst, "destination file")->required();
    dl->add_flag("--overwrite", download.overwrite, "replace an existing destination");
    dl->callback([&] { run = [&](Context& c) { return RunTransfer(c, download); }; });

    ActArgs act;
    auto* ac = app.add_subcommand("act", "send an act document (a file, or - for stdin) and print its events");
    ac->add_option("DOCUMENT", act.document, "the act document, JSON; - reads stdin")->required();
    ac->add_option("--plugin", act.plugin, "source library to connect (default libmox_ra_source.so)");
    ac->callback([&] { run = [&](Context& c) { return RunAct(c, act); }; });

    std::string mount;
    auto* check = app.add_subcommand("check", "check a mounted storage for media: none, one or several");
    check->add_option("MOUNT", mount, "mount path of the storage")->required();
    check->callback([&] { run = [&](Context& c) { return RunCheck(c, mount); }; });

    ThumbsArgs thumbs;
    auto* th = app.add_subcommand("thumbs", "ask for a few files of a folder to show as its thumbnails");
    th->add_option("FOLDER", thumbs.folder, "folder on a storage")->required();
    th->add_option("--type", thumbs.type,
                   "CONTENT-IMAGE (default), CONTENT-VIDEO, CONTENT-MUSIC, CONTENT-UHD, "
                   "CONTENT-PVR; anything else: every kind");
    th->add_option("--count", thumbs.count, "how many files (1 to 1024, default 4)")->check(CLI::Range(1, 1024));
    th->callback([&] { run = [&](Context& c) { return RunThumbs(c, thumbs); }; });

    auto* folder = app.add_subcommand("folder", "the engine's folder map (folder path -> id)");
    folder->require_subcommand(1);
    std::string folderPath, folderId;
    auto* add = folder->add_subcommand("add", "map PATH to ID");
    add->add_option("PATH", folderPath, "folder path")->required();
    add->add_option("ID", folderId, "folder id")->required();
    add->callback([&] { run = [&](Context& c) { return RunFolderAdd(c, folderPath, folderId); }; });
    auto* find = folder->add_subcommand("find", "print the id mapped to PATH");
    find->add_option("PATH", folderPath, "folder path")->required();
    find->callback([&] { run = [&](Context& c) { return RunFolderFind(c, folderPath); }; });

    LibraryArgs library;
    auto* lib = app.add_subcommand("library", "the media library index of the mounted storages");
    lib->require_subcommand(1);
    auto* libStatus = lib->add_subcommand("status", "state, progress, files per type, generation, database size");
    libStatus->add_option("MOUNT", library.mount, "mount path (default: every indexed storage)");
    libStatus->callback([&] {
        library.action = "status";
        run = [&](Context& c) { return RunLibrary(c, library); };
    });
    auto* libWait = lib->add_subcommand("wait", "wait until a storage is indexed, with a progress bar");
    libWait->add_option("MOUNT", library.mount, "mount path")->required();
    libWait->callback([&] {
        library.action = "wait";
        run = [&](Context& c) { return RunLibrary(c, library); };
    });
    auto* libRescan = lib->add_subcommand("rescan", "walk a storage again (unchanged files are not re-read)");
    libRescan->add_option("MOUNT", library.mount, "mount path")->required();
    libRescan->callback([&] {
        library.action = "rescan";
        run = [&](Context& c) { return RunLibrary(c, library); };
    });

    auto libraryListOptions = [&](CLI::App* sub) {
        sub->add_option("--mount", library.mount, "mount path (default: every mounted storage)");
        sub->add_option("--type", library.type, "only this media")->check(CLI::IsMember({"photo", "video", "music"}));
        sub->add_option("--filter", library.filters,
                        "open a group: Artist=, Album=, Genre=, Year=, Month=YYYY-MM or Folder= (repeatable)");
        sub->add_option("--sort", library.sort, "order by this key (the database sorts)")
            ->check(CLI::IsMember({"FileName", "Title", "FileTime", "FileSize", "DateTaken", "Artist", "Album",
                                   "TrackNumber", "Duration", "GroupName", "Count"}));
        sub->add_flag("--desc", library.desc, "descending");
        sub->add_option("--range", library.range, "item positions A-B or A- (from 0)");
    };
    auto* libList = lib->add_subcommand("list", "list the index: items, or one view's groups");
    libraryListOptions(libList);
    libList->add_option("--view", library.view, "items (default) or a view of groups")
        ->check(CLI::IsMember({"items", "volumes", "folders", "albums", "artists", "genres", "years", "months"}));
    libList->callback([&] {
        library.action = "list";
        run = [&](Context& c) { return RunLibrary(c, library); };
    });
    auto* libSearch = lib->add_subcommand("search", "find items by words of title, artist, album and file name");
    libSearch->add_option("TEXT", library.search, "words, matched by prefix, any case and accents")->required();
    libraryListOptions(libSearch);
    libSearch->callback([&] {
        library.action = "search";
        run = [&](Context& c) { return RunLibrary(c, library); };
    });

    auto* ping = app.add_subcommand("ping", "check that the engine answers");
    ping->callback([&] { run = [](Context& c) { return RunPing(c); }; });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version: stdout
        std::string what = e.what();
        for (char& c : what)
            if (c == '\n') c = ' ';
        CMOXCtlOutput::Error("", what + " (see moxctl --help)");
        return kExitUsage;
    }
    if (!run) {
        CMOXCtlOutput::Error("", "no command given (see moxctl --help)");
        return kExitUsage;
    }

    CMOXCtlBus::Options options;
    options.address = address;
    options.timeout = std::chrono::milliseconds(static_cast<long long>(timeoutSeconds * 1000));
    std::string error;
    std::unique_ptr<CMOXCtlBus> bus = CMOXCtlBus::Open(options, error);
    if (!bus) {
        CMOXCtlOutput::Error("", error);
        return kExitUnavailable;
    }
    CMOXCtlOutput out(json);
    std::string command = app.get_subcommands().empty() ? "" : app.get_subcommands().front()->get_name();
    Context ctx{*bus, out, command};
    try {
        return run(ctx);
    } catch (const std::exception& e) {
        // jsoncpp and CLI11 report misuse by throwing; nothing may end the
        // tool without a line saying why.
        CMOXCtlOutput::Error(command, std::string("internal error: ") + e.what());
        return kExitFailed;
    }
}
