#define MOX_LOG_TAG "MOX-USB"
#include <mox/mox_log.h>

#include "usb_poll_thread.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>
#include <exception>
#include <system_error>

int UsbPollThread::Start(std::function<void(int stopFd)> body) {
    assert(!m_thread.joinable());
    mox_util::UniqueFd stopFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stopFd.IsValid()) {
        int err = errno;
        MOX_WARN("eventfd failed (%d)", err);
        return -err;
    }
    int fd = stopFd.Get();
    try {
        m_thread = std::thread([fd, body = std::move(body)]() {
            try {
                body(fd);
            } catch (const std::exception& e) {
                MOX_WARN("USB service thread ended by exception: %s", e.what());
            } catch (...) {
                MOX_WARN("USB service thread ended by unknown exception");
            }
        });
    } catch (const std::system_error& e) {
        MOX_WARN("cannot start USB service thread: %s", e.what());
        return -EAGAIN;
    }
    m_stopFd = std::move(stopFd);
    return 0;
}

void UsbPollThread::Stop() {
    if (!m_thread.joinable()) return;
    uint64_t one = 1;
    // An eventfd write of 1 cannot fail short of a counter overflow, which
    // one write per Stop never reaches.
    while (write(m_stopFd.Get(), &one, sizeof(one)) < 0 && errno == EINTR) {
    }
    m_thread.join();
    m_stopFd.Reset();
}
