// Grammar-aware fuzzer of the daemon's bus interface. It starts a private bus
// and the real daemon (EngineHarness), reads the methods and in-signatures from
// the introspection XML, and sends random but well-formed-looking calls: command
// documents built from the engine's own vocabulary (every command given to
// every request method), real member names with wrong types, huge and
// surrogate-laden strings, deep nesting, hostile paths and object names, random
// handles, plus unknown methods, other interfaces and wrong signatures.
//
// Findings: the daemon died or stopped replying, a sanitizer report or a GLib
// critical in its output, a file outside the USB root read, changed or created,
// a failed final ping or unclean stop. Requests that got no completion signal
// at all are counted apart ("silent"); --require-answers makes them findings.
//
//   bus_fuzz [--seed N|random] [--seconds S] [--calls N] [--answer-timeout MS]
//            [--require-answers] [--restart] [--verbose]
// --seed N --calls N repeats a sequence; --verbose prints every call, so a
// finding is pinned down by re-running its seed up to the call that made it.
// Exit status: 0 no finding, 1 findings, 2 usage or set-up error.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gio/gio.h>

#include "engine_fixture.h"

using moxtest::EngineHarness;
using moxtest::GVariantPtr;
using moxtest::kEngineInterface;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kCanary = "MOXFUZZ-CANARY-SECRET";
constexpr size_t kMaxConnections = 48;
constexpr int kCallTimeoutMs = 20000;
const std::set<std::string> kRequests = {"get_partial_list", "request_detail", "request_act", "request_metadata"};

// A table written as one text: "a|b||c" gives a, b, "" and c.
std::vector<std::string> Words(const std::string& text) {
    std::vector<std::string> words;
    for (size_t pos = 0;;) {
        size_t bar = text.find('|', pos);
        words.push_back(text.substr(pos, bar - pos));
        if (bar == std::string::npos) return words;
        pos = bar + 1;
    }
}

// The shared-memory objects now in /dev/shm of the daemons with these
// instance tags (their pids): daemons of other tests that run meanwhile, and
// those killed there, have objects of their own.
std::set<std::string> EngineObjects(const std::set<std::string>& tags) {
    std::set<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/dev/shm", ec)) {
        std::string name = entry.path().filename().string();
        for (const char* prefix : {"mox_datablock_", "mox_resultlist_"}) {
            if (name.rfind(prefix, 0) != 0) continue;
            const size_t tagEnd = name.find('_', strlen(prefix));
            if (tagEnd != std::string::npos && tags.count(name.substr(strlen(prefix), tagEnd - strlen(prefix))))
                names.insert(name);
        }
    }
    return names;
}

struct Options {
    uint64_t seed = 0;
    double seconds = 30;
    long calls = -1;
    int answerTimeoutMs = 15000;
    bool requireAnswers = false, restart = false, verbose = false;
};

// Keeps a description printable: runs of one character are folded ("[{x3000}"),
// long texts cut with their length told.
std::string Shorten(const std::string& text, size_t limit) {
    std::string folded;
    for (size_t i = 0; i < text.size();) {
        size_t run = 1;
        while (i + run < text.size() && text[i + run] == text[i]) ++run;
        folded += run > 12 ? text.substr(i, 4) + "{x" + std::to_string(run) + "}" : text.substr(i, run);
        i += run;
    }
    if (folded.size() <= limit) return folded;
    return folded.substr(0, limit) + "...(" + std::to_string(text.size()) + " bytes)";
}

std::string Describe(const std::string& interface, const std::string& method, GVariant* params) {
    std::string args = "()";
    if (params) {
        gchar* printed = g_variant_print(params, TRUE);
        args = printed;
        g_free(printed);
    }
    return (interface == kEngineInterface ? "" : interface + ".") + method + Shorten(args, 600);
}

class Rng {
public:
    explicit Rng(uint64_t seed) : m_engine(seed) {}
    uint64_t Next() { return m_engine(); }
    bool Chance(double p) { return std::uniform_real_distribution<double>(0, 1)(m_engine) < p; }
    long Range(long lo, long hi) { return std::uniform_int_distribution<long>(lo, hi)(m_engine); }
    template <typename T>
    const T& Pick(const std::vector<T>& items) {
        return items[static_cast<size_t>(Range(0, static_cast<long>(items.size()) - 1))];
    }

private:
    std::mt19937_64 m_engine;
};

// One client connection and what came back to it. A request awaits its
// completion signal; only one at a time per client so that a signal tells
// exactly which request it answers.
struct Client {
    moxtest::ConnectionPtr conn;
    guint subscription = 0;
    std::vector<guint32> handles;
    bool busy = false;
    std::string pendingMethod, pendingCall;
    Clock::time_point sentAt;
    std::vector<std::string> resultLists;
};

struct Finding {
    std::string kind, detail;
};

class BusFuzzer {
public:
    BusFuzzer(const Options& options, EngineHarness& h) : m_opt(options), m_h(h), m_rng(options.seed) {}
    bool Setup();
    int Run();

private:
    struct MethodInfo {
        std::string name;
        std::vector<std::pair<std::string, std::string>> inArgs;  // name, signature
    };

