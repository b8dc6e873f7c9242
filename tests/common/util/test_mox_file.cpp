#include <mox/mox_dir.h>
#include <mox/mox_file64.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "temp_dir.h"

using moxtest::LogMark;
using moxtest::ReadTextFile;
using moxtest::TempDir;
using moxtest::WriteTextFile;

namespace {

int OpenDescriptorCount() {
    int count = 0;
    CMOXDir fds;
    if (!fds.Open("/proc/self/fd")) return -1;
    std::string name;
    while (fds.Next(name)) ++count;
    return count;
}

// ---- CMOXFile64 ----------------------------------------------------------------

TEST(File64, WriteFlushReadBack) {
    TempDir dir;
    const std::string path = dir.file("data.bin");
    CMOXFile64 file;
    ASSERT_TRUE(file.Open(path.c_str(), CMOXFile64::MODE_WRITE_ONLY, O_CREAT | O_TRUNC, false));
    EXPECT_TRUE(file.IsOpened());
    unsigned long count = 6;
    ASSERT_TRUE(file.Write("abc\0de", &count));
    EXPECT_EQ(6u, count);
    EXPECT_TRUE(file.Flush());
    // A second Open of an open object is a no-op success.
    EXPECT_TRUE(file.Open("/nonexistent", CMOXFile64::MODE_READ_ONLY, 0, false));
    file.Destroy();
    EXPECT_FALSE(file.IsOpened());

    LogMark mark;
    file.Destroy();
    EXPECT_TRUE(mark.Contains("CMOXFile64::Destroy file already destroyed."));

    ASSERT_TRUE(file.Open(path.c_str(), CMOXFile64::MODE_READ_ONLY, 0, true));
    char buf[16] = {};
    count = sizeof(buf);
    ASSERT_TRUE(file.Read(buf, &count));
    EXPECT_EQ(6u, count);
    EXPECT_EQ(0, memcmp(buf, "abc\0de", 6));
    count = sizeof(buf);
    EXPECT_TRUE(file.Read(buf, &count));
    EXPECT_EQ(0u, count);  // end of file

    LogMark flushMark;
    EXPECT_FALSE(file.Flush());
    EXPECT_TRUE(flushMark.Contains("CMOXFile64::Flush m_openMode == MODE_READ_ONLY"));
    count = 1;
    EXPECT_FALSE(file.Write("x", &count));  // read-only descriptor
    EXPECT_EQ(0u, count);
    EXPECT_TRUE(flushMark.Contains("CMOXFile64::Write() failed."));
    EXPECT_TRUE(flushMark.Contains("System error. errno[9]"));
    file.Destroy();

    ASSERT_TRUE(file.Open(path.c_str(), CMOXFile64::MODE_READ_WRITE, 0, false));
    count = 2;
    ASSERT_TRUE(file.Read(buf, &count));
    count = 2;
    ASSERT_TRUE(file.Write("XY", &count));
    EXPECT_TRUE(file.Flush());
    file.Destroy();
    EXPECT_EQ("abXYde", ReadTextFile(path));
}

TEST(File64, UnopenedAndInvalidModes) {
    TempDir dir;
    CMOXFile64 file;
    LogMark mark;
    char buf[4];
    unsigned long count = 4;
    EXPECT_FALSE(file.Read(buf, &count));
    EXPECT_FALSE(file.Flush());
    EXPECT_TRUE(mark.Contains("IsOpened() != true"));

    EXPECT_FALSE(file.Open(dir.file("x").c_str(), 7, O_CREAT, false));
    EXPECT_TRUE(mark.Contains("CMOXFile64::Open Invalid open mod[7]."));
    EXPECT_FALSE(file.IsOpened());
}

TEST(File64, MissingFileFailsAfterRetriesAndLeavesObjectReusable) {
    TempDir dir;
    CMOXFile64 file;
    const std::string missing = dir.file("missing");
    LogMark mark;
    EXPECT_FALSE(file.Open(missing.c_str(), CMOXFile64::MODE_READ_ONLY, 0, false));
    EXPECT_TRUE(mark.Contains("CMOXFile64::Open open [" + missing + "] failed."));
    EXPECT_TRUE(mark.Contains("System error. errno[2], errno msg[No such file or directory]."));
    EXPECT_FALSE(file.IsOpened());

    ASSERT_TRUE(WriteTextFile(dir.file("present"), "p"));
    EXPECT_TRUE(file.Open(dir.file("present").c_str(), CMOXFile64::MODE_READ_ONLY, 0, false));
}

TEST(File64, ReadableCheckNeedsRegularFileWithOwnerRead) {
    TempDir dir;
    const std::string path = dir.file("secret");
    ASSERT_TRUE(WriteTextFile(path, "s"));
    ASSERT_EQ(0, chmod(path.c_str(), 0200));
    CMOXFile64 file;
    EXPECT_FALSE(file.Open(path.c_str(), CMOXFile64::MODE_READ_ONLY, 0, true));
    EXPECT_FALSE(file.IsOpened());
    EXPECT_FALSE(file.Open(dir.path().c_str(), CMOXFile64::MODE_READ_ONLY, 0, true));
    EXPECT_FALSE(file.Open(dir.file("none").c_str(), CMOXFile64::MODE_READ_ONLY, 0, true));
    // Without the check only open(2) decides (root may read anything).
    if (geteuid() == 0) {
        EXPECT_TRUE(file.Open(path.c_str(), CMOXFile64::MODE_READ_ONLY, 0, false));
    }
}

TEST(File64, StaticHelpers) {
    TempDir dir;
    const std::string path = dir.file("made");
    EXPECT_TRUE(CMOXFile64::Create(path.c_str()));
    EXPECT_TRUE(CMOXFile64::FileExists(path.c_str()));
    EXPECT_TRUE(CMOXFile64::Create(path.c_str()));  // existing
    EXPECT_FALSE(CMOXFile64::FileExists(dir.path().c_str()));

    LogMark mark;
    EXPECT_FALSE(CMOXFile64::Create(dir.file("no/dir/f").c_str()));
    EXPECT_TRUE(mark.Contains("CMOXFile64::Create() : Create() [" + dir.file("no/dir/f") + "] failed."));

    // Sparse 5 GiB file: sizes beyond 32 bits come through.
    const std::string big = dir.file("big");
    int fd = open(big.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    const off64_t fiveGiB = 5LL * 1024 * 1024 * 1024;
    ASSERT_EQ(0, ftruncate64(fd, fiveGiB));
    close(fd);
    off64_t size = 0;
    EXPECT_TRUE(CMOXFile64::FileSize(big.c_str(), &size));
    EXPECT_EQ(fiveGiB, size);
    EXPECT_FALSE(CMOXFile64::FileSize(dir.file("none").c_str(), &size));
    EXPECT_EQ(fiveGiB, size);

    EXPECT_TRUE(CMOXFile64::Remove(big.c_str()));
    EXPECT_FALSE(CMOXFile64::Remove(big.c_str()));
    EXPECT_TRUE(mark.Contains("CMOXFile64::Remove : unlink[" + big + "] failed."));
}

TEST(File64, CreateWithoutPermissionCountsAsSuccess) {
    TempDir dir;
    const std::string locked = dir.file("locked");
    ASSERT_EQ(0, mkdir(locked.c_str(), 0755));
    const std::string path = locked + "/f";
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // Unprivileged, the directory refuses creation with EACCES.
        if (geteuid() == 0 && setuid(65534) != 0) _exit(3);
        if (access(locked.c_str(), W_OK) == 0) _exit(4);  // cannot provoke EACCES here
        _exit(CMOXFile64::Create(path.c_str()) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 3 || WEXITSTATUS(status) == 4) GTEST_SKIP() << "cannot drop privileges";
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_FALSE(CMOXFile64::FileExists(path.c_str()));
}

TEST(File64, RacingOpensShareOneDescriptor) {
    TempDir dir;
    const std::string path = dir.file("race");
    ASSERT_TRUE(WriteTextFile(path, "r"));
    const int before = OpenDescriptorCount();
    {
        CMOXFile64 file;
        std::atomic<bool> go{false};
        std::atomic<int> opened{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] {
                while (!go) std::this_thread::yield();
                if (file.Open(path.c_str(), CMOXFile64::MODE_READ_WRITE, 0, false)) ++opened;
            });
        go = true;
        for (std::thread& t : threads) t.join();
        EXPECT_EQ(4, opened.load());
        EXPECT_EQ(before + 1, OpenDescriptorCount());
        // Left open: the destructor must close it.
    }
    EXPECT_EQ(before, OpenDescriptorCount());
}

// ---- CMOXDir --------------------------------------------------------------------

TEST(Dir, CreateExistingAndConflicting) {
    TempDir dir;
    const std::string sub = dir.file("sub");
    EXPECT_TRUE(CMOXDir::Create(sub.c_str()));
    EXPECT_TRUE(CMOXDir::DirExists(sub.c_str()));
    EXPECT_TRUE(CMOXDir::Create(sub.c_str()));  // already there

    ASSERT_TRUE(WriteTextFile(dir.file("plain"), "x"));
    LogMark mark;
    EXPECT_FALSE(CMOXDir::Create(dir.file("plain").c_str()));
    EXPECT_TRUE(mark.Contains("CMOXDir::Create() : S_ISDIR() failed."));
    EXPECT_FALSE(CMOXDir::DirExists(dir.file("plain").c_str()));
    EXPECT_FALSE(CMOXDir::Create(dir.file("a/b").c_str()));
    EXPECT_TRUE(mark.Contains("CMOXDir::Create() : mkdir() [" + dir.file("a/b") + "] failed."));

    ASSERT_TRUE(WriteTextFile(sub + "/keep", "k"));
    EXPECT_FALSE(CMOXDir::Remove(sub.c_str()));
    EXPECT_TRUE(mark.Contains("CMOXDir::Remove() : rmdir() failed."));
    ASSERT_EQ(0, unlink((sub + "/keep").c_str()));
    EXPECT_TRUE(CMOXDir::Remove(sub.c_str()));
    EXPECT_FALSE(CMOXDir::DirExists(sub.c_str()));
}

TEST(Dir, ListingIsSortedWithoutDotEntries) {
    TempDir dir;
    for (const char* name : {"b.mp3", "a.jpg", "C.avi", ".hidden"}) ASSERT_TRUE(WriteTextFile(dir.file(name), "x"));
    ASSERT_EQ(0, mkdir(dir.file("sub").c_str(), 0755));

    CMOXDir listing;
    ASSERT_TRUE(listing.Open(dir.path().c_str()));
    EXPECT_TRUE(listing.FlagCreate());
    EXPECT_EQ(5, listing.Count());
    std::vector<std::string> names;
    std::string name;
    while (listing.Next(name)) names.push_back(name);
    // alphasort in the C locale: byte order.
    EXPECT_EQ((std::vector<std::string>{".hidden", "C.avi", "a.jpg", "b.mp3", "sub"}), names);
    EXPECT_EQ(nullptr, listing.Read());

    ASSERT_TRUE(listing.SetPositionTop());
    const struct dirent* entry = nullptr;
    while ((entry = listing.Read()) != nullptr && strcmp(entry->d_name, "sub") != 0) {
    }
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(DT_DIR, entry->d_type);

    // The listing is a snapshot until Update.
    ASSERT_TRUE(WriteTextFile(dir.file("0new"), "n"));
    EXPECT_EQ(5, listing.Count());
    ASSERT_TRUE(listing.Update());
    EXPECT_EQ(6, listing.Count());
    ASSERT_TRUE(listing.Next(name));
    EXPECT_EQ(".hidden", name);
    ASSERT_TRUE(listing.Next(name));
    EXPECT_EQ("0new", name);

    LogMark mark;
    EXPECT_FALSE(listing.Open(dir.path().c_str()));
    EXPECT_TRUE(mark.Contains("FlagCreate() != false."));

    listing.Destroy();
    EXPECT_FALSE(listing.FlagCreate());
    EXPECT_FALSE(listing.SetPositionTop());
    EXPECT_FALSE(listing.Next(name));
    listing.Destroy();
    EXPECT_TRUE(mark.Contains("FlagCreate() != true"));
    EXPECT_TRUE(listing.Open(dir.path().c_str()));  // reusable after Destroy
}

TEST(Dir, UnreadableOrMissingDirectory) {
    TempDir dir;
    CMOXDir listing;
    LogMark mark;
    EXPECT_FALSE(listing.Open(dir.file("missing").c_str()));
    EXPECT_TRUE(mark.Contains("CMOXDir::Open(): opendir() failed."));
    EXPECT_FALSE(listing.FlagCreate());
    EXPECT_FALSE(listing.Update());

    CMOXDir empty;
    ASSERT_TRUE(empty.Open(dir.path().c_str()));
    EXPECT_EQ(0, empty.Count());
    EXPECT_EQ(nullptr, empty.Read());
    EXPECT_TRUE(empty.SetPositionTop());
}

}  // namespace
