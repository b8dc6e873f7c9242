// The engine in-process, against a recording signal sink: kinds of commands,
// refusals with their failure signals, what source answers become, joined
// requests and cancellation, per-client shares of requests and transfers,
// ownership of work and a client leaving. The bus suites keep one real-bus
// scenario per family of methods.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>
#include <mox/mox_events.h>
#include <mox/mox_resultlist.h>

#include <mox/mox_singleton.h>

#include "cache_pool.h"
#include "mox_bus_text.h"
#include "mox_engine_imp.h"
#include "mox_source_manager.h"
#include "shm_mapping.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct Sent {
    std::string sender;
    std::string signal;
    Json::Value payload;
};

// Records what the engine sends; thread-safe (commands call back on their
// own threads).
class RecordingSink : public IMOXSignalSink {
public:
    void Emit(const connect_info_s& client, const char* szSignal, const std::string& strPayload) override {
        Json::Value payload;
        Json::Reader().parse(strPayload, payload);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sent.push_back({client.sender, szSignal, payload});
        m_cond.notify_all();
    }
    void EmitScannerDone(const connect_info_s& client, uint32_t, uint32_t, uint32_t, const std::string&,
                         const std::string&, const std::string&) override {
        Emit(client, "mox_scanner_done", "{}");
    }
    // The signals sent to `sender`, once there are at least `count`.
    std::vector<Sent> WaitFor(const std::string& sender, size_t count, std::chrono::milliseconds timeout = 10s) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait_for(lock, timeout, [&] { return m_Of(sender).size() >= count; });
        return m_Of(sender);
    }

private:
    std::vector<Sent> m_Of(const std::string& sender) const {
        std::vector<Sent> of;
        for (const Sent& s : m_sent)
            if (s.sender == sender) of.push_back(s);
        return of;
    }
    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::vector<Sent> m_sent;
};

// Data blocks and result lists of this process's engine (named after its
// instance tag, so that daemons of suites running beside it do not count).
// Its lock (mox_lock_TAG) lives as long as the process.
std::vector<std::string> MoxObjects() {
    const std::string tag = "_" + mox_shm::InstanceTag() + "_";
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator("/dev/shm")) {
        const std::string name = entry.path().filename();
        if (name.rfind("mox_", 0) == 0 && name.find(tag) != std::string::npos) names.push_back(name);
    }
    return names;
}

connect_info_s Client(const std::string& sender, uid_t uid) {
    connect_info_s client;
    client.sender = sender;
    client.uid = uid;
    return client;
}

std::string ListDoc(const std::string& extra = "", const std::string& sources = R"(["mox_test_source"])") {
    return R"({"mox_command":"mox_requestlist","mox_source":)" + sources + extra + "}";
}

std::string DetailDoc(const std::string& extra) {
    return R"({"mox_command":"mox_requestdetail","mox_source":"mox_test_source")" + extra + "}";
}

// The file names of a result list's items, in order.
std::vector<std::string> Names(const std::string& name) {
    CResultList list(name);
    EXPECT_TRUE(list.IsLoaded()) << name;
    std::vector<std::string> names;
    for (int i = list.StartIndex(); list.IsLoaded() && i <= list.EndIndex(); ++i) {
        std::string item, block;
        int index = -1;
        EXPECT_TRUE(list.GetItem(i, item, block, index)) << i;
        Json::Value value;
        Json::Reader().parse(item.c_str(), value);
        names.push_back(value["FileName"].asString());
    }
    return names;
}

