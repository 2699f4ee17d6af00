// The bytes of one fuzz input, taken from front to back. Reading past the end gives zeros, so that every
// input means something and a longer one means the same until its end.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
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
    uint16_t u16()
    {
        const uint8_t high = u8();
        return static_cast<uint16_t>(high << 8 | u8());
    }
    uint32_t u32()
    {
        const uint32_t high = u16();
        return high << 16 | u16();
    }

    // At most `count` bytes, fewer at the end.
    std::vector<uint8_t> bytes(size_t count)
    {
        count = count < left_ ? count : left_;
        const std::vector<uint8_t> taken(at_, at_ + count);
        at_ += count;
        left_ -= count;
        return taken;
    }

    // One of a table's values, by a byte.
    template <class Value, size_t Count> Value pick(const std::array<Value, Count> &values)
    {
        return values[u8() % Count];
    }

    // A length that is true, or a little off, or anything.
    uint32_t length(size_t truth)
    {
        const uint8_t lie = u8();
        if (lie < 0xE0)
            return static_cast<uint32_t>(truth);
        return lie == 0xFF ? u32() : static_cast<uint32_t>(truth + lie - 0xF0);
    }

  private:
    const uint8_t *at_;
    size_t left_;
};
