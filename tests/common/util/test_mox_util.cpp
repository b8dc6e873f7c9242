#include <mox/mox_util.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log_capture.h"
#include "temp_dir.h"

using moxtest::LogMark;
using moxtest::ReadTextFile;
using moxtest::TempDir;

namespace {

TEST(UtilStrings, PathHelpersAndSplitBoundaries) {
    // The extension search does not stop at '/': a dot in a directory counts.
    EXPECT_EQ("b/file", CMOXUtil::GetFileExtension("/media/a.b/file"));
    EXPECT_EQ("", CMOXUtil::GetFileExtension("name."));
    EXPECT_EQ("", CMOXUtil::GetFileExtension(nullptr));
    EXPECT_EQ("", CMOXUtil::GetFileName("/a/b/"));
    EXPECT_EQ("", CMOXUtil::RemoveForwardSlashInPath("///"));
    EXPECT_EQ("/usb/it''s/a''''b", CMOXUtil::AddQuoteInPath("/usb/it's/a''b"));
    const char* exts[] = {"jpg", "png"};
    EXPECT_TRUE(CMOXUtil::CompareExtension("JpG", exts, 2));
    EXPECT_FALSE(CMOXUtil::CompareExtension("png", exts, 1));  // only count entries
    EXPECT_EQ("abc-Ä", CMOXUtil::ToLower("ABC-Ä"));            // bytes above 127 untouched

    // At most three values are stored; blank input still yields one zero.
    double out[3] = {-1, -1, -1};
    int count = -1;
    CMOXUtil::SplitToDouble("1.5  2.5 3.5 4.5   ", out, &count);
    EXPECT_EQ(3, count);
    EXPECT_DOUBLE_EQ(3.5, out[2]);
    double one[3] = {-1, -1, -1};
    CMOXUtil::SplitToDouble(nullptr, one, &count);
    EXPECT_EQ(1, count);
    EXPECT_EQ(0.0, one[0]);
    EXPECT_EQ(-1, one[1]);

    // Names the engine hands out come back to the same bytes; a NUL is never
    // decoded (it would cut a path short), stray or short escapes stay.
    for (std::string name : {std::string("caf\xe9\\x41.jpg"), std::string("d\xff/\\"), std::string("plain")})
        EXPECT_EQ(CMOXUtil::FileNameFromUtf8(CMOXUtil::FileNameToUtf8(name)), name);
    EXPECT_EQ(CMOXUtil::FileNameFromUtf8("a\\x00b\\x4\\xzz\\"), "a\\x00b\\x4\\xzz\\");
    EXPECT_EQ(CMOXUtil::FileNameFromUtf8("\\x2f\\x41"), "/A");
}

TEST(UtilFiles, LoadSaveAndReadBoundaries) {
    TempDir dir;
    const std::string path = dir.file("uuid");
    // The buffer variants keep zero bytes; the string variant stops at the first.
    ASSERT_TRUE(CMOXUtil::SaveAsFile("ab\0cd", 5, path));
    void* buf = nullptr;
    long long size = 0;
    ASSERT_TRUE(CMOXUtil::LoadFile(path, &buf, &size));
    EXPECT_EQ(5, size);
    EXPECT_EQ(0, memcmp(buf, "ab\0cd", 6));  // and a terminating zero
    free(buf);
    std::string content;
    ASSERT_TRUE(CMOXUtil::ReadFile(path, content));
    EXPECT_EQ("ab", content);

    // A large save is written fully; a shorter one replaces the whole content.
    const std::string big(3 * 1024 * 1024 + 17, 'x');
    ASSERT_TRUE(CMOXUtil::SaveAsFile(big.data(), static_cast<long long>(big.size()), path));
    EXPECT_EQ(big, ReadTextFile(path));
    ASSERT_TRUE(CMOXUtil::SaveAsFile("hi", 2, path));
    EXPECT_EQ("hi", ReadTextFile(path));
    ASSERT_TRUE(CMOXUtil::SaveAsFile("", 0, path));

    // Failures (empty, missing, directory, fifo that must not block) leave
    // the outputs untouched.
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    for (const std::string& bad : {path, dir.file("missing"), dir.path(), dir.file("fifo")}) {
        void* untouched = &size;
        size = 77;
        EXPECT_FALSE(CMOXUtil::LoadFile(bad, &untouched, &size)) << bad;
        EXPECT_EQ(&size, untouched);
        EXPECT_EQ(77, size);
        EXPECT_FALSE(CMOXUtil::ReadFile(bad, content)) << bad;
        EXPECT_EQ("ab", content);
    }
    EXPECT_FALSE(CMOXUtil::SaveAsFile("x", 1, dir.file("no/such/dir")));
    EXPECT_TRUE(CMOXUtil::RemoveFile(path.c_str()));
    EXPECT_FALSE(CMOXUtil::IsFileExist(path.c_str()));
    EXPECT_FALSE(CMOXUtil::RemoveFile(path.c_str()));
}

// A child process holds an fcntl lock of `type` on the whole file until the
// holder is destroyed. Record locks are per process, so only another process
// can make our non-waiting lock attempts conflict.
class LockHolder {
public:
    LockHolder(const std::string& path, short type) {
        int ready[2];
        if (pipe(ready) != 0) return;
        m_pid = fork();
        if (m_pid == 0) {
            int fd = open(path.c_str(), type == F_WRLCK ? O_RDWR : O_RDONLY);
            struct flock lock = {};
            lock.l_type = type;
            char ok = (fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0) ? 1 : 0;
            (void)!write(ready[1], &ok, 1);
            pause();  // until the holder kills it
            _exit(0);
        }
        char ok = 0;
        m_locked = read(ready[0], &ok, 1) == 1 && ok == 1;
        close(ready[0]);
        close(ready[1]);
    }
    ~LockHolder() {
        if (m_pid > 0 && kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
    }
    bool locked() const { return m_locked; }

private:
    pid_t m_pid = -1;
    bool m_locked = false;
};

TEST(UtilFileLocks, ConflictingLockOfAnotherProcessFailsAtOnce) {
    TempDir dir;
    const std::string path = dir.file("shared");
    ASSERT_TRUE(CMOXUtil::SaveAsFile("original", 8, path));
    std::string content;
    {
        LockHolder writer(path, F_WRLCK);
        ASSERT_TRUE(writer.locked());
        EXPECT_FALSE(CMOXUtil::ReadFile(path, content));
        EXPECT_FALSE(CMOXUtil::SaveAsFile("clobber", 7, path));
    }
    {
        // Readers share; a writer is refused and must not truncate the file.
        LockHolder reader(path, F_RDLCK);
        ASSERT_TRUE(reader.locked());
        EXPECT_TRUE(CMOXUtil::ReadFile(path, content));
        EXPECT_FALSE(CMOXUtil::SaveAsFile("clobber", 7, path));
        EXPECT_EQ("original", ReadTextFile(path));
    }
    EXPECT_TRUE(CMOXUtil::SaveAsFile("after", 5, path));
    EXPECT_EQ("after", ReadTextFile(path));
}

// Shared-memory object -> file: the object is consumed whatever happens, and a
// crafted length field never leaves a partial file behind.
TEST(UtilWriteFile, CopiesValidObjectsAndRefusesCraftedOnes) {
    TempDir dir;
    auto framed = [](int32_t length, const std::string& body) {
        return std::string(reinterpret_cast<const char*>(&length), sizeof(length)) + body;
    };
    struct Case {
        const char* tag;
        std::string bytes;
        const char* warning;  // nullptr: copied
    } cases[] = {
        {"ok", framed(8, std::string("pay\0load", 8)) + "trailing slack", nullptr},
        {"notarget", framed(3, "abc"), "CMOXUtil: fopen ["},
        {"toolong", framed(1000, "short"), "out of range"},
        {"huge", framed(INT32_MAX, "x"), "out of range"},
        {"negative", framed(-5, "abcdef"), "out of range"},
        {"twobytes", std::string("\x05\x00", 2), "has no length field"},
        {"empty", std::string(), "has no length field"},
        {"zero", framed(0, "ignored"), "szContext == NULL."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.tag);
        const std::string name = "/moxtest_util_" + std::to_string(getpid()) + "_" + c.tag;
        int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        bool written = ftruncate(fd, static_cast<off_t>(c.bytes.size())) == 0 &&
                       pwrite(fd, c.bytes.data(), c.bytes.size(), 0) == static_cast<ssize_t>(c.bytes.size());
        close(fd);
        if (!written) shm_unlink(name.c_str());
        ASSERT_TRUE(written);
        const std::string target = dir.file(c.warning && strstr(c.warning, "fopen") ? "no/dir/out" : c.tag);
        LogMark mark;
        const bool ok = CMOXUtil::WriteFile(target.c_str(), name.c_str());
        fd = shm_open(name.c_str(), O_RDONLY, 0);
        if (fd >= 0) {
            close(fd);
            shm_unlink(name.c_str());
        }
        EXPECT_LT(fd, 0) << "object not consumed";
        if (c.warning == nullptr) {
            EXPECT_TRUE(ok);
            EXPECT_EQ(std::string("pay\0load", 8), ReadTextFile(target));
        } else {
            EXPECT_FALSE(ok);
            EXPECT_TRUE(mark.Contains(c.warning)) << mark.Text();
            EXPECT_FALSE(CMOXUtil::IsFileExist(target.c_str()));
        }
    }
    LogMark mark;
    EXPECT_FALSE(CMOXUtil::WriteFile(dir.file("again").c_str(), "/moxtest_util_none"));
    EXPECT_TRUE(mark.Contains("CMOXUtil: shm_open [/moxtest_util_none] failed."));
}

}  // namespace
