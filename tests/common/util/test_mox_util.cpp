#include <mox/mox_util.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "log_capture.h"
#include "temp_dir.h"

using moxtest::LogMark;
using moxtest::ReadTextFile;
using moxtest::TempDir;
using moxtest::WriteTextFile;

namespace {

// ---- strings and paths -------------------------------------------------------

TEST(UtilPaths, ExtensionNameAndStem) {
    // The extension search does not stop at '/': a dot in a directory counts.
    EXPECT_EQ("b/file", CMOXUtil::GetFileExtension("/media/a.b/file"));
    EXPECT_EQ("", CMOXUtil::GetFileExtension("/media/file"));
    EXPECT_EQ("JPG", CMOXUtil::GetFileExtension("/m/x.tar.JPG"));
    EXPECT_EQ("", CMOXUtil::GetFileExtension("name."));
    LogMark mark;
    EXPECT_EQ("", CMOXUtil::GetFileExtension(nullptr));
    EXPECT_TRUE(mark.Contains("szPath == NULL"));

    EXPECT_EQ("c.txt", CMOXUtil::GetFileName("/a/b/c.txt"));
    EXPECT_EQ("", CMOXUtil::GetFileName("c.txt"));
    EXPECT_EQ("", CMOXUtil::GetFileName("/a/b/"));

    EXPECT_EQ("c.tar", CMOXUtil::GetFileNameWithoutExt("c.tar.gz"));
    EXPECT_EQ("", CMOXUtil::GetFileNameWithoutExt("README"));
}

TEST(UtilPaths, SlashesAndQuotes) {
    EXPECT_EQ("/opt/x", CMOXUtil::RemoveForwardSlashInPath("/opt/x///"));
    EXPECT_EQ("", CMOXUtil::RemoveForwardSlashInPath("///"));
    EXPECT_EQ("/opt/x", CMOXUtil::RemoveForwardSlashInPath("/opt/x"));
    EXPECT_EQ("", CMOXUtil::RemoveForwardSlashInPath(""));

    EXPECT_EQ("/usb/it''s/a''''b", CMOXUtil::AddQuoteInPath("/usb/it's/a''b"));
    EXPECT_EQ("/usb/plain", CMOXUtil::AddQuoteInPath("/usb/plain"));
}

TEST(UtilStrings, ComparisonsFoldCase) {
    const char* exts[] = {"jpg", "png"};
    EXPECT_TRUE(CMOXUtil::CompareExtension("JpG", exts, 2));
    EXPECT_FALSE(CMOXUtil::CompareExtension("jpeg", exts, 2));
    EXPECT_FALSE(CMOXUtil::CompareExtension("jpg", exts, 0));
    EXPECT_FALSE(CMOXUtil::CompareExtension("png", exts, 1));  // only count entries

    const char* fields[] = {"TITLE", "DATE"};
    EXPECT_TRUE(CMOXUtil::CompareField("date", fields, 2));
    EXPECT_FALSE(CMOXUtil::CompareField("dat", fields, 2));

    EXPECT_TRUE(CMOXUtil::CompareMediaExtension({"mp3", "flac"}, "FLAC"));
    EXPECT_FALSE(CMOXUtil::CompareMediaExtension({"mp"}, "mp3"));
    EXPECT_FALSE(CMOXUtil::CompareMediaExtension({}, "mp3"));
    EXPECT_EQ("abc-Ä", CMOXUtil::ToLower("ABC-Ä"));  // bytes above 127 untouched
}

TEST(UtilStrings, SplitToDoubleStoresAtMostThree) {
    double out[3] = {-1, -1, -1};
    int count = -1;
    CMOXUtil::SplitToDouble("1.5  2.5 3.5 4.5   ", out, &count);
    EXPECT_EQ(3, count);
    EXPECT_DOUBLE_EQ(1.5, out[0]);
    EXPECT_DOUBLE_EQ(2.5, out[1]);
    EXPECT_DOUBLE_EQ(3.5, out[2]);

    for (const char* blank : {"", "    ", static_cast<const char*>(nullptr)}) {
        double one[3] = {-1, -1, -1};
        CMOXUtil::SplitToDouble(blank, one, &count);
        EXPECT_EQ(1, count);
        EXPECT_EQ(0.0, one[0]);
        EXPECT_EQ(-1, one[1]);
    }

    double two[3] = {-1, -1, -1};
    CMOXUtil::SplitToDouble("  -7 x", two, &count);
    EXPECT_EQ(2, count);
    EXPECT_EQ(-7.0, two[0]);
    EXPECT_EQ(0.0, two[1]);
}

TEST(UtilStrings, StreamConversionsAndCopies) {
    EXPECT_EQ(42, CMOXUtil::str2int("42"));
    EXPECT_EQ(0, CMOXUtil::str2int("abc"));
    EXPECT_EQ("-5", CMOXUtil::int2str(-5));
    EXPECT_EQ("1099511627776", CMOXUtil::long2str(1LL << 40));
    EXPECT_EQ("0.1", CMOXUtil::double2str(0.1));
    EXPECT_EQ("1.23457e+06", CMOXUtil::double2str(1234567.0));
    EXPECT_EQ("", CMOXUtil::CharToString(nullptr));

    char* dst = nullptr;
    CMOXUtil::AssignValue(&dst, "");
    EXPECT_EQ(nullptr, dst);
    CMOXUtil::AssignValue(&dst, "abc");
    ASSERT_NE(nullptr, dst);
    EXPECT_STREQ("abc", dst);
    delete[] dst;

    char* cdst = nullptr;
    LogMark mark;
    CMOXUtil::AssignValueByCStyle(&cdst, nullptr);
    EXPECT_EQ(nullptr, cdst);
    EXPECT_TRUE(mark.Contains("src  == NULL"));
    CMOXUtil::AssignValueByCStyle(&cdst, "xyz");
    ASSERT_NE(nullptr, cdst);
    EXPECT_STREQ("xyz", cdst);
    free(cdst);
}

TEST(UtilIdentifiers, UuidsAreWellFormedAndDistinct) {
    const std::regex form("^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$");
    const std::regex v4("^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$");
    std::set<std::string> seen;
    for (int i = 0; i < 500; ++i) {
        std::string id = CMOXUtil::GetUUID();
        EXPECT_TRUE(std::regex_match(id, v4)) << id;
        seen.insert(id);
    }
    EXPECT_EQ(500u, seen.size());

    LogMark mark;
    char a[37], b[37];
    EXPECT_EQ(0, mox_uuid_time(a));
    EXPECT_EQ(0, mox_uuid_random(b));
    EXPECT_TRUE(std::regex_match(a, form)) << a;
    EXPECT_TRUE(std::regex_match(b, v4)) << b;
    EXPECT_EQ('1', a[14]);  // time-based version
    EXPECT_TRUE(mark.Contains(std::string("generate uuid=") + a));
}

TEST(UtilIdentifiers, SystemTimeIsEpochMilliseconds) {
    long long before = static_cast<long long>(time(nullptr)) * 1000;
    long long now = CMOXUtil::GetCurrentSystemTime();
    long long after = static_cast<long long>(time(nullptr)) * 1000 + 1000;
    EXPECT_GE(now, before);
    EXPECT_LE(now, after);
}

// ---- whole-file helpers -------------------------------------------------------

TEST(UtilFiles, LoadFileReadsEveryByteAndRejectsEmptyFiles) {
    TempDir dir;
    const std::string binary("a\0b\nc", 5);
    ASSERT_TRUE(WriteTextFile(dir.file("bin"), binary));
    void* buf = nullptr;
    long long size = 0;
    ASSERT_TRUE(CMOXUtil::LoadFile(dir.file("bin"), &buf, &size));
    EXPECT_EQ(5, size);
    EXPECT_EQ(binary, std::string(static_cast<char*>(buf), 5));
    EXPECT_EQ('\0', static_cast<char*>(buf)[5]);
    free(buf);

    ASSERT_TRUE(WriteTextFile(dir.file("empty"), ""));
    LogMark mark;
    void* untouched = &size;
    size = 77;
    EXPECT_FALSE(CMOXUtil::LoadFile(dir.file("empty"), &untouched, &size));
    EXPECT_TRUE(mark.Contains("UUID file size is 0"));
    EXPECT_EQ(&size, untouched);
    EXPECT_EQ(77, size);

    EXPECT_FALSE(CMOXUtil::LoadFile(dir.file("missing"), &untouched, &size));
    EXPECT_TRUE(mark.Contains("FAILED TO OPEN FILE, " + dir.file("missing") + ", 2"));
    EXPECT_FALSE(CMOXUtil::LoadFile(dir.path(), &untouched, &size));  // a directory

    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    EXPECT_FALSE(CMOXUtil::LoadFile(dir.file("fifo"), &untouched, &size));  // must not block
    std::string content;
    EXPECT_FALSE(CMOXUtil::ReadFile(dir.file("fifo"), content));
}

TEST(UtilFiles, SaveThenReadRoundTrip) {
    TempDir dir;
    const std::string path = dir.file("uuid");
    LogMark mark;
    ASSERT_TRUE(CMOXUtil::SaveAsFile("hello", 5, path));
    EXPECT_TRUE(mark.Contains("file saved, 5, 5, " + path));
    EXPECT_EQ("hello", ReadTextFile(path));

    // A shorter save replaces the whole content.
    ASSERT_TRUE(CMOXUtil::SaveAsFile("hi", 2, path));
    std::string content;
    ASSERT_TRUE(CMOXUtil::ReadFile(path, content));
    EXPECT_EQ("hi", content);

    // The string variant stops at the first zero byte; the buffer one does not.
    ASSERT_TRUE(CMOXUtil::SaveAsFile("ab\0cd", 5, path));
    ASSERT_TRUE(CMOXUtil::ReadFile(path, content));
    EXPECT_EQ("ab", content);
    char* buf = nullptr;
    long long size = 0;
    ASSERT_TRUE(CMOXUtil::ReadFile(path, &buf, &size));
    EXPECT_EQ(5, size);
    EXPECT_EQ(0, memcmp(buf, "ab\0cd", 5));
    free(buf);

    const std::string big(3 * 1024 * 1024 + 17, 'x');
    ASSERT_TRUE(CMOXUtil::SaveAsFile(big.data(), static_cast<long long>(big.size()), path));
    EXPECT_EQ(big, ReadTextFile(path));

    ASSERT_TRUE(CMOXUtil::SaveAsFile("", 0, path));
    LogMark emptyMark;
    EXPECT_FALSE(CMOXUtil::ReadFile(path, content));
    EXPECT_TRUE(emptyMark.Contains("UUID file size is 0"));
    EXPECT_TRUE(emptyMark.Contains("FAILED TO LOAD FILE!, " + path));
    EXPECT_EQ("ab", content);  // untouched on failure

    EXPECT_FALSE(CMOXUtil::SaveAsFile("x", 1, dir.file("no/such/dir")));
    EXPECT_TRUE(CMOXUtil::IsFileExist(path.c_str()));
    EXPECT_TRUE(CMOXUtil::RemoveFile(path.c_str()));
    EXPECT_FALSE(CMOXUtil::IsFileExist(path.c_str()));
    LogMark removeMark;
    EXPECT_FALSE(CMOXUtil::RemoveFile(path.c_str()));
    EXPECT_TRUE(removeMark.Contains("CMOXUtil: remove [" + path + "] failed."));
}

// A child process holds an fcntl lock of `type` on the whole file until the
// parent closes `release`. Record locks are per process, so only another
// process can make our non-waiting lock attempts conflict.
class LockHolder {
public:
    LockHolder(const std::string& path, short type) {
        int ready[2], release[2];
        if (pipe(ready) != 0 || pipe(release) != 0) return;
        m_pid = fork();
        if (m_pid == 0) {
            close(ready[0]);
            close(release[1]);
            int fd = open(path.c_str(), type == F_WRLCK ? O_RDWR : O_RDONLY);
            struct flock lock = {};
            lock.l_type = type;
            lock.l_whence = SEEK_SET;
            char ok = (fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0) ? 1 : 0;
            (void)!write(ready[1], &ok, 1);
            char byte;
            (void)!read(release[0], &byte, 1);  // EOF when the parent lets go
            _exit(0);
        }
        close(ready[1]);
        close(release[0]);
        m_release = release[1];
        char ok = 0;
        m_locked = read(ready[0], &ok, 1) == 1 && ok == 1;
        close(ready[0]);
    }
    ~LockHolder() {
        if (m_release >= 0) close(m_release);
        if (m_pid > 0) waitpid(m_pid, nullptr, 0);
    }
    bool locked() const { return m_locked; }

private:
    pid_t m_pid = -1;
    int m_release = -1;
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
        LogMark mark;
        EXPECT_FALSE(CMOXUtil::ReadFile(path, content));
        EXPECT_TRUE(mark.Contains("FAILED TO mReadLock " + path));
        EXPECT_FALSE(CMOXUtil::SaveAsFile("clobber", 7, path));
        EXPECT_TRUE(mark.Contains("FAILED TO mWriteLock " + path));
    }
    {
        // Readers share; a writer is refused and must not truncate the file.
        LockHolder reader(path, F_RDLCK);
        ASSERT_TRUE(reader.locked());
        EXPECT_TRUE(CMOXUtil::ReadFile(path, content));
        EXPECT_EQ("original", content);
        EXPECT_FALSE(CMOXUtil::SaveAsFile("clobber", 7, path));
        EXPECT_EQ("original", ReadTextFile(path));
    }
    // Our own descriptors dropped their locks: the holder's exit freed its.
    EXPECT_TRUE(CMOXUtil::SaveAsFile("after", 5, path));
    EXPECT_TRUE(CMOXUtil::ReadFile(path, content));
    EXPECT_EQ("after", content);
}

