// Owns one file descriptor; early returns cannot leak it.
#pragma once

#include <unistd.h>

class FdHandle {
public:
    FdHandle() = default;
    explicit FdHandle(int fd) : m_fd(fd) {}
    ~FdHandle() { reset(); }
    FdHandle(const FdHandle &) = delete;
    FdHandle &operator=(const FdHandle &) = delete;
    FdHandle(FdHandle &&other) noexcept : m_fd(other.release()) {}
    FdHandle &operator=(FdHandle &&other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    int release()
    {
        int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void reset(int fd = -1)
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd = -1;
};
