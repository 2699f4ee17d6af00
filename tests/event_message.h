// Platform events and other records in host order, and management requests, laid out byte by byte without the daemon's codec.
#pragma once

#include <cstring>

#include "frame.h"

// Bytes of a number as this build keeps it.
template <typename Number>
Bytes host_bytes(Number value)
{
    Bytes bytes(sizeof value);
    memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}
inline Bytes host16(uint32_t value) { return host_bytes(static_cast<uint16_t>(value)); }
inline Bytes host32(uint32_t value) { return host_bytes(value); }

template <typename Number>
Number host_at(const Bytes &bytes, size_t at)
{
    Number value;
    memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}
inline uint16_t host16_at(const Bytes &bytes, size_t at) { return host_at<uint16_t>(bytes, at); }
inline uint32_t host32_at(const Bytes &bytes, size_t at) { return host_at<uint32_t>(bytes, at); }

// One message: length, type, flags, sequence, port id, payload.
inline Bytes event_message(uint16_t type, const Bytes &payload = {})
{
    return host32(static_cast<uint32_t>(16 + payload.size())) + host16(type) + host16(0) + host32(0) + host32(0) + payload;
}

// Index items of a request: one of one word, the three of a user key.
inline Bytes request_index(uint32_t value) { return Bytes{2, 0, 4} + be32(value); }
inline Bytes request_key(uint8_t ipType, Bytes address)
{
    address.resize(16);
    return Bytes{0, 0, 1, ipType, 0, 0, 3, 0, 0, 0, 0, 0, 16} + address;
}
// One to the switch counts no index item, and carries one.
inline Bytes request_bytes(uint32_t func, uint32_t cmd, const Bytes &index, uint8_t type, const Bytes &value)
{
    Bytes bytes;
    for (const uint32_t word : {func, 0xAAAAAAAAu, cmd})
        bytes = bytes + Bytes{0, 2, 0, 4} + be32(word);
    const size_t count = func < 3 ? 0 : index.size() == 29 ? 3
                                                           : index.size() / 7;
    return bytes + Bytes{1, static_cast<uint8_t>(count)} + index + Bytes{3, type} + be16(static_cast<uint32_t>(value.size())) + value;
}
