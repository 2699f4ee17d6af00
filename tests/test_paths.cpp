// Messages on their way: the one entry of every frame with its dispatch and traces; the client path with protections, bookkeeping and
// the way towards the servers; the server path with trust, learning, where the reply goes, relay undo, option 82 and boot options.
#include "scene.h"

#include "dhcpsnoop_nm.h"

namespace
{

using Receive = Daemon;

constexpr const char *DISCOVER_TRACE = "Receive a dhcp message, check and process it!|svlan 4096, cvlan 10.|Receive a packet: interface 1,invlan 0,outvlan 10,received len 290,msg len 286.|Dhcp request packet, type value 1(discover).|Send packet to server, inport 1, vid 10, len 286.|TPID of this interface is 0x0.|Send message to server, len is 286 buflen is 286.|Process pkt end.";

TEST_F(Receive, DebugBits)
{
    const Bytes frame = Frame{.padding = {0xAA, 0xBB, 0xCC, 0xDD}};
    // Sixteen bytes a line, a line break before each line, nothing behind the last byte; the received frame whole, the sent
    // one without its padding.
    std::string dumps;
    for (const size_t length : {frame.size(), frame.size() - 4})
        for (size_t i = 0; i < length; i++)
            dumps += (i % 16 == 0 ? "\n\r" : "") + world_format("%02x  ", frame[i]);
    for (const int flags : {0, 1, 2, 3, 0xFC}) {
        SCOPED_TRACE(flags);
        prepare("");
        debug(flags);
        Printed out;
        receive(frame);
        EXPECT_EQ(out.text(), (flags & 2) != 0 ? dumps : "");
        EXPECT_EQ(said(), (flags & 1) != 0 ? DISCOVER_TRACE : "");
        EXPECT_EQ(outcome(), "2 286");
    }
}

// The outcome, and the text about the direction and type, or about the family.
std::string received(uint8_t op, uint8_t type, uint32_t version = 1, const Arrival &arrival = {})
{
    prepare("");
    set_flag_field(dhcpsnoop_if_lookup(1), DHCPSNOOP_IF_VERSION, version);
    receive(Frame{.op = op, .options = (type != 0 ? opt_type(type) : Bytes(3)) + opt_ip(50, HOST) + OPT_END}, arrival);
    const Lines texts = world.texts(Did::Debug);
    const std::string &text = texts.at(texts.size() > 3 ? 3 : 2);
    return outcome() + "; " + text.substr(12, text.size() - 14);
}

TEST_F(Receive, TypesDirectionsAndFamilies)
{
    const char *const names[] = {"unknow", "discover", "offer", "request", "decline", "ack", "nak", "release", "inform", "unknow"};
    for (uint8_t type = 0; type < 10; type++) { // Kept: the op byte alone decides the direction
        const std::string told = world_format("packet, type value %u(%s).", type, names[type]);
        EXPECT_EQ(received(1, type), std::string(type == REQUEST ? "2 292 | .50 asked 1/10" : "2 292") + "; Dhcp request " + told);
        EXPECT_EQ(received(2, type), " | 1 drops untrusted 1; Dhcp reply " + told);
    }
    const Arrival socket6 = {.etherType = 0x86DD};
    check({
        {"Kept: any op but 1 and 2 goes nowhere", series({received(0, 1), received(3, 1)}), "; Dhcp reply packet, type value 1(discover)."},
        {"IPv4 where only IPv6 is", received(1, 3, 2), "; Interface version IPv6 and packet type IPv4 mismatch!"},
        {"Kept: an interface that snoops neither is named IPv6", received(1, 3, 0), "; Interface version IPv6 and packet type IPv4 mismatch!"},
        {"from the IPv6 socket where only IPv4 is", received(1, 3, 1, socket6), "; Interface version IPv4 and packet type IPv6 mismatch!"},
    });
}

TEST_F(Receive, EveryTruncationLeavesNoTrace)
{
    prepare("");
    const std::string before = world_state();
    const Bytes good = Message{}.frame();
    for (size_t length = 0; length <= good.size(); length++) {
        world.clear();
        receive(Bytes(good.begin(), good.begin() + static_cast<ptrdiff_t>(length)), {.l2 = 14, .etherType = 0x0800});
        ASSERT_EQ(unsaid(length < good.size() ? "Parse packet error, stop process!" : "Process pkt end."), "") << length;
        ASSERT_TRUE((sent_summary().empty() && world_state() == before) == (length < good.size())) << length;
    }
}

constexpr uint32_t OTHER_RELAY = ip4(10, 9, 9, 9);
#define NO_MATCH "Check user bind entry.|User entry information mismatch, stop process!"
#define RELAYED "relay 10.0.0.254 10.1.1.1:67 250, relay 10.0.0.254 10.3.3.3:67 250"

const Row REQUESTS[] = {
    // forged hardware address
    {"another's MAC", "mac-check", {.chaddr = MAC_CLIENT2, .forged = true}, " | 1 drops mac 1", "Source mac in pkt 02:c1:00:00:00:01 and client mac 02:c1:00:00:00:02 don't match,stop process!"},
    // bound clients
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
    {"not when a binding is known", "relay bound", {.type = DISCOVER}, RELAYED " | .50 bound 1/10"},
    {"a decline ends both", "relay bound waiting", {.type = DECLINE}, RELAYED},
    {"another relay's request is recorded", "relay waiting", {.giaddr = OTHER_RELAY}, "2 292 | .50 asked 1/10 | waits 1"},
    {"a first server that cannot be reached", "relay unreachable", {}, RELAYED " | .50 asked 1/10", "Send message ERROR, no 0x1."},
    // what cannot be recorded is dropped
    {"no user more", "no-users", {}, "", "Number of users on the interface exceeds the limit!|Process pkt end."},
    {"no node more", "one-node bound relay", {.type = DISCOVER, .address = HOST + 1}, " | .50 bound 1/10", "Can't allocate memory for mac user entry!|Failed to add mac user entry, stop process!"},
    {"recorded before option 82's policy drops it", "option82 82-drop", {.more = opt(82, {1, 0})}, " | .50 asked 1/10"},
    // on a VLAN interface: recorded in its VLAN, forwarded by ports; a port that snoops by itself is not handled
    {"VLAN 99 is not on port 2", "vlan-if", {.arrival = Arrival{.port = 3, .outer = 99, .inIf = 110}}, " | .50 asked 3/10", "Send packet to server, inport 3, vid 10, len 292."},
    {"from a port that snoops", "vlan-if", {.arrival = Arrival{.port = 1, .inIf = 110}}, "", "Interface is enable, do not process the received packet!"},
};

using Client = Daemon;

TEST_F(Client, Rows) { check_rows(REQUESTS); }

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

constexpr Arrival VLAN20 = {.port = 2, .outer = 20};
const Bytes TYPED = opt(82, hex_bytes("01 01 63 02 08 00 06 02 00 00 00 01 01")), RAW = opt(82, hex_bytes("01 01 63 02 06 02 00 00 00 01 01"));
const Bytes FOREIGN = opt(82, hex_bytes("02 08 00 06 02 00 00 00 09 09"));
const Bytes BOOT = opt(67, text_bytes("boot.bin")), VENDOR = hex_bytes("7d 08 00 00 7e d9 03 04 01 78");
#define UNICAST "Unicast packet to client,outport 1,vid 10,len 298."
#define FLOODED(vid, len) "Broadcast packet to client,inport 2,vid " #vid ",len " #len ".|!Unicast packet to client,outport 1,vid 10,len " #len "."
#define HOOKED "deftinstall ip 0a000032 tag 00000000 mac 02 c1 00 00 00 01 one 1 add 1, 256 256 | .50 bound 1/10"
#define INVALID "Insert option67, len is 256.|option67 len is invalid!|Insert option125, len is 256.|option125 len is invalid!"

const Word WORDS[] = {
    {"members", [] { world.members(10, {1, 9, 2}); }},
    {"unused", [] { dhcpsnoop_if_lookup(1)->flags &= ~DHCPSNOOP_IF_IN_USE; }},
    {"trusted-vlan-if", [] { snoop(110, DHCPSNOOP_IF_TRUSTED); }},
    {"by-server", [] { binding(HOST)->serverId = SERVER; }},
    {"two", [] { make_binding(2u, MAC_CLIENT, 3, 10)->serverId = SERVER, make_binding(1u, MAC_CLIENT, 1, 10)->serverId = SERVER + 1; }}, // the second comes first
    {"bound6", [] { make_binding("::1", MAC_CLIENT, 3, 10); }},
    {"relay-of-1", [] { dhcpsnoop_if_lookup(1)->relayAddr = RELAY, dhcpsnoop_if_lookup(1)->serverIp[1] = SERVER, dhcpsnoop_if_lookup(1)->serverIp[2] = ip4(10, 7, 7, 7); }},
    {"mode3", [] { set_flag_field(dhcpsnoop_if_lookup(1), DHCPSNOOP_IF_MODE, 3); }},
    {"mode4", [] { set_flag_field(dhcpsnoop_if_lookup(1), DHCPSNOOP_IF_MODE, 4); }},
    {"global4", [] { gDhcpsnoop.remoteIdFmt.mode = 4, gDhcpsnoop.circuitIdFmt.mode = 3; }},
    {"boot", [] { world.bootFile = text_bytes("boot.bin"), world.option125 = text_bytes("x"); }},
    {"letter", [] { world.bootFile = text_bytes("b"), world.option125 = text_bytes("x"); }},
};

const Row ROWS[] = {
    // trust
    {"on a VLAN interface, trusted or not", "trusted-vlan-if bound", {.type = ACK, .arrival = Arrival{.port = 9, .inIf = 110}}, " | .50 bound 1/10", "Vlan interface do not process the DHCP Reply message!"},
    // learning
    {"a server is learned", "learning", {.type = OFFER}, "1 298 | server .1 2/10"},
    {"once only", THEN, {.type = OFFER}, "1 298 | server .1 2/10"},
    {"no server id", "learning", {.type = OFFER, .server = 0}, "1 292"},
    {"a server behind an untrusted port is learned too", "learning port3", {.type = ACK, .arrival = Arrival{.port = 3}}, " | server .1 3/10 | 3 drops untrusted 1"},
    // where the reply goes
    {"an ACK to the binding's port", "port3 bound", {.type = ACK, .lease = 7200}, "1 298 | .50 bound 1/10 7200s", UNICAST "|!Broadcast packet to client,inport 2,vid 10,len 298."},
    {"the binding's port is not in use: flooded in the binding's VLAN", "port3 port4 bound unused", {.type = ACK, .arrival = VLAN20}, "3 298 | .50 bound 1/10", FLOODED(10, 298)},
    {"an ACK without binding, waiting, not relayed", "port3 waiting", {.type = ACK}, "1 298, 3 298 | waits 1", FLOODED(10, 298)},
    {"an ACK without binding, waiting, relayed", "port3 waiting", {.type = ACK, .giaddr = RELAY}, "1 298 | waits 1", UNICAST},
    {"whose port is not in use: flooded in its VLAN", "port3 port4 waiting unused", {.type = OFFER, .giaddr = RELAY, .arrival = VLAN20}, "3 298 | waits 1", FLOODED(10, 298)},
    {"a relayed offer, nobody waits", "port3", {.type = OFFER, .giaddr = RELAY}, "1 298, 3 298", FLOODED(10, 298)},
    {"flooded to the members of a VLAN interface", "vlan-if members", {.type = OFFER}, "1 298, 9 302, 2 298", FLOODED(10, 298)},
    {"a NAK never asks who waits", "port3 waiting", {.type = NAK, .giaddr = RELAY}, "1 292, 3 292 | waits 1", FLOODED(10, 292)},
    // what a NAK unbinds
    {"of the server of the binding", "port3 bound by-server", {.type = NAK}, "1 292"},
    {"of another server: kept but delivered", "port3 bound by-server", {.type = NAK, .server = SERVER + 1}, "1 292 | .50 bound 1/10 by .1"},
    {"a static binding is not looked at", "port3 static by-server", {.type = NAK}, "1 292, 3 292 | .50 static bound 1/10 by .1"},
    {"another client's binding is not", "port3 bound", {.type = NAK, .chaddr = MAC_CLIENT2, .server = 0}, "1 286, 3 286 | .50 bound 1/10"},
    {"only the first binding of the MAC is considered, in the order of the buckets", "port3 two", {.type = NAK}, "1 292 | .1 bound 1/10 by .2 | .2 bound 3/10 by .1"},
    {"Kept: the address family plays no part", "port3 bound6", {.type = NAK, .server = 0}, "3 286"},
    // relay undo
    {"to the client's address", "relay-of-1 bound", {.type = ACK, .giaddr = RELAY}, "1 298 | .50 bound 1/10", "", {}, "client"},
    {"with the broadcast flag", "relay-of-1 bound", {.type = ACK, .giaddr = RELAY, .flags = 0x8000}, "1 298 | .50 bound 1/10", "", {}, "broadcast"},
    {"a NAK is broadcast even with an address", "relay-of-1 bound", {.type = NAK, .giaddr = RELAY}, "1 292 | .50 bound 1/10", "", {}, "broadcast"},
    {"an offer without address is broadcast", "relay-of-1 waiting", {.type = OFFER, .giaddr = RELAY, .address = 0}, "1 298 | waits 1", "", {}, "broadcast"},
    {"another server's reply stays as it is", "relay-of-1 bound", {.type = ACK, .giaddr = RELAY, .flags = 0x8000, .server = SERVER + 1}, "1 298 | .50 bound 1/10"},
    {"Kept: a free slot equals a reply without server id", "relay-of-1 bound", {.type = ACK, .giaddr = RELAY, .server = 0}, "1 292 | .50 bound 1/10", "", {}, "client"},
    // option 82
    {"typed, own", "option82 mode3 bound", {.type = ACK, .more = TYPED}, "1 298 | .50 bound 1/10", "", Bytes{}},
    {"raw, own", "option82 mode4 bound", {.type = ACK, .more = RAW}, "1 298 | .50 bound 1/10", "", Bytes{}},
    {"another's remote-id", "option82 mode3 bound", {.type = ACK, .more = FOREIGN}, "1 310 | .50 bound 1/10"},
    {"option 82 processing is off", "mode3 bound", {.type = ACK, .more = TYPED}, "1 313 | .50 bound 1/10"},
    {"Kept: the global remote-id mode", "option82 global4 bound", {.type = ACK, .more = RAW}, "1 298 | .50 bound 1/10", "", Bytes{}},
    // options 67 and 125; they come in front of an option 82 that stays
    {"both, the boot file first", "option82 waiting bound boot hook", {.type = ACK, .more = TYPED}, "1 318, " HOOKED " | waits 1", "Insert option67, len is 8.|Insert option125, len is 1.", BOOT + VENDOR},
    {"a boot file of one letter", "bound letter hook", {.type = ACK}, "1 311, " HOOKED, "Insert option67, len is 1.|Insert option125, len is 1.", hex_bytes("43 01 62") + VENDOR},
    {"before another's option 82", "option82 bound boot hook", {.type = ACK, .more = FOREIGN}, "1 330, " HOOKED, "", BOOT + VENDOR + FOREIGN},
    {"Kept: what nothing filled in is still the room, and refused", "bound hook", {.type = ACK}, "1 298, " HOOKED, INVALID},
};

using Server = Daemon;

TEST_F(Server, Rows) { check_rows(ROWS, WORDS); }

// Option 82 claims two bytes, its remote-id six more: whether they end the message or stand partly behind it.
TEST_F(Server, RemoteIdAtTheEndOfTheMessage)
{
    prepare("bound option82 mode4", WORDS);
    for (const int behind : {0, 1, 6}) {
        SCOPED_TRACE(behind);
        world.clear();
        Frame frame = Message{.type = ACK}.frame();
        frame.options = opt_type(ACK) + hex_bytes("52 02 02 06 02 00 00 00 01 01");
        frame.udpLen = static_cast<uint16_t>(8 + frame.message().size() - static_cast<size_t>(behind));
        receive(frame, Arrival{.port = 2});
        EXPECT_EQ(sent_frame().size() < frame.bytes().size(), behind == 0);
    }
}

// Whole exchanges, message by message, as a client, a server and the switch between them see them.
const Bytes ID82 = hex_bytes("52 14 01 08 00 06 00 0a 01 00 00 01 02 08 00 06 02 00 00 00 01 01"), BY_SERVER = opt_ip(54, SERVER);
constexpr uint32_t SECOND = ip4(10, 3, 3, 3); // relay server
#define ALL_CHECKS "port3 port4 option82 mac-check check guarded"

const Row EXCHANGES[] = {
    {"DISCOVER to the server's port alone, with option 82", ALL_CHECKS, {.type = DISCOVER, .address = 0}, "2 308", "", ID82},
    {"OFFER: nobody knows yet where the client is", THEN, {.type = OFFER}, "1 298, 3 298"},
    {"REQUEST: provisional, not in hardware", THEN, {.more = BY_SERVER}, "2 320 | .50 asked 1/10 by .1", "", BY_SERVER + ID82},
    {"ACK: bound, enforced, without option 82, to the client alone", THEN, {.type = ACK, .more = ID82}, "1 298, hw +1 .50 f0/80 | .50 bound 1/10 hw 80 by .1", "", Bytes{}},
    // Renewing by unicast to the server, rebinding by broadcast (RFC 2131 4.3.2); both carry ciaddr.
    {"renewing", THEN, {.ciaddr = HOST, .srcIp = HOST, .address = 0, .after = 1800}, "2 308 | .50 bound 1/10 hw 80 by .1", "", ID82},
    {"is acknowledged: installed already", THEN, {.type = ACK, .ciaddr = HOST}, "1 298 | .50 bound 1/10 hw 80 by .1"},
    {"a rogue's ACK", THEN, {.type = ACK, .arrival = Arrival{.port = 3}, .after = 9, .lease = 9}, " | .50 bound 1/10 9s ago hw 80 by .1 | 3 drops untrusted 1", "Port is untrust,stop process!"},
    {"to the last second", THEN, {.type = 0, .after = 3589}, " | .50 bound 1/10 3598s ago hw 80 by .1 | 3 drops untrusted 1"},
    {"run out", THEN, {.type = 0, .after = 60}, "hw -1 .50 f0/80 | 3 drops untrusted 1"},
    // two servers behind the relay
    {"a relayed DISCOVER", ALL_CHECKS " relay", {.type = DISCOVER, .address = 0}, "relay 10.0.0.254 10.1.1.1:67 266, relay 10.0.0.254 10.3.3.3:67 266 | waits 1", "Giaddr is zero, set giaddr to 10.0.0.254.|Send message from 10.0.0.254 to 10.1.1.1, length 266.", ID82},
    {"the second server's OFFER", THEN, {.type = OFFER, .giaddr = RELAY, .more = ID82, .server = SECOND}, "1 298 | waits 1", "", Bytes{}, "client"},
    {"is taken", THEN, {.more = opt_ip(54, SECOND)}, "relay 10.0.0.254 10.1.1.1:67 278, relay 10.0.0.254 10.3.3.3:67 278 | .50 asked 1/10 by .3", "", opt_ip(54, SECOND) + ID82},
    {"and acknowledged", THEN, {.type = ACK, .giaddr = RELAY, .more = ID82, .server = SECOND, .lease = 600}, "1 298, hw +1 .50 f0/80 | .50 bound 1/10 600s hw 80 by .3", "", Bytes{}, "client"},
};

TEST_F(Server, Exchanges) { check_rows(EXCHANGES, WORDS); }

TEST_F(Server, CallsAboutNothingAreRefused)
{
    dhcpsnoop_server_packet_recv(nullptr);
    const Key key(HOST);
    EXPECT_EQ(dhcpsnoop_user_add(&key, nullptr, nullptr), -1);
    EXPECT_EQ(dhcpSnoopVlanGetNext(10, nullptr), -1);
}

} // namespace
