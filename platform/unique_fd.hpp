#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace kw {

// Sole owner of a file descriptor; nothing else closes one.
class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : m_fd(fd) {}
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    unique_fd(unique_fd&& other) noexcept : m_fd(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    explicit operator bool() const { return valid(); }

    int release() { return std::exchange(m_fd, -1); }
    void reset(int fd = -1)
    {
        int old = std::exchange(m_fd, fd);
        if (old >= 0)
            ::close(old);
    }

private:
    int m_fd = -1;
};

// The two ends of a pipe(2).
struct unique_pipe {
    unique_fd read_end;
    unique_fd write_end;

    // Opens a close-on-exec pipe; false (both ends closed) on failure.
    bool open();
    void close()
    {
        read_end.reset();
        write_end.reset();
    }
};

inline bool unique_pipe::open()
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return false;
    read_end.reset(fds[0]);
    write_end.reset(fds[1]);
    return true;
}

} // namespace kw
