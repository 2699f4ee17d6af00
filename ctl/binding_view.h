// The daemon's bindings as the client shows them, and as commands that recreate the static ones.
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

// Appends the commands that recreate all static bindings.
void staticCommands(const Daemon &daemon, std::vector<Words> &lines);

// The static bindings that are bound.
std::vector<UserKey> staticsInForce(const Daemon &daemon);

// Whether this line of `show config` stands for a binding that there is.
bool isThereAlready(const Words &bindingAdd, const Daemon &daemon);
