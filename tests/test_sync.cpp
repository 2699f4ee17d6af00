// The running role, and the records that keep the peer unit in step: as they leave, packed into full copies, and applied or
// refused as they come.
#include "steps.h"

#include "dhcpsnoop_sync.h"

namespace
{

// A standby unit. Port 1 and the VLAN interface 110 of VLAN 10 snoop, port 2 does not; there is room for three bindings and two
// servers.
void start()
{
    world.reset(0, 3, 2);
    world.access(1, 10);
    world.access(2, 10);
    world.vlan_interface(110, 10);
    snoop(1);
    snoop(110);
    play("role 2");
}

const std::string ADD = "peer 01 01 %56 key .50 carried ", OTHER = "01 01 %56 key .51 carried ", GONE = "01 00 %56 key .59 zeros 36 ", SERVER = "02 01 %12 =.1 =1 %10 %0 ";
const std::string KNOWN = "bind .59 1 10;", MOVED = "peer 01 01 %56 key .50 %20 %20 =2 =60 =5 00 02 01 30 %8 02 c1 00 00 00 02 =9 =10;";

const Step STEPS[] = {
    {"a master; whatever it says of a slave; a slave; neither", "debug 2;role 0;scalar 53 0", "peer 00;role 1;scalar 54 0;debug 2;peer 00;role 1;scalar 53 7;scalar 54 0;debug 2;peer 00;scalar 53 0xffffffff;scalar 54 9;debug 2;peer 00", "running role of the dhcpsnoop changed from None to Master. | global role=1 /  / running role of the dhcpsnoop changed from Master to Slave.; Receive dhcpsnoop sync packet: len 1.; prints /00   | global role=2 / running role of the dhcpsnoop changed from Slave to None. | global role=0"},
    {"a master applies nothing; nor does one without a role", "role 1", ADD + SERVER + ";role 0;debug 2;" + ADD + SERVER, " / "},
    // Applied: neither hardware nor the peer hears of it.
    {"a binding", "items 1 0xf0;debug 1", ADD, "Receive dhcpsnoop sync packet: len 60.; Receive dhcpsnoop user sync packet: add flag 1, len 56.; User do not exist, add it to user table. | +10.0.0.50 from#21222324 vid=10 orig=11 if=1 lease=3600 hw#c0 type=1 state=1 mark#30 attr=7 ipsgId=16909060 daiId=84281096 mac:02c100000001 | if1 cur=1 | if110 cur=1"},
    {"Kept: one that is there is overwritten whole, leaves the counts of its old place as they are, and keeps what is not carried; it goes by its key", "if.set 1 2 = 1;" + ADD + ";set .50 gw 0x11", MOVED + "peer 01 00 %20 key .50", " | 10.0.0.50 from#5 vid=20 orig=20 if=2 lease=60 type=2 attr=8 ipsgId=9 daiId=10 mac:02c100000002 hw=0 / 7 1 [DHCPSNOOP] Delete static dhcpsnoop entry: ip 10.0.0.50 | -10.0.0.50"},
    {"Kept: a static binding counts when it comes from the peer, and does not when it goes; a dynamic one", "", "peer 01 01 %56 key .50 %10 %10 =1 =60 =5 00 02 01 30 %8 02 c1 00 00 00 01 =9 =10;peer 01 00 %20 key .50;set 1 cur 5;set 110 cur 5;" + ADD + ";peer 01 00 %20 key .50", " | +10.0.0.50 from#5 vid=10 orig=10 if=1 lease=60 type=2 state=1 mark#30 attr=8 ipsgId=9 daiId=10 mac:02c100000001 | if1 cur=1 | if110 cur=1 / 7 1 [DHCPSNOOP] Delete static dhcpsnoop entry: ip 10.0.0.50 | -10.0.0.50 /  | +10.0.0.50 from#21222324 vid=10 orig=11 if=1 lease=3600 hw#c0 type=1 state=1 mark#30 attr=7 ipsgId=16909060 daiId=84281096 mac:02c100000001 | if1 cur=6 | if110 cur=6 / 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50 | -10.0.0.50 | if1 cur=5 | if110 cur=5"},
    {"a count of 16 bits; the limit is the learner's", "set 1 cur 0xffff", ADD + ";set 1 max 0;" + ADD + OTHER, " | +10.0.0.50 from#21222324 vid=10 orig=11 if=1 lease=3600 hw#c0 type=1 state=1 mark#30 attr=7 ipsgId=16909060 daiId=84281096 mac:02c100000001 | if1 cur=0 | if110 cur=1 /  | +10.0.0.51 from#21222324 vid=10 orig=11 if=1 lease=3600 hw#c0 type=1 state=1 mark#30 attr=7 ipsgId=16909060 daiId=84281096 mac:02c100000001 | if1 cur=1 | if110 cur=2"},
    {"no node is free; the walk goes on", KNOWN + "bind .58 1 10;bind .57 1 10", ADD + SERVER, " | +server/0a000001/1/10"},
    {"a server; known; of another port and VLAN it is another; anything but 1 deletes; full: the newest makes room", "debug 1", "peer " + SERVER + ";debug 0;peer " + SERVER + ";peer 02 00 %12 =.1 =10 %1 %0;peer 02 07 %12 =.1 =1 %10 %0;peer " + SERVER + "02 01 %12 =.2 =1 %10 %0;peer 02 01 %12 =.3 =1 %10 %0", "Receive dhcpsnoop sync packet: len 16.; Receive dhcpsnoop server sync packet: add flag 1, len 12. | +server/0a000001/1/10 /  /  /  | -server/0a000001/1/10 /  | +server/0a000001/1/10 | +server/0a000002/1/10 /  | -server/0a000002/1/10 | +server/0a000003/1/10"},
    // The bytes that a record's handler reads must be there; what the record says of its own length only moves the walk on.
    {"one byte; 3 bytes; a header alone; an addition one byte short; a deletion one byte short; a deletion as it is sent; a server one byte short; two, the second short", KNOWN, "peer 00;" + ADD + "cut 3;" + ADD + "cut 4;" + ADD + "cut 59;peer " + GONE + "cut 23;peer " + GONE + ";peer " + SERVER + "cut 15;" + ADD + OTHER + "cut 119", " /  /  /  /  / 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.59 | -10.0.0.59 | if1 cur=0 | if110 cur=0 /  /  | +10.0.0.50 from#21222324 vid=10 orig=11 if=1 lease=3600 hw#c0 type=1 state=1 mark#30 attr=7 ipsgId=16909060 daiId=84281096 mac:02c100000001 | if1 cur=1 | if110 cur=1"},
    {"anything but 1 deletes a binding; a deletion that says more than is there", KNOWN, "peer 01 02 %56 key .59 carried;" + KNOWN + "peer 01 00 %0xffff key .59", "7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.59 | -10.0.0.59 | if1 cur=0 | if110 cur=0 / 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.59 | -10.0.0.59 | if1 cur=0 | if110 cur=0"},
    {"1 to 3 bytes behind the last; two and a server", KNOWN, ADD + "01 01 01;" + ADD + OTHER + SERVER, " | +10.0.0.50 from#21222324 vid=10 orig=11 if=1 lease=3600 hw#c0 type=1 state=1 mark#30 attr=7 ipsgId=16909060 daiId=84281096 mac:02c100000001 | if1 cur=2 | if110 cur=2 /  | +10.0.0.51 from#21222324 vid=10 orig=11 if=1 lease=3600 hw#c0 type=1 state=1 mark#30 attr=7 ipsgId=16909060 daiId=84281096 mac:02c100000001 | if1 cur=3 | if110 cur=3 | +server/0a000001/1/10"},
    {"other types longer than the packet end it; a length whose sum would wrap in 16 bits; other types are passed over by their length", KNOWN, "peer 03 01 %0xfffc " + SERVER + ";peer 01 01 %0xfffc key .50 carried " + SERVER + ";peer 03 01 %5 01 01 01 01 01 " + SERVER, " /  | +10.0.0.50 from#21222324 vid=10 orig=11 if=1 lease=3600 hw#c0 type=1 state=1 mark#30 attr=7 ipsgId=16909060 daiId=84281096 mac:02c100000001 | if1 cur=2 | if110 cur=2 /  | +server/0a000001/1/10"},
    {"the longest length; a length within the record leads into it: what stands there is a header", KNOWN, "peer 01 01 %0xffff key .50 carried " + SERVER + ";peer 01 01 %20 key .50 03 03 %32 =1 =3600 =9 c0 01 01 30 %7 02 c1 00 00 00 01 =1 =2 " + SERVER, " | +10.0.0.50 from#21222324 vid=10 orig=11 if=1 lease=3600 hw#c0 type=1 state=1 mark#30 attr=7 ipsgId=16909060 daiId=84281096 mac:02c100000001 | if1 cur=2 | if110 cur=2 /  | 10.0.0.50 from#9 vid=771 orig=32 ipsgId=1 daiId=2 | +server/0a000001/1/10"},
    {"a server of a longer record", KNOWN, "peer 02 01 %20 =.1 =1 %10 zeros 10 " + GONE, "7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.59 | -10.0.0.59 | if1 cur=0 | if110 cur=0 | +server/0a000001/1/10"},
    {"dumps stay within the record: a binding that says 5140; that says nothing", KNOWN + "debug 2", "peer 01 00 %0x1414 key .59;" + KNOWN + "debug 2;peer 01 00 %0 key .59", "Receive dhcpsnoop sync packet: len 24.; Receive dhcpsnoop user sync packet: add flag 0, len 5140.; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.59; prints /01  00  14  14  01  00  00  00  0a  00  00  3b  00  00  00  00  /00  00  00  00  00  00  00  00  /01  00  00  00  0a  00  00  3b  00  00  00  00  00  00  00  00  /00  00  00  00  00  00  00  00  00  00  00  00  00  00  00  00  /00  00  00  00  00  00  00  00  00  00  00  00  00  00  00  00  /00  00  00  00  00  00  00  00   | -10.0.0.59 | if1 cur=0 | if110 cur=0 / Receive dhcpsnoop sync packet: len 24.; Receive dhcpsnoop user sync packet: add flag 0, len 0.; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.59; prints /01  00  00  00  01  00  00  00  0a  00  00  3b  00  00  00  00  /00  00  00  00  00  00  00  00   | -10.0.0.59 | if1 cur=0 | if110 cur=0"},
    {"a server that says 3084; an unknown type", "debug 2", "peer 02 01 %0x0c0c =0x0a0a0a0a =0x01010101 %0x0a0a %0;peer 09 01 %0xffff 01 01 01 01", "Receive dhcpsnoop sync packet: len 16.; Receive dhcpsnoop server sync packet: add flag 1, len 3084.; prints /02  01  0c  0c  0a  0a  0a  0a  01  01  01  01  0a  0a  00  00  /0a  0a  0a  0a  01  01  01  01  0a  0a  00  00   | +server/0a0a0a0a/16843009/2570 / Receive dhcpsnoop sync packet: len 8.; prints /09  01  ff  ff  01  01  01  01  "},
    // A unit that becomes the master applies no more, withdraws rules from hardware, and the new standby hears of it.
    {"taking over; a binding that goes", KNOWN + ADD + ";scalar 53 0;debug 2", "peer " + GONE + ";debug 0;user.set 9 .50 = 6", "running role of the dhcpsnoop changed from Slave to Master. | global role=1 / ok; offer .32/09 6; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50; hw -1 .0 00/80; hw -1 .0 00/00; peer 0x80000003 01 00 %56 01 00 00 00 0a 00 00 32 00 00 00 00 00 00 00 00 00 00 00 00 %0 %0 =0 =0 =0 00 00 00 00 %0 00 00 00 00 00 00 =0 =0 | -10.0.0.50 | if1 cur=1 | if110 cur=1"},
};

using Sync = Daemon;

TEST_F(Sync, RolesAndRecords) { check_steps(STEPS, start); }

TEST_F(Sync, Sends)
{
    static const Bytes packet(17, 0xF0);
    static DhcpsnoopServer server;
    server.serverIp = ip4(10, 0, 0, 1), server.vid = 0xABCD0014, server.ifIndex = 0x01020304;
    start();
    play(ADD + "01 01 %56 key 2001:db8::9 carried;set .50 gw 1 ipsg 1 dai 1 ipsgFrom 1 daiFrom 1");
    const std::tuple<const char *, std::string, void (*)(), const char *> rows[] = {
        {"a binding", "", [] { dhcpsnoop_sync_user_send(binding(ip4(10, 0, 0, 50)), 1); }, "peer 0x80000003 01 01 %56 01 00 00 00 0a 00 00 32 00 00 00 00 00 00 00 00 00 00 00 00 %10 %11 =0x1 =0xe10 =0x21222324 c0 01 01 30 %7 02 c1 00 00 00 01 =0x1020304 =0x5060708"},
        {"a binding that goes: the key alone", "debug 1", [] { dhcpsnoop_sync_user_send(binding("2001:db8::9"), 0); }, "Send dhcpsnoop user sync packet, add flag 0.; Send dhcpsnoop sync packet: len 60.; peer 0x80000003 01 00 %56 02 00 00 00 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 09 %0 %0 =0 =0 =0 00 00 00 00 %0 00 00 00 00 00 00 =0 =0"},
        {"a server, 16 bits of its VLAN", "debug 1", [] { dhcpsnoop_sync_server_send(&server, 1); }, "Send dhcpsnoop server sync packet, add flag 1.; Send dhcpsnoop sync packet: len 16.; peer 0x80000003 02 01 %12 =0xa000001 =0x1020304 %20 %0"},
        {"one that goes", "", [] { dhcpsnoop_sync_server_send(&server, 0); }, "Send dhcpsnoop server sync packet, add flag 0.; Send dhcpsnoop sync packet: len 16.; peer 0x80000003 02 00 %12 =0xa000001 =0x1020304 %20 %0"},
        {"everything, on request", "bind .51 1 10;set .51 type 4;peer " + SERVER, [] { dhcpsnoop_sync_all_send(5, 1); }, "Send dhcpsnoop sync packet: len 136.; peer 0x80000005 01 01 %56 02 00 00 00 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 09 %10 %11 =0x1 =0xe10 =0x21222324 c0 01 01 30 %7 02 c1 00 00 00 01 =0x1020304 =0x5060708 01 01 %56 01 00 00 00 0a 00 00 32 00 00 00 00 00 00 00 00 00 00 00 00 %10 %11 =0x1 =0xe10 =0x21222324 c0 01 01 30 %7 02 c1 00 00 00 01 =0x1020304 =0x5060708 02 01 %12 =0xa000001 =0x1 %10 %0"},
        {"not requested", "debug 0", [] { dhcpsnoop_sync_all_send(5, 0); }, ""},
        {"bytes", "debug 3", [] { dhcpsnoop_sync_pkt_send(packet.data(), 17, 0x00120002); }, "Send dhcpsnoop sync packet: len 17.; peer 0x80120002 f0 f0 %61680 =0xf0f0f0f0 =0xf0f0f0f0 %61680 %61680; prints /f0  f0  f0  f0  f0  f0  f0  f0  f0  f0  f0  f0  f0  f0  f0  f0  /f0  "},
        {"what the transport does not take is not sent again", "refuse 3 qorHwScalarSync;debug 1", [] { dhcpsnoop_sync_pkt_send(packet.data(), 17, 3); }, "Send dhcpsnoop sync packet: len 17.; peer 0x80000003 f0 f0 %61680 =0xf0f0f0f0 =0xf0f0f0f0 %61680 %61680; Send dhcpsnoop sync packet ERROR!"},
    };
    for (const auto &[claim, before, send, outcome] : rows) {
        play(before);
        const std::string done = play([send = send] { return send(), ""; });
        EXPECT_EQ(done, outcome) << claim;
    }
}

// Packets of at most 1400 bytes, of records of 60 and 16.
TEST_F(Sync, FullCopies)
{
    const auto copied = [](uint32_t users, uint32_t servers) {
        world.reset();
        for (uint32_t i = 0; i < users; i++)
            make_binding(ip4(63, 0, 0, 0) + i, MAC_CLIENT, 1, 10);
        for (uint32_t i = 0; i < servers; i++)
            dhcpsnoop_server_add(ip4(10, 0, 0, 1) + i, 10, 1);
        dhcpsnoop_sync_all_send(0x00050002, 1);
        Lines packets;
        for (const WorldEntry *call : world.all(Did::Call))
            packets.push_back(call->text.substr(call->text.rfind(' ') + 1) + world_format(" %zu", call->data.size()));
        return joined(packets);
    };
    check({
        {"to the last byte", copied(22, 5), "0x80050002 1400"},
        {"one beyond", copied(22, 6), "0x80050002 1400, 0x80050002 16"},
        {"both over several", copied(24, 90), "0x80050002 1380, 0x80050002 1388, 0x80050002 112"},
    });
}

} // namespace
