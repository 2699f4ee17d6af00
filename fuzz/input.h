// The bytes of one fuzz input, taken from front to back; past the end they are zeros, so that every input means something and a
// longer one means the same until its end. And fault(), which ends the run; scripts/fuzz looks for the word.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

class Input
{
  public:
    Input(const uint8_t *bytes, size_t size) : at_(bytes), left_(size) {}

    bool more() const { return left_ > 0; }
    uint8_t u8()
    {
        if (left_ == 0)
            return 0;
        left_--;
        return *at_++;
    }
    uint16_t u16() { return static_cast<uint16_t>(u8() << 8) | u8(); }
    uint32_t u32() { return uint32_t{u16()} << 16 | u16(); }

    // At most `count` bytes, fewer at the end.
    std::vector<uint8_t> bytes(size_t count)
    {
        count = count < left_ ? count : left_;
        const std::vector<uint8_t> taken(at_, at_ + count);
        at_ += count;
        left_ -= count;
        return taken;
    }

    // A length that is true, or a little off, or anything.
    uint32_t length(size_t truth)
    {
        const uint8_t lie = u8();
        return lie == 0xFF ? u32() : static_cast<uint32_t>(lie < 0xE0 ? truth : truth + lie - 0xF0);
    }

  private:
    const uint8_t *at_;
    size_t left_;
};

[[noreturn]] __attribute__((format(printf, 1, 2))) inline void fault(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    fputs("FAULT: ", stderr);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
    va_end(arguments);
    abort();
}
