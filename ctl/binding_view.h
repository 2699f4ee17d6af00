// The daemon's bindings as the client shows them.
#pragma once

#include <map>

#include "binding_filter.h"
#include "table.h"

// The word of a value, or the number where it has none.
std::string wordOf(std::span<const Choice> choices, uint32_t value);

// "6d23h", "23h59m", "5m10s": the two greatest units, without a second one that is 0. Or "forever".
std::string leaseText(uint32_t seconds);

// Bindings at one moment, in the order of their keys, or their number; nothing where no platform hands them
// out. The daemon chooses them, unless the words are too long for it: then all are in the list, and not
// counted. `now` is the daemon's clock at that moment.
std::optional<std::vector<Binding>> readSnapshot(const BindingFilter &wanted = {}, uint32_t *now = nullptr);
std::optional<size_t> countSnapshot(const BindingFilter &wanted);
// The same, else all one by one: a binding that comes or goes meanwhile may be in the list or not.
std::vector<Binding> readBindings(const Daemon &daemon, const BindingFilter &wanted = {});
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
