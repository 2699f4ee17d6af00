// The classifier in the kernel (guard.bpf.c) and its maps: which ports it stands on, where it traps. Nothing
// here knows the switch model. What is set stays in the kernel when the process ends, so that a crash lets no
// DHCP frame pass; the next guard_open finds it.
//
// Results are 0 or an errno value. Families are 4 and 6. Tests link a recorder in place of guard.cpp.
#pragma once

#include <cstdint>
#include <string>

namespace platform_linux
{

// How long a trap of an earlier run holds that this run has not set again.
constexpr uint32_t GUARD_INHERIT_SECONDS = 60;

// Loads the program and takes over the maps of an earlier run, or makes them. False when eBPF cannot be had
// here: `why` says what was refused; every other call is then safe and answers EOPNOTSUPP. `note` says what
// an operator should know of a start that succeeded (traps inherited, maps that are not pinned), or is empty.
bool guard_open(std::string &why, std::string &note);

// Closes the descriptors. What is in the kernel stays.
void guard_close();

// A port of the model is there: attaches the classifier at its ingress. `nativeVid` is the VLAN of its
// untagged frames, 0 = none. A trap that an earlier run set on this very device goes on for
// GUARD_INHERIT_SECONDS. Called again for a known port it repeats what failed and sets the native VLAN.
int guard_port_add(uint32_t ifIndex, uint16_t nativeVid);

// The device is gone or no port any more: detaches, forgets its traps.
void guard_port_remove(uint32_t ifIndex);

// After the first guard_port_add of every port: detaches from devices that were ports of an earlier run only.
void guard_ports_complete();

// The trap of a port: ENODEV for one that is not added. Takes effect with the next frame.
int guard_trap_port(uint32_t ifIndex, int family, bool on);

// The trap of a VLAN (1 to 4094, else EINVAL) on every port: outer tag, or the port's native VLAN.
int guard_trap_vlan(uint16_t vid, int family, bool on);

} // namespace platform_linux
