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

// Nanoseconds since the machine's start, as the kernel's programs and other daemons of the machine count
// them, also in a time namespace.
int64_t kernel_boot_time();

// Two clocks at one time, in milliseconds. The second counts from the machine's start, and nobody sets it.
struct ClockReading {
    int64_t wall, sinceBoot;
};
ClockReading clock_reading();

// Differs from one start of the machine to the next; 0 = unknown.
uint32_t boot_number();

} // namespace platform_linux
