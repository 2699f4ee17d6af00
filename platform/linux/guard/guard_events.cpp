// The guard's configuration to events for the daemon (guard_events.h). A port's setting replaces its VLAN's,
// and the daemon withdraws a port's bindings when the port's setting goes: the VLANs that it falls back to
// are told once more then.
#include "guard_events.h"

#include <cstring>
#include <set>
#include <utility>

#include "guard_config.h"

namespace platform_linux
{
namespace
{

void tell(DaemonEvents &events, uint16_t type, uint32_t ifIndex = 0, uint8_t items = 0)
{
    struct {
        nlmsghdr header;
        uint32_t ifIndex;
        uint8_t items;
        uint8_t reserved[3];
    } message = {};
    DaemonEvent &event = events.emplace_back();
    static_assert(sizeof message <= sizeof event.bytes);
    event.length = type == EVENT_ARP_STOP ? sizeof message.header : sizeof message;
    message.header.nlmsg_len = event.length;
    message.header.nlmsg_type = type;
    message.ifIndex = ifIndex;
    message.items = items;
    memcpy(event.bytes.data(), &message, event.length);
}

GuardedInterface at(const GuardedInterfaces &interfaces, uint32_t ifIndex)
{
    const auto found = interfaces.find(ifIndex);
    return found != interfaces.end() ? found->second : GuardedInterface{};
}

bool inspecting(const GuardedInterfaces &interfaces)
{
    for (const auto &[ifIndex, guarded] : interfaces)
        if (guarded.arp != 0)
            return true;
    return false;
}

struct Change {
    GuardedInterface before, now;
};

} // namespace

void GuardEvents::follow(const GuardedInterfaces &wanted, const std::map<uint32_t, Port> &ports,
                         DaemonEvents &events)
{
    bool started = inspecting(told_);
    const bool stops = started && !inspecting(wanted);
    if (stops)
        tell(events, EVENT_ARP_STOP);

    std::map<uint32_t, Change> changes; // ports and VLAN interfaces, ascending
    for (const GuardedInterfaces *side : {&std::as_const(told_), &wanted})
        for (const auto &[ifIndex, guarded] : *side)
            if (at(told_, ifIndex) != at(wanted, ifIndex) && ports.contains(ifIndex))
                changes[ifIndex] = {at(told_, ifIndex), at(wanted, ifIndex)};

    std::set<uint32_t> againIp, againArp; // VLAN interfaces whose bindings a port falls back to
    for (const auto &[ifIndex, change] : changes) {
        const auto &[before, now] = change;
        if (before.ip != now.ip)
            tell(events, EVENT_IP_ITEMS, ifIndex, now.ip);
        if (before.arp != now.arp && !stops) {
            const bool isVlan = now.vlan != 0 || before.vlan != 0;
            // The start installs what is not installed, on ports only; items that change replace what is.
            if (before.arp == 0 && !isVlan && started)
                tell(events, EVENT_ARP_ITEMS, ifIndex, now.arp);
            if (before.arp == 0 && (!isVlan || !started))
                tell(events, EVENT_ARP_START, ifIndex, now.arp);
            if (before.arp != 0 || isVlan)
                tell(events, EVENT_ARP_ITEMS, ifIndex, now.arp);
            started = true;
        }
        const Port &port = ports.at(ifIndex);
        for (const auto &[vlanIndex, guarded] : wanted) {
            if (guarded.vlan == 0 || port.kind == PortKind::vlanInterface || !port.members[guarded.vlan])
                continue;
            if (before.ip != 0 && now.ip == 0 && guarded.ip != 0)
                againIp.insert(vlanIndex);
            if (before.arp != 0 && now.arp == 0 && guarded.arp != 0)
                againArp.insert(vlanIndex);
        }
    }
    for (const uint32_t vlanIndex : againIp)
        tell(events, EVENT_IP_ITEMS, vlanIndex, at(wanted, vlanIndex).ip);
    for (const uint32_t vlanIndex : againArp)
        tell(events, EVENT_ARP_ITEMS, vlanIndex, at(wanted, vlanIndex).arp);
    told_ = wanted;
}

bool is_guard_announcement(std::span<const uint8_t> datagram)
{
    const nlmsghdr *message = next_message(datagram);
    if (message == nullptr)
        return false;
    switch (message->nlmsg_type) {
    case EVENT_ARP_STOP:
        return true;
    case EVENT_ARP_START:
    case EVENT_IP_ITEMS:
    case EVENT_ARP_ITEMS:
        return message->nlmsg_len >= sizeof(nlmsghdr) + 5; // interface index, check items
    default:
        return false;
    }
}

} // namespace platform_linux
