// The few values that records of an input choose from, so that frames, requests and prepared states meet.
#pragma once

#include <array>
#include <cstdint>

#include "frame.h"

constexpr std::array<Mac, 8> POOL_MACS = {
    {MAC_CLIENT,
     MAC_CLIENT2, MAC_SERVER,
     {2, 0, 0, 0, 0, 0x0A},
     {2, 0, 0, 0, 0x0A, 0},
     {0, 0, 0, 0, 0, 0},
     MAC_BROADCAST, {2, 0, 0, 0, 1, 1}}
};

constexpr uint32_t ADDRESS_BOUND = ip4(10, 0, 0, 100), ADDRESS_REQUESTED = ip4(10, 0, 0, 101),
                   ADDRESS_STATIC = ip4(10, 0, 0, 102), ADDRESS_IPSG = ip4(10, 0, 0, 103),
                   ADDRESS_SERVER = ip4(10, 0, 0, 1), ADDRESS_RELAY = ip4(192, 0, 2, 1),
                   ADDRESS_SERVER2 = ip4(198, 51, 100, 1);

constexpr std::array<uint32_t, 12> POOL_ADDRESSES = {
    0,
    ADDRESS_BOUND,
    ADDRESS_REQUESTED,
    ADDRESS_STATIC,
    ADDRESS_IPSG,
    ip4(100, 0, 0, 10), // the bucket of 10.0.0.100
    ip4(10, 0, 0, 105),
    ip4(10, 0, 0, 106),
    ADDRESS_SERVER,
    ADDRESS_SERVER2,
    ADDRESS_RELAY,
    0xFFFFFFFF,
};

// The second is bound.
constexpr std::array<const char *, 6> POOL_ADDRESSES6 = {
    "2001:db8::100", "2001:db8::1", "2001:db8::101", "::", "fe80::1", "ff02::1:2"};

constexpr std::array<uint16_t, 8> POOL_VIDS = {10, 20, 30, 0, 1, 4094, 4095, 0xE00A};

// Ports, VLAN interfaces, one that the switch does not know, and the ends of the range.
constexpr std::array<uint32_t, 13> POOL_INTERFACES = {1, 2, 3, 4, 5, 6, 7, 8, 20, 30, 77, 0, 0xFFFFFFFF};

// Those that the daemon has a handler for.
constexpr std::array<uint16_t, 12> EVENT_TYPES = {16, 17, 87, 88, 90, 91, 93, 123, 124, 190, 198, 199};
