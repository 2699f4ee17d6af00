#include "cut_off.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <set>

#include "binding_view.h"
#include "wanted.h"

using namespace platform_linux;

namespace
{

constexpr size_t NAMED = 4; // hosts in a warning

bool checks(const GuardWords &guard, uint32_t ipType)
{
    const bool ip = (guard.ip & GUARD_CHECK_ALL) != 0;
    if (ipType == DHCPSNOOP_IPV6)
        return ip && (guard.ip & GUARD_FAMILY_6) != 0;
    return (ip && (guard.ip & GUARD_NOT_4) == 0) || (guard.arp & GUARD_CHECK_ALL) != 0;
}

UserKey keyOf(const HostAddress &address)
{
    UserKey key;
    key.ipType = address.v6 ? DHCPSNOOP_IPV6 : DHCPSNOOP_IPV4;
    key.ipAddr = address.bytes;
    return key;
}

// Calls `see` for each interface of a VLAN of the port.
template <class See> void vlanInterfaces(const Ports &ports, const Port &port, See see)
{
    for (const auto &[ifIndex, other] : ports)
        if (other.vlan != 0 && port.members[other.vlan] && (other.bridge == 0 || other.bridge == port.bridge))
            see(other);
}

constexpr const char *IPV4_WORD = "IPv4";

std::string trustedText(const std::string &port)
{
    return port +
           " is trusted: routers and servers have no bindings and would lose their network; 'guard interface " +
           port + " exempt' lets them pass";
}

std::string unsnoopedText(const std::string &port, const std::string &ip, bool snoopsNothing)
{
    return port + ": " + ip + " is not snooped there, so that no host gets a binding; 'interface " + port +
           (snoopsNothing ? " snooping on'" : " version both'") + " comes first";
}

std::string cutOffText(const std::string &port, const std::string &ip, const std::set<std::string> &hosts)
{
    std::string some;
    for (size_t number = 0; const std::string &host : hosts)
        if (number++ < NAMED)
            some += (some.empty() ? "" : ", ") + host;
    const bool one = hosts.size() == 1;
    return port + ": " + std::to_string(hosts.size()) + (one ? " host" : " hosts") + " without an " + ip +
           " binding would lose " + (one ? "its" : "their") + " network (" + some +
           (hosts.size() > NAMED ? ", …" : "") + "); " +
           (ip == IPV4_WORD ? "wait for the renewal or add bindings"
                            : "add bindings or leave IPv6 unchecked (family 4)");
}

} // namespace

PortSnooping runningSnooping(const Daemon &daemon, const Ports &ports, const Port &port)
{
    const auto read = [&](const Port &at) {
        const auto value = [&](uint32_t cmd) {
            Reply reply = daemon.ask({FUNC_IF_GET, cmd, at.ifIndex});
            return reply.result() == NM_OK ? reply.word() : 0;
        };
        return value(IF_ENABLE) == 0 ? PortSnooping{} : PortSnooping{value(IF_TRUST) != 0, value(IF_VERSION)};
    };
    PortSnooping own = read(port);
    if (own.versions == 0)
        vlanInterfaces(ports, port, [&](const Port &vlan) { own.versions |= read(vlan).versions; });
    return own;
}

PortSnooping wantedSnooping(const Config &config, const Ports &ports, const Port &port)
{
    const auto read = [&](const Port &at) {
        const WantedPort wanted = wanted_port(config, port_id(at, ports));
        const auto value = [&](const char *name) {
            return std::get<uint32_t>(wanted.of(*findSetting(INTERFACE_SCOPE, name)).value);
        };
        return wanted.snoops() ? PortSnooping{value("trust") != 0, value("version")} : PortSnooping{};
    };
    PortSnooping own = read(port);
    if (own.versions == 0)
        vlanInterfaces(ports, port, [&](const Port &vlan) { own.versions |= read(vlan).versions; });
    return own;
}

void CutOff::add(const StaticBinding &binding)
{
    if (binding.bound && binding.mac)
        lines_.push_back({
            binding.key,
            if_nametoindex(binding.interface.c_str()),
            {binding.mac->begin(), binding.mac->end()}
        });
}

const std::vector<CutOff::Bound> &CutOff::bindings()
{
    if (bindings_)
        return *bindings_;
    bindings_ = lines_;
    for (const Binding &binding : readBindings(daemon_))
        if (binding.state == DHCPSNOOP_BIND_BOUND)
            bindings_->push_back({binding.key, binding.ifIndex, binding.mac});
    return *bindings_;
}

const std::vector<SeenHost> &CutOff::hosts()
{
    if (!hosts_ && !hosts_seen(hosts_.emplace()))
        throw CtlError(EXIT_REFUSED,
                       std::string("the hosts of the bridges cannot be listed: ") + std::strerror(errno));
    return *hosts_;
}

// The host in words when a binding of that IP version is missing; else empty. Where the guard does not check
// the port, a binding of any port counts.
std::string CutOff::missing(const GuardPlan &plan, const SeenHost &host, uint32_t ipType)
{
    const bool anyPort = ((plan.guard.ip | plan.guard.arp) & GUARD_CHECK_PORT) == 0;
    std::set<UserKey> bound;
    for (const Bound &binding : bindings())
        if (binding.key.ipType == ipType && (anyPort || binding.ifIndex == plan.port.ifIndex) &&
            std::equal(host.mac.begin(), host.mac.end(), binding.mac.begin(), binding.mac.end()))
            bound.insert(binding.key);
    const std::string mac = macText({host.mac.begin(), host.mac.end()});
    for (const HostAddress &address : host.addresses)
        if (const UserKey key = keyOf(address); key.ipType == ipType && !bound.contains(key))
            return mac + " with " + userKeyText(key);
    return bound.empty() ? mac : "";
}

Words CutOff::warnings(const GuardPlan &plan, const PortSnooping &snooping)
{
    const std::string name = plan.port.name;
    Words found;
    if (plan.port.kind == PortKind::host) {
        if (plan.vid == 0 && (checks(plan.guard, DHCPSNOOP_IPV4) || checks(plan.guard, DHCPSNOOP_IPV6)))
            found.push_back(name + " is this machine itself, and the guard stands at its ports alone");
        return found;
    }
    for (const uint32_t ipType : {DHCPSNOOP_IPV4, DHCPSNOOP_IPV6}) {
        if (!checks(plan.guard, ipType))
            continue;
        if (snooping.trusted)
            return {trustedText(name)};
        if (!daemonRuns_ && snooping.versions != 0)
            continue;
        const std::string ip = ipType == DHCPSNOOP_IPV4 ? IPV4_WORD : "IPv6";
        const auto isHere = [&](const Bound &one) {
            return one.key.ipType == ipType && one.ifIndex == plan.port.ifIndex;
        };
        if ((snooping.versions & ipType) == 0 &&
            std::ranges::none_of(daemonRuns_ ? bindings() : lines_, isHere)) {
            found.push_back(unsnoopedText(name, ip, snooping.versions == 0));
            continue;
        }
        std::set<std::string> cutOff;
        for (const SeenHost &host : daemonRuns_ ? hosts() : std::vector<SeenHost>{})
            if (host.ifIndex == plan.port.ifIndex && (plan.vid == 0 || host.vid == 0 || host.vid == plan.vid))
                cutOff.insert(missing(plan, host, ipType));
        cutOff.erase("");
        if (!cutOff.empty())
            found.push_back(cutOffText(name, ip, cutOff));
    }
    return found;
}