class EngineImp : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("MOX_PLUGIN_DIR", m_dir.path().c_str(), 1);
        setenv("MOX_USB_ROOT", m_dir.file("usb").c_str(), 1);
        setenv("MOX_LOG_LEVEL", "warning", 1);
        fs::create_directories(m_dir.file("usb"));
        fs::create_symlink(MOX_TEST_SOURCE_SO, m_dir.file("libmox_test_source.so"));
        m_engine = std::make_unique<CMOXEngineImp>(m_sink);
        ASSERT_NE(m_engine->Connect("libmox_test_source.so"), CMOXEngineImp::kInvalidHandle);
    }
    void TearDown() override {
        EXPECT_TRUE(m_engine->WaitIdle(20s));
        m_engine.reset();  // drops the lists nobody dropped
        // As the daemon does at exit: the pool unlinks the blocks it kept.
        CMOXSingleton<CCachePool>::Destroy();
        CMOXSingleton<CMOXSourceMgr>::Destroy();
        EXPECT_EQ(MoxObjects(), std::vector<std::string>());
    }

    // The n-th (1-based) payload sent to `client`, waiting for it.
    Json::Value Nth(const connect_info_s& client, size_t n) {
        std::vector<Sent> sent = m_sink.WaitFor(client.sender, n);
        EXPECT_GE(sent.size(), n) << "no signal #" << n << " for " << client.sender;
        return sent.size() >= n ? sent[n - 1].payload : Json::Value();
    }
    // The signals `client` got, once nothing is running any more.
    size_t SettledCount(const connect_info_s& client) {
        EXPECT_TRUE(m_engine->WaitIdle(20s));
        return m_sink.WaitFor(client.sender, SIZE_MAX, 100ms).size();
    }

    moxtest::TempDir m_dir;
    RecordingSink m_sink;
    std::unique_ptr<CMOXEngineImp> m_engine;
};

// A document of another kind than the method's, or none, never makes a
// command: the method's failure signal with code 23, nothing else happens.
TEST_F(EngineImp, EveryRequestIsAnsweredAndOnlyByItsOwnKind) {
    const connect_info_s c = Client(":1.1", 1000);
    const std::string transfer =
        R"({"mox_command":"mox_file_transfer","mox_source":"mox_ra_source","mox_transfer_id":"x"})";
    const std::string album = R"({"mox_command":"mox_create_album","mox_source":"mox_ra_source","mox_album_path":")" +
                              m_dir.file("usb/album") + "\"}";
    m_engine->GetPartialList(transfer, 1, c);
    m_engine->GetPartialList(album, 2, c);
    m_engine->GetPartialList(R"({"mox_command":"mox_requestlist","mox_source":["\ud800"]})", 3, c);
    m_engine->RequestDetail(ListDoc(), 4, c);
    m_engine->RequestMetadata(transfer, 5, c);
    m_engine->Act(ListDoc(), "", 6, c);
    m_engine->Act("not json", "", 7, c);
    m_engine->EmitRequestFailure(EMOXCommandKind::kDetail, 8, c);
    std::vector<Sent> sent = m_sink.WaitFor(c.sender, 8);
    ASSERT_EQ(sent.size(), 8u);
    const int expected[] = {MOX_EVENT_LIST_FAILED,   MOX_EVENT_LIST_FAILED,  MOX_EVENT_LIST_FAILED,
                            MOX_EVENT_DETAIL_FAILED, MOX_EVENT_META_FAILED,  MOX_EVENT_ACT_FAILED,
                            MOX_EVENT_ACT_FAILED,    MOX_EVENT_DETAIL_FAILED};
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].payload["mox_handle_id"].asUInt(), i + 1);
        EXPECT_EQ(sent[i].payload["mox_event_type"].asInt(), expected[i]) << i;
        EXPECT_EQ(sent[i].payload["mox_error_code"].asInt(), 23) << i;
    }
    EXPECT_EQ(sent[4].signal, "mox_request_metadata");
    EXPECT_FALSE(fs::exists(m_dir.file("usb/album")));
}

