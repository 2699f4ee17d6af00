// The part of platform.h that takes texts. The standard streams are written through a BoundedWriter each: a
// reader that stops, or traces faster than anybody reads, cost lines and never time.
#include "logging.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <unistd.h>

#include "bounded_writer.h"
#include "platform.h"
#include "report.h"

namespace platform_linux
{
namespace
{
constexpr uint32_t LINES_PER_SECOND = 5000; // about 20 ms of the second
constexpr size_t LOG_LINE_MAX = 1024;

uint64_t monotonic_now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

struct Stream {
    BoundedWriter writer;
    std::array<char, 16384> buffer;
};
Stream output{
    {STDOUT_FILENO,  LINES_PER_SECOND, monotonic_now},
    {             }
};
Stream errors{
    {STDERR_FILENO,  LINES_PER_SECOND, monotonic_now},
    {             }
};

ssize_t write_stream(void *stream, const char *data, size_t size)
{
    static_cast<Stream *>(stream)->writer.write(data, size);
    return static_cast<ssize_t>(size); // an error would make stdio keep and repeat the text
}

// glibc's standard streams are variables; printf and perror go through them too.
void replace(FILE *&standard, Stream &stream)
{
    cookie_io_functions_t functions{};
    functions.write = write_stream;
    FILE *bounded = fopencookie(&stream, "w", functions);
    if (bounded == nullptr)
        return;
    setvbuf(bounded, stream.buffer.data(), _IOLBF, stream.buffer.size());
    fflush(standard);
    standard = bounded;
}
} // namespace

void logging_start()
{
    replace(stdout, output);
    replace(stderr, errors);
    report_start();
}

} // namespace platform_linux

using namespace platform_linux;

// The switch's module and level numbers say nothing here: the daemon logs the coming and going of its
// bindings. One line without line ends, and without bytes that a terminal could act upon.
void zlog_dispatch_logging(int32_t, int32_t, const char *format, ...)
{
    std::array<char, LOG_LINE_MAX> line;
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    if (length < 0)
        return;
    size_t end = std::min(static_cast<size_t>(length), line.size() - 1);
    while (end > 0 && (line[end - 1] == '\r' || line[end - 1] == '\n' || line[end - 1] == ' '))
        end--;
    line[end] = 0;
    for (size_t i = 0; i < end; i++)
        if (static_cast<unsigned char>(line[i]) < ' ' || line[i] == 0x7F)
            line[i] = ' ';
    system_log(LOG_INFO, line.data());
}

void NM_DEBUG_OUTPUT(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
}
