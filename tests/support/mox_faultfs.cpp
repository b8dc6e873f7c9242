// A read-only pass-through FUSE file system for tests that makes chosen
// operations hang or fail with EIO, the way a dying USB stick does.
//
//   mox_faultfs BACKING_DIR MOUNT_POINT CONTROL_FILE
//
// CONTROL_FILE holds one rule per line: "ACTION OP SUBSTRING", where ACTION is
// "hang", "eio" or "slow" (30 ms, then passes through), OP one of getattr, readdir, opendir, open, read, statfs
// or "*", and SUBSTRING is matched against the path inside the file system ("*"
// matches every path). The file is re-read whenever its modification time or
// size changes; a hung operation returns (passing through) once no rule holds
// it any more, so a test releases hangs by rewriting the file. Runs in the
// foreground, multi-threaded, until unmounted.
#define FUSE_USE_VERSION 35
#include <dirent.h>
#include <fcntl.h>
#include <fuse3/fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Rule {
    std::string action;
    std::string op;
    std::string needle;
};

std::string g_backing;
std::string g_control;
std::mutex g_mutex;
std::vector<Rule> g_rules;  // guarded by g_mutex
struct timespec g_controlMtime = {0, 0};
off_t g_controlSize = -1;

void ReloadRulesLocked() {
    struct stat st {};
    if (stat(g_control.c_str(), &st) != 0) {
        g_rules.clear();
        g_controlSize = -1;
        return;
    }
    if (st.st_mtim.tv_sec == g_controlMtime.tv_sec && st.st_mtim.tv_nsec == g_controlMtime.tv_nsec &&
        st.st_size == g_controlSize)
        return;
    g_controlMtime = st.st_mtim;
    g_controlSize = st.st_size;
    g_rules.clear();
    std::ifstream in(g_control);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        Rule rule;
        if (words >> rule.action >> rule.op >> rule.needle) g_rules.push_back(rule);
    }
}

// The action of the first rule matching (op, path), or "" when none does.
std::string Match(const char* op, const char* path) {
    std::lock_guard<std::mutex> lock(g_mutex);
    ReloadRulesLocked();
    for (const Rule& rule : g_rules) {
        if (rule.op != "*" && rule.op != op) continue;
        if (rule.needle != "*" && std::strstr(path, rule.needle.c_str()) == nullptr) continue;
        return rule.action;
    }
    return "";
}

// 0 to pass through, or the negative errno the operation must return. Blocks
// while a "hang" rule holds; a "slow" one delays the operation once.
int Fault(const char* op, const char* path) {
    for (;;) {
        const std::string action = Match(op, path);
        if (action == "eio") return -EIO;
        if (action == "slow") std::this_thread::sleep_for(std::chrono::milliseconds(30));
        if (action != "hang") return 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::string Real(const char* path) {
    return g_backing + path;
}

int FsGetattr(const char* path, struct stat* st, struct fuse_file_info*) {
    if (int rc = Fault("getattr", path)) return rc;
    return lstat(Real(path).c_str(), st) == 0 ? 0 : -errno;
}

int FsReadlink(const char* path, char* buf, size_t size) {
    ssize_t n = readlink(Real(path).c_str(), buf, size - 1);
    if (n < 0) return -errno;
    buf[n] = '\0';
    return 0;
}

int FsOpendir(const char* path, struct fuse_file_info*) {
    if (int rc = Fault("opendir", path)) return rc;
    DIR* dir = opendir(Real(path).c_str());
    if (dir == nullptr) return -errno;
    closedir(dir);
    return 0;
}

int FsReaddir(const char* path, void* buf, fuse_fill_dir_t fill, off_t, struct fuse_file_info*,
              enum fuse_readdir_flags) {
    if (int rc = Fault("readdir", path)) return rc;
    DIR* dir = opendir(Real(path).c_str());
    if (dir == nullptr) return -errno;
    while (struct dirent* entry = readdir(dir)) {
        struct stat st {};
        st.st_ino = entry->d_ino;
        st.st_mode = static_cast<mode_t>(DTTOIF(entry->d_type));
        if (fill(buf, entry->d_name, &st, 0, static_cast<fuse_fill_dir_flags>(0)) != 0) break;
    }
    closedir(dir);
    return 0;
}

int FsOpen(const char* path, struct fuse_file_info* fi) {
    if (int rc = Fault("open", path)) return rc;
    int fd = open(Real(path).c_str(), fi->flags);
    if (fd < 0) return -errno;
    fi->fh = static_cast<uint64_t>(fd);
    return 0;
}

int FsRead(const char* path, char* buf, size_t size, off_t offset, struct fuse_file_info* fi) {
    if (int rc = Fault("read", path)) return rc;
    ssize_t n = pread(static_cast<int>(fi->fh), buf, size, offset);
    return n < 0 ? -errno : static_cast<int>(n);
}

int FsRelease(const char*, struct fuse_file_info* fi) {
    close(static_cast<int>(fi->fh));
    return 0;
}

int FsStatfs(const char* path, struct statvfs* st) {
    if (int rc = Fault("statfs", path)) return rc;
    return statvfs(Real(path).c_str(), st) == 0 ? 0 : -errno;
}

void* FsInit(struct fuse_conn_info*, struct fuse_config* cfg) {
    // No kernel caching: every lookup and attribute read must reach the rules.
    cfg->entry_timeout = 0;
    cfg->attr_timeout = 0;
    cfg->negative_timeout = 0;
    cfg->use_ino = 1;
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s BACKING_DIR MOUNT_POINT CONTROL_FILE\n", argv[0]);
        return 2;
    }
    g_backing = argv[1];
    g_control = argv[3];
    struct fuse_operations ops {};
    ops.init = FsInit;
    ops.getattr = FsGetattr;
    ops.readlink = FsReadlink;
    ops.opendir = FsOpendir;
    ops.readdir = FsReaddir;
    ops.open = FsOpen;
    ops.read = FsRead;
    ops.release = FsRelease;
    ops.statfs = FsStatfs;
    // -f foreground; allow_other so the daemon's checks as other users pass.
    std::vector<char*> args = {argv[0], argv[2], const_cast<char*>("-f"), const_cast<char*>("-o"),
                               const_cast<char*>("allow_other,fsname=mox_faultfs")};
    return fuse_main(static_cast<int>(args.size()), args.data(), &ops, nullptr);
}