    // ------------------------------------------------------------ grammar
    std::string Path() {
        const std::string root = m_h.UsbRoot();
        static const std::vector<std::string> kTails = Words(
            "|/|/photos|/photos/a.jpg|/photos/b.png|/music/song.mp3|/video/clip.mp4|/doc.txt|"
            "/deep/1/2/3/4/5/6/7/8/leaf.jpg|/dir with spaces|/photos/fifo.jpg|/photos/link_secret.jpg|/link_out|"
            "/link_out/secret.txt|/magic|/magic/etc|/../../outside/secret.txt|/photos/../../sda1/doc.txt|"
            "/no/such/file.jpg|/.hidden.jpg|/new_album|/photos/new.jpg|/link_out/dir/planted");
        switch (m_rng.Range(0, 9)) {
            case 0: return m_outside + "/secret.txt";
            case 1:
                return m_rng.Pick(std::vector<std::string>{root, root + "/", root + "/..", root + "/../outside/dir/x",
                                                           "/", "", "relative/path", "..", "sda1/doc.txt"});
            case 2: return m_stick + "/" + std::string(static_cast<size_t>(m_rng.Range(200, 5000)), 'p');
            case 3: return m_stick + "/fuzz_" + std::to_string(m_rng.Range(0, 20)) + ".txt";
            case 4: return m_outside + "/dir/planted_" + std::to_string(m_rng.Range(0, 5));
            default: return m_stick + m_rng.Pick(kTails);
        }
    }

    std::string Url() {
        static const std::vector<std::string> kUrls = [] {
            auto urls = Words(
                "http://127.0.0.1:1/x.jpg|https://127.0.0.1:1/x.jpg|file:///etc/hostname|ftp://127.0.0.1:1/x|"
                "gopher://127.0.0.1:1/x|dict://127.0.0.1:1/x|http://|https://[::1");
            urls.push_back("http://user:pw@127.0.0.1:1/" + std::string(3000, 'u'));
            return urls;
        }();
        return m_rng.Chance(0.2) ? "file://" + m_outside + "/secret.txt" : m_rng.Pick(kUrls);
    }

    std::string ShmName() {
        std::vector<std::string> names = Words(
            "/mox_datablock_0|mox_datablock_1|/mox_resultlist_1|mox_resultlist_2||/|/../../etc/hostname|"
            "mox_no_such_object");
        names.push_back("/" + std::string(300, 'm'));
        for (const auto& client : m_clients)
            for (const auto& name : client->resultLists) names.push_back(name), names.push_back("/" + name);
        if (m_rng.Chance(0.3)) {
            // A client text object: a 32-bit length, then the bytes; sometimes lying.
            std::string name = "/mox_fuzz_" + std::to_string(getpid()) + "_" + std::to_string(m_ownObjects.size());
            int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
            if (fd >= 0) {
                // Never the canary: writing a client's own object is allowed.
                std::string body = m_rng.Chance(0.1) ? std::string(5000, 'o') : "fuzz content";
                int32_t length =
                    m_rng.Chance(0.7)
                        ? static_cast<int32_t>(body.size())
                        : static_cast<int32_t>(m_rng.Pick(std::vector<long>{-1, 0, 1 << 30, INT32_MAX, 4096}));
                (void)!write(fd, &length, sizeof(length));
                (void)!write(fd, body.data(), body.size());
                close(fd);
                m_ownObjects.push_back(name);
                return name;
            }
        }
        return m_rng.Pick(names);
    }

    std::string Text() {
        switch (m_rng.Range(0, 7)) {
            case 0: return "";
            case 1:
                return std::string(static_cast<size_t>(m_rng.Range(1, 64)),
                                   static_cast<char>('a' + m_rng.Range(0, 25)));
            case 2: return "%s%s%n%x%p";
            case 3: return "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xef\xbf\xbd";
            case 4:
                return m_rng.Chance(0.3) ? std::string(static_cast<size_t>(m_rng.Range(1 << 20, 2 << 20)), 'H')
                                         : std::string(static_cast<size_t>(m_rng.Range(4000, 70000)), 'h');
            case 5: return Path();
            case 6: return std::to_string(m_rng.Next());
            default: return "mox_" + std::to_string(m_rng.Range(0, 99));
        }
    }

    // A JSON string literal; sometimes with escapes that decode to invalid
    // UTF-8 (lone surrogates), NUL or control characters.
    std::string JsonString(const std::string& raw, double escapeChance = 0.15) {
        static const std::vector<std::string> kEscapes = Words(
            "\\ud800|\\udc00|\\ud800\\ud800|\\udbff\\u0041|\\u0000|\\uffff|\\u001b[31m|\\ufffe|\\x41|\\ud83d\\ude00");
        std::string out = "\"";
        for (char c : raw) {
            if (c == '"' || c == '\\') out += '\\';
            out += c;
        }
        if (m_rng.Chance(escapeChance)) {
            size_t pos = 1 + static_cast<size_t>(m_rng.Range(0, static_cast<long>(out.size()) - 1));
            // Never inside a multi-byte sequence.
            while (pos < out.size() && (static_cast<unsigned char>(out[pos]) & 0xC0) == 0x80) ++pos;
            out.insert(pos, m_rng.Pick(kEscapes));
        }
        return out + "\"";
    }

    std::string JsonInt() {
        static const std::vector<std::string> kInts = Words(
            "0|1|2|3|-1|5|15|7|2147483647|-2147483648|2147483648|4294967295|9223372036854775807|"
            "18446744073709551616|1e308|-1e400|1.5|-0|0x10|1024|100000000");
        return m_rng.Chance(0.5) ? std::to_string(m_rng.Range(-2, 40)) : m_rng.Pick(kInts);
    }

