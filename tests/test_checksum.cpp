// Checksums, and a frame's lengths after its message changed.
#include "daemon_test.h"

namespace
{

TEST(Checksum, Internet)
{
    const struct {
        const char *claim;
        Bytes bytes;
        int32_t length; // -100 = all
        uint16_t sum;
    } rows[] = {
        {"RFC 1071 3: 0001 f203 f4f5 f6f7 add up to ddf2", hex_bytes("00 01 f2 03 f4 f5 f6 f7"), -100, 0x220D},
        {"an IPv4 header of RFC 791's form, checked with an independent dissector",
         hex_bytes("45 00 00 73 00 00 40 00 40 11 00 00 c0 a8 00 01 c0 a8 00 c7"), -100, 0xB861},
        {"the same with its checksum in place adds up to zero", hex_bytes("45 00 00 73 00 00 40 00 40 11 b8 61 c0 a8 00 01 c0 a8 00 c7"), -100, 0},
        {"a last odd byte is the high byte of a word", hex_bytes("12 34 56"), -100, 0x97CB},
        {"one byte", hex_bytes("01"), -100, 0xFEFF},
        {"no bytes", {}, -100, 0xFFFF},
        {"a negative length is no bytes", hex_bytes("01 02"), -1, 0xFFFF},
        {"the carry of the fold is folded too", hex_bytes("ff ff ff ff 00 01"), -100, 0xFFFE},
        {"only the length counts", hex_bytes("00 01 ff ff"), 2, 0xFFFE},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        const int32_t length = row.length == -100 ? static_cast<int32_t>(row.bytes.size()) : row.length;
        EXPECT_EQ(checkdhcpsnoopsum(row.bytes.data(), length), row.sum);
    }
    const Bytes most(2048, 0xFF);
    EXPECT_EQ(checkdhcpsnoopsum(most.data(), 2048), 0);
}

TEST(Checksum, UdpOverThePseudoHeader)
{
    // As scapy computes it for IP(src="10.1.2.3", dst="10.9.8.7")/UDP(sport=68, dport=67)/b"\1\2\3".
    Bytes ip = hex_bytes("45 00 00 1f 00 00 00 00 40 11 00 00 0a 01 02 03 0a 09 08 07");
    Bytes udp = hex_bytes("00 44 00 43 00 0b ab cd 01 02 03");
    EXPECT_EQ(dhcpsnoop_get_udp_checksum(ip.data(), udp.data()), 0xDD3B);
    EXPECT_EQ(hex(udp), "00 44 00 43 00 0b 00 00 01 02 03"); // the field it was given is cleared

    // Kept: a sum that comes out as zero stays zero, where RFC 768 sends all ones.
    Bytes zero = hex_bytes("00 44 00 43 00 0a 00 00") + be16(0xE13F);
    EXPECT_EQ(internet_checksum(hex_bytes("0a 01 02 03 0a 09 08 07 00 11 00 0a") + zero), 0);
    EXPECT_EQ(dhcpsnoop_get_udp_checksum(ip.data(), zero.data()), 0);
}

TEST(Checksum, UdpLengthLimit)
{
    Bytes ip = hex_bytes("45 00 00 00 00 00 00 00 40 11 00 00 0a 01 02 03 0a 09 08 07");
    Bytes longest = hex_bytes("00 44 00 43 07 f4 ab cd") + Bytes(2028, 7); // 2036
    const uint16_t expected = internet_checksum(hex_bytes("0a 01 02 03 0a 09 08 07 00 11 07 f4") + hex_bytes("00 44 00 43 07 f4 00 00") + Bytes(2028, 7));
    EXPECT_EQ(dhcpsnoop_get_udp_checksum(ip.data(), longest.data()), expected);
    Bytes tooLong = hex_bytes("00 44 00 43 07 f5 ab cd") + Bytes(2029, 7); // 2037
    EXPECT_EQ(dhcpsnoop_get_udp_checksum(ip.data(), tooLong.data()), 0);
    EXPECT_EQ(hex(Bytes(tooLong.begin(), tooLong.begin() + 8)), "00 44 00 43 07 f5 ab cd");
}

using Update = Daemon;

TEST_F(Update, LengthsFollowTheMessage)
{
    const struct {
        const char *claim;
        uint32_t delta, grow;
        int change;
    } rows[] = {
        {"delta 0 only recomputes", 0, 1, 0},
        {"delta 0, shrinking", 0, 0, 0},
        {"grow", 4, 1, 4},
        {"an odd number", 3, 1, 3},
        {"shrink", 4, 0, -4},
        {"anything but 1 shrinks", 5, 2, -5},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        const Frame frame = {.ipChecksum = 0x1111, .srcIp = ip4(10, 0, 0, 1), .dstIp = ip4(10, 0, 0, 2), .ipOptions = hex_bytes("94 04 00 00"), .udpChecksum = 0x2222, .options = hex_bytes("35 01 01 0c 05 61 62 63 64 65 ff")};
        Parsed parsed(frame);
        DhcpsnoopPktInfo &info = parsed.info;
        const uint32_t frameLen = info.frameLen, ipBodyLen = info.ipBodyLen, udpLen = info.udpLen,
                       dhcpLen = info.dhcpLen;
        const uint16_t sum = dhcpsnoop_update_checksum(&info, row.delta, row.grow);
        const auto change = static_cast<uint32_t>(row.change);
        EXPECT_EQ(info.frameLen, frameLen + change);
        EXPECT_EQ(info.ipBodyLen, ipBodyLen + change);
        EXPECT_EQ(info.udpLen, udpLen + change);
        EXPECT_EQ(info.dhcpLen, dhcpLen + change);

        // As if the frame had been built with that many option bytes.
        Frame expected = frame;
        expected.ipChecksum.reset();
        expected.udpChecksum.reset();
        expected.options.resize(expected.options.size() + static_cast<size_t>(row.change), 0);
        EXPECT_EQ(dump(parsed.bytes()), dump(expected.bytes()));
        EXPECT_EQ(sum, info.udpHdr[6] << 8 | info.udpHdr[7]);
    }
}

TEST_F(Update, LengthsBeyondTheFrameAreNotFollowed)
{
    Parsed parsed(Frame{});
    DhcpsnoopPktInfo &info = parsed.info;
    for (const uint32_t udpLen : {2048u - 34 + 1, 5000u}) { // one byte beyond the buffer, and beyond any
        info.udpLen = udpLen;
        info.udpHdr[6] = 0xAA;
        EXPECT_EQ(dhcpsnoop_update_checksum(&info, 0, 0), 0);
    }
    EXPECT_EQ(info.udpHdr[6] << 8 | info.udpHdr[7], 0);

    Parsed small(Frame{});
    const uint32_t before = small.info.frameLen;
    dhcpsnoop_update_checksum(&small.info, 10'000, 0); // more than there is
    EXPECT_EQ(small.info.frameLen, before);
    EXPECT_EQ(dump(small.bytes()), dump(Frame{}.bytes()));
    EXPECT_EQ(dhcpsnoop_update_checksum(nullptr, 0, 0), 0);
}

} // namespace
