// A management request and its reply from the client's side: the bytes of a request, and the check of a
// reply. The reply is not trusted: no length in it is believed.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <variant>
#include <vector>

#include "adr.h"
#include "management.h"

using AdrBytes = std::vector<uint8_t>;

struct AdrUserKey {
    uint8_t ipType = 0;               // 1 IPv4, 2 IPv6
    std::array<uint8_t, 16> ipAddr{}; // network order, IPv4 in the first 4, the rest zero
    auto operator<=>(const AdrUserKey &) const = default;
};

struct AdrServerKey {
    uint32_t ifIndex = 0, address = 0; // the address is numeric: 10.1.2.3 is 0x0A010203
    bool operator==(const AdrServerKey &) const = default;
};

// The subject of a request: none (global), an interface index or VLAN id, a relay server, a binding.
using AdrIndex = std::variant<std::monostate, uint32_t, AdrServerKey, AdrUserKey>;

// A number travels as a word. Bytes are a value to be set, or the room for the daemon's answer.
struct AdrRequest {
    DhcpsnoopFunc func;
    uint32_t cmd = 0;
    AdrIndex index = {};
    std::variant<uint32_t, AdrBytes> value = 0u;
};

// The body of a request; empty when the value is too long for one.
AdrBytes adr_request_encode(const AdrRequest &request);

// A body as it travels on the command socket: behind its length, 4 bytes in host order.
AdrBytes adr_request_frame(const AdrBytes &body);

// Reads the result of a reply and leaves `msg` at its first data item. False when the reply cannot be the
// answer to `request`.
bool adr_reply_decode(AdrMsg *msg, const AdrRequest &request, AdrBytes &reply, uint32_t &result);