// One client's share is below the global bound: its 17th running request is
// refused at once while another client is served; when it leaves its share
// comes back. Requests of one user over several connections share one share;
// root's connections each have their own.
TEST_F(EngineImp, SharesBoundOneClientAndComeBackWhenItLeaves) {
    const connect_info_s hog = Client(":1.2", 1000), sameUser = Client(":1.3", 1000), other = Client(":1.4", 1001);
    const std::string slow = R"(,"test_delay_ms":800,"n":)";
    for (int i = 0; i < 16; ++i) EXPECT_TRUE(m_engine->GetPartialList(ListDoc(slow + std::to_string(i)), 1, hog));
    EXPECT_FALSE(m_engine->GetPartialList(ListDoc(slow + "16"), 1, sameUser));
    // Joining a running job takes no new slot.
    EXPECT_TRUE(m_engine->GetPartialList(ListDoc(slow + "0"), 2, sameUser));
    EXPECT_TRUE(m_engine->GetPartialList(ListDoc(R"(,"other":1)"), 1, other));
    std::vector<Sent> refused = m_sink.WaitFor(sameUser.sender, 1);
    ASSERT_FALSE(refused.empty());
    EXPECT_EQ(refused[0].payload["mox_event_type"].asInt(), MOX_EVENT_LIST_FAILED);
    EXPECT_EQ(refused[0].payload["mox_error_code"].asInt(), 23);
    std::vector<Sent> served = m_sink.WaitFor(other.sender, 1);
    ASSERT_EQ(served.size(), 1u);
    EXPECT_EQ(served[0].payload["mox_event_type"].asInt(), MOX_EVENT_LIST_READY);
    m_engine->DropPartialList(served[0].payload["mox_result_list_block_name"].asString(), 1, other);

    // The hog leaves: nothing more reaches it, its lists go, the share is free.
    m_engine->RemoveClient(hog.sender);
    ASSERT_TRUE(m_engine->WaitIdle(20s));
    EXPECT_TRUE(m_sink.WaitFor(hog.sender, 1, 200ms).empty());
    for (int i = 0; i < 16; ++i)
        EXPECT_TRUE(m_engine->GetPartialList(ListDoc(",\"m\":" + std::to_string(i)), 3, sameUser));
    ASSERT_TRUE(m_engine->WaitIdle(20s));
    // The joined request of the same user got its list too, then 16 more.
    std::vector<Sent> mine = m_sink.WaitFor(sameUser.sender, 18);
    ASSERT_EQ(mine.size(), 18u);
    for (const Sent& s : mine) {
        if (s.payload["mox_event_type"].asInt() != MOX_EVENT_LIST_READY) continue;
        EXPECT_TRUE(m_engine->DropPartialList(s.payload["mox_result_list_block_name"].asString(),
                                              s.payload["mox_handle_id"].asUInt(), sameUser));
    }
}

// Only the client that holds a list may drop it; stop_act names only the
// caller's own transfers unless the caller is root.
TEST_F(EngineImp, WorkBelongsToItsClient) {
    const connect_info_s owner = Client(":1.5", 1000), thief = Client(":1.6", 1001), root = Client(":1.7", 0);
    m_engine->GetPartialList(ListDoc(), 1, owner);
    std::vector<Sent> sent = m_sink.WaitFor(owner.sender, 1);
    ASSERT_EQ(sent.size(), 1u);
    const std::string list = sent[0].payload["mox_result_list_block_name"].asString();
    ASSERT_FALSE(list.empty());
    EXPECT_FALSE(m_engine->DropPartialList(list, 1, thief));
    EXPECT_EQ(m_sink.WaitFor(thief.sender, 1)[0].payload["mox_event_type"].asInt(), MOX_EVENT_DROP_FAILED);
    EXPECT_TRUE(CResultList(list).IsLoaded());
    EXPECT_TRUE(m_engine->DropPartialList(list, 1, owner));

    // A transfer at a source that takes its time: the test source answers
    // Execute only after its delay.
    const std::string stop = R"({"mox_command":"mox_file_transfer","mox_source":"mox_test_source",)"
                             R"("mox_file_transfer_stop":true,"mox_transfer_id":"t1"})";
    m_engine->Act(R"({"mox_command":"mox_file_transfer","mox_source":"mox_test_source","mox_transfer_id":"t1",)"
                  R"("test_delay_ms":1000})",
                  "", 2, owner);
    EXPECT_EQ(m_engine->StopActSync(stop, 9, thief), static_cast<guint32>(MOX_ERROR_INVALID_PARAMETER));
    EXPECT_NE(m_engine->StopActSync(stop, 9, root), static_cast<guint32>(MOX_ERROR_INVALID_PARAMETER));
    EXPECT_NE(m_engine->StopActSync(stop, 2, owner), static_cast<guint32>(MOX_ERROR_INVALID_PARAMETER));
}

