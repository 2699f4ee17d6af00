// Descriptor 0, through which the daemon relays.
#pragma once

#include <cstdint>

namespace platform_linux
{

// Makes descriptor 0 a UDP socket bound to port 67 that receives nothing: the one handed over as standard
// input, or one of our own. Always 0: without the right to bind the port it says so and standard input stays
// as it was, so that every relayed request reports a send error. Called before the daemon's start-up.
int32_t relay_socket_start();

} // namespace platform_linux