// ---- shared memory to file -----------------------------------------------------

class UtilWriteFile : public ::testing::Test {
protected:
    std::string ShmName(const char* tag) {
        return "/moxtest_util_" + std::to_string(getpid()) + "_" + tag;
    }
    // An object of exactly `bytes`, as a client would write it.
    bool MakeShm(const std::string& name, const std::string& bytes) {
        m_names.push_back(name);
        int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        if (fd < 0) return false;
        bool ok = ftruncate(fd, static_cast<off_t>(bytes.size())) == 0 &&
                  pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
        close(fd);
        return ok;
    }
    static std::string Framed(int32_t length, const std::string& body) {
        return std::string(reinterpret_cast<const char*>(&length), sizeof(length)) + body;
    }
    static bool ShmExists(const std::string& name) {
        int fd = shm_open(name.c_str(), O_RDONLY, 0);
        if (fd >= 0) close(fd);
        return fd >= 0;
    }
    void TearDown() override {
        for (const std::string& name : m_names) shm_unlink(name.c_str());
    }

    TempDir m_dir;
    std::vector<std::string> m_names;
};

TEST_F(UtilWriteFile, CopiesContentAndConsumesTheObject) {
    const std::string name = ShmName("ok");
    const std::string body("pay\0load", 8);
    ASSERT_TRUE(MakeShm(name, Framed(8, body) + "trailing slack"));
    ASSERT_TRUE(CMOXUtil::WriteFile(m_dir.file("out").c_str(), name.c_str()));
    EXPECT_EQ(body, ReadTextFile(m_dir.file("out")));
    EXPECT_FALSE(ShmExists(name));

    LogMark mark;
    EXPECT_FALSE(CMOXUtil::WriteFile(m_dir.file("out2").c_str(), name.c_str()));
    EXPECT_TRUE(mark.Contains("CMOXUtil: shm_open [" + name + "] failed."));
}

