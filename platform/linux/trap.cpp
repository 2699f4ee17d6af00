// Keeps the classifier on every port that receives for itself, with that port's native VLAN, and turns the
// daemon's trap rules into those of the guard: a port's own, or a VLAN interface's VLAN.
#include "trap.h"

#include <cerrno>
#include <cstring>
#include <map>

#include "guard.h"
#include "logging.h"
#include "model.h"

namespace platform_linux
{
namespace
{

// The VLAN interfaces with a trap, so that it can be taken back when the device is gone already.
struct VlanTrap {
    uint16_t vid;
    bool v4, v6;
};
std::map<uint32_t, VlanTrap> vlanTraps;

// A member of an aggregate does not: its frames count where they come in once more, on the aggregate.
bool receives_itself(const Port &port) { return port.kind != PortKind::vlanInterface && port.aggregate == 0; }

void follow(const Port &port)
{
    if (!receives_itself(port)) {
        guard_port_remove(port.ifIndex);
        return;
    }
    const int error = guard_port_add(port.ifIndex, port.nativeVid);
    if (error != 0 && error != ENODEV) // the kernel says next that it has gone
        platform_report(LOG_ERR, "%s: no DHCP trap can be had on it: %s", port.name, strerror(error));
}

void vlan_interface_gone(uint32_t ifIndex)
{
    const auto found = vlanTraps.find(ifIndex);
    if (found == vlanTraps.end())
        return;
    guard_trap_vlan(found->second.vid, 4, false);
    guard_trap_vlan(found->second.vid, 6, false);
    vlanTraps.erase(found);
}

void model_changed(ModelChange change, const Port &port, const Port *before)
{
    if (change == ModelChange::vanished) {
        guard_port_remove(port.ifIndex);
        vlan_interface_gone(port.ifIndex);
        return;
    }
    if (change == ModelChange::appeared || before == nullptr || port.nativeVid != before->nativeVid ||
        port.aggregate != before->aggregate || port.up != before->up)
        follow(port);
}

} // namespace

int32_t trap_start()
{
    std::string why, note;
    if (!guard_open(why, note)) {
        platform_report(LOG_ERR, "no DHCP trap can be had here, snooping cannot be switched on: %s",
                        why.c_str());
        return 0;
    }
    if (!note.empty())
        platform_report(LOG_NOTICE, "%s", note.c_str());
    for (const auto &[ifIndex, port] : model_ports())
        follow(port);
    guard_ports_complete();
    model_watch(model_changed);
    return 0;
}

int32_t trap_set(uint32_t ifIndex, int family, bool on)
{
    const Port *port = model_port(ifIndex);
    const auto known = vlanTraps.find(ifIndex);
    if (known == vlanTraps.end() && (port == nullptr || port->kind != PortKind::vlanInterface)) {
        const int error = guard_trap_port(ifIndex, family, on);
        return !on && error == ENODEV ? 0 : error;
    }
    const uint16_t vid = known != vlanTraps.end() ? known->second.vid : port->vlan;
    const int error = guard_trap_vlan(vid, family, on);
    if (error != 0)
        return error;
    VlanTrap &trap = vlanTraps.try_emplace(ifIndex, VlanTrap{vid, false, false}).first->second;
    (family == 4 ? trap.v4 : trap.v6) = on;
    if (!trap.v4 && !trap.v6)
        vlanTraps.erase(ifIndex);
    return 0;
}

} // namespace platform_linux
