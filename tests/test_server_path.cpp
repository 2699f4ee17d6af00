// The server path: trust, learning, where the reply goes, relay undo, option 82 and boot options on the way back.
#include "scene.h"

namespace
{

constexpr Arrival VLAN20 = {.port = 2, .outer = 20};
const Bytes TYPED = opt(82, hex_bytes("01 01 63 02 08 00 06 02 00 00 00 01 01")), RAW = opt(82, hex_bytes("01 01 63 02 06 02 00 00 00 01 01"));
const Bytes FOREIGN = opt(82, hex_bytes("02 08 00 06 02 00 00 00 09 09"));
const Bytes BOOT = opt(67, text_bytes("boot.bin")), VENDOR = hex_bytes("7d 08 00 00 7e d9 03 04 01 78");
#define UNICAST "Unicast packet to client,outport 1,vid 10,len 298."
#define FLOODED(vid, len) "Broadcast packet to client,inport 2,vid " #vid ",len " #len ".|!Unicast packet to client,outport 1,vid 10,len " #len "."
#define UNTRUSTED "Port is untrust,stop process!"
#define HOOKED "deftinstall ip 0a000032 tag 00000000 mac 02 c1 00 00 00 01 one 1 add 1, 256 256 | .50 bound 1/10"
#define INVALID "Insert option67, len is 256.|option67 len is invalid!|Insert option125, len is 256.|option125 len is invalid!"

const Word WORDS[] = {
    {"members", [] { world.members(10, {1, 9, 2}); }},
    {"members5", [] { world.access(5, 10), world.members(10, {1, 2, 3, 5}); }},
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
    {"hook", [] { gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback; }},
};

const Row ROWS[] = {
    // trust
    {"an OFFER of a rogue server", "port3 bound", {.type = OFFER, .arrival = Arrival{.port = 3}}, " | .50 bound 1/10 | 3 drops untrusted 1", UNTRUSTED},
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
#define ALL_CHECKS "port3 port4 option82 mac-check check guarded "

const Row EXCHANGES[] = {
    {"DISCOVER to the server's port alone, with option 82", ALL_CHECKS, {.type = DISCOVER, .address = 0}, "2 308", "", ID82},
    {"OFFER: nobody knows yet where the client is", THEN, {.type = OFFER}, "1 298, 3 298"},
    {"REQUEST: provisional, not in hardware", THEN, {.more = BY_SERVER}, "2 320 | .50 asked 1/10 by .1", "", BY_SERVER + ID82},
    {"ACK: bound, enforced, without option 82, to the client alone", THEN, {.type = ACK, .more = ID82}, "1 298, hw +1 .50 f0/80 | .50 bound 1/10 hw 80 by .1", "", Bytes{}},
    // Renewing by unicast to the server, rebinding by broadcast (RFC 2131 4.3.2); both carry ciaddr.
    {"renewing", THEN, {.ciaddr = HOST, .srcIp = HOST, .address = 0, .after = 1800}, "2 308 | .50 bound 1/10 hw 80 by .1", "", ID82},
    {"is acknowledged: installed already", THEN, {.type = ACK, .ciaddr = HOST}, "1 298 | .50 bound 1/10 hw 80 by .1"},
    {"a rogue's ACK", THEN, {.type = ACK, .arrival = Arrival{.port = 3}, .after = 9, .lease = 9}, " | .50 bound 1/10 9s ago hw 80 by .1 | 3 drops untrusted 1"},
    {"to the last second", THEN, {.type = 0, .after = 3589}, " | .50 bound 1/10 3598s ago hw 80 by .1 | 3 drops untrusted 1"},
    {"run out", THEN, {.type = 0, .after = 60}, "hw -1 .50 f0/80 | 3 drops untrusted 1"},
    // a trunk: nothing of VLAN 20 leaks into VLAN 10
    {"tagged for the server", ALL_CHECKS "tagged2", {}, "2 318 | .50 asked 1/10"},
    {"untagged again", THEN, {.type = ACK, .tags = {{0x8100, 10}}}, "1 298, hw +1 .50 f0/80 | .50 bound 1/10 hw 80"},
    {"a client of VLAN 20", THEN, {.type = DISCOVER, .address = 0, .arrival = Arrival{.port = 4, .outer = 20}}, "2 290 | .50 bound 1/10 hw 80"},
    {"its OFFER", THEN, {.type = OFFER, .arrival = Arrival{.port = 2, .outer = 20}, .tags = {{0x8100, 20}}}, "4 298 | .50 bound 1/10 hw 80"},
    // two servers behind the relay
    {"a relayed DISCOVER", ALL_CHECKS "relay", {.type = DISCOVER, .address = 0}, "relay 10.0.0.254 10.1.1.1:67 266, relay 10.0.0.254 10.3.3.3:67 266 | waits 1", "", ID82},
    {"the second server's OFFER", THEN, {.type = OFFER, .giaddr = RELAY, .more = ID82, .server = SECOND}, "1 298 | waits 1", "", Bytes{}, "client"},
    {"is taken", THEN, {.more = opt_ip(54, SECOND)}, "relay 10.0.0.254 10.1.1.1:67 278, relay 10.0.0.254 10.3.3.3:67 278 | .50 asked 1/10 by .3", "", opt_ip(54, SECOND) + ID82},
    {"and acknowledged", THEN, {.type = ACK, .giaddr = RELAY, .more = ID82, .server = SECOND, .lease = 600}, "1 298, hw +1 .50 f0/80 | .50 bound 1/10 600s hw 80 by .3", "", Bytes{}, "client"},
    // Port 5 has no snooping of its own, the VLAN interface of its VLAN has: the ACK finds no entry of the port and goes to the whole
    // VLAN, and the binding is bound all the same.
    {"REQUEST", "port3 vlan-if members5", {.arrival = Arrival{.port = 5, .inIf = 110}}, "2 292 | .50 asked 5/10"},
    {"ACK to its members", THEN, {.type = ACK}, "1 298, 2 298, 3 298, 5 298 | .50 bound 5/10"},
};

TEST_F(Server, Exchanges) { check_rows(EXCHANGES, WORDS); }

} // namespace
