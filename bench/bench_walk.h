// Shared by the walk benchmarks: the raw walk the device check is measured
// against, and a waiter for a scanner's end callback.
#pragma once

#include <dirent.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>

namespace moxbench {

// What the walk does at least: breadth first, one readdir per entry, folders
// queued by d_type, files counted.
inline long RawWalk(const std::string& root) {
    std::deque<std::string> queue{root};
    long files = 0;
    while (!queue.empty()) {
        std::string dir = std::move(queue.front());
        queue.pop_front();
        DIR* stream = opendir(dir.c_str());
        if (!stream) continue;
        while (struct dirent64* e = readdir64(stream)) {
            if (e->d_type == DT_DIR) {
                if (e->d_name[0] == '.' && (e->d_name[1] == 0 || (e->d_name[1] == '.' && e->d_name[2] == 0))) continue;
                queue.push_back(dir + "/" + e->d_name);
            } else {
                ++files;
            }
        }
        closedir(stream);
    }
    return files;
}

// The end callback of a scanner, waited for by the benchmark's thread.
struct EndWaiter {
    std::mutex m;
    std::condition_variable cv;
    int result = 0;
    bool done = false;
    static void OnEnd(void* data, int result) {
        auto* self = static_cast<EndWaiter*>(data);
        std::lock_guard<std::mutex> lock(self->m);
        self->result = result;
        self->done = true;
        self->cv.notify_all();
    }
    int Wait() {
        std::unique_lock<std::mutex> lock(m);
        cv.wait(lock, [&] { return done; });
        done = false;
        return result;
    }
};

}  // namespace moxbench
