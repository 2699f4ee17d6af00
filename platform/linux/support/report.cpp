#include "report.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "fd.h"

namespace platform_linux
{
namespace
{
constexpr const char *IDENTITY = "dhcpsnoop";
constexpr size_t LINE_MAX_BYTES = 1024;
constexpr size_t HEADER_MAX = 64;
constexpr const char *MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Not connected: the path is looked up for each line, so a log that was started again gets the next one.
Fd systemLog;
sockaddr_un address;
std::atomic<uint64_t> lost; // since the last line that passed

// RFC 3164, with the local time and without a host name, as syslog(3) writes it.
bool put(int priority, const char *text)
{
    std::array<char, HEADER_MAX + LINE_MAX_BYTES> line;
    const time_t now = time(nullptr);
    tm local = {};
    localtime_r(&now, &local);
    const int length = snprintf(line.data(), line.size(), "<%d>%s %2d %02d:%02d:%02d %s[%d]: %s",
                                LOG_DAEMON | priority, MONTHS[local.tm_mon], local.tm_mday, local.tm_hour,
                                local.tm_min, local.tm_sec, IDENTITY, static_cast<int>(getpid()), text);
    const size_t size = std::min(static_cast<size_t>(length), line.size() - 1);
    return sendto(systemLog.get(), line.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr *>(&address), sizeof address) >= 0;
}

// Standard error is the journal, to which the system log goes as well (systemd.exec(5), JOURNAL_STREAM).
bool stderr_is_journal()
{
    const char *stream = getenv("JOURNAL_STREAM");
    struct stat status = {};
    if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0)
        return false;
    std::array<char, HEADER_MAX> own;
    snprintf(own.data(), own.size(), "%ju:%ju", uintmax_t{status.st_dev}, uintmax_t{status.st_ino});
    return strcmp(own.data(), stream) == 0;
}
} // namespace

void report_start(const char *path)
{
    tzset(); // reads the time zone, which allocates
    address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    systemLog.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

void system_log(int priority, const char *line)
{
    if (!systemLog)
        return;
    if (const uint64_t before = lost.exchange(0); before != 0) {
        std::array<char, HEADER_MAX> note;
        snprintf(note.data(), note.size(), "%llu lines suppressed", static_cast<unsigned long long>(before));
        if (!put(LOG_WARNING, note.data())) {
            lost += before + 1;
            return;
        }
    }
    if (!put(priority, line))
        lost++;
}

void platform_report(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::array<char, LINE_MAX_BYTES> line;
    vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    if (!stderr_is_journal())
        fprintf(stderr, "%s: %s\n", IDENTITY, line.data());
    system_log(priority, line.data());
}

} // namespace platform_linux
