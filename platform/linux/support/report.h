// Messages of the platform's own, for the operator: to standard error and to the system log. Neither is
// waited for: a line that finds no room is lost and counted.
#pragma once

#include <cstdint>
#include <net/if.h>
#include <string>
#include <syslog.h>

namespace platform_linux
{

constexpr const char *SYSTEM_LOG_PATH = "/dev/log";

// Lines reach the system log, a datagram socket at `path`, from now on. Called before the second thread
// starts.
void report_start(const char *path = SYSTEM_LOG_PATH);

// One line to the system log and, unless the same journal reads both, standard error. `priority` as
// syslog(3)'s.
__attribute__((format(printf, 2, 3))) void platform_report(int priority, const char *format, ...);

// A device in such a line; "#7" when it is gone.
inline std::string device_name(uint32_t ifIndex)
{
    char name[IF_NAMESIZE];
    return if_indextoname(ifIndex, name) != nullptr ? name : "#" + std::to_string(ifIndex);
}

// One line to the system log alone, with "N lines suppressed" before it when others were lost. From any
// thread.
void system_log(int priority, const char *line);

} // namespace platform_linux
