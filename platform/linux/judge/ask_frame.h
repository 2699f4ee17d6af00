// The question whether a host holds an address, as a frame: an ARP probe (RFC 5227 2.1.1), a neighbour
// solicitation (RFC 4861 4.3), each to the host alone; and what counts as its answer.
#pragma once

#include <array>

#include "dhcpsnoop.h"
#include "host.h"

namespace platform_linux
{

// The port by which the frame leaves.
struct AskPort {
    HostMac mac;
    uint16_t tpid, vid; // of its tag; VLAN 0: no tag
};

struct AskFrame {
    std::array<uint8_t, 96> bytes;
    size_t length;
};

AskFrame ask_frame(const AskPort &port, const DhcpsnoopUserKey &address, const HostMac &host);

// Whether the host says in the frame that it has the address. Outer tags may be there or not.
bool is_answer(const uint8_t *frame, size_t length, const DhcpsnoopUserKey &address, const HostMac &host);

} // namespace platform_linux
