#include "shm_test_util.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

namespace moxtest {

namespace {

std::mutex g_trackMutex;
// By inode too: once ours is unlinked, another process may reuse the name.
std::set<std::pair<std::string, ino_t>>& Tracked() {
    static std::set<std::pair<std::string, ino_t>> s_objects;
    return s_objects;
}

bool InodeOf(const std::string& strName, ino_t& nInode) {
    struct stat st;
    if (stat(("/dev/shm/" + strName).c_str(), &st) != 0) return false;
    nInode = st.st_ino;
    return true;
}

class ShmTestEnvironment : public ::testing::Environment {
public:
    void TearDown() override {
        std::lock_guard<std::mutex> lock(g_trackMutex);
        for (const auto& object : Tracked()) {
            ino_t nInode;
            if (InodeOf(object.first, nInode) && nInode == object.second) {
                ADD_FAILURE() << "left in /dev/shm: " << object.first;
                shm_unlink(object.first.c_str());
            }
        }
    }
};

::testing::Environment* const g_env = ::testing::AddGlobalTestEnvironment(new ShmTestEnvironment);

}  // namespace

bool ShmExists(const std::string& strName) {
    ino_t nInode;
    if (!InodeOf(strName, nInode)) return false;
    std::lock_guard<std::mutex> lock(g_trackMutex);
    return Tracked().count({strName, nInode}) != 0;
}

std::string ReadShm(const std::string& strName) {
    return ReadTextFile("/dev/shm/" + strName);
}

bool WriteShm(const std::string& strName, const std::string& bytes) {
    shm_unlink(strName.c_str());
    return PlantShm(strName, bytes);
}

bool WriteSparseShm(const std::string& strName, const std::string& head, int64_t nSize) {
    if (!WriteShm(strName, head)) return false;
    int fd = shm_open(strName.c_str(), O_RDWR, 0600);
    if (fd < 0) return false;
    bool ok = ftruncate(fd, nSize) == 0;
    close(fd);
    return ok;
}

bool PlantShm(const std::string& strName, const std::string& bytes) {
    int fd = shm_open(strName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return false;
    TrackShm(strName);
    bool ok = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    close(fd);
    return ok;
}

size_t CountWarnings(const std::string& text, const std::string& needle) {
    size_t nCount = 0;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.find(needle) != std::string::npos && line.find("[WARNNING]") != std::string::npos) ++nCount;
    return nCount;
}

int32_t Int32At(const std::string& bytes, size_t nOffset) {
    int32_t n = 0;
    if (nOffset + 4 <= bytes.size()) memcpy(&n, bytes.data() + nOffset, 4);
    return n;
}

void PutInt32(std::string& bytes, size_t nOffset, int32_t nValue) {
    if (bytes.size() < nOffset + 4) bytes.resize(nOffset + 4, '\0');
    memcpy(&bytes[nOffset], &nValue, 4);
}

void TrackShm(const std::string& strName) {
    ino_t nInode;
    if (!InodeOf(strName, nInode)) return;
    std::lock_guard<std::mutex> lock(g_trackMutex);
    Tracked().emplace(strName, nInode);
}

int RunProgram(const std::vector<std::string>& argv, std::string& strOutput) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        close(fds[0]);
        close(fds[1]);
        std::vector<char*> args;
        for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(fds[1]);
    strOutput.clear();
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) strOutput.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace moxtest