TEST_F(UtilWriteFile, UnopenableTargetStillConsumesTheObject) {
    const std::string name = ShmName("target");
    ASSERT_TRUE(MakeShm(name, Framed(3, "abc")));
    LogMark mark;
    const std::string target = m_dir.file("missing/dir/out");
    EXPECT_FALSE(CMOXUtil::WriteFile(target.c_str(), name.c_str()));
    EXPECT_TRUE(mark.Contains("CMOXUtil: fopen [" + target + "] failed."));
    EXPECT_FALSE(ShmExists(name));
}

TEST_F(UtilWriteFile, CraftedObjectsAreRefusedAndConsumed) {
    struct Case {
        const char* tag;
        std::string bytes;
        const char* warning;
    } cases[] = {
        {"toolong", Framed(1000, "short"), "out of range"},
        {"huge", Framed(INT32_MAX, "x"), "out of range"},
        {"negative", Framed(-5, "abcdef"), "out of range"},
        {"twobytes", std::string("\x05\x00", 2), "has no length field"},
        {"empty", std::string(), "has no length field"},
        {"zero", Framed(0, "ignored"), "szContext == NULL."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.tag);
        const std::string name = ShmName(c.tag);
        ASSERT_TRUE(MakeShm(name, c.bytes));
        const std::string target = m_dir.file(c.tag);
        LogMark mark;
        EXPECT_FALSE(CMOXUtil::WriteFile(target.c_str(), name.c_str()));
        EXPECT_TRUE(mark.Contains(c.warning)) << mark.Text();
        EXPECT_FALSE(ShmExists(name));
        EXPECT_FALSE(CMOXUtil::IsFileExist(target.c_str()));  // nothing partial left behind
    }
}

