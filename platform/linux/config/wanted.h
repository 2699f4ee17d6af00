// The state that the configuration wants of one port, and the line that each part of it comes from.
#pragma once

#include <map>
#include <set>

#include "config.h"

namespace platform_linux
{

Rate rate_value(const GuardRate &rate);

// A port as it is now.
struct PortId {
    uint32_t ifIndex;
    std::string name, bridge; // no bridge: empty
    bool isVlanInterface;
    uint16_t vlan = 0;   // whose interface it is, so that its lines count; 0 = none
    bool isHost = false; // the machine itself, behind that bridge
};

// `ports` are all that there are, by index: the lowest one of a VLAN is its interface.
PortId port_id(const Port &port, const std::map<uint32_t, Port> &ports);

// Where a value comes from. Line 0: no line speaks of it.
struct Source {
    Rank rank = Rank::none;
    uint32_t line = 0;
};

template <class T> struct Wanted {
    T value = {};
    Source source = {};
    bool isSaid() const { return source.line != 0; }
};

struct WantedPort {
    std::map<const Setting *, Wanted<Value>> settings; // those that a line speaks of
    Wanted<std::set<uint32_t>> servers;                // relay servers
    Wanted<uint8_t> ip, arp;                           // check items

    bool snoops() const;
    // Of a setting that no line speaks of: the initial value; both IP versions. A default limit in its
    // numbers.
    Wanted<Value> of(const Setting &setting) const;
};

WantedPort wanted_port(const Config &config, const PortId &port);

// "dhcpsnoop.conf:12", or "default".
std::string source_text(const Config &config, const Source &source);

} // namespace platform_linux
