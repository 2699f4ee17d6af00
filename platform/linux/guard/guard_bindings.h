// The bindings in the kernel (maps guard_bindings and guard_state), for guard.cpp. What the calls do is said
// in guard.h; results are 0 or an errno value.
#pragma once

#include <cstdint>

#include "guard_maps.h"

namespace platform_linux
{

// Takes over what is in the maps and makes it that of an earlier run: it counts until
// GUARD_INHERIT_BINDINGS_SECONDS from now, what was an earlier run's already and whose time is over goes.
// Gives the number of bindings that go on. Both descriptors stay the caller's and are used until the close.
uint32_t guard_bindings_open(int map, int state);

void guard_bindings_close();

// Copies every binding of one map into another, which has the room.
int guard_bindings_copy(int from, int to);

// Nanoseconds of CLOCK_BOOTTIME, as the times in the maps.
uint64_t guard_clock();

} // namespace platform_linux
