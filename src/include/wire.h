// Byte order, and bounded walks over wire bytes. Multi-byte fields of frames are read and written here only,
// byte by byte, so that neither the host's order nor the alignment behind a 14-byte header matters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

constexpr uint16_t wire_get16(const uint8_t *p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

constexpr uint32_t wire_get32(const uint8_t *p)
{
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

constexpr void wire_put16(uint8_t *p, uint32_t value)
{
    p[0] = static_cast<uint8_t>(value >> 8);
    p[1] = static_cast<uint8_t>(value);
}

constexpr void wire_put32(uint8_t *p, uint32_t value)
{
    wire_put16(p, value >> 16);
    wire_put16(p + 2, value & 0xFFFF);
}

// A walk over [begin, end). The first read past the end sets `overrun` and gives 0, and so does every later
// one.
class WireReader
{
  public:
    WireReader(const uint8_t *begin, size_t size) : begin_(begin), size_(size) {}

    uint8_t get8() { return take(1) ? begin_[pos_ - 1] : uint8_t{0}; }
    uint16_t get16() { return take(2) ? wire_get16(begin_ + pos_ - 2) : uint16_t{0}; }
    uint32_t get32() { return take(4) ? wire_get32(begin_ + pos_ - 4) : 0; }
    void skip(size_t count) { take(count); }

    size_t position() const { return pos_; }
    size_t left() const { return overrun_ ? 0 : size_ - pos_; }
    bool overrun() const { return overrun_; }

  private:
    bool take(size_t count)
    {
        if (count > left()) {
            overrun_ = true;
            return false;
        }
        pos_ += count;
        return true;
    }

    const uint8_t *begin_;
    size_t size_;
    size_t pos_ = 0;
    bool overrun_ = false;
};
