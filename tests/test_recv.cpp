// The one entry of every frame: dispatch, trace, and what each debug bit shows.
#include "scene.h"

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

} // namespace
