// The running state beside the wanted state: the differences, and how they are made to go. The daemon's
// platform makes them go; the client shows them, and saves them as lines.
#pragma once

#include <map>

#include "request.h"
#include "wanted.h"

namespace platform_linux
{

struct Difference {
    Words running; // as a line of the configuration that would make it wanted; the last word may be "none" or
                   // "off"
    std::string wanted; // the wanted value in words
    Source source;
    std::string error;   // why it could not be made to go; empty: it is gone, or was only compared
    bool noRoom = false; // because a table is full (refusals.h)
};
using Differences = std::vector<Difference>;

// Whether differences are made to go, through requests to the daemon and the guard's maps.
enum class Make : uint8_t { no, yes };

// In the daemon: the limit of a port. Throws CtlError.
void rate_set(uint32_t ifIndex, const Rate &rate);

// A port that has appeared just now has no host with a binding: its guard comes into force at once.
Differences reconcile_port(const Config &config, const Daemon &daemon, const PortId &port, Make make,
                           bool isNew = false);
Differences reconcile_globals(const Config &config, const Daemon &daemon, Make make);
// The guard of VLANs.
Differences reconcile_vlans(const Config &config, Make make);
// The static bindings of lines. Those of `before` that have no line any more are deleted. A binding whose
// port is not there waits for it.
Differences reconcile_bindings(const Config &config, const Config &before, const Daemon &daemon, Make make);
// The same compared alone, with all that run: many are faster found at once than asked for.
Differences compare_bindings(const Config &config, const std::map<UserKey, StaticBinding> &running);
// Those of one port, which may have waited for it.
Differences reconcile_port_bindings(const Config &config, const Daemon &daemon, const PortId &port,
                                    Make make);

} // namespace platform_linux
