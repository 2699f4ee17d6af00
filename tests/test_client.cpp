// The client path: protections, bookkeeping, and the way towards the servers.
#include "scene.h"

namespace
{

constexpr uint32_t OTHER_RELAY = ip4(10, 9, 9, 9);
const Bytes ID82 = hex_bytes("52 14 01 08 00 06 00 0a 01 00 00 01 02 08 00 06 02 00 00 00 01 01");
#define NO_MATCH "Check user bind entry.|User entry information mismatch, stop process!"
#define RELAYED "relay 10.0.0.254 10.1.1.1:67 250, relay 10.0.0.254 10.3.3.3:67 250"

// Each row is played with the check of bindings and without; `unchecked` is the outcome then, where it differs.
const struct {
    const char *claim, *before;
    Message message;
    const char *outcome, *said = "", *unchecked = nullptr;
    Bytes added = {}; // option 82 of the relayed message
} ROWS[] = {
    // clang-format off
    // forged hardware address
    {"its own MAC", "mac-check", {}, "2 292 | .50 asked 1/10"},
    {"another's MAC", "mac-check", {.chaddr = MAC_CLIENT2, .forged = true}, " | 1 drops mac 1", "Source mac in pkt 02:c1:00:00:00:01 and client mac 02:c1:00:00:00:02 don't match,stop process!"},
    {"another's MAC, not checked", "", {.chaddr = MAC_CLIENT2, .forged = true}, "2 292 | .50 asked 1/10 of 02"},
    // bound clients
    {"a renewal that is right in everything", "bound", {.ciaddr = HOST, .srcIp = HOST, .address = 0}, "2 286 | .50 bound 1/10", ""},
    {"from another source address", "bound", {.ciaddr = HOST, .srcIp = HOST + 1, .address = 0}, " | .50 bound 1/10 | 1 drops binding 1", NO_MATCH, "2 286 | .50 bound 1/10"},
    {"from no source address", "bound", {.ciaddr = HOST, .address = 0}, " | .50 bound 1/10 | 1 drops binding 1", NO_MATCH, "2 286 | .50 bound 1/10"},
    {"with another MAC", "bound", {.ciaddr = HOST, .srcIp = HOST, .chaddr = MAC_CLIENT2, .address = 0}, " | .50 bound 1/10 | 1 drops binding 1", NO_MATCH, "2 286 | .50 asked 1/10 of 02"},
    {"in another VLAN", "bound", {.ciaddr = HOST, .srcIp = HOST, .address = 0, .arrival = Arrival{.outer = 20}}, " | .50 bound 1/10 | 1 drops binding 1", NO_MATCH, "2 290 | .50 asked 1/20"},
    {"from another port", "bound port3", {.ciaddr = HOST, .srcIp = HOST, .address = 0, .arrival = Arrival{.port = 3}}, " | .50 bound 1/10 | 3 drops binding 1", NO_MATCH, "2 286 | .50 asked 3/10"},
    {"of another client address", "bound", {.ciaddr = HOST, .srcIp = HOST, .address = HOST + 9}, "2 292 | .50 bound 1/10 | .59 asked 1/10", "Check user bind entry.", "2 292 | .50 bound 1/10 | .59 asked 1/10"},
    {"a release that is right", "bound", {.type = RELEASE, .ciaddr = HOST, .srcIp = HOST, .address = 0}, "2 286", "Check user bind entry.", "2 286"},
    {"a release with another MAC", "bound", {.type = RELEASE, .ciaddr = HOST, .srcIp = HOST, .chaddr = MAC_CLIENT2, .address = 0}, " | .50 bound 1/10 | 1 drops binding 1", NO_MATCH, "2 286"},
    {"a release without ciaddr", "bound", {.type = RELEASE, .srcIp = HOST + 1}, " | .50 bound 1/10 | 1 drops binding 1", NO_MATCH, "2 292"},
    {"a first request is not checked", "bound", {.chaddr = MAC_CLIENT2}, "2 292 | .50 asked 1/10 of 02"},
    {"a discover is not checked", "bound", {.type = DISCOVER, .ciaddr = HOST, .chaddr = MAC_CLIENT2, .address = 0}, "2 286 | .50 bound 1/10"},
    {"a decline is not checked", "bound", {.type = DECLINE, .ciaddr = HOST, .chaddr = MAC_CLIENT2, .address = 0}, "2 286"},
    {"an inform is not checked", "bound", {.type = INFORM, .ciaddr = HOST, .chaddr = MAC_CLIENT2, .address = 0}, "2 286 | .50 bound 1/10"},
    {"a static binding passes", "static", {.ciaddr = HOST, .chaddr = MAC_CLIENT2, .address = 0}, "2 286 | .50 static bound 1/10"},
    {"an IP source guard binding passes", "ipsg", {.type = RELEASE, .ciaddr = HOST, .chaddr = MAC_CLIENT2, .address = 0}, "2 286 | .50 ipsg bound 1/10"},
    // bookkeeping
    {"a discover leaves no trace", "", {.type = DISCOVER}, "2 292"},
    {"a repeated request", "bound", {}, "2 292 | .50 bound 1/10"},
    {"a decline deletes", "bound", {.type = DECLINE}, "2 292"},
    {"but not a static binding", "static", {.type = RELEASE}, "2 292 | .50 static bound 1/10"},
    {"a MAC user is left alone without relay", "bound waiting", {.type = DECLINE}, "2 292 | waits 1"},
    {"a discover waits for its reply", "relay", {.type = DISCOVER}, RELAYED " | waits 1", "Giaddr is zero, set giaddr to 10.0.0.254."},
    {"once only", "relay waiting", {.type = DISCOVER}, RELAYED " | waits 1"},
    {"not when a binding is known", "relay bound", {.type = DISCOVER}, RELAYED " | .50 bound 1/10"},
    {"an inform waits too", "relay", {.type = INFORM}, RELAYED " | waits 1"},
    {"a request ends the waiting and is recorded", "relay waiting", {}, RELAYED " | .50 asked 1/10"},
    {"a request out of the blue", "relay", {}, RELAYED " | .50 asked 1/10"},
    {"a decline ends both", "relay bound waiting", {.type = DECLINE}, RELAYED},
    {"a release spares the static binding", "relay static waiting", {.type = RELEASE}, RELAYED " | .50 static bound 1/10"},
    {"a decline of a bound client", "relay bound", {.type = DECLINE}, RELAYED},
    {"another relay's message does not wait", "relay", {.type = DISCOVER, .giaddr = OTHER_RELAY}, "2 292"},
    {"another relay's request is recorded", "relay waiting", {.giaddr = OTHER_RELAY}, "2 292 | .50 asked 1/10 | waits 1"},
    {"a first server that cannot be reached", "relay unreachable", {}, RELAYED " | .50 asked 1/10"},
    {"relayed with option 82", "relay option82", {}, "relay 10.0.0.254 10.1.1.1:67 272, relay 10.0.0.254 10.3.3.3:67 272 | .50 asked 1/10", "", nullptr, ID82},
    // what cannot be recorded is dropped
    {"no user more", "no-users", {}, "", "Number of users on the interface exceeds the limit!|Process pkt end."},
    {"a discover still passes", "no-users", {.type = DISCOVER}, "2 292"},
    {"no node more", "one-node bound relay", {.type = DISCOVER, .address = HOST + 1}, " | .50 bound 1/10", "Can't allocate memory for mac user entry!|Failed to add mac user entry, stop process!"},
    {"recorded before option 82's policy drops it", "option82 82-drop", {.more = opt(82, {1, 0})}, " | .50 asked 1/10"},
    // on a VLAN interface: recorded in its VLAN, forwarded by ports; a port that snoops by itself is not handled
    {"VLAN 99 is not on port 2", "vlan-if", {.arrival = Arrival{.port = 3, .outer = 99, .inIf = 110}}, " | .50 asked 3/10", "Send packet to server, inport 3, vid 10, len 292."},
    {"on a VLAN interface", "vlan-if", {.type = DISCOVER, .arrival = Arrival{.port = 3, .inIf = 110}}, "2 292", "Npt send message to server, len is 292 buflen is 292."},
    {"from a port that snoops", "vlan-if", {.arrival = Arrival{.port = 1, .inIf = 110}}, "", "Interface is enable, do not process the received packet!"},
    // clang-format on
};

using Client = Daemon;

TEST_F(Client, Rows)
{
    for (const auto &row : ROWS) {
        for (const bool checked : {true, false}) {
            SCOPED_TRACE(std::string(row.claim) + (checked ? "" : ", bindings not checked"));
            const Message &m = row.message;
            prepare(std::string(row.before) + (checked ? " check" : ""));
            m.receive();
            const bool same = checked || row.unchecked == nullptr;
            EXPECT_EQ(outcome(), same ? row.outcome : row.unchecked);
            EXPECT_EQ(same ? unsaid(row.said) : "", "");
            EXPECT_EQ(printed("[DHCPSNOOP] Check user bind entry.\r\n"), checked && (m.type == RELEASE || (m.type == REQUEST && m.ciaddr != 0)));
            Frame relayed = m.frame();
            relayed.giaddr = RELAY;
            relayed.options = m.options() + row.added + OPT_END;
            for (const WorldEntry *entry : world.all(Did::Relay))
                EXPECT_EQ(hex(entry->data), hex(relayed.message()));
        }
    }
}

// A frame of EtherType 0x0800 whose IP header says version 6 comes with its DHCPv6 message: no hardware address, and
// fewer bytes than a BOOTP header.
TEST_F(Client, FrameOfTheOtherFamily)
{
    const struct {
        const char *claim, *before;
        uint8_t type;
        const char *outcome;
    } rows[] = {
        {"plain forwarding", "", 1, "2 286"},
        {"no MAC to compare", "mac-check", 1, " | 1 drops mac 1"},
        {"a message of type 1 is not checked", "check", 1, "2 286"},
        {"there is no ciaddr to check", "check", 3, ""},
        {"nothing to record without a hardware address", "", 3, ""},
        {"nor to wait for", "relay", 1, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare(row.before);
        Parsed parsed(Frame{});
        parsed.info.chaddr = nullptr;
        parsed.info.dhcpLen = 4;
        parsed.info.msgType = row.type;
        const DhcpsnoopRxPkt before = parsed.rx;
        dhcpsnoop_client_packet_recv(&parsed.info);
        EXPECT_EQ(outcome(), row.outcome);
        make_binding(0, MAC_CLIENT, 1, 10); // its address, 0.0.0.0, is known: then it gets as far as the relaying
        dhcpsnoop_client_packet_recv(&parsed.info);
        EXPECT_TRUE(world.all(Did::Relay).empty() && memcmp(&before, &parsed.rx, sizeof before) == 0);
    }
    dhcpsnoop_client_packet_recv(nullptr);
    Parsed parsed(Frame{});
    parsed.info.ifp = nullptr;
    dhcpsnoop_client_packet_recv(&parsed.info);
}

} // namespace
