// A descriptor written without ever waiting for its reader, at a bounded rate.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform_linux
{

// Lines out of `fd`, whole or not at all. A line that comes too fast or would have to wait is left out, and
// the next one that passes is preceded by "dhcpsnoop: N lines suppressed". Carriage returns are dropped: the
// daemon's texts end in "\r\n" or "\n\r" for the switch's serial console.
class BoundedWriter
{
  public:
    using Clock = uint64_t (*)(); // nanoseconds, never back

    BoundedWriter(int fd, uint32_t linesPerSecond, Clock clock)
        : fd_(fd), rate_(linesPerSecond), clock_(clock)
    {
    }

    void write(const char *data, size_t size);

    uint64_t suppressed() const { return suppressed_; } // since the last line that passed

  private:
    void piece(const char *data, size_t size);
    bool begin_line();
    bool put(const char *data, size_t size);

    int fd_;
    uint32_t rate_;
    Clock clock_;
    uint64_t second_ = 0; // the second that `lines_` counts in
    uint32_t lines_ = 0;
    uint64_t suppressed_ = 0;
    bool inLine_ = false;   // the text is within a line
    bool skipping_ = false; // whose rest is left out
    bool open_ = false;     // the descriptor got a line without its end
};

} // namespace platform_linux
