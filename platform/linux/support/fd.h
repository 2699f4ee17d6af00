// The owner of a file descriptor.
#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace platform_linux
{

// Owns one descriptor, or none (-1), and closes it. Closing leaves errno as it was.
class Fd
{
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~Fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // Gives the descriptor away: the caller closes it.
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }

    void reset(int fd = -1)
    {
        const int error = errno;
        const int old = std::exchange(fd_, fd);
        if (old >= 0 && old != fd)
            close(old);
        errno = error;
    }

  private:
    int fd_ = -1;
};

} // namespace platform_linux
