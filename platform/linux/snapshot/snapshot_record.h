// All bindings at one moment, as a client gets them: a sealed memory file with a header and records of a
// fixed size, in no order. Numbers are in the host's byte order, addresses as on the wire.
//
// A client connects to the socket, a sequenced-packet one beside the platform's, and sends SNAPSHOT_REQUEST.
// The answer is one packet: "ok" and the file's descriptor (SCM_RIGHTS), or a text that says why not. Words
// behind the request are kept for a filter, and refused until there is one.
#pragma once

#include <cstdint>

namespace platform_linux
{

constexpr char SNAPSHOT_REQUEST[] = "bindings";
constexpr uint32_t SNAPSHOT_VERSION = 1;

struct SnapshotHeader {
    uint32_t version;
    uint32_t headerSize, recordSize; // a later version may have more behind the fields that are known
    uint32_t count;                  // records that follow
    uint32_t room;                   // bindings and waiting clients that the daemon can have
    uint32_t now;                    // the daemon's clock, in seconds, as in `leaseStart`
};

struct SnapshotRecord {
    uint8_t address[16]; // IPv4 in the first 4
    uint8_t ipType;      // DHCPSNOOP_IPV4, DHCPSNOOP_IPV6
    uint8_t type;        // DHCPSNOOP_USER_…, never that of IP source guard
    uint8_t state;       // DHCPSNOOP_BIND_…
    uint8_t installed;   // DHCPSNOOP_HW_…
    uint8_t mac[6];
    uint16_t vlan;
    uint32_t ifIndex;
    uint32_t attribute;
    uint32_t lease; // seconds; DHCPSNOOP_LEASE_FOREVER
    uint32_t leaseStart;
};
static_assert(sizeof(SnapshotHeader) == 24 && sizeof(SnapshotRecord) == 44);

} // namespace platform_linux
