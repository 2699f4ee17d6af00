// The DHCP servers, relays and clients that run on this machine itself, by the bridge on which they do: what
// its sockets and addresses show. One look; nothing is kept. For the client, never in the way of a frame.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "links.h"

namespace platform_linux
{

// By what each shows; empty = there is none.
struct OwnDhcp {
    std::string serves; // or relays
    std::string asks;
};

// By the bridge's index; what stands on a VLAN device above counts for the bridge. `relays`: the daemon has a
// socket of its own on port 67. False, with errno, when the kernel does not answer.
bool own_dhcp(const std::map<uint32_t, Link> &links, bool relays, std::map<uint32_t, OwnDhcp> &found);

} // namespace platform_linux
