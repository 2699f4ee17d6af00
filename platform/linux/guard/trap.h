// The DHCP trap of the switch's ports: while it is on for a port or VLAN, the kernel does not forward the
// DHCP frames of one family that come in there; they reach the daemon through its packet sockets instead.
//
// trap.cpp knows the model (model.h) and drives guard.h, behind which a recorder stands in tests.
// trap_release is alone in the library dhcpsnoop_trap together with guard.h, for dhcpsnoopctl.
#pragma once

#include <cstdint>
#include <string>

namespace platform_linux
{

// Loads or adopts the classifier, with room for so many bindings, and attaches it to every port of the model,
// now and whenever one appears. Called once, after the model is loaded and before the daemon opens its packet
// sockets. EBUSY, said, when another daemon runs in this network namespace; else 0: where the kernel refuses
// eBPF it says so on standard error and in the log, and every trap_set to on and every binding_set then
// fails.
int32_t trap_start(uint32_t bindings);

// The trap of one family (4 or 6) on a port or aggregate; on a VLAN interface that VLAN on every port. 0 or
// an errno value: ENODEV no such port, EOPNOTSUPP no eBPF here, or why the classifier could not be attached.
// Off for an index that is not there (any more) is 0.
int32_t trap_set(uint32_t ifIndex, int family, bool on);

// Removes all that any daemon of this network namespace left in the kernel: the classifier from every device,
// the clsact queueing disciplines made for it and the pinned maps. `report` gets one line for each thing
// removed or not removable. False when something could not be removed. Not for a namespace whose daemon runs.
bool trap_release(std::string &report);

} // namespace platform_linux
