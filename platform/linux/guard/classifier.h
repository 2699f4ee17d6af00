// The classifier in the kernel (guard.bpf.c) and its maps: the ports that it stands on, its traps, the rules
// by which checked packets pass. Nothing here knows the switch model. Every setting stays in the kernel when
// the process ends, so that a crash lets no DHCP frame and no forged packet pass; the next guard_open finds
// it.
//
// Results are 0 or an errno value. Families are 4 and 6. Tests link a recorder in place of classifier.cpp.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <set>
#include <string>

#include "guard_maps.h"
#include "guard_rules.h"

namespace platform_linux
{

// How long a device that has left its bridge is judged as before: it may be back before the daemon knows. To
// some other use it is open then.
constexpr uint32_t GUARD_LEFT_SECONDS = 10;

// A frame needs no longer from a device's ingress to another's egress.
constexpr uint32_t GUARD_OPEN_MILLISECONDS = 100;

// Ethernet.
using MacAddress = std::array<uint8_t, 6>;

// From now on this process alone may change the maps of its network namespace: false when another one that
// runs does. A second daemon would take traps and rules from the first, and leave it without. Without a
// bpffs nothing is shared, and it is true.
bool guard_claim();

// Loads the program and takes over the maps of an earlier run, or makes them, with room for so many rules
// at least. False when eBPF cannot be had here: `why` and errno give the reason; every other call is then
// safe and answers EOPNOTSUPP. `note` is for the operator of a start that succeeded (inherited traps and
// rules, maps that are not pinned), or is empty.
bool guard_open(uint32_t rules, std::string &why, std::string &note);

// Closes the descriptors. Everything in the kernel stays.
void guard_close();

// The VLANs that a port is a member of. Bit 0: it is a port without VLANs, and its frames are of none.
using PortVlans = std::bitset<GUARD_VLANS>;

// A port of the model is there: attaches the classifier at its ingress. `nativeVid` is the VLAN of its
// untagged frames, 0 = none. A trap that an earlier run set on this very device goes on for
// GUARD_INHERIT_SECONDS. Called again for a known port it repeats a failed attachment and sets the VLANs; the
// kernel is not asked to attach what stands.
int guard_port_add(uint32_t ifIndex, uint16_t nativeVid, const PortVlans &members);

// The device is no port any more. As long as it is there the classifier, its trap and its check items stay,
// for the time when it is a port again; they count for so many seconds.
void guard_port_remove(uint32_t ifIndex, uint32_t seconds);

// The device is gone, whether it was a port or not: its number may be given to another one.
void guard_device_gone(uint32_t ifIndex);

// After the first guard_port_add of every port: detaches from devices that were ports of an earlier run only.
void guard_ports_complete();

// A device that is no port is there, while some bridge is protected: no frame that came in there leaves by a
// port of such a bridge but routed. `ethernet`: the classifier is attached, and keeps frames with this host's
// own addresses out. Does nothing for a port.
int guard_device_add(uint32_t ifIndex, bool ethernet);

// The bridge of the port is protected: attaches the egress program, beside the classifier or when that is
// attached. Off detaches it.
int guard_port_protect(uint32_t ifIndex, bool on);

// The port has its classifier.
bool guard_stands(uint32_t ifIndex);

// The device is a bridge whose own machine is the port. Before guard_port_add, which attaches the host
// program at the egress then, and nothing at the ingress. Off when it is no port any more: detaches it.
void guard_port_host(uint32_t ifIndex, bool on);

// While it is held, the port has no say for its frames: no protected bridge forwards them.
void guard_port_hold(uint32_t ifIndex, bool on);

// A port of no protected bridge has no say either, where a protected bridge would forward its frames: it may
// have come over from another bridge this moment.
void guard_port_apart(uint32_t ifIndex, bool on);

// Some bridge is protected, or none: then devices that are no ports are left alone again. A protection that
// an earlier run set holds for GUARD_INHERIT_SECONDS.
void guard_protecting(bool on);

// The addresses of this host that guard_device_add speaks of.
void guard_own_set(const std::set<MacAddress> &addresses);

// The trap of a port: ENODEV for one that is not added; off also for one that was removed. Takes effect with
// the next frame.
int guard_trap_port(uint32_t ifIndex, int family, bool on);

// While it is on, guard_mend attaches what can wait, and no port is one before.
void guard_put_off(bool on);
// The classifier of a device may be gone, by somebody else's hand: guard_mend looks. UINT32_MAX = of any
// device.
void guard_doubt(uint32_t ifIndex);
// Looks at one such device and attaches the classifier where it is missing: then `ifIndex` is the device,
// else 0; an errno value when that fails. False when there is none.
bool guard_mend(uint32_t &ifIndex, int &error);

// The trap of a VLAN (1 to 4094, else EINVAL) on every port: outer tag, or the port's native VLAN.
int guard_trap_vlan(uint16_t vid, int family, bool on);

// The check items in force in some VLAN have changed: ports refuse frames whose VLAN cannot be told by those
// of all their VLANs together.
void guard_vlans_changed();

} // namespace platform_linux