    std::string JsonValue(int depth) {
        switch (m_rng.Range(0, depth > 3 ? 4 : 6)) {
            case 0: return JsonInt();
            case 1: return JsonString(Text());
            case 2: return m_rng.Chance(0.5) ? "true" : "false";
            case 3: return "null";
            case 4: {
                size_t n = static_cast<size_t>(m_rng.Range(1, 3000));
                return std::string(n, '[') + std::string(n, ']');
            }
            case 5: {
                std::string out = "[";
                for (long i = 0, n = m_rng.Range(0, 4); i < n; ++i) out += (i ? "," : "") + JsonValue(depth + 1);
                return out + "]";
            }
            default: {
                std::string out = "{";
                for (long i = 0, n = m_rng.Range(0, 3); i < n; ++i)
                    out += (i ? "," : "") + JsonString(Text().substr(0, 40)) + ":" + JsonValue(depth + 1);
                return out + "}";
            }
        }
    }

    std::string SourceLibrary() {
        static const std::vector<std::string> kLibs = Words(
            "libmox_local_source.so|libmox_ra_source.so|libmox_test_source.so|libmox_uhd_provider.so|libnope.so|"
            "../libmox_local_source.so|/usr/lib/x86_64-linux-gnu/libc.so.6|libc.so.6|lib.so||"
            "libmox_local_source.so\xc3\xa9");
        return m_rng.Chance(0.9) ? m_rng.Pick(kLibs) : Text();
    }

    // A member with a value of its own type most of the time, any type otherwise.
    std::string Member(const std::string& name) {
        static const auto kSources =
            Words("mox_local_source|mox_ra_source|mox_test_source|mox_test_source2|mox_example_source|nope|");
        static const auto kCommands = Words(
            "mox_requestlist|mox_requestdetail|mox_requestmeta|mox_uploadcomment|mox_setlike|mox_file_transfer|"
            "mox_create_album");
        static const auto kSortKeys = Words("FileName|FileSize|FileTime|Title|Nope");
        static const auto kMisbehave = Words("count_mismatch|overrun|huge_range|offset|throw");
        static const std::set<std::string> kPaths = {"mox_folder_path", "FilePath", "mox_transfer_dst",
                                                     "mox_album_path", "FOLDER_PATH"};
        // The test plug-in's knobs are the fixture's, not a client's: any value
        // would let a seed make a request sleep for a minute or list 100,000 items.
        const bool knob = name.rfind("test_", 0) == 0;
        std::string value;
        if (!knob && m_rng.Chance(0.2)) {
            value = JsonValue(0);
        } else if (name == "mox_command") {
            value = JsonString(m_rng.Pick(kCommands));
        } else if (name == "mox_source") {
            if (m_rng.Chance(0.5)) {
                value = JsonString(m_rng.Pick(kSources));
            } else {
                value = "[";
                for (long i = 0, n = m_rng.Range(0, m_rng.Chance(0.05) ? 200 : 3); i < n; ++i)
                    value += (i ? "," : "") + JsonString(m_rng.Pick(kSources));
                value += "]";
            }
        } else if (kPaths.count(name)) {
            value = JsonString(Path());
        } else if (name == "mox_transfer_src") {
            value = JsonString(m_rng.Chance(0.7) ? Path() : Url());
        } else if (name == "SortedKey") {
            value = JsonString(m_rng.Pick(kSortKeys));
        } else if (name == "test_misbehave") {
            value = JsonString(m_rng.Pick(kMisbehave));
        } else if (name == "test_delay_ms") {
            value = std::to_string(m_rng.Range(0, 1500));
        } else if (knob) {
            value = std::to_string(m_rng.Range(-2, 40));
        } else if (name == "mox_transfer_overwrite" || name == "mox_file_transfer_stop") {
            value = m_rng.Chance(0.5) ? "true" : "false";
        } else if (name == "mox_transfer_id" || name == "FOLDER_ID" || name.find("times") != std::string::npos ||
                   name == "mox_accesstoken" || name == "mox_uuid") {
            value = JsonString(m_rng.Chance(0.6) ? "id" + std::to_string(m_rng.Range(0, 5)) : Text());
        } else {
            value = JsonInt();
        }
        return JsonString(name, 0.02) + ":" + value;
    }

