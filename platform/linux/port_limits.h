// The limits of DHCP frames (guard.h) follow the daemon's tables: the trust of ports, and the clients that
// have a binding.
#pragma once

#include <cstdint>

#include "clock.h"

namespace platform_linux
{

// Before the daemon makes its pools; `bindings` is their size.
void port_limits_start(uint32_t bindings);

// The trust of some interface is about to change.
void port_limits_doubt();

// Behind each pass of the loop. Clients are looked at in parts: all of them about once a second, while there
// are passes.
void port_limits_follow(Ticks now = ticks());

} // namespace platform_linux
