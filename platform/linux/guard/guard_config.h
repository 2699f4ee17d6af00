// The guard's configuration: on which ports and in which VLANs IP source guard and ARP inspection stand, and
// by which check items. It lives in the pinned maps alone, where the classifier, the daemon's hooks and the
// client find it, beside a daemon or without one. What an operator switches on is pending until the daemon
// has installed its bindings there; what he switches off is off at once.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "guard_maps.h"

namespace platform_linux
{

enum class GuardFeature : uint8_t { ipSourceGuard, arpInspection };
constexpr GuardFeature GUARD_FEATURES[] = {GuardFeature::ipSourceGuard, GuardFeature::arpInspection};

// A port by its interface index, or a VLAN by its id (1 to 4094).
struct GuardPlace {
    bool isVlan;
    uint32_t number;
    auto operator<=>(const GuardPlace &) const = default;
};

// Finds the maps of the calling process's network namespace, once for as long as the process lives. False
// with the reason when there are none: no daemon of this namespace has made them, or they may not be opened.
bool guard_config_open(std::string &why);
void guard_config_close();

// What is configured; zero where nothing is, and without maps.
guard_items guard_config_get(const GuardPlace &place);
// Everything that is configured.
std::map<GuardPlace, guard_items> guard_config_all();
// 0 or an errno value.
int guard_config_set(const GuardPlace &place, const guard_items &items);

// Check items as they are to be, in force or not yet; 0 = off, GUARD_EXEMPT alone = exempt.
uint8_t guard_wanted(const guard_items &items, GuardFeature feature);
// The same for the daemon, which knows of no exemption: 0 = off or exempt.
inline uint8_t guard_checked(const guard_items &items, GuardFeature feature)
{
    return guard_wanted(items, feature) & GUARD_CHECK_ALL;
}
bool guard_pending(const guard_items &items, GuardFeature feature);
void guard_switch(guard_items &items, GuardFeature feature, uint8_t wanted);
// What is pending is in force.
void guard_settle(guard_items &items, GuardFeature feature);

// The ports on which the classifier stands, with what it has refused there, by reason.
using GuardRefusals = std::array<uint64_t, GUARD_REASONS>;
std::map<uint32_t, GuardRefusals> guard_ports_refusals();

// Tells the daemon of this network namespace that the configuration has changed, as events of the switch's
// netlink groups. Takes CAP_NET_ADMIN. 0 or an errno value; whether anybody listens is not known.
int guard_config_announce(const GuardPlace &place, GuardFeature feature, uint8_t wanted);

// The types of those events.
enum : uint16_t {
    EVENT_ARP_START = 123,
    EVENT_ARP_STOP = 124,
    EVENT_IP_ITEMS = 198,
    EVENT_ARP_ITEMS = 199,
};

} // namespace platform_linux
