// The guard's configuration to events for the daemon (guard_events.h). A port's setting replaces its VLAN's,
// and the daemon withdraws a port's bindings when the port's setting goes: the VLANs that it falls back to
// are told once more then.
#include "guard_events.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "guard.h"
#include "platform_numbers.h"

namespace platform_linux
{
namespace
{

void tell(DaemonEvents &events, uint16_t type, uint32_t ifIndex = 0, uint8_t items = 0)
{
    CheckItemsEvent message = check_items_event(type, ifIndex, items);
    DaemonEvent &event = events.emplace_back();
    static_assert(sizeof message <= sizeof event.bytes);
    event.length = type == QOR_EVENT_DAI_STOP ? sizeof message.header : sizeof message;
    message.header.nlmsg_len = event.length;
    memcpy(event.bytes.data(), &message, event.length);
}

GuardedInterface at(const GuardedInterfaces &interfaces, uint32_t ifIndex)
{
    const auto found = interfaces.find(ifIndex);
    return found != interfaces.end() ? found->second : GuardedInterface{};
}

// Check items of one feature, GuardedInterface::ip or ::arp.
using Items = uint8_t GuardedInterface::*;

bool anywhere(const GuardedInterfaces &interfaces, Items items)
{
    return std::ranges::any_of(interfaces, [items](const auto &entry) { return entry.second.*items != 0; });
}

struct Change {
    uint32_t ifIndex;
    bool isVlan;
    uint8_t before, now;
};

// Of ports and VLAN interfaces that are there, ascending by index.
std::vector<Change> changes_of(Items items, const GuardedInterfaces &told, const GuardedInterfaces &wanted,
                               const std::map<uint32_t, Port> &ports)
{
    std::vector<Change> changes;
    for (const auto &[ifIndex, port] : ports) {
        const GuardedInterface before = at(told, ifIndex), now = at(wanted, ifIndex);
        if (before.*items != now.*items)
            changes.push_back({ifIndex, before.vlan != 0 || now.vlan != 0, before.*items, now.*items});
    }
    return changes;
}

// The VLANs whose items count for a port again after its own have gone.
void tell_fallbacks(Items items, uint16_t type, const std::vector<Change> &changes,
                    const GuardedInterfaces &wanted, const std::map<uint32_t, Port> &ports,
                    DaemonEvents &events)
{
    const auto falls_back_to = [&](uint16_t vid) {
        return std::ranges::any_of(changes, [&](const Change &change) {
            const Port &port = ports.at(change.ifIndex);
            return change.now == 0 && port.kind != PortKind::vlanInterface && port.members[vid];
        });
    };
    for (const auto &[vlanIndex, guarded] : wanted)
        if (guarded.vlan != 0 && guarded.*items != 0 && falls_back_to(guarded.vlan))
            tell(events, type, vlanIndex, guarded.*items);
}

} // namespace

bool GuardEvents::inspects() const { return anywhere(told_, &GuardedInterface::arp); }

void GuardEvents::follow_ip(const GuardedInterfaces &wanted, const std::map<uint32_t, Port> &ports,
                            DaemonEvents &events) const
{
    const std::vector<Change> changes = changes_of(&GuardedInterface::ip, told_, wanted, ports);
    for (const Change &change : changes)
        tell(events, QOR_EVENT_IPSG_ITEMS, change.ifIndex, change.now);
    tell_fallbacks(&GuardedInterface::ip, QOR_EVENT_IPSG_ITEMS, changes, wanted, ports, events);
}

void GuardEvents::follow_arp(const GuardedInterfaces &wanted, const std::map<uint32_t, Port> &ports,
                             DaemonEvents &events) const
{
    bool started = inspects();
    if (started && !anywhere(wanted, &GuardedInterface::arp)) {
        tell(events, QOR_EVENT_DAI_STOP);
        return;
    }
    const std::vector<Change> changes = changes_of(&GuardedInterface::arp, told_, wanted, ports);
    for (const Change &change : changes) {
        const bool switchedOn = change.before == 0;
        // The start installs bindings that are not installed, on ports only. Items that change replace those
        // that are.
        if (switchedOn && !change.isVlan && started)
            tell(events, QOR_EVENT_DAI_ITEMS, change.ifIndex, change.now);
        if (switchedOn && (!change.isVlan || !started))
            tell(events, QOR_EVENT_DAI_START, change.ifIndex, change.now);
        if (!switchedOn || change.isVlan)
            tell(events, QOR_EVENT_DAI_ITEMS, change.ifIndex, change.now);
        started = true;
    }
    tell_fallbacks(&GuardedInterface::arp, QOR_EVENT_DAI_ITEMS, changes, wanted, ports, events);
}

void GuardEvents::follow(const GuardedInterfaces &wanted, const std::map<uint32_t, Port> &ports,
                         DaemonEvents &events)
{
    follow_ip(wanted, ports, events);
    follow_arp(wanted, ports, events);
    told_ = wanted;
}

bool is_guard_announcement(std::span<const uint8_t> datagram)
{
    const nlmsghdr *message = next_message(datagram);
    if (message == nullptr)
        return false;
    switch (message->nlmsg_type) {
    case QOR_EVENT_DAI_STOP:
        return true;
    case QOR_EVENT_DAI_START:
    case QOR_EVENT_IPSG_ITEMS:
    case QOR_EVENT_DAI_ITEMS:
        return message->nlmsg_len >= sizeof(nlmsghdr) + 5; // interface index, check items
    default:
        return false;
    }
}

} // namespace platform_linux
