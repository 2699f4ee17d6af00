// Messages of clients, bindings and settings that the daemon refused for want of room or of a port, by reason
// and place, as the Linux platform counts them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct RefusalCount {
    std::string reason, place; // "bindings-full"; an interface, "-" or "others"
    uint64_t total;            // since the daemon's start
    uint32_t lastHour;
    std::string remedy;
};

// A device's name, which may have any byte but blanks, with '?' for those that a terminal or a shell could
// obey.
std::string shownName(std::string name);

// Throws NoDaemon where no platform can be asked.
std::vector<RefusalCount> readRefusals();
