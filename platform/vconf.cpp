// Configuration-key store over plain files. Change notification uses one
// inotify descriptor watched from the default GLib main context, so callbacks
// run on the thread that runs that context (the daemon's main loop), whichever
// process made the change.
#include <vconf.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <glib-unix.h>
#include <glib.h>

#include <mox_host_paths.h>
#include <mox_unique_fd.h>

#include "mox_thread_annotations.h"

struct _keynode_t {
    std::string name;
    int value = 0;
};

namespace {

constexpr int kVconfTypeInt = 41;  // the platform's type code of integer keys

std::string StoreDir() {
    return mox_host::VconfDir();
}

// A key is a relative path of plain components: no "", ".", ".." and no
// leading slash, so a key can never name a file outside the store.
bool IsValidKey(const char* key) {
    if (!key || !*key || strlen(key) > 1024) return false;
    std::string k(key);
    size_t start = 0;
    while (start <= k.size()) {
        size_t end = k.find('/', start);
        if (end == std::string::npos) end = k.size();
        std::string part = k.substr(start, end - start);
        if (part.empty() || part == "." || part == "..") return false;
        start = end + 1;
    }
    return true;
}

bool MakeDirs(const std::string& dir) {
    if (dir.empty()) return true;
    struct stat st;
    if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    size_t slash = dir.rfind('/');
    if (slash != std::string::npos && slash > 0 && !MakeDirs(dir.substr(0, slash))) return false;
    return mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST;
}

bool ReadKeyFile(const std::string& path, int* out) {
    mox_util::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsValid()) return false;
    char buf[64];
    ssize_t n = read(file.Get(), buf, sizeof(buf) - 1);
    if (n <= 0) return false;
    buf[n] = '\0';
    errno = 0;
    char* end = nullptr;
    long value = strtol(buf, &end, 10);
    if (end == buf || errno != 0 || value < INT_MIN || value > INT_MAX) return false;
    while (*end == ' ' || *end == '\n' || *end == '\t' || *end == '\r') ++end;
    if (*end != '\0') return false;
    *out = static_cast<int>(value);
    return true;
}

struct Watcher {
    std::string key;
    std::string dir;   // absolute directory holding the key file
    std::string base;  // file name of the key inside dir
    int wd = -1;
    vconf_callback_fn cb = nullptr;
    void* userData = nullptr;
};

mox::Mutex g_mutex;
int g_inotifyFd GUARDED_BY(g_mutex) = -1;  // lives for the process
guint g_sourceId GUARDED_BY(g_mutex) = 0;
std::vector<Watcher> g_watchers GUARDED_BY(g_mutex);

gboolean OnInotify(gint fd, GIOCondition, gpointer) {
    alignas(struct inotify_event) char buf[8192];
    ssize_t len = read(fd, buf, sizeof(buf));
    if (len <= 0) return G_SOURCE_CONTINUE;
    for (char* p = buf; p < buf + len;) {
        auto* ev = reinterpret_cast<struct inotify_event*>(p);
        p += sizeof(struct inotify_event) + ev->len;
        if (ev->len == 0) continue;
        std::string name(ev->name);
        // Collect under the lock, call without it: a callback may register or
        // read keys itself.
        std::vector<Watcher> hits;
        {
            mox::MutexLock lock(g_mutex);
            for (const Watcher& w : g_watchers)
                if (w.wd == ev->wd && w.base == name) hits.push_back(w);
        }
        for (const Watcher& w : hits) {
            keynode_t node;
            node.name = w.key;
            if (!ReadKeyFile(w.dir + "/" + w.base, &node.value)) continue;
            w.cb(&node, w.userData);
        }
    }
    return G_SOURCE_CONTINUE;
}

}  // namespace

extern "C" int vconf_get_int(const char* key, int* intval) {
    if (!IsValidKey(key) || !intval) return -1;
    int value = 0;
    if (!ReadKeyFile(StoreDir() + "/" + key, &value)) return -1;
    *intval = value;
    return 0;
}

extern "C" int vconf_set_int(const char* key, int intval) {
    if (!IsValidKey(key)) return -1;
    std::string path = StoreDir() + "/" + key;
    std::string dir = path.substr(0, path.rfind('/'));
    if (!MakeDirs(dir)) return -1;
    std::string tmpl = path + ".XXXXXX";
    int fd = mkostemp(tmpl.data(), O_CLOEXEC);
    if (fd < 0) return -1;
    std::string text = std::to_string(intval) + "\n";
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ok = (fchmod(fd, 0644) == 0) && ok;
    ok = (close(fd) == 0) && ok;
    // The rename is what makes the new value appear at once to readers and
    // watchers in every process.
    if (!ok || rename(tmpl.c_str(), path.c_str()) != 0) {
        unlink(tmpl.c_str());
        return -1;
    }
    return 0;
}

extern "C" int vconf_notify_key_changed(const char* key, vconf_callback_fn cb, void* user_data) {
    if (!IsValidKey(key) || !cb) return -1;
    std::string path = StoreDir() + "/" + key;
    Watcher w;
    w.key = key;
    w.dir = path.substr(0, path.rfind('/'));
    w.base = path.substr(path.rfind('/') + 1);
    w.cb = cb;
    w.userData = user_data;
    // The directory must exist to be watched, even before the key is first set.
    if (!MakeDirs(w.dir)) return -1;

    mox::MutexLock lock(g_mutex);
    for (const Watcher& other : g_watchers)
        if (other.key == w.key && other.cb == cb) return 0;
    if (g_inotifyFd < 0) {
        g_inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (g_inotifyFd < 0) return -1;
        g_sourceId = g_unix_fd_add(g_inotifyFd, G_IO_IN, OnInotify, nullptr);
    }
    w.wd = inotify_add_watch(g_inotifyFd, w.dir.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO);
    if (w.wd < 0) return -1;
    g_watchers.push_back(std::move(w));
    return 0;
}

extern "C" int vconf_ignore_key_changed(const char* key, vconf_callback_fn cb) {
    if (!key || !cb) return -1;
    mox::MutexLock lock(g_mutex);
    for (auto it = g_watchers.begin(); it != g_watchers.end(); ++it) {
        if (it->key == key && it->cb == cb) {
            int wd = it->wd;
            g_watchers.erase(it);
            bool shared = false;
            for (const Watcher& other : g_watchers) shared = shared || other.wd == wd;
            if (!shared) inotify_rm_watch(g_inotifyFd, wd);
            return 0;
        }
    }
    return -1;
}

extern "C" const char* vconf_keynode_get_name(keynode_t* keynode) {
    return keynode ? keynode->name.c_str() : nullptr;
}

extern "C" int vconf_keynode_get_int(keynode_t* keynode) {
    return keynode ? keynode->value : 0;
}

extern "C" int vconf_keynode_get_type(keynode_t* keynode) {
    return keynode ? kVconfTypeInt : -1;
}
