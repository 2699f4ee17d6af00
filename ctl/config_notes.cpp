#include "config_notes.h"

#include <algorithm>
#include <map>
#include <ostream>

#include "cut_off.h"
#include "guard_view.h"
#include "model_now.h"
#include "own_dhcp.h"
#include "switch_model.h"

using namespace platform_linux;

void noteAbsent(const NotedFile &file, const Context &context)
{
    const auto note = [&](uint32_t line, const std::string &text) {
        context.err << file.name << ':' << line << ": note: " << text << '\n';
    };
    const std::vector<PortId> all = portIdsNow(file.config.model);
    for (const BridgeLine &line : file.config.bridges) {
        const auto isIn = [&](const PortId &port) { return port.bridge == line.bridge; };
        const auto isUplink = [&](const PortId &port) {
            return isIn(port) && line.uplink->match(port.name) != Rank::none;
        };
        if (std::ranges::none_of(all, isIn))
            note(line.line, "there is no bridge " + line.bridge + " with ports now");
        else if (line.uplink && std::ranges::none_of(all, isUplink))
            note(line.line,
                 line.bridge + " has no port " + line.uplink->text() + " now: no server is trusted there");
    }
    for (const PortLine &line : file.config.ports) {
        const bool isRate = line.setting != nullptr && line.setting->kind == Kind::Rate;
        const auto isMeant = [&](const PortId &port) {
            return line.ports.match(port.name) != Rank::none && !(isRate && port.isVlanInterface);
        };
        if (std::ranges::none_of(all, isMeant))
            note(line.line, "there is no port " + line.ports.text() + " now" +
                                (isRate ? ", and a VLAN's interface has no dhcp-rate" : ""));
    }
}

void noteCutOff(const NotedFile &file, const Context &context)
{
    const Config &config = file.config;
    const Ports ports = portsNow(config.model);
    std::string unused;
    guard_config_open(unused);
    CutOff cutOff(context.daemon, isDaemonRunning(context.daemon));
    for (const BindingLine &line : config.bindingLines)
        cutOff.add(line.binding);
    const auto note = [&](uint32_t line, const GuardPlace &place, const GuardPlan &plan) {
        const guard_items now = guard_config_get(place);
        if (plan.guard == GuardWords{guard_wanted(now, GuardFeature::ipSourceGuard),
                                     guard_wanted(now, GuardFeature::arpInspection)})
            return;
        for (const std::string &warning : cutOff.warnings(plan, wantedSnooping(config, ports, plan.port)))
            context.err << file.name << ':' << line << ": note: " << warning << '\n';
    };
    for (const auto &[ifIndex, port] : ports) {
        if (port.vlan != 0 || port.aggregate != 0)
            continue;
        const WantedPort wanted = wanted_port(config, port_id(port, ports));
        note(std::max(wanted.ip.source.line, wanted.arp.source.line),
             {
                 false, ifIndex
        },
             {port, 0, {wanted.ip.value, wanted.arp.value}});
        for (const VlanLine &line : config.vlans)
            if (port.members[line.vid] && wanted.ip.value == 0 && wanted.arp.value == 0)
                note(line.line, {true, line.vid},
                     {port, line.vid, line.guard.value_or(GuardWords{0, line.arp.value_or(uint8_t{0})})});
    }
}

void noteOwnDhcp(const NotedFile &file, const Context &context)
{
    SwitchModel model;
    DaemonEvents unused;
    std::map<uint32_t, OwnDhcp> own;
    const bool relays =
        std::ranges::any_of(file.config.ports, [](const PortLine &line) { return line.server.value_or(0); });
    if (!model_dump(model, unused) || !own_dhcp(model.links(), relays, own))
        return;
    for (const auto &[ifIndex, dhcp] : own) {
        const std::string name = model.links().at(ifIndex).name;
        const uint8_t roles = file.config.host_roles(name);
        const bool lacksServer = !dhcp.serves.empty() && (roles & (HOST_SERVER | HOST_RELAY)) == 0;
        const bool lacksClient = !dhcp.asks.empty() && roles == 0;
        const auto line = std::ranges::find(file.config.bridges, name, &BridgeLine::bridge);
        if (line == file.config.bridges.end() || (!lacksServer && !lacksClient))
            continue;
        std::string words = (roles & HOST_CLIENT) != 0 || lacksClient ? " client" : "";
        words += lacksServer ? " server" : "";
        context.err << file.name << ':' << line->line << ": note: this machine's own DHCP "
                    << (lacksServer ? "server or relay" : "client") << " on " << name << " would be cut off ("
                    << (lacksServer ? dhcp.serves : dhcp.asks) << "); the line 'bridge " << name << " host"
                    << words << "' is missing\n";
    }
}
