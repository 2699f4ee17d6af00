#include "clock.h"

#include <fstream>
#include <functional>
#include <string>

namespace platform_linux
{
namespace
{
uint32_t boot_number()
{
    std::string id;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
    return static_cast<uint32_t>(std::hash<std::string>{}(id));
}
} // namespace

Moment moment_now()
{
    static const uint32_t boot = boot_number();
    timespec sinceBoot = {};
    clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    return {wall_clock(), static_cast<uint32_t>(sinceBoot.tv_sec), boot};
}

} // namespace platform_linux
