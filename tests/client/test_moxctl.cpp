// moxctl end to end: the real tool against the real daemon on a private bus,
// with the local and transfer sources installed and a simulated stick. What
// the engine answers is pinned by the engine's suites; here the tool's own
// part: translating options, exit statuses, Ctrl-C clean-up and output.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "engine_fixture.h"
#include "http_server.h"

using moxtest::EngineHarness;
using moxtest::Parse;
using moxtest::WriteTextFile;

namespace {

struct Outcome {
    int status = -1;  // exit status, or 128 + signal
    std::string out, err;
};

// Runs a command; `onOutput` sees stdout as it grows and may signal `pid`.
Outcome Exec(const std::vector<std::string>& argv,
             const std::function<void(pid_t, const std::string&)>& onOutput = {}) {
    // stdin stays open until the command ends: script(1) stops at its end.
    int in[2], out[2];
    EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    std::unique_ptr<FILE, int (*)(FILE*)> err(tmpfile(), fclose);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(fileno(err.get()), 2);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    Outcome r;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    struct pollfd fd = {out[0], POLLIN, 0};
    bool ended = false;
    while (!ended && std::chrono::steady_clock::now() < deadline) {
        char buf[4096];
        ssize_t n = poll(&fd, 1, 100) > 0 ? read(out[0], buf, sizeof buf) : -2;
        ended = n == 0 || n == -1;
        if (n > 0) r.out.append(buf, static_cast<size_t>(n));
        if (n > 0 && onOutput) onOutput(pid, r.out);
    }
    if (!ended) {
        ADD_FAILURE() << argv[0] << " did not finish in time; stdout: " << r.out;
        kill(pid, SIGKILL);
    }
    int ws = 0;
    waitpid(pid, &ws, 0);
    close(out[0]);
    close(in[1]);
    r.err = moxtest::ReadTextFile("/proc/self/fd/" + std::to_string(fileno(err.get())));
    r.status = WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws);
    return r;
}

// The shared-memory objects this test's engine made, from its log. Other
// processes on the machine may own objects of their own at the same time.
std::vector<std::string> EngineObjects(const std::string& log, const std::string& marker) {
    std::vector<std::string> names;
    for (size_t at = log.find(marker); at != std::string::npos; at = log.find(marker, at + 1)) {
        size_t start = at + marker.size();
        size_t end = log.find(']', start);
        if (end != std::string::npos) names.push_back(log.substr(start, end - start));
    }
    return names;
}

using moxtest::ShmExists;

class Moxctl : public ::testing::Test {
protected:
    void SetUp() override {
        h.InstallPlugin(MOX_LOCAL_SOURCE_SO);
#ifdef MOX_RA_SOURCE_SO
        h.InstallPlugin(MOX_RA_SOURCE_SO);
#endif
        ASSERT_TRUE(h.Start());
    }
    void TearDown() override {
        EXPECT_EQ(h.Stop(), 0) << h.Output();
        // The engine unlinks what its cache held when it stops.
        for (const auto& name : EngineObjects(h.Log(), "Generate ShmName[")) EXPECT_FALSE(ShmExists(name)) << name;
    }
    // Every result list the engine handed out was unlinked (dropped), and
    // none is left in /dev/shm (the engine drops the lists of a client that
    // left the bus asynchronously: wait a little for those).
    void ExpectNoResultList() {
        std::vector<std::string> made = EngineObjects(h.Log(), "release resultlist[");
        EXPECT_FALSE(made.empty());
        for (const auto& name : made) {
            for (int i = 0; i < 100 && ShmExists(name); ++i) usleep(50000);
            EXPECT_FALSE(ShmExists(name)) << name;
        }
    }
    Outcome Ctl(std::vector<std::string> args, const std::function<void(pid_t, const std::string&)>& onOutput = {}) {
        args.insert(args.begin(), {MOXCTL_BINARY, "--address", h.BusAddress()});
        return Exec(args, onOutput);
    }
    EngineHarness h;
};

