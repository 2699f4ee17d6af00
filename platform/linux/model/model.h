// The switch as the Linux platform sees it: ports, aggregates and VLAN interfaces with their VLANs and state,
// from the configuration or from the kernel's bridges, kept current from the kernel's link messages.
// Lookups are const, make no system call and allocate nothing: they are made per frame and egress port.
// One thread only. VLAN numbers are one space for the whole box (IEEE 802.1Q, 1 to 4094).
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "dhcpsnoop.h"
#include "port.h"

namespace platform_linux
{

// Null when the index is no port, aggregate or VLAN interface of the switch. Valid until the next event is
// read.
const Port *model_port(uint32_t ifIndex);

// The index of VLAN `vid`'s interface, 0 when it has none (or the device is not there now).
uint32_t model_vlan_interface(uint16_t vid);

// Everything there is now, ascending by index.
const std::map<uint32_t, Port> &model_ports();

// Whether the switch is described by a file, whose VLAN numbers are one space for the whole box. Else each
// bridge has its own (vlan_bridge.h).
bool model_has_file();

// The bridges, by name, whose own machine is a port from now on. As the watchers' events say.
void model_hosts(const std::set<std::string, std::less<>> &bridges);

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

// A device of this network namespace, port or not.
struct Device {
    uint32_t ifIndex;
    bool isBridge;
    uint32_t bridge;    // index of the bridge it is in; 0 = none
    const uint8_t *mac; // six bytes, all zero when its address is no Ethernet address
};

// Called after those, for each device that came or changed, and by model_devices for each that there is.
using DeviceWatcher = void (*)(const Device &device);
void model_watch_devices(DeviceWatcher watcher);
void model_devices(DeviceWatcher watcher);

// The index of the bridge of that name, 0 when there is none.
uint32_t model_bridge(std::string_view name);

} // namespace platform_linux
