#include "switch_model.h"

#include <cstring>
#include <linux/if_ether.h>

namespace platform_linux
{
namespace
{
constexpr uint16_t PLAIN_BRIDGE_VLAN = 1; // a bridge without VLAN filtering is this VLAN, untagged

SwitchModel theModel;

Port described(const Link &link)
{
    Port port{};
    port.ifIndex = link.ifIndex;
    memcpy(port.name, link.name, sizeof port.name);
    memcpy(port.mac, link.mac, sizeof port.mac);
    port.aliasSum = link.aliasSum;
    port.kind = link.kind == LinkKind::aggregate ? PortKind::aggregate : PortKind::port;
    port.up = link.up;
    port.stp = link.masterKind == LinkKind::bridge ? link.bridgePort.stp : StpState::forwarding;
    port.bridge = link.masterKind == LinkKind::bridge ? link.master : 0;
    port.aggregate = link.masterKind == LinkKind::aggregate ? link.master : 0;
    port.tpid = ETH_P_8021Q;
    return port;
}

void make_vlan_interface(Port &port, uint16_t vid)
{
    port.kind = PortKind::vlanInterface;
    port.vlan = vid;
    port.number = vid;
    port.nativeVid = vid;
    port.members.set(vid);
    port.untagged.set(vid);
}

void set_vlans(Port &port, const BridgePort &vlans, bool vlanFiltering)
{
    if (vlanFiltering) {
        port.nativeVid = vlans.pvid;
        port.members = vlans.members;
        port.untagged = vlans.untagged;
    } else {
        port.nativeVid = PLAIN_BRIDGE_VLAN;
        port.members.set(PLAIN_BRIDGE_VLAN);
        port.untagged.set(PLAIN_BRIDGE_VLAN);
    }
}

// Nothing holds the machine back from its own bridge: it is up whatever the carrier, and has no spanning
// tree.
void make_host(Port &port)
{
    port.kind = PortKind::host;
    port.up = true;
    port.bridge = port.ifIndex;
}

Device device_of(const Link &link)
{
    return {link.ifIndex, link.kind == LinkKind::bridge,
            link.masterKind == LinkKind::bridge ? link.master : 0, link.mac};
}

struct Change {
    ModelChange what;
    Port port;
    std::optional<Port> before;
};
} // namespace

const Link *SwitchModel::bridge_of(const Link &link) const
{
    const auto it = links_.links().find(link.masterKind == LinkKind::bridge ? link.master : link.lower);
    return it != links_.links().end() && it->second.kind == LinkKind::bridge ? &it->second : nullptr;
}

std::optional<Port> SwitchModel::derive_configured(const Link &link) const
{
    Port port = described(link);
    if (const auto it = conf_.vlanInterfaces.find(link.name); it != conf_.vlanInterfaces.end()) {
        make_vlan_interface(port, it->second);
        return port;
    }
    const auto it = conf_.ports.find(link.name);
    if (it == conf_.ports.end())
        return {};
    port.number = it->second.number;
    port.routed = it->second.routed;
    port.nativeVid = it->second.nativeVid;
    port.members = it->second.tagged;
    if (port.nativeVid != 0) {
        port.members.set(port.nativeVid);
        port.untagged.set(port.nativeVid);
    }
    return port;
}

std::optional<Port> SwitchModel::derive_bridged(const Link &link) const
{
    Port port = described(link);
    if (link.masterKind == LinkKind::bridge) {
        port.number = link.bridgePort.number;
        const Link *bridge = bridge_of(link);
        set_vlans(port, link.bridgePort, bridge != nullptr && bridge->vlanFiltering);
        return port;
    }
    if (link.kind == LinkKind::vlan && bridge_of(link) != nullptr && link.vlan != 0 &&
        link.vlan < port.members.size() - 1) {
        make_vlan_interface(port, link.vlan);
        return port;
    }
    return {};
}

std::optional<Port> SwitchModel::derive(const Link &link) const
{
    std::optional<Port> port = conf_.describes_ports() ? derive_configured(link) : derive_bridged(link);
    const bool isBridge = link.kind == LinkKind::bridge;
    if (!port && isBridge && conf_.hosts.contains(link.name))
        set_vlans(port.emplace(described(link)), link.bridgePort, link.vlanFiltering);
    if (!port)
        return port;
    if (isBridge && port->kind != PortKind::vlanInterface)
        make_host(*port);
    const Link *bridge = port->kind == PortKind::host ? &link : bridge_of(link);
    if (bridge == nullptr)
        return port;
    port->bridge = bridge->ifIndex;
    memcpy(port->bridgeName, bridge->name, sizeof port->bridgeName);
    if (bridge->vlanFiltering && bridge->vlanProtocol == ETH_P_8021AD)
        port->tpid = ETH_P_8021AD;
    return port;
}

void SwitchModel::refresh()
{
    const std::map<uint32_t, Link> &links = links_.links();
    std::set<uint32_t> stale = links_.take_changed();
    if (stale.empty())
        return;
    // A bridge's settings are its ports' and its VLAN devices' too. A device that has gone may have been one.
    const std::set<uint32_t> changed = stale;
    std::set<uint32_t> bridges;
    for (const uint32_t ifIndex : changed)
        if (const auto link = links.find(ifIndex);
            link == links.end() || link->second.kind == LinkKind::bridge)
            bridges.insert(ifIndex);
    for (auto link = links.begin(); !bridges.empty() && link != links.end(); ++link)
        if (bridges.contains(link->second.master) || bridges.contains(link->second.lower))
            stale.insert(link->first);

    std::vector<Change> changes;
    bool vlanInterfaces = false;
    for (const uint32_t ifIndex : stale) {
        const auto link = links.find(ifIndex);
        const auto known = ports_.find(ifIndex);
        std::optional<Port> before, now;
        if (known != ports_.end())
            before = known->second;
        if (link != links.end())
            now = derive(link->second);
        if (before == now)
            continue;
        vlanInterfaces = vlanInterfaces || (before ? before->vlan : 0) != (now ? now->vlan : 0);
        if (!now) {
            ports_.erase(known);
            changes.push_back({ModelChange::vanished, *before, {}});
        } else {
            ports_[ifIndex] = *now;
            changes.push_back({before ? ModelChange::changed : ModelChange::appeared, *now, before});
        }
    }
    if (vlanInterfaces) {
        vlanInterfaces_.fill(0);
        for (const auto &[ifIndex, port] : ports_)
            if (port.vlan != 0 && vlanInterfaces_[port.vlan] == 0)
                vlanInterfaces_[port.vlan] = ifIndex;
    }
    for (const Change &change : changes)
        for (const ModelWatcher watcher : watchers_)
            watcher(change.what, change.port, change.before ? &*change.before : nullptr);
    for (const uint32_t ifIndex : changed)
        for (const GoneWatcher watcher : goneWatchers_)
            if (!links.contains(ifIndex))
                watcher(ifIndex);
    for (const uint32_t ifIndex : changed)
        for (const DeviceWatcher watcher : deviceWatchers_)
            if (const auto link = links.find(ifIndex); link != links.end())
                watcher(device_of(link->second));
}

bool SwitchModel::feed(std::span<const uint8_t> datagram, DaemonEvents &events)
{
    const bool complete = links_.feed(datagram, events);
    if (!dumping_)
        refresh();
    return complete;
}

void SwitchModel::dump_begin()
{
    dumping_ = true;
    links_.dump_begin();
}

void SwitchModel::dump_end(bool complete, DaemonEvents &events)
{
    links_.dump_end(complete, events);
    dumping_ = false;
    refresh();
}

void SwitchModel::set_hosts(const std::set<std::string, std::less<>> &hosts)
{
    for (const auto &[ifIndex, link] : links_.links())
        if (link.kind == LinkKind::bridge && hosts.contains(link.name) != conf_.hosts.contains(link.name))
            links_.look_again(ifIndex);
    conf_.hosts = hosts;
    refresh();
}

SwitchModel &switch_model() { return theModel; }

const Port *model_port(uint32_t ifIndex)
{
    const auto it = theModel.ports().find(ifIndex);
    return it != theModel.ports().end() ? &it->second : nullptr;
}

uint32_t model_vlan_interface(uint16_t vid) { return theModel.vlan_interface(vid); }

const std::map<uint32_t, Port> &model_ports() { return theModel.ports(); }

bool model_has_file() { return theModel.conf().describes_ports(); }

void model_hosts(const std::set<std::string, std::less<>> &bridges) { theModel.set_hosts(bridges); }

uint32_t model_system() { return theModel.conf().system; }

DhcpsnoopRole model_role() { return theModel.conf().role; }

void model_watch(ModelWatcher watcher) { theModel.watch(watcher); }

void model_watch_devices(DeviceWatcher watcher) { theModel.watch_devices(watcher); }

void model_devices(DeviceWatcher watcher)
{
    for (const auto &[ifIndex, link] : theModel.links())
        watcher(device_of(link));
}

uint32_t model_bridge(std::string_view name)
{
    for (const auto &[ifIndex, link] : theModel.links())
        if (link.kind == LinkKind::bridge && name == link.name)
            return ifIndex;
    return 0;
}

void model_watch_gone(GoneWatcher watcher) { theModel.watch_gone(watcher); }

} // namespace platform_linux
