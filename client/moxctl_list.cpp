// list, detail and meta: requests through a source plug-in, answered by
// completion signals; list answers are result lists in shared memory.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <set>
#include <tuple>

#include <glib.h>

#include <mox/mox_events.h>
#include <mox/mox_resultlist.h>
#include <mox/mox_resultpool.h>
#include <mox/mox_types.h>

#include "moxctl_commands.h"

namespace moxctl {

namespace {

// How long a drop confirmation is awaited at most (the drop itself is done
// when its method call returns).
constexpr std::chrono::milliseconds kDropWait{5000};

bool ParseRange(const std::string& text, int& start, int& end) {
    size_t dash = text.find('-');
    if (dash == std::string::npos || dash == 0) return false;
    auto number = [](const std::string& s, int& out) {
        if (s.empty() || s.size() > 9 || s.find_first_not_of("0123456789") != std::string::npos) return false;
        out = std::stoi(s);
        return true;
    };
    if (!number(text.substr(0, dash), start)) return false;
    std::string last = text.substr(dash + 1);
    if (last.empty()) {
        end = -1;
        return true;
    }
    return number(last, end) && end >= start;
}

// One list request after another on one handle; remembers every result list
// the engine handed over until it is dropped.
class Lister {
public:
    Lister(Context& ctx, guint32 handle, Json::Value doc) : m_ctx(ctx), m_handle(handle), m_doc(std::move(doc)) {}
    ~Lister() { DropAll(); }

    // Requests items start..end (end -1: to the last) as section `section`.
    // kExitOk with list null when the source has no such items.
    int Request(int start, int end, int section, std::unique_ptr<CResultList>& list) {
        Json::Value doc = m_doc;
        doc["mox_start_index"] = start;
        doc["mox_end_index"] = end;
        if (section >= 0) doc["mox_sectionindex"] = section;
        std::string text = CompactJson(doc);
        std::string error;
        int code = 0;
        VariantPtr reply = m_ctx.bus.Call("get_partial_list", g_variant_new("(uuus)", m_handle, 0u, 0u, text.c_str()),
                                          nullptr, error, code);
        if (!reply) return m_ctx.Fail(code, error);
        Json::Value payload;
        auto w = WaitCompletion(
            m_ctx.bus, "mox_request_normal_complete", m_handle,
            [](int e) {
                return e == MOX_EVENT_LIST_READY || e == MOX_EVENT_LIST_SOURCE_ERROR || e == MOX_EVENT_LIST_FAILED;
            },
            payload);
        if (w != CMOXCtlBus::Wait::kGot) {
            int rc = CMOXCtlBus::Describe(w, "the list", error);
            return w == CMOXCtlBus::Wait::kInterrupted ? rc : m_ctx.Fail(rc, error);
        }
        int event = IntMember(payload, "mox_event_type", MOX_EVENT_LIST_FAILED);
        if (event == MOX_EVENT_LIST_SOURCE_ERROR) return kExitOk;  // the source had nothing (an empty folder)
        const Json::Value& name = payload["mox_result_list_block_name"];
        if (event == MOX_EVENT_LIST_FAILED || !name.isString() || name.asString().empty())
            return m_FailList(IntMember(payload, "mox_error_code", MOX_ERROR_GENERIC),
                              doc["mox_folder_path"].asString());
        m_live.insert(name.asString());
        list.reset(new CResultList(name.asString()));
        if (!list->IsLoaded()) {
            list.reset();
            return m_ctx.Fail(kExitFailed, "cannot read the result list " + name.asString());
        }
        return kExitOk;
    }

