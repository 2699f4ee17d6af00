// A parsed message as the judge sees it: who says what of which addresses. At least those that the daemon
// would act on are named.
#pragma once

#include <array>

#include "dhcpsnoop.h"
#include "host.h"

namespace platform_linux
{

struct NamedAddress {
    DhcpsnoopUserKey key;
    uint32_t lease;
    bool ends; // a server takes it back
};

// One IPv6 address takes 28 bytes of a message.
constexpr size_t NAMED_MAX = DHCPSNOOP_FRAME_MAX / 28;

struct JudgedMessage {
    const DhcpsnoopPktInfo *info;
    bool ipv6, isReply;
    bool trusted;     // the port
    bool unambiguous; // client and server read the same in it
    bool rapid;
    uint32_t type;
    uint64_t transaction; // identity
    uint64_t clientId;    // DUID, or client identifier; 0 = none
    Host host;            // of a reply: without use
    size_t count;
    std::array<NamedAddress, NAMED_MAX> named;
};

// False when the daemon itself ignores or drops the message, or finds no DHCP in it.
bool judged_message_read(const DhcpsnoopPktInfo &info, uint64_t hashKey, JudgedMessage &message);

} // namespace platform_linux
