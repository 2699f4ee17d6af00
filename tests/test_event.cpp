// Datagrams of platform events: the walk over messages and attributes; links and aggregates that come and go; check items that
// change; ARP inspection that starts and stops; cards, slots and subsystems.
#include "steps.h"

namespace
{

// Port 1, the aggregate 8 and the VLAN interface 110 snoop in VLAN 10, port 2 does not; .50 and .51 are bound there, .52 is static.
void start()
{
    world.reset();
    world.access(1, 10);
    world.access(2, 10);
    world.trunk(8, {10});
    world.vlan_interface(110, 10);
    for (const uint32_t ifIndex : {1u, 8u, 110u})
        snoop(ifIndex);
    make_binding(ip4(10, 0, 0, 50), MAC_CLIENT, 1, 10);
    make_binding(ip4(10, 0, 0, 51), MAC_CLIENT2, 8, 10);
    make_binding(ip4(10, 0, 0, 52), MAC_CLIENT, 1, 20)->userType = DHCPSNOOP_USER_STATIC;
    dhcpsnoop_if_lookup(1)->curUser = 1;
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
}

// clang-format off
const Step LINKS[] = {
    {"nothing; no whole header; a header is enough; a length field below the header's; a length field of 0; a length field beyond the datagram; a length field of nearly 4 GB; a length field of 2 GB", "debug 1", "event ;event 5: cut 15;event 5:;event 5: len 15;event 5: len 0;event 5: len 17;event 5: len 0xfffffffd;event 5: len 0x80000010", " /  / Unknown rtm type 5! /  /  /  /  / "},
    {"two messages, in order", "debug 2", "event 5: 6:", "Unknown rtm type 5!; Unknown rtm type 6!"},
    {"the next message stands at a multiple of 4; padding may be missing at the end; padding may be cut short at the end; 15 bytes behind a message are none; a second that is too long does not undo the first; a second that is too short ends the walk", "debug 1", "event 7: ee | 00 00 00 6:;event 7: ee;event 7: ee | 00 00;event 5: 6: cut 31;event 5: 6: len 17;event 5: 6: len 4 7:", "Unknown rtm type 7!; Unknown rtm type 6! / Unknown rtm type 7! / Unknown rtm type 7! / Unknown rtm type 5! / Unknown rtm type 5! / Unknown rtm type 5!"},
    {"a port that goes takes its bindings along, but static ones", "items 1 0x90;set .52 hw 0x80;debug 2", "event 17: link 1", "Receive RTM_DELLINK message.; Receive RTM_DELLINK message: ifindex 1.; Notify interface state to hwapi: unit 1, verion 1, state 0.; qorIfSetApi 1 306 23; Process user on interface 1, inet type 1, user type = 1, operate 2.; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50; Process user on interface 1, inet type 1, user type = 2, operate 0.; -1 .0 00 80; Delete user in hwapi: port 1 ,vid 20 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.52, checkitem 0x80. | -10.0.0.50 | -if1 | 10.0.0.52 hw=0 | if110 cur=1"},
    {"a VLAN interface those of its VLAN, wherever they are", "", "event 17: link 110", "qorIfSetApi 110 306 23; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.51 | -10.0.0.50 | -10.0.0.51 | -if110 | if1 cur=0 | if8 cur=0"},
    {"one without snooping is nobody's business; a message that ends before its header does, DELLINK; a message that ends before its header does, NEWLINK; a header alone, NEWLINK; no attribute", "debug 2", "event 17: link 2;event 17: 00 00 00 00 =1 zeros 7;event 16: 00 00 00 00 =1 zeros 7;event 16:;event 16: link 1", "Receive RTM_DELLINK message. / Receive RTM_DELLINK message. / Receive RTM_NEWLINK message. / Receive RTM_NEWLINK message. / Receive RTM_NEWLINK message."},
    {"joining an aggregate switches off, and once only", "debug 2", "event 16: link 1 a38 a38", "Receive RTM_NEWLINK message.; Receive IFLA_PHYJOINAGG message: ifindex 1.; Notify interface state to hwapi: unit 1, verion 1, state 0.; qorIfSetApi 1 306 23; Process user on interface 1, inet type 1, user type = 1, operate 2.; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50; Process user on interface 1, inet type 1, user type = 2, operate 0.; Receive IFLA_PHYJOINAGG message: ifindex 1. | -10.0.0.50 | -if1 | if110 cur=1"},
    {"attributes of an interface without snooping are not read; configuration is only reported, others by number; an attribute of 5 bytes takes 8; without padding at the end of the message", "debug 2", "event 16: link 2 a38 a3;event 16: link 1 a49 a3=7;event 16: link 1 %5 %3 09 zeros 3 a49;event 16: link 1 a49 %5 %3 09", "Receive RTM_NEWLINK message. / Receive RTM_NEWLINK message.; Receive IFLA_SYNCCFG message: ifindex 1.; Unknown event 3! / Receive RTM_NEWLINK message.; Unknown event 3!; Receive IFLA_SYNCCFG message: ifindex 1. / Receive RTM_NEWLINK message.; Receive IFLA_SYNCCFG message: ifindex 1.; Unknown event 3!"},
    {"3 bytes are no attribute; an attribute shorter than its header ends the walk; an attribute of length 0 ends the walk; an attribute longer than the message ends the walk; an attribute of 64 KB ends the walk; the next message is no attribute of this one", "debug 2", "event 16: link 1 04 00 26;event 16: link 1 %3 %38 a38;event 16: link 1 a49 %0 %38;event 16: link 1 %5 %38;event 16: link 1 %0xffff %38 zeros 4;event 16: link 1 %8 %38 5:", "Receive RTM_NEWLINK message. / Receive RTM_NEWLINK message. / Receive RTM_NEWLINK message.; Receive IFLA_SYNCCFG message: ifindex 1. / Receive RTM_NEWLINK message. / Receive RTM_NEWLINK message. / Receive RTM_NEWLINK message.; Unknown rtm type 5!"},
    {"nor is anything behind a message that is only a header's; two links, in order: the second is not there any more", "debug 2", "event 16: 00 00 00 00 =1 zeros 8 | =0x100010 %38 zeros 10;event 17: link 1 16: link 1 a49", "Receive RTM_NEWLINK message. / Receive RTM_DELLINK message.; Receive RTM_DELLINK message: ifindex 1.; Notify interface state to hwapi: unit 1, verion 1, state 0.; qorIfSetApi 1 306 23; Process user on interface 1, inet type 1, user type = 1, operate 2.; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50; Process user on interface 1, inet type 1, user type = 2, operate 0.; Receive RTM_NEWLINK message. | -10.0.0.50 | -if1 | if110 cur=1"},
    {"a port joins an aggregate: what is not in hardware is installed for it, and the table goes on describing the aggregate", "items 2 0x80;debug 2", "event 16: link 8 a52=2", "Receive RTM_NEWLINK message.; Receive IFLA_AGGADDPHY message: ifindex 8.; Process user on trunk interface 8, port 2, operate 1.; +2 .51 80 80; Add user in hwapi: port 2 ,vid 10 ,mac 02:c1:00:00:00:02 ,ip 10.0.0.51, checkitem 0x80.; +2 .51 80 00; Add user in hwapi: port 2 ,vid 10 ,mac 02:c1:00:00:00:02 ,ip 10.0.0.51, checkitem 0x0.; qorIfGetApi 8 65536285"},
    {"Kept: what the aggregate has installed is not installed again for a port that joins", "items 2 0x80;set .51 hw 0x80 ipsg 0x40", "event 16: link 8 a52=2", "+2 .51 80 00; qorIfGetApi 8 65536285"},
    {"it is withdrawn for a port that leaves, with the aggregate's items", "items 2 0x80;set .51 hw 0x80 ipsg 0x40;debug 2", "event 16: link 8 a53=2", "Receive RTM_NEWLINK message.; Receive IFLA_AGGREMOVEPHY message: ifindex 8.; Process user on trunk interface 8, port 2, operate 0.; -2 .0 40 80; Delete user in hwapi: port 2 ,vid 10 ,mac 02:c1:00:00:00:02 ,ip 10.0.0.51, checkitem 0x80.; qorIfGetApi 8 65536285"},
    {"members do not follow where the platform counts two", "items 2 0x80;members 0 2", "event 16: link 8 a52=2", "qorIfGetApi 8 65536285"},
    {"nor when one leaves", "set .51 hw 0x80 ipsg 0x40;members 0 2", "event 16: link 8 a53=2", "qorIfGetApi 8 65536285"},
    {"it counts one", "items 2 0x80;members 0 1", "event 16: link 8 a52=2", "+2 .51 80 80; +2 .51 80 00; qorIfGetApi 8 65536285"},
    {"it does not know", "items 2 0x80;members -1 2", "event 16: link 8 a52=2", "+2 .51 80 80; +2 .51 80 00; qorIfGetApi 8 65536285"},
    {"Kept: a port is added by the index alone, though the aggregate went", "items 2 0x80;set .51 type 2", "event 16: link 8 a38 a52=2", "qorIfSetApi 8 306 23; +2 .51 80 80; +2 .51 80 00; qorIfGetApi 8 65536285 | -if8"},
    {"and not removed", "items 2 0x80;set .51 type 2;debug 1", "event 16: link 8 a38 a53=2", "Receive RTM_NEWLINK message.; Receive IFLA_PHYJOINAGG message: ifindex 8.; Notify interface state to hwapi: unit 8, verion 1, state 0.; qorIfSetApi 8 306 23; Process user on interface 8, inet type 1, user type = 1, operate 2.; Process user on interface 8, inet type 1, user type = 2, operate 0.; Receive IFLA_AGGREMOVEPHY message: ifindex 8. | -if8"},
    {"an index of 3 bytes", "items 2 0x80;debug 2", "event 16: link 8 %7 %52 020202", "Receive RTM_NEWLINK message.; Receive IFLA_AGGADDPHY message: ifindex 8."},
    {"none", "set .51 hw 0x80 ipsg 0x40;debug 2", "event 16: link 8 %7 %53 020202", "Receive RTM_NEWLINK message.; Receive IFLA_AGGREMOVEPHY message: ifindex 8."},
};

// The binding .50 under the other kind of enforcement, which is never touched; IP source guard's has this source and these items.
const std::string NONE = "set .50 hw 0x40 daiFrom 2 dai 0x50;", OF_PORT = "set .50 hw 0xc0 daiFrom 2 dai 0x50 ipsgFrom 2 ipsg 0x90;", OF_VLAN = "set .50 hw 0xc0 daiFrom 2 dai 0x50 ipsgFrom 1 ipsg 0x40;";
const std::string UNKNOWN = "set .50 hw 0xc0 daiFrom 2 dai 0x50;", ARP_NONE = "set .50 hw 0x80 ipsgFrom 2 ipsg 0x50;", ARP = "set .50 hw 0xc0 daiFrom 2 dai 0x90;";
const Step CHECKS[] = {
    {"a port's: installed", NONE + "debug 2", "event 198: =1 90", "Interface index is 1, check item is 0x90.; Check all user-bind entries on interface 1.; RTM_IPSG_CHANGEDCHECKITEM p_param->item = 144\\n\\r; +1 .50 90 80; Add user in hwapi: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, checkitem 0x80. | 10.0.0.50 hw#c0 ipsgFrom=2 ipsg#90"},
    {"a port's: the port's is replaced", OF_PORT, "event 198: =1 40", "-1 .50 90 80; +1 .0 40 80 | 10.0.0.50 ipsg#40"},
    {"a port's: even by the same", OF_PORT, "event 198: =1 90", "-1 .50 90 80; +1 .50 90 80"},
    {"a port's: the VLAN's is replaced", OF_VLAN, "event 198: =1 90", "-1 .0 40 80; +1 .50 90 80 | 10.0.0.50 ipsgFrom=2 ipsg#90"},
    {"a port's: without any item the port's is withdrawn", OF_PORT + "debug 1", "event 198: =1 00", "Interface index is 1, check item is 0x0.; Check all user-bind entries on interface 1.; RTM_IPSG_CHANGEDCHECKITEM p_param->item = 0\\n\\r; Delete user-bind entries on hardware.; -1 .50 90 80; Delete user in hwapi: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, checkitem 0x80. | 10.0.0.50 hw#40 ipsgFrom=0 ipsg=0"},
    {"Kept: no item on a port does not withdraw what the VLAN installed", OF_VLAN, "event 198: =1 00", ""},
    {"a port's: without any item nothing is installed", NONE, "event 198: =1 00", ""},
    {"other bits are no items", OF_PORT, "event 198: =1 0f", "-1 .50 90 80 | 10.0.0.50 hw#40 ipsgFrom=0 ipsg=0"},
    {"one item is enough", NONE, "event 198: =1 1f", "+1 .0 10 80 | 10.0.0.50 hw#c0 ipsgFrom=2 ipsg#1f"},
    {"a VLAN's: installed, on the bindings' ports", NONE + "debug 2", "event 198: =110 90", "Interface index is 110, check item is 0x90.; Check all user-bind entries on vlan 10.; RTM_IPSG_CHANGEDCHECKITEM p_param->item = 144\\n\\r; +1 .50 90 80; Add user in hwapi: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, checkitem 0x80.; +8 .51 90 80; Add user in hwapi: port 8 ,vid 10 ,mac 02:c1:00:00:00:02 ,ip 10.0.0.51, checkitem 0x80. | 10.0.0.50 hw#c0 ipsgFrom=1 ipsg#90 | 10.0.0.51 hw#80 ipsgFrom=1 ipsg#90"},
    {"a VLAN's: the VLAN's is replaced", OF_VLAN + "set .51 vid 11", "event 198: =110 20", "-1 .0 40 80; +1 .0 20 80 | 10.0.0.50 ipsg#20"},
    {"a VLAN's: the port's stays", OF_PORT + "set .51 vid 11", "event 198: =110 90", ""},
    {"a VLAN's: without any item the VLAN's is withdrawn", OF_VLAN, "event 198: =110 00", "-1 .0 40 80 | 10.0.0.50 hw#40 ipsgFrom=0 ipsg=0"},
    {"a VLAN's: without any item the port's stays", OF_PORT, "event 198: =110 00", ""},
    {"installed by nobody known: a port's change leaves it", UNKNOWN, "event 198: =1 90", ""},
    {"and a VLAN's", UNKNOWN + "set .51 vid 11", "event 198: =110 90", ""},
    {"a source without an installation keeps one away", NONE + "set .50 ipsgFrom 1", "event 198: =1 90", ""},
    {"a refused withdrawal leaves what was", OF_PORT + "refuse -1 hw delete", "event 198: =1 40", "-1 .50 90 80"},
    {"a refused installation leaves nothing", OF_PORT + "refuse -1 hw add", "event 198: =1 40", "-1 .50 90 80; +1 .0 40 80 | 10.0.0.50 hw#40 ipsgFrom=0 ipsg=0"},
    {"static bindings are not meant", NONE + "set .50 type 2", "event 198: =1 90", ""},
    {"nor those of IP source guard", NONE + "set .50 type 4", "event 198: =1 90", ""},
    {"nor those not bound yet, to install", NONE + "set .50 state 4", "event 198: =1 90", ""},
    {"or to withdraw", OF_PORT + "set .50 state 4", "event 198: =1 00", ""},
    {"a port's: in whatever VLAN", NONE + "set .50 vid 20", "event 198: =1 90", "+1 .50 90 80 | 10.0.0.50 hw#c0 ipsgFrom=2 ipsg#90"},
    {"an interface that the switch does not know is a port", NONE + "set .50 if 77", "event 198: =77 90", "+77 .50 90 80 | 10.0.0.50 hw#c0 ipsgFrom=2 ipsg#90"},
    {"ARP inspection's, not running", ARP_NONE + "debug 2", "event 199: =1 90", "Receive RTM_ANTIARP_DAICHANGEDCHECKITEM message.; Interface index is 1, check item is 0x90.; Check all user-bind entries on interface 1.; RTM_ANTIARP_DAICHANGEDCHECKITEM p_param->item = 144\\n\\r; +1 .50 90 00; Add user in hwapi: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, checkitem 0x0. | 10.0.0.50 hw#c0 daiFrom=2 dai#90"},
    {"running", ARP_NONE + "event 123: =77 00", "event 199: =1 90", "+1 .50 90 40 | 10.0.0.50 hw#c0 daiFrom=2 dai#90"},
    {"withdrawn", ARP + "event 123: =77 00;debug 2", "event 199: =1 00", "Receive RTM_ANTIARP_DAICHANGEDCHECKITEM message.; Interface index is 1, check item is 0x0.; Check all user-bind entries on interface 1.; RTM_ANTIARP_DAICHANGEDCHECKITEM p_param->item = 0\\n\\r; Delete user-bind entries on hardware.; -1 .50 90 40; Delete user in hwapi: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, checkitem 0x40. | 10.0.0.50 hw#80 daiFrom=0 dai=0"},
    {"a standby unit marks what it does not program", "role 2;set .52 type 4", "event 198: =1 90 | zeros 3 123: =1 40", " | 10.0.0.50 hw#c0 ipsgFrom=2 daiFrom=2 ipsg#90 dai#40 | global dai=1"},
    {"and takes the marks back", "role 2;set .52 type 4;event 198: =1 90 | zeros 3 123: =1 40", "event 198: =1 00 | zeros 3 124:", " | 10.0.0.50 hw=0 ipsgFrom=0 daiFrom=0 ipsg=0 dai=0 | global dai=0"},
    // What is missing stands behind the message.
    {"cut short, IP source guard; cut short, ARP inspection; cut short, its start", "debug 1", "event 198: =1 | =0x11111111;event 199: =1 | =0x11111111;event 123: =1 | =0x11111111", " / Receive RTM_ANTIARP_DAICHANGEDCHECKITEM message. / Receive RTM_SYSTEM_DAISTART message."},
    {"cut short, users", "debug 1;set .50 gw 1", "event 190: 0a 00 00 | 00 11 11 11 11", ""},
    // ARP inspection starts and stops.
    {"start: a dynamic binding with the event's items, a static one with its own", ARP_NONE + "set .52 dai 0x60", "event 123: =1 90", "+1 .50 90 40; +1 .0 60 40 | 10.0.0.50 hw#c0 daiFrom=2 dai#90 | 10.0.0.52 hw#40 | global dai=1"},
    {"before a server acknowledged it, too; left-over items are replaced", ARP_NONE + "set .50 state 4 daiFrom 1 dai 0x40;set .52 type 4", "event 123: =1 90", "+1 .50 90 40 | 10.0.0.50 hw#c0 daiFrom=2 dai#90 | global dai=1"},
    {"what is installed is left", ARP + "set .52 hw 0x40 dai 0x60", "event 123: =1 80", " | global dai=1"},
    {"a refusal leaves it as it was", ARP_NONE + "set .50 daiFrom 1 dai 0x40;set .52 dai 0x60;refuse -1 hw add", "event 123: =1 90", "+1 .50 90 40; +1 .0 60 40 | global dai=1"},
    {"it is by port: a VLAN interface's index means nobody, though it starts", "debug 1", "event 123: =110 90", "Receive RTM_SYSTEM_DAISTART message. | global dai=1"},
    {"stop: what is installed is withdrawn, and what was refused stays", "event 123: =77 00;" + OF_PORT + "set .51 hw 0x40 dai 0x40;set .52 dai 0x20;once 5 hw delete 8", "event 124:", "-1 .0 50 40; -8 .0 40 40 | 10.0.0.50 hw#80 daiFrom=0 dai=0 | global dai=0"},
    {"the next one tries again, with the rule of an inspection that does not run", "event 123: =77 00;set .51 hw 0x40 dai 0x40;once 5 hw delete;event 124:;debug 2", "event 124:", "Receive RTM_SYSTEM_DAISTOP message.; -8 .0 40 00; Delete user in hwapi: port 8 ,vid 10 ,mac 02:c1:00:00:00:02 ,ip 10.0.0.51, checkitem 0x0. | 10.0.0.51 hw=0 dai=0"},
    // Users are announced again.
    {"dynamic bindings with a gateway, bound or not", "set .50 gw 1;set .51 gw 1 state 4", "event 190: =10", "qorNetlinkSend 16 0 72 type 188; qorNetlinkSend 16 0 72 type 188"},
    {"not without a gateway, not static", "set .52 gw 1;debug 1", "event 190: =20", "Receive RTM_DHCPSNOOP_UPDATEDHCPSNOOPUSER message. Vlan is 20."},
    {"not of a VLAN that only ends alike", "set .50 gw 1", "event 190: =0x1000a", ""},
    {"not IPv6", "role 2;peer 01 01 %56 key 2001:db8::9 carried;set 2001:db8::9 gw 1", "event 190: =10", ""},
};

// A message of card 3 whose first words, read as numbers of 32 bits, are system 16 and slot 0x1000 times its type and more.
std::string card(int type) { return world_format("event =16 %%%d %%%d =3 =0x55", type, type); }

// Static bindings in hardware for IP source guard, and dynamic ones, on a port there, of another card, slot, system, and one unknown.
std::string places(int type)
{
    const int slot = type << 16 | type;
    std::string steps = world_format("self 16;place 1 16 %d 3;place 2 16 %d 4;place 3 16 %d 3;place 4 17 %d 3;", slot, slot, slot + 1, slot);
    for (const int port : {1, 2, 3, 4, 99})
        steps += world_format("items %d 0x80;bind .%d %d 10;set .%d type 2 hw 0x80;bind .%d %d 10;", port, 100 + port, port, 100 + port, 150 + port, port);
    return steps + "set .52 hw 0x80 type 4;";
}

const Step CARDS[] = {
    {"a card of another kind gets everything", places(87) + "answer 49152042 -1", card(87), "peer 0xb812bb01 12 in 720 bytes; qorHwCardGet 16.5701719.3.85 49152043; qorHwCardGet 16.5701719.3.85 49152042 null"},
    {"a card of ours its static bindings", places(87), card(87), "+1 .101 80 00; qorHwCardGet 16.5701719.3.85 49152043; qorHwCardGet 16.5701719.3.85 49152042 null | 10.0.0.101 hw#c0 daiFrom=2 dai#80"},
    {"an unknown card nothing", places(87) + "answer 49152043 1;answer 49152042 1", card(87), "qorHwCardGet 16.5701719.3.85 49152043"},
    {"a card of ours gone", places(88), card(88), "7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.151; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50; qorHwCardGet 16.5767256.3.85 49152043; qorHwCardGet 16.5767256.3.85 49152042 null | -10.0.0.151 | -10.0.0.50 | if1 cur=1 | if110 cur=10"},
    {"another card gone", places(88) + "answer 49152042 1", card(88), "qorHwCardGet 16.5767256.3.85 49152043; qorHwCardGet 16.5767256.3.85 49152042 null"},
    {"an unknown card gone", places(88) + "answer 49152043 1", card(88), "qorHwCardGet 16.5767256.3.85 49152043"},
    {"Kept: for slots the second answer reads the other way round: a slot of another kind", places(90), card(90), "peer 0xd012d001 12 in 720 bytes; qorHwSlotGet 16.5898330.3.85 32768049; qorHwSlotGet 16.5898330.3.85 32768042 null"},
    {"a slot of ours", places(90) + "answer 32768042 1", card(90), "+1 .101 80 00; +2 .102 80 00; qorHwSlotGet 16.5898330.3.85 32768049; qorHwSlotGet 16.5898330.3.85 32768042 null | 10.0.0.101 hw#c0 daiFrom=2 dai#80 | 10.0.0.102 hw#c0 daiFrom=2 dai#80"},
    {"an unknown slot", places(90) + "answer 32768049 1", card(90), "qorHwSlotGet 16.5898330.3.85 32768049"},
    {"a slot of ours gone", places(91) + "answer 32768042 -1", card(91), "7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.151; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.152; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50; qorHwSlotGet 16.5963867.3.85 32768049; qorHwSlotGet 16.5963867.3.85 32768042 null | -10.0.0.151 | -10.0.0.152 | -10.0.0.50 | if1 cur=1 | if110 cur=9"},
    {"another slot gone", places(91), card(91), "qorHwSlotGet 16.5963867.3.85 32768049; qorHwSlotGet 16.5963867.3.85 32768042 null"},
    {"an unknown slot gone", places(91) + "answer 32768049 1;answer 32768042 1", card(91), "qorHwSlotGet 16.5963867.3.85 32768049"},
    {"a standby unit of a stack marks what it does not program", places(87) + "role 2;scalar 45 1", card(87), "qorHwCardGet 16.5701719.3.85 49152043; qorHwCardGet 16.5701719.3.85 49152042 null | 10.0.0.101 hw#c0 daiFrom=2 dai#80"},
    {"and deletes", places(88) + "role 2;scalar 45 1", card(88), "7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.151; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50; qorHwCardGet 16.5767256.3.85 49152043; qorHwCardGet 16.5767256.3.85 49152042 null | -10.0.0.151 | -10.0.0.50 | if1 cur=1 | if110 cur=10"},
    {"one without hardware does nothing", places(87) + "scalar 54 0;scalar 45 0", card(87), "qorHwCardGet 16.5701719.3.85 49152043; qorHwCardGet 16.5701719.3.85 49152042 null"},
    {"nor delete", places(91) + "scalar 54 0;scalar 45 0;answer 32768042 1", card(91), "qorHwSlotGet 16.5963867.3.85 32768049; qorHwSlotGet 16.5963867.3.85 32768042 null"},
    {"a full copy asks nobody's role", places(87) + "scalar 54 0;scalar 45 0;answer 49152042 1", card(87), "peer 0xb812bb01 12 in 720 bytes; qorHwCardGet 16.5701719.3.85 49152043; qorHwCardGet 16.5701719.3.85 49152042 null"},
    {"of another system nobody is asked", places(87) + "self 17", card(87), ""},
    {"a card", places(88) + "self 17", card(88), ""},
    {"a slot", places(90) + "self 17", card(90), ""},
    {"a slot", places(91) + "self 17", card(91), ""},
    {"a card that goes takes no binding of IP source guard along", places(88) + "set .151 type 4", card(88), "7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50; qorHwCardGet 16.5767256.3.85 49152043; qorHwCardGet 16.5767256.3.85 49152042 null | -10.0.0.50 | if1 cur=2 | if110 cur=11"},
    {"installed for ARP inspection", places(87) + "set .101 hw 0x40", card(87), "+1 .101 80 80; qorHwCardGet 16.5701719.3.85 49152043; qorHwCardGet 16.5701719.3.85 49152042 null | 10.0.0.101 hw#c0 ipsgFrom=2 ipsg#80"},
    {"installed for both: nothing is left to do", places(87) + "set .101 hw 0xc0", card(87), "qorHwCardGet 16.5701719.3.85 49152043; qorHwCardGet 16.5701719.3.85 49152042 null"},
    {"installed for none: was not enforced before", places(87) + "set .101 hw 0", card(87), "qorHwCardGet 16.5701719.3.85 49152043; qorHwCardGet 16.5701719.3.85 49152042 null"},
    {"of another type", places(87) + "set .101 type 1", card(87), "qorHwCardGet 16.5701719.3.85 49152043; qorHwCardGet 16.5701719.3.85 49152042 null"},
    {"where the port is cannot be said", places(87) + "refuse -1 qorIndexTrans 1 6", card(87), "qorHwCardGet 16.5701719.3.85 49152043; qorHwCardGet 16.5701719.3.85 49152042 null"},
    {"Kept: the words are the datagram's first, also for the messages behind the first", places(9) + "self 20;answer 49152042 1", "event =20 %9 %9 =3 =0x55 =0 87: =1 =2 =3 =4", "peer 0xc8144b01 12 in 720 bytes; qorHwCardGet 20.589833.3.85 49152043; qorHwCardGet 20.589833.3.85 49152042 null"},
    {"a master gives a subsystem everything", places(93) + "self 17;scalar 53 0;debug 1", card(93), "Receive subsystem:16 RTM_SUBSYSTEM_UP!; Send dhcpsnoop sync packet: len 720.; peer 0x80100002 12 in 720 bytes"},
    {"nobody else does", places(93) + "self 17;debug 2", card(93), "Receive subsystem:16 RTM_SUBSYSTEM_UP!"},
    {"not its own", places(93) + "scalar 53 0", card(93), ""},
};
// clang-format on

class Events : public Daemon
{
};

TEST_F(Events, Links) { check_steps(LINKS, start); }
TEST_F(Events, CheckItems) { check_steps(CHECKS, start); }
TEST_F(Events, Cards) { check_steps(CARDS, start); }

// Called with another length than the message's own, each handler keeps to the shorter of the two.
TEST_F(Events, HandlersAreBoundTwice)
{
    const std::tuple<void (*)(uint8_t * message, int32_t length), const char *, int32_t> handlers[] = {
        {dhcpsnoop_newlink_process, "16: link 1 a38", 20}, {dhcpsnoop_dellink_process, "17: link 1", 16}, {dhcpsnoop_ipsgchangeitem_process, "198: =1 90", 5}, {dhcpsnoop_daichangeitem_process, "199: =1 90", 5}};
    for (const auto &[handle, words, payload] : handlers) {
        const std::tuple<uint32_t, int32_t, bool> lengths[] = {{payload + 16, payload, true}, {payload + 16, 4000, true}, {payload + 16, payload - 1, false}, {payload + 16, 0, false}, {payload + 16, -1, false}, {payload + 15, payload, false}, {3, payload, false}, {0xFFFFFFFF, payload, true}};
        for (const auto &[length, argument, acts] : lengths) {
            start();
            Bytes message = packed(words + world_format(" len %u", length));
            EXPECT_EQ(play([&, &handle = handle, &argument = argument] { return handle(message.data(), argument), ""; }) != "", acts) << words << ", " << length << ", " << argument;
        }
    }
}

TEST_F(Events, DatagramsAndNotes)
{
    start();
    debug(1);
    Bytes two = packed("5: 6:"), body(48, 0xB0);
    EXPECT_EQ(play([&] { return dhcpsnoop_notify_recv(two.data(), -1), dhcpsnoop_notify_recv(two.data(), 16), ""; }), "Unknown rtm type 5!") << "what was received, not the buffer";
    world.refuse("qorNetlinkSend 16 0 72", 17, 1);
    EXPECT_EQ(play([&] { return std::to_string(dhcpsnoop_notify_send(body.data(), 0x12345)); }), "17;  Send notify: event 74565; qorNetlinkSend 16 0 72 type 9029");
    EXPECT_EQ(hex(world.all(Did::Call)[0]->data), hex(packed("=0 =51 =72 %0x2345 zeros 10") + body));
    EXPECT_EQ(dhcpsnoop_notify_send(body.data(), 188), 0);
}

} // namespace