    std::string Document(const std::string& method) {
        static const std::map<std::string, std::vector<std::string>> kMembers = {
            {"mox_requestlist",
             Words("mox_source|mox_sectionindex|SortedType|SortedKey|mox_folder_path|mox_media_type|mox_start_index|"
                   "mox_end_index|test_item_count|test_misbehave|test_delay_ms|test_error")},
            {"mox_requestdetail",
             Words("mox_source|FilePath|mox_detail_request_times|test_misbehave|test_delay_ms|test_error")},
            {"mox_requestmeta", Words("mox_source|mox_uhd_request_param|mox_uuid|mox_version")},
            {"mox_file_transfer",
             Words("mox_source|mox_transfer_id|mox_transfer_src|mox_transfer_dst|mox_transfer_overwrite|"
                   "mox_file_transfer_stop|mox_act_request_times")},
            {"mox_create_album", Words("mox_source|mox_album_path|mox_act_request_times")},
            {"mox_setlike", Words("mox_source|mox_accesstoken|mox_act_request_times")},
            {"mox_uploadcomment", Words("mox_source|mox_accesstoken|mox_act_request_times")},
        };
        static const auto kCommon =
            Words("mox_countryid|mox_langid|mox_accesstoken|mox_uuid|mox_version|OPERATION_TYPE|mox_handle_id");
        static const std::map<std::string, std::string> kOwnKind = {{"get_partial_list", "mox_requestlist"},
                                                                    {"request_detail", "mox_requestdetail"},
                                                                    {"request_metadata", "mox_requestmeta"}};
        // The method's own kind half of the time; any kind (or none) otherwise.
        std::string kind;
        if (m_rng.Chance(0.5)) {
            auto own = kOwnKind.find(method);
            kind = own != kOwnKind.end() ? own->second : m_rng.Chance(0.7) ? "mox_file_transfer" : "mox_create_album";
        } else {
            kind = std::next(kMembers.begin(), m_rng.Range(0, static_cast<long>(kMembers.size()) - 1))->first;
        }
        std::string doc;
        auto add = [&doc](const std::string& member) { doc += (doc.empty() ? "" : ",") + member; };
        if (m_rng.Chance(0.93))
            add(JsonString("mox_command", 0.02) + ":" + (m_rng.Chance(0.9) ? JsonString(kind, 0.05) : JsonValue(0)));
        if (kind == "mox_file_transfer" || kind == "mox_create_album" || kind == "mox_setlike" ||
            kind == "mox_uploadcomment")
            if (m_rng.Chance(0.8)) add(JsonString("mox_source") + ":" + JsonString("mox_ra_source"));
        for (const auto& member : kMembers.at(kind))
            if (m_rng.Chance(0.7)) add(Member(member));
        for (long i = 0, n = m_rng.Range(0, 2); i < n; ++i) add(Member(m_rng.Pick(kCommon)));
        if (m_rng.Chance(0.05)) add(Member("mox_command"));  // a duplicate key
        doc = "{" + doc + "}";
        if (m_rng.Chance(0.08)) {
            switch (m_rng.Range(0, 3)) {
                case 0: doc.resize(static_cast<size_t>(m_rng.Range(0, static_cast<long>(doc.size())))); break;
                case 1: doc += m_rng.Chance(0.5) ? "garbage" : "}}"; break;
                case 2: doc[static_cast<size_t>(m_rng.Range(0, static_cast<long>(doc.size()) - 1))] = '"'; break;
                default: doc = "\xef\xbb\xbf/*c*/" + doc; break;
            }
        }
        if (!g_utf8_validate(doc.data(), static_cast<gssize>(doc.size()), nullptr)) {
            gchar* valid = g_utf8_make_valid(doc.data(), static_cast<gssize>(doc.size()));
            doc = valid;
            g_free(valid);
        }
        return doc;
    }

    std::string FolderDocument() {
        std::string doc = "{";
        if (m_rng.Chance(0.9))
            doc += "\"OPERATION_TYPE\":" + (m_rng.Chance(0.8) ? std::to_string(m_rng.Range(-1, 2)) : JsonValue(0));
        doc += std::string(doc.size() > 1 ? "," : "") + Member("FOLDER_PATH");
        if (m_rng.Chance(0.7)) doc += "," + Member("FOLDER_ID");
        return doc + "}";
    }

    guint32 Handle(const Client& client) {
        long choice = m_rng.Range(0, 19);
        if (choice < 12 && !client.handles.empty()) return m_rng.Pick(client.handles);
        if (choice < 15) {
            const Client& other =
                *m_clients[static_cast<size_t>(m_rng.Range(0, static_cast<long>(m_clients.size()) - 1))];
            if (!other.handles.empty()) return m_rng.Pick(other.handles);
        }
        if (choice < 17) return static_cast<guint32>(m_rng.Range(0, 8));
        if (choice < 18) return 4294967295u;
        return static_cast<guint32>(m_rng.Next());
    }

    guint32 Number(const std::string& argName) {
        if (argName == "scanner_id" && !m_scannerIds.empty() && m_rng.Chance(0.7)) return m_rng.Pick(m_scannerIds);
        if (argName == "client_pid")
            return m_rng.Chance(0.5) ? static_cast<guint32>(getpid()) : static_cast<guint32>(m_rng.Next());
        static const std::vector<guint32> kNumbers = {0,    1,     2,           3,           4,          1024,
                                                      1025, 65535, 2147483647u, 2147483648u, 4294967295u};
        return m_rng.Chance(0.7) ? m_rng.Pick(kNumbers) : static_cast<guint32>(m_rng.Next());
    }

    std::string StringArg(const std::string& method, const std::string& argName) {
        static const auto kCategories =
            Words("CONTENT-IMAGE|CONTENT-VIDEO|CONTENT-MUSIC|CONTENT-UHD|CONTENT-PVR|CONTENT-PVR-X|ALL|");
        if (m_rng.Chance(0.05)) return Text();
        if (argName == "source_name") return SourceLibrary();
        if (method == "check_folder_path") return FolderDocument();
        if (argName == "command" || argName == "request" || (argName == "param" && method != "start_scanner"))
            return Document(method);
        if (argName == "file_path" || argName == "folder_path" || argName == "param") return Path();
        if (argName == "shm_name" || argName == "result_list_name" || argName == "selection_list_block_name")
            return ShmName();
        if (argName == "scanner_kind")
            return m_rng.Chance(0.8) ? (m_rng.Chance(0.8) ? "check_device" : "scan_folder") : Text();
        if (argName == "content_category") return m_rng.Pick(kCategories);
        return Text();
    }

