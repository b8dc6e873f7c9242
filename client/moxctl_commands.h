// The commands of moxctl. Each runs on an open bus, writes its result on
// stdout (text or --json) and its failure as one line on stderr, and returns
// the process exit status (ExitCode in moxctl_bus.h).
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "moxctl_bus.h"
#include "moxctl_output.h"

namespace moxctl {

struct Context {
    CMOXCtlBus& bus;
    CMOXCtlOutput& out;
    std::string command;  // for error lines

    int Fail(int code, const std::string& message) const {
        CMOXCtlOutput::Error(command, message);
        return code;
    }
    // The bus carries only UTF-8: a non-UTF-8 argument is a usage error here
    // rather than an abort inside GVariant.
    bool Utf8Arg(const char* what, const std::string& value) const;
};

struct ListArgs {
    std::string source = "mox_local_source";
    std::string plugin = "libmox_local_source.so";
    std::string folder;
    std::string sort;  // FileName, FileSize, FileTime, Title or empty
    bool desc = false;
    std::string type;   // photo, video, music or empty
    std::string range;  // "A-B", "A-" or empty
    int sectionSize = 10000;
};
struct DetailArgs {
    std::string source = "mox_local_source";
    std::string plugin = "libmox_local_source.so";
    std::string path;
};
struct MetaArgs {
    std::string plugin = "libmox_local_source.so";
    std::string uuid, token, lang, country, version;
};
struct TransferArgs {
    std::string plugin = "libmox_ra_source.so";
    std::string source = "mox_ra_source";
    std::string src, dst;
    bool overwrite = false;
    bool url = false;  // download: src is an http(s) URL
};
struct ActArgs {
    std::string document;  // a file, or "-" for stdin
    std::string plugin = "libmox_ra_source.so";
};
struct MonitorArgs {
    bool all = false;
    int count = 0;  // 0: until interrupted
};
struct ThumbsArgs {
    std::string folder;
    std::string type = "CONTENT-IMAGE";
    unsigned count = 4;
};

int RunStatus(Context& ctx);
int RunMonitor(Context& ctx, const MonitorArgs& args);
int RunPing(Context& ctx);
int RunFolderAdd(Context& ctx, const std::string& path, const std::string& id);
int RunFolderFind(Context& ctx, const std::string& path);
int RunCheck(Context& ctx, const std::string& mount);
int RunThumbs(Context& ctx, const ThumbsArgs& args);
int RunList(Context& ctx, const ListArgs& args);
int RunDetail(Context& ctx, const DetailArgs& args);
int RunMeta(Context& ctx, const MetaArgs& args);
int RunTransfer(Context& ctx, const TransferArgs& args);
int RunAct(Context& ctx, const ActArgs& args);
struct LibraryArgs {
    std::string action;  // status, wait, rescan, list or search
    std::string mount;   // optional for status, list and search
    // list and search (the library source, libmox_library_source.so)
    std::string type;                  // photo, video, music or empty
    std::string view;                  // items (default), volumes, folders, albums, ...
    std::vector<std::string> filters;  // KEY=VALUE
    std::string sort;                  // an item key, or GroupName / Count of a view
    bool desc = false;
    std::string range;   // "A-B", "A-" or empty
    std::string search;  // the text of `library search`
};
int RunLibrary(Context& ctx, const LibraryArgs& args);

// Helpers shared by the command files.
// "photo" for 2 and so on; the number itself when unknown.
std::string MediaTypeName(int type);
// An absolute form of a path given on the command line ("." and ".." folded
// lexically; the engine resolves and confines it).
std::string AbsolutePath(const std::string& path);
// The JSON payload of a completion signal `name` for `handle` whose
// "mox_event_type" is accepted by `events`.
CMOXCtlBus::Wait WaitCompletion(CMOXCtlBus& bus, const char* name, guint32 handle,
                                const std::function<bool(int)>& events, Json::Value& payload);
std::string CompactJson(const Json::Value& value);
// The integer member `key` of an object, or `fallback` (never throws).
int IntMember(const Json::Value& v, const char* key, int fallback);

// connect() on entry, disconnect() when it goes.
class SourceSession {
public:
    explicit SourceSession(Context& ctx) : m_ctx(ctx) {}
    ~SourceSession();
    SourceSession(const SourceSession&) = delete;
    SourceSession& operator=(const SourceSession&) = delete;
    // Exit status; kExitOk when connected.
    int Open(const std::string& plugin);
    guint32 Handle() const { return m_handle; }

private:
    Context& m_ctx;
    guint32 m_handle = 0;
    bool m_bOpen = false;
};

}  // namespace moxctl
