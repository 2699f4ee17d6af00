// The command socket on Linux. A thread of the platform lets clients in and reads their requests; the
// daemon's thread gets whole requests only, between two frames. So a client that stalls delays nobody.
#pragma once

#include <string>

namespace platform_linux
{

// Listens at the path that the environment names, else at DHCPSNOOP_CONTROL_PATH and, for those who expect
// it, DHCPSNOOP_SOCKET_PATH. Clients are served from command_gate_start on. Gives one of these paths; empty,
// when nothing can be had, which is in the log.
std::string command_gate_open();

// Begins to serve. `eventSocket` wakes the daemon's thread.
void command_gate_start(int eventSocket);

// On the daemon's thread: carries out the first request that waits, if any.
void command_gate_take();

bool command_gate_pending();

} // namespace platform_linux
