// What the event handlers share. Events are netlink messages in host order.
#pragma once

#include <cstring>

#include "dhcpsnoop.h"

constexpr uint32_t EVENT_HEADER_LEN = 16; // length, type, flags, sequence, port id

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

// The message's length as a handler of dhcpsnoop_main.h is told it: what follows the header. A handler called
// with more than the header says is bounded by the header.
int32_t event_payload_length(const uint8_t *message, int32_t length);

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
