#include <mox/mox_dir.h>
#include <mox/mox_file64.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "temp_dir.h"

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

TEST(File64, ReadWriteModesAndErrorPaths) {
    TempDir dir;
    const std::string path = dir.file("data.bin");
    CMOXFile64 file;
    char buf[16] = {};
    unsigned long count = 4;
    EXPECT_FALSE(file.Read(buf, &count));  // not opened
    EXPECT_FALSE(file.Open(path.c_str(), 7, O_CREAT, false));
    EXPECT_FALSE(file.Open(dir.file("missing").c_str(), CMOXFile64::MODE_READ_ONLY, 0, false));
    EXPECT_FALSE(file.IsOpened());

    ASSERT_TRUE(file.Open(path.c_str(), CMOXFile64::MODE_WRITE_ONLY, O_CREAT | O_TRUNC, false));
    count = 6;
    ASSERT_TRUE(file.Write("abc\0de", &count));
    EXPECT_EQ(6u, count);
    // A second Open of an open object is a no-op success.
    EXPECT_TRUE(file.Open("/nonexistent", CMOXFile64::MODE_READ_ONLY, 0, false));
    file.Destroy();

    ASSERT_TRUE(file.Open(path.c_str(), CMOXFile64::MODE_READ_ONLY, 0, true));
    count = sizeof(buf);
    ASSERT_TRUE(file.Read(buf, &count));
    EXPECT_EQ(6u, count);
    EXPECT_EQ(0, memcmp(buf, "abc\0de", 6));
    count = sizeof(buf);
    EXPECT_TRUE(file.Read(buf, &count));
    EXPECT_EQ(0u, count);  // end of file
    EXPECT_FALSE(file.Flush());
    count = 1;
    EXPECT_FALSE(file.Write("x", &count));  // read-only descriptor
    EXPECT_EQ(0u, count);
    file.Destroy();

    ASSERT_TRUE(file.Open(path.c_str(), CMOXFile64::MODE_READ_WRITE, 0, false));
    count = 2;
    ASSERT_TRUE(file.Read(buf, &count));
    count = 2;
    ASSERT_TRUE(file.Write("XY", &count));
    file.Destroy();
    EXPECT_EQ("abXYde", ReadTextFile(path));

    // The readable check wants a regular file its owner may read.
    ASSERT_EQ(0, chmod(path.c_str(), 0200));
    EXPECT_FALSE(file.Open(path.c_str(), CMOXFile64::MODE_READ_ONLY, 0, true));
    EXPECT_FALSE(file.Open(dir.path().c_str(), CMOXFile64::MODE_READ_ONLY, 0, true));
    EXPECT_FALSE(file.IsOpened());
}

TEST(File64, StaticHelpersAndLargeSizes) {
    TempDir dir;
    const std::string path = dir.file("made");
    EXPECT_TRUE(CMOXFile64::Create(path.c_str()));
    EXPECT_TRUE(CMOXFile64::Create(path.c_str()));  // existing
    EXPECT_TRUE(CMOXFile64::FileExists(path.c_str()));
    EXPECT_FALSE(CMOXFile64::FileExists(dir.path().c_str()));
    EXPECT_FALSE(CMOXFile64::Create(dir.file("no/dir/f").c_str()));

    // Sparse 5 GiB file: sizes beyond 32 bits come through.
    const off64_t fiveGiB = 5LL * 1024 * 1024 * 1024;
    ASSERT_EQ(0, truncate64(path.c_str(), fiveGiB));
    off64_t size = 0;
    EXPECT_TRUE(CMOXFile64::FileSize(path.c_str(), &size));
    EXPECT_EQ(fiveGiB, size);
    EXPECT_FALSE(CMOXFile64::FileSize(dir.file("none").c_str(), &size));
    EXPECT_EQ(fiveGiB, size);
    EXPECT_TRUE(CMOXFile64::Remove(path.c_str()));
    EXPECT_FALSE(CMOXFile64::Remove(path.c_str()));
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

TEST(Dir, CreateRemoveAndSortedSnapshotListing) {
    TempDir dir;
    const std::string sub = dir.file("sub");
    EXPECT_TRUE(CMOXDir::Create(sub.c_str()));
    EXPECT_TRUE(CMOXDir::Create(sub.c_str()));  // already there
    ASSERT_TRUE(WriteTextFile(dir.file("plain"), "x"));
    EXPECT_FALSE(CMOXDir::Create(dir.file("plain").c_str()));
    EXPECT_FALSE(CMOXDir::Create(dir.file("a/b").c_str()));
    for (const char* name : {"b.mp3", "a.jpg", "C.avi", ".hidden"}) ASSERT_TRUE(WriteTextFile(dir.file(name), "x"));

    CMOXDir listing;
    EXPECT_FALSE(listing.Open(dir.file("missing").c_str()));
    EXPECT_FALSE(listing.Update());
    ASSERT_TRUE(listing.Open(dir.path().c_str()));
    std::vector<std::string> names;
    std::string name;
    while (listing.Next(name)) names.push_back(name);
    // alphasort in the C locale: byte order, no "." or "..".
    EXPECT_EQ((std::vector<std::string>{".hidden", "C.avi", "a.jpg", "b.mp3", "plain", "sub"}), names);
    EXPECT_EQ(nullptr, listing.Read());
    ASSERT_TRUE(listing.SetPositionTop());
    const struct dirent* entry = nullptr;
    while ((entry = listing.Read()) != nullptr && strcmp(entry->d_name, "sub") != 0) {
    }
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(DT_DIR, entry->d_type);

    // The listing is a snapshot until Update.
    ASSERT_TRUE(WriteTextFile(dir.file("0new"), "n"));
    EXPECT_EQ(6, listing.Count());
    ASSERT_TRUE(listing.Update());
    EXPECT_EQ(7, listing.Count());
    ASSERT_TRUE(listing.Next(name));
    ASSERT_TRUE(listing.Next(name));
    EXPECT_EQ("0new", name);

    EXPECT_FALSE(listing.Open(dir.path().c_str()));  // already open
    listing.Destroy();
    EXPECT_FALSE(listing.Next(name));
    EXPECT_TRUE(listing.Open(dir.path().c_str()));  // reusable after Destroy
}

}  // namespace
