// The extension table and the breadth-first walk over real trees, hostile
// ones included.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "../../../common/util/log_capture.h"
#include "mox_media_extension.h"
#include "scan_tree.h"

using namespace scantest;

TEST(MediaExtension, LookupsAndTables) {
    CMOXMediaExtension table;
    std::string ext;
    EXPECT_EQ(table.ExtractExtension("Movie.MKV", ext), 111);
    EXPECT_EQ(ext, "mkv");
    EXPECT_EQ(table.ExtractExtension(".mp3", ext), 1);
    for (const char* none : {"a.mp3.txt", "dir.d/file", "file.", "folder/", "noext", "", "song.plt"})
        EXPECT_EQ(table.ExtractExtension(none, ext), 0) << none;
    EXPECT_EQ(CMOXMediaExtension({251}).ExtractExtension("song.plt", ext), 251);

    // A user table: unknown ids skipped, repeats once, the caller's ids only.
    CMOXMediaExtension user({301, 52, 52, 999, 0, 19});
    EXPECT_EQ(user.Size(), 3u);
    EXPECT_EQ(user.FindExtensionValue("SRF"), 301);
    EXPECT_EQ(user.FindExtensionValue("mp3"), 0);
}

// Breadth first, the skip list in any case, hidden folders kept, the group
// filter, and nothing after the end.
TEST(DirectoryWalk, OrderSkipListAndFilters) {
    moxtest::TempDir dir;
    const std::string root = dir.path();
    for (const char* skipped : {"System Volume Information", "LOST+FOUND", "RECYCLER", "recycler", "$Recycle.Bin"}) {
        MakeDir(root + "/" + skipped);
        Touch(root + "/" + skipped + "/hidden.mp3");
    }
    MakeDir(root + "/.hidden");
    Touch(root + "/.hidden/in_hidden.jpg");
    MakeDir(root + "/a");
    MakeDir(root + "/a/deep");
    Touch(root + "/a/deep/deepest.mp4");
    Touch(root + "/top.mp3");
    Touch(root + "/notes.txt");

    WalkResult all = Walk(WalkOption(root));
    EXPECT_EQ(all.nEnd, -7);
    EXPECT_EQ(all.Names(),
              (std::set<std::string>{".hidden", "in_hidden.jpg", "a", "deep", "deepest.mp4", "top.mp3", "notes.txt"}));
    // Breadth first: every entry of the root before any of a sub-directory.
    auto depth = [&](const SMOXFileInfo& e) { return std::count(e.strBasePath.begin(), e.strBasePath.end(), '/'); };
    for (size_t i = 1; i < all.entries.size(); ++i) EXPECT_LE(depth(all.entries[i - 1]), depth(all.entries[i]));

    SMOXScannerOption photos = WalkOption(root);
    photos.bFilterByExtension = true;
    photos.nMediaGroup = MOX_MEDIA_TYPE_PHOTO;
    photos.nDetail = 1;
    WalkResult onlyPhotos = Walk(photos);
    ASSERT_EQ(onlyPhotos.Names(), (std::set<std::string>{".hidden", "a", "deep", "in_hidden.jpg"}));
    for (const auto& e : onlyPhotos.entries) {
        if (e.strName == "in_hidden.jpg") {
            EXPECT_TRUE(e.bDetailFilled && e.eExtension == 51 && e.llFileSize == 1);
        }
    }

    SMOXScannerOption flat = WalkOption(root);
    flat.nRecursive = 0;
    EXPECT_EQ(Walk(flat).Names(), (std::set<std::string>{".hidden", "a", "top.mp3", "notes.txt"}));

    // Only skipped folders: a clean end, and the end stays the end.
    moxtest::TempDir skipOnly;
    MakeDir(skipOnly.path() + "/System Volume Information");
    MakeDir(skipOnly.path() + "/lost+found");
    CMOXUsbScanner scanner;
    ASSERT_EQ(scanner.Create(WalkOption(skipOnly.path())), 0);
    SMOXFileInfo info;
    int n, steps = 0;
    while ((n = scanner.ReadFileInfo(info)) == -20) ++steps;
    EXPECT_EQ(n, -7);
    EXPECT_LT(steps, 10);
    EXPECT_EQ(scanner.ReadFileInfo(info), -7);
    scanner.Destroy();
    // A missing start directory does not open.
    EXPECT_NE(Walk(WalkOption(root + "/missing")).nEnd, 0);
}

