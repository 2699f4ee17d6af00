#include "refusals.h"

#include <array>
#include <atomic>
#include <cstring>
#include <mutex>

#include "hour_counts.h"
#include "report.h"

namespace platform_linux
{
namespace
{

constexpr Ticks MINUTE = 60'000;

struct Text {
    const char *name, *remedy;
};
// By Refused. The log has the place in front of the remedy.
// clang-format off
constexpr Text TEXTS[] = {
    {"bindings-full", "the table of bindings is full: raise 'bindings N' in dhcpsnoop.conf (or --bindings N) and restart the daemon"},
    {"users-limit", "the interface has as many bindings as it may: raise 'interface IF max-users N'"},
    {"no-trusted-port", "no trusted port that is up has the clients' VLAN: say 'bridge BRIDGE uplink IF', 'bridge BRIDGE host server' where this machine serves, or 'interface IF trust on'"},
    {"no-relay-server", "the interface relays without a server: say 'interface IF relay-server ADDRESS'"},
    {"interfaces-full", "the table of interfaces is full: raise 'interfaces N' in dhcpsnoop.conf (or --interfaces N) and restart the daemon"},
    {"guard-full", "no room for another binding in the guard, its host stays cut off where it is guarded: raise 'bindings N' in dhcpsnoop.conf (or --bindings N) and restart the daemon"},
    {"flood-limit", "replies to unknown clients reach the first 64 ports of the VLAN only: let its ports snoop instead of its interface"},
    {"untrusted-server", "a DHCP server answered on a port that is not trusted: find it, or say 'interface IF trust on'"},
    {"client-checks", "a client's messages contradict its Ethernet source or its binding: find it, or see source-mac-check and binding-check"},
    {"binding-theft", "a host claims an address that another one holds: find it; for hosts that share an address see 'protection' in dhcpsnoopctl(8)"},
    {"ambiguous", "a client's messages name a type or an address twice, or hide options: find it, or see 'protection' in dhcpsnoopctl(8)"},
    {"stray-reply", "a server's reply belongs to no client that asked, and would change another's binding: it is dropped, clients ask again"},
    {"dhcp-rate", "more DHCP messages come in there than its limit says: find the host that floods, or raise 'interface IF dhcp-rate N'"},
};
// clang-format on
static_assert(std::size(TEXTS) == REFUSALS);

// A reason's next line.
struct Line {
    Ticks due; // not before
    uint64_t count;
    PlaceName name;
    bool elsewhere; // too
};

std::mutex mutex; // of all below
HourCounts counts(REFUSALS);
std::array<Line, REFUSALS> lines;
std::atomic<bool> unsaid = false; // some line has a count

void log_due(Ticks now)
{
    bool left = false;
    for (size_t reason = 0; reason < REFUSALS; reason++) {
        Line &line = lines[reason];
        if (line.count != 0 && now >= line.due) {
            const bool named = strcmp(line.name.data(), REFUSAL_NO_PLACE) != 0;
            platform_report(LOG_WARNING, "%s%s%s%s (refused: %llu)", named ? line.name.data() : "",
                            line.elsewhere ? " and others" : "", named ? ": " : "", TEXTS[reason].remedy,
                            static_cast<unsigned long long>(line.count));
            line = {now + MINUTE, 0, {}, false};
        }
        left = left || line.count != 0;
    }
    unsaid = left;
}

} // namespace

void refusal_count(Refused reason, const char *where, Ticks now, uint32_t number)
{
    const std::scoped_lock lock(mutex);
    const PlaceName name = place_name(where);
    counts.add(static_cast<size_t>(reason), name, now, number);
    Line &line = lines[static_cast<size_t>(reason)];
    line.elsewhere = line.elsewhere || (line.count != 0 && line.name != name);
    line.name = name;
    line.count += number;
    log_due(now);
}

void refusals_log(Ticks now)
{
    if (!unsaid)
        return;
    const std::scoped_lock lock(mutex);
    log_due(now);
}

std::vector<RefusalCount> refusals(Ticks now)
{
    const std::scoped_lock lock(mutex);
    std::vector<RefusalCount> found;
    for (const auto &[reason, place, total, lastHour] : counts.all(now))
        found.push_back({TEXTS[reason].name, TEXTS[reason].remedy, place, total, lastHour});
    return found;
}

std::string refusals_text()
{
    std::string text;
    for (const RefusalCount &count : refusals())
        text += std::string(count.reason) + " " + count.place + " " + std::to_string(count.total) + " " +
                std::to_string(count.lastHour) + " " + count.remedy + "\n";
    return text;
}

} // namespace platform_linux
