// Platform events and other records in host order, laid out byte by byte for tests.
#pragma once

#include <cstring>
#include <optional>

#include "frame.h"

// Bytes of a number as this build keeps it.
inline Bytes host16(uint32_t value)
{
    const auto half = static_cast<uint16_t>(value);
    Bytes bytes(sizeof half);
    memcpy(bytes.data(), &half, sizeof half);
    return bytes;
}

inline Bytes host32(uint32_t value)
{
    Bytes bytes(sizeof value);
    memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

inline uint16_t host16_at(const Bytes &bytes, size_t at)
{
    uint16_t value;
    memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

inline uint32_t host32_at(const Bytes &bytes, size_t at)
{
    uint32_t value;
    memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

// One message: length, type, flags, sequence, port id, payload. The length is true unless the test says
// otherwise.
inline Bytes event_message(uint16_t type, const Bytes &payload = {}, std::optional<uint32_t> length = {})
{
    const auto whole = static_cast<uint32_t>(16 + payload.size());
    return host32(length.value_or(whole)) + host16(type) + host16(0) + host32(0) + host32(0) + payload;
}

// A link attribute as it stands, without the padding behind it.
inline Bytes link_attribute(uint16_t type, const Bytes &value = {}, std::optional<uint16_t> length = {})
{
    return host16(length.value_or(static_cast<uint16_t>(4 + value.size()))) + host16(type) + value;
}
