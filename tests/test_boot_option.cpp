// Options 67 (RFC 2132 9.5) and 125 (RFC 3925 4) put into replies, with option 82 kept last.
#include "daemon_test.h"

namespace
{

class BootOption : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        world.access(1, 10);
        snoop(1);
        debug(1);
    }
};

const Bytes NONE, OWN82 = opt(82, opt(2, {1, 2}));

Bytes option125(const Bytes &data)
{
    const auto length = static_cast<uint8_t>(data.size());
    return Bytes{125, static_cast<uint8_t>(length + 7)} + be32(32473) + Bytes{static_cast<uint8_t>(length + 2), 4, length} + data;
}

Frame reply_of(size_t frameLength, const Bytes &end)
{
    return Frame{.op = 2, .options = Bytes(frameLength - 282 - end.size(), 0) + end};
}

struct Row {
    const char *claim;
    Frame frame;
    uint32_t length;
    Bytes options; // of the frame afterwards; "" = unchanged
    const char *text;
};

void check(uint32_t number, void (*insert)(DhcpsnoopPktInfo *, const uint8_t *, uint32_t), const std::vector<Row> &rows)
{
    for (const Row &row : rows) {
        SCOPED_TRACE(world_format("option %u, %s", number, row.claim));
        const Bytes data(300, 'b');
        Parsed parsed(row.frame);
        const DhcpsnoopRxPkt before = parsed.rx;
        world.clear();
        insert(&parsed.info, data.data(), row.length);
        Lines texts = {world_format("[DHCPSNOOP] Insert option%u, len is %d.\r\n", number, static_cast<int>(row.length))};
        if (*row.text != '\0')
            texts.push_back(std::string("[DHCPSNOOP] ") + row.text + "\r\n");
        EXPECT_EQ(debug_texts(), texts);
        if (row.options.empty()) {
            EXPECT_EQ(memcmp(&before, &parsed.rx, sizeof before), 0);
            continue;
        }
        Frame expected = row.frame;
        expected.options = row.options;
        EXPECT_EQ(dump(parsed.bytes()), dump(expected.bytes()));

        // The pointers followed, so that a strip afterwards finds option 82 and leaves the inserted option.
        if (parsed.info.opt82 != nullptr) {
            EXPECT_EQ(*parsed.info.opt82, 82);
            EXPECT_EQ(*parsed.info.optEnd, 255);
            dhcpsnoop_strip_option(&parsed.info);
            EXPECT_EQ(option_of(parsed.bytes(), 82), std::nullopt);
            EXPECT_EQ(option_of(parsed.bytes(), static_cast<uint8_t>(number))->back(), 'b');
            EXPECT_EQ(*parsed.info.optEnd, 255);
        }
    }
}

TEST_F(BootOption, BootFileName)
{
    const Bytes b3(3, 'b'), b253(253, 'b');
    const char *invalid = "option67 len is invalid!";
    const char *tooLong = "Packet len exceeds the max, don't insert option67!";
    const char *notLast = "option-82 is not the last option, don't insert option67!";
    check(67, dhcpsnoop_insert_opt67, {
                                          {"over the end option", Frame{.options = opt_type(5) + OPT_END}, 3, opt_type(5) + opt(67, b3) + OPT_END, ""},
                                          {"padding behind the end is covered", Frame{.options = opt_type(5) + OPT_END + Bytes(2, 9)}, 3, opt_type(5) + opt(67, b3) + OPT_END + Bytes(2, 0), ""},
                                          {"before option 82", Frame{.options = opt_type(5) + OWN82 + OPT_END}, 3, opt_type(5) + opt(67, b3) + OWN82 + OPT_END, ""},
                                          {"before option 82 and what follows it", Frame{.options = OWN82 + opt_type(5) + OPT_END + Bytes(2, 9)}, 3, opt(67, b3) + OWN82 + opt_type(5) + OPT_END + Bytes(2, 9), ""},
                                          {"already there", Frame{.options = opt(67, {1}) + OPT_END}, 3, NONE, ""},
                                          {"no end option", Frame{.options = opt_type(5) + Bytes{0}}, 3, NONE, ""},
                                          {"length 0", Frame{}, 0, NONE, invalid},
                                          {"length 253", Frame{}, 253, opt_type(1) + opt(67, b253) + OPT_END, ""},
                                          {"length 254", Frame{}, 254, NONE, invalid},
                                          {"length 256, the room that nothing filled", Frame{}, 256, NONE, invalid},
                                          {"a length that wraps", Frame{}, 0xFFFFFFFE, NONE, invalid},
                                          {"up to a frame of 2048", reply_of(2043, OPT_END), 3, Bytes(2043 - 283, 0) + opt(67, b3) + OPT_END, ""},
                                          {"not to 2049", reply_of(2044, OPT_END), 3, NONE, tooLong},
                                          {"up to a frame of 2048 before option 82", reply_of(2043, OWN82 + OPT_END), 3, Bytes(2043 - 282 - 7, 0) + opt(67, b3) + OWN82 + OPT_END, ""},
                                          {"256 bytes from option 82 on", Frame{.options = opt(82, Bytes(253, 1)) + OPT_END}, 3, opt(67, b3) + opt(82, Bytes(253, 1)) + OPT_END, ""},
                                          {"257 bytes from option 82 on", Frame{.options = opt(82, Bytes(253, 1)) + OPT_END + Bytes{0}}, 3, NONE, notLast},
                                      });
    dhcpsnoop_insert_opt67(nullptr, nullptr, 0);
}

