// The command line of the daemon on Linux.
#pragma once

#include <cstdint>
#include <string>

namespace platform_linux
{

constexpr uint16_t BINDINGS_DEFAULT = 4096, INTERFACES_DEFAULT = 256;

struct Options {
    uint16_t interfaces = 0, bindings = 0; // room; 0: as the configuration says, or the default
    bool guard = true, arp = true;         // IP source guard, ARP inspection can be used
    bool provisioning = false;             // ask for options 67 and 125
    std::string directory;                 // of the configuration; empty: the usual one
};

// Ends the process after --help and --version, and with EX_USAGE (sysexits.h) for anything that is not
// understood.
Options options_take(int argc, char **argv);

} // namespace platform_linux
