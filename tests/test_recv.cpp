// The one entry of every frame: dispatch, trace, and what each debug bit shows.
#include "daemon_test.h"

namespace
{

class Receive : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        world.access(1, 10);
        world.access(2, 10);
        snoop(1);
        snoop(2, DHCPSNOOP_IF_TRUSTED);
    }
};

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
    // Sixteen bytes a line, a line break before each line, nothing behind the last byte; the received frame
    // whole, the sent one without its padding.
    const auto dump = [](const Bytes &bytes) {
        std::string text;
        for (size_t i = 0; i < bytes.size(); i++)
            text += (i % 16 == 0 ? "\n\r" : "") + world_format("%02x  ", bytes[i]);
        return text;
    };
    const std::string dumps = dump(frame) + dump(Bytes(frame.begin(), frame.end() - 4));
    const struct {
        int flags;
        bool trace, dump;
    } rows[] = {{0, false, false}, {1, true, false}, {2, false, true}, {3, true, true}, {0xFC, false, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.flags);
        world.clear();
        debug(row.flags);
        Printed out;
        receive(frame);
        EXPECT_EQ(out.text(), row.dump ? dumps : "");
        EXPECT_EQ(debug_texts(), row.trace ? DISCOVER_TRACE : Lines{});
        EXPECT_EQ(sent_summary(), "2 286");
    }
}

TEST_F(Receive, TypesAndDirections)
{
    const char *SENT = "Send packet to server, inport 1, vid 10, len 286.", *REFUSED = "Port is untrust,stop process!";
    const struct {
        uint8_t op, type;        // 0 = no message type
        const char *text, *next; // a line of the path it goes to
    } rows[] = {
        {2, 2, "reply packet, type value 2(offer)", REFUSED},
        {1, 3, "request packet, type value 3(request)", "User do not exist, add it to user table."},
        {1, 4, "request packet, type value 4(decline)", SENT},
        {2, 5, "reply packet, type value 5(ack)", REFUSED},
        {2, 6, "reply packet, type value 6(nak)", REFUSED},
        {1, 7, "request packet, type value 7(release)", SENT},
        {1, 8, "request packet, type value 8(inform)", SENT},
        {1, 9, "request packet, type value 9(unknow)", SENT},
        {1, 0, "request packet, type value 0(unknow)", "Send packet to server, inport 1, vid 10, len 283."},
        {2, 0, "reply packet, type value 0(unknow)", REFUSED},
        // Kept: the op byte alone decides; any but 1 and 2 goes nowhere.
        {1, 5, "request packet, type value 5(ack)", SENT},
        {2, 1, "reply packet, type value 1(discover)", REFUSED},
        {3, 1, "reply packet, type value 1(discover)", "Process pkt end."},
        {0, 1, "reply packet, type value 1(discover)", "Process pkt end."},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        world.clear();
        debug(1);
        receive(Frame{.op = row.op, .options = (row.type != 0 ? opt_type(row.type) : Bytes{}) + OPT_END});
        const Lines texts = debug_texts();
        ASSERT_GE(texts.size(), 5u);
        EXPECT_EQ(texts[3], std::string("[DHCPSNOOP] Dhcp ") + row.text + ".\r\n");
        EXPECT_TRUE(printed(std::string("[DHCPSNOOP] ") + row.next + "\r\n"));
        EXPECT_EQ(texts.back(), "[DHCPSNOOP] Process pkt end.\r\n");
        if (row.op != 1) {
            EXPECT_EQ(sent_summary(), "");
        }
        DhcpsnoopIf *in = dhcpsnoop_if_lookup(1);
        EXPECT_EQ(in->counters[DHCPSNOOP_DROP_UNTRUSTED], row.op == 2 ? 1u : 0u);
        in->counters[DHCPSNOOP_DROP_UNTRUSTED] = 0;
    }
}

TEST_F(Receive, FamilyMustBeSnooped)
{
    const std::string v4 = "[DHCPSNOOP] Interface version IPv6 and packet type IPv4 mismatch!\r\n";
    const std::string v6 = "[DHCPSNOOP] Interface version IPv4 and packet type IPv6 mismatch!\r\n";
    // claim, version, etherType (by the socket it came from), mismatch
    const std::tuple<const char *, uint32_t, uint16_t, std::string> rows[] = {
        {"IPv4 on IPv4", 1, 0x0800, ""},
        {"IPv4 on both", 3, 0x0800, ""},
        {"IPv4 on IPv6 only", 2, 0x0800, v4},
        // Kept: an interface that snoops neither version is named "IPv6".
        {"IPv4 on neither", 0, 0x0800, v4},
        {"from the IPv6 socket on IPv4 only", 1, 0x86DD, v6},
        {"from the IPv6 socket on neither", 0, 0x86DD, "[DHCPSNOOP] Interface version IPv6 and packet type IPv6 mismatch!\r\n"},
    };
    for (const auto &[claim, version, etherType, mismatch] : rows) {
        SCOPED_TRACE(claim);
        world.clear();
        debug(1);
        set_flag_field(dhcpsnoop_if_lookup(1), DHCPSNOOP_IF_VERSION, version);
        const std::string before = world_state();
        receive(Frame{.options = opt_type(3) + opt_ip(50, ip4(10, 0, 0, 50)) + OPT_END}, {.etherType = etherType});
        const bool dropped = !mismatch.empty();
        EXPECT_EQ(sent_summary(), dropped ? "" : "2 292");
        EXPECT_EQ(printed("[DHCPSNOOP] Process pkt end.\r\n"), !dropped);
        if (dropped) {
            EXPECT_EQ(debug_texts().back(), mismatch);
            EXPECT_EQ(world_state(), before);
        }
        dhcpsnoop_user_delete(binding(ip4(10, 0, 0, 50)));
    }
}

TEST_F(Receive, BadFrameLeavesNoTrace)
{
    const std::string before = world_state();
    const Bytes good = Frame{.options = opt_type(3) + opt_ip(50, ip4(10, 0, 0, 50)) + OPT_END}.bytes();
    for (const int flags : {0, 1}) {
        debug(flags);
        // Every truncation of a frame that would be recorded.
        for (size_t length = 0; length < good.size(); length++) {
            world.clear();
            receive(Bytes(good.begin(), good.begin() + static_cast<ptrdiff_t>(length)), {.l2 = 14, .etherType = 0x0800});
            ASSERT_EQ(world.all(Did::Frame).size(), 0u) << length;
            if (flags == 1) {
                ASSERT_EQ(debug_texts().back(), "[DHCPSNOOP] Parse packet error, stop process!\r\n") << length;
            }
        }
        debug(0);
        EXPECT_EQ(world_state(), before);
    }
    receive(good);
    EXPECT_NE(world_state(), before);
}

} // namespace