    // Hands a result list back to the engine.
    int Drop(std::string name) {  // by value: it may be an element of m_live
        if (!m_live.erase(name)) return kExitOk;
        std::string error;
        int code = 0;
        VariantPtr reply =
            m_ctx.bus.Call("drop_partial_list", g_variant_new("(us)", m_handle, name.c_str()), nullptr, error, code);
        if (!reply) return m_ctx.Fail(code, "dropping " + name + ": " + error);
        Json::Value payload;
        EngineSignal s;
        auto w = m_ctx.bus.WaitSignal(
            [&](const EngineSignal& sig) {
                Json::Value v;
                std::string e;
                if (sig.name != "mox_request_normal_complete" || !CMOXCtlOutput::Parse(sig.Text(), v, e)) return false;
                int event = IntMember(v, "mox_event_type", -1);
                if ((event != 10 && event != 11) || !v["mox_handle_id"].isIntegral() ||
                    v["mox_handle_id"].asLargestInt() != m_handle)
                    return false;
                payload = v;
                return true;
            },
            s, std::min(kDropWait, m_ctx.bus.Timeout()));
        if (w == CMOXCtlBus::Wait::kGot &&
            IntMember(payload, "mox_event_type", MOX_EVENT_DROP_FAILED) == MOX_EVENT_DROP_FAILED)
            return m_ctx.Fail(kExitFailed, "the engine could not drop " + name);
        return kExitOk;
    }

    int DropAll() {
        int rc = kExitOk;
        while (!m_live.empty()) {
            int r = Drop(*m_live.begin());
            if (r != kExitOk) {
                rc = r;
                m_live.erase(m_live.begin());
            }
        }
        return rc;
    }

    // CResultPool callbacks: they run with the pool locked, so they only note
    // what to do; the loop below does it.
    static bool s_Prefetch(void* self, int start, int end, int section) {
        static_cast<Lister*>(self)->m_pending.emplace_back(start, end, section);
        return true;
    }
    static bool s_Drop(void* self, std::string name) {
        static_cast<Lister*>(self)->m_toDrop.push_back(std::move(name));
        return true;
    }
    std::deque<std::tuple<int, int, int>>& Pending() { return m_pending; }
    int DropReleased() {
        int rc = kExitOk;
        for (const auto& name : m_toDrop)
            if (int r = Drop(name)) rc = r;
        m_toDrop.clear();
        return rc;
    }

private:
    // One message and exit status per reason a list failed (its error code).
    int m_FailList(int code, const std::string& folder) const {
        const std::string shown = CMOXCtlOutput::Printable(folder);
        switch (code) {
            case MOX_ERROR_INVALID_PARAMETER:
                return m_ctx.Fail(kExitNoFolder, shown + " is not a folder below the USB root");
            case MOX_ERROR_NO_SUCH_SOURCE:
                return m_ctx.Fail(kExitFailed, "the engine has no such source (connect first)");
            case MOX_ERROR_SOURCE_CONTRACT:
                return m_ctx.Fail(kExitSourceFailed,
                                  "the source gave a broken answer for " + shown + " (error 32, see the engine's log)");
            case MOX_ERROR_GENERIC:
                return m_ctx.Fail(kExitSourceFailed, "the source failed to list " + shown + " (error 23)");
            default:
                return m_ctx.Fail(kExitSourceRefused,
                                  "the source refused to list " + shown + " (error " + std::to_string(code) + ")");
        }
    }