TEST(DirectoryWalk, PathLimitAndErrorMapping) {
    moxtest::TempDir dir;
    // Parent path + name of 780 bytes or more is never queued; the walk goes on.
    const std::string base = dir.path();
    ASSERT_LT(base.size(), 150u);
    const std::string l1 = base + "/" + std::string(200, 'a') + "/" + std::string(200, 'a');
    const std::string l2 = l1 + "/" + std::string(200, 'b');
    const std::string l3 = l2 + "/" + std::string(780 - l2.size(), 'c');  // parent + name == 780
    ASSERT_EQ(mkdir(l1.substr(0, base.size() + 201).c_str(), 0755), 0);
    for (const std::string& d : {l1, l2, l3}) ASSERT_EQ(mkdir(d.c_str(), 0755), 0) << strerror(errno);
    Touch(l2 + "/reached.mp3");
    Touch(l3 + "/beyond.mp3");
    Touch(base + "/sibling.mp3");
    WalkResult result = Walk(WalkOption(base));
    EXPECT_EQ(result.nEnd, -7);
    std::set<std::string> names = result.Names();
    EXPECT_TRUE(names.count("reached.mp3") && names.count("sibling.mp3"));
    EXPECT_EQ(names.count("beyond.mp3"), 0u);  // its folder was listed, not entered
    EXPECT_EQ(names.count(std::string(780 - l2.size(), 'c')), 1u);

    // Five "gone" errors in a row are skipped; the sixth ends the walk.
    CMOXUsbScanner scanner;
    for (int i = 0; i < 5; ++i) EXPECT_EQ(scanner.m_ConvertError(ENOENT, 1), -6);
    EXPECT_EQ(scanner.m_ConvertError(EPERM, 1), -7);
    EXPECT_EQ(scanner.m_ConvertError(ENOENT, 1), -6);
    EXPECT_EQ(scanner.m_ConvertError(EIO, 1), -14);
}

// Links are never followed, FIFOs and device nodes never opened, odd names
// pass through, depth is bounded by the path limit, unreadable folders are
// skipped, and a tree vanishing under the walk ends it.
TEST(DirectoryWalk, HostileStorage) {
    moxtest::TempDir dir;
    const std::string root = dir.path();
    ASSERT_EQ(symlink(".", (root + "/loop").c_str()), 0);
    ASSERT_EQ(symlink("/", (root + "/escape").c_str()), 0);
    ASSERT_EQ(mkfifo((root + "/pipe.mp3").c_str(), 0644), 0);
    bool bDevice = mknod((root + "/null.mp4").c_str(), S_IFCHR | 0644, makedev(1, 3)) == 0;
    std::string longName(250, 'L');
    Touch(root + "/" + longName + ".mp3");
    std::string badUtf8 = "bad\xff\xfe.jpg";
    Touch(root + "/" + badUtf8);
    MakeDir(root + "/locked");
    Touch(root + "/locked/secret.mp3");
    chmod((root + "/locked").c_str(), 0);

    // 1,000 levels, made relative to each parent.
    int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(fd, 0);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(mkdirat(fd, "d", 0755), 0);
        int next = openat(fd, "d", O_RDONLY | O_DIRECTORY);
        close(fd);
        fd = next;
        ASSERT_GE(fd, 0);
    }
    close(fd);

    int fdsBefore = OpenFds();
    WalkResult result = Walk(WalkOption(root));
    EXPECT_EQ(result.nEnd, -7);
    EXPECT_EQ(OpenFds(), fdsBefore);
    std::set<std::string> names = result.Names();
    // Links, FIFOs and devices are neither media nor folders: not handed out.
    EXPECT_FALSE(names.count("loop") || names.count("escape") || names.count("pipe.mp3"));
    EXPECT_TRUE(names.count(longName + ".mp3") && names.count(badUtf8));
    EXPECT_FALSE(bDevice && names.count("null.mp4"));
    size_t nDeep = 0;
    for (const auto& e : result.entries) {
        EXPECT_EQ(e.strBasePath.find(root + "/escape"), std::string::npos);
        EXPECT_EQ(e.strBasePath.find(root + "/loop"), std::string::npos);
        EXPECT_LT(e.strBasePath.size(), kMoxScanMaxPath);
        if (e.strName == "d") ++nDeep;
    }
    // The chain stops where the path would reach the limit.
    EXPECT_GT(nDeep, 300u);
    EXPECT_LT(nDeep, 400u);
    chmod((root + "/locked").c_str(), 0755);

    // 100,000 folders in one folder: every one listed once, only as many
    // queued as the bound allows, nothing kept open.
    moxtest::TempDir wide;
    for (int i = 0; i < 100000; ++i) MakeDir(wide.path() + "/f" + std::to_string(i));
    SMOXScannerOption option = WalkOption(wide.path());
    option.bFilterByExtension = true;
    moxtest::LogMark mark;
    WalkResult folders = Walk(option);
    EXPECT_EQ(folders.nEnd, -7);
    EXPECT_EQ(folders.entries.size(), 100000u);
    EXPECT_NE(mark.Text().find("Too many pending DIRs"), std::string::npos);

    // The tree goes away mid-walk (a pulled stick): the walk still ends.
    moxtest::TempDir pulled;
    for (int i = 0; i < 50; ++i) {
        MakeDir(pulled.path() + "/d" + std::to_string(i));
        Touch(pulled.path() + "/d" + std::to_string(i) + "/f.mp3");
    }
    CMOXUsbScanner scanner;
    ASSERT_EQ(scanner.Create(WalkOption(pulled.path())), 0);
    SMOXFileInfo info;
    for (int i = 0; i < 20; ++i) scanner.ReadFileInfo(info);
    ASSERT_EQ(system(("rm -rf '" + pulled.path() + "'/*").c_str()), 0);
    int n = 0;
    for (int i = 0; i < 1000 && (n = scanner.ReadFileInfo(info)) != -7 && n != -1; ++i) continue;
    EXPECT_TRUE(n == -7 || n == -1) << n;
    scanner.Destroy();
    EXPECT_EQ(OpenFds(), fdsBefore);
}
