// An interface as the client shows it: all of its settings, read at once.
#pragma once

#include <map>

#include "listing.h"
#include "table.h"

// In the order of the daemon's counters.
constexpr const char *DROP_COUNTERS[] = {"dropped-untrusted", "dropped-source-mac", "dropped-binding"};

struct InterfaceView {
    uint32_t ifIndex;
    std::string name;
    std::map<std::string, Value> values;          // by name of the setting
    std::optional<std::vector<uint32_t>> servers; // null: the daemon cannot say
    std::optional<PortLimit> limit = {};          // null: no port of the platform's
};

// `servers` are those of all interfaces.
InterfaceView readInterface(const Daemon &daemon, uint32_t ifIndex,
                            const std::optional<std::vector<ServerKey>> &servers);
std::vector<InterfaceView> readInterfaces(const Daemon &daemon);

uint32_t number(const InterfaceView &view, const char *name);
// A setting as one word.
std::string shown(const InterfaceView &view, const char *name);
Words relayServers(const InterfaceView &view);

Json interfaceJson(const InterfaceView &view);