    Context& m_ctx;
    guint32 m_handle;
    Json::Value m_doc;
    std::set<std::string> m_live;
    std::deque<std::tuple<int, int, int>> m_pending;
    std::vector<std::string> m_toDrop;
};

// What a table row shows of an item.
struct SRow {
    bool bFolder = false;
    int nMediaType = 0;
    bool bHasSize = false;
    double dSize = 0;
    bool bHasTime = false;
    long long llTime = 0;
    bool bHasName = false;
    std::string strName;
};

// Reads a row from a flat JSON object of strings, integers and booleans in
// one pass (what sources answer, 10,000 of them for a folder): a full JSON
// document per item cost more than the rest of the listing. False for any
// other text (nesting, fractions, \u escapes, ...): the caller parses it
// fully then, so the row is the same either way.
bool ReadFlatRow(const std::string& text, SRow& row) {
    const char* p = text.c_str();
    const char* const pEnd = p + text.size();
    auto skip = [&] {
        while (p < pEnd && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r')) ++p;
    };
    auto readString = [&](std::string& out) {
        out.clear();
        for (++p; p < pEnd && *p != '"'; ++p) {
            if (static_cast<unsigned char>(*p) < 0x20) return false;
            if (*p != '\\') {
                out += *p;
                continue;
            }
            if (++p == pEnd) return false;
            switch (*p) {
                case '"': out += '"'; break;
                case '\\': out += '\\'; break;
                case '/': out += '/'; break;
                case 'b': out += '\b'; break;
                case 'f': out += '\f'; break;
                case 'n': out += '\n'; break;
                case 'r': out += '\r'; break;
                case 't': out += '\t'; break;
                default: return false;  // \u and anything else: the full parser
            }
        }
        if (p == pEnd) return false;
        ++p;
        return true;
    };
    skip();
    if (p == pEnd || *p != '{') return false;
    ++p;
    std::string key, value;
    skip();
    if (p < pEnd && *p == '}') {
        ++p;
    } else {
        for (;;) {
            skip();
            if (p == pEnd || *p != '"' || !readString(key)) return false;
            skip();
            if (p == pEnd || *p != ':') return false;
            ++p;
            skip();
            if (p == pEnd) return false;
            if (*p == '"') {
                if (!readString(value)) return false;
                if (key == "FileName") {
                    row.bHasName = true;
                    row.strName = value;
                } else if (key == "FileSize" || key == "FileTime" || key == "IsFolder" || key == "MediaType") {
                    return false;  // shown only when numeric or boolean: let the parser say
                }
            } else if (*p == '-' || (*p >= '0' && *p <= '9')) {
                const char* pNumber = p;
                if (*p == '-') ++p;
                while (p < pEnd && *p >= '0' && *p <= '9') ++p;
                if (p - pNumber > 18 || p == pEnd || *p == '.' || *p == 'e' || *p == 'E') return false;
                const long long llValue = strtoll(pNumber, nullptr, 10);
                if (key == "FileSize") {
                    row.bHasSize = true;
                    row.dSize = static_cast<double>(llValue);
                } else if (key == "FileTime") {
                    row.bHasTime = true;
                    row.llTime = llValue;
                } else if (key == "IsFolder") {
                    if (llValue < INT32_MIN || llValue > INT32_MAX) return false;
                    row.bFolder = llValue != 0;
                } else if (key == "MediaType") {
                    row.nMediaType = llValue >= INT32_MIN && llValue <= INT32_MAX ? static_cast<int>(llValue) : 0;
                } else if (key == "FileName") {
                    return false;
                }
            } else if (pEnd - p >= 4 && (strncmp(p, "true", 4) == 0 || strncmp(p, "null", 4) == 0)) {
                if (key == "IsFolder") row.bFolder = *p == 't';
                if (key == "FileName" || key == "FileSize" || key == "FileTime" || key == "MediaType") return false;
                p += 4;
            } else if (pEnd - p >= 5 && strncmp(p, "false", 5) == 0) {
                if (key == "IsFolder") row.bFolder = false;
                if (key == "FileName" || key == "FileSize" || key == "FileTime" || key == "MediaType") return false;
                p += 5;
            } else {
                return false;  // objects, arrays
            }
            skip();
            if (p == pEnd) return false;
            if (*p == '}') {
                ++p;
                break;
            }
            if (*p != ',') return false;
            ++p;
        }
    }
    skip();
    return p == pEnd && row.bHasName;
}

// Writes items as they come: table rows, or collected for one JSON document.
class ItemPrinter {
public:
    explicit ItemPrinter(bool json) : m_bJson(json), m_items(Json::arrayValue) {}
    void Add(std::string text) {
        // The last item of a data block carries its padding NULs.
        text.erase(text.find_last_not_of('\0') + 1);
        Json::Value item;
        std::string error;
        if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) text = CMOXCtlOutput::Utf8(text);
        SRow row;
        if (!m_bJson && ReadFlatRow(text, row)) {
            if (m_nCount++ == 0) m_Header();
            m_PrintRow(row);
            return;
        }
        if (!CMOXCtlOutput::Parse(text, item, error) || !item.isObject()) {
            item = Json::Value(Json::objectValue);
            item["unparsed"] = CMOXCtlOutput::Utf8(text);
        }
        if (m_nCount++ == 0 && !m_bJson) m_Header();
        if (m_bJson) {
            m_items.append(item);
            return;
        }
        SRow parsed;
        parsed.bFolder = item["IsFolder"].isBool() ? item["IsFolder"].asBool() : IntMember(item, "IsFolder", 0) != 0;
        parsed.nMediaType = IntMember(item, "MediaType", 0);
        parsed.bHasSize = item["FileSize"].isNumeric();
        if (parsed.bHasSize) parsed.dSize = item["FileSize"].asDouble();
        parsed.bHasTime = item["FileTime"].isIntegral();
        if (parsed.bHasTime) parsed.llTime = item["FileTime"].asLargestInt();
        parsed.bHasName = true;
        parsed.strName = item["FileName"].isString() ? item["FileName"].asString() : CompactJson(item);
        m_PrintRow(parsed);
    }
    void Finish(const std::string& folder, int total) {
        if (m_bJson) {
            Json::Value v;
            v["folder"] = folder;
            v["total"] = total;
            v["items"] = m_items;
            CMOXCtlOutput::PrintJson(v);
        } else if (m_nCount == 0) {
            printf("%s is empty.\n", CMOXCtlOutput::Printable(folder).c_str());
        }
        fflush(stdout);
    }
    int Count() const { return m_nCount; }

private:
    static void m_Header() { printf("%-9s %10s  %-16s  %s\n", "TYPE", "SIZE", "MODIFIED", "NAME"); }
    static void m_PrintRow(const SRow& row) {
        std::string type = row.bFolder ? "folder" : MediaTypeName(row.nMediaType);
        std::string size = row.bFolder || !row.bHasSize ? "-" : CMOXCtlOutput::HumanBytes(row.dSize);
        char when[32] = "-";
        if (row.bHasTime) {
            time_t t = static_cast<time_t>(row.llTime);
            struct tm tm {};
            if (localtime_r(&t, &tm)) strftime(when, sizeof when, "%Y-%m-%d %H:%M", &tm);
        }
        printf("%-9s %10s  %-16s  %s\n", type.c_str(), size.c_str(), when,
               CMOXCtlOutput::Printable(row.strName).c_str());
    }

    bool m_bJson;
    Json::Value m_items;
    int m_nCount = 0;
};

int MediaTypeValue(const std::string& type) {
    if (type.empty()) return 0;
    if (type == "photo") return 2;
    if (type == "video") return 3;
    if (type == "music") return 5;
    return -1;
}

}  // namespace

int RunList(Context& ctx, const ListArgs& args) {
    std::string folder = AbsolutePath(args.folder);
    if (!ctx.Utf8Arg("FOLDER", folder) || !ctx.Utf8Arg("--source", args.source)) return kExitUsage;
    int start = 0, end = -1;
    if (!args.range.empty() && !ParseRange(args.range, start, end))
        return ctx.Fail(kExitUsage, "--range wants A-B or A- (item positions from 0), not " + args.range);
    int mediaType = MediaTypeValue(args.type);
    if (mediaType < 0) return ctx.Fail(kExitUsage, "--type wants photo, video or music, not " + args.type);

    SourceSession session(ctx);
    if (int rc = session.Open(args.plugin)) return rc;
    Json::Value doc;
    doc["mox_command"] = "mox_requestlist";
    doc["mox_source"].append(args.source);
    doc["mox_folder_path"] = folder;
    doc["mox_media_type"] = mediaType;
    if (!args.sort.empty()) {
        doc["SortedType"] = args.desc ? 2 : 1;
        doc["SortedKey"] = args.sort;
    }
    Lister lister(ctx, session.Handle(), doc);
    ItemPrinter printer(ctx.out.Json());
    int status = kExitOk;

    // The engine sorts the items of one answer, so a sorted listing or an
    // explicit range is one request; otherwise the folder is read section by
    // section through a result pool, each section dropped once read.
    if (!args.sort.empty() || !args.range.empty()) {
        std::unique_ptr<CResultList> list;
        status = lister.Request(start, end, -1, list);
        if (status == kExitOk && list) {
            for (int i = list->StartIndex(); i <= list->EndIndex(); ++i) {
                std::string item, block;
                int index = -1;
                if (!list->GetItem(i, item, block, index)) {
                    status = ctx.Fail(kExitFailed,
                                      "item " + std::to_string(i) + " of " + list->GetName() + " is unreadable");
                    break;
                }
                printer.Add(item);
                if (i % 256 == 0 && (ctx.bus.Poll(), ctx.bus.Interrupted())) break;
            }
        }
        if (status == kExitOk && !ctx.bus.Interrupted()) printer.Finish(folder, list ? list->GetTotalCount() : 0);
    } else {
        // A window of about two sections around the cursor: sections left
        // behind are dropped as the listing goes on, so a folder of any size
        // holds a few lists at a time (the engine allows 256 per client).
        const int section = std::max(1, args.sectionSize);
        CResultPool pool(std::max(1, 2 * section / 5), section, MOX_PREFETCH_WINDOWED);
        pool.SetCallBack(&Lister::s_Prefetch, &lister, &Lister::s_Drop, &lister);
        std::unique_ptr<CResultList> first;
        status = lister.Request(0, section - 1, 0, first);
        int total = first ? first->GetTotalCount() : 0;
        if (status == kExitOk && first) {
            pool.Push(first.release());
            status = lister.DropReleased();
            mox_error_code_e rc = pool.MoveToIndex(0);
            while (status == kExitOk && rc == MOX_ERROR_NONE) {
                std::string item, block;
                int index = -1;
                if (pool.GetCurrentItem(item, block, index) != MOX_ERROR_NONE) {
                    status = ctx.Fail(kExitFailed, "an item of " + block + " is unreadable");
                    break;
                }
                printer.Add(item);
                if (printer.Count() % 256 == 0 && (ctx.bus.Poll(), ctx.bus.Interrupted())) break;
                rc = pool.MoveToNext();
                status = lister.DropReleased();  // lists the window left behind
                while (rc == MOX_ERROR_NOT_READY && status == kExitOk) {
                    if (lister.Pending().empty()) {
                        status = ctx.Fail(kExitFailed, "the folder changed while it was listed");
                        break;
                    }
                    auto [from, to, s] = lister.Pending().front();
                    lister.Pending().pop_front();
                    std::unique_ptr<CResultList> next;
                    status = lister.Request(from, to, s, next);
                    if (status == kExitOk && !next)
                        status = ctx.Fail(kExitFailed, "the folder changed while it was listed");
                    if (status != kExitOk) break;
                    pool.Push(next.release());
                    status = lister.DropReleased();
                    if (status == kExitOk) rc = pool.MoveToNext();
                }
            }
        }
        if (status == kExitOk && !ctx.bus.Interrupted()) printer.Finish(folder, total);
    }
    int dropped = lister.DropAll();
    if (ctx.bus.Interrupted()) {
        CMOXCtlOutput::Error(ctx.command, "interrupted; every result list was dropped");
        return kExitInterrupted;
    }
    return status != kExitOk ? status : dropped;
}

int RunDetail(Context& ctx, const DetailArgs& args) {
    std::string path = AbsolutePath(args.path);
    if (!ctx.Utf8Arg("PATH", path) || !ctx.Utf8Arg("--source", args.source)) return kExitUsage;
    SourceSession session(ctx);
    if (int rc = session.Open(args.plugin)) return rc;
    Json::Value doc;
    doc["mox_command"] = "mox_requestdetail";
    doc["mox_source"] = args.source;
    doc["FilePath"] = path;
    std::string text = CompactJson(doc), error;
    int code = 0;
    VariantPtr reply =
        ctx.bus.Call("request_detail", g_variant_new("(us)", session.Handle(), text.c_str()), nullptr, error, code);
    if (!reply) return ctx.Fail(code, error);
    Json::Value payload;
    auto w = WaitCompletion(
        ctx.bus, "mox_request_normal_complete", session.Handle(),
        [](int e) { return e >= MOX_EVENT_DETAIL && e <= MOX_EVENT_DETAIL_NOT_FOUND; }, payload);
    if (w != CMOXCtlBus::Wait::kGot) {
        if (w == CMOXCtlBus::Wait::kInterrupted || w == CMOXCtlBus::Wait::kTimeout)
            ctx.bus.Call("request_cancel_detail", g_variant_new("(u)", session.Handle()), nullptr, error, code);
        int rc = CMOXCtlBus::Describe(w, "the detail", error);
        return ctx.Fail(rc, error);
    }
    int event = IntMember(payload, "mox_event_type", MOX_EVENT_DETAIL_FAILED);
    if (event == MOX_EVENT_DETAIL_NOT_FOUND) return ctx.Fail(kExitFailed, "no such item: " + path);
    Json::Value item;
    const Json::Value& result = payload["mox_result_detail_json"];
    if (event != MOX_EVENT_DETAIL || !result.isString() || !CMOXCtlOutput::Parse(result.asString(), item, error) ||
        !item.isObject())
        return ctx.Fail(kExitFailed, "the source " + args.source + " gave no detail of " + path);
    if (ctx.out.Json()) {
        CMOXCtlOutput::PrintJson(item);
    } else {
        for (const auto& key : item.getMemberNames()) {
            const Json::Value& m = item[key];
            std::string value = m.isString() ? m.asString() : CompactJson(m);
            printf("%s: %s\n", CMOXCtlOutput::Printable(key).c_str(), CMOXCtlOutput::Printable(value).c_str());
        }
    }
    return kExitOk;
}

int RunMeta(Context& ctx, const MetaArgs& args) {
    Json::Value doc;
    doc["mox_command"] = "mox_requestmeta";
    const std::pair<const char*, const std::string*> members[] = {{"mox_uuid", &args.uuid},
                                                                  {"mox_accesstoken", &args.token},
                                                                  {"mox_langid", &args.lang},
                                                                  {"mox_countryid", &args.country},
                                                                  {"mox_version", &args.version}};
    for (const auto& [key, value] : members) {
        if (!ctx.Utf8Arg(key, *value)) return kExitUsage;
        if (!value->empty()) doc[key] = *value;
    }
    SourceSession session(ctx);
    if (int rc = session.Open(args.plugin)) return rc;
    std::string text = CompactJson(doc), error;
    int code = 0;
    VariantPtr reply =
        ctx.bus.Call("request_metadata", g_variant_new("(us)", session.Handle(), text.c_str()), nullptr, error, code);
    if (!reply) return ctx.Fail(code, error);
    Json::Value payload;
    auto w = WaitCompletion(
        ctx.bus, "mox_request_metadata", session.Handle(),
        [](int e) { return e == MOX_EVENT_META_DONE || e == MOX_EVENT_META_FAILED; }, payload);
    if (w != CMOXCtlBus::Wait::kGot) {
        int rc = CMOXCtlBus::Describe(w, "the metadata answer", error);
        return ctx.Fail(rc, error);
    }
    if (IntMember(payload, "mox_event_type", MOX_EVENT_META_FAILED) != MOX_EVENT_META_DONE)
        return ctx.Fail(kExitFailed, "the metadata request failed (is the UHD provider installed?)");
    Json::Value result;
    const Json::Value& data = payload["act_command_and_return_data"];
    if (!data.isString() || !CMOXCtlOutput::Parse(data.asString(), result, error))
        result = data.isString() ? Json::Value(data.asString()) : Json::Value();
    if (ctx.out.Json()) {
        CMOXCtlOutput::PrintJson(result);
    } else if (result.isObject()) {
        for (const auto& key : result.getMemberNames()) {
            const Json::Value& m = result[key];
            std::string value = m.isString() ? m.asString() : CompactJson(m);
            printf("%s: %s\n", CMOXCtlOutput::Printable(key).c_str(), CMOXCtlOutput::Printable(value).c_str());
        }
    } else {
        printf("%s\n", CMOXCtlOutput::Printable(CompactJson(result)).c_str());
    }
    return kExitOk;
}

}  // namespace moxctl
