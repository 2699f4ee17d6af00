#include "logging.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform.h"

namespace platform_linux
{
namespace
{
constexpr const char *IDENTITY = "dhcpsnoop";
constexpr uint32_t LINES_PER_SECOND = 5000; // about 20 ms of the second
constexpr size_t PIECE_MAX = 4096;          // what a pipe with any room takes at once (PIPE_BUF)
constexpr size_t LOG_LINE_MAX = 1024;
constexpr uint64_t SECOND = 1'000'000'000;

uint64_t monotonic_now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * SECOND + static_cast<uint64_t>(now.tv_nsec);
}

BoundedWriter standardOutput(STDOUT_FILENO, LINES_PER_SECOND, monotonic_now);

ssize_t write_stdout(void *, const char *data, size_t size)
{
    standardOutput.write(data, size);
    return static_cast<ssize_t>(size); // an error would make stdio keep and repeat the text
}

// Standard error is the journal, to which the system log goes as well (systemd.exec(5), JOURNAL_STREAM).
bool stderr_is_journal()
{
    const char *stream = getenv("JOURNAL_STREAM");
    struct stat status = {};
    if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0)
        return false;
    return std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == stream;
}

// One line: no line ends, nothing that a terminal could act upon.
__attribute__((format(printf, 2, 0))) void log_line(int priority, const char *format, va_list arguments)
{
    std::array<char, LOG_LINE_MAX> line;
    const int length = vsnprintf(line.data(), line.size(), format, arguments);
    if (length < 0)
        return;
    size_t end = std::min(static_cast<size_t>(length), line.size() - 1);
    while (end > 0 && (line[end - 1] == '\r' || line[end - 1] == '\n' || line[end - 1] == ' '))
        end--;
    line[end] = 0;
    for (size_t i = 0; i < end; i++)
        if (static_cast<unsigned char>(line[i]) < ' ' || line[i] == 0x7F)
            line[i] = ' ';
    syslog(LOG_DAEMON | priority, "%s", line.data());
}
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

void logging_start()
{
    openlog(IDENTITY, LOG_PID, LOG_DAEMON);
    static std::array<char, 16384> buffer;
    cookie_io_functions_t functions{};
    functions.write = write_stdout;
    FILE *stream = fopencookie(nullptr, "w", functions);
    if (stream == nullptr)
        return;
    setvbuf(stream, buffer.data(), _IOLBF, buffer.size());
    fflush(stdout);
    stdout = stream; // glibc's is a variable; printf goes through it too
}

void platform_report(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::array<char, LOG_LINE_MAX> line;
    vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    if (!stderr_is_journal())
        fprintf(stderr, "%s: %s\n", IDENTITY, line.data());
    syslog(LOG_DAEMON | priority, "%s", line.data());
}

} // namespace platform_linux

using namespace platform_linux;

// The switch's module and level numbers say nothing here: what the daemon logs are its bindings' comings and
// goings.
void zlog_dispatch_logging(int32_t, int32_t, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_line(LOG_INFO, format, arguments);
    va_end(arguments);
}

void NM_DEBUG_OUTPUT(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
}
