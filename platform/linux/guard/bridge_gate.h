// The gate in front of all bridges: an nftables table of family bridge. Between two ports go only frames of
// ports that were let in, to a port of the same bridge; a port that was not let in is not heard at all. It
// stands before a bridge or a port is there, so nothing gets through before the daemon knows of it. It
// sees frames that a bridge takes in from its ports, not those that this host sends or routes.
//
// The table belongs to this process: nobody else can change it, and it goes with the process.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>

namespace platform_linux
{

// A bridge port that was let in.
struct GatePass {
    uint32_t bridge; // by index
    bool forwards;   // else the host alone hears it; it may hear others
    bool operator==(const GatePass &) const = default;
};

using GatePasses = std::map<uint32_t, GatePass>; // by interface index

// From now on these passes are in force, in one step; `changed` are the ports whose pass may be another than
// in the call before. Makes the table when there is none. 0 or an errno value; the passes of before stay in
// force then, and the next call brings about all. EOPNOTSUPP for good: the kernel has no nftables for
// bridges.
int bridge_gate_set(const GatePasses &passes, const std::set<uint32_t> &changed);

// Without a table every port is let in.
void bridge_gate_remove();

} // namespace platform_linux
