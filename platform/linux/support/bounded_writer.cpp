#include "bounded_writer.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace platform_linux
{
namespace
{
constexpr size_t PIECE_MAX = 4096; // a pipe with any room takes so much at once (PIPE_BUF)
constexpr uint64_t SECOND = 1'000'000'000;
} // namespace

// False when not all of it could be written without waiting. `size` is at most PIECE_MAX.
bool BoundedWriter::put(const char *data, size_t size)
{
    while (size > 0) {
        ssize_t written = send(fd_, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (written < 0 && errno == ENOTSOCK) {
            // A pipe that has room for a byte has it for PIPE_BUF. Not O_NONBLOCK: others have the same open
            // file.
            pollfd room = {fd_, POLLOUT, 0};
            if (poll(&room, 1, 0) != 1 || (room.revents & POLLOUT) == 0)
                return false;
            written = ::write(fd_, data, size);
        }
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        open_ = data[written - 1] != '\n';
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

bool BoundedWriter::begin_line()
{
    const uint64_t second = clock_() / SECOND;
    if (second != second_)
        lines_ = 0;
    second_ = second;
    if (lines_ >= rate_)
        return false;
    lines_++;
    if (open_ && !put("\n", 1))
        return false;
    if (suppressed_ == 0)
        return true;
    std::array<char, 64> note;
    const int length = snprintf(note.data(), note.size(), "dhcpsnoop: %llu lines suppressed\n",
                                static_cast<unsigned long long>(suppressed_));
    if (!put(note.data(), static_cast<size_t>(length)))
        return false;
    suppressed_ = 0;
    return true;
}

void BoundedWriter::piece(const char *data, size_t size)
{
    const bool ends = data[size - 1] == '\n';
    if (!inLine_)
        skipping_ = !begin_line();
    if (!skipping_)
        skipping_ = !put(data, size);
    if (ends && skipping_)
        suppressed_++;
    inLine_ = !ends;
}

void BoundedWriter::write(const char *data, size_t size)
{
    std::array<char, PIECE_MAX> plain;
    size_t used = 0;
    for (size_t i = 0; i < size; i++) {
        if (data[i] == '\r')
            continue;
        plain[used++] = data[i];
        if (data[i] != '\n' && used < plain.size())
            continue;
        piece(plain.data(), used);
        used = 0;
    }
    if (used > 0)
        piece(plain.data(), used);
}

} // namespace platform_linux
