// The clocks of the platform's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace platform_linux
{

using Ticks = int64_t; // milliseconds, never back
constexpr Ticks NEVER = INT64_MAX;

inline Ticks ticks()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// As the daemon reads it: what leases begin at.
inline uint32_t wall_clock() { return static_cast<uint32_t>(time(nullptr)); }

// A moment by two clocks, in seconds. Nobody sets the second, which goes on from the machine's start.
struct Moment {
    uint32_t wall;
    uint32_t sinceBoot;
    uint32_t boot; // differs from start to start
};
Moment moment_now();

} // namespace platform_linux