    GVariant* Arguments(const MethodInfo& method, const Client& client) {
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
        for (const auto& [name, signature] : method.inArgs) {
            GVariant* value = nullptr;
            if (signature == "s") {
                value = g_variant_new_string(StringArg(method.name, name).c_str());
            } else if (signature == "u") {
                value = g_variant_new_uint32(name == "handle_id" ? Handle(client) : Number(name));
            } else if (signature == "b") {
                value = g_variant_new_boolean(m_rng.Chance(0.5));
            } else {
                // A type this generator does not know: its zero value keeps the call well formed.
                GVariantType* type = g_variant_type_new(signature.c_str());
                value = g_variant_new_maybe(type, nullptr);
                g_variant_type_free(type);
            }
            g_variant_builder_add_value(&builder, value);
        }
        return g_variant_builder_end(&builder);
    }

    GVariant* WrongArguments() {
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
        static const char* const kStrv[] = {"a", "b", nullptr};
        for (long i = 0, n = m_rng.Range(0, 5); i < n; ++i) {
            GVariant* value = nullptr;
            switch (m_rng.Range(0, 5)) {
                case 0: value = g_variant_new_string(Text().c_str()); break;
                case 1: value = g_variant_new_uint32(static_cast<guint32>(m_rng.Next())); break;
                case 2: value = g_variant_new_int64(static_cast<gint64>(m_rng.Next())); break;
                case 3: value = g_variant_new_boolean(TRUE); break;
                case 4: value = g_variant_new_variant(g_variant_new_string(Document("request_act").c_str())); break;
                default: value = g_variant_new_strv(kStrv, -1); break;
            }
            g_variant_builder_add_value(&builder, value);
        }
        return g_variant_builder_end(&builder);
    }

    // ------------------------------------------------------------ driving
    void AddClient() {
        auto client = std::make_unique<Client>();
        client->conn = m_h.Connect();
        client->subscription = g_dbus_connection_signal_subscribe(client->conn.get(), nullptr, kEngineInterface,
                                                                  nullptr, moxtest::kEnginePath, nullptr,
                                                                  G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, this, nullptr);
        m_clients.push_back(std::move(client));
    }

    void DropClient(size_t index) {
        Client& client = *m_clients[index];
        g_dbus_connection_signal_unsubscribe(client.conn.get(), client.subscription);
        g_dbus_connection_close_sync(client.conn.get(), nullptr, nullptr);
        m_clients.erase(m_clients.begin() + static_cast<long>(index));
    }

    static void OnSignal(GDBusConnection* conn, const gchar*, const gchar*, const gchar*, const gchar* name,
                         GVariant* params, gpointer self) {
        static_cast<BusFuzzer*>(self)->HandleSignal(conn, name, params);
    }

    void HandleSignal(GDBusConnection* conn, const std::string& name, GVariant* params) {
        Client* client = nullptr;
        for (auto& c : m_clients)
            if (c->conn.get() == conn) client = c.get();
        if (!client || name == "mox_usb_notification") return;
        std::string text;
        if (g_variant_n_children(params) > 0) {
            GVariantPtr first(g_variant_get_child_value(params, 0));
            if (g_variant_is_of_type(first.get(), G_VARIANT_TYPE_STRING))
                text = g_variant_get_string(first.get(), nullptr);
        }
        // Result-list names seen on the bus become object names for later calls.
        for (size_t pos = text.find("mox_resultlist_"); pos != std::string::npos;
             pos = text.find("mox_resultlist_", pos + 1)) {
            size_t end = pos + 15;
            while (end < text.size() && (isdigit(static_cast<unsigned char>(text[end])) || text[end] == '_')) ++end;
            if (client->resultLists.size() < 32) client->resultLists.push_back(text.substr(pos, end - pos));
        }
        if (client->busy) {
            client->busy = false;
            ++m_answered;
        }
    }

    // Requests still waiting past the answer timeout are silent: counted, sampled,
    // and their client replaced so that a late signal cannot answer another request.
    void ExpirePending(bool final) {
        auto now = Clock::now();
        for (size_t i = m_clients.size(); i-- > 0;) {
            Client& c = *m_clients[i];
            if (!c.busy || (!final && now - c.sentAt < std::chrono::milliseconds(m_opt.answerTimeoutMs))) continue;
            ++m_silent;
            // A few samples of each method, so that a rare one is not crowded out.
            if (++m_silentByMethod[c.pendingMethod] <= 3) m_silentSamples.push_back(c.pendingCall);
            DropClient(i);
        }
    }

    Client* IdleClient() {
        std::vector<Client*> idle;
        for (auto& c : m_clients)
            if (!c->busy) idle.push_back(c.get());
        if (!idle.empty() && (m_clients.size() >= kMaxConnections || m_rng.Chance(0.9))) return m_rng.Pick(idle);
        if (m_clients.size() >= kMaxConnections) return nullptr;
        AddClient();
        return m_clients.back().get();
    }

    std::string SanitizerExcerpt(const std::string& output) const {
        static const auto kMarkers = Words(
            "ERROR: AddressSanitizer|ERROR: LeakSanitizer|runtime error:|-CRITICAL **|Assertion|assertion|"
            "ERROR: ThreadSanitizer|terminate called|MOX_ASSERT");
        size_t first = std::string::npos;
        for (const auto& marker : kMarkers) first = std::min(first, output.find(marker));
        if (first == std::string::npos) return "";
        size_t start = output.rfind('\n', first);
        // The report head and its first frames are what tells the others where to look.
        std::string excerpt;
        size_t pos = start == std::string::npos ? 0 : start + 1;
        for (int lines = 0; lines < 40 && pos < output.size(); ++lines) {
            size_t end = std::min(output.find('\n', pos), output.size());
            excerpt += output.substr(pos, std::min<size_t>(end - pos, 300)) + "\n";
            pos = end + 1;
        }
        return excerpt;
    }

