#pragma once

#include <unistd.h>

#include <utility>

// Owns one file descriptor: closed exactly once, by whoever holds it last.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept : m_fd(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const noexcept { return m_fd; }
    bool valid() const noexcept { return m_fd >= 0; }
    explicit operator bool() const noexcept { return valid(); }

    int release() noexcept { return std::exchange(m_fd, -1); }
    void reset(int fd = -1) noexcept
    {
        if (m_fd >= 0 && m_fd != fd)
            ::close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd;
};
