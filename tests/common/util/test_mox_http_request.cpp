// MOXHttpRequest against a real local HTTP server (the test web server of
// tests/support/http_server.h): in-memory and file answers, redirects limited
// to http/https, and a cancel from another thread while the transfer runs.
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <mox/MOXHttpRequest.h>

#include "http_server.h"
#include "temp_dir.h"

namespace {

class Server : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(MOXHttpRequest::GlobalInit());
        moxtest::WriteTextFile(dir.file("a.txt"), std::string(300000, 'a'));
        m_server = std::make_unique<moxtest::HttpServer>(dir.path(), dir.file("port"));
        ASSERT_NE(m_server->port, 0);
    }
    void TearDown() override {
        m_server.reset();
        MOXHttpRequest::GlobalCleanup();
    }
    std::string Url(const std::string& path) { return "http://127.0.0.1:" + std::to_string(m_server->port) + path; }

    moxtest::TempDir dir;
    std::unique_ptr<moxtest::HttpServer> m_server;
};

struct Progress {
    std::atomic<int> calls{0};
    std::atomic<double> last{0};
    static int On(void* pUser, const char* szCommand, double dlNow, double, double, double) {
        auto* p = static_cast<Progress*>(pUser);
        EXPECT_STREQ(szCommand, "cmd");
        p->calls++;
        p->last = dlNow;
        return 0;
    }
    _mox_progress_param Param() {
        _mox_progress_param param;
        param.pfnProgress = On;
        param.pUserData = this;
        param.strCommand = "cmd";
        return param;
    }
};

TEST_F(Server, AnswersInMemoryAndToFile) {
    int nCallbackResult = -1;
    auto cb = [](int nResult, MOXHttpRequest*, void* pArg) { *static_cast<int*>(pArg) = nResult; };
    MOXHttpHeader header;
    header.add("X-Test", "1");
    header.add("X-Bad", "a\r\nInjected: yes");
    header.remove("X-Nothing");
    EXPECT_EQ(header.getSize(), 2);
    MOXHttpRequest get(HTTP_REQUEST_GET, Url("/files/a.txt"), header, "", cb, &nCallbackResult);
    ASSERT_TRUE(get.init());
    EXPECT_EQ(get.execute(), 0);
    EXPECT_EQ(nCallbackResult, 0);
    EXPECT_EQ(get.response().getResponseCode(), 200);
    EXPECT_EQ(get.response().getPayload().size(), 300000u);
    get.setCancel();  // finished: returns at once

    // To a file: the body lands there, not in memory; progress is reported.
    Progress progress;
    _mox_progress_param param = progress.Param();
    MOXHttpRequest toFile(HTTP_REQUEST_GET, Url("/files/a.txt"), MOXHttpHeader(), nullptr, nullptr, dir.file("out.txt"),
                          &param);
    ASSERT_TRUE(toFile.init());
    EXPECT_EQ(param.pRequest, &toFile);
    EXPECT_EQ(toFile.execute(), 0);
    EXPECT_TRUE(toFile.response().getPayload().empty());
    EXPECT_EQ(moxtest::ReadTextFile(dir.file("out.txt")).size(), 300000u);
    EXPECT_GT(progress.calls.load(), 0);
    EXPECT_EQ(progress.last.load(), 300000.0);

    // 404 is an answer, not a transfer failure; other schemes are refused,
    // also behind a redirect.
    MOXHttpRequest missing(HTTP_REQUEST_POST, Url("/nothing"), MOXHttpHeader(), "x=1", nullptr, nullptr);
    ASSERT_TRUE(missing.init());
    EXPECT_EQ(missing.execute(), 0);
    EXPECT_EQ(missing.response().getResponseCode(), 501);  // the test server has no POST
    MOXHttpRequest redirect(HTTP_REQUEST_GET, Url("/redirect/file%3A%2F%2F%2Fetc%2Fpasswd"), MOXHttpHeader(), "",
                            nullptr, nullptr);
    ASSERT_TRUE(redirect.init());
    EXPECT_EQ(redirect.execute(), CURLE_UNSUPPORTED_PROTOCOL);
    EXPECT_TRUE(redirect.response().getPayload().empty());
    MOXHttpRequest file(HTTP_REQUEST_GET, "file:///etc/passwd", MOXHttpHeader(), "", nullptr, nullptr);
    ASSERT_TRUE(file.init());
    EXPECT_EQ(file.execute(), CURLE_UNSUPPORTED_PROTOCOL);
}

TEST_F(Server, CancelFromAnotherThreadEndsTheTransfer) {
    moxtest::WriteTextFile(dir.file("slow.bin"), std::string(1 << 20, 's'));
    Progress progress;
    _mox_progress_param param = progress.Param();
    MOXHttpRequest request(HTTP_REQUEST_GET, Url("/files/slow.bin?chunk=8192&delay_ms=20"), MOXHttpHeader(), nullptr,
                           nullptr, dir.file("slow.out"), &param);
    ASSERT_TRUE(request.init());
    int nResult = -1;
    std::thread worker([&] { nResult = request.execute(); });
    while (progress.last.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    auto start = std::chrono::steady_clock::now();
    request.setCancel();  // returns once the transfer saw it
    worker.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_EQ(nResult, CURLE_ABORTED_BY_CALLBACK);
    double now = 0, total = 0;
    request.getProgressStatus(now, total);
    EXPECT_LT(now, total);
    EXPECT_EQ(total, 1048576.0);
}

}  // namespace
