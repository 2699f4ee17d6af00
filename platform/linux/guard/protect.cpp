// Which devices are looked after for protected bridges, and which addresses are this host's own (guard.h).
#include "protect.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <utility>

#include "bridge_gate.h"
#include "classifier.h"
#include "clock.h"
#include "guard.h"
#include "report.h"

namespace platform_linux
{
namespace
{

constexpr Ticks TRY_AGAIN = 1000, TELL_AGAIN = 60'000;

std::set<uint32_t> bridges, others; // protected, and those known not to be
bool protecting = false;            // some bridge, or one that is to come
PortReady isReady = nullptr;
std::map<uint32_t, MacAddress> own; // of devices that are no ports, by index
bool tellsLater = false, ownChanged = false;

// Of the gate (bridge_gate.h).
std::map<uint32_t, uint32_t> inBridge; // devices in bridges
std::set<uint32_t> waiting;            // ports of protected bridges, for their settings
std::map<uint32_t, uint32_t> refused;  // ports that got none, by their bridge
std::set<uint32_t> asBefore;           // of those that wait: no frame of theirs is held back meanwhile
std::set<uint32_t> doubtful;           // devices whose pass may be another
GatePasses passes;
Ticks tryAt = 0, tellAt = 0;
bool started = false, unjudged = false; // unjudged: a bridge of which it is not known whether it is protected
bool gateMade = false, gateFails = false, gateMissing = false;

// A member of an aggregate is no port: its frames are judged where they come in once more. Nor is this
// machine itself, which sends and routes.
bool is_port(uint32_t ifIndex)
{
    const Port *port = model_port(ifIndex);
    return port != nullptr && (port->kind == PortKind::port || port->kind == PortKind::aggregate) &&
           port->aggregate == 0;
}

void tell_own()
{
    std::set<MacAddress> addresses;
    for (const auto &[ifIndex, address] : own)
        addresses.insert(address);
    guard_own_set(addresses);
}

void report_failure(uint32_t ifIndex, const char *what, int error)
{
    if (error != 0 && error != ENODEV) // the kernel says next that it has gone
        platform_report(LOG_ERR, "%s: %s: %s", device_name(ifIndex).c_str(), what, strerror(error));
}

bool take_in(const Device &device)
{
    const uint32_t ifIndex = device.ifIndex;
    MacAddress address;
    std::copy_n(device.mac, address.size(), address.begin());
    const bool ethernet = address != MacAddress{};
    const auto known = own.find(ifIndex);
    const bool isOwn = ethernet && !is_port(ifIndex);
    if (!is_port(ifIndex))
        report_failure(ifIndex, "protected bridges cannot be told from it",
                       guard_device_add(ifIndex, ethernet && !device.isBridge));
    if (isOwn ? known != own.end() && known->second == address : known == own.end())
        return false;
    if (isOwn)
        own[ifIndex] = address;
    else
        own.erase(ifIndex);
    return true;
}

void take_bridge(const Device &device)
{
    doubtful.insert(device.ifIndex);
    if (device.bridge != 0)
        inBridge[device.ifIndex] = device.bridge;
    else
        inBridge.erase(device.ifIndex);
    if (device.isBridge && !bridges.contains(device.ifIndex) && !others.contains(device.ifIndex))
        unjudged = true;
}

void device_changed(const Device &device)
{
    if (!protecting)
        return;
    take_bridge(device);
    if (!take_in(device))
        return;
    ownChanged = tellsLater;
    if (!tellsLater)
        tell_own();
}

void device_gone(uint32_t ifIndex)
{
    inBridge.erase(ifIndex);
    asBefore.erase(ifIndex);
    waiting.erase(ifIndex);
    refused.erase(ifIndex);
    bridges.erase(ifIndex);
    others.erase(ifIndex);
    doubtful.insert(ifIndex);
    if (own.erase(ifIndex) != 0)
        tell_own();
}

// A bridge that guard_protect has not judged yet has no ports either.
std::optional<GatePass> pass_of(uint32_t ifIndex)
{
    const auto at = inBridge.find(ifIndex);
    if (at == inBridge.end())
        return {};
    if (others.contains(at->second))
        return GatePass{at->second, true};
    if (!bridges.contains(at->second) || waiting.contains(ifIndex) || !is_port(ifIndex) ||
        !guard_stands(ifIndex))
        return {};
    return GatePass{at->second, !refused.contains(ifIndex)};
}

void report_gate(int error)
{
    const bool failed = std::exchange(gateFails, error != 0 && error != EOPNOTSUPP);
    if (error == EOPNOTSUPP) {
        if (!std::exchange(gateMissing, true))
            platform_report(
                LOG_WARNING,
                "the kernel has no nftables for bridges (CONFIG_NF_TABLES_BRIDGE): two ports that "
                "join a protected bridge at once can reach each other for some milliseconds");
        return;
    }
    const Ticks now = ticks();
    tryAt = now + TRY_AGAIN;
    if (gateFails && now >= tellAt) {
        tellAt = now + TELL_AGAIN;
        platform_report(
            LOG_ERR,
            "nftables: table bridge dhcpsnoop: %s%s; ports that join a bridge now stay closed, or "
            "unprotected for some milliseconds; it is tried again every second",
            strerror(error),
            error == EEXIST ? " (nft delete table bridge dhcpsnoop removes the other one)" : "");
    } else if (failed && !gateFails) {
        tellAt = 0;
        platform_report(LOG_NOTICE, "nftables: table bridge dhcpsnoop is in force");
    }
}

// Of an earlier daemon's ports that are in no bridge at this moment nothing is known any more when all
// devices have been taken in: the gate keeps them out from now on.
void gate_begin()
{
    for (const auto &[ifIndex, bridge] : inBridge)
        passes[ifIndex] = {bridge, true};
    report_gate(bridge_gate_set(passes, doubtful));
}

void gate_close()
{
    bridge_gate_remove();
    gateMade = false;
    passes.clear();
    doubtful.clear();
    gateFails = false;
}

} // namespace

void protect_start()
{
    bridges.clear();
    others.clear();
    inBridge.clear();
    protecting = false;
    own.clear();
    gate_close();
    if (std::exchange(started, true))
        return;
    model_watch_devices(device_changed);
    model_watch_gone(device_gone);
}

void protect_put_off(bool on)
{
    tellsLater = on;
    if (!on && std::exchange(ownChanged, false))
        tell_own();
}

void protect_port(const Port &port)
{
    const bool isProtected = bridges.contains(port.bridge);
    const bool waits = isProtected && isReady != nullptr && !isReady(port);
    guard_port_apart(port.ifIndex, protecting && !isProtected && !port.routed);
    guard_port_hold(port.ifIndex, waits && !asBefore.contains(port.ifIndex));
    report_failure(port.ifIndex, "its bridge cannot be protected",
                   guard_port_protect(port.ifIndex, isProtected));
    const auto at = refused.find(port.ifIndex);
    if (at != refused.end() && (!waits || at->second != port.bridge))
        refused.erase(at);
    if (waits && !refused.contains(port.ifIndex))
        waiting.insert(port.ifIndex);
    else
        waiting.erase(port.ifIndex);
    doubtful.insert(port.ifIndex);
}

void protect_port_gone(uint32_t ifIndex)
{
    asBefore.erase(ifIndex);
    waiting.erase(ifIndex);
    refused.erase(ifIndex);
    doubtful.insert(ifIndex);
    guard_port_hold(ifIndex, false);
    report_failure(ifIndex, "the protection of its bridge stays", guard_port_protect(ifIndex, false));
}

void guard_protect(const std::set<uint32_t> &protectedBridges, bool expectsMore)
{
    const std::set<uint32_t> open = std::exchange(others, {});
    bridges = protectedBridges;
    protecting = started && (expectsMore || !bridges.empty());
    unjudged = false;
    inBridge.clear();
    if (!protecting) {
        gate_close();
        own.clear();
        guard_protecting(false);
        guard_own_set({});
    } else {
        for (const auto &[ifIndex, pass] : passes)
            doubtful.insert(ifIndex);
        model_devices([](const Device &device) {
            if (device.isBridge && !bridges.contains(device.ifIndex))
                others.insert(device.ifIndex);
            take_bridge(device);
        });
        // Ports that spoke freely until now, or under the traps and rules of an earlier daemon, go on so.
        for (const auto &[ifIndex, bridge] : inBridge)
            if (!gateMade || open.contains(bridge))
                asBefore.insert(ifIndex);
        if (!std::exchange(gateMade, true))
            gate_begin();
        model_devices([](const Device &device) { take_in(device); });
        tell_own();
        guard_protecting(true); // when all devices are known
    }
    for (const auto &[ifIndex, port] : model_ports())
        if (is_port(ifIndex))
            protect_port(port);
}

bool guard_protect_due() { return protecting && unjudged; }

void guard_ask_ready(PortReady ready) { isReady = ready; }

void guard_admit(const Port &port, bool inForce)
{
    asBefore.erase(port.ifIndex);
    waiting.erase(port.ifIndex);
    if (inForce)
        refused.erase(port.ifIndex);
    else
        refused[port.ifIndex] = port.bridge;
    doubtful.insert(port.ifIndex);
    guard_port_hold(port.ifIndex, !inForce && is_port(port.ifIndex) && bridges.contains(port.bridge));
}

void guard_gate_follow()
{
    if (!protecting || (doubtful.empty() && !gateFails) || (gateFails && ticks() < tryAt))
        return;
    for (const uint32_t ifIndex : doubtful) {
        if (const auto pass = pass_of(ifIndex))
            passes[ifIndex] = *pass;
        else
            passes.erase(ifIndex);
    }
    report_gate(bridge_gate_set(passes, doubtful));
    if (!gateFails)
        doubtful.clear();
}

void guard_gate_retry()
{
    if (gateFails)
        guard_gate_follow();
}

} // namespace platform_linux
