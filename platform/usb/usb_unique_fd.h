// Move-only owner of a file descriptor, closed when the owner goes.
#pragma once

#include <unistd.h>

#include <utility>

class UsbUniqueFd {
public:
    UsbUniqueFd() = default;
    explicit UsbUniqueFd(int fd) : m_fd(fd) {}
    ~UsbUniqueFd() { Reset(); }
    UsbUniqueFd(UsbUniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UsbUniqueFd& operator=(UsbUniqueFd&& other) noexcept {
        if (this != &other) {
            Reset();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    UsbUniqueFd(const UsbUniqueFd&) = delete;
    UsbUniqueFd& operator=(const UsbUniqueFd&) = delete;

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    void Reset() {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
};
