// The thread of a USB backend: runs the backend's loop and stops it through
// an eventfd that the loop polls beside its own descriptors. Start and Stop
// are called by the service's init and fini, never concurrently.
#pragma once

#include <functional>
#include <thread>

#include <mox_unique_fd.h>

class UsbPollThread {
public:
    UsbPollThread() = default;
    ~UsbPollThread() { Stop(); }
    UsbPollThread(const UsbPollThread&) = delete;
    UsbPollThread& operator=(const UsbPollThread&) = delete;

    // Runs body(stopFd) on a new thread; body must return soon after stopFd
    // becomes readable. Exceptions leaving body are logged and end the
    // thread. 0, or a negative errno value when no thread could be made.
    int Start(std::function<void(int stopFd)> body);
    // Makes stopFd readable and joins the thread; a no-op when not running.
    void Stop();

private:
    mox_util::UniqueFd m_stopFd;
    std::thread m_thread;
};
