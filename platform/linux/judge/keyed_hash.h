// A hash that no sender can aim at: the key is a secret of the process. Parts are put in one after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace platform_linux
{

class KeyedHash
{
  public:
    explicit KeyedHash(uint64_t key) : state_(key) {}

    KeyedHash &add(uint64_t word)
    {
        state_ = (state_ ^ word) * 0x9E3779B97F4A7C15;
        state_ = (state_ ^ state_ >> 32) * 0xD6E8FEB86659FD93;
        state_ ^= state_ >> 29;
        return *this;
    }

    KeyedHash &add(const uint8_t *bytes, size_t count)
    {
        for (size_t at = 0; at < count; at += 8) {
            uint64_t word = 0;
            std::memcpy(&word, bytes + at, count - at < 8 ? count - at : 8);
            add(word);
        }
        return add(count);
    }

    uint64_t value() const { return state_ != 0 ? state_ : 1; } // 0 is nobody's

  private:
    uint64_t state_;
};

} // namespace platform_linux
