// The one entry of every frame: dispatch, trace, and what each debug bit shows.
#include "scene.h"

namespace
{

using Receive = Daemon;

const Lines DISCOVER_TRACE = {
    "[DHCPSNOOP] Receive a dhcp message, check and process it!\r\n",
    "[DHCPSNOOP] svlan 4096, cvlan 10.\r\n",
    "[DHCPSNOOP] Receive a packet: interface 1,invlan 0,outvlan 10,received len 290,msg len 286.\r\n",
    "[DHCPSNOOP] Dhcp request packet, type value 1(discover).\r\n",
    "[DHCPSNOOP] Send packet to server, inport 1, vid 10, len 286.\r\n",
    "[DHCPSNOOP] TPID of this interface is 0x0.\r\n",
    "[DHCPSNOOP] Send message to server, len is 286 buflen is 286.\r\n",
    "[DHCPSNOOP] Process pkt end.\r\n",
};

TEST_F(Receive, DebugBits)
{
    const Bytes frame = Frame{.padding = {0xAA, 0xBB, 0xCC, 0xDD}}.bytes();
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
        EXPECT_EQ(world.texts(Did::Debug), (flags & 1) != 0 ? DISCOVER_TRACE : Lines{});
        EXPECT_EQ(outcome(), "2 286");
    }
}

#define MISMATCH(version, type) "!Process pkt end.|Interface version " version " and packet type " type " mismatch!"

const struct {
    const char *claim;
    uint8_t op, type; // 0: no message type
    const char *outcome, *said;
    uint32_t version = 1;
    Arrival arrival = {};
} ROWS[] = {
    {"an offer", 2, 2, " | 1 drops untrusted 1", "Dhcp reply packet, type value 2(offer).|Process pkt end."},
    {"a request", 1, 3, "2 292 | .50 asked 1/10", "Dhcp request packet, type value 3(request).|Process pkt end."},
    {"a decline", 1, 4, "2 292", "Dhcp request packet, type value 4(decline)."},
    {"an ack", 2, 5, " | 1 drops untrusted 1", "Dhcp reply packet, type value 5(ack)."},
    {"a nak", 2, 6, " | 1 drops untrusted 1", "Dhcp reply packet, type value 6(nak)."},
    {"a release", 1, 7, "2 292", "Dhcp request packet, type value 7(release)."},
    {"an inform", 1, 8, "2 292", "Dhcp request packet, type value 8(inform)."},
    {"a type behind the last", 1, 9, "2 292", "Dhcp request packet, type value 9(unknow)."},
    {"a request of no type", 1, 0, "2 292", "Dhcp request packet, type value 0(unknow)."},
    {"a reply of no type", 2, 0, " | 1 drops untrusted 1", "Dhcp reply packet, type value 0(unknow)."},
    {"Kept: the op byte alone decides", 1, 5, "2 292", "Dhcp request packet, type value 5(ack)."},
    {"Kept: for replies too", 2, 1, " | 1 drops untrusted 1", "Dhcp reply packet, type value 1(discover)."},
    {"Kept: any but 1 and 2 goes nowhere", 3, 1, "", "Dhcp reply packet, type value 1(discover).|Process pkt end."},
    {"0 too", 0, 1, "", "Dhcp reply packet, type value 1(discover).|Process pkt end."},
    {"IPv4 where both families are snooped", 1, 1, "2 292", "Process pkt end.", 3},
    {"IPv4 where only IPv6 is", 1, 3, "", MISMATCH("IPv6", "IPv4"), 2},
    {"Kept: an interface that snoops neither is named IPv6", 1, 3, "", MISMATCH("IPv6", "IPv4"), 0},
    {"from the IPv6 socket where only IPv4 is", 1, 3, "", MISMATCH("IPv4", "IPv6"), 1, {.etherType = 0x86DD}},
    {"from the IPv6 socket where neither is", 1, 3, "", MISMATCH("IPv6", "IPv6"), 0, {.etherType = 0x86DD}},
};

TEST_F(Receive, TypesDirectionsAndFamilies)
{
    for (const auto &row : ROWS) {
        SCOPED_TRACE(row.claim);
        prepare("");
        set_flag_field(dhcpsnoop_if_lookup(1), DHCPSNOOP_IF_VERSION, row.version);
        receive(Frame{.op = row.op, .options = (row.type != 0 ? opt_type(row.type) : Bytes{0, 0, 0}) + opt_ip(50, HOST) + OPT_END}, row.arrival);
        EXPECT_EQ(outcome(), row.outcome);
        EXPECT_EQ(unsaid(row.said), "");
    }
}

TEST_F(Receive, EveryTruncationLeavesNoTrace)
{
    prepare("");
    const std::string before = world_state();
    const Bytes good = Message{}.frame().bytes();
    for (size_t length = 0; length <= good.size(); length++) {
        world.clear();
        receive(Bytes(good.begin(), good.begin() + static_cast<ptrdiff_t>(length)), {.l2 = 14, .etherType = 0x0800});
        ASSERT_EQ(world.texts(Did::Debug).back(), length < good.size() ? "[DHCPSNOOP] Parse packet error, stop process!\r\n" : "[DHCPSNOOP] Process pkt end.\r\n") << length;
        ASSERT_TRUE((sent_summary().empty() && world_state() == before) == (length < good.size())) << length;
    }
}

} // namespace
