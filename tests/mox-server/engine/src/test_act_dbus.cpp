// Actions and file transfers end to end: the real daemon with the real
// transfer source on a private bus, real HTTP and HTTPS servers (certificates
// made by openssl here), real files below a temporary USB root.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>
#include <mox/mox_events.h>

#include "bus_client.h"
#include "http_server.h"

using moxtest::BusClient;
using moxtest::CallResult;
using moxtest::EngineHarness;
using moxtest::HttpServer;
using moxtest::ReadTextFile;
using moxtest::SignalCollector;
namespace fs = std::filesystem;

namespace {

constexpr const char* kSignal = "mox_request_normal_complete";

using moxtest::Parse;

std::string Quote(const std::string& text) {
    return Json::valueToQuotedString(text.c_str());
}

void WriteBytes(const std::string& path, size_t size, char seed) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(seed + i * 7 + i / 4096);
    moxtest::WriteTextFile(path, data);
}

// Names in a folder that a failed transfer must not leave behind.
std::vector<std::string> Leftovers(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir))
        if (entry.path().filename().string().rfind(".mox-transfer-", 0) == 0) names.push_back(entry.path());
    return names;
}

// A port with nobody listening: bound, then released.
int RefusingPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    socklen_t len = sizeof(addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

class Acts : public ::testing::Test {
protected:
    void SetUp() override {
        h.InstallPlugin(MOX_RA_SOURCE_SO);
        h.InstallPlugin(MOX_TEST_SOURCE_SO);
        // A CA that the engine trusts, a server certificate it signed, and a
        // self-signed certificate that nobody trusts.
        const std::string d = h.Path("");
        const std::string cmd =
            "cd " + d +
            " && printf 'subjectAltName=IP:127.0.0.1\\n' > san.ext && "
            "openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj /CN=moxca && "
            "openssl req -newkey rsa:2048 -nodes -keyout srv.key -out srv.csr -subj /CN=127.0.0.1 && "
            "openssl x509 -req -in srv.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out srv.pem -days 2 "
            "-extfile san.ext && "
            "openssl req -x509 -newkey rsa:2048 -nodes -keyout bad.key -out bad.pem -days 2 -subj /CN=127.0.0.1 "
            "-addext subjectAltName=IP:127.0.0.1) >/dev/null 2>&1";
        ASSERT_EQ(system(("(" + cmd).c_str()), 0);
        h.SetEnv("MOX_CA_BUNDLE", h.Path("ca.pem"));
        fs::create_directories(h.Path("www"));
        fs::create_directories(h.UsbRoot() + "/sda1");
        fs::create_directories(h.UsbRoot() + "/sdb1");
        ASSERT_TRUE(h.Start());
        m_client = std::make_unique<BusClient>(h);
        m_signals = &m_client->signals();
        m_handle = m_client->Connect("libmox_test_source.so");
    }
    void TearDown() override {
        m_client.reset();
        EXPECT_EQ(h.Stop(), 0) << h.Output();
    }

    std::string Doc(const std::string& id, const std::string& src, const std::string& dst,
                    const std::string& extra = "") {
        return R"({"mox_command":"mox_file_transfer","mox_source":"mox_ra_source","mox_act_request_times":"t-)" + id +
               R"(","mox_transfer_id":)" + Quote(id) + R"(,"mox_transfer_src":)" + Quote(src) +
               R"(,"mox_transfer_dst":)" + Quote(dst) + extra + "}";
    }
    void Act(const std::string& doc) {
        m_client->Call("request_act", g_variant_new("(uss)", m_handle, "", doc.c_str()));
    }
    guint32 StopAct(const std::string& doc) {
        CallResult r = m_client->Call("stop_act", g_variant_new("(us)", m_handle, doc.c_str()));
        guint32 code = 12345;
        if (r.ok()) g_variant_get(r.reply.get(), "(u)", &code);
        return code;
    }
    // The act signals (progress and final) whose document carries `id`.
    std::vector<Json::Value> Events(const std::string& id) {
        std::vector<Json::Value> events;
        for (const auto* s : m_signals->Named(kSignal)) {
            Json::Value ev = Parse(s->text());
            if (Parse(ev["act_command_and_return_data"].asString())["mox_transfer_id"].asString() == id)
                events.push_back(ev);
        }
        return events;
    }
    // Waits for the final signal of transfer `id`.
    Json::Value Final(const std::string& id, int seconds = 20) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < deadline) {
            for (const auto& ev : Events(id))
                if (ev["mox_file_transfer_signal"].asInt() == 0) return ev;
            m_signals->WaitFor(kSignal, m_signals->Named(kSignal).size() + 1, std::chrono::milliseconds(200));
        }
        ADD_FAILURE() << "no final signal for " << id;
        return Json::Value();
    }
    // Starts a transfer and waits for its final code.
    int Run(const std::string& id, const std::string& src, const std::string& dst, const std::string& extra = "") {
        Act(Doc(id, src, dst, extra));
        return Final(id)["mox_error_code"].asInt();
    }

    EngineHarness h;
    std::unique_ptr<BusClient> m_client;
    SignalCollector* m_signals = nullptr;
    guint32 m_handle = 0;
};

