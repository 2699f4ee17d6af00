// Whole exchanges, message by message, as a client, a server and the switch between them see them.
#include "scene.h"

namespace
{

const Bytes ID82 = hex_bytes("52 14 01 08 00 06 00 0a 01 00 00 01 02 08 00 06 02 00 00 00 01 01"), BY_SERVER = opt_ip(54, SERVER);
constexpr uint32_t SECOND = ip4(10, 3, 3, 3); // relay server
#define ALL_CHECKS "port3 port4 option82 mac-check check guarded "

const Word WORDS[] = {
    {"members", [] { world.access(5, 10), world.members(10, {1, 2, 3, 5}); }},
};

const Row ROWS[] = {
    // clang-format off
    {"DISCOVER to the server's port alone, with option 82", ALL_CHECKS, {.type = DISCOVER, .address = 0}, "2 308"},
    {"OFFER: nobody knows yet where the client is", THEN, {.type = OFFER}, "1 298, 3 298"},
    {"REQUEST: provisional, not in hardware", THEN, {.more = BY_SERVER}, "2 320 | .50 asked 1/10 by .1"},
    {"ACK: bound, enforced, without option 82, to the client alone", THEN, {.type = ACK, .more = ID82}, "1 298, hw +1 .50 f0/80 | .50 bound 1/10 hw 80 by .1"},
    // Renewing by unicast to the server, rebinding by broadcast (RFC 2131 4.3.2); both carry ciaddr.
    {"renewing", THEN, {.ciaddr = HOST, .srcIp = HOST, .address = 0, .after = 1800}, "2 308 | .50 bound 1/10 hw 80 by .1"},
    {"is acknowledged: installed already", THEN, {.type = ACK, .ciaddr = HOST}, "1 298 | .50 bound 1/10 hw 80 by .1"},
    {"a rogue's ACK", THEN, {.type = ACK, .arrival = Arrival{.port = 3}, .after = 9, .lease = 9}, " | .50 bound 1/10 9s ago hw 80 by .1 | 3 drops untrusted 1"},
    {"to the last second", THEN, {.type = 0, .after = 3589}, " | .50 bound 1/10 3598s ago hw 80 by .1 | 3 drops untrusted 1"},
    {"run out", THEN, {.type = 0, .after = 60}, "hw -1 .50 f0/80 | 3 drops untrusted 1"},
    {"a request", ALL_CHECKS, {}, "2 314 | .50 asked 1/10"},
    {"that only a rogue acknowledges", THEN, {.type = ACK, .arrival = Arrival{.port = 3}}, " | .50 asked 1/10 | 3 drops untrusted 1"},
    {"goes at the next scan", THEN, {.type = 0, .after = 60}, " | 3 drops untrusted 1"},
    // a trunk: nothing of VLAN 20 leaks into VLAN 10
    {"tagged for the server", ALL_CHECKS "tagged2", {}, "2 318 | .50 asked 1/10"},
    {"untagged again", THEN, {.type = ACK, .tags = {{0x8100, 10}}}, "1 298, hw +1 .50 f0/80 | .50 bound 1/10 hw 80"},
    {"a client of VLAN 20", THEN, {.type = DISCOVER, .address = 0, .arrival = Arrival{.port = 4, .outer = 20}}, "2 290 | .50 bound 1/10 hw 80"},
    {"its OFFER", THEN, {.type = OFFER, .arrival = Arrival{.port = 2, .outer = 20}, .tags = {{0x8100, 20}}}, "4 298 | .50 bound 1/10 hw 80"},
    // two servers behind the relay
    {"a relayed DISCOVER", ALL_CHECKS "relay", {.type = DISCOVER, .address = 0}, "relay 10.0.0.254 10.1.1.1:67 266, relay 10.0.0.254 10.3.3.3:67 266 | waits 1"},
    {"the second server's OFFER", THEN, {.type = OFFER, .giaddr = RELAY, .more = ID82, .server = SECOND}, "1 298 | waits 1"},
    {"is taken", THEN, {.more = opt_ip(54, SECOND)}, "relay 10.0.0.254 10.1.1.1:67 278, relay 10.0.0.254 10.3.3.3:67 278 | .50 asked 1/10 by .3"},
    {"and acknowledged", THEN, {.type = ACK, .giaddr = RELAY, .more = ID82, .server = SECOND, .lease = 600}, "1 298, hw +1 .50 f0/80 | .50 bound 1/10 600s hw 80 by .3"},
    // Port 5 has no snooping of its own, the VLAN interface of its VLAN has: the ACK finds no entry of the port and goes to the whole
    // VLAN, and the binding is bound all the same.
    {"of a VLAN interface's client", "port3 vlan-if members", {.type = DISCOVER, .address = 0, .arrival = Arrival{.port = 5, .inIf = 110}}, "2 286"},
    {"OFFER to its members", THEN, {.type = OFFER}, "1 298, 2 298, 3 298, 5 298"},
    {"REQUEST", THEN, {.arrival = Arrival{.port = 5, .inIf = 110}}, "2 292 | .50 asked 5/10"},
    {"ACK to its members", THEN, {.type = ACK}, "1 298, 2 298, 3 298, 5 298 | .50 bound 5/10"},
    {"run out too", THEN, {.type = 0, .after = 3660}, ""},
    // clang-format on
};

using Exchange = Daemon;

TEST_F(Exchange, Steps) { check_rows(ROWS, WORDS); }

} // namespace
