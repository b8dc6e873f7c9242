// The SQLite layer of the index on a full disk: a real ext4 image with 1 KiB
// blocks (what mkfs makes for a small one), filled to a few KiB of room, and
// a writer in a child process, so that a SIGBUS ends the child and not the
// test.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "fault_mounts.h"
#include "mox_sqlite.h"
#include "mox_sqlite_shm.h"

namespace fs = std::filesystem;

namespace {

// Leaves about `nFreeKiB` KiB free on the file system of `dir`, as root sees it.
bool FillLeaving(const std::string& dir, int nFreeKiB) {
    fs::remove(dir + "/filler");
    { std::ofstream(dir + "/gap") << std::string(static_cast<size_t>(nFreeKiB) * 1024, 'x'); }
    const int fd = open((dir + "/filler").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    off_t nAt = 0;
    for (off_t nChunk : {off_t(1) << 20, off_t(1) << 16, off_t(1) << 12, off_t(1) << 10})
        while (posix_fallocate(fd, nAt, nChunk) == 0) nAt += nChunk;
    close(fd);
    fs::remove(dir + "/gap");
    sync();
    return nAt > 0;
}

// 0: the insert went in; 1: SQLite said the disk is full; 2: another error;
// anything else: the child died (100 + the signal, or 200 + the exit code of
// a sanitizer that caught the signal).
int InsertInChild(const std::string& db) {
    const pid_t pid = fork();
    if (pid == 0) {
        int rc;
        {
            mox_sql::CMOXSqliteDb conn;
            rc = conn.Open(db, SQLITE_OPEN_READWRITE);
            if (rc == SQLITE_OK) rc = conn.Exec("PRAGMA journal_mode=WAL");
            if (rc == SQLITE_OK) rc = conn.Exec("INSERT INTO t VALUES (randomblob(100))");
        }  // closed: the next child makes the -shm anew
        _exit(rc == SQLITE_OK ? 50 : (rc & 0xff) == SQLITE_FULL ? 51 : 52);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    if (WIFSIGNALED(status)) return 100 + WTERMSIG(status);
    const int nCode = WEXITSTATUS(status);
    return nCode >= 50 && nCode <= 52 ? nCode - 50 : 200 + nCode;
}

}  // namespace

// A fresh WAL index file on a disk with less room than one index region
// needs: every write either goes in or fails as "full"; none kills the
// writer, and once there is room again nothing is lost or damaged.
TEST(SqliteShm, AFullDiskFailsAWriteAndNeverKillsTheWriter) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a loop mount";
    char szTemplate[] = "/tmp/mox-sqlite-XXXXXX";
    ASSERT_NE(mkdtemp(szTemplate), nullptr);
    const std::string base = szTemplate;
    const std::string disk = base + "/disk";
    fs::create_directories(disk);
    {
        moxtest::LoopFs loop(base + "/disk.img", disk, 16);
        if (!loop.Mounted()) GTEST_SKIP() << loop.Why();
        ASSERT_TRUE(mox_sql::UseAllocatingShm());
        const std::string db = disk + "/t.db";
        {
            mox_sql::CMOXSqliteDb conn;
            ASSERT_EQ(conn.Open(db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE), SQLITE_OK);
            ASSERT_EQ(conn.Exec("PRAGMA journal_mode=WAL; CREATE TABLE t(x)"), SQLITE_OK);
        }
        int nInserted = 0, nFull = 0;
        for (int nFreeKiB = 36; nFreeKiB >= 4; nFreeKiB -= 4) {
            ASSERT_TRUE(FillLeaving(disk, nFreeKiB));
            const int nResult = InsertInChild(db);
            ASSERT_TRUE(nResult == 0 || nResult == 1)
                << nFreeKiB << " KiB free: " << nResult << " (2xx: the child died)";
            (nResult == 0 ? nInserted : nFull) += 1;
        }
        EXPECT_GT(nFull, 0);  // the disk did run full
        fs::remove(disk + "/filler");
        sync();
        mox_sql::CMOXSqliteDb conn;
        ASSERT_EQ(conn.Open(db, SQLITE_OPEN_READWRITE), SQLITE_OK);
        int64_t nRows = -1;
        EXPECT_TRUE(conn.QueryInt("SELECT count(*) FROM t", nRows));
        EXPECT_GE(nRows, nInserted);
        EXPECT_EQ(conn.Exec("INSERT INTO t VALUES (1)"), SQLITE_OK);
        mox_sql::CMOXSqliteStmt check;
        ASSERT_EQ(conn.Prepare("PRAGMA quick_check", check), SQLITE_OK);
        ASSERT_EQ(check.Step(), SQLITE_ROW);
        EXPECT_EQ(check.Bytes(0), "ok");
    }
    fs::remove_all(base);
}
