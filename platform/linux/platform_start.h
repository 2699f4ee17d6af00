// The start of the Linux platform, before the daemon opens anything.
#pragma once

#include <string>

#include "options.h"

namespace platform_linux
{

// Sizes of the daemon's pools, none 0.
struct Room {
    uint16_t interfaces, bindings;
};

// Makes the standard streams and the log ready and reads the configuration. 0, or the exit status when the
// daemon must not run: EX_CONFIG (sysexits.h) for a wrong file, which another attempt would not mend. The
// reason is on standard error and in the system log. Called before any other thread runs.
int platform_linux_prepare(const Options &options, Room &room);

// The rest, called by the daemon's first platform call of start-up. 0 or an exit status.
int platform_linux_start();

// The capabilities that the daemon needs and does not have, as "CAP_NET_RAW (packet sockets), …"; empty when
// it has all.
std::string missing_capabilities();

} // namespace platform_linux
