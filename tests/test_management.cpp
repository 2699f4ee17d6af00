// Management: requests decoded, executed and answered, and the entry points that a platform library calls.
#include "steps.h"

#include "dhcpsnoop_nm.h"

namespace
{

// Port 5 and the VLAN interface 100 of VLAN 10 snoop, port 6 does not. One interface more can, and there is room for six bindings.
void start()
{
    world.reset(3, 6);
    world.access(5, 10);
    world.access(6, 10);
    world.vlan_interface(100, 10);
    snoop(5);
    snoop(100);
    apply("hooks");
}

std::string times(const std::string &hex, int count) // "78 78"
{
    std::string text;
    for (int i = 0; i < count; i++)
        text += (i == 0 ? "" : " ") + hex;
    return text;
}

// Every option on, and a text of each: "c", "r", "s", "i" and "R", typed with type 9.
const std::string OPTIONS = "if.set 4 5 = 1;if.set 9 5 = 1;if.set 11 5 = 1;if.set 13 5 = 1;";
const std::string TEXTS = OPTIONS + "if.set 5 5 : 090163;if.set 6 5 : 090172;if.set 7 5 's;if.set 12 5 : 090169;if.set 14 5 : 090152;";
const std::string PLAIN = OPTIONS + "if.set 30 5 = 5;if.set 31 5 = 2;if.set 32 5 = 6;if.set 33 5 = 0;";
const std::string LONG(200, 'y'), FULL = OPTIONS + "if.set 5 5 : 0980" + times("78", 128);
const std::string ARP = "event 123: =6 00;"; // ARP inspection runs; nothing is on port 6
const std::string POPULATED = "bind .1 5 10;bind .2 5 10;bind .4 5 10;set .2 type 2;set .4 type 4;set .1 hw 0x80 ipsg 0xf0;set .2 hw 0x80 ipsg 0xf0;set .4 hw 0x80 ipsg 0xf0;set 5 cur 1;global.set 1 = 1;";

// clang-format off
const Step INTERFACE[] = {
    {"the same version is not set, so the trust stays; trust that is there; of a flag's value the lowest bit is stored; a value is compared whole, its low bits stored; another version takes the trust away", "if.set 3 5 = 1", "if.set 2 5 = 1;if.set 3 5 = 1;if.set 3 5 = 2;if.set 2 5 = 5;if.set 3 5 = 1;if.set 2 5 = 2", "ok / ok / ok; offer 5/03 2 | if5 flags#80c00000 / ok; offer 5/02 5 / ok; offer 5/03 1 | if5 flags#a0c00000 / ok; offer 5/02 2; qorIfSetApi 5 306 23; qorIfSetApi 5 305 24; prints Interface trust state is changed!/ | if5 flags#81400000"},
    {"option 82 off takes its formats, its texts and sub-option 9, and restores the policy; option 82 on restores the policy; the same policy is offered again; another policy", TEXTS + "if.set 8 5 = 1", "if.set 4 5 = 0;set 5 flags 0x80a00000;if.set 4 5 = 1;if.set 8 5 = 6;if.set 8 5 = 3", "ok; offer 5/04 0 | if5 flags#86c00000 circuitFmt=0 circuitLen=0 circuit=0 remoteFmt=0 remoteLen=0 remote=0 sub9Len=0 sub9=0 / ok; offer 5/04 1 | if5 flags#90c00000 circuitFmt=3 remoteFmt=3 / ok; offer 5/08 6 / ok; offer 5/08 3 | if5 flags#90e00000"},
    {"sub-option 9 off takes its text; option 18 off; option 37 off", TEXTS, "if.set 9 5 = 0;if.set 11 5 = 0;if.set 13 5 = 0", "ok; offer 5/09 0 | if5 flags#96c00000 sub9Len=0 sub9=0 / ok; offer 5/0b 0 | if5 flags#92c00000 id18Fmt=0 id18Type=0 id18Len=0 id18=0 / ok; offer 5/0d 0 | if5 flags#90c00000 id37Fmt=0 id37Type=0 id37Len=0 id37=0"},
    {"the same mode is offered again; no sub-option 9, which is so already, needs no option 82; a mode of four bits; option 18 on; option 37 on; forged hardware addresses; bindings checked; bit 14 off", "", "if.set 10 5 = 0;if.set 9 5 = 0;if.set 10 5 = 0x1d;if.set 11 5 = 1;if.set 13 5 = 3;if.set 16 5 = 1;if.set 17 5 = 3;if.set 20 5 = 1;if.set 20 5 = 0", "ok; offer 5/0a 0 / ok / ok; offer 5/0a 29 | if5 flags#80da0000 / ok; offer 5/0b 1 | if5 flags#84da0000 id18Fmt=3 / ok; offer 5/0d 3 | if5 flags#86da0000 id37Fmt=3 / ok; offer 5/10 1 | if5 flags#86db0000 / ok; offer 5/11 3 | if5 flags#86db8000 / ok; offer 5/14 1 | if5 flags#86dbc000 / ok; offer 5/14 0 | if5 flags#86db8000"},
    {"the same format; the highest format; a format takes its text; a format there is not: refused when the hardware has been told; a format is compared whole; option 18's format; option 37's format", TEXTS, "if.set 30 5 = 3;if.set 31 5 = 6;if.set 30 5 = 5;if.set 31 5 = 7;if.set 31 5 = 259;if.set 32 5 = 0;if.set 33 5 = 4", "ok / ok; offer 5/1f 6 | if5 remoteFmt=6 remoteLen=0 remote=0 / ok; offer 5/1e 5 | if5 circuitFmt=5 circuitLen=0 circuit=0 / 16; offer 5/1f 7 / 16; offer 5/1f 259 / ok; offer 5/20 0 | if5 id18Fmt=0 id18Len=0 id18=0 / ok; offer 5/21 4 | if5 id37Fmt=4 id37Len=0 id37=0"},
    {"16 bits of the most users; 16 bits of the setting that nobody reads; the relay address is not the hardware's business; nor are the counters", "", "if.set 18 5 = 0x10007;if.set 21 5 = 0x20009;if.set 34 5 = .1;set 5 cur 4 untrusted 100 forged 101 unbound 102;if.set 28 5 form 9 0", "ok; offer 5/12 65543 | if5 max=7 / ok; offer 5/15 131081 | if5 s21=9 / ok | if5 relay#a000001 / ok | if5 untrusted=0 forged=0 unbound=0"},
    {"a flag; a format; snooping is read; the version; the policy; the mode; the most users; the users; the setting that nobody reads", OPTIONS, "if.get 4 5 = 0;if.get 33 5 = 0;if.get 1 5 = 0;if.get 2 5 = 0;if.get 8 5 = 0;if.set 10 5 = 13;if.get 10 5 = 0;set 5 max 7;if.get 18 5 = 0;set 5 cur 4;if.get 19 5 = 0;if.set 21 5 = 9;if.get 21 5 = 0", "ok =1 / ok =3 / ok =1 / ok =1 / ok =2 / ok; offer 5/0a 13 | if5 flags#9eda0000 / ok =13 / ok =7 / ok =4 / ok; offer 5/15 9 | if5 s21=9 / ok =9"},
    {"the forged; the unbound; the untrusted; read as nothing; read as nothing; read as nothing; the relay address; of an interface not in use nothing is read; but set", "set 5 untrusted 100 forged 101 unbound 102", "if.get 22 5 = 0;if.get 23 5 = 0;if.get 24 5 = 0;if.get 25 5 = 77;if.get 26 5 = 77;if.get 27 5 = 77;set 5 relay 9;if.get 34 5 = 0;set 5 flags 0;if.get 1 5 = 0;if.set 34 5 = 7", "ok =101 / ok =102 / ok =100 / ok / ok / ok / ok =9 / 3e80002 / ok | if5 relay#7"},
    // What an attribute needs, and what is said when it is not there.
    {"circuit-id; sub-option 9's text misses option 82 first; the policy; sub-option 9; a format, although it is the one stored; remote-id's; with either bit; not without", "debug 2", "if.set 5 5 'abcd;if.set 7 5 'abcd;if.set 8 5 = 1;if.set 9 5 = 1;if.set 30 5 = 0;if.set 31 5 = 0;debug 1;if.set 6 5 'abcd;debug 0;if.set 6 5 'abcd", "3e80010; dhcpsnoop if setapi: interface swp5, cmd 5.; dhcpsnoop if setapi: the option82 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / 3e80010; dhcpsnoop if setapi: interface swp5, cmd 7.; dhcpsnoop if setapi: the option82 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / 3e80010; dhcpsnoop if setapi: interface swp5, cmd 8.; dhcpsnoop if setapi: the option82 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / 3e80010; dhcpsnoop if setapi: interface swp5, cmd 9.; dhcpsnoop if setapi: the option82 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / 3e80010; dhcpsnoop if setapi: interface swp5, cmd 30.; dhcpsnoop if setapi: the option82 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / 3e80010; dhcpsnoop if setapi: interface swp5, cmd 31.; dhcpsnoop if setapi: the option82 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / 3e80010; dhcpsnoop if setapi: interface swp5, cmd 6.; dhcpsnoop if setapi: the option82 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / 3e80010"},
    {"then itself; Kept: the text misses option 18 under option 82's name; option 18's", "if.set 4 5 = 1;debug 2", "if.set 7 5 'abcd;debug 0;if.set 13 5 = 1;debug 2;if.set 12 5 'abcd;if.set 32 5 = 0", "3e80010; dhcpsnoop if setapi: interface swp5, cmd 7.; dhcpsnoop if setapi: the option82 sub-option9 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / ok; offer 5/0d 1 | if5 flags#92c00000 id37Fmt=3 / 3e80010; dhcpsnoop if setapi: interface swp5, cmd 12.; dhcpsnoop if setapi: the option82 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / 3e80010; dhcpsnoop if setapi: interface swp5, cmd 32.; dhcpsnoop if setapi: the option18 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016."},
    {"option 37's text; option 37's; a read is said", "if.set 11 5 = 1;debug 2", "if.set 14 5 'abcd;if.set 33 5 = 0;if.get 99 6 = 0", "3e80010; dhcpsnoop if setapi: interface swp5, cmd 14.; dhcpsnoop if setapi: the option37 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / 3e80010; dhcpsnoop if setapi: interface swp5, cmd 33.; dhcpsnoop if setapi: the option37 is disabled!\\n\\r; dhcpsnoop if setapi: end, rc = 65536016. / 3e80002; dhcpsnoop if getapi: interface swp6, cmd = 99.; dhcpsnoop if getapi: end, rc 65536002."},
    // Texts are offered before they are looked at, marked as bytes.
    {"plain; plain, option 37; a template is not looked at; of no bytes clears", PLAIN, "if.set 5 5 'abc;if.set 14 5 '\t;if.set 5 5 '%%%d:%;if.set 6 5 'abc;if.set 6 5 '", "ok; offer 5/05 {61 62 63} | if5 circuitLen=3 circuit:616263 / ok; offer 5/0e {09} | if5 id37Len=1 id37:09 / ok; offer 5/05 {25 25 25 64 3a 25} | if5 circuitLen=6 circuit:252525643a25 / ok; offer 5/06 {61 62 63} | if5 remoteLen=3 remote:616263 / ok; offer 5/06 {} | if5 remoteLen=0 remote=0"},
    {"plain of 200 is cut", PLAIN, "if.set 12 5 '" + LONG, "ok; offer 5/0c {" + times("79", 200) + "} | if5 id18Len=128 id18:79*128"},
    {"typed, more than it says; typed of no bytes; raw travels typed; sub-option 9 is never typed", OPTIONS, "if.set 5 5 : 0902616263;if.set 5 5 : 0900;if.set 31 5 = 4;if.set 6 5 : 0902616263;if.set 7 5 '\t", "ok; offer 5/05 {09 02 61 62 63} | if5 circuitType=9 circuitLen=2 circuit:6162 / ok; offer 5/05 {09 00} | if5 circuitLen=0 circuit=0 / ok; offer 5/1f 4 | if5 remoteFmt=4 / ok; offer 5/06 {09 02 61 62 63} | if5 remoteType=9 remoteLen=2 remote:6162 / ok; offer 5/07 {09} | if5 sub9Len=1 sub9:09"},
    {"typed of 128", OPTIONS, "if.set 5 5 : 0980" + times("78", 128), "ok; offer 5/05 {09 80 " + times("78", 128) + "} | if5 circuitType=9 circuitLen=128 circuit:78*128"},
    {"typed of 200 is cut", OPTIONS, "if.set 14 5 '\t\xC8" + LONG, "ok; offer 5/0e {09 c8 " + times("79", 200) + "} | if5 id37Type=9 id37Len=128 id37:79*128"},
    {"typed, less than it says; typed without a length; typed without anything; option 18 without a length; option 37 without a length", TEXTS + "debug 2", "if.set 5 5 : 0904616263;if.set 5 5 : 09;if.set 6 5 ';if.set 12 5 : 09;if.set 14 5 : 09", "3e8000d; dhcpsnoop if setapi: interface swp5, cmd 5.; offer 5/05 {09 04 61 62 63}; dhcpsnoop if setapi: length is invalid, option len 4, total len 5!; dhcpsnoop if setapi: end, rc = 65536013. / 3e8000d; dhcpsnoop if setapi: interface swp5, cmd 5.; offer 5/05 {09}; dhcpsnoop if setapi: wrong length for circuit-id!; dhcpsnoop if setapi: end, rc = 65536013. / 3e8000d; dhcpsnoop if setapi: interface swp5, cmd 6.; offer 5/06 {}; dhcpsnoop if setapi: wrong length for remote-id!; dhcpsnoop if setapi: end, rc = 65536013. / 3e8000d; dhcpsnoop if setapi: interface swp5, cmd 12.; offer 5/0c {09}; dhcpsnoop if setapi: wrong length for option18!; dhcpsnoop if setapi: end, rc = 65536013. / 3e8000d; dhcpsnoop if setapi: interface swp5, cmd 14.; offer 5/0e {09}; dhcpsnoop if setapi: wrong length for option37!; dhcpsnoop if setapi: end, rc = 65536013."},
    {"no text in no room; read, plain, just room; no room; a plain remote-id has nothing to do with the circuit-id", PLAIN, "if.get 5 5 room 0;if.set 5 5 'xx;if.get 5 5 room 2;if.get 5 5 room 1;if.set 5 5 'circuit;if.set 6 5 'xx;if.get 6 5 room 2", "ok / ok; offer 5/05 {78 78} | if5 circuitLen=2 circuit:7878 / ok 03 00 00 02 78 78 / 3e8000d / ok; offer 5/05 {63 69 72 63 75 69 74} | if5 circuitLen=7 circuit:63697263756974 / ok; offer 5/06 {78 78} | if5 remoteLen=2 remote:7878 / ok 03 00 00 02 78 78"},
    {"typed, just room; typed, no room; sub-option 9 is read plain; raw is read typed; Kept: a typed remote-id must also find the room that the circuit-id would need; with that; room for the circuit-id alone", TEXTS, "if.get 12 5 room 3;if.get 5 5 room 2;if.get 7 5 room 2;if.set 33 5 = 4;if.set 14 5 : 090178;if.get 14 5 room 3;if.set 5 5 : 09026364;if.get 6 5 room 3;if.get 6 5 room 4;if.set 5 5 : 090163;if.set 6 5 : 09026364;if.get 6 5 room 3", "ok 03 00 00 03 09 01 69 / 3e8000d / ok 03 00 00 01 73 ee / ok; offer 5/21 4 | if5 id37Fmt=4 id37Len=0 id37=0 / ok; offer 5/0e {09 01 78} | if5 id37Len=1 id37:78 / ok 03 00 00 03 09 01 78 / ok; offer 5/05 {09 02 63 64} | if5 circuitLen=2 circuit:6364 / 3e8000d / ok 03 00 00 03 09 01 72 ee / ok; offer 5/05 {09 01 63} | if5 circuitLen=1 circuit:63 / ok; offer 5/06 {09 02 63 64} | if5 remoteLen=2 remote:6364 / 3e8000d"},
    {"the longest, typed", FULL, "if.get 5 5 room 130", "ok 03 00 00 82 09 80 " + times("78", 128)},
    // On and off.
    {"off where it is off is offered all the same; on; on where it is on; one too many; any value but 1 is off; a trap that the hardware refuses", "", "if.set 1 6 = 0;if.set 1 6 = 1;if.set 1 6 = 1;access 7 10;if.set 1 7 = 1;if.set 1 6 = 2;refuse 9 qorIfSetApi 6 305;if.set 1 6 = 1", "ok; offer 6/01 0 / ok; offer 6/01 1; qorIfSetApi 6 305 23 | +if6 mac:020000000106 max=32768 s21=100 flags#80c00000 / ok; offer 6/01 1 / c; offer 7/01 1 / ok; offer 6/01 2; qorIfSetApi 6 306 23 | -if6 / 9; offer 6/01 1; qorIfSetApi 6 305 23"},
    // A VLAN's settings are those of its VLAN interface.
    {"a VLAN that is not snooped; 3 is the interface's command 1; no VLAN, set; one too high, read: said without the usual beginning; without VLAN interface, set; without VLAN interface, read", "vlanif 200 20;debug 2", "vlan.get 3 20 = 7;vlan.set 3 20 = 1;vlan.set 1 0 = 9;vlan.get 99 4095 = 9;vlan.set 1 11 = 9;vlan.get 99 11 = 9", "3e80002; dhcpsnoop vlan getapi: vid = 20, cmd = 3.; dhcpsnoop if getapi: interface vlan20, cmd = 1.; dhcpsnoop if getapi: end, rc 65536002. / ok; dhcpsnoop vlan setapi: vid 20, cmd 3.; dhcpsnoop if setapi: interface vlan20, cmd 1.; offer 200/01 1; Notify interface state to hwapi: unit 200, verion 1, state 1.; qorIfSetApi 200 305 23; Process user on interface 200, inet type 1, user type = 2, operate 1.; dhcpsnoop if setapi: end, rc = 0. | +if200 mac:0200000001c8 max=32768 s21=100 vlanIf=1 flags#80c00050 / 16; dhcpsnoop vlan setapi: vid 0, cmd 1.; dhcpsnoop vlan setapi: vid is invalid! / 16; dhcpsnoop vlan getapi: vid = 4095, cmd = 99.; dhcpsnoop vlan getapi: vid is invalid! / ffffffff; dhcpsnoop vlan setapi: vid 11, cmd 1.; dhcpsnoop vlan setapi: get unit of the vlan failed! / ffffffff; dhcpsnoop vlan getapi: vid = 11, cmd = 99.; dhcpsnoop vlan getapi: get unit of the vlan failed!"},
    {"1 is its command 18; read; one too high, set; no VLAN, read; a command there is not, set; a command there is not, read; the lowest; the highest", "", "vlan.set 1 10 = 9;vlan.get 1 10 = 0;vlan.set 1 4095 = 9;vlan.get 1 0 = 9;vlan.set 2 10 = 9;vlan.get 18 10 = 9;vlanif 200 1;vlan.get 3 1 = 7;vlanif 200 4094;vlan.set 3 4094 = 1", "ok; offer 100/12 9 | if100 max=9 / ok =9 / 16 / 16 / 3e80010 / 3e80010 / 3e80002 / ok; offer 200/01 1; qorIfSetApi 200 305 23 | +if200 mac:0200000001c8 max=32768 s21=100 vlanIf=1 flags#80c03ff8"},
    // Listed.
    {"the first interface in use; the next; after the last; after the highest number; bytes for a number: the result only", "access 3 10;if.set 1 3 = 1;set 3 flags 0", "if.first 0 0 = 0;if.next 0 5 = 0;if.next 0 100 = 3;if.next 0 0xffffffff = 3;if.first 0 0 : 0101", "ok =5 / ok =100 / ffffffff / ffffffff / ok"},
    {"the first VLAN; Kept: VLANs come in the order of their interfaces, so VLAN 5 behind 10 is not found after it; nor before it; a VLAN interface not in use is not listed", "vlanif 300 5;if.set 1 300 = 1", "vlan.first 0 0 = 0;vlan.next 0 10 = 0;vlan.next 0 4 = 0;set 100 flags 0xa;vlan.first 0 0 = 0", "ok =10 / ffffffff / ok =10 / ok =5"},
};

const Step BINDINGS[] = {
    {"Kept: a MAC that is too short is found out when the hardware has been told; a MAC; of a MAC that is too long the first six; the attribute, 16 bits; the lease; a command there is not; the VLAN, 16 bits; the interface; the hardware, a VLAN; a MAC; an action; a creation", "bind .5 5 10;set .5 state 4 mark 0", "user.set 5 .5 : 0102030405;user.set 5 .5 : 010203040506;user.sync 5 .5 : 06050403020107;user.set 4 .5 = 0x20007;user.set 6 .5 = 9;user.set 10 .5 = 9;user.set 1 .5 = 0x10014;user.set 2 .5 = 0x10014;refuse -1 qorHwDhcp;user.set 1 .5 = 9;user.set 5 .5 : 010203040506;user.set 9 .5 = 6;user.set 9 .6 = 4", "3e8000d; offer .05/05 {01 02 03 04 05} / ok; offer .05/05 {01 02 03 04 05 06} | 10.0.0.5 mark#30 mac:010203040506 / ok; offer .05/05 {06 05 04 03 02 01 07} | 10.0.0.5 mac:060504030201 / ok; offer .05/04 131079 | 10.0.0.5 attr=7 / 3e80010 / 3e80010 / ok; offer .05/01 65556 | 10.0.0.5 vid=20 orig=20 / ok; offer .05/02 65556 | 10.0.0.5 if=65556 / 3e80004; offer .05/01 9 / 3e80004; offer .05/05 {01 02 03 04 05 06} / 3e80004; offer .05/09 6 / 3e80004; offer .06/09 4"},
    {"the VLAN is read; the interface is; a MAC, with room to spare; just room; no room; the lease; the type; no such value; bound, whatever the command; bound, another VLAN; the state", "bind .5 5 10", "user.get 1 .5 = 0;user.get 2 .5 = 0;user.get 5 .5 room 7;user.get 5 .5 room 6;user.get 5 .5 room 5;user.get 6 .5 = 0;user.get 8 .5 = 0;user.get 10 .5 = 5;user.set 77 .5 = 9;user.set 1 .5 = 9;set .5 state 3;user.get 9 .5 = 0", "ok =10 / ok =5 / ok 03 00 00 06 02 c1 00 00 00 01 ee / ok 03 00 00 06 02 c1 00 00 00 01 / 3e8000d / ok =3600 / ok =1 / 3e80010 / 3e8000c / 3e8000c / ok =3"},
    {"elapsed of a lease of an hour; no more than the lease; nor when the clock went back; a static one shows its age; or what the word holds", "bind .5 5 10;later 3599", "user.get 7 .5 = 0;later 2;user.get 7 .5 = 0;later -3606;user.get 7 .5 = 9;set .5 type 2;later 3606;user.get 7 .5 = 0;later -3602;user.get 7 .5 = 0", "ok =3599 / ok =3600 / ok =3600 / ok =3601 / ok =4294967295"},
    {"no such binding; nothing there, whatever the command; nothing to delete; no action, nothing there; nothing to bind; create; the attribute is; create what is there; by the other number; no action; an action is compared whole", "", "user.get 1 .5 = 5;user.set 77 .5 = 9;user.set 9 .5 = 6;user.set 9 .5 = 7;user.set 9 .5 = 1;user.set 9 .5 = 4;user.set 4 .5 = 7;user.get 4 .5 = 0;user.set 9 .5 = 4;user.set 9 .5 = 5;user.set 9 .5 = 0;user.set 9 .5 = 0x101", "3e80002 / 3e80002 / 3e80002; offer .05/09 6 / 3e80002; offer .05/09 7 / 3e80002; offer .05/09 1 / ok; offer .05/09 4 | +10.0.0.5 lease=4294967295 type=2 state=3 / ok; offer .05/04 7 | 10.0.0.5 attr=7 / ok =7 / 3e80003; offer .05/09 4 / 3e80003; offer .05/09 5 / 3e80010; offer .05/09 0 / 3e80010; offer .05/09 257"},
    // Refused.
    // Actions: the hardware is told first, whatever comes of it.
    {"create by the other number; no entry is free", "", "user.set 9 .5 = 5;bind .1 5 10;bind .2 5 10;bind .3 5 10;bind .4 5 10;bind .6 5 10;user.set 9 .7 = 4", "ok; offer .05/09 5 | +10.0.0.5 lease=4294967295 type=2 state=3 / c; offer .07/09 4"},
    {"delete; delete one that was moved to an interface that is not there; bind IP source guard's; delete IP source guard's", "bind .5 5 10;set .5 type 2", "user.set 9 .5 = 6;bind .5 5 10;set .5 if 7 vid 7;user.set 9 .5 = 6;bind .5 5 10;set .5 type 4;debug 2;user.set 9 .5 = 1;debug 0;user.set 9 .5 = 6", "ok; offer .05/09 6; 7 1 [DHCPSNOOP] Delete static dhcpsnoop entry: ip 10.0.0.5 | -10.0.0.5 / ok; offer .05/09 6; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.5 | -10.0.0.5 / 3e80003; offer .05/09 1; dhcpsnoop user setapi: this is a IPSG binding entry with the same ip! / 3e80003; offer .05/09 6"},
    // To bind installs all checks; of the check items only the bits of the checks change.
    {"bind a dynamic one: it stays dynamic, and expires if it did; IP source guard refused; ARP inspection refused; both refused", ARP + "bind .5 5 10;set .5 state 4 ipsg 0x85 dai 0x0a;later 7", "user.set 9 .5 = 1;set .5 state 4 hw 0 ipsg 0x85 dai 0x0a;once -1 hw add;user.set 9 .5 = 1;set .5 state 4 hw 0 ipsg 0x85 dai 0x0a;refuse -1 hw add 5: mac 02 c1 00 00 00 01 vid 10 if 5 ipsg 0 addr 0a 00 00 05 00 00 00 00 00 00 00 00 00 00 00 00 attr 0 orig 10 type 1 rule 40;user.set 9 .5 = 1;set .5 state 4 hw 0 ipsg 0x85 dai 0x0a;refuse -1 hw add;user.set 9 .5 = 1", "ok; offer .05/09 1; hw +5 .5 f0/80; hw +5 .5 f0/40; 7 1 [DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.0.5, mac 02:c1:00:00:00:01, interface swp5, vlan 10. | 10.0.0.5 from:+0 hw#c0 state=1 ipsg#f5 dai#fa / ok; offer .05/09 1; hw +5 .5 f0/80; hw +5 .5 f0/40; 7 1 [DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.0.5, mac 02:c1:00:00:00:01, interface swp5, vlan 10. | 10.0.0.5 hw#40 state=1 ipsg#5 dai#fa / ok; offer .05/09 1; hw +5 .5 f0/80; hw +5 .5 f0/40; 7 1 [DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.0.5, mac 02:c1:00:00:00:01, interface swp5, vlan 10. | 10.0.0.5 hw#80 state=1 ipsg#f5 / ok; offer .05/09 1; hw +5 .5 f0/80; hw +5 .5 f0/40; 7 1 [DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.0.5, mac 02:c1:00:00:00:01, interface swp5, vlan 10. | 10.0.0.5 state=1 ipsg#5"},
    // To unbind makes it static and withdraws what was installed; the items stay.
    {"installed for both; a static one is not counted; installed for nothing; a count that is 0 stays; ARP inspection refused; IP source guard refused: its result, and nothing else is done", ARP + "bind .5 5 10;set .5 hw 0xc0 ipsg 0x80 dai 0x40;later 100", "user.set 9 .5 = 3;set .5 type 2 hw 0x40;set 5 cur 1;set 100 cur 1;user.set 9 .5 = 2;set .5 type 1 state 1 hw 0;set 5 cur 0;user.set 9 .5 = 2;set .5 type 1 hw 0xc0;set 5 cur 1;set 100 cur 1;refuse 7 hw delete 5: mac 02 c1 00;user.set 9 .5 = 2;set .5 type 1 hw 0xc0;set 5 cur 1;set 100 cur 1;refuse 7 hw delete;user.set 9 .5 = 2", "ok; offer .05/09 3; hw -5 .5 80/80; hw -5 .0 40/40 | 10.0.0.5 from:+0 lease=4294967295 type=2 state=3 hw=0 | if100 cur=0 | if5 cur=0 / ok; offer .05/09 2; hw -5 .0 40/40 | 10.0.0.5 state=2 hw=0 / ok; offer .05/09 2 | 10.0.0.5 type=2 state=2 | if100 cur=0 / 7; offer .05/09 2; hw -5 .5 80/80; hw -5 .0 40/40 | 10.0.0.5 hw#40 / 7; offer .05/09 2; hw -5 .5 80/80"},
    // Listed by address octet by octet, IPv4 first; IP source guard's are left out.
    {"the first; the next; behind one that is gone, IP source guard's passed over; none behind the last; IPv6 behind IPv4; the other way round none", "bind .200 5 10;bind .3 5 10;bind 0x09ffffff 5 10;bind .100 5 10;bind 0x01000004 5 10;set 0x01000004 type 4;set .100 type 4", "user.first 0 none room 28;user.next 0 0x09ffffff room 28;user.next 0 .4 room 28;user.next 0 .200 room 28;user.set 9 2001:db8::5 = 4;user.next 0 .200 room 28;user.next 0 2001:db8::5 room 28", "ok 03 00 00 01 01 03 00 00 03 00 00 00 03 00 00 10 09 ff ff ff 00 00 00 00 00 00 00 00 00 00 00 00 / ok 03 00 00 01 01 03 00 00 03 00 00 00 03 00 00 10 0a 00 00 03 00 00 00 00 00 00 00 00 00 00 00 00 / ok 03 00 00 01 01 03 00 00 03 00 00 00 03 00 00 10 0a 00 00 c8 00 00 00 00 00 00 00 00 00 00 00 00 / ffffffff / ok; qorHwDhcpSnoopUserSync 02 00 00 00 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 05 0x8ce8009 4 0x3 | +type2/20010db800*1105 lease=4294967295 type=2 state=3 / ok 03 00 00 01 02 03 00 00 03 00 00 00 03 00 00 10 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 05 / ffffffff"},
    // Relay servers.
    {"add; add, as 4; add what is there; add, as 5; add one too many; add what is there to a full one; remove what is not there; remove; the first free slot is taken", "", "server.set 1 5 .10 = 1;server.set 1 5 .11 = 4;server.set 1 5 .10 = 5;server.sync 1 5 .12 = 5;debug 2;server.set 1 5 .13 = 1;server.set 1 5 .12 = 1;server.set 1 5 .13 = 6;server.set 1 5 .10 = 6;server.set 1 5 .14 = 1", "ok | if5 server0#a00000a / ok | if5 server1#a00000b / ok / ok | if5 server2#a00000c / 3e80010; Set server-ip: if swp5, ip 0xa00000d, cmd 1, flag 0x3.; Number of relay server-ip exceeds the max!; Set relay server-ip end: rc 65536016. / ok; Set server-ip: if swp5, ip 0xa00000c, cmd 1, flag 0x3.; Set relay server-ip end: rc 0. / ok; Set server-ip: if swp5, ip 0xa00000d, cmd 1, flag 0x3.; Set relay server-ip end: rc 0. / ok; Set server-ip: if swp5, ip 0xa00000a, cmd 1, flag 0x3.; Set relay server-ip end: rc 0. | if5 server0=0 / ok; Set server-ip: if swp5, ip 0xa00000e, cmd 1, flag 0x3.; Set relay server-ip end: rc 0. | if5 server0#a00000e"},
    {"no action; another command; no interface; no interface, whatever the command", "", "server.set 1 5 .15 = 2;server.set 2 5 .15 = 1;server.set 1 9 .15 = 1;debug 2;server.get 2 9 .10 = 9", "3e80010 / 3e80002 / 3e80002 / 3e80002; Interface is not exist!"},
    {"the first, of an interface in use, in two items; the next; of the next interface; none behind the last; none behind one that is not there; none behind one of an interface not in use; known; not known; another command", "if.set 1 6 = 1;server.set 1 6 .9 = 1;set 6 flags 0;server.set 1 5 .7 = 1;server.set 1 5 .10 = 1;server.set 1 5 .11 = 1;server.set 1 5 .7 = 6;server.set 1 100 .10 = 1", "server.first 0 0 0 room 12;server.next 0 5 .10 room 12;server.next 0 5 .11 room 12;server.next 0 100 .10 room 12;server.next 0 5 .12 room 12;server.next 0 6 .9 room 12;server.get 1 5 .10 = 9;server.get 1 5 .12 = 9;server.get 2 5 .10 = 9", "ok 03 02 00 04 00 00 00 05 03 02 00 04 0a 00 00 0a / ok 03 02 00 04 00 00 00 05 03 02 00 04 0a 00 00 0b / ok 03 02 00 04 00 00 00 64 03 02 00 04 0a 00 00 0a / ffffffff / ffffffff / ffffffff / ok / 3e80002 / 3e80010"},
};

const Step SWITCH[] = {
    {"off where it is off; on; on where it is on; snooping is; compared whole, a byte of it stored, and any state but 1 is off", "", "global.set 1 = 0;global.set 1 = 1;global.set 1 = 1;global.get 1 = 0;global.set 1 = 257", "ok / ok; offer 01 1 | global on=1 / ok / ok =1 / ok; offer 01 257; qorIfSetApi 5 306 23; qorIfSetApi 100 306 23 | -if100 | -if5"},
    {"hardware notification that is on; the enterprise number; the same is offered again, by the other number; is read; server learning that is on; is read; the debug flags, all of the byte; are read", "global.set 4 = 1", "global.set 4 = 1;global.set 2 = 0xfffffffe;global.sync 2 = 0xfffffffe;global.get 2 = 0;global.set 16 = 1;global.set 16 = 0x101;global.get 16 = 0;debug 0x42;global.set 20 = 0x1f0;global.get 20 = 0", "ok / ok; offer 02 4294967294 | global enterprise=4294967294 / ok; offer 02 4294967294 / ok =4294967294 / ok; offer 10 1 | global learn=1 / ok; offer 10 257 / ok =1 / ok; Global dhcpsnoop setapi: cmd 20. | global debug#f0 / ok =240"},
    {"the bindings, IP source guard's not counted; off, but IP source guard's bindings: the platform, the rules, the traps; switching on brings nothing back", POPULATED, "global.get 3 = 0;set 5 relay .1;server.set 1 5 .9 = 1;discover 5;server.set 1 5 .9 = 6;global.set 1 = 2;global.set 1 = 1", "ok =2 / ok | if5 server0#a000009 / ok | if5 server0=0 / ok; offer 01 2; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.1; hw -5 .1 f0/80; 7 1 [DHCPSNOOP] Delete static dhcpsnoop entry: ip 10.0.0.2; hw -5 .2 f0/80; qorIfSetApi 5 306 23; qorIfSetApi 100 306 23 | -10.0.0.1 | -10.0.0.2 | -if100 | -if5 | -waiting/02c100000001 | global on=2 / ok; offer 01 1 | global on=1"},
    {"off to hardware; on; any state but 1 withdraws; the state is the byte that is stored; it is read", POPULATED + "items 5 0xf0;global.set 4 = 1", "global.set 4 = 0;global.set 4 = 1;global.set 4 = 2;global.set 4 = 0x101;global.get 4 = 0", "ok; offer 04 0; hw -5 .1 f0/80; hw -5 .1 f0/00; hw -5 .2 f0/80; hw -5 .2 f0/00 | 10.0.0.1 hw=0 daiFrom=0 ipsg=0 dai=0 | 10.0.0.2 hw=0 daiFrom=0 ipsg=0 dai=0 | global notify=0 / ok; offer 04 1; hw +5 .1 f0/80; hw +5 .1 f0/00; hw +5 .2 f0/80; hw +5 .2 f0/00 | 10.0.0.1 hw#c0 ipsgFrom=2 daiFrom=2 ipsg#f0 dai#f0 | 10.0.0.2 hw#c0 ipsgFrom=2 daiFrom=2 ipsg#f0 dai#f0 | global notify=1 / ok; offer 04 2; hw -5 .1 f0/80; hw -5 .1 f0/00; hw -5 .2 f0/80; hw -5 .2 f0/00 | 10.0.0.1 hw=0 ipsgFrom=0 daiFrom=0 ipsg=0 dai=0 | 10.0.0.2 hw=0 ipsgFrom=0 daiFrom=0 ipsg=0 dai=0 | global notify=2 / ok; offer 04 257; hw +5 .1 f0/80; hw +5 .1 f0/00; hw +5 .2 f0/80; hw +5 .2 f0/00 | 10.0.0.1 hw#c0 ipsgFrom=2 daiFrom=2 ipsg#f0 dai#f0 | 10.0.0.2 hw#c0 ipsgFrom=2 daiFrom=2 ipsg#f0 dai#f0 | global notify=1 / ok =1"},
    {"what is said; statistics; a value refused; a value refused; a value refused; a value refused", "debug 2", "global.set 4 = 1;debug 0;set 5 untrusted 5 forged 5 unbound 5 relay 5;global.set 17 form 9 0;refuse 3 qorHwScalarSync;global.set 1 = 9;global.set 2 = 9;global.set 4 = 9;global.set 16 = 9", "ok; Global dhcpsnoop setapi: cmd 4.; Global dhcpsnoop setapi: hardware notify state 1.; offer 04 1; Process user on interface 0, inet type 3, user type = 3, operate 1.; Global dhcpsnoop setapi: end, rc = 0. | global notify=1 / ok | if5 untrusted=0 forged=0 unbound=0 / 3e80004; offer 01 9 / 3e80004; offer 02 9 / 3e80004; offer 04 9 / 3e80004; offer 10 9"},
};

// What stands in a request besides: 26 bytes of header, index items, data header.
const Step REQUESTS[] = {
    {"7 with a pair of words gives the value in the first; 7 with a form there is not; its index, which nobody skips, is taken for the data; a key in 28 bytes; in 27; a word for a key; a relay server in 11; in a word", "", "if.get 18 5 pair 1 2;if.get 18 5 form 7 4;if.get 18 5 = 0 | at 7 22;bind .5 5 10;user.first 0 none room 28;user.first 0 none room 27;user.first 0 none = 1;server.set 1 5 .10 = 1;server.first 0 0 0 room 11;server.first 0 0 0 = 1", "ok 03 04 00 08 00 00 80 00 00 00 00 02 / 3e80010 / none / ok 03 00 00 01 01 03 00 00 03 00 00 00 03 00 00 10 0a 00 00 05 00 00 00 00 00 00 00 00 00 00 00 00 / 3e8000d / ok / ok | if5 server0#a00000a / 3e8000d / 3e8000d"},
    {"25 bytes; a func word of another type; a command word with another marker; a result word with another; an index too few; an index to a global setting", "debug 1", "if.get 18 5 = 0 | cut 25;if.get 18 5 = 0 | at 1 0;if.get 18 5 = 0 | at 16 3;if.get 18 5 = 0 | at 8 3;if.get 18 5 = 0 | at 25 0;global.get 3 = 0 | at 25 1", "none; Command process: lenRx 25 err! / none; Command process: decode func word failed! / none; Command process: decode command word failed! / none; Command process: decode ret code word failed! / none; Command process: func 7 indexNum 0 err! / none; Command process: func 2 indexNum 1 err!"},
    {"of another length; another index header; said with the information bit only; bytes beyond the end", "debug 2", "if.get 18 5 = 0 | at 3 5;if.get 18 5 = 0 | at 24 2;if.get 18 5 = 0 | at 25 0;if.set 5 5 'ab | at 36 3", "none; Command process: decode func word failed! / none; Command process: decode index header failed! / none / none; Command process: decode data shortVal 3 err, type = 0!"},
    {"another data header; an end before the data header; a word of three bytes; a pair of one word; an end in the index; an end in the length; an end in the word; an end in the second word; Kept: a request of a function that there is not is its own answer, result word and all; nor is one of the highest number", "debug 1", "if.get 18 5 = 0 | at 33 4;if.get 18 5 = 0 | cut 33;if.get 18 5 = 0 | at 36 3;if.get 18 5 = 0 | at 34 4;if.get 18 5 = 0 | cut 32;if.get 18 5 = 0 | cut 36;if.get 18 5 = 0 | cut 40;if.get 18 5 pair 0 0 | cut 44;22 1 = 5;0xffffffff 1 = 5", "none; Command process: decode data charVal 4 err! / none; Command process: decode data charVal 0 err! / none; Command process: decode data shortVal 3 err, type = 2! / none; Command process: decode data shortVal 4 err, type = 4! / none / none / none / none / as asked; Command process: error func 22 in get indexnum!; Command process: error func 22 in encode data! / as asked; Command process: error func -1 in get indexnum!; Command process: error func -1 in encode data!"},
};
// clang-format on

class Management : public Daemon
{
  protected:
    void SetUp() override { start(); }
};

TEST_F(Management, OfAnInterface) { check_steps(INTERFACE, start); }
TEST_F(Management, OfBindings) { check_steps(BINDINGS, start); }
TEST_F(Management, OfTheSwitch) { check_steps(SWITCH, start); }
TEST_F(Management, Requests) { check_steps(REQUESTS, start); }

// A value in another form than its attribute's, or of an attribute that there is not, is refused before anything is asked of the
// platform: a number is never taken for an address. What the platform refuses changes nothing.
TEST_F(Management, EveryAttribute)
{
    using Numbers = std::vector<uint32_t>;
    const struct {
        std::string object, index;
        Numbers numbers, texts, notSet, notRead;
    } rows[] = {
        {"global", "", {1, 2, 4, 16, 20}, {19}, {0, 3, 5, 15, 18, 21, 0xFFFFFFFF}, {0, 5, 17, 18, 19, 21, 0xFFFFFFFF}},
        {"if", " 5", {1, 2, 3, 4, 8, 9, 10, 11, 13, 16, 17, 18, 20, 21, 30, 31, 32, 33, 34}, {5, 6, 7, 12, 14}, {0, 15, 19, 22, 23, 24, 25, 26, 27, 29, 35, 0xFFFFFFFF}, {0, 15, 28, 29, 35, 0xFFFFFFFF}},
        {"user", " .5", {1, 2, 4, 9}, {5}, {0, 3, 6, 7, 8, 10}, {0, 3, 10}},
        {"vlan", " 10", {1, 3}, {}, {0, 2, 4}, {0, 2, 4}},
        {"server", " 5 .7", {1}, {}, {}, {}}};
    play(TEXTS + "bind .5 5 10;set .5 state 4");
    const auto refused = [](const std::string &words) { EXPECT_EQ(play(words), "3e80010") << words; };
    for (const auto &row : rows) {
        const auto words = [&row](const char *verb, uint32_t cmd) { return row.object + verb + std::to_string(cmd) + row.index; };
        for (const char *verb : {".set ", ".get "}) {
            if (row.object == "server" && verb[1] == 'g')
                continue; // takes no value
            for (const uint32_t cmd : row.numbers)
                for (const char *form : {" room 16", " form 9 0", " form 3 4"})
                    refused(words(verb, cmd) + form);
            for (const uint32_t cmd : row.texts)
                for (const char *form : {" = 0x41414141", " pair 0x41414141 0", " form 9 0"})
                    refused(words(verb, cmd) + form);
        }
        for (const uint32_t cmd : row.notSet)
            refused(words(".set ", cmd) + " = 1");
        for (const uint32_t cmd : row.notRead)
            refused(words(".get ", cmd) + " = 1");
    }
    for (const uint32_t cmd : {0u, 2u, 28u, 34u, 99u})
        EXPECT_EQ(play("if.set " + std::to_string(cmd) + " 6 = 1"), "3e80002") << cmd; // not snooped
    play("refuse 5 qorHwIfSync");
    for (const uint32_t cmd : rows[1].numbers)
        EXPECT_EQ(cmd == 34 ? "" : play(world_format("if.set %u 5 = 6", cmd)), cmd == 34 ? "" : world_format("3e80004; offer 5/%02x 6", cmd));
    for (const uint32_t cmd : rows[1].texts)
        EXPECT_EQ(play(world_format("if.set %u 5 'q", cmd)), world_format("3e80004; offer 5/%02x {71}", cmd));
}

// Called by a platform library: a change from the platform is offered in another mode, and nothing takes null for an address.
TEST_F(Management, EntryPoints)
{
    play(PLAIN + "bind .5 5 10;set .5 state 4;server.set 1 5 .10 = 1");
    static uint32_t value, pair[2];
    static uint8_t room[4];
    static QorBuffer text;
    static DhcpsnoopUserKey key;
    key = Key(ip4(10, 0, 0, 5));
    const std::tuple<const char *, int32_t (*)(), const char *> rows[] = {
        {"a change from the platform", [] { return dhcpSnoopSyncApi(nullptr, 2, &value); }, "0; qorHwScalarSync null 0x40002 7 0x1 | global enterprise=7"},
        {"its source", [] { return dhcpSnoopSetApi(&value, 2, &value); }, "0; qorHwScalarSync source 0x40002 7 0x3"},
        {"of an interface", [] { return dhcpSnoopIfSyncApi(5, 10, &value); }, "0; qorHwIfSync 5 0x402c00a 7 0x1 | if5 flags#9ece0000"},
        {"a text", [] { return dhcpSnoopIfSyncApi(5, 5, &text); }, "0; qorHwIfSync 5 0x402c005 {61} 0x80000001 | if5 circuitLen=1 circuit:61"},
        {"of a binding", [] { return dhcpSnoopUserSyncApi(&key, 4, &value); }, "0; qorHwDhcpSnoopUserSync 01 00 00 00 0a 00 00 05 00 00 00 00 00 00 00 00 00 00 00 00 0x8ce8004 7 0x1 | 10.0.0.5 attr=7"},
        {"of relay servers", [] { return value = 6, dhcpSnoopServerIpSyncApi(pair, 1, &value); }, "0 | if5 server0=0"},
        {"debug bits set", [] { return dhcpSnoop_debug_set(0xF09, 1); }, "0 | global debug#9"},
        {"and cleared", [] { return dhcpSnoop_debug_set(0x101, 2); }, "0 | global debug#8"},
        {"no such operation", [] { return dhcpSnoop_debug_set(1, 0); }, "-1"},
        {"no request: 22 bytes of the buffer, as they stand", [] { return static_cast<int32_t>(dhcpsnoop_cmd_process(nullptr, 40) + dhcpsnoop_cmd_process(room, 0)); }, "44; prints \r\n deftInstall assert error in line 623 in func dhcpsnoop_cmd_process.\r\n deftInstall assert error in line 623 in func dhcpsnoop_cmd_process."},
        {"learned servers", [] { return dhcpsnoop_server_add(0x0A000A01, 10, 5), dhcpsnoop_server_add(0xC0A8FFFE, 4094, 100), dhcpsnoop_fake_server_show(), 0; }, "0; prints / IpAddr            Vid       Interface   / 192.168.255.254   4094      vlan10      / 10.0.10.1         10        swp5        / | +server/0a000a01/5/10 | +server/c0a8fffe/100/4094"},
    };
    for (const auto &[claim, call, outcome] : rows) {
        value = 7, pair[0] = 5, pair[1] = ip4(10, 0, 0, 10);
        text = {room, 1}, room[0] = 'a';
        EXPECT_EQ(play([call = call] { return std::to_string(call()); }), outcome) << claim;
    }
}

} // namespace
