// Which devices are looked after for protected bridges, and which addresses are this host's own (guard.h).
#include "protect.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "classifier.h"
#include "guard.h"
#include "report.h"

namespace platform_linux
{
namespace
{

std::set<uint32_t> bridges;
bool protecting = false; // some bridge, or one that is to come
PortReady isReady = nullptr;
std::map<uint32_t, MacAddress> own; // of devices that are no ports, by index

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

bool take_in(uint32_t ifIndex, bool isBridge, const uint8_t *mac)
{
    MacAddress address;
    std::copy_n(mac, address.size(), address.begin());
    const bool ethernet = address != MacAddress{};
    const auto known = own.find(ifIndex);
    const bool isOwn = ethernet && !is_port(ifIndex);
    if (!is_port(ifIndex))
        report_failure(ifIndex, "protected bridges cannot be told from it",
                       guard_device_add(ifIndex, ethernet && !isBridge));
    if (isOwn ? known != own.end() && known->second == address : known == own.end())
        return false;
    if (isOwn)
        own[ifIndex] = address;
    else
        own.erase(ifIndex);
    return true;
}

void device_changed(uint32_t ifIndex, bool isBridge, const uint8_t *mac)
{
    if (protecting && take_in(ifIndex, isBridge, mac))
        tell_own();
}

void device_gone(uint32_t ifIndex)
{
    if (own.erase(ifIndex) != 0)
        tell_own();
}

} // namespace

void protect_start()
{
    bridges.clear();
    protecting = false;
    own.clear();
    model_watch_devices(device_changed);
    model_watch_gone(device_gone);
}

void protect_port(const Port &port)
{
    const bool isProtected = bridges.contains(port.bridge);
    guard_port_apart(port.ifIndex, protecting && !isProtected && !port.routed);
    guard_port_hold(port.ifIndex, isProtected && isReady != nullptr && !isReady(port));
    report_failure(port.ifIndex, "its bridge cannot be protected",
                   guard_port_protect(port.ifIndex, isProtected));
}

void protect_port_gone(uint32_t ifIndex)
{
    guard_port_hold(ifIndex, false);
    report_failure(ifIndex, "the protection of its bridge stays", guard_port_protect(ifIndex, false));
}

void guard_protect(const std::set<uint32_t> &protectedBridges, bool expectsMore)
{
    bridges = protectedBridges;
    protecting = expectsMore || !bridges.empty();
    if (!protecting) {
        own.clear();
        guard_protecting(false);
        guard_own_set({});
    } else {
        model_devices(
            [](uint32_t ifIndex, bool isBridge, const uint8_t *mac) { take_in(ifIndex, isBridge, mac); });
        tell_own();
        guard_protecting(true); // when all devices are known
    }
    for (const auto &[ifIndex, port] : model_ports())
        if (is_port(ifIndex))
            protect_port(port);
}

void guard_ask_ready(PortReady ready) { isReady = ready; }

void guard_admit(uint32_t ifIndex) { guard_port_hold(ifIndex, false); }

} // namespace platform_linux
