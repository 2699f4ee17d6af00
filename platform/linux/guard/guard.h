// The guard room: the part of the platform that stands in the kernel's way of a frame. It
//   - traps the DHCP frames of the switch's ports and hands them to the daemon (trap),
//   - lets only those packets pass that agree with a binding, where that is checked (IP source guard, ARP
//     inspection),
//   - lets no port hand more DHCP frames to the daemon than its limit says (rate limit),
//   - keeps the places where that is checked, and tells the daemon when they change (configuration).
// An eBPF program at the ingress of every port does all of it; its maps outlive the daemon.
//
// Words: a binding is the daemon's entry of a host; a rule stands in the kernel for it. A trap holds back
// DHCP; the guard checks sources. Check items are the parts of a packet that a rule is compared with.
//
// This is the room's one header for other rooms, the host and dhcpsnoopctl. Results are 0 or an errno value
// where nothing else is said.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>

#include "fd.h"
#include "guard_maps.h"
#include "netlink.h"
#include "platform.h"
#include "port.h"

namespace platform_linux
{

// ---- The trap: while it is on for a port or VLAN, the kernel does not forward the DHCP frames of one family
// that come in there; they reach the daemon through its packet sockets instead.

// Loads or adopts the classifier, with room for so many bindings, and attaches it to every port of the model,
// now and whenever one appears. Called once, after the model is loaded and before the daemon opens its packet
// sockets. Not 0, reported, when another daemon runs in this network namespace, or memory,
// descriptors, /proc or /sys are wanting. Where the kernel refuses eBPF, that is reported, and every trap_set
// to on and every binding_set then fails.
int32_t trap_start(uint32_t bindings);

// The trap of one family (4 or 6) on a port or aggregate; on a VLAN interface that VLAN on every port. ENODEV
// no such port, EOPNOTSUPP no eBPF here, EADDRINUSE, reported, where another bridge snoops in a VLAN of the
// port's number, or why the classifier could not be attached. Off for an index that
// is not there (any more) is 0.
int32_t trap_set(uint32_t ifIndex, int family, bool on);

// The classifier stays where it was attached. Its removal by somebody else's hand shows in the kernel's
// messages about filters. trap_heard takes a datagram of them: true when trap_mend is due. So it is after
// trap_messages_lost, which says that some are missing. trap_mend looks at one device and attaches the
// classifier again where it is missing; false when all were looked at. One at a time, because frames wait
// while the kernel makes it wait.
bool trap_heard(std::span<const uint8_t> datagram);
// While it is on, as many devices may come at once, the classifier of each is left to trap_mend.
void trap_put_off(bool on);
void trap_messages_lost();
bool trap_mend();

// The daemon has opened one of its sockets: frames that a packet socket sends to a host port (model.h) are
// for this machine, and relayed requests of this machine are not trapped there.
void trap_own_socket(guard_socket which, int sock);

// Removes everything that any daemon of this network namespace left in the kernel: the classifier from every
// device, the clsact queueing disciplines made for it and the pinned maps. `report` gets one line for each
// thing removed or not removable. False when something could not be removed. Not for a namespace whose daemon
// runs.
bool trap_release(std::string &report);

// ---- Protected bridges: nothing is forwarded from a device that the daemon does not know yet. At the egress
// of their ports a frame goes on when the ingress of a port has judged it, or when this host sends or routes
// it; every device of the namespace is looked after for that.

// The protected bridges from now on, by index; none = nothing of the kind, on no device. Given by the host at
// start, at reload, and when a bridge appears or goes. When the start gives none, the protection that an
// earlier daemon left holds for a minute. `expectsMore`: a bridge that is not there yet, or not at the
// moment, is to be protected from its first port on.
void guard_protect(const std::set<uint32_t> &bridges, bool expectsMore = false);

// A port that appears on a protected bridge is to wait until its settings are in force: `ready` is asked for
// each; its settings of another bridge do not count. A port for which it says no forwards nothing until
// guard_admit, which says for each port whether its settings are in force or were refused. Its traps can be
// set meanwhile. Null, as at the start: ports do not wait.
using PortReady = bool (*)(const Port &port);
void guard_ask_ready(PortReady ready);
void guard_admit(const Port &port, bool inForce);

// While a bridge is protected, the kernel takes no frame from a bridge port of this namespace that was not
// let in. guard_gate_follow lets in what is due: ports of other bridges, and those of protected bridges whose
// classifier stands and whose settings are in force. One whose settings were refused speaks with this host
// only. A failure is reported; guard_gate_retry, cheap, tries again once a second.
void guard_gate_follow();
void guard_gate_retry();
// A bridge has appeared of which guard_protect has not been told whether it is protected.
bool guard_protect_due();

// ---- Bindings: each becomes up to two rules.

// Adds or deletes the record of a request for port `ifIndex`. An add writes a handle into the record's
// identifier of its kind; the same binding given once more with that handle stays installed once, as the
// record says now. A delete takes the rule behind the handle. For handle 0, a spent one, or one of another
// host's binding it does nothing, and is 0 then too.
//
// A member of an aggregate is not guarded itself: accepted, nothing is installed. So is an IPv6 binding for
// ARP inspection. Rules of a port that is away, or has become such a member, come back with it. EINVAL: no
// record of a binding, or one that checks nothing; ENODEV: no such port; ENOSPC: no room; EOPNOTSUPP: no
// eBPF.
int32_t binding_set(uint32_t ifIndex, const QorIfRequest *request);

// Why a deleted rule stays in force for a while. Each reason ends for itself.
enum class Hold : uint8_t {
    checkItems = 1, // where they change, the daemon withdraws a binding before it installs it anew
    takeOver = 2,   // so it does with all bindings when it gets a role
};

// While a hold is on, a deleted rule stays in force until none is on any more, unless it was added once more.
void bindings_hold(Hold hold, bool on);

// Begins Hold::takeOver as if everything had been deleted in it: when it ends, only rules that were added
// since are left.
void bindings_hold_all();

// ---- The guard's configuration: the ports and VLANs where IP source guard and ARP inspection stand, and
// their check items. It lives in the pinned maps alone, where the classifier, the daemon's hooks and the
// client find it, beside a daemon or without one. A setting that is switched on is pending until the daemon
// has installed its bindings there; one that is switched off is off at once.

enum class GuardFeature : uint8_t { ipSourceGuard, arpInspection };
constexpr GuardFeature GUARD_FEATURES[] = {GuardFeature::ipSourceGuard, GuardFeature::arpInspection};

// A port by its interface index, or a VLAN by its id (1 to 4094).
struct GuardPlace {
    bool isVlan;
    uint32_t number;
    auto operator<=>(const GuardPlace &) const = default;
};

// Finds the maps of the calling process's network namespace, once for as long as the process lives. False
// with the reason when there are none: no daemon of this namespace has made them, or they may not be opened.
bool guard_config_open(std::string &why);
void guard_config_close();

// The configuration of a place; zero where nothing is configured, and without maps.
guard_items guard_config_get(const GuardPlace &place);
// Every place that has one.
std::map<GuardPlace, guard_items> guard_config_all();
int guard_config_set(const GuardPlace &place, const guard_items &items);

// Check items as they are to be, in force or not yet, with the families of IP source guard; 0 = off,
// GUARD_EXEMPT alone = exempt.
uint8_t guard_wanted(const guard_items &items, GuardFeature feature);
// The same for the daemon, which knows of neither exemption nor families: 0 = off or exempt.
inline uint8_t guard_checked(const guard_items &items, GuardFeature feature)
{
    return guard_wanted(items, feature) & GUARD_CHECK_ALL;
}
bool guard_pending(const guard_items &items, GuardFeature feature);
void guard_switch(guard_items &items, GuardFeature feature, uint8_t wanted);
// Whether ARP inspection stands anywhere, or is to.
bool guard_is_inspecting();
// Puts pending items in force.
void guard_settle(guard_items &items, GuardFeature feature);

// The ports on which the classifier stands, with the frames that it has refused there, by reason.
using GuardRefusals = std::array<uint64_t, GUARD_REASONS>;
std::map<uint32_t, GuardRefusals> guard_ports_refusals();
// Those of one port; 0 for a device that is none, and without maps.
GuardRefusals guard_port_refusals(uint32_t ifIndex);

// False where it is known that frames of the port cannot belong to the VLAN. True as well for a port that
// works without VLANs, no port, and without maps.
bool guard_port_may_use(uint32_t ifIndex, uint32_t vid);

// Tells the daemon of this network namespace that the configuration has changed, as events of the switch's
// netlink groups. Takes CAP_NET_ADMIN. Whether anybody listens is not known.
int guard_config_announce(const GuardPlace &place, GuardFeature feature, uint8_t wanted);

// A pinned map of the calling process's network namespace; none where guard_config_open says why.
Fd guard_config_map(const char *name);

// ---- The limit of DHCP frames that a port hands to the daemon. It lives in the kernel as long as the device
// is there, over restarts of the daemon.

struct GuardRate {
    uint32_t rate;            // frames a second; 0 = off
    uint32_t burst, reserved; // frames that may come at once; as many more of known clients. 0 where off
    bool isDefault;           // nobody has set it: it follows from the trust
    bool operator==(const GuardRate &) const = default;
};
GuardRate guard_rate_default(bool trusted);

// In force at a port; none for a device that is no port, and without maps.
std::optional<GuardRate> guard_rate_get(uint32_t ifIndex);

// The rest is for the daemon alone. ENODEV: no port. Of a default rate the other members do not count.
int guard_rate_set(uint32_t ifIndex, const GuardRate &rate);
// Whether servers may answer from the port. A port begins without trust.
void guard_rate_trust(uint32_t ifIndex, bool trusted);

// A client that keeps a share when its port is flooded, once for each of its bindings. False without room.
bool guard_known_add(uint32_t ifIndex, const uint8_t mac[6]);
void guard_known_remove(uint32_t ifIndex, const uint8_t mac[6]);

// ---- The daemon's side of the configuration, for its event socket.

// A datagram of a sender other than the kernel: whether it announces a change of the configuration. Its
// content counts for nothing else.
bool is_guard_announcement(std::span<const uint8_t> datagram);

// Reads the configuration, and appends to `events` the changes that the daemon has not been told yet.
// Bindings that the daemon withdraws in handling them stay in force until it has handled them all.
void guard_follow(DaemonEvents &events);

// The daemon has handled all appended events, its bindings are installed: pending settings come into force.
// Does nothing when there are none. Not to be called while a change of role is under way.
void guard_follow_handled();
// Whether that is due.
bool guard_follow_pending();
// Whether the daemon has ever been told that ARP inspection stops.
bool guard_inspection_stopped();

} // namespace platform_linux
