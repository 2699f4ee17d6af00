// The daemon as a whole, for the client: its room, the frames that it was given, the servers that it has
// heard.
#pragma once

#include <string>

namespace platform_linux
{

// Lines of a name and values, on the daemon's thread:
//   version TEXT, uptime SECONDS, bindings N, interfaces N    room of the tables
//   frames N, frames-lost N                                   lost: the packet sockets were full
//   server ADDRESS INDEX VLAN                                 each learned server
//   guard-hour REASON COUNT PLACE                             as guard_hour.h says
std::string facts_text();

} // namespace platform_linux
