// Checksums, and a frame's lengths after its message changed.
#include "scene.h"

namespace
{

std::string sum(const char *text, int32_t length = -100) // -100: all
{
    const Bytes bytes = hex_bytes(text);
    return world_format("%04x", checkdhcpsnoopsum(bytes.data(), length == -100 ? static_cast<int32_t>(bytes.size()) : length));
}

// Of this datagram between 10.1.2.3 and 10.9.8.7, and its header afterwards.
std::string udp_sum(Bytes udp)
{
    const Bytes ip = hex_bytes("45 00 00 1f 00 00 00 00 40 11 00 00 0a 01 02 03 0a 09 08 07");
    const uint16_t sum = dhcpsnoop_get_udp_checksum(ip.data(), udp.data());
    return world_format("%04x, ", sum) + world_hex(udp.data(), 8);
}

TEST(Checksum, InternetAndUdp)
{
    const Bytes most(2048, 0xFF);
    EXPECT_EQ(checkdhcpsnoopsum(most.data(), 2048), 0);
    const uint16_t longest = internet_checksum(hex_bytes("0a 01 02 03 0a 09 08 07 00 11 07 f4 00 44 00 43 07 f4 00 00") + Bytes(2028, 7));
    check({
        {"RFC 1071 3: 0001 f203 f4f5 f6f7 add up to ddf2", sum("00 01 f2 03 f4 f5 f6 f7"), "220d"},
        {"an IPv4 header of RFC 791's form, checked with an independent dissector", sum("45 00 00 73 00 00 40 00 40 11 00 00 c0 a8 00 01 c0 a8 00 c7"), "b861"},
        {"a last odd byte is the high byte of a word", sum("12 34 56"), "97cb"},
        {"one byte", sum("01"), "feff"},
        {"no bytes", sum(""), "ffff"},
        {"a negative length is no bytes", sum("01 02", -1), "ffff"},
        {"the carry of the fold is folded too", sum("ff ff ff ff 00 01"), "fffe"},
        {"only the length counts", sum("00 01 ff ff", 2), "fffe"},
        {"UDP, as scapy computes it for sport=68, dport=67 and 1 2 3; the field it was given is cleared", udp_sum(hex_bytes("00 44 00 43 00 0b ab cd 01 02 03")), "dd3b, 00 44 00 43 00 0b 00 00"},
        {"Kept: a sum that comes out as zero stays zero, where RFC 768 sends all ones", udp_sum(hex_bytes("00 44 00 43 00 0a 00 00 e1 3f")), "0000, 00 44 00 43 00 0a 00 00"},
        {"the longest datagram, 2036", udp_sum(hex_bytes("00 44 00 43 07 f4 ab cd") + Bytes(2028, 7)), world_format("%04x, 00 44 00 43 07 f4 00 00", longest)},
        {"one byte more", udp_sum(hex_bytes("00 44 00 43 07 f5 ab cd") + Bytes(2029, 7)), "0000, 00 44 00 43 07 f5 ab cd"},
    });
}

using Update = Daemon;

TEST_F(Update, LengthsFollowTheMessage)
{
    const struct {
        const char *claim;
        uint32_t delta, grow;
        int change;
    } rows[] = {{"only recomputed", 0, 1, 0}, {"grow", 3, 1, 3}, {"anything but 1 shrinks", 5, 2, -5}, {"more than there is", 10'000, 0, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        Frame frame = {.ipChecksum = 0x1111, .srcIp = SERVER, .dstIp = HOST, .ipOptions = hex_bytes("94 04 00 00"), .udpChecksum = 0x2222, .options = hex_bytes("35 01 01 0c 05 61 62 63 64 65 ff")};
        Parsed parsed(frame);
        const uint16_t sum = dhcpsnoop_update_checksum(&parsed.info, row.delta, row.grow);
        // As if the frame had been built with that many option bytes.
        frame.ipChecksum.reset();
        frame.udpChecksum.reset();
        frame.options.resize(frame.options.size() + static_cast<size_t>(row.change), 0);
        EXPECT_EQ(dump(parsed.bytes()), dump(frame.bytes()));
        const auto message = static_cast<uint32_t>(frame.message().size());
        const DhcpsnoopPktInfo &info = parsed.info;
        EXPECT_TRUE(info.frameLen == message + 46 && info.ipBodyLen == message + 8 && info.udpLen == message + 8 && info.dhcpLen == message);
        EXPECT_EQ(sum, info.udpHdr[6] << 8 | info.udpHdr[7]);
    }
    Parsed parsed(Frame{});
    for (const uint32_t udpLen : {2048u - 34 + 1, 5000u}) { // one byte beyond the buffer, and beyond any
        parsed.info.udpLen = udpLen;
        parsed.info.udpHdr[6] = 0xAA;
        EXPECT_EQ(dhcpsnoop_update_checksum(&parsed.info, 0, 0), 0);
        EXPECT_EQ(parsed.info.udpHdr[6] << 8 | parsed.info.udpHdr[7], 0);
    }
    EXPECT_EQ(dhcpsnoop_update_checksum(nullptr, 0, 0), 0);
}

} // namespace
