// The daemon's bindings as the client shows them.
#pragma once

#include "binding.h"
#include "table.h"

// A binding whose port is away: the platform keeps it until the port is back.
struct WaitingBinding {
    Binding binding; // its state and interface index mean nothing
    std::string interface;
};
std::vector<WaitingBinding> readWaiting(); // none where no platform can be asked
bool forgetWaiting(const UserKey &key);    // false when there is none