// What a source answers becomes the event and code of the answer: its own
// code 6 (or no items) is event 1, other codes event 2; an answer breaking
// the contract is 32, an exception 23; none leaves a list behind. The same
// for details, and a cancelled detail answers nobody.
TEST_F(EngineImp, SourceAnswersBecomeEventsAndCodes) {
    const connect_info_s c = Client(":1.8", 1000);
    std::string many = "[";
    for (int i = 0; i < 10000; ++i) many += (i ? ",\"s" : "\"s") + std::to_string(i) + "\"";
    many += "]";
    const struct {
        std::string doc;
        int event, code;
    } lists[] = {
        {ListDoc(R"(,"test_error":6)"), MOX_EVENT_LIST_SOURCE_ERROR, 6},
        {ListDoc(R"(,"test_item_count":0)"), MOX_EVENT_LIST_SOURCE_ERROR, 6},
        {ListDoc(R"(,"test_error":9)"), MOX_EVENT_LIST_FAILED, 9},
        {ListDoc("", R"(["mox_nobody"])"), MOX_EVENT_LIST_FAILED, 4},
        {ListDoc("", R"("mox_test_source")"), MOX_EVENT_LIST_FAILED, 7},
        {ListDoc("", "[1,2]"), MOX_EVENT_LIST_FAILED, 7},
        {ListDoc("", "[]"), MOX_EVENT_LIST_FAILED, 4},
        {ListDoc("", many), MOX_EVENT_LIST_FAILED, 7},
        {ListDoc(R"(,"test_misbehave":"count_mismatch")"), MOX_EVENT_LIST_FAILED, 32},
        {ListDoc(R"(,"test_misbehave":"overrun")"), MOX_EVENT_LIST_FAILED, 32},
        {ListDoc(R"(,"test_misbehave":"huge_range")"), MOX_EVENT_LIST_FAILED, 32},
        {ListDoc(R"(,"test_misbehave":"extra_bytes")"), MOX_EVENT_LIST_FAILED, 32},
        {ListDoc(R"(,"test_misbehave":"negative_total")"), MOX_EVENT_LIST_FAILED, 32},
        {ListDoc(R"(,"test_misbehave":"negative_length")"), MOX_EVENT_LIST_FAILED, 32},
        {ListDoc(R"(,"test_misbehave":"throw")"), MOX_EVENT_LIST_FAILED, 23},
        {ListDoc(R"(,"test_misbehave":"offset")", R"(["mox_test_source","mox_test_source2"])"), MOX_EVENT_LIST_FAILED,
         23},
    };
    size_t n = 0;
    for (const auto& l : lists) {
        m_engine->GetPartialList(l.doc, 1, c);
        Json::Value ev = Nth(c, ++n);
        EXPECT_EQ(ev["mox_event_type"].asInt(), l.event) << l.doc.substr(0, 120);
        EXPECT_EQ(ev["mox_error_code"].asInt(), l.code) << l.doc.substr(0, 120);
        EXPECT_EQ(ev["mox_result_list_block_name"].asString(), "") << l.doc.substr(0, 120);
    }
    // A single source whose window does not start at 0 is a fine list.
    m_engine->GetPartialList(ListDoc(R"(,"test_misbehave":"offset")"), 1, c);
    const std::string offset = Nth(c, ++n)["mox_result_list_block_name"].asString();
    EXPECT_EQ(CResultList(offset).StartIndex(), 5);
    EXPECT_EQ(CResultList(offset).EndIndex(), 7);
    // Unbalanced drops.
    EXPECT_TRUE(m_engine->DropPartialList(offset, 1, c));
    EXPECT_EQ(Nth(c, ++n)["mox_event_type"].asInt(), MOX_EVENT_LIST_DROPPED);
    for (const std::string& name : {offset, std::string("../../etc/passwd")}) {
        EXPECT_FALSE(m_engine->DropPartialList(name, 1, c));
        EXPECT_EQ(Nth(c, ++n)["mox_event_type"].asInt(), MOX_EVENT_DROP_FAILED);
    }

    // Details: the source's code is the event; a throwing source answers
    // like a refusal; no source at all is event 4. Every failure carries
    // its code, also one the plain detail event stands for (0: none).
    const std::tuple<std::string, int, int> details[] = {
        {DetailDoc(R"(,"test_error":4)"), MOX_EVENT_DETAIL_FAILED, 4},
        {DetailDoc(R"(,"test_error":5)"), MOX_EVENT_DETAIL_NOT_FOUND, 5},
        {DetailDoc(R"(,"test_error":7)"), MOX_EVENT_DETAIL, 7},
        {DetailDoc(""), MOX_EVENT_DETAIL, 0},
        {DetailDoc(R"(,"test_misbehave":"throw")"), MOX_EVENT_DETAIL, MOX_ERROR_GENERIC},
        {R"({"mox_command":"mox_requestdetail"})", MOX_EVENT_DETAIL_FAILED, MOX_ERROR_NO_SUCH_SOURCE}};
    for (const auto& [doc, event, code] : details) {
        m_engine->RequestDetail(doc, 2, c);
        const Json::Value signal = Nth(c, ++n);
        EXPECT_EQ(signal["mox_event_type"].asInt(), event) << doc;
        EXPECT_EQ(signal["mox_error_code"].asInt(), code) << doc;
    }
    EXPECT_EQ(Nth(c, n - 2)["mox_result_detail_json"].asString(), R"({"detail_of":"mox_test_source"})");
    // Cancelled before it completes: no signal; the job still ends.
    m_engine->RequestDetail(DetailDoc(R"(,"test_delay_ms":1000)"), 3, c);
    m_engine->CancelDetail(3, c);
    EXPECT_EQ(SettledCount(c), n);
}

