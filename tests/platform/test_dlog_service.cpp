// The log sink: the envelope of the logging macros, levels and thread ids,
// concurrent writers, colour; and the log as a service's log: default levels,
// one event per line, the 4 KiB cut, masked credentials, and the journal's
// fields and its absence. Each case logs from a forked child, because the sink
// reads its settings once per process.
#define MOX_LOG_TAG "MOX-TEST"

#include <fcntl.h>
#include <pty.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <mox/mox_log.h>

#include "temp_dir.h"

namespace {

// Runs body in a child with exactly these log variables set (the others
// unset); returns its exit code.
int InChild(const std::map<std::string, std::string>& env, const std::function<void()>& body) {
    pid_t pid = fork();
    if (pid == 0) {
        for (const char* name : {"MOX_LOG", "MOX_LOG_LEVEL", "INVOCATION_ID", "JOURNAL_STREAM"}) unsetenv(name);
        for (const auto& [name, value] : env) setenv(name.c_str(), value.c_str(), 1);
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

// Process and thread id of the line that ends with body:
// "W/MOX-TEST(<pid>): ... [Thread Id:[<tid>]] <body>"
std::pair<std::string, std::string> Ids(const std::string& log, const std::string& body) {
    size_t end = log.find("]] " + body);
    size_t pid = log.rfind("/MOX-TEST(", end) + 10;
    size_t tid = log.rfind("[Thread Id:[", end) + 12;
    if (end == std::string::npos || pid < 10 || tid < 12) return {};
    return {log.substr(pid, log.find(')', pid) - pid), log.substr(tid, end - tid)};
}

constexpr int kJournalLine = __LINE__ + 2;
void LogThree() {
    MOX_WARN("to the journal\nand on");
    MOX_WARN("second");
    MOX_WARN("third");
}

void LogEachLevel() {
    MOX_DEBUG("at debug");
    MOX_TRACE("at trace");
    MOX_INFO("at info");
    MOX_WARN("at warning");
}

}  // namespace

TEST(DlogService, DefaultLevelsByHand_UnderSystemdAndAsAsked) {
    moxtest::TempDir dir;
    struct Case {
        std::map<std::string, std::string> env;
        const char* expected;  // d(ebug) t(race) i(nfo) w(arning) written
    } cases[] = {
        {{}, "iw"},
        {{{"INVOCATION_ID", "1"}}, "w"},
        {{{"JOURNAL_STREAM", "8:9"}, {"MOX_LOG_LEVEL", "info"}}, "iw"},
        {{{"INVOCATION_ID", "1"}, {"MOX_LOG_LEVEL", "debug"}}, "dtiw"},
        {{{"MOX_LOG_LEVEL", "bogus"}}, "iw"},
    };
    int n = 0;
    for (auto& c : cases) {
        const std::string file = dir.file("log" + std::to_string(n++));
        c.env["MOX_LOG"] = "file:" + file;
        ASSERT_EQ(InChild(c.env, LogEachLevel), 0);
        const std::string log = moxtest::ReadTextFile(file);
        std::string written;
        if (log.find("]] at debug\n") != std::string::npos) written += 'd';
        if (log.find("]] at trace\n") != std::string::npos) written += 't';
        if (log.find("]] at info\n") != std::string::npos) written += 'i';
        if (log.find("]] at warning\n") != std::string::npos) written += 'w';
        EXPECT_EQ(written, c.expected) << log;
    }
}

TEST(DlogService, OneLinePerEventCutAt4KiBCredentialsMasked) {
    moxtest::TempDir dir;
    const std::string file = dir.file("log");
    ASSERT_EQ(InChild({{"MOX_LOG", "file:" + file}},
                      [] {
                          MOX_INFO("first\nsecond\r\nthird\n");
                          MOX_INFO("styled %s", "{\n   \"a\" : 1,\n   \"b\" : 2\n}\n");
                          MOX_WARN("big %s|", std::string(10000, 'x').c_str());
                          // Multi-byte characters are never cut in half.
                          std::string wide;
                          for (int i = 0; i < 3000; ++i) wide += "\xc3\xa9";
                          MOX_WARN("%s", wide.c_str());
                          MOX_INFO("doc %s",
                                   "{\"mox_accesstoken\":\"abc123\",\"x_Password\" : \"pw\\\"x\",\"cookieJar\": 5, "
                                   "\"Authorization\": {\"k\":\"v\"}, \"name\":\"keep\", \"secretive\": \"\"}");
                          // A document quoted inside a text (bus arguments), and one cut short.
                          MOX_INFO("args ('{\\\"refresh_token\\\": \\\"zzz\\\", \\\"n\\\": 1}',)");
                          MOX_INFO("cut {\"session_token\": \"ttttttt");
                          // A name with one of the words in it is masked; one without keeps its value.
                          MOX_INFO("{\"tok\": \"v1\", \"mox_token_count\": 3}");
                      }),
              0);
    const std::string log = moxtest::ReadTextFile(file);
    ASSERT_EQ(Count(log, "\n"), 8u) << log;
    EXPECT_NE(log.find("]] first\\nsecond\\r\\nthird\n"), std::string::npos) << log;
    EXPECT_NE(log.find("]] styled {\\n   \"a\" : 1,\\n   \"b\" : 2\\n}\n"), std::string::npos) << log;

    // Every line's message is at most 4 KiB plus the marker of its full length.
    size_t begin = 0;
    for (size_t end = log.find('\n'); end != std::string::npos; begin = end + 1, end = log.find('\n', begin)) {
        const std::string line = log.substr(begin, end - begin);
        EXPECT_LE(line.size(), 4096u + 200u) << line.substr(0, 200);
    }
    EXPECT_EQ(log.find(std::string(4097, 'x')), std::string::npos);
    EXPECT_NE(log.find(std::string(3900, 'x')), std::string::npos);
    EXPECT_EQ(log.find("x|"), std::string::npos);
    EXPECT_NE(log.find("\xc3\xa9...("), std::string::npos);
    const size_t marker = log.find("x...(");
    ASSERT_NE(marker, std::string::npos);
    EXPECT_GT(std::stoul(log.substr(marker + 5, log.find(" bytes)", marker) - marker - 5)), 10000u);

    for (const char* secret : {"abc123", "pw", "\"k\"", "zzz", "ttttttt"})
        EXPECT_EQ(log.find(secret), std::string::npos) << secret << "\n" << log;
    for (const char* masked :
         {"\"mox_accesstoken\":\"***\"", "\"cookieJar\": ***,", "\"Authorization\": ***,", "\"name\":\"keep\"",
          "\"secretive\": \"***\"", "\\\"refresh_token\\\": \\\"***\\\", \\\"n\\\": 1", "\"session_token\": \"***\n",
          "{\"tok\": \"v1\", \"mox_token_count\": ***}"})
        EXPECT_NE(log.find(masked), std::string::npos) << masked << "\n" << log;
}

// The journal is reached at its fixed socket: a private mount namespace with
// its own /run lets the test be the journal, or make it absent (root only).
TEST(DlogService, JournalEntriesCarryTheCallerAndFallBackToStderr) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a private /run";
    moxtest::TempDir dir;
    const std::string received = dir.file("received");
    const std::string stderrFile = dir.file("stderr");
    auto inPrivateRun = [&](bool bJournal) {
        return InChild({{"MOX_LOG", "journal"}}, [&] {
            if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
                _exit(10);
            int err = open(stderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            if (err < 0 || dup2(err, STDERR_FILENO) < 0) _exit(11);
            int sock = -1;
            if (bJournal) {
                mkdir("/run/systemd", 0755);
                mkdir("/run/systemd/journal", 0755);
                sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
                sockaddr_un addr{};
                addr.sun_family = AF_UNIX;
                strcpy(addr.sun_path, "/run/systemd/journal/socket");
                if (bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) _exit(12);
            }
            LogThree();
            if (bJournal) {
                std::string all;
                char buf[65536];
                for (int i = 0; i < 3; ++i) {
                    ssize_t n = recv(sock, buf, sizeof(buf), MSG_DONTWAIT);
                    if (n <= 0) _exit(13);
                    all.append(buf, static_cast<size_t>(n));
                    all += "\n--\n";
                }
                if (!moxtest::WriteTextFile(received, all)) _exit(14);
            }
        });
    };

    ASSERT_EQ(inPrivateRun(true), 0);
    const std::string entries = moxtest::ReadTextFile(received);
    const std::string first = entries.substr(0, entries.find("\n--\n"));
    EXPECT_NE(first.find("CODE_FILE=test_dlog_service.cpp\n"), std::string::npos) << first;
    EXPECT_NE(first.find("CODE_LINE=" + std::to_string(kJournalLine) + "\n"), std::string::npos) << first;
    EXPECT_NE(first.find("CODE_FUNC=LogThree\n"), std::string::npos) << first;
    EXPECT_NE(first.find("MOX_TAG=MOX-TEST\n"), std::string::npos) << first;
    EXPECT_NE(first.find("SYSLOG_IDENTIFIER=MOX-TEST\n"), std::string::npos) << first;
    EXPECT_NE(first.find("PRIORITY=4\n"), std::string::npos) << first;
    EXPECT_NE(first.find("]] to the journal\\nand on\n"), std::string::npos) << first;
    EXPECT_EQ(first.find("dlog.cpp"), std::string::npos) << first;
    EXPECT_EQ(moxtest::ReadTextFile(stderrFile), "");

    // No journal: one warning, then every line on stderr.
    ASSERT_EQ(inPrivateRun(false), 0);
    const std::string err = moxtest::ReadTextFile(stderrFile);
    EXPECT_EQ(Count(err, "the journal is not reachable"), 1u) << err;
    EXPECT_EQ(Count(err, "\n"), 4u) << err;
    EXPECT_NE(err.find("W/MOX-TEST("), std::string::npos) << err;
    EXPECT_NE(err.find("]] third\n"), std::string::npos) << err;
}

TEST(Dlog, EnvelopeLevelsAndThreadIds) {
    moxtest::TempDir dir;
    const std::string file = dir.file("log");
    ASSERT_EQ(InChild({{"MOX_LOG", "file:" + file}, {"MOX_LOG_LEVEL", "debug"}},
                      [] {
                          MOX_DEBUG("%d%%", 5);
                          MOX_INFO("main thread");
                          std::thread t([] { MOX_WARN("worker thread"); });
                          t.join();
                      }),
              0);
    std::string log = moxtest::ReadTextFile(file);
    ASSERT_EQ(Count(log, "\n"), 3u) << log;
    EXPECT_EQ(Count(log, "test_dlog_service.cpp: operator()("), 3u);
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
    EXPECT_EQ(InChild({{"MOX_LOG", "file:/nonexistent-dir/x/log"}}, [] { MOX_WARN("still alive"); }), 0);
    EXPECT_EQ(InChild({{"MOX_LOG", "bogus-sink"}}, [] { MOX_WARN("still alive"); }), 0);
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
    if (a == 0) _exit(InChild({{"MOX_LOG", "file:" + file}}, writer));
    ASSERT_EQ(InChild({{"MOX_LOG", "file:" + file}}, writer), 0);
    int status = 0;
    waitpid(a, &status, 0);
    std::string log = moxtest::ReadTextFile(file);
    EXPECT_EQ(Count(log, "\n"), 1600u);
    EXPECT_EQ(Count(log, std::string(300, 'y') + "\n"), 1600u);
}

TEST(Dlog, FilteredLinesEvaluateNothingAndIdsFollowFork) {
    moxtest::TempDir dir;
    const std::string file = dir.file("log");
    ASSERT_EQ(InChild({{"MOX_LOG", "file:" + file}, {"MOX_LOG_LEVEL", "warning"}},
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
    ASSERT_EQ(InChild({{"MOX_LOG", "file:" + file}},
                      [] { MOX_WARN("%s", "a\033[1;31mb\033[0m\033[m\033[c\033\033[12\033["); }),
              0);
    EXPECT_NE(moxtest::ReadTextFile(file).find("]] ab\033[c\033\033[12\033[\n"), std::string::npos);
}
