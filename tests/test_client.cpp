// The client path: protections, bookkeeping, and the way towards the servers.
#include "scene.h"

namespace
{

constexpr uint32_t OTHER_RELAY = ip4(10, 9, 9, 9);
const Bytes ID82 = hex_bytes("52 14 01 08 00 06 00 0a 01 00 00 01 02 08 00 06 02 00 00 00 01 01");
#define NO_MATCH "Check user bind entry.|User entry information mismatch, stop process!"
#define RELAYED "relay 10.0.0.254 10.1.1.1:67 250, relay 10.0.0.254 10.3.3.3:67 250"

const Row ROWS[] = {
    // forged hardware address
    {"another's MAC", "mac-check", {.chaddr = MAC_CLIENT2, .forged = true}, " | 1 drops mac 1", "Source mac in pkt 02:c1:00:00:00:01 and client mac 02:c1:00:00:00:02 don't match,stop process!"},
    // bound clients
    {"a renewal that is right in everything", "bound check", {.ciaddr = HOST, .srcIp = HOST, .address = 0}, "2 286 | .50 bound 1/10"},
    {"from another source address", "bound check", {.ciaddr = HOST, .srcIp = HOST + 1, .address = 0}, " | .50 bound 1/10 | 1 drops binding 1", NO_MATCH},
    {"with another MAC", "bound check", {.ciaddr = HOST, .srcIp = HOST, .chaddr = MAC_CLIENT2, .address = 0}, " | .50 bound 1/10 | 1 drops binding 1", NO_MATCH},
    {"in another VLAN", "bound check", {.ciaddr = HOST, .srcIp = HOST, .address = 0, .arrival = Arrival{.outer = 20}}, " | .50 bound 1/10 | 1 drops binding 1", NO_MATCH},
    {"from another port", "port3 bound check", {.ciaddr = HOST, .srcIp = HOST, .address = 0, .arrival = Arrival{.port = 3}}, " | .50 bound 1/10 | 3 drops binding 1", NO_MATCH},
    {"a release without ciaddr", "bound check", {.type = RELEASE, .srcIp = HOST + 1}, " | .50 bound 1/10 | 1 drops binding 1", NO_MATCH},
    {"a first request is not checked", "bound check", {.chaddr = MAC_CLIENT2}, "2 292 | .50 asked 1/10 of 02", "!Check user bind entry."},
    {"an inform is not checked", "bound check", {.type = INFORM, .ciaddr = HOST, .chaddr = MAC_CLIENT2, .address = 0}, "2 286 | .50 bound 1/10", "!Check user bind entry."},
    {"a static binding passes", "static check", {.ciaddr = HOST, .chaddr = MAC_CLIENT2, .address = 0}, "2 286 | .50 static bound 1/10", "Check user bind entry."},
    {"an IP source guard binding passes", "ipsg check", {.type = RELEASE, .ciaddr = HOST, .chaddr = MAC_CLIENT2, .address = 0}, "2 286 | .50 ipsg bound 1/10", "Check user bind entry."},
    // bookkeeping
    {"a MAC user is left alone without relay", "bound waiting", {.type = DECLINE}, "2 292 | waits 1"},
    {"a discover waits for its reply", "relay", {.type = DISCOVER}, RELAYED " | waits 1", "Giaddr is zero, set giaddr to 10.0.0.254.|Send message from 10.0.0.254 to 10.1.1.1, length 250."},
    {"not when a binding is known", "relay bound", {.type = DISCOVER}, RELAYED " | .50 bound 1/10"},
    {"a decline ends both", "relay bound waiting", {.type = DECLINE}, RELAYED},
    {"another relay's request is recorded", "relay waiting", {.giaddr = OTHER_RELAY}, "2 292 | .50 asked 1/10 | waits 1"},
    {"a first server that cannot be reached", "relay unreachable", {}, RELAYED " | .50 asked 1/10", "Send message ERROR, no 0x1."},
    {"relayed with option 82", "relay option82", {}, "relay 10.0.0.254 10.1.1.1:67 272, relay 10.0.0.254 10.3.3.3:67 272 | .50 asked 1/10", "", ID82},
    // what cannot be recorded is dropped
    {"no user more", "no-users", {}, "", "Number of users on the interface exceeds the limit!|Process pkt end."},
    {"no node more", "one-node bound relay", {.type = DISCOVER, .address = HOST + 1}, " | .50 bound 1/10", "Can't allocate memory for mac user entry!|Failed to add mac user entry, stop process!"},
    {"recorded before option 82's policy drops it", "option82 82-drop", {.more = opt(82, {1, 0})}, " | .50 asked 1/10"},
    // on a VLAN interface: recorded in its VLAN, forwarded by ports; a port that snoops by itself is not handled
    {"VLAN 99 is not on port 2", "vlan-if", {.arrival = Arrival{.port = 3, .outer = 99, .inIf = 110}}, " | .50 asked 3/10", "Send packet to server, inport 3, vid 10, len 292."},
    {"from a port that snoops", "vlan-if", {.arrival = Arrival{.port = 1, .inIf = 110}}, "", "Interface is enable, do not process the received packet!"},
};

using Client = Daemon;

TEST_F(Client, Rows) { check_rows(ROWS); }

// DHCPv6 in a frame of EtherType 0x0800 has no hardware address and fewer bytes than a BOOTP header: nothing is compared, waited for
// or recorded, not even where 0.0.0.0, which would be its address, is known.
TEST_F(Client, FrameOfTheOtherFamily)
{
    const auto received = [](const char *before, uint8_t type) {
        prepare(before);
        receive(Frame6{.type = type}, {.etherType = 0x0800});
        make_binding(0u, MAC_CLIENT, 1, 10);
        receive(Frame6{.type = type}, {.etherType = 0x0800});
        return outcome();
    };
    EXPECT_EQ(received("mac-check", DISCOVER), " | .0 bound 1/10 | 1 drops mac 2");
    EXPECT_EQ(received("check", REQUEST) + received("", REQUEST) + received("relay", DISCOVER), " | .0 bound 1/10 | .0 bound 1/10 | .0 bound 1/10");
    EXPECT_EQ(received("", DISCOVER), "2 66, 2 66 | .0 bound 1/10");
}

} // namespace