// Requests for the same list share one job: one list, one answer per
// requester under its own handle, dropped by each holder in turn. Leaving a
// shared job answers only the one who left; when nobody waits any more the
// source sees its stop flag at once.
TEST_F(EngineImp, JoinedRequestsShareOneJobAndLeaveItOneByOne) {
    const connect_info_s a = Client(":1.9", 1000), b = Client(":1.10", 1001);
    const std::string slow = ListDoc(R"(,"test_delay_ms":1000)");
    m_engine->GetPartialList(slow, 1, a);
    m_engine->GetPartialList(slow, 2, b);
    m_engine->GetPartialList(slow, 2, b);
    Json::Value ea = Nth(a, 1), eb = Nth(b, 1);
    EXPECT_EQ(SettledCount(b), 1u);
    EXPECT_EQ(ea["mox_handle_id"].asUInt(), 1u);
    EXPECT_EQ(eb["mox_handle_id"].asUInt(), 2u);
    const std::string shared = ea["mox_result_list_block_name"].asString();
    ASSERT_FALSE(shared.empty());
    EXPECT_EQ(eb["mox_result_list_block_name"].asString(), shared);
    EXPECT_TRUE(m_engine->DropPartialList(shared, 1, a));
    EXPECT_EQ(Names(shared).size(), 3u);
    EXPECT_TRUE(m_engine->DropPartialList(shared, 2, b));
    EXPECT_FALSE(CResultList(shared).IsLoaded());
    EXPECT_EQ(Nth(b, 2)["mox_event_type"].asInt(), MOX_EVENT_LIST_DROPPED);

    // A disconnect suppresses only the disconnected requester's answer.
    const std::string slow2 = ListDoc(R"(,"test_delay_ms":1000,"round":2)");
    m_engine->GetPartialList(slow2, 1, a);
    m_engine->GetPartialList(slow2, 2, b);
    m_engine->Disconnect(1, a);
    EXPECT_EQ(Nth(a, 3)["mox_event_type"].asInt(), MOX_EVENT_DISCONNECTED);
    Json::Value answer = Nth(b, 3);
    EXPECT_EQ(answer["mox_event_type"].asInt(), MOX_EVENT_LIST_READY);
    EXPECT_EQ(SettledCount(a), 3u);
    m_engine->DropPartialList(answer["mox_result_list_block_name"].asString(), 2, b);

    // Two handles on one job: one leaving keeps it running, both stop it.
    const std::string sleepy = ListDoc(R"(,"test_delay_ms":30000)");
    m_engine->GetPartialList(sleepy, 5, a);
    m_engine->GetPartialList(sleepy, 6, a);
    m_engine->Disconnect(5, a);
    EXPECT_FALSE(m_engine->WaitIdle(300ms));
    m_engine->Disconnect(6, a);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(m_engine->WaitIdle(5s));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 3s);
    // Only the two disconnect events: a stopped request answers nobody.
    EXPECT_EQ(SettledCount(a), 5u);
    // A client leaving stops what only it waited for, just as fast.
    m_engine->GetPartialList(ListDoc(R"(,"test_delay_ms":30000,"s":3)"), 7, a);
    EXPECT_FALSE(m_engine->WaitIdle(200ms));
    m_engine->RemoveClient(a.sender);
    EXPECT_TRUE(m_engine->WaitIdle(3s));
    EXPECT_EQ(SettledCount(a), 5u);

    // Two sources: the items of the name that sorts first come first, unless
    // an integer key sorts them across both.
    const std::string both = R"(["mox_test_source2","mox_test_source"])";
    m_engine->GetPartialList(ListDoc(R"(,"test_item_count":2)", both), 2, b);
    EXPECT_EQ(Names(Nth(b, 5)["mox_result_list_block_name"].asString()),
              (std::vector<std::string>{"mox_test_source-0", "mox_test_source-1", "mox_test_source2-0",
                                        "mox_test_source2-1"}));
    m_engine->GetPartialList(ListDoc(R"(,"test_item_count":2,"SortedType":1,"SortedKey":"FileTime")", both), 2, b);
    EXPECT_EQ(Names(Nth(b, 6)["mox_result_list_block_name"].asString()),
              (std::vector<std::string>{"mox_test_source-1", "mox_test_source2-1", "mox_test_source-0",
                                        "mox_test_source2-0"}));
}

