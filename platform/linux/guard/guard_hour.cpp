#include "guard_hour.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>
#include <map>
#include <mutex>
#include <net/if.h>
#include <thread>

#include "guard.h"
#include "hour_counts.h"
#include "refusals.h"

namespace platform_linux
{
namespace
{

constexpr std::chrono::seconds INTERVAL(5);

std::mutex mutex; // of the next
HourCounts counts(GUARD_REASONS);

using Refusals = std::map<uint32_t, GuardRefusals>;

// A counter that went back was set to 0.
void add(const PlaceName &name, const GuardRefusals &before, const GuardRefusals &after)
{
    const std::scoped_lock lock(mutex);
    for (size_t reason = 0; reason < GUARD_REASONS; reason++) {
        const uint64_t more = after[reason] - (after[reason] < before[reason] ? 0 : before[reason]);
        const auto number =
            static_cast<uint32_t>(std::min<uint64_t>(more, std::numeric_limits<uint32_t>::max()));
        if (number != 0 && reason == GUARD_REFUSED_RATE)
            refusal_count(Refused::dhcpRate, name.data(), ticks(), number);
        else if (number != 0)
            counts.add(reason, name, ticks(), number);
    }
}

// A port that left its bridge for a moment goes on where it was.
void sample(Refusals &last)
{
    const Refusals present = guard_ports_refusals();
    for (const auto &[ifIndex, after] : present) {
        char name[IF_NAMESIZE];
        if (if_indextoname(ifIndex, name) == nullptr)
            continue;
        GuardRefusals &before = last[ifIndex];
        add(place_name(name), before, after);
        before = after;
    }
    std::erase_if(last, [](const auto &port) {
        char name[IF_NAMESIZE];
        return if_indextoname(port.first, name) == nullptr;
    });
}

} // namespace

void guard_hour_start()
{
    std::string why;
    if (!guard_config_open(why))
        return;
    std::thread([last = guard_ports_refusals()]() mutable {
        for (;; sample(last))
            std::this_thread::sleep_for(INTERVAL);
    }).detach();
}

std::string guard_hour_text()
{
    const std::scoped_lock lock(mutex);
    std::string text;
    for (const auto &[reason, place, total, lastHour] : counts.all(ticks()))
        if (lastHour != 0)
            text.append("guard-hour ")
                .append(std::to_string(reason))
                .append(" ")
                .append(std::to_string(lastHour))
                .append(" ")
                .append(place)
                .append("\n");
    return text;
}

} // namespace platform_linux
