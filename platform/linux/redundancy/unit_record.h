// A binding or server as it travels to the peer unit and lies in the journal. It has the name of its port,
// because port numbers differ between two machines, and between two starts of one machine. It has nothing of
// the data plane: each unit has its own.
#pragma once

#include <array>
#include <cstdint>
#include <net/if.h>
#include <optional>
#include <span>

#include "sync_record.h"

namespace platform_linux
{

struct UnitRecord {
    uint8_t type; // SYNC_USER, SYNC_SERVER
    bool add;     // a delete needs the address only, of a server also port and VLAN
    uint8_t ipType;
    uint8_t userType, bindState, macMark;
    uint16_t userAttr;
    uint8_t address[16]; // network order, IPv4 in the first 4, the rest zero
    char port[IFNAMSIZ]; // zero behind the name; empty = none
    uint16_t vid, origVid;
    uint32_t leaseTime, leaseStart; // as DhcpsnoopUser, by this machine's clock
    uint8_t mac[6];

    bool operator==(const UnitRecord &) const = default;
    bool never_ends() const
    {
        return type != SYNC_USER || userType != DHCPSNOOP_USER_DYNAMIC ||
               leaseTime == DHCPSNOOP_LEASE_FOREVER;
    }
    // A dynamic binding whose time is over.
    bool expired(uint32_t now) const
    {
        return add && !never_ends() && static_cast<int32_t>(now - leaseStart) >= 0 &&
               now - leaseStart >= leaseTime;
    }
};

// Type and address of a record and, for a server, port and VLAN.
using UnitKey = std::array<uint8_t, 36>;
UnitKey unit_key(const UnitRecord &record);

constexpr size_t UNIT_RECORD_LEN = 64;
using UnitBytes = std::array<uint8_t, UNIT_RECORD_LEN>;

// In network order, with the clock's present reading.
UnitBytes unit_encode(const UnitRecord &record, uint32_t now);

// That reading.
uint32_t unit_clock(std::span<const uint8_t, UNIT_RECORD_LEN> bytes);

enum class UnitClock : uint8_t {
    own,   // the journal's: a lease has the start that it had there
    peers, // the other unit's, which may be wrong: a lease has the age that it had there
};

// None for bytes that unit_encode does not make.
std::optional<UnitRecord> unit_decode(std::span<const uint8_t, UNIT_RECORD_LEN> bytes, uint32_t now,
                                      UnitClock clock);

// From and to the daemon's own form, without the marks of the data plane: the unit that gets the binding has
// not installed it.
UnitRecord unit_from_user(const SyncUserRecord &user, const char *port);
UnitRecord unit_from_server(const SyncServerRecord &server, const char *port);
SyncUserRecord unit_to_user(const UnitRecord &record, uint32_t ifIndex);
SyncServerRecord unit_to_server(const UnitRecord &record, uint32_t ifIndex);

} // namespace platform_linux
