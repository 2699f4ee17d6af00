// Keeps the classifier on every port that receives for itself, with that port's VLANs, and turns the
// daemon's trap rules into those of the guard: a port's own, or a VLAN interface's VLAN.
#include "guard.h"

#include <cerrno>
#include <cstring>
#include <map>

#include "bindings.h"
#include "classifier.h"
#include "guard_filter.h"
#include "model.h"
#include "protect.h"
#include "report.h"
#include "vlan_bridge.h"

namespace platform_linux
{
namespace
{

// What the daemon has asked for, until it takes it back: it hears nothing of a port that leaves a bridge and
// comes back, and counts on its rule still being there.
struct Rule {
    uint16_t vid; // of a VLAN interface, where the rule stands in the guard; 0 = none, or a port's rule
    bool v4, v6;
};
std::map<uint32_t, Rule> rules;

// Calls `see` for every port of a bridge that snoops, with its VLANs.
template <typename See> void snooping_ports(const See &see)
{
    for (const auto &[ifIndex, rule] : rules) {
        const Port *port = model_port(ifIndex);
        if (port != nullptr && port->bridge != 0 && (rule.v4 || rule.v6) && !model_has_file())
            see(*port, rule.vid != 0 ? VlanSet().set(rule.vid) : port->members);
    }
}

// A bridge keeps the VLANs that it has while some port of it snoops there.
void share_vlans()
{
    VlanBridges bridges = {};
    for (const bool keep : {true, false}) {
        snooping_ports([&bridges, keep](const Port &port, const VlanSet &vlans) {
            for (size_t vid = vlans._Find_first(); vid < vlans.size(); vid = vlans._Find_next(vid))
                if (bridges[vid] == 0 && (!keep || vlanBridges[vid] == port.bridge))
                    bridges[vid] = port.bridge;
        });
    }
    vlanBridges = bridges;
}

// A VLAN interface's trap takes the frames of all ports in its VLAN.
bool is_another_bridges(const Port &port)
{
    uint32_t bridge = 0;
    size_t shared = 0;
    const VlanSet vlans = port.vlan != 0 ? VlanSet().set(port.vlan) : port.members;
    const auto look = [&](uint32_t other, const VlanSet &theirs) {
        const VlanSet common = vlans & theirs;
        if (other == port.bridge || bridge != 0 || common.none())
            return;
        bridge = other;
        shared = common._Find_first();
    };
    if (port.bridge == 0 || model_has_file())
        return false;
    snooping_ports([&look](const Port &other, const VlanSet &theirs) { look(other.bridge, theirs); });
    for (const auto &[ifIndex, other] : model_ports())
        if (port.vlan != 0 && other.bridge != 0)
            look(other.bridge, other.members);
    if (bridge != 0)
        platform_report(
            LOG_ERR,
            "%s: no snooping in VLAN %zu of bridge %s, which is a VLAN of bridge %s too: give the ports of "
            "one of them other VLAN numbers (vlan_filtering, vlan_default_pvid)",
            port.name, shared, device_name(port.bridge).c_str(), device_name(bridge).c_str());
    return bridge != 0;
}

// A member of an aggregate does not: its frames count where they come in once more, on the aggregate.
bool receives_itself(const Port &port) { return port.kind != PortKind::vlanInterface && port.aggregate == 0; }

void follow(const Port &port)
{
    if (!receives_itself(port)) {
        protect_port_gone(port.ifIndex);
        guard_port_remove(port.ifIndex, 0);
        return;
    }
    bindings_resume(port);
    if (port.kind == PortKind::host)
        guard_port_host(port.ifIndex, true);
    else
        protect_port(port);
    PortVlans members = port.members;
    members[0] = port.routed;
    const int error = guard_port_add(port.ifIndex, port.nativeVid, members);
    if (error != 0 && error != ENODEV) // the kernel says next that it has gone
        platform_report(LOG_ERR, "%s: no DHCP trap can be had on it: %s", port.name, strerror(error));
    const auto rule = rules.find(port.ifIndex);
    if (rule == rules.end())
        return;
    if (rule->second.v4)
        guard_trap_port(port.ifIndex, 4, true);
    if (rule->second.v6)
        guard_trap_port(port.ifIndex, 6, true);
}

// The VLAN of an interface that has gone must not stay cut off.
void vlan_interface_gone(uint32_t ifIndex)
{
    const auto rule = rules.find(ifIndex);
    if (rule == rules.end() || rule->second.vid == 0)
        return;
    guard_trap_vlan(rule->second.vid, 4, false);
    guard_trap_vlan(rule->second.vid, 6, false);
    rule->second.vid = 0;
}

void vlan_interface_back(const Port &port)
{
    const auto rule = rules.find(port.ifIndex);
    if (rule == rules.end())
        return;
    rule->second.vid = port.vlan;
    if (rule->second.v4)
        guard_trap_vlan(port.vlan, 4, true);
    if (rule->second.v6)
        guard_trap_vlan(port.vlan, 6, true);
}

void model_changed(ModelChange change, const Port &port, const Port *before)
{
    if (change == ModelChange::vanished) {
        protect_port_gone(port.ifIndex);
        guard_port_remove(port.ifIndex, GUARD_LEFT_SECONDS);
        if (port.kind == PortKind::host)
            guard_port_host(port.ifIndex, false);
        vlan_interface_gone(port.ifIndex);
        share_vlans();
        return;
    }
    if (change == ModelChange::appeared || before == nullptr || port.nativeVid != before->nativeVid ||
        port.members != before->members || port.routed != before->routed ||
        port.aggregate != before->aggregate || port.bridge != before->bridge)
        follow(port);
    if (change == ModelChange::appeared && port.kind == PortKind::vlanInterface)
        vlan_interface_back(port);
    if (before == nullptr || port.members != before->members || port.bridge != before->bridge)
        share_vlans();
}

} // namespace

int32_t trap_start(uint32_t bindings)
{
    std::string why, note;
    if (!guard_claim()) {
        platform_report(LOG_ERR, "another daemon runs in this network namespace");
        return EBUSY;
    }
    errno = 0;
    if (!guard_open(bindings * RULES_OF_A_BINDING, why, note)) {
        const int error = errno;
        // The last: without /proc or /sys.
        if (error == ENOMEM || error == EMFILE || error == ENFILE || error == EAGAIN || error == ENOENT) {
            platform_report(LOG_ERR, "no DHCP trap can be had, the daemon ends: %s", why.c_str());
            return error;
        }
        platform_report(
            LOG_ERR, "no DHCP trap can be had here, snooping cannot be switched on and no port guarded: %s",
            why.c_str());
        return 0;
    }
    if (!note.empty())
        platform_report(LOG_NOTICE, "%s", note.c_str());
    protect_start();
    for (const auto &[ifIndex, port] : model_ports())
        follow(port);
    guard_ports_complete();
    model_watch(model_changed);
    model_watch_gone(guard_device_gone);
    bindings_start(bindings);
    return 0;
}

bool trap_heard(std::span<const uint8_t> datagram)
{
    bool due = false;
    while (const nlmsghdr *message = next_message(datagram)) {
        if (const uint32_t ifIndex = filter_taken_off(*message); ifIndex != 0) {
            guard_doubt(ifIndex);
            due = true;
        }
    }
    return due;
}

void trap_put_off(bool on)
{
    guard_put_off(on);
    protect_put_off(on);
}

void trap_messages_lost() { guard_doubt(UINT32_MAX); }

bool trap_mend()
{
    uint32_t ifIndex = 0;
    int error = 0;
    if (!guard_mend(ifIndex, error))
        return false;
    if (error != 0 && error != ENODEV)
        platform_report(LOG_ERR, "%s: it has no DHCP trap, and none can be had: %s",
                        device_name(ifIndex).c_str(), strerror(error));
    const Port *port = error == 0 ? model_port(ifIndex) : nullptr;
    if (port != nullptr && receives_itself(*port) && port->kind != PortKind::host)
        protect_port(*port);
    return true;
}

int32_t trap_set(uint32_t ifIndex, int family, bool on)
{
    const Port *port = model_port(ifIndex);
    const auto known = rules.find(ifIndex);
    uint16_t vid = known != rules.end() ? known->second.vid : 0;
    if (port != nullptr && port->kind == PortKind::vlanInterface)
        vid = port->vlan;
    if (on && port != nullptr && is_another_bridges(*port))
        return EADDRINUSE;
    const int error = vid != 0 ? guard_trap_vlan(vid, family, on) : guard_trap_port(ifIndex, family, on);
    if (error != 0 && (on || error != ENODEV))
        return error;
    Rule &rule = rules.try_emplace(ifIndex, Rule{vid, false, false}).first->second;
    rule.vid = vid;
    (family == 4 ? rule.v4 : rule.v6) = on;
    if (!rule.v4 && !rule.v6)
        rules.erase(ifIndex);
    share_vlans();
    return 0;
}

} // namespace platform_linux
