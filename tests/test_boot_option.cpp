// Options 67 (RFC 2132 9.5) and 125 (RFC 3925 4) put into replies, with option 82 kept last.
#include "scene.h"

namespace
{

using BootOption = Daemon;

const Bytes OWN82 = opt(82, opt(2, {1, 2})), FULL82 = opt(82, Bytes(253, 1)), ACK_TYPE = opt_type(ACK), UNCHANGED;

Bytes option125(const Bytes &data)
{
    const auto length = static_cast<uint8_t>(data.size());
    return Bytes{125, static_cast<uint8_t>(length + 7)} + be32(32473) + Bytes{static_cast<uint8_t>(length + 2), 4, length} + data;
}

// Zeroes and this end, in a frame of that length.
Bytes filled(size_t frameLength, const Bytes &end) { return Bytes(frameLength - 282 - end.size(), 0) + end; }

TEST_F(BootOption, Insertion)
{
    prepare("");
    for (const bool vendor : {false, true}) {
        const auto insert = vendor ? dhcpsnoop_insert_opt125 : dhcpsnoop_insert_opt67;
        const auto option = [vendor](size_t length) { return vendor ? option125(Bytes(length, 'b')) : opt(67, Bytes(length, 'b')); };
        const uint8_t number = vendor ? 125 : 67;
        const uint32_t most = vendor ? 246 : 253;
        const Bytes own = option(3), there = opt(number, {1}), other = opt(vendor ? 67 : 125, {1});
        const std::string invalid = world_format("option%u len is invalid!", number), tooLong = world_format("Packet len exceeds the max, don't insert option%u!", number);
        const size_t before = 2048 - own.size(); // the longest frame with room for it
        const struct {
            const char *claim;
            Bytes options, after;
            uint32_t length = 3;
            std::string said = "";
        } rows[] = {
            {"over the end option", ACK_TYPE + OPT_END, ACK_TYPE + own + OPT_END},
            {"padding behind the end is covered", ACK_TYPE + OPT_END + Bytes(2, 9), ACK_TYPE + own + OPT_END + Bytes(2, 0)},
            {"before option 82", ACK_TYPE + OWN82 + OPT_END, ACK_TYPE + own + OWN82 + OPT_END},
            {"and what follows it", OWN82 + ACK_TYPE + OPT_END + Bytes(2, 9), own + OWN82 + ACK_TYPE + OPT_END + Bytes(2, 9)},
            {"already there", there + OPT_END, UNCHANGED},
            {"the other one does not count", other + OPT_END, other + own + OPT_END},
            {"no end option", ACK_TYPE + Bytes{0}, UNCHANGED},
            {"length 0", OPT_END, UNCHANGED, 0, invalid},
            {"the greatest length", OPT_END, option(most) + OPT_END, most},
            {"one more", OPT_END, UNCHANGED, most + 1, invalid},
            {"length 256, the room that nothing filled", OPT_END, UNCHANGED, 256, invalid},
            {"a length that wraps", OPT_END, UNCHANGED, vendor ? 0xFFFFFFF7 : 0xFFFFFFFE, invalid},
            {"up to a frame of 2048", filled(before, OPT_END), filled(2048, own + OPT_END)},
            {"not to 2049", filled(before + 1, OPT_END), UNCHANGED, 3, tooLong},
            {"up to a frame of 2048 before option 82", filled(before, OWN82 + OPT_END), filled(2048, own + OWN82 + OPT_END)},
            {"256 bytes from option 82 on", FULL82 + OPT_END, own + FULL82 + OPT_END},
            {"257 bytes from option 82 on", FULL82 + OPT_END + Bytes{0}, UNCHANGED, 3, world_format("option-82 is not the last option, don't insert option%u!", number)},
        };
        for (const auto &row : rows) {
            SCOPED_TRACE(world_format("option %u, %s", number, row.claim));
            const Bytes data(300, 'b');
            Parsed parsed(Frame{.options = row.options});
            const DhcpsnoopRxPkt unchanged = parsed.rx;
            world.clear();
            insert(&parsed.info, data.data(), row.length);
            EXPECT_EQ(unsaid(world_format("Insert option%u, len is %d.", number, static_cast<int>(row.length)) + (row.said.empty() ? "" : "|" + row.said)), "");
            EXPECT_EQ(world.texts(Did::Debug).size(), row.said.empty() ? 1u : 2u);
            if (row.after.empty()) {
                EXPECT_EQ(memcmp(&unchanged, &parsed.rx, sizeof unchanged), 0);
                continue;
            }
            EXPECT_EQ(dump(parsed.bytes()), dump(Frame{.options = row.after}.bytes()));
            EXPECT_EQ(*parsed.info.optEnd, 255); // the pointers followed
            EXPECT_EQ(parsed.info.opt82 == nullptr ? 82 : *parsed.info.opt82, 82);
        }
        insert(nullptr, nullptr, 0);
    }
}

} // namespace
