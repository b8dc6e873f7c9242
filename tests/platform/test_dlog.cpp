// The log sink and the envelope of the logging macros. Every case logs from a
// forked child, because the sink reads MOX_LOG once per process.
#define MOX_LOG_TAG "MOX-TEST"

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>

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

// Process and thread id of the line that ends with body:
// "W/MOX-TEST(<pid>): ... [Thread Id:[<tid>]] <body>"
std::pair<std::string, std::string> Ids(const std::string& log, const std::string& body) {
    size_t end = log.find("]] " + body);
    size_t pid = log.rfind("/MOX-TEST(", end) + 10;
    size_t tid = log.rfind("[Thread Id:[", end) + 12;
    if (end == std::string::npos || pid < 10 || tid < 12) return {};
    return {log.substr(pid, log.find(')', pid) - pid), log.substr(tid, end - tid)};
}

size_t Count(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1)) ++n;
    return n;
}

}  // namespace

TEST(Dlog, EnvelopeLevelsAndThreadIds) {
    moxtest::TempDir dir;
    const std::string file = dir.file("log");
    ASSERT_EQ(InChild("file:" + file, "debug",
                      [] {
                          MOX_DEBUG("%d%%", 5);
                          MOX_INFO("main thread");
                          std::thread t([] { MOX_WARN("worker thread"); });
                          t.join();
                      }),
              0);
    std::string log = moxtest::ReadTextFile(file);
    ASSERT_EQ(Count(log, "\n"), 3u) << log;
    EXPECT_EQ(Count(log, "test_dlog.cpp: operator()("), 3u);
    // A file gets the plain text: the colour escapes are left out. Debug: the
    // bracket follows the prompt; info and warning: one blank (where the
    // colour was) and one before the level word.
    EXPECT_EQ(log.find('\033'), std::string::npos);
    EXPECT_NE(log.find("D/MOX-TEST("), std::string::npos);
    EXPECT_NE(log.find("> [operator():"), std::string::npos);
    EXPECT_NE(log.find("]] 5%\n"), std::string::npos);
    EXPECT_NE(log.find(">  [INFO]:[operator():"), std::string::npos);
    EXPECT_NE(log.find("W/MOX-TEST("), std::string::npos);
    EXPECT_NE(log.find(">  [WARNNING]:[operator():"), std::string::npos);
    EXPECT_NE(Ids(log, "main thread").second, Ids(log, "worker thread").second);
    EXPECT_FALSE(Ids(log, "worker thread").second.empty());

    // A log file that cannot be opened must not take the process down.
    EXPECT_EQ(InChild("file:/nonexistent-dir/x/log", "", [] { MOX_WARN("still alive"); }), 0);
    EXPECT_EQ(InChild("bogus-sink", "", [] { MOX_WARN("still alive"); }), 0);
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
    EXPECT_EQ(Count(log, std::string(300, 'y') + "\n"), 1600u);
}

TEST(Dlog, FilteredLinesEvaluateNothingAndIdsFollowFork) {
    moxtest::TempDir dir;
    const std::string file = dir.file("log");
    ASSERT_EQ(InChild("file:" + file, "warning",
                      [] {
                          int nEvaluated = 0;
                          auto arg = [&nEvaluated] { return ++nEvaluated; };
                          // Filtered out: worth 0, arguments untouched.
                          if (MOX_DEBUG("dropped %d", arg()) != 0 || MOX_INFO("dropped %d", arg()) != 0) _exit(3);
                          MOX_TRACE("dropped %d", arg());
                          if (nEvaluated != 0) _exit(4);
                          // Long lines are written, cut at 4 KiB.
                          if (MOX_WARN("parent line %d %s", arg(), std::string(5000, 'x').c_str()) <= 0) _exit(5);
                          if (nEvaluated != 1) _exit(5);
                          // The cached ids are the parent's; a forked child prints its own.
                          pid_t child = fork();
                          if (child == 0) {
                              MOX_WARN("child line");
                              _exit(0);
                          }
                          waitpid(child, nullptr, 0);
                      }),
              0);
    const std::string log = moxtest::ReadTextFile(file);
    ASSERT_EQ(Count(log, "\n"), 2u) << log;
    EXPECT_NE(log.find("]] parent line 1 " + std::string(3900, 'x')), std::string::npos);
    EXPECT_NE(log.find("x...("), std::string::npos);
    const auto parent = Ids(log, "parent line 1");
    const auto child = Ids(log, "child line");
    EXPECT_NE(parent.first, child.first) << log;
    EXPECT_EQ(child.first, child.second) << log;
}

TEST(Dlog, ColourOnlyOnATerminal) {
    int master = -1, slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) GTEST_SKIP() << "no pseudo-terminal";
    pid_t pid = fork();
    if (pid == 0) {
        close(master);
        dup2(slave, STDERR_FILENO);
        setenv("MOX_LOG", "stderr", 1);
        unsetenv("MOX_LOG_LEVEL");
        MOX_INFO("on a terminal");
        _exit(0);
    }
    close(slave);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::string text(4096, '\0');
    ssize_t n = read(master, &text[0], text.size());  // the child has exited: its line is there
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    close(master);
    EXPECT_NE(text.find("> \033[31m [INFO]:[TestBody:"), std::string::npos) << text;
    EXPECT_NE(text.find("]] on a terminal\033[0m"), std::string::npos) << text;

    // Escapes a body carries itself are plain text's business too.
    moxtest::TempDir dir;
    const std::string file = dir.file("log");
    ASSERT_EQ(InChild("file:" + file, "", [] { MOX_WARN("%s", "a\033[1;31mb\033[0m\033[m\033[c\033\033[12\033["); }),
              0);
    EXPECT_NE(moxtest::ReadTextFile(file).find("]] ab\033[c\033\033[12\033[\n"), std::string::npos);
}