TEST_F(Moxctl, StoragesMonitorAndFolderMap) {
    // monitor sees the stick come and go, one JSON object a line, and unbinds.
    std::string mount;
    bool plugged = false, pulled = false;
    Outcome mon = Ctl({"--json", "monitor", "--count", "2"}, [&](pid_t, const std::string& out) {
        if (!plugged && out.find("\"bound\"") != std::string::npos) {
            plugged = true;
            mount = h.Plug("sdb1");
        } else if (plugged && !pulled && out.find("mox_usb_notification") != std::string::npos) {
            pulled = true;
            Outcome st = Ctl({"--json", "status"});
            EXPECT_EQ(st.status, 0);
            EXPECT_EQ(Parse(st.out)["storages"][0]["mountPath"].asString(), mount);
            std::remove((h.SpoolDir() + "/sdb1.json").c_str());
        }
    });
    ASSERT_EQ(mon.status, 0) << mon.err;
    std::vector<Json::Value> lines;
    size_t start = 0;
    for (size_t nl; (nl = mon.out.find('\n', start)) != std::string::npos; start = nl + 1)
        lines.push_back(Parse(mon.out.substr(start, nl - start)));
    ASSERT_EQ(lines.size(), 3u) << mon.out;
    EXPECT_EQ(lines[1]["event"].asInt(), 1);
    EXPECT_EQ(lines[1]["devices"][0]["mountPath"].asString(), mount);
    EXPECT_EQ(lines[2]["event"].asInt(), 2);

    ASSERT_EQ(Ctl({"--json", "folder", "add", mount + "/Photos", "42"}).status, 0);
    EXPECT_EQ(Parse(Ctl({"--json", "folder", "find", mount + "/Photos"}).out)["id"].asString(), "42");
    Outcome r = Ctl({"folder", "find", mount + "/Other"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
}

TEST_F(Moxctl, ListDetailCheckThumbsLeaveNoResultList) {
    std::string mount = h.Plug("sdc1");
    std::string photos = mount + "/Photos";
    std::filesystem::create_directories(photos + "/Album");
    WriteTextFile(photos + "/b.jpg", std::string(300, 'b'));
    WriteTextFile(photos + "/a.jpg", std::string(100, 'a'));
    WriteTextFile(photos + "/c.mp3", std::string(200, 'c'));
    WriteTextFile(photos + "/d.png", std::string(50, 'd'));
    // A name that would drive a terminal: shown escaped, kept exact in JSON.
    WriteTextFile(photos + "/e\x1b[2Jx.jpg", "e");

    Outcome r = Ctl({"--json", "list", photos, "--type", "photo", "--sort", "FileSize", "--desc"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json::Value v = Parse(r.out);
    std::vector<std::string> names;
    for (const auto& item : v["items"]) names.push_back(item["FileName"].asString());
    // Files by size, largest first; folders are kept and have size 0.
    EXPECT_EQ(names, (std::vector<std::string>{"b.jpg", "a.jpg", "d.png", "e\x1b[2Jx.jpg", "Album"}));

    // Read section by section through the result pool (sections of 2): the
    // same items in the source's order as one request gives.
    Outcome whole = Ctl({"--json", "list", photos});
    Outcome sections = Ctl({"--json", "list", photos, "--section-size", "2"});
    ASSERT_EQ(sections.status, 0) << sections.err;
    EXPECT_EQ(Parse(sections.out)["items"], Parse(whole.out)["items"]);
    EXPECT_EQ(Parse(sections.out)["total"].asInt(), 6);

    r = Ctl({"list", photos});
    EXPECT_NE(r.out.find("e\\x1b[2Jx.jpg"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find('\x1b'), std::string::npos);

    // Failures: one line on stderr and a status per reason; nothing left
    // behind. Outside the USB root or not a folder: 4; an empty folder is no
    // failure.
    r = Ctl({"list", h.Path("")});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_NE(r.err.find("is not a folder below the USB root"), std::string::npos) << r.err;
    EXPECT_EQ(Ctl({"list", photos + "/b.jpg"}).status, 4);
    r = Ctl({"list", photos + "/Album"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("is empty."), std::string::npos) << r.out;
    r = Ctl({"list", photos, "--plugin", "libnone.so"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("libnone.so"), std::string::npos);
    ExpectNoResultList();

    // Each command reaches the engine and reports its answer; failures are 1.
    EXPECT_EQ(Parse(Ctl({"--json", "detail", photos + "/a.jpg"}).out)["FileSize"].asInt(), 100);
    EXPECT_EQ(Ctl({"detail", photos + "/none.jpg"}).status, 1);
    EXPECT_EQ(Ctl({"meta", "--uuid", "x"}).status, 1);  // no UHD provider installed
    EXPECT_EQ(Parse(Ctl({"--json", "check", mount}).out)["result"].asString(), "several");
    r = Ctl({"--json", "thumbs", photos, "--count", "2"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Parse(r.out)["items"].size(), 2u);
}

TEST_F(Moxctl, CtrlCDuringALongListDropsEveryList) {
    std::string folder = h.Plug("sde1") + "/Many";
    std::filesystem::create_directories(folder);
    for (int i = 0; i < 3000; ++i) WriteTextFile(folder + "/f" + std::to_string(i) + ".jpg", "x");
    bool sent = false;
    Outcome r = Ctl({"list", folder, "--section-size", "10"}, [&](pid_t pid, const std::string& out) {
        if (!sent && std::count(out.begin(), out.end(), '\n') > 20) {
            sent = true;
            kill(pid, SIGINT);
        }
    });
    EXPECT_TRUE(sent);
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_NE(r.err.find("interrupted"), std::string::npos) << r.err;
    EXPECT_LT(std::count(r.out.begin(), r.out.end(), '\n'), 3000);
    ExpectNoResultList();
}

TEST_F(Moxctl, ExitStatusesAndHelp) {
    // Usage errors: status 2 and one line. The bus carries only UTF-8, so a
    // raw byte in a path is refused up front.
    Outcome r;
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"list"},
                                               {"frobnicate"},
                                               {"thumbs", "/x", "--count", "5000"},
                                               {"list", "/x", "--range", "9-3"},
                                               {"detail", "/x/\xff.jpg"}}) {
        r = Ctl(args);
        EXPECT_EQ(r.status, 2) << args[0];
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    EXPECT_NE(r.err.find("UTF-8"), std::string::npos);

    r = Ctl({"copy", "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Usage:"), std::string::npos);
    EXPECT_TRUE(r.err.empty());

    // No bus at all, then a bus without the engine: status 3.
    r = Exec({MOXCTL_BINARY, "--address", "unix:path=" + h.Path("no-such-socket"), "ping"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(h.Stop(), 0);
    r = Ctl({"status"});
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("not on the bus"), std::string::npos) << r.err;

    // The engine going away under a running monitor ends it with status 3.
    ASSERT_TRUE(h.Start());
    r = Ctl({"--json", "monitor"}, [&](pid_t, const std::string& out) {
        if (out.find("bound") != std::string::npos && h.Running()) {
            EXPECT_EQ(h.Stop(), 0);
        }
    });
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("left the bus"), std::string::npos) << r.err;
    ASSERT_TRUE(h.Start());
}

#ifdef MOX_RA_SOURCE_SO

// The test web server, serving `size` bytes as /files/file.bin in 64 KiB
// pieces `delayMs` apart: a download long enough to watch and to stop.
struct PacedServer {
    PacedServer(const std::string& dir, size_t size, int delayMs)
        : made(std::filesystem::create_directories(dir + "/www") &&
               WriteTextFile(dir + "/www/file.bin", std::string(size, 'x'))),
          server(dir + "/www", dir + "/port"),
          url("http://127.0.0.1:" + std::to_string(server.port) +
              "/files/file.bin?chunk=65536&delay_ms=" + std::to_string(delayMs)) {
        EXPECT_TRUE(made && server.port != 0) << "the test web server did not start";
    }
    bool made;
    moxtest::HttpServer server;
    std::string url;
};

TEST_F(Moxctl, CopyDownloadAndStop) {
    std::string mount = h.Plug("sdf1");
    std::string src = mount + "/movie.bin";
    WriteTextFile(src, std::string(3 << 20, 'm'));
    EXPECT_EQ(Parse(Ctl({"--json", "list", mount}).out)["items"].size(), 1u);
    Outcome r = Ctl({"--json", "copy", src, mount + "/copy.bin"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Parse(r.out.substr(r.out.rfind('\n', r.out.size() - 2) + 1))["result"].asString(), "done");
    // The engine's copy shows in the next list of the folder.
    EXPECT_EQ(Parse(Ctl({"--json", "list", mount}).out)["items"].size(), 2u);

    // act: any document, each event one JSON line; status 0 / 1 / 2.
    const std::string album = h.Path("album.json");
    WriteTextFile(album, R"({"mox_command":"mox_create_album","mox_source":"mox_ra_source","mox_album_path":")" +
                             mount + R"(/Album"})");
    r = Ctl({"act", album});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Parse(r.out)["mox_event_type"].asInt(), 6) << r.out;
    EXPECT_TRUE(std::filesystem::is_directory(mount + "/Album"));
    EXPECT_EQ(Parse(Ctl({"--json", "list", mount}).out)["items"].size(), 3u);
    WriteTextFile(album, R"({"mox_command":"mox_create_album","mox_source":"mox_ra_source","mox_album_path":")" +
                             h.Path("outside") + R"("})");
    r = Ctl({"act", album});
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_EQ(Parse(r.out)["mox_event_type"].asInt(), 7) << r.out;
    WriteTextFile(album, "[1]");
    EXPECT_EQ(Ctl({"act", album}).status, 2);
    EXPECT_EQ(Ctl({"act", h.Path("missing.json")}).status, 2);
    // Existing destination without --overwrite: the engine's failure, status 1.
    r = Ctl({"copy", src, mount + "/copy.bin"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("--overwrite"), std::string::npos) << r.err;

    // Ctrl-C in the middle of a slow download: stop_act, nothing left.
    PacedServer server(h.Path("web"), 8 << 20, 50);
    std::string dst = mount + "/download.bin";
    bool sent = false;
    r = Ctl({"--json", "download", server.url, dst}, [&](pid_t pid, const std::string& out) {
        if (!sent && out.find("\"progress\"") != std::string::npos) {
            sent = true;
            kill(pid, SIGINT);
        }
    });
    EXPECT_TRUE(sent) << r.out << r.err;
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_NE(r.err.find("nothing was left"), std::string::npos) << r.err;
    EXPECT_FALSE(std::filesystem::exists(dst));
    for (const auto& e : std::filesystem::directory_iterator(mount))
        EXPECT_EQ(e.path().filename().string().find("download"), std::string::npos) << e.path();

    // A transfer that stalls past --timeout: status 3, and it is stopped.
    PacedServer stalled(h.Path("web2"), 1 << 20, 3000);
    r = Ctl({"--timeout", "1", "download", stalled.url, dst});
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_NE(r.err.find("stopped it"), std::string::npos) << r.err;
    EXPECT_FALSE(std::filesystem::exists(dst));
    // Stopped in the engine too: its partial file goes at once, not when the
    // stalled download (48 s) would have ended.
    auto partial = [&] {
        for (const auto& e : std::filesystem::directory_iterator(mount))
            if (e.path().filename().string().rfind(".mox-transfer-", 0) == 0) return true;
        return false;
    };
    for (int i = 0; i < 100 && partial(); ++i) usleep(50000);
    EXPECT_FALSE(partial()) << "the stalled transfer was not stopped";
}

TEST_F(Moxctl, ProgressBarOnATerminal) {
    std::string mount = h.Plug("sdg1");
    PacedServer server(h.Path("web"), 2 << 20, 20);
    std::string dst = mount + "/bar.bin";
    // script(1) runs the tool on a pseudo-terminal and copies what it drew.
    std::string cmd =
        std::string(MOXCTL_BINARY) + " --address '" + h.BusAddress() + "' download '" + server.url + "' '" + dst + "'";
    Outcome r = Exec({"/usr/bin/script", "-qec", cmd, "/dev/null"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("\r["), std::string::npos) << r.out;  // redrawn in place
    EXPECT_NE(r.out.find("] 100% "), std::string::npos) << r.out;
    // The bar's line is cleared to its end and ended before the summary,
    // which is the last line (the terminal turns \n into \r\n).
    size_t done = r.out.find("Downloaded ");
    ASSERT_NE(done, std::string::npos) << r.out;
    ASSERT_GE(done, 5u);
    EXPECT_EQ(r.out.substr(done - 5, 5), "\x1b[K\r\n");
    EXPECT_EQ(r.out.back(), '\n');
    EXPECT_EQ(std::filesystem::file_size(dst), 2u << 20);
}

#else

TEST_F(Moxctl, CopyDownloadAndStop) {
    GTEST_SKIP() << "the transfer source (libmox_ra_source.so) is not built";
}

#endif

}  // namespace