TEST_F(Acts, CopyAndDownloadReportProgressAndFinishInPlace) {
    const std::string usb = h.UsbRoot();
    WriteBytes(usb + "/sda1/photo.jpg", 3 << 20, 'p');
    WriteBytes(h.Path("www/big.bin"), 2 << 20, 'd');
    HttpServer https(h.Path("www"), h.Path("https.port"), h.Path("srv.pem"), h.Path("srv.key"));
    ASSERT_NE(https.port, 0);

    // A copy between storages: event 6, code 0.
    EXPECT_EQ(Run("copy", usb + "/sda1/photo.jpg", usb + "/sdb1/photo.jpg"), 0);
    EXPECT_EQ(ReadTextFile(usb + "/sdb1/photo.jpg"), ReadTextFile(usb + "/sda1/photo.jpg"));
    EXPECT_EQ(Final("copy")["mox_event_type"].asInt(), 6);

    // A slow download (about 1.6 s): several reports at least 300 ms apart,
    // growing, then the finishing one and the final signal.
    auto start = std::chrono::steady_clock::now();
    std::string url = "https://127.0.0.1:" + std::to_string(https.port) + "/files/big.bin?chunk=65536&delay_ms=50";
    EXPECT_EQ(Run("dl", url, usb + "/sdb1/big.bin"), 0);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(ReadTextFile(usb + "/sdb1/big.bin"), ReadTextFile(h.Path("www/big.bin")));
    auto events = Events("dl");
    ASSERT_GE(events.size(), 4u);
    double previous = -1;
    size_t unfinished = 0;
    for (size_t i = 0; i + 1 < events.size(); ++i) {
        EXPECT_EQ(events[i]["mox_event_type"].asInt(), 12);
        Json::Value progress = Parse(events[i]["mox_file_transter_data"].asString());
        double now = progress["mox_file_transter_dlnow"].asDouble();
        EXPECT_GE(now, previous);
        previous = now;
        if (now != progress["mox_file_transter_dltotal"].asDouble()) ++unfinished;
    }
    EXPECT_EQ(previous, 2.0 * (1 << 20));
    // The rate limit: reports short of the total at most one per 300 ms;
    // those that complete it always come.
    EXPECT_GE(unfinished, 2u);
    EXPECT_LE(unfinished, static_cast<size_t>(seconds / 0.3) + 1) << seconds;
    EXPECT_TRUE(Leftovers(usb + "/sdb1").empty());
}

TEST_F(Acts, StopEndsTransferWithoutDestinationAndStopActReplies) {
    WriteBytes(h.Path("www/slow.bin"), 4 << 20, 's');
    HttpServer http(h.Path("www"), h.Path("http.port"));
    ASSERT_NE(http.port, 0);
    const std::string dst = h.UsbRoot() + "/sdb1/slow.bin";
    std::string url = "http://127.0.0.1:" + std::to_string(http.port) + "/files/slow.bin?chunk=32768&delay_ms=50";
    Act(Doc("slow", url, dst));
    ASSERT_TRUE(m_signals->WaitFor(kSignal, 1));  // first progress: it is under way
    EXPECT_EQ(Events("slow").at(0)["mox_event_type"].asInt(), 12);

    const std::string stop = R"({"mox_command":"mox_file_transfer","mox_source":"mox_ra_source",)"
                             R"("mox_file_transfer_stop":true,"mox_transfer_id":)";
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(StopAct(stop + R"("slow"})"), 0u);
    Json::Value end = Final("slow");
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(3));
    EXPECT_EQ(end["mox_event_type"].asInt(), 7);
    EXPECT_EQ(end["mox_error_code"].asInt(), 9);
    EXPECT_FALSE(fs::exists(dst));
    EXPECT_TRUE(Leftovers(h.UsbRoot() + "/sdb1").empty());

    // Unknown id, no stop member, no id: 7. Not a transfer, or no command: 23.
    const std::string ra = R"({"mox_command":"mox_file_transfer","mox_source":"mox_ra_source",)";
    const std::pair<std::string, guint32> stops[] = {
        {stop + R"("nobody"})", 7u},
        {ra + R"("mox_transfer_id":"x"})", 7u},
        {ra + R"("mox_file_transfer_stop":true})", 7u},
        {R"({"mox_command":"mox_setlike","mox_file_transfer_stop":true})", 23u},
        {R"({"mox_command":"nothing"})", 23u},
        {"not json at all", 23u}};
    for (const auto& [doc, code] : stops) EXPECT_EQ(StopAct(doc), code) << doc;

    // A source that cannot execute completes at once: one finishing report, then 6.
    Act(R"({"mox_command":"mox_file_transfer","mox_source":"mox_test_source","mox_transfer_id":"d"})");
    EXPECT_EQ(Final("d")["mox_event_type"].asInt(), 6);
    ASSERT_EQ(Events("d").size(), 2u);
    EXPECT_EQ(Events("d")[0]["mox_event_type"].asInt(), 12);
}

