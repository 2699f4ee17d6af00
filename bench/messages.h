// The four messages of an exchange as Ethernet frames: DHCP messages of 300 bytes, the least that BOOTP
// relays pass on, in frames of 342; or DHCPv6's four, filled up to the same length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

constexpr size_t DHCP_LENGTH = 300, FRAME_LENGTH = 14 + 20 + 8 + DHCP_LENGTH;

enum class Message : uint8_t { discover = 1, offer = 2, request = 3, ack = 5 };

struct Exchange {
    uint32_t client = 0; // its number: addresses follow from it
    uint32_t giaddr = 0; // replies go to this relay, at `relayMac`, instead of to the client
    const uint8_t *relayMac = nullptr;
    const uint8_t *serverMac = nullptr;
};

// Writes a frame of FRAME_LENGTH bytes with true checksums. `number` tells it apart from all others: it is
// the siaddr; in DHCPv6, where SOLICIT, ADVERTISE, REQUEST and REPLY stand for the four, the IAID. All
// messages of a client have one transaction id.
void write_message(uint8_t *frame, Message message, uint32_t number, const Exchange &exchange);
void write_message6(uint8_t *frame, Message message, uint32_t number, const Exchange &exchange);

// The number of such a message in an Ethernet frame; false when it is none.
bool read_number(std::span<const uint8_t> frame, uint32_t *number);
bool read_number6(std::span<const uint8_t> frame, uint32_t *number);
