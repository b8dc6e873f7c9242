// The engine's extraction through the real mox-extract helper: same results
// as in-process, files that crash or stall the helper fail alone, corrupt
// files do no harm, files are confined below the USB root, concurrent callers
// are served, and a helper started as root runs as another user.
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "mox_extract_client.h"
#include "mox_extractor.h"
#include "temp_dir.h"

namespace {

bool HaveTools() {
    return system("command -v convert >/dev/null && command -v exiftool >/dev/null && "
                  "command -v ffmpeg >/dev/null") == 0;
}

bool Shell(const std::string& cmd) {
    int rc = system((cmd + " >/dev/null 2>&1").c_str());
    if (rc != 0) ADD_FAILURE() << "command failed: " << cmd;
    return rc == 0;
}

std::string ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

class ExtractHelper : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        setenv("MOX_EXTRACT_HELPER", MOX_EXTRACT_HELPER_BINARY, 1);
        setenv("MOX_EXTRACT_TEST_FAULTS", "1", 1);
        s_dir = new moxtest::TempDir();
        // The helper (as nobody) never opens these itself; it gets descriptors.
        chmod(s_dir->path().c_str(), 0700);
        setenv("MOX_USB_ROOT", s_dir->path().c_str(), 1);
        if (!HaveTools()) return;
        s_bMedia = Shell("convert -size 32x24 xc:blue -strip " + s_dir->file("photo.jpg")) &&
                   Shell("exiftool -q -overwrite_original -Model=Cam -Orientation#=3 '-DateTimeOriginal=2020:01:02 "
                       "03:04:05' " + s_dir->file("photo.jpg")) &&
                   Shell("ffmpeg -v error -y -f lavfi -i sine=duration=1 -b:a 64k -metadata title=Tune "
                       "-metadata track=7 " + s_dir->file("tune.mp3")) &&
                   Shell("ffmpeg -v error -y -f lavfi -i testsrc=size=64x48:rate=5 -t 1 -c:v mpeg4 "
                       "-metadata title=Film " + s_dir->file("film.mp4"));
    }
    static void TearDownTestSuite() {
        delete s_dir;
        s_dir = nullptr;
    }
    void SetUp() override {
        if (!s_bMedia) GTEST_SKIP() << "convert, exiftool or ffmpeg missing (scripts/install-deps.sh)";
    }

    // The JSON text through the helper, or "" when Extract fails.
    static std::string Helper(const std::string& name, int type) {
        CMOXExtractor extractor(s_dir->path(), name, type);
        media_info_s info;
        return extractor.Extract(info) ? extractor.ToString(info) : std::string();
    }
    static std::string Here(const std::string& name, int type) {
        CMOXExtractor extractor(s_dir->path(), name, type);
        media_info_s info;
        return extractor.ExtractHere(info) ? extractor.ToString(info) : std::string();
    }

    static moxtest::TempDir* s_dir;
    static bool s_bMedia;
};

moxtest::TempDir* ExtractHelper::s_dir = nullptr;
bool ExtractHelper::s_bMedia = false;

// Helper processes that are children of this test process.
std::vector<pid_t> HelperPids() {
    std::vector<pid_t> pids;
    DIR* proc = opendir("/proc");
    if (!proc) return pids;
    while (struct dirent* e = readdir(proc)) {
        pid_t pid = atoi(e->d_name);
        if (pid <= 0) continue;
        std::string stat = ReadBytes("/proc/" + std::string(e->d_name) + "/stat");
        size_t close = stat.rfind(')');
        if (close == std::string::npos || stat.find("(mox-extract)") == std::string::npos) continue;
        int ppid = 0;
        if (sscanf(stat.c_str() + close + 2, "%*c %d", &ppid) == 1 && ppid == getpid()) pids.push_back(pid);
    }
    closedir(proc);
    return pids;
}

}  // namespace

