// Byte order. Multi-byte fields of frames are read and written here only, byte by byte, so that neither the
// host's order nor the alignment behind a 14-byte header matters.
#pragma once

#include <cstdint>

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
