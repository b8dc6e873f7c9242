// The log sink and the envelope of the logging macros. Every case logs from a
// forked child, because the sink reads MOX_LOG once per process.
#define MOX_LOG_TAG "MOX-TEST"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <mox/mox_log.h>

#include "temp_dir.h"

namespace {

// Runs body in a child with the given log environment; returns its exit code.
int InChild(const std::string& sink, const std::string& level, const std::function<void()>& body) {
    pid_t pid = fork();
    if (pid == 0) {
        setenv("MOX_LOG", sink.c_str(), 1);
        if (level.empty())
            unsetenv("MOX_LOG_LEVEL");
        else
            setenv("MOX_LOG_LEVEL", level.c_str(), 1);
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

size_t Count(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1)) ++n;
    return n;
}

}  // namespace

TEST(Dlog, EnvelopeOfEveryKind) {
    moxtest::TempDir dir;
    const std::string file = dir.file("log");
    ASSERT_EQ(InChild("file:" + file, "", [] {
                  MOX_DEBUG("plain debug");
                  MOX_TRACE("In CMOXEngineImp::Act()");
                  MOX_INFO("USB MOUNTED : %s", "/opt/storage/usb/sda1");
                  MOX_WARN("usb_device == NULL");
                  MOX_DEBUG("%d%%", 5);
              }),
              0);
    std::string log = moxtest::ReadTextFile(file);
    ASSERT_EQ(Count(log, "\n"), 5u) << log;
    const std::string file_func = "test_dlog.cpp: operator()(";
    EXPECT_EQ(Count(log, file_func), 5u);
    EXPECT_NE(log.find("D/MOX-TEST("), std::string::npos);
    // Debug and trace: no blank between the colour and the bracket.
    EXPECT_NE(log.find("> \033[32m[operator():"), std::string::npos);
    EXPECT_NE(log.find("> \033[33m[operator():"), std::string::npos);
    // Info and warning: exactly one blank, then the level word.
    EXPECT_NE(log.find("> \033[31m [INFO]:[operator():"), std::string::npos);
    EXPECT_NE(log.find("> \033[31m [WARNNING]:[operator():"), std::string::npos);
    EXPECT_NE(log.find("]] USB MOUNTED : /opt/storage/usb/sda1\033[0m\n"), std::string::npos);
    EXPECT_NE(log.find("]] usb_device == NULL\033[0m\n"), std::string::npos);
    EXPECT_NE(log.find("]] 5%\033[0m\n"), std::string::npos);
    EXPECT_NE(log.find("W/MOX-TEST("), std::string::npos);
    EXPECT_NE(log.find("I/MOX-TEST("), std::string::npos);
}

TEST(Dlog, KernelThreadIdsDifferPerThread) {
    moxtest::TempDir dir;
    const std::string file = dir.file("log");
    ASSERT_EQ(InChild("file:" + file, "", [] {
                  MOX_INFO("main thread");
                  std::thread t([] { MOX_INFO("worker thread"); });
                  t.join();
              }),
              0);
    std::string log = moxtest::ReadTextFile(file);
    auto tidOf = [&](const std::string& body) {
        size_t end = log.find("]] " + body);
        size_t start = log.rfind("[Thread Id:[", end);
        return log.substr(start + 12, end - start - 12);
    };
    EXPECT_NE(tidOf("main thread"), tidOf("worker thread"));
    EXPECT_FALSE(tidOf("worker thread").empty());
}

TEST(Dlog, LevelFilterAndLongLines) {
    moxtest::TempDir dir;
    const std::string file = dir.file("log");
    ASSERT_EQ(InChild("file:" + file, "warning", [] {
                  MOX_DEBUG("dropped debug");
                  MOX_INFO("dropped info");
                  MOX_TRACE("dropped trace");
                  MOX_WARN("kept %s", std::string(5000, 'x').c_str());
              }),
              0);
    std::string log = moxtest::ReadTextFile(file);
    EXPECT_EQ(log.find("dropped"), std::string::npos);
    EXPECT_NE(log.find("kept " + std::string(5000, 'x') + "\033[0m\n"), std::string::npos);

    const std::string file2 = dir.file("log2");
    ASSERT_EQ(InChild("file:" + file2, "info", [] {
                  MOX_DEBUG("dropped debug");
                  MOX_INFO("kept info");
              }),
              0);
    std::string log2 = moxtest::ReadTextFile(file2);
    EXPECT_EQ(log2.find("dropped"), std::string::npos);
    EXPECT_NE(log2.find("kept info"), std::string::npos);
}

TEST(Dlog, ConcurrentWritersNeverInterleaveLines) {
    moxtest::TempDir dir;
    const std::string file = dir.file("log");
    auto writer = [] {
        std::thread threads[4];
        for (auto& t : threads)
            t = std::thread([] {
                for (int i = 0; i < 200; ++i) MOX_INFO("line %d %s", i, std::string(300, 'y').c_str());
            });
        for (auto& t : threads) t.join();
    };
    pid_t a = fork();
    if (a == 0) _exit(InChild("file:" + file, "", writer));
    ASSERT_EQ(InChild("file:" + file, "", writer), 0);
    int status = 0;
    waitpid(a, &status, 0);
    std::string log = moxtest::ReadTextFile(file);
    EXPECT_EQ(Count(log, "\n"), 1600u);
    EXPECT_EQ(Count(log, std::string(300, 'y') + "\033[0m\n"), 1600u);
}

TEST(Dlog, UnusableFileFallsBackToStderr) {
    // A log file that cannot be opened must not take the process down.
    EXPECT_EQ(InChild("file:/nonexistent-dir/x/log", "", [] { MOX_WARN("still alive"); }), 0);
    EXPECT_EQ(InChild("bogus-sink", "", [] { MOX_WARN("still alive"); }), 0);
}
