#include "clock.h"

#include <fstream>
#include <functional>
#include <string>
#include <sys/stat.h>

namespace platform_linux
{
namespace
{
constexpr int64_t APART = 100; // between two readings of one clock

constexpr int64_t NANOSECONDS = 1'000'000'000, MILLISECOND = 1'000'000;

int64_t nanoseconds(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return int64_t{time.tv_sec} * NANOSECONDS + time.tv_nsec;
}

// What a time namespace adds to CLOCK_BOOTTIME. The file is about the namespace of our children, which is
// ours unless the kernel (before 6.3) left us outside of the one that was made for them.
int64_t boot_offset()
{
    struct stat own = {}, children = {};
    if (stat("/proc/self/ns/time", &own) != 0 || stat("/proc/self/ns/time_for_children", &children) != 0 ||
        own.st_ino != children.st_ino)
        return 0;
    std::ifstream file("/proc/self/timens_offsets");
    std::string clock;
    for (int64_t seconds, rest; file >> clock >> seconds >> rest;)
        if (clock == "boottime")
            return seconds * NANOSECONDS + rest;
    return 0;
}
} // namespace

int64_t kernel_boot_time()
{
    static const int64_t offset = boot_offset();
    return nanoseconds(CLOCK_BOOTTIME) - offset;
}

// A thread that was stopped in between reads again.
ClockReading clock_reading()
{
    for (;;) {
        const int64_t before = kernel_boot_time() / MILLISECOND;
        const ClockReading reading = {nanoseconds(CLOCK_REALTIME) / MILLISECOND,
                                      kernel_boot_time() / MILLISECOND};
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
