// The switch as the Linux platform sees it: ports, aggregates and VLAN interfaces with their VLANs and state,
// from the switch model file or from the kernel's bridges, kept current from the kernel's link messages.
// Lookups are const, make no system call and allocate nothing: they are made per frame and egress port.
// One thread only. VLAN numbers are one space for the whole box (IEEE 802.1Q, 1 to 4094).
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <map>
#include <net/if.h>

#include "dhcpsnoop.h"

namespace platform_linux
{

enum class PortKind : uint8_t { port, aggregate, vlanInterface };

// IEEE 802.1D states as the kernel numbers them (IFLA_BRPORT_STATE).
enum class StpState : uint8_t { disabled, listening, learning, forwarding, blocking };

using VlanSet = std::bitset<4096>; // by VLAN id; 0 and 4095 are never set

struct Port {
    uint32_t ifIndex;
    char name[IFNAMSIZ];
    uint8_t mac[6];
    PortKind kind;
    bool routed;        // no VLANs: nativeVid is 0, both sets are empty
    bool up;            // switched on and with carrier
    StpState stp;       // forwarding when it is in no bridge
    uint16_t nativeVid; // VLAN of its untagged frames; 0 = it has none
    uint16_t tpid;      // of the tags it sends, 0x8100 or 0x88A8
    uint16_t vlan;      // a VLAN interface's VLAN, else 0
    uint32_t number;    // from 1; a VLAN interface's VLAN
    uint32_t bridge;    // index of the bridge it is in (a VLAN interface: on top of); 0 = none
    uint32_t aggregate; // index of the bond or team it is a member of; 0 = none
    VlanSet members;    // VLANs it belongs to, tagged or not
    VlanSet untagged;   // those that it sends untagged

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

// Null when the index is no port, aggregate or VLAN interface of the switch. Valid until the next event is
// read.
const Port *model_port(uint32_t ifIndex);

// The index of VLAN `vid`'s interface, 0 when it has none (or the device is not there now).
uint32_t model_vlan_interface(uint16_t vid);

// Everything there is now, ascending by index.
const std::map<uint32_t, Port> &model_ports();

// This unit's number, and its role at the start.
uint32_t model_system();
DhcpsnoopRole model_role();

enum class ModelChange : uint8_t {
    appeared, // is there now; also a device that comes back, under its old index or a new one
    vanished, // was there; `port` is as it last was, and model_port gives null for it
    changed,  // VLANs, native VLAN, routed, aggregate, spanning-tree state, up, name or address differ
};

// Called after the model has changed, from within platform_linux_start or platform_event_recv. May not change
// the model. `before` is the port as it was (changed), else null. Registering does not call it for what is
// there already: walk model_ports.
using ModelWatcher = void (*)(ModelChange change, const Port &port, const Port *before);
void model_watch(ModelWatcher watcher);

// Called after the model has changed, for each device that is gone from this network namespace, port or not.
using GoneWatcher = void (*)(uint32_t ifIndex);
void model_watch_gone(GoneWatcher watcher);

} // namespace platform_linux
