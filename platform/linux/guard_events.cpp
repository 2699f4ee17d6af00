// The guard's configuration to events for the daemon (guard_events.h). A port's setting replaces its VLAN's,
// and the daemon withdraws a port's bindings when the port's setting goes: the VLANs that it falls back to
// are told once more then.
#include "guard_events.h"

#include <cstring>
#include <utility>

#include "guard_config.h"
#include "logging.h"
#include "platform.h"

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

namespace
{

struct FeatureText {
    const char *name, *argument;
};
constexpr FeatureText FEATURE_TEXTS[] = {
    {"IP source guard", "third" },
    {"ARP inspection",  "fourth"}
};

GuardEvents daemonsEvents;
bool due = false; // something pending has been told

// Without its interface a VLAN has no name by which the daemon could be told of it.
uint32_t interface_of(const GuardPlace &place)
{
    if (place.isVlan)
        return model_vlan_interface(static_cast<uint16_t>(place.number));
    const Port *port = model_port(place.number);
    return port != nullptr && port->kind != PortKind::vlanInterface ? place.number : 0;
}

void report_unreachable(const std::set<uint32_t> &vlans)
{
    static std::set<uint32_t> reported;
    for (const uint32_t vid : vlans)
        if (!reported.contains(vid))
            platform_report(LOG_WARNING,
                            "VLAN %u is guarded but has no interface: its bindings cannot be installed", vid);
    reported = vlans;
}

void follow_config(DaemonEvents &events)
{
    GuardedInterfaces wanted;
    std::set<uint32_t> unreachable;
    for (const auto &[place, items] : guard_config_all()) {
        const uint32_t ifIndex = interface_of(place);
        if (ifIndex == 0 && place.isVlan)
            unreachable.insert(place.number);
        if (ifIndex == 0)
            continue;
        const GuardedInterface guarded = {guard_wanted(items, GuardFeature::ipSourceGuard),
                                          guard_wanted(items, GuardFeature::arpInspection),
                                          static_cast<uint16_t>(place.isVlan ? place.number : 0)};
        if (guarded.ip != 0 || guarded.arp != 0)
            wanted[ifIndex] = guarded;
        for (const GuardFeature feature : GUARD_FEATURES)
            due = due || guard_pending(items, feature);
    }
    report_unreachable(unreachable);
    daemonsEvents.follow(wanted, model_ports(), events);
}

// A daemon that was started without a feature installs nothing when it learns a binding: put in force, the
// guard would cut everybody off.
bool daemon_serves(GuardFeature feature)
{
    static bool reported[std::size(FEATURE_TEXTS)];
    const bool ip = feature == GuardFeature::ipSourceGuard;
    if ((ip ? gDhcpsnoop.ipsgIfGet : gDhcpsnoop.antiArpIfGet) != nullptr)
        return true;
    const auto number = static_cast<size_t>(feature);
    if (!std::exchange(reported[number], true))
        platform_report(LOG_ERR, "%s is configured, but the daemon's %s argument does not switch it on",
                        FEATURE_TEXTS[number].name, FEATURE_TEXTS[number].argument);
    return false;
}

} // namespace

void guard_events_follow(DaemonEvents &events)
{
    std::string why;
    if (guard_config_open(why))
        follow_config(events);
}

bool guard_events_wait() { return due; }

void guard_events_handled()
{
    if (!due)
        return;
    due = false;
    for (auto [place, items] : guard_config_all()) {
        const auto told = daemonsEvents.told().find(interface_of(place));
        if (told == daemonsEvents.told().end())
            continue;
        bool settled = false;
        for (const GuardFeature feature : GUARD_FEATURES) {
            const uint8_t known = feature == GuardFeature::ipSourceGuard ? told->second.ip : told->second.arp;
            // Changed again meanwhile: that is announced too.
            if (!guard_pending(items, feature) || guard_wanted(items, feature) != known ||
                !daemon_serves(feature))
                continue;
            guard_settle(items, feature);
            settled = true;
        }
        if (const int error = settled ? guard_config_set(place, items) : 0; error != 0)
            platform_report(LOG_ERR, "the guard cannot be put in force on %s %u: %s",
                            place.isVlan ? "VLAN" : "interface", place.number, strerror(error));
    }
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