// A client's file transfers are bounded below its share of jobs, so that
// another client still gets its own; when it leaves, its transfers stop at
// once and the share comes back.
TEST_F(EngineImp, TransfersOfOneClientAreBoundedAndEndWhenItLeaves) {
    const connect_info_s hog = Client(":1.11", 1000), sameUser = Client(":1.12", 1000), other = Client(":1.13", 1001);
    auto transfer = [](const std::string& id, int delayMs) {
        return R"({"mox_command":"mox_file_transfer","mox_source":"mox_test_source","mox_transfer_id":")" + id +
               R"(","test_delay_ms":)" + std::to_string(delayMs) + "}";
    };
    for (int i = 0; i < 8; ++i) EXPECT_TRUE(m_engine->Act(transfer("h" + std::to_string(i), 30000), "", 1, hog)) << i;
    EXPECT_FALSE(m_engine->Act(transfer("h8", 30000), "", 1, hog));
    Json::Value refused = Nth(hog, 1);
    EXPECT_EQ(refused["mox_event_type"].asInt(), MOX_EVENT_ACT_FAILED);
    EXPECT_EQ(refused["mox_error_code"].asInt(), 23);
    EXPECT_TRUE(m_engine->Act(transfer("o", 0), "", 2, other));
    EXPECT_EQ(Nth(other, 2)["mox_event_type"].asInt(), MOX_EVENT_ACT_DONE);

    m_engine->RemoveClient(hog.sender);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(m_engine->WaitIdle(5s));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 3s);
    EXPECT_EQ(SettledCount(hog), 1u);
    for (int i = 0; i < 8; ++i) EXPECT_TRUE(m_engine->Act(transfer("s" + std::to_string(i), 0), "", 3, sameUser)) << i;
}

}  // namespace

// Bus texts: a bad byte or a NUL anywhere (before, inside and after an
// eight-byte word of ASCII) is replaced, and valid multi-byte characters
// that straddle a word are kept; the variant holds exactly the repaired text.
TEST(BusText, EveryInvalidByteIsRepairedWhereverItFalls) {
    const std::string ascii(19, 'a');
    for (size_t at = 0; at < ascii.size(); ++at) {
        for (const std::string& bad : {std::string("\xff"), std::string(1, '\0'), std::string("\xc3")}) {
            std::string text = ascii;
            text.replace(at, 1, bad);
            std::string expected = ascii;
            expected.replace(at, 1, "\xEF\xBF\xBD");
            EXPECT_EQ(mox_bus::ValidUtf8(text, "test"), expected) << at;
            GVariant* value = g_variant_ref_sink(mox_bus::NewString(text, "test"));
            EXPECT_EQ(std::string(g_variant_get_string(value, nullptr)), expected) << at;
            EXPECT_TRUE(g_variant_is_normal_form(value));
            g_variant_unref(value);
        }
        std::string wide = ascii;
        wide.replace(at, 1, "\xe2\x82\xac");  // three bytes, across a word boundary for some `at`
        EXPECT_EQ(mox_bus::ValidUtf8(wide, "test"), wide) << at;
    }
}
