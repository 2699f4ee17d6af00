// The message of an event as its handlers read it, in host order, and the handlers of event_check.cpp and
// event_card.cpp.
#pragma once

#include <algorithm>
#include <cstring>

#include "dhcpsnoop.h"

constexpr uint32_t EVENT_HEADER_LEN = 16; // length, type, flags, sequence, port id
constexpr uint32_t EVENT_LENGTH = 0, EVENT_TYPE = 4;

// One message of a datagram. Everything read from it is bounded by `length`.
struct Event {
    const uint8_t *datagram; // at least EVENT_HEADER_LEN bytes
    uint8_t *message;
    uint32_t length; // its length field: at least EVENT_HEADER_LEN, and all there
};

// Host order; no alignment is assumed.
inline uint32_t event_get32(const uint8_t *p)
{
    uint32_t value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

inline uint16_t event_get16(const uint8_t *p)
{
    uint16_t value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

inline int32_t event_payload_length(const Event &event)
{
    return static_cast<int32_t>(event.length - EVENT_HEADER_LEN);
}

// For a handler that is called with a message and a payload length: never more than the header says.
inline int32_t event_payload_length(const uint8_t *message, int32_t length)
{
    const auto whole = static_cast<int64_t>(event_get32(message + EVENT_LENGTH));
    return static_cast<int32_t>(std::min<int64_t>(length, whole - EVENT_HEADER_LEN));
}

void event_dai_start(const Event &event);
void event_dai_stop(const Event &event);
void event_ipsg_change(const Event &event);
void event_dai_change(const Event &event);
void event_users_update(const Event &event);

void event_subsystem_up(const Event &event);
void event_card_up(const Event &event);
void event_card_down(const Event &event);
void event_slot_up(const Event &event);
void event_slot_down(const Event &event);