    bool CheckAlive(const std::string& lastCall) {
        if (m_h.Running()) return true;
        std::string recent;
        for (const auto& call : m_lastCalls) recent += "    " + call + "\n";
        std::string output = m_h.Output();
        std::string excerpt = SanitizerExcerpt(output.substr(std::min(m_outputOffset, output.size())));
        m_findings.push_back({"daemon died", "last call: " + lastCall + "\n  recent calls (oldest first):\n" + recent +
                                                 (excerpt.empty() ? "  (no report in its output)\n" : excerpt)});
        fprintf(stderr, "bus_fuzz: the daemon died after call %zu: %s\n", m_calls, lastCall.c_str());
        m_dead = true;
        ++m_deaths;
        for (auto& client : m_clients)
            if (client->busy) client->busy = false, ++m_lost;
        if (!m_opt.restart) return false;
        while (!m_clients.empty()) DropClient(m_clients.size() - 1);
        m_outputOffset = m_h.Output().size();
        if (!m_h.Start()) return false;
        m_engineTags.insert(std::to_string(m_h.Pid()));
        ++m_restarts;
        m_dead = false;
        return true;
    }

    void OneCall() {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        ExpirePending(false);
        std::string interface = kEngineInterface, method;
        GVariant* params = nullptr;
        bool tracked = false;
        long kind = m_rng.Range(0, 99);
        const MethodInfo& info = m_rng.Pick(m_methods);
        Client* client = IdleClient();
        if (!client) {
            // Every client waits for an answer: let time pass instead of a call.
            g_usleep(20 * 1000);
            return;
        }
        if (kind < 85) {
            method = info.name;
            params = Arguments(info, *client);
            tracked = kRequests.count(method) > 0;
        } else if (kind < 91) {
            method = info.name;
            params = WrongArguments();
        } else if (kind < 96) {
            method = m_rng.Chance(0.5) ? "x" + std::to_string(m_rng.Next() % 1000) : info.name + "_";
            params = WrongArguments();
        } else {
            static const std::vector<std::pair<std::string, std::string>> kOther = {
                {"org.freedesktop.DBus.Introspectable", "Introspect"},
                {"org.freedesktop.DBus.Properties", "GetAll"},
                {"org.freedesktop.DBus.Peer", "Ping"},
                {"com.orvia.mox.engine.Other", "start_server"}};
            std::tie(interface, method) = m_rng.Pick(kOther);
            params = method == "GetAll" ? g_variant_new("(s)", kEngineInterface) : nullptr;
        }
        Send(client, interface, method, params, tracked);
    }

    // Makes one call on `client` (params floating or null) and books what it
    // started; a tracked request keeps the client busy until a signal answers it.
    void Send(Client* client, const std::string& interface, const std::string& method, GVariant* params, bool tracked) {
        GVariantPtr paramsOwner(params ? g_variant_ref_sink(params) : nullptr);
        std::string call = Describe(interface, method, params);
        m_lastCalls.push_back(call);
        if (m_lastCalls.size() > 24) m_lastCalls.pop_front();
        if (m_opt.verbose) fprintf(stderr, "call %zu: %s\n", m_calls, call.c_str());
        ++m_calls;
        ++m_callsByMethod[method];
        if (tracked) {
            client->busy = true;
            client->pendingMethod = method;
            client->pendingCall = call;
            client->sentAt = Clock::now();
        }
        GError* error = nullptr;
        auto started = Clock::now();
        GVariantPtr reply(g_dbus_connection_call_sync(client->conn.get(), moxtest::kEngineName, moxtest::kEnginePath,
                                                      interface.c_str(), method.c_str(), params, nullptr,
                                                      G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error));
        if (error) {
            gchar* remote = g_dbus_error_get_remote_error(error);
            // A recipient that left without replying died; one that is still there stalls.
            bool gone = strstr(error->message, "disconnected") != nullptr;
            bool timedOut = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) ||
                            (remote && strcmp(remote, "org.freedesktop.DBus.Error.NoReply") == 0 && !gone);
            g_free(remote);
            if (!timedOut && gone) {
                auto until = Clock::now() + std::chrono::seconds(10);
                while (m_h.Running() && Clock::now() < until) g_usleep(20 * 1000);
            }
            if (timedOut && m_h.Running()) {
                auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
                m_findings.push_back({"no reply (main loop blocked?)",
                                      call + " (after " + std::to_string(ms) + " ms: " + error->message + ")"});
            }
            g_error_free(error);
            // A refused call is an answer; a tracked request refused by the bus needs no signal.
            if (tracked && client->busy) {
                client->busy = false;
                ++m_answered;
            }
        } else if (reply && interface == kEngineInterface) {
            if (method == "connect" && g_variant_is_of_type(reply.get(), G_VARIANT_TYPE("(u)"))) {
                guint32 handle = 0;
                g_variant_get(reply.get(), "(u)", &handle);
                if (handle != 4294967295u && client->handles.size() < 16) client->handles.push_back(handle);
            } else if (method == "start_scanner" && g_variant_is_of_type(reply.get(), G_VARIANT_TYPE("(bu)"))) {
                gboolean ok = FALSE;
                guint32 id = 0;
                g_variant_get(reply.get(), "(bu)", &ok, &id);
                if (ok && m_scannerIds.size() < 64) m_scannerIds.push_back(id);
            }
        }
        CheckAlive(call);
    }

    void CheckConfinement() {
        if (moxtest::ReadTextFile(m_outside + "/secret.txt") != std::string(kCanary) + "\n")
            m_findings.push_back({"file outside the USB root changed or removed", m_outside + "/secret.txt"});
        std::error_code ec;
        for (const auto& entry : fs::recursive_directory_iterator(m_outside, ec))
            if (!m_outsideBefore.count(entry.path()))
                m_findings.push_back({"file created outside the USB root", entry.path().string()});
        // The secret must not have been copied in (a transfer, a write or a link followed).
        for (auto it = fs::recursive_directory_iterator(m_h.UsbRoot(), ec);
             !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
            if (it->is_symlink() || !it->is_regular_file(ec) || it->file_size(ec) > 4096) continue;
            if (moxtest::ReadTextFile(it->path()).find(kCanary) != std::string::npos)
                m_findings.push_back({"outside file copied into the USB root", it->path().string()});
        }
    }

    const Options& m_opt;
    EngineHarness& m_h;
    Rng m_rng;
    std::vector<MethodInfo> m_methods;
    std::vector<std::unique_ptr<Client>> m_clients;
    std::vector<guint32> m_scannerIds;
    std::vector<std::string> m_ownObjects;
    std::deque<std::string> m_lastCalls;
    std::vector<Finding> m_findings;
    std::map<std::string, size_t> m_callsByMethod, m_silentByMethod;
    std::vector<std::string> m_silentSamples;
    size_t m_calls = 0, m_silent = 0, m_answered = 0, m_restarts = 0, m_outputOffset = 0, m_deaths = 0;
    size_t m_lost = 0;  // pending when the daemon died: neither answered nor silent
    std::string m_stick, m_outside;
    std::set<std::string> m_outsideBefore;
    std::set<std::string> m_engineTags;  // the instance tags of the daemons started
    bool m_dead = false;
};

