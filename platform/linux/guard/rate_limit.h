// The limits of DHCP frames in the kernel (maps guard_rates, guard_rate_sum and guard_known), for
// classifier.cpp. The calls for others are declared in guard.h. Results are 0 or an errno value.
#pragma once

#include <cstdint>

namespace platform_linux
{

// How long a client that an earlier run knew stays known: half a lease of two days, when it renews.
constexpr uint32_t RATE_INHERIT_SECONDS = 24 * 60 * 60;

// The descriptors stay the caller's and are used until the close. Known clients of an earlier run stay known
// for RATE_INHERIT_SECONDS, or until there is no room for others.
struct RateMaps {
    int ports, sum, known;
};
void rates_open(const RateMaps &maps);
void rates_close();

// A port is there: it has the default limit of a port without trust, unless there is an element already.
// `another`: another device bore its number before.
int rate_port_add(uint32_t ifIndex, bool another);

} // namespace platform_linux
