// The gates of the debug messages. Each text stands whole at its call; arguments are not evaluated while the
// gate is shut.
#pragma once

#include "platform.h"

inline bool debug_info_on() { return (gDhcpsnoop.debugFlags & DHCPSNOOP_DEBUG_INFO) != 0; }

inline bool debug_dump_on() { return (gDhcpsnoop.debugFlags & DHCPSNOOP_DEBUG_DUMP) != 0; }

// The trace of a frame: information bit.
#define DEBUG_TRACE(...) (debug_info_on() ? NM_DEBUG_OUTPUT(__VA_ARGS__) : void())
// The main loop's complaints about a received frame: dump bit.
#define DEBUG_RX(...) (debug_dump_on() ? NM_DEBUG_OUTPUT(__VA_ARGS__) : void())
// Everything else: either bit.
#define DEBUG_EVENT(...) (debug_info_on() || debug_dump_on() ? NM_DEBUG_OUTPUT(__VA_ARGS__) : void())
// A rung of a validation ladder: trace the reason, give -1.
#define DEBUG_REJECT(...) (DEBUG_TRACE(__VA_ARGS__), -1)

// The bytes in hexadecimal on standard output, 16 a line, under the dump bit. Nothing when there are none.
void debug_dump(const uint8_t *bytes, uint32_t count);

// Room for "xx:xx:xx:xx:xx:xx" and for the text of any IPv4 or IPv6 address, with the terminator.
struct MacText {
    char text[18];
};
struct AddressText {
    char text[48];
};

MacText mac_text(const uint8_t mac[6]);                // null reads as zeros
AddressText address_text(const DhcpsnoopUserKey &key); // IPv4 when ipType is 1, IPv6 otherwise
AddressText ipv4_text(const uint8_t address[4]);       // network order
AddressText ipv4_text(uint32_t address);               // numeric
const char *user_type_word(uint8_t userType);          // "dynamic", "static", "other"

struct IfText {
    char text[64];
};
IfText if_name(uint32_t ifIndex);        // empty when the platform gives none
IfText if_description(uint32_t ifIndex); // likewise
