// The daemon's own configuration of the guard: read from the maps, told in events, put in force when the
// daemon has handled them.
#include "guard.h"

#include <cstring>
#include <set>
#include <utility>

#include "classifier.h"
#include "guard_events.h"
#include "platform.h"
#include "report.h"

namespace platform_linux
{
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
bool stopped = false; // ARP inspection, once
bool due = false;     // the daemon has something to handle, or something is pending that it was told already

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
        const GuardedInterface guarded = {guard_checked(items, GuardFeature::ipSourceGuard),
                                          guard_checked(items, GuardFeature::arpInspection),
                                          static_cast<uint16_t>(place.isVlan ? place.number : 0)};
        if (guarded.ip != 0 || guarded.arp != 0)
            wanted[ifIndex] = guarded;
        for (const GuardFeature feature : GUARD_FEATURES)
            due = due || guard_pending(items, feature);
    }
    report_unreachable(unreachable);
    const size_t before = events.size();
    const bool inspects = daemonsEvents.inspects();
    daemonsEvents.follow(wanted, model_ports(), events);
    stopped = stopped || (inspects && !daemonsEvents.inspects());
    if (events.size() == before)
        return;
    due = true;
    bindings_hold(Hold::checkItems, true);
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

void guard_follow(DaemonEvents &events)
{
    std::string why;
    if (!guard_config_open(why))
        return;
    follow_config(events);
    guard_vlans_changed(); // a client switches off by itself
}

bool guard_follow_pending() { return due; }

bool guard_inspection_stopped() { return stopped; }

void guard_follow_handled()
{
    if (!due)
        return;
    due = false;
    for (const auto &[place, before] : guard_config_all()) {
        const auto told = daemonsEvents.told().find(interface_of(place));
        if (told == daemonsEvents.told().end())
            continue;
        guard_items items = guard_config_get(place); // a client may write at any moment
        bool settled = false;
        for (const GuardFeature feature : GUARD_FEATURES) {
            const uint8_t known = feature == GuardFeature::ipSourceGuard ? told->second.ip : told->second.arp;
            // Changed again meanwhile: that is announced too.
            if (!guard_pending(items, feature) || guard_checked(items, feature) != known ||
                !daemon_serves(feature))
                continue;
            guard_settle(items, feature);
            settled = true;
        }
        if (const int error = settled ? guard_config_set(place, items) : 0; error != 0)
            platform_report(LOG_ERR, "%s: the guard cannot be put in force there: %s",
                            place.isVlan ? ("VLAN " + std::to_string(place.number)).c_str()
                                         : device_name(place.number).c_str(),
                            strerror(error));
    }
    guard_vlans_changed();
    bindings_hold(Hold::checkItems, false); // no sooner: what was in force counts no binding that names less
}

} // namespace platform_linux
