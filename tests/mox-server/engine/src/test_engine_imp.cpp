// The engine in-process, against a recording signal sink: kinds of commands,
// refusals with their failure signals, per-client shares, ownership of
// transfers and a client leaving. The bus suites keep one real-bus scenario
// per family of methods.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>
#include <mox/mox_events.h>
#include <mox/mox_resultlist.h>

#include <mox/mox_singleton.h>

#include "cache_pool.h"
#include "mox_engine_imp.h"
#include "mox_source_manager.h"
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

std::vector<std::string> MoxObjects() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator("/dev/shm"))
        // Instance locks (mox_lock_T) live as long as their process.
        if (entry.path().filename().string().rfind("mox_", 0) == 0 &&
            entry.path().filename().string().rfind("mox_lock_", 0) != 0)
            names.push_back(entry.path().filename());
    return names;
}

connect_info_s Client(const std::string& sender, uid_t uid) {
    connect_info_s client;
    client.sender = sender;
    client.uid = uid;
    return client;
}

std::string ListDoc(const std::string& extra = "") {
    return R"({"mox_command":"mox_requestlist","mox_source":["mox_test_source"])" + extra + "}";
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

}  // namespace
