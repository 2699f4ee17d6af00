// The part of the platform's thread that follows the ports: bindings of a port that is away wait for it, and
// move to its new index when it is back.
#include "unit_thread.h"

#include <algorithm>
#include <arpa/inet.h>
#include <iomanip>
#include <sstream>

#include "report.h"

namespace platform_linux
{
namespace
{
constexpr uint32_t AWAY_MAX = 30 * 24 * 3600; // of a binding that never ends
constexpr size_t NAMES_MAX = 8;               // in one line of the log
constexpr size_t WAITING_MAX = 400;           // in one answer

std::string address_of(const UnitRecord &record)
{
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(record.ipType == DHCPSNOOP_IPV4 ? AF_INET : AF_INET6, record.address, text, sizeof text);
}

// The key of a binding, from its address. All zero, which is before every binding, for no address.
UnitKey key_of(const std::string &address)
{
    UnitRecord record{};
    if (inet_pton(AF_INET, address.c_str(), record.address) == 1)
        record.ipType = DHCPSNOOP_IPV4;
    else if (inet_pton(AF_INET6, address.c_str(), record.address) == 1)
        record.ipType = DHCPSNOOP_IPV6;
    else
        return {};
    record.type = SYNC_USER;
    return unit_key(record);
}

bool is_same(uint64_t one, uint64_t other) { return one == other || one == 0 || other == 0; }
} // namespace

const UnitPort *UnitThread::port(const UnitRecord &record) const
{
    static constexpr UnitPort NO_PORT = {0, 0};
    if (record.port[0] == 0)
        return &NO_PORT;
    const auto it = ports_.find(std::string_view(record.port));
    return it != ports_.end() ? &it->second : nullptr;
}

// The index tells a port that has gone from one that took its name.
UnitPlace UnitThread::place_of_daemons(const Change &change)
{
    const UnitPort *there = port(change.record);
    if (there != nullptr && there->ifIndex == change.ifIndex)
        return {UnitPlace::At::port, change.ifIndex, change.identity, 0};
    const UnitTable::Held *held = table_.find(change.record);
    const uint32_t since = held != nullptr ? held->place.awaySince : 0;
    return {UnitPlace::At::deadEnd, change.ifIndex, change.identity, since != 0 ? since : now().wall};
}

// Two machines' ports have nothing in common but the name.
UnitPlace UnitThread::place_of_peers(const UnitRecord &record)
{
    if (const UnitPort *there = port(record))
        return {UnitPlace::At::port, there->ifIndex, there->identity, 0};
    const UnitTable::Held *held = table_.find(record);
    const uint32_t since = held != nullptr ? held->place.awaySince : 0;
    return {UnitPlace::At::parked, 0, 0, since != 0 ? since : now().wall};
}

// True when the journal is to have the change.
bool UnitThread::look_for_port(UnitTable::Held &held, uint32_t now)
{
    if (awaits_clock(held))
        return false;
    const UnitPlace before = held.place;
    UnitPlace &place = held.place;
    const UnitPort *there = port(held.record);
    const bool isThere =
        there != nullptr && ((place.at != UnitPlace::At::parked && there->ifIndex == place.ifIndex) ||
                             is_same(there->identity, place.identity));
    if (!isThere) {
        if (place.at == UnitPlace::At::port)
            place.at = role_ == DHCPSNOOP_ROLE_SLAVE ? UnitPlace::At::parked : UnitPlace::At::deadEnd;
        if (place.awaySince == 0)
            place.awaySince = now;
    } else {
        // The daemon would have a server that it knows at the dead end twice.
        if (place.at == UnitPlace::At::parked ||
            (place.ifIndex != there->ifIndex && held.record.type == SYNC_USER))
            toDaemon_.push_back(held.record);
        place = {UnitPlace::At::port, there->ifIndex, there->identity, 0};
    }
    return place.identity != before.identity || place.awaySince != before.awaySince;
}

void UnitThread::look_for_ports()
{
    {
        const std::scoped_lock lock(shared_.portsMutex);
        ports_ = shared_.ports;
    }
    const uint32_t now = this->now().wall;
    bool left = false;
    for (auto &[key, held] : table_.held()) {
        const bool was = !held.place.waits();
        if (look_for_port(held, now))
            note(held.record);
        left = left || (was && held.place.waits());
    }
    // The port may live on under another name.
    if (left && role_ != DHCPSNOOP_ROLE_SLAVE)
        copy_.want();
}

// Waiting comes to an end with the lease, or after a long time.
void UnitThread::forget_waiting()
{
    const uint32_t now = this->now().wall;
    for (const UnitRecord &record : table_.expire_parked(now))
        note(record);
    if (role_ == DHCPSNOOP_ROLE_SLAVE) // the peer has them, and would send them again
        return;
    // A start before 1970 is after 2100 to the daemon, by a clock that nobody set.
    for (const auto &[key, held] : table_.held())
        if (held.place.at != UnitPlace::At::parked && held.record.expired(now) &&
            held.record.leaseStart > now)
            daemon_.ask(act_on(held.record, USER_ACTION_DELETE), [] {});
    std::vector<UnitTable::Held> gone = table_.give_up(now, AWAY_MAX);
    std::string names;
    for (UnitTable::Held &held : gone) {
        if (static_cast<size_t>(&held - gone.data()) < NAMES_MAX)
            names += " " + address_of(held.record) + " of " + held.record.port + ",";
        if (held.place.at == UnitPlace::At::deadEnd)
            daemon_.ask(act_on(held.record, USER_ACTION_DELETE), [] {});
        held.record.add = false;
        note(held.record);
    }
    if (gone.empty())
        return;
    const bool more = gone.size() > NAMES_MAX;
    names.pop_back();
    platform_report(LOG_NOTICE, "%zu bindings are dropped, their port has been away for 30 days:%s%s",
                    gone.size(), names.c_str(), more ? ", ..." : "");
}

// A binding that the daemon has is the daemon's to delete.
bool UnitThread::forget(const std::string &address)
{
    const auto it = table_.held().find(key_of(address));
    if (it == table_.held().end() || it->second.place.at != UnitPlace::At::parked)
        return false;
    UnitRecord record = it->second.record;
    record.add = false;
    table_.apply(record);
    note(record);
    return true;
}

// A line for each behind the address `from`, as many as find room; "end" behind the last.
std::string UnitThread::waiting(const std::string &from) const
{
    const uint32_t now = this->now().wall;
    std::ostringstream lines;
    const std::vector<const UnitTable::Held *> found = table_.waiting(key_of(from), WAITING_MAX);
    for (const UnitTable::Held *held : found) {
        const UnitRecord &record = held->record;
        lines << address_of(record) << ' ' << std::hex << std::setfill('0');
        for (size_t i = 0; i < sizeof record.mac; i++)
            lines << (i != 0 ? ":" : "") << std::setw(2) << static_cast<unsigned>(record.mac[i]);
        lines << std::dec << ' ' << record.vid << ' ' << record.port << ' '
              << static_cast<unsigned>(record.userType) << ' ' << record.leaseTime << ' '
              << now - record.leaseStart << '\n';
    }
    if (found.size() < WAITING_MAX)
        lines << "end\n";
    return lines.str();
}

} // namespace platform_linux