// ---- configuration keys and features ------------------------------------------

TEST(UtilPlatform, ConfigurationKeysGoThroughTheKeyStore) {
    TempDir store;
    ASSERT_EQ(0, setenv("MOX_VCONF_DIR", store.path().c_str(), 1));

    int value = 99;
    LogMark mark;
    EXPECT_FALSE(CMOXUtil::GetVConfigValueInt("db/mox/reset_status", &value));
    EXPECT_EQ(99, value);
    EXPECT_FALSE(mark.Contains("Unexpected error code"));  // a missing key is silent

    ASSERT_TRUE(CMOXUtil::SetVConfigValueInt("db/mox/reset_status", 7));
    EXPECT_EQ("7", ReadTextFile(store.file("db/mox/reset_status")).substr(0, 1));
    EXPECT_TRUE(CMOXUtil::GetVConfigValueInt("db/mox/reset_status", &value));
    EXPECT_EQ(7, value);

    // A value another process wrote is read back.
    ASSERT_TRUE(WriteTextFile(store.file("file/private/mediaserver/db_reset"), "-12\n"));
    EXPECT_TRUE(CMOXUtil::GetVConfigValueInt("file/private/mediaserver/db_reset", &value));
    EXPECT_EQ(-12, value);

    EXPECT_FALSE(CMOXUtil::SetVConfigValueInt("../escape", 1));
    EXPECT_FALSE(CMOXUtil::GetVConfigValueInt(nullptr, &value));
    EXPECT_TRUE(mark.Contains("Arguments key or value is NULL"));
    EXPECT_FALSE(CMOXUtil::GetVConfigValueInt("db/mox/reset_status", nullptr));
    EXPECT_FALSE(CMOXUtil::SetVConfigValueInt(nullptr, 1));
    EXPECT_TRUE(mark.Contains("Arguments key is NULL"));
    unsetenv("MOX_VCONF_DIR");
}

TEST(UtilPlatform, KinviewFlagComesFromTheFeaturesFile) {
    TempDir dir;
    const std::string features = dir.file("features");
    ASSERT_EQ(0, setenv("MOX_FEATURES_FILE", features.c_str(), 1));

    LogMark mark;
    EXPECT_FALSE(CMOXUtil::IsSupportKinview());  // no file
    EXPECT_TRUE(mark.Contains("Get kinview Support failed"));

    ASSERT_TRUE(WriteTextFile(features, "12=true\n524=true\n"));
    LogMark on;
    EXPECT_TRUE(CMOXUtil::IsSupportKinview());
    EXPECT_TRUE(on.Contains("Kinview Support : [1]"));

    ASSERT_TRUE(WriteTextFile(features, "524=false\n"));
    LogMark off;
    EXPECT_FALSE(CMOXUtil::IsSupportKinview());
    EXPECT_TRUE(off.Contains("Kinview Support : [0]"));

    ASSERT_TRUE(WriteTextFile(features, "5240=true\n"));
    EXPECT_FALSE(CMOXUtil::IsSupportKinview());
    unsetenv("MOX_FEATURES_FILE");
}

}  // namespace
