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
    const struct {
        const char *claim;
        uint8_t op;
        Bytes options;
        const char *text;
        const char *next; // a line of the path it goes to
    } rows[] = {
        {"offer", 2, opt_type(2) + OPT_END, "reply packet, type value 2(offer)", "Port is untrust,stop process!"},
        {"request", 1, opt_type(3) + OPT_END, "request packet, type value 3(request)",
         "User do not exist, add it to user table."},
        {"decline", 1, opt_type(4) + OPT_END, "request packet, type value 4(decline)",
         "Send packet to server, inport 1, vid 10, len 286."},
        {"ack", 2, opt_type(5) + OPT_END, "reply packet, type value 5(ack)", "Port is untrust,stop process!"},
        {"nak", 2, opt_type(6) + OPT_END, "reply packet, type value 6(nak)", "Port is untrust,stop process!"},
        {"release", 1, opt_type(7) + OPT_END, "request packet, type value 7(release)",
         "Send packet to server, inport 1, vid 10, len 286."},
        {"inform", 1, opt_type(8) + OPT_END, "request packet, type value 8(inform)",
         "Send packet to server, inport 1, vid 10, len 286."},
        {"9 is unknown", 1, opt_type(9) + OPT_END, "request packet, type value 9(unknow)",
         "Send packet to server, inport 1, vid 10, len 286."},
        {"255 is unknown", 1, opt_type(255) + OPT_END, "request packet, type value 255(unknow)",
         "Send packet to server, inport 1, vid 10, len 286."},
        {"no type at all, to the servers", 1, OPT_END, "request packet, type value 0(unknow)",
         "Send packet to server, inport 1, vid 10, len 283."},
        {"no type at all, from a server", 2, OPT_END, "reply packet, type value 0(unknow)",
         "Port is untrust,stop process!"},
        // Kept: the op byte alone decides.
        {"an ACK with op 1 is a client's", 1, opt_type(5) + OPT_END, "request packet, type value 5(ack)",
         "Send packet to server, inport 1, vid 10, len 286."},
        {"a DISCOVER with op 2 is a server's", 2, opt_type(1) + OPT_END,
         "reply packet, type value 1(discover)", "Port is untrust,stop process!"},
        {"op 3 goes nowhere", 3, opt_type(1) + OPT_END, "reply packet, type value 1(discover)", "Process pkt end."},
        {"op 0 goes nowhere", 0, opt_type(1) + OPT_END, "reply packet, type value 1(discover)", "Process pkt end."},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.clear();
        debug(1);
        receive(Frame{.op = row.op, .options = row.options});
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
    const struct {
        const char *claim;
        uint32_t version;
        uint16_t etherType; // by the socket it came from
        std::string mismatch;
    } rows[] = {
        {"IPv4 on IPv4", 1, 0x0800, ""},
        {"IPv4 on both", 3, 0x0800, ""},
        {"IPv4 on IPv6 only", 2, 0x0800, v4},
        // Kept: an interface that snoops neither version is named "IPv6".
        {"IPv4 on neither", 0, 0x0800, v4},
        {"from the IPv6 socket on IPv4 only", 1, 0x86DD, v6},
        {"from the IPv6 socket on neither", 0, 0x86DD,
         "[DHCPSNOOP] Interface version IPv6 and packet type IPv6 mismatch!\r\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.clear();
        debug(1);
        set_flag_field(dhcpsnoop_if_lookup(1), DHCPSNOOP_IF_VERSION, row.version);
        const std::string before = world_state();
        receive(Frame{.options = opt_type(3) + opt_ip(50, ip4(10, 0, 0, 50)) + OPT_END},
                {.etherType = row.etherType});
        const bool dropped = !row.mismatch.empty();
        EXPECT_EQ(sent_summary(), dropped ? "" : "2 292");
        EXPECT_EQ(printed("[DHCPSNOOP] Process pkt end.\r\n"), !dropped);
        if (dropped) {
            EXPECT_EQ(debug_texts().back(), row.mismatch);
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
            receive(Bytes(good.begin(), good.begin() + static_cast<ptrdiff_t>(length)),
                    {.l2 = 14, .etherType = 0x0800});
            ASSERT_EQ(world.all(Did::Frame).size(), 0u) << length;
            if (flags == 1) {
                ASSERT_EQ(debug_texts().back(), "[DHCPSNOOP] Parse packet error, stop process!\r\n")
                    << length;
            }
        }
        debug(0);
        EXPECT_EQ(world_state(), before);
    }
    receive(good);
    EXPECT_NE(world_state(), before);
}

} // namespace
