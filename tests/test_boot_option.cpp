// Options 67 (RFC 2132 9.5) and 125 (RFC 3925 4) put into replies, with option 82 kept last.
#include "daemon_test.h"

namespace
{

using BootOption = DaemonOnPort1;

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

TEST_F(BootOption, Insertion)
{
    const struct {
        uint32_t number;
        void (*insert)(DhcpsnoopPktInfo *, const uint8_t *, uint32_t);
        Bytes (*option)(const Bytes &data);
        uint32_t most, wraps; // lengths
    } kinds[] = {{67, dhcpsnoop_insert_opt67, [](const Bytes &data) { return opt(67, data); }, 253, 0xFFFFFFFE},
                 {125, dhcpsnoop_insert_opt125, option125, 246, 0xFFFFFFF7}};
    for (const auto &kind : kinds) {
        const Bytes own = kind.option(Bytes(3, 'b')), full82 = opt(82, Bytes(253, 1));
        const Bytes there = opt(static_cast<uint8_t>(kind.number), {1}), other = opt(kind.number == 67 ? 125 : 67, {1});
        const std::string invalid = world_format("option%u len is invalid!", kind.number);
        const std::string tooLong = world_format("Packet len exceeds the max, don't insert option%u!", kind.number);
        const std::string notLast = world_format("option-82 is not the last option, don't insert option%u!", kind.number);
        const size_t before = 2048 - own.size(); // the longest frame with room for it
        const struct {
            const char *claim;
            Frame frame;
            uint32_t length;
            Bytes options; // of the frame afterwards; "" = unchanged
            std::string text;
        } rows[] = {
            {"over the end option", Frame{.options = opt_type(5) + OPT_END}, 3, opt_type(5) + own + OPT_END, ""},
            {"padding behind the end is covered", Frame{.options = opt_type(5) + OPT_END + Bytes(2, 9)}, 3, opt_type(5) + own + OPT_END + Bytes(2, 0), ""},
            {"before option 82", Frame{.options = opt_type(5) + OWN82 + OPT_END}, 3, opt_type(5) + own + OWN82 + OPT_END, ""},
            {"and what follows it", Frame{.options = OWN82 + opt_type(5) + OPT_END + Bytes(2, 9)}, 3, own + OWN82 + opt_type(5) + OPT_END + Bytes(2, 9), ""},
            {"already there", Frame{.options = there + OPT_END}, 3, NONE, ""},
            {"the other one does not count", Frame{.options = other + OPT_END}, 3, other + own + OPT_END, ""},
            {"no end option", Frame{.options = opt_type(5) + Bytes{0}}, 3, NONE, ""},
            {"length 0", Frame{}, 0, NONE, invalid},
            {"the greatest length", Frame{}, kind.most, opt_type(1) + kind.option(Bytes(kind.most, 'b')) + OPT_END, ""},
            {"one more", Frame{}, kind.most + 1, NONE, invalid},
            {"length 256, the room that nothing filled", Frame{}, 256, NONE, invalid},
            {"a length that wraps", Frame{}, kind.wraps, NONE, invalid},
            {"up to a frame of 2048", reply_of(before, OPT_END), 3, Bytes(before - 283, 0) + own + OPT_END, ""},
            {"not to 2049", reply_of(before + 1, OPT_END), 3, NONE, tooLong},
            {"up to a frame of 2048 before option 82", reply_of(before, OWN82 + OPT_END), 3, Bytes(before - 282 - 7, 0) + own + OWN82 + OPT_END, ""},
            {"256 bytes from option 82 on", Frame{.options = full82 + OPT_END}, 3, own + full82 + OPT_END, ""},
            {"257 bytes from option 82 on", Frame{.options = full82 + OPT_END + Bytes{0}}, 3, NONE, notLast},
        };
        for (const auto &row : rows) {
            SCOPED_TRACE(world_format("option %u, %s", kind.number, row.claim));
            const Bytes data(300, 'b');
            Parsed parsed(row.frame);
            const DhcpsnoopRxPkt unchanged = parsed.rx;
            world.clear();
            kind.insert(&parsed.info, data.data(), row.length);
            Lines texts = {world_format("[DHCPSNOOP] Insert option%u, len is %d.\r\n", kind.number, static_cast<int>(row.length))};
            if (!row.text.empty())
                texts.push_back("[DHCPSNOOP] " + row.text + "\r\n");
            EXPECT_EQ(debug_texts(), texts);
            if (row.options.empty()) {
                EXPECT_EQ(memcmp(&unchanged, &parsed.rx, sizeof unchanged), 0);
                continue;
            }
            Frame expected = row.frame;
            expected.options = row.options;
            EXPECT_EQ(dump(parsed.bytes()), dump(expected.bytes()));

            // The pointers followed, so that a strip afterwards finds option 82 and leaves the inserted option.
            if (parsed.info.opt82 != nullptr) {
                EXPECT_TRUE(*parsed.info.opt82 == 82 && *parsed.info.optEnd == 255);
                dhcpsnoop_strip_option(&parsed.info);
                EXPECT_EQ(option_of(parsed.bytes(), 82), std::nullopt);
                EXPECT_EQ(option_of(parsed.bytes(), static_cast<uint8_t>(kind.number))->back(), 'b');
                EXPECT_EQ(*parsed.info.optEnd, 255);
            }
        }
        kind.insert(nullptr, nullptr, 0);
    }
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