TEST_F(Acts, BadInputEndsWithCodeAndLeavesNothingHalfWritten) {
    const std::string usb = h.UsbRoot();
    WriteBytes(h.Path("www/f.bin"), 100000, 'f');
    WriteBytes(usb + "/sda1/a.jpg", 5000, 'a');
    WriteBytes(usb + "/sdb1/keep.jpg", 10, 'k');
    WriteBytes(h.Path("secret"), 10, 's');
    fs::create_symlink(h.Path("secret"), usb + "/sda1/link.jpg");
    fs::create_symlink(h.Path(""), usb + "/sda1/out");
    HttpServer http(h.Path("www"), h.Path("http.port"));
    HttpServer https(h.Path("www"), h.Path("https.port"), h.Path("srv.pem"), h.Path("srv.key"));
    HttpServer untrusted(h.Path("www"), h.Path("bad.port"), h.Path("bad.pem"), h.Path("bad.key"));
    ASSERT_TRUE(http.port && https.port && untrusted.port);
    auto at = [](int port, const std::string& path, bool tls = false) {
        return std::string(tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(port) + path;
    };
    const std::string dst = usb + "/sdb1/new.bin";

    // Untrusted TLS, HTTP errors, refused connections and redirects to other
    // schemes end the transfer; nothing outside the USB root is read or
    // written, links included.
    const struct {
        const char* id;
        std::string src, dst;
        int code;
    } failures[] = {
        {"tls", at(untrusted.port, "/files/f.bin", true), dst, 13},
        {"404", at(https.port, "/files/missing", true), dst, 12},
        {"refused", at(RefusingPort(), "/files/f.bin"), dst, 13},
        {"ftp", at(http.port, "/redirect/ftp%3A%2F%2F127.0.0.1%2Ff.bin"), dst, 13},
        {"file", at(http.port, "/redirect/file%3A%2F%2F%2Fetc%2Fpasswd"), dst, 13},
        {"scheme", "file:///etc/passwd", dst, 7},
        {"etc", "/etc/passwd", dst, 7},
        {"link", usb + "/sda1/link.jpg", dst, 7},
        {"dotdot", usb + "/sda1/../../secret", dst, 7},
        {"outdst", usb + "/sda1/a.jpg", "/tmp/mox-act-escape.jpg", 7},
        {"linkdst", usb + "/sda1/a.jpg", usb + "/sda1/out/escaped.jpg", 7},
        {"missing", usb + "/sda1/none.jpg", dst, 11},
    };
    for (const auto& f : failures) EXPECT_EQ(Run(f.id, f.src, f.dst), f.code) << f.id;
    EXPECT_FALSE(fs::exists(h.Path("escaped.jpg")));
    EXPECT_FALSE(fs::exists("/tmp/mox-act-escape.jpg"));
    EXPECT_FALSE(fs::exists(dst));

    // An existing destination stays unless overwriting is asked for.
    EXPECT_EQ(Run("exists", usb + "/sda1/a.jpg", usb + "/sdb1/keep.jpg"), 10);
    EXPECT_EQ(fs::file_size(usb + "/sdb1/keep.jpg"), 10u);
    EXPECT_EQ(Run("overwrite", usb + "/sda1/a.jpg", usb + "/sdb1/keep.jpg", R"(,"mox_transfer_overwrite":true)"), 0);
    EXPECT_EQ(fs::file_size(usb + "/sdb1/keep.jpg"), 5000u);
    EXPECT_EQ(Run("badflag", usb + "/sda1/a.jpg", dst, R"(,"mox_transfer_overwrite":"yes")"), 7);

    // Two transfers to one destination: the second is refused, the first ends well.
    Act(Doc("one", at(http.port, "/files/f.bin?chunk=4096&delay_ms=20"), dst));
    for (int i = 0; i < 100 && Events("one").empty(); ++i) m_signals->Drain(std::chrono::milliseconds(50));
    ASSERT_FALSE(Events("one").empty());
    Act(Doc("two", usb + "/sda1/a.jpg", usb + "/sdb1/../sdb1/new.bin"));
    EXPECT_EQ(Final("two")["mox_error_code"].asInt(), 15);
    EXPECT_EQ(Final("one")["mox_error_code"].asInt(), 0);
    EXPECT_EQ(fs::file_size(dst), 100000u);

    // Normal actions, and documents no command can be made of.
    auto actCode = [&](const std::string& doc) {
        size_t n = m_signals->Named(kSignal).size();
        Act(doc);
        EXPECT_TRUE(m_signals->WaitFor(kSignal, n + 1)) << doc;
        auto all = m_signals->Named(kSignal);
        Json::Value ev = all.size() > n ? Parse(all[n]->text()) : Json::Value();
        EXPECT_EQ(ev["mox_event_type"].asInt(), ev["mox_error_code"].asInt() == 0 ? 6 : 7) << doc;
        return ev["mox_error_code"].asInt();
    };
    const std::string ra = R"({"mox_source":"mox_ra_source","mox_command":)";
    const std::pair<std::string, int> acts[] = {
        {ra + R"("mox_create_album","mox_album_path":")" + usb + "/sdb1/Album\"}", 0},
        {ra + R"("mox_create_album","mox_album_path":")" + usb + "/sda1/out/x\"}", 7},
        {ra + R"("mox_setlike"})", 16},
        {R"({"mox_command":"mox_setlike","mox_source":"no_such_source"})", 4},
        {"{not json", 23},
        {ra + R"("mox_file_transfer","mox_file_transfer_stop":true})", 7}};
    for (const auto& [doc, code] : acts) EXPECT_EQ(actCode(doc), code) << doc;
    EXPECT_TRUE(fs::is_directory(usb + "/sdb1/Album"));
    EXPECT_FALSE(fs::exists(h.Path("x")));
    EXPECT_TRUE(Leftovers(usb + "/sdb1").empty());
    EXPECT_TRUE(h.Call("start_server", nullptr).ok());
}

