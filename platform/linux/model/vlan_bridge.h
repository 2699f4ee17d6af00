// Each bridge is a space of VLAN numbers of its own, and the daemon has one numbering: a VLAN number means
// the bridge whose ports snoop in it. Written by the trap, asked per frame and egress port.
#pragma once

#include <array>
#include <cstdint>

namespace platform_linux
{

using VlanBridges =
    std::array<uint32_t, 4096>; // by VLAN id: a bridge's index; 0 = no port of a bridge snoops

inline VlanBridges vlanBridges{};

// May a frame of the VLAN come from, or go to, a port of that bridge (0 = of none)?
inline bool vlan_is_of(uint32_t vid, uint32_t bridge)
{
    return vid >= vlanBridges.size() || vlanBridges[vid] == 0 || vlanBridges[vid] == bridge;
}

} // namespace platform_linux
