// The daemon's bindings as the client shows them.
#pragma once

#include "binding.h"
#include "table.h"

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