TEST_F(ExtractHelper, SameResultsAsInProcessAndConfinedHelper) {
    for (auto [name, type] : {std::pair<const char*, int>{"photo.jpg", 2}, {"tune.mp3", 5}, {"film.mp4", 3}}) {
        std::string viaHelper = Helper(name, type);
        EXPECT_FALSE(viaHelper.empty()) << name;
        EXPECT_EQ(viaHelper, Here(name, type)) << name;
    }
    EXPECT_NE(Helper("photo.jpg", 2).find("\"MODEL\":\"Cam\""), std::string::npos);
    EXPECT_NE(Helper("tune.mp3", 5).find("\"TRACK_NUM\":\"7\""), std::string::npos);

    // One helper serves every file, and it does not run as root.
    std::vector<pid_t> pids = HelperPids();
    ASSERT_EQ(pids.size(), 1u);
    if (getuid() == 0) {
        std::string status = ReadBytes("/proc/" + std::to_string(pids[0]) + "/status");
        size_t uid = status.find("\nUid:");
        ASSERT_NE(uid, std::string::npos);
        int real = -1, effective = -1;
        sscanf(status.c_str() + uid, "\nUid:\t%d\t%d", &real, &effective);
        EXPECT_NE(real, 0);
        EXPECT_NE(effective, 0);
    }
}

TEST_F(ExtractHelper, HostileFilesFailAloneAndAreNotRetried) {
    std::string good = Helper("photo.jpg", 2);
    ASSERT_FALSE(good.empty());

    // Corrupt contents: the record still comes back, with defaults.
    std::string jpeg = ReadBytes(s_dir->file("photo.jpg"));
    WriteBytes(s_dir->file("truncated.jpg"), jpeg.substr(0, jpeg.size() / 3));
    std::string mp3 = ReadBytes(s_dir->file("tune.mp3"));
    WriteBytes(s_dir->file("truncated.mp3"), mp3.substr(0, 700));
    std::mt19937 rng(7);
    std::string noise(64 * 1024, '\0');
    for (char& c : noise) c = static_cast<char>(rng());
    for (const char* name : {"noise.jpg", "noise.mp3", "noise.mp4", "noise.mkv", "noise.flac", "noise.ogg"})
        WriteBytes(s_dir->file(name), noise);
    for (auto [name, type] : {std::pair<const char*, int>{"truncated.jpg", 2}, {"truncated.mp3", 5},
                              {"noise.jpg", 2}, {"noise.mp3", 5}, {"noise.mp4", 3}, {"noise.mkv", 3},
                              {"noise.flac", 5}, {"noise.ogg", 5}})
        EXPECT_FALSE(Helper(name, type).empty()) << name;

    // A crash fails that file only; the next file gets a fresh helper.
    WriteBytes(s_dir->file("mox-extract-crash.jpg"), jpeg);
    EXPECT_EQ(Helper("mox-extract-crash.jpg", 2), "");
    EXPECT_TRUE(HelperPids().empty());
    EXPECT_EQ(Helper("photo.jpg", 2), good);

    // Remembered: not handed to the helper again (no helper restart).
    std::vector<pid_t> before = HelperPids();
    EXPECT_EQ(Helper("mox-extract-crash.jpg", 2), "");
    EXPECT_EQ(HelperPids(), before);

    // A stall is cut at the deadline, and the next file is fine.
    WriteBytes(s_dir->file("mox-extract-hang.mp3"), mp3);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Helper("mox-extract-hang.mp3", 5), "");
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, CMOXExtractClient::kDeadline);
    EXPECT_LT(took, std::chrono::seconds(30));
    EXPECT_FALSE(Helper("tune.mp3", 5).empty());
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(Helper("mox-extract-hang.mp3", 5), "");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));

    // The same name with other contents (size changes) is parsed again.
    WriteBytes(s_dir->file("mox-extract-crash.jpg"), jpeg + "tail");
    EXPECT_EQ(Helper("mox-extract-crash.jpg", 2), "");

    // No helper to be had: the basic record only, and no crash.
    setenv("MOX_EXTRACT_HELPER", (s_dir->path() + "/no-such-helper").c_str(), 1);
    std::string basic = Helper("photo.jpg", 2);
    setenv("MOX_EXTRACT_HELPER", MOX_EXTRACT_HELPER_BINARY, 1);
    EXPECT_NE(basic.find("\"MODEL\":\"\""), std::string::npos) << basic;
    EXPECT_NE(basic.find("\"DISPLAY_NAME\":\"photo.jpg\""), std::string::npos) << basic;
    EXPECT_EQ(Helper("photo.jpg", 2), good);
}

