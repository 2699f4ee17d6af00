// The hosts that this machine has seen lately: forwarding databases and neighbour tables of the kernel in,
// hosts by port out. One dump each; nothing is kept. For the client, never in the way of a frame.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace platform_linux
{

struct HostAddress {
    bool v6;
    std::array<uint8_t, 16> bytes; // network order, IPv4 in the first 4
};

struct SeenHost {
    uint32_t ifIndex; // a bridge's port; or the device that the host was spoken to on, which may be no port
    uint16_t vid;     // 0: the bridge has no VLANs, or it is no bridge's port
    std::array<uint8_t, 6> mac;
    std::vector<HostAddress> addresses; // that a neighbour table has for the MAC; none is link-local
};

// False, with errno, when the kernel does not answer.
bool hosts_seen(std::vector<SeenHost> &hosts);

} // namespace platform_linux
