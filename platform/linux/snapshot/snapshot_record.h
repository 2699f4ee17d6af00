// Bindings at one moment, as a client gets them: a sealed memory file with a header and records of a fixed
// size, in no order. Numbers are in the host's byte order, addresses as on the wire.
//
// A client connects to the socket, a sequenced-packet one beside the platform's, and sends one packet:
// SNAPSHOT_REQUEST for all bindings; or SNAPSHOT_FILTER and, each behind a zero byte, the words of
// binding_filter.h. SNAPSHOT_COUNT as the first word asks for their number: a header without records. The
// answer is one packet: "ok" and the file's descriptor (SCM_RIGHTS), or a text that says why not.
#pragma once

#include <cstdint>

#include "binding.h"

namespace platform_linux
{

constexpr char SNAPSHOT_REQUEST[] = "bindings";
constexpr char SNAPSHOT_FILTER[] = "bindings 1"; // the number is the version of the words
constexpr char SNAPSHOT_COUNT[] = "--count";
constexpr uint32_t SNAPSHOT_VERSION = 1;

struct SnapshotHeader {
    uint32_t version;
    uint32_t headerSize, recordSize; // a later version may have more behind known fields
    uint32_t count;                  // of bindings; their records follow unless `recordSize` is 0
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

// Into a binding that may be used again. `now` is the header's.
void snapshot_binding(const SnapshotRecord &record, uint32_t now, Binding &binding);

} // namespace platform_linux