// A client that leaves the bus has its transfers stopped at the source, so
// that their ids are free there again. (The per-client bound of transfers,
// and their stop on leaving, in-process in test_engine_imp.)
TEST_F(Acts, TransfersOfAClientThatLeavesStopAtTheSource) {
    const std::string usb = h.UsbRoot();
    WriteBytes(h.Path("www/slow.bin"), 4 << 20, 's');
    HttpServer http(h.Path("www"), h.Path("http.port"));
    ASSERT_NE(http.port, 0);
    const std::string url = "http://127.0.0.1:" + std::to_string(http.port) + "/files/slow.bin?chunk=32768&delay_ms=50";
    auto slow = [&](int i) {
        return Doc("slow" + std::to_string(i), url, usb + "/sdb1/slow" + std::to_string(i) + ".bin");
    };
    BusClient hog(h);
    hog.Call("request_act", g_variant_new("(uss)", m_handle, "", slow(0).c_str()));
    ASSERT_TRUE(hog.signals().WaitFor(kSignal, 1));  // under way

    // The hog leaves: its transfer stops, so its id is free again.
    hog.Close();
    // Until the source has let go of the hog's id, a transfer under it is
    // refused with 15; then it runs (first event: progress).
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    int first = -1;
    while (std::chrono::steady_clock::now() < deadline && first != MOX_EVENT_ACT_PROGRESS) {
        size_t seen = Events("slow0").size();
        Act(slow(0));
        while (Events("slow0").size() == seen && std::chrono::steady_clock::now() < deadline)
            m_signals->Drain(std::chrono::milliseconds(50));
        if (Events("slow0").size() > seen) first = Events("slow0")[seen]["mox_event_type"].asInt();
        if (first != MOX_EVENT_ACT_PROGRESS) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    ASSERT_EQ(first, MOX_EVENT_ACT_PROGRESS);
    const std::string stop = R"({"mox_command":"mox_file_transfer","mox_source":"mox_ra_source",)"
                             R"("mox_file_transfer_stop":true,"mox_transfer_id":"slow0"})";
    EXPECT_EQ(StopAct(stop), 0u);
    int code = -1;
    for (int i = 0; i < 200 && code != 9; ++i) {
        for (const auto& ev : Events("slow0"))
            if (ev["mox_file_transfer_signal"].asInt() == 0) code = ev["mox_error_code"].asInt();
        m_signals->Drain(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(code, 9);
}

}  // namespace
