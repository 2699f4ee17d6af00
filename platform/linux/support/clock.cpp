#include "clock.h"

#include <fstream>
#include <functional>
#include <string>

namespace platform_linux
{
namespace
{
constexpr int64_t APART = 100; // between two readings of one clock

int64_t read_clock(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}
} // namespace

// A thread that was stopped in between reads again.
ClockReading clock_reading()
{
    for (;;) {
        const int64_t before = read_clock(CLOCK_BOOTTIME);
        const ClockReading reading = {read_clock(CLOCK_REALTIME), read_clock(CLOCK_BOOTTIME)};
        if (reading.sinceBoot - before < APART)
            return reading;
    }
}

uint32_t boot_number()
{
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string id;
    return std::getline(file, id) ? static_cast<uint32_t>(std::hash<std::string>{}(id)) : 0;
}

} // namespace platform_linux
