// A port, aggregate or VLAN interface of the switch, as the model describes it.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <net/if.h>

namespace platform_linux
{

// A host port is the machine itself, behind a bridge of its own: what it sends through the bridge device
// comes in there.
enum class PortKind : uint8_t { port, aggregate, vlanInterface, host };

// IEEE 802.1D states as the kernel numbers them (IFLA_BRPORT_STATE).
enum class StpState : uint8_t { disabled, listening, learning, forwarding, blocking };

using VlanSet = std::bitset<4096>; // by VLAN id; 0 and 4095 are never set

struct Port {
    uint32_t ifIndex;
    char name[IFNAMSIZ];
    uint8_t mac[6];
    uint64_t aliasSum; // of its alias, 0 = none
    PortKind kind;
    bool routed;        // no VLANs: nativeVid is 0, both sets are empty
    bool up;            // switched on and with carrier
    StpState stp;       // forwarding when it is in no bridge
    uint16_t nativeVid; // VLAN of its untagged frames; 0 = it has none
    uint16_t tpid;      // of the tags it sends, 0x8100 or 0x88A8
    uint16_t vlan;      // a VLAN interface's VLAN, else 0
    uint32_t number;    // from 1; a VLAN interface's VLAN; 0 = a host port that no file numbers
    uint32_t
        bridge; // index of the bridge it is in (a VLAN interface: on top of; a host port: it is); 0 = none
    char bridgeName[IFNAMSIZ]; // its name
    uint32_t aggregate;        // index of the bond or team it is a member of; 0 = none
    VlanSet members;           // VLANs it belongs to, tagged or not
    VlanSet untagged;          // those that it sends untagged

    bool operator==(const Port &) const = default;

    // May a frame that came in here belong to `vid`, 0 for no VLAN? Neither `up` nor a disabled state counts:
    // what came in proves that the port works, and the kernel may say so later. A member of an aggregate does
    // not receive for itself, and nothing leads from a routed port into a VLAN.
    bool receives(uint16_t vid) const
    {
        return aggregate == 0 && (stp == StpState::forwarding || stp == StpState::disabled) &&
               (routed ? vid == 0 : vid < 4096 && members[vid]);
    }

    // May a frame of `vid` be sent here?
    bool sends(uint32_t vid) const
    {
        return aggregate == 0 && up && stp == StpState::forwarding &&
               (routed || (vid < 4096 && members[vid]));
    }
};

} // namespace platform_linux
