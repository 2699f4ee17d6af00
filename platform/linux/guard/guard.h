// The classifier in the kernel (guard.bpf.c) and its maps: which ports it stands on, where it traps, whose
// packets pass where they are checked. Nothing here knows the switch model. What is set stays in the kernel
// when the process ends, so that a crash lets no DHCP frame and no forged packet pass; the next guard_open
// finds it.
//
// Results are 0 or an errno value. Families are 4 and 6. Tests link a recorder in place of guard.cpp.
#pragma once

#include <cstdint>
#include <string>

#include "guard_maps.h"

namespace platform_linux
{

// How long a trap of an earlier run holds that this run has not set again.
constexpr uint32_t GUARD_INHERIT_SECONDS = 60;

// How long a binding of an earlier run counts that this run has not installed again: half a lease of two
// days, when a client renews.
constexpr uint32_t GUARD_INHERIT_BINDINGS_SECONDS = 24 * 60 * 60;

// From now on this process alone may change the maps of its network namespace: false when another one that
// runs does. A second daemon would take traps and bindings from the first, and leave it without. Without a
// bpffs nothing is shared, and it is true.
bool guard_claim();

// Loads the program and takes over the maps of an earlier run, or makes them, with room for so many bindings
// at least. False when eBPF cannot be had here: `why` says what was refused; every other call is then safe
// and answers EOPNOTSUPP. `note` says what an operator should know of a start that succeeded (what was
// inherited, maps that are not pinned), or is empty.
bool guard_open(uint32_t bindings, std::string &why, std::string &note);

// Closes the descriptors. What is in the kernel stays.
void guard_close();

// A port of the model is there: attaches the classifier at its ingress. `nativeVid` is the VLAN of its
// untagged frames, 0 = none. A trap that an earlier run set on this very device goes on for
// GUARD_INHERIT_SECONDS. Called again for a known port it repeats what failed and sets the native VLAN.
int guard_port_add(uint32_t ifIndex, uint16_t nativeVid);

// The device is gone or no port any more: detaches, forgets its traps. The check items of a device that is
// still there stay, for the time when it is a port again.
void guard_port_remove(uint32_t ifIndex);

// After the first guard_port_add of every port: detaches from devices that were ports of an earlier run only.
void guard_ports_complete();

// The trap of a port: ENODEV for one that is not added. Takes effect with the next frame.
int guard_trap_port(uint32_t ifIndex, int family, bool on);

// The trap of a VLAN (1 to 4094, else EINVAL) on every port: outer tag, or the port's native VLAN.
int guard_trap_vlan(uint16_t vid, int family, bool on);

// Lets packets that agree with `key` pass, once more: so many adds, so many removes. What an earlier run
// installed for the same address, or the same MAC on another port, ends. EINVAL for a key without check
// items, ENOSPC when there is no room. Takes effect with the next frame.
int guard_binding_add(const guard_binding_key &key);

// ENOENT when this run has not added it.
int guard_binding_remove(const guard_binding_key &key);

} // namespace platform_linux