TEST_F(ExtractHelper, OnlyRegularFilesBelowTheUsbRoot) {
    // A link out of the root and a FIFO: basic record only, nothing parsed,
    // nothing blocks.
    moxtest::TempDir outside;
    Shell("cp " + s_dir->file("photo.jpg") + " " + outside.file("secret.jpg"));
    std::string link = s_dir->file("link.jpg");
    ASSERT_EQ(symlink(outside.file("secret.jpg").c_str(), link.c_str()), 0);
    std::string viaLink = Helper("link.jpg", 2);
    EXPECT_NE(viaLink.find("\"MODEL\":\"\""), std::string::npos) << viaLink;
    EXPECT_NE(viaLink.find("\"TITLE\":\"Unknown\""), std::string::npos) << viaLink;

    std::string fifo = s_dir->file("pipe.mp3");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Helper("pipe.mp3", 5).empty());
    EXPECT_FALSE(Here("pipe.mp3", 5).empty());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    unlink(fifo.c_str());
    unlink(link.c_str());
}

TEST_F(ExtractHelper, ConcurrentCallersShareTheHelper) {
    const std::string photo = Here("photo.jpg", 2), tune = Here("tune.mp3", 5);
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i) {
                if (Helper("photo.jpg", 2) != photo) ++mismatches[t];
                if (Helper("tune.mp3", 5) != tune) ++mismatches[t];
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(mismatches[t], 0) << t;
    EXPECT_EQ(HelperPids().size(), 1u);
}

TEST_F(ExtractHelper, HelperSurvivesLoggingToARegularFile) {
    // The helper may not grow files; its warnings to a stderr that is a
    // regular file must fail quietly, not kill it.
    WriteBytes(s_dir->file("mox-extract-crash-restart.jpg"), "x");
    EXPECT_EQ(Helper("mox-extract-crash-restart.jpg", 2), "");  // next helper inherits the new stderr
    moxtest::TempDir logDir;
    int saved = dup(STDERR_FILENO);
    ASSERT_GE(saved, 0);
    FILE* log = fopen(logDir.file("stderr.log").c_str(), "w");
    ASSERT_NE(log, nullptr);
    dup2(fileno(log), STDERR_FILENO);
    Shell("convert -size 8x8 xc:white -strip " + s_dir->file("bare.jpg"));
    std::string first = Helper("bare.jpg", 2);  // "There is no exif data" warning
    std::vector<pid_t> pids = HelperPids();
    std::string second = Helper("tune.mp3", 5);
    dup2(saved, STDERR_FILENO);
    close(saved);
    fclose(log);
    EXPECT_NE(first.find("\"DATE_TAKEN\":\"Unknown\""), std::string::npos) << first;
    EXPECT_FALSE(second.empty());
    EXPECT_EQ(pids.size(), 1u);
    EXPECT_EQ(HelperPids(), pids);
}

TEST_F(ExtractHelper, StalledHelperDiesWithTheDaemon) {
    // No helper of ours may be running when the process forks: the child
    // must start its own.
    WriteBytes(s_dir->file("mox-extract-crash-fork.jpg"), "x");
    EXPECT_EQ(Helper("mox-extract-crash-fork.jpg", 2), "");
    WriteBytes(s_dir->file("mox-extract-hang-fork.mp3"), "x");
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The "daemon" is killed while its helper is stalled on a file.
        signal(SIGALRM, SIG_DFL);
        alarm(1);
        Helper("mox-extract-hang-fork.mp3", 5);
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) << status;

    // The orphaned helper, if any, would be stalled with this test's root.
    auto orphans = [] {
        std::vector<pid_t> found;
        DIR* proc = opendir("/proc");
        while (proc && (errno = 0, true)) {
            struct dirent* e = readdir(proc);
            if (!e) break;
            pid_t pid = atoi(e->d_name);
            if (pid <= 0 || ReadBytes("/proc/" + std::string(e->d_name) + "/comm") != "mox-extract\n") continue;
            std::string env = ReadBytes("/proc/" + std::string(e->d_name) + "/environ");
            if (env.find("MOX_USB_ROOT=" + s_dir->path() + std::string(1, '\0')) != std::string::npos)
                found.push_back(pid);
        }
        if (proc) closedir(proc);
        return found;
    };
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (!orphans().empty() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::vector<pid_t> left = orphans();
    for (pid_t pid : left) kill(pid, SIGKILL);
    EXPECT_TRUE(left.empty());
}
