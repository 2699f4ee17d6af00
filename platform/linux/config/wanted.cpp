#include "wanted.h"

#include <algorithm>
#include <net/if.h>

namespace platform_linux
{
namespace
{

bool outranks(const Source &one, const Source &other)
{
    return one.rank != other.rank ? one.rank > other.rank : one.line >= other.line;
}

template <class T> void consider(Wanted<T> &wanted, const T &value, const Source &source)
{
    if (outranks(source, wanted.source))
        wanted = {value, source};
}

void consider(WantedPort &port, const char *name, uint32_t value, const Source &source)
{
    consider(port.settings[findSetting(INTERFACE_SCOPE, name)], Value(value), source);
}

// Servers of lines of one rank add up; a more specific line begins anew.
void consider_server(Wanted<std::set<uint32_t>> &servers, uint32_t server, const Source &source)
{
    if (source.rank < servers.source.rank)
        return;
    if (source.rank > servers.source.rank || server == 0)
        servers.value.clear();
    if (server != 0)
        servers.value.insert(server);
    servers.source = source;
}

// The machine itself. A relay is trusted as a server is: requests are to come to it, and it sends the replies
// on. The guard has no say for what a machine sends of itself.
void consider_host(WantedPort &port, const Config &config, const PortId &id)
{
    const bool trusted = (config.host_roles(id.bridge) & (HOST_SERVER | HOST_RELAY)) != 0;
    for (const BridgeLine &line : config.bridges) {
        if (line.bridge != id.bridge || line.host == 0)
            continue;
        const Source source = {Rank::bridge, line.line};
        consider(port, "snooping", 1, source);
        consider(port, "trust", trusted, source);
        consider(port, "source-mac-check", !trusted, source);
        consider(port, "binding-check", !trusted, source);
        consider(port.ip, uint8_t{GUARD_EXEMPT}, source);
        consider(port.arp, uint8_t{GUARD_EXEMPT}, source);
    }
}

void consider_bridge(WantedPort &port, const Config &config, const PortId &id)
{
    bool uplink = false;
    for (const BridgeLine &line : config.bridges)
        uplink =
            uplink || (line.bridge == id.bridge && line.uplink && line.uplink->match(id.name) != Rank::none);
    for (const BridgeLine &line : config.bridges) {
        if (line.bridge != id.bridge)
            continue;
        const Source source = {Rank::bridge, line.line};
        consider(port, "snooping", 1, source);
        consider(port, "trust", uplink, source);
        consider(port, "source-mac-check", !uplink, source);
        consider(port, "binding-check", !uplink, source);
        if (!uplink && !line.guard)
            continue;
        consider(port.ip, uplink ? uint8_t{GUARD_EXEMPT} : line.guard->ip, source);
        consider(port.arp, uplink ? uint8_t{GUARD_EXEMPT} : line.guard->arp, source);
    }
}

} // namespace

Rate rate_value(const GuardRate &rate) { return {rate.rate, rate.burst, rate.reserved, rate.isDefault}; }

PortId port_id(const Port &port, const std::map<uint32_t, Port> &ports)
{
    const auto first = std::ranges::find_if(
        ports, [&port](const auto &entry) { return port.vlan != 0 && entry.second.vlan == port.vlan; });
    const bool isFirst = first != ports.end() && first->first == port.ifIndex;
    return {port.ifIndex,
            port.name,
            port.bridgeName,
            port.vlan != 0,
            isFirst ? port.vlan : uint16_t{0},
            port.kind == PortKind::host};
}

bool WantedPort::snoops() const { return of(*findSetting(INTERFACE_SCOPE, "snooping")).value != Value(0u); }

Wanted<Value> WantedPort::of(const Setting &setting) const
{
    const auto said = settings.find(&setting);
    if (setting.kind == Kind::Rate && (said == settings.end() || isInitial(setting, said->second.value))) {
        const bool trusted = of(*findSetting(INTERFACE_SCOPE, "trust")).value == Value(1u);
        return {rate_value(guard_rate_default(trusted)),
                said != settings.end() ? said->second.source : Source()};
    }
    if (said != settings.end())
        return said->second;
    if (setting.cmd == IF_VERSION)
        return {Value(uint32_t{DHCPSNOOP_IPV4 | DHCPSNOOP_IPV6}), {}};
    return {initialValue(setting), {}};
}

WantedPort wanted_port(const Config &config, const PortId &port)
{
    WantedPort wanted;
    if (port.isHost)
        consider_host(wanted, config, port);
    else if (!port.bridge.empty() && !port.isVlanInterface)
        consider_bridge(wanted, config, port);
    for (const VlanLine &line : config.vlans)
        if (line.vid == port.vlan && line.setting != nullptr)
            consider(wanted.settings[findSetting(INTERFACE_SCOPE, line.setting->name)], line.value,
                     {Rank::name, line.line});
    for (const PortLine &line : config.ports) {
        const Source source = {line.ports.match(port.name), line.line};
        if (source.rank == Rank::none)
            continue;
        if (line.server)
            consider_server(wanted.servers, *line.server, source);
        else if (line.setting != nullptr)
            consider(wanted.settings[line.setting], line.value, source);
        if (line.guard) {
            consider(wanted.ip, line.guard->ip, source);
            consider(wanted.arp, line.guard->arp, source);
        }
        if (line.arp)
            consider(wanted.arp, *line.arp, source);
    }
    return wanted;
}

std::string source_text(const Config &config, const Source &source)
{
    return source.line == 0 ? "default" : config.name + ":" + std::to_string(source.line);
}

} // namespace platform_linux
