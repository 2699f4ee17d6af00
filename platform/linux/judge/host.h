// A host as the judge tells it from others.
#pragma once

#include <array>
#include <cstdint>

namespace platform_linux
{

using HostMac = std::array<uint8_t, 6>;

// A port and a VLAN.
struct HostPlace {
    uint32_t ifIndex;
    uint16_t vid;
    bool operator==(const HostPlace &) const = default;
};

struct Host {
    HostMac mac;
    HostPlace place;
};

} // namespace platform_linux
