// The daemon's bindings as the client shows them.
#pragma once

#include <map>

#include "binding.h"
#include "table.h"

// Words of a binding's type and state.
constexpr Choice USER_TYPES[] = {
    {"dynamic",         DHCPSNOOP_USER_DYNAMIC},
    {"static",          DHCPSNOOP_USER_STATIC },
    {"ip-source-guard", DHCPSNOOP_USER_IPSG   }
};
constexpr uint32_t STATE_WAITING = 0x100; // the platform's, beside the daemon's
constexpr Choice USER_STATES[] = {
    {"bound",     DHCPSNOOP_BIND_BOUND    },
    {"unbound",   DHCPSNOOP_BIND_UNBOUND  },
    {"created",   DHCPSNOOP_BIND_CREATED  },
    {"requested", DHCPSNOOP_BIND_REQUESTED},
    {"waiting",   STATE_WAITING           }
};

// The word of a value, or the number where it has none.
std::string wordOf(std::span<const Choice> choices, uint32_t value);

// "6d23h", "23h59m", "5m10s": the two greatest units, without a second one that is 0. Or "forever".
std::string leaseText(uint32_t seconds);

// All bindings at one moment, in the order of their keys; nothing where no platform hands them out.
std::optional<std::vector<Binding>> readSnapshot();
// The same, else one by one: a binding that comes or goes meanwhile may be in the list or not.
std::vector<Binding> readBindings(const Daemon &daemon);
std::vector<Binding> readStatics(const Daemon &daemon);

// A binding whose port is away: the platform keeps it until the port is back.
struct WaitingBinding {
    Binding binding; // its state and interface index mean nothing
    std::string interface;
};
std::vector<WaitingBinding> readWaiting(); // none where no platform can be asked
bool forgetWaiting(const UserKey &key);    // false when there is none

// The names of ports that are away, by the address of a binding that waits for one.
using AwayPorts = std::map<std::string, std::string>;
// Adds those that wait. The daemon may have them too, at the port's last index.
AwayPorts addWaiting(const std::vector<WaitingBinding> &waiting, std::vector<Binding> &bindings);