bool BusFuzzer::Setup() {
    gchar* xml = nullptr;
    GError* error = nullptr;
    GDBusNodeInfo* node = nullptr;
    if (g_file_get_contents(MOX_DBUS_XML, &xml, nullptr, &error)) node = g_dbus_node_info_new_for_xml(xml, &error);
    g_free(xml);
    if (!node) {
        fprintf(stderr, "bus_fuzz: cannot read the introspection XML %s: %s\n", MOX_DBUS_XML, error->message);
        g_error_free(error);
        return false;
    }
    for (GDBusInterfaceInfo** iface = node->interfaces; iface && *iface; ++iface) {
        if (std::string((*iface)->name) != kEngineInterface) continue;
        for (GDBusMethodInfo** m = (*iface)->methods; m && *m; ++m) {
            MethodInfo info{(*m)->name, {}};
            for (GDBusArgInfo** a = (*m)->in_args; a && *a; ++a) info.inArgs.emplace_back((*a)->name, (*a)->signature);
            m_methods.push_back(std::move(info));
        }
    }
    g_dbus_node_info_unref(node);
    if (m_methods.empty()) {
        fprintf(stderr, "bus_fuzz: no methods of %s in the XML\n", kEngineInterface);
        return false;
    }
    for (const char* so : {MOX_LOCAL_SOURCE_SO, MOX_RA_SOURCE_SO, MOX_TEST_SOURCE_SO, MOX_UHD_PROVIDER_SO})
        m_h.InstallPlugin(so);

    // Outside the USB root: a secret the daemon must neither read, change nor
    // remove for a client, and a directory where nothing may appear.
    m_outside = m_h.Path("outside");
    moxtest::WriteTextFile(m_outside + "/secret.txt", std::string(kCanary) + "\n");
    fs::create_directories(m_outside + "/dir");
    chmod((m_outside + "/secret.txt").c_str(), 0600);

    // One mounted stick with media, folders, links out, a FIFO and odd names.
    m_stick = m_h.Plug("sda1");
    for (const auto& name : Words("photos/a.jpg|photos/b.png|music/song.mp3|video/clip.mp4|doc.txt|"
                                  "deep/1/2/3/4/5/6/7/8/leaf.jpg|dir with spaces/\xc3\xa9t\xc3\xa9.jpg|.hidden.jpg"))
        moxtest::WriteTextFile(m_stick + "/" + name, "not really media\n");
    symlink(m_outside.c_str(), (m_stick + "/link_out").c_str());
    symlink((m_outside + "/secret.txt").c_str(), (m_stick + "/photos/link_secret.jpg").c_str());
    symlink("/proc/self/root", (m_stick + "/magic").c_str());
    mkfifo((m_stick + "/photos/fifo.jpg").c_str(), 0666);

    for (const auto& entry : fs::recursive_directory_iterator(m_outside)) m_outsideBefore.insert(entry.path());
    return true;
}

