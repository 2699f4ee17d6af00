// The switch and the daemon at one moment, as status, the list of ports and the metrics show them.
#pragma once

#include <map>

#include "binding_view.h"
#include "facts_view.h"
#include "guard.h"
#include "interface_view.h"
#include "port.h"
#include "refusals.h"

struct PortView {
    platform_linux::Port port = {};
    std::string bridge = {};                       // empty: in none
    std::map<std::string, uint32_t> settings = {}; // by name; empty: it does not snoop by itself
    bool snoopsByVlan = false;                     // by the interface of one of its VLANs
    uint8_t guard = 0, arp = 0;                    // check items: its own, else those of one of its VLANs
    platform_linux::GuardRefusals refused = {};
    size_t bindings = 0; // of any type and state

    bool snoops() const { return !settings.empty() || snoopsByVlan; }
    bool has(const char *setting) const { return settings.contains(setting) && settings.at(setting) != 0; }
    bool isGuarded() const { return ((guard | arp) & GUARD_CHECK_ALL) != 0; }
    uint64_t dropped() const; // by the daemon, all reasons
};

struct Overview {
    Facts daemon, unit;
    std::vector<PortView> ports;   // by kind, then by name as people count
    std::vector<Binding> bindings; // with those that wait
    size_t held, waiting;          // bindings of the daemon; those that wait
    std::vector<RefusalCount> refusals;
    std::vector<RefusalCount> guardHour; // by the guard, in the last hour
};
Overview readOverview(const Context &context);