TEST_F(BootOption, VendorIdentifying)
{
    const Bytes b3(3, 'b'), b246(246, 'b');
    const char *invalid = "option125 len is invalid!";
    const char *tooLong = "Packet len exceeds the max, don't insert option125!";
    const char *notLast = "option-82 is not the last option, don't insert option125!";
    check(125, dhcpsnoop_insert_opt125, {
                                            {"over the end option", Frame{.options = opt_type(5) + OPT_END}, 3, opt_type(5) + option125(b3) + OPT_END, ""},
                                            {"before option 82", Frame{.options = opt_type(5) + OWN82 + OPT_END}, 3, opt_type(5) + option125(b3) + OWN82 + OPT_END, ""},
                                            {"already there", Frame{.options = opt(125, {1}) + OPT_END}, 3, NONE, ""},
                                            {"a boot file name does not count", Frame{.options = opt(67, {1}) + OPT_END}, 3, opt(67, {1}) + option125(b3) + OPT_END, ""},
                                            {"no end option", Frame{.options = opt_type(5) + Bytes{0}}, 3, NONE, ""},
                                            {"length 0", Frame{}, 0, NONE, invalid},
                                            {"length 246", Frame{}, 246, opt_type(1) + option125(b246) + OPT_END, ""},
                                            {"length 247", Frame{}, 247, NONE, invalid},
                                            {"a length that wraps", Frame{}, 0xFFFFFFF7, NONE, invalid},
                                            {"up to a frame of 2048", reply_of(2036, OPT_END), 3, Bytes(2036 - 283, 0) + option125(b3) + OPT_END, ""},
                                            {"not to 2049", reply_of(2037, OPT_END), 3, NONE, tooLong},
                                            {"256 bytes from option 82 on", Frame{.options = opt(82, Bytes(253, 1)) + OPT_END}, 3, option125(b3) + opt(82, Bytes(253, 1)) + OPT_END, ""},
                                            {"257 bytes from option 82 on", Frame{.options = opt(82, Bytes(253, 1)) + OPT_END + Bytes{0}}, 3, NONE, notLast},
                                        });
    dhcpsnoop_insert_opt125(nullptr, nullptr, 0);
}

TEST_F(BootOption, BothBeforeOption82)
{
    Parsed parsed(Frame{.options = opt_type(5) + OWN82 + OPT_END});
    const Bytes data(3, 'b');
    dhcpsnoop_insert_opt67(&parsed.info, data.data(), 3);
    dhcpsnoop_insert_opt125(&parsed.info, data.data(), 3);
    EXPECT_EQ(hex(options_of(parsed.bytes())), hex(opt_type(5) + opt(67, data) + option125(data) + OWN82 + OPT_END));
}

} // namespace