int BusFuzzer::Run() {
    if (!m_h.Start()) {
        fprintf(stderr, "bus_fuzz: the daemon did not start\n%s\n", m_h.Output().c_str());
        return 2;
    }
    m_engineTags.insert(std::to_string(m_h.Pid()));
    auto start = Clock::now();
    auto deadline = start + std::chrono::milliseconds(static_cast<long>(m_opt.seconds * 1000));
    while (!m_dead && (m_opt.calls >= 0 ? static_cast<long>(m_calls) < m_opt.calls : Clock::now() < deadline))
        OneCall();
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();

    // Late answers still count; what stays silent past the timeout does not.
    auto answerDeadline = Clock::now() + std::chrono::milliseconds(m_opt.answerTimeoutMs);
    while (!m_dead && Clock::now() < answerDeadline &&
           std::any_of(m_clients.begin(), m_clients.end(), [](const auto& c) { return c->busy; })) {
        moxtest::PumpMainContext(std::chrono::milliseconds(20));
        CheckAlive("(waiting for answers)");
    }
    ExpirePending(true);

    if (!m_dead) {
        moxtest::CallResult ping = m_h.Call("start_server", nullptr, nullptr, 10000);
        const gchar* text = nullptr;
        if (ping.ok()) g_variant_get(ping.reply.get(), "(&s)", &text);
        if (!text || std::string(text) != "MOX_SERVER_START_SUCCESS")
            m_findings.push_back({"final ping failed", ping.error});
        while (!m_clients.empty()) DropClient(m_clients.size() - 1);
        moxtest::PumpMainContext(std::chrono::milliseconds(200));
        int stopStatus = m_h.Stop(std::chrono::seconds(30));
        if (stopStatus != 0)
            m_findings.push_back({"unclean stop", "exit status " + std::to_string(stopStatus) +
                                                      " (a leak report or a hang on SIGTERM)"});
    }
    std::string output = m_h.Output();
    // A restarted daemon's output starts anew.
    std::string excerpt = SanitizerExcerpt(output.substr(m_outputOffset > output.size() ? 0 : m_outputOffset));
    if (!excerpt.empty()) m_findings.push_back({"report in daemon output (end of run)", excerpt});
    CheckConfinement();
    for (const auto& name : m_ownObjects) shm_unlink(name.c_str());
    // After a clean stop the daemon must have released every object; after a
    // crash its objects are orphans that would collide with later runs.
    std::vector<std::string> left;
    for (const auto& name : EngineObjects(m_engineTags)) left.push_back(name);
    if (!left.empty() && m_deaths == 0)
        m_findings.push_back({"objects left in /dev/shm after the stop",
                              left.front() + " and " + std::to_string(left.size() - 1) + " more"});
    for (const auto& name : left) shm_unlink(("/" + name).c_str());
    if (m_opt.requireAnswers)
        for (const auto& [method, count] : m_silentByMethod)
            m_findings.push_back({"request without any signal", method + ": " + std::to_string(count)});

    printf(
        "bus_fuzz: seed %llu: %zu calls in %.1f s, %zu answered requests, %zu silent requests, "
        "%zu lost in a crash, %zu restarts, %zu findings\ncalls by method:",
        static_cast<unsigned long long>(m_opt.seed), m_calls, seconds, m_answered, m_silent, m_lost, m_restarts,
        m_findings.size());
    for (const auto& [method, count] : m_callsByMethod) printf(" %s=%zu", method.c_str(), count);
    printf("\n");
    if (m_silent) {
        printf("silent requests (no signal within %d ms):", m_opt.answerTimeoutMs);
        for (const auto& [method, count] : m_silentByMethod) printf(" %s=%zu", method.c_str(), count);
        printf("\n");
        for (const auto& sample : m_silentSamples) printf("  silent: %s\n", sample.c_str());
    }
    for (const auto& finding : m_findings) printf("FINDING: %s\n  %s\n", finding.kind.c_str(), finding.detail.c_str());
    printf("reproduce: bus_fuzz --seed %llu %s\n", static_cast<unsigned long long>(m_opt.seed),
           m_opt.calls >= 0 ? ("--calls " + std::to_string(m_opt.calls)).c_str()
                            : ("--seconds " + std::to_string(static_cast<long>(m_opt.seconds)) +
                               " (a time bound repeats the sequence only as far as it got)")
                                  .c_str());
    fflush(stdout);
    return m_findings.empty() ? 0 : 1;
}

bool ParseOptions(int argc, char** argv, Options* opt) {
    bool seedGiven = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        if (arg == "--require-answers") {
            opt->requireAnswers = true;
        } else if (arg == "--restart") {
            opt->restart = true;
        } else if (arg == "--verbose") {
            opt->verbose = true;
        } else if (arg == "--seed" && hasValue) {
            std::string v = argv[++i];
            if (v != "random") opt->seed = std::strtoull(v.c_str(), nullptr, 10), seedGiven = true;
        } else if (arg == "--seconds" && hasValue) {
            opt->seconds = std::atof(argv[++i]);
        } else if (arg == "--calls" && hasValue) {
            opt->calls = std::atol(argv[++i]);
        } else if (arg == "--answer-timeout" && hasValue) {
            opt->answerTimeoutMs = std::atoi(argv[++i]);
        } else {
            fprintf(stderr,
                    "usage: bus_fuzz [--seed N|random] [--seconds S] [--calls N] [--answer-timeout MS] "
                    "[--require-answers] [--restart] [--verbose]\n");
            return false;
        }
    }
    if (!seedGiven) opt->seed = std::random_device{}() ^ (static_cast<uint64_t>(getpid()) << 32);
    return opt->seconds > 0 && opt->answerTimeoutMs > 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) return 2;
    printf("bus_fuzz: seed %llu\n", static_cast<unsigned long long>(options.seed));
    fflush(stdout);
    EngineHarness h;
    BusFuzzer fuzzer(options, h);
    return fuzzer.Setup() ? fuzzer.Run() : 2;
}
