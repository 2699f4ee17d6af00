// The DHCPv6 parser: each rung of its ladder in pairs, each option, lengths that lie; address kinds, the UDP
// checksum over IPv6, the option finder.
#include "daemon_test.h"

#include <algorithm>

#include "dhcp6snoop_msg.h"
#include "dhcpv6_frames.h"

namespace
{

using Parse6 = DaemonOnPort1;

const Bytes ELAPSED = opt6(8, {0, 0});

// The builder of these tests against an encoder that shares nothing with it.
TEST_F(Parse6, TheFrameBuilderAgreesWithScapy)
{
    const Bytes clientId = hex_bytes("0001 000a 0003 0001 02c1 0000 0001");
    const Bytes serverId = hex_bytes("0002 000a 0003 0001 025e 0000 0001");
    Frame6 solicit = client6(1, clientId + ELAPSED + ia_na({}));
    EXPECT_EQ(hex(solicit.bytes()), hex(hex_bytes(SOLICIT)));
    solicit.tags = {{0x8100, 10}};
    EXPECT_EQ(hex(solicit.bytes()), hex(hex_bytes(SOLICIT_TAGGED)));
    Frame6 refused = server6(7, clientId + serverId + ia_na(status6(2, "none left")));
    refused.xid = 0x10A2B4;
    EXPECT_EQ(hex(refused.bytes()), hex(hex_bytes(REPLY_REFUSED)));
}

TEST_F(Parse6, EveryFieldOfAnOrdinaryFrame)
{
    // Two tags, options in front and padding: nothing is where it is in the simplest frame.
    Frame6 frame = server6(7, ELAPSED + status6(5, "x") + ia_na(iaaddr("2001:db8::1", 60)) +
                                  opt6(18, {1, 2, 3}) + ia_ta({}) + opt6(37, be32(9)) + ia_na({}));
    frame.tags = {{0x88A8, 0x2064}, {0x8100, 0x0014}};
    frame.padding = Bytes(7, 0xEE);
    const Parsed parsed(frame, {.port = 1, .outer = 100, .inner = 20});
    ASSERT_EQ(parsed.result, 0);
    const DhcpsnoopPktInfo &info = parsed.info;
    const uint8_t *base = parsed.rx.data;
    const uint32_t payload = static_cast<uint32_t>(frame.bytes().size()) - 22 - 40 - 7;
    EXPECT_EQ((std::vector<uint32_t>{info.ethType, info.svlan, info.cvlan, info.msgType, info.statusCode, info.ipHdrLen}), (std::vector<uint32_t>{0x86DD, 100, 20, 7, 5, 40}));
    EXPECT_EQ((std::vector<uint32_t>{info.rxLen, info.frameLen, info.ipBodyLen, info.udpLen, info.dhcpLen}), (std::vector<uint32_t>{22 + 40 + payload + 7, 22 + 40 + payload, payload, payload, payload - 8}));
    EXPECT_TRUE(info.ipHdr == base + 22 && info.ipTotLen == base + 26 && info.udpHdr == base + 62 && info.udpLenField == base + 66 && info.dhcpMsg == base + 70 && info.chaddr == nullptr);
    const uint8_t *options = base + 74;
    ASSERT_EQ(info.iaCount, 3u);
    EXPECT_TRUE(info.iaOpts[0] == options + 13 && info.iaOpts[1] == options + 64 && info.iaOpts[2] == options + 80);
    EXPECT_TRUE(info.interfaceIdOpt == options + 57 && info.remoteIdOpt == options + 72);
    EXPECT_EQ(debug_texts(), (Lines{"[DHCPSNOOP] svlan 100, cvlan 20.\r\n",
                                    "[DHCPSNOOP] Src_port 547, ip6_start 22, udp6_start 62, dh6_start 70.\r\n"}));
}

// A message of that many bytes: type, transaction id, then an option that fills the rest.
Frame6 message_of(size_t length)
{
    Bytes message = {1, 0x10, 0xA2, 0xB3};
    if (length >= 8)
        message = message + opt6(1, Bytes(length - 8, 0));
    message.resize(length);
    return Frame6{.message = message};
}

Frame6 with(Frame6 frame, auto &&change)
{
    change(frame);
    return frame;
}

// A SOLICIT's bytes, changed.
Bytes changed(auto &&change) { return with(client6(1), change).bytes(); }

Bytes cut(Bytes frame, size_t count)
{
    frame.resize(frame.size() - count);
    return frame;
}

const Bytes HOP_BY_HOP = hex_bytes("11 00 01 04 00 00 00 00"); // next header UDP, PadN

TEST_F(Parse6, Ladder)
{
    const std::string tooShort = "[DHCPSNOOP] Packet validate: total length is error!\r\n";
    const std::string udp = "[DHCPSNOOP] Packet validate: udp length is error!\r\n";
    const std::string relayed = "[DHCPSNOOP] Relay-server message, stop process!\r\n";
    const std::string passed = "[DHCPSNOOP] Src_port %d, ip6_start 14, udp6_start 54, dh6_start 62.\r\n";
    const Bytes plain = client6(1, ELAPSED).bytes();
    const struct {
        const char *claim;
        Bytes frame;
        int32_t result;
        std::string text; // the last one, "" = none
        uint16_t port = 546;
    } rows[] = {
        {"from port 546", plain, 0, ""},
        {"from port 547", changed([](Frame6 &f) { f.srcPort = 547; }), 0, "", 547},
        // The source port alone tells DHCPv6.
        {"from 547 to 546", changed([](Frame6 &f) { f.srcPort = 547, f.dstPort = 546; }), 0, "", 547},
        {"from 546 to anywhere", changed([](Frame6 &f) { f.dstPort = 53; }), 0, ""},
        {"from 545", changed([](Frame6 &f) { f.srcPort = 545; }), -1, "none", 0},
        {"from 548 to 547", changed([](Frame6 &f) { f.srcPort = 548; }), -1, "none", 0},
        {"TCP", changed([](Frame6 &f) { f.nextHeader = 6; }), -1, "none", 0},
        {"fragment header", changed([](Frame6 &f) { f.nextHeader = 44, f.extension = hex_bytes("11 00 00 01 00 00 00 01"); }), -1, "none", 0},
        // Kept: what follows an extension header is judged by its own first byte, so that a message behind
        // one is never snooped.
        {"hop-by-hop header in front of UDP", changed([](Frame6 &f) { f.nextHeader = 0, f.extension = HOP_BY_HOP; }), -1, "none", 0},
        {"routing header", changed([](Frame6 &f) { f.nextHeader = 43, f.extension = HOP_BY_HOP; }), -1, "none", 0},
        {"destination options", changed([](Frame6 &f) { f.nextHeader = 60, f.extension = HOP_BY_HOP; }), -1, "none", 0},
        // ... but its first byte 17 is taken for UDP: the ports are those 8 bytes' own.
        {"a second extension header misread as UDP, port 0x1100",
         changed([](Frame6 &f) { f.nextHeader = 60, f.extension = HOP_BY_HOP + HOP_BY_HOP; }),
         -1, "none", 0},
        {"an extension header that passes the frame",
         changed([](Frame6 &f) { f.nextHeader = 0, f.extension = hex_bytes("11 ff 01 04 00 00 00 00"); }),
         -1, "none", 0},
        {"one byte missing", cut(plain, 1), -1, tooShort},
        {"ten bytes more", plain + Bytes(10, 0xEE), 0, ""},
        {"UDP longer by one", with(client6(1, ELAPSED), [](Frame6 &f) { f.udpLen = 8 + 4 + 6 + 1; }).bytes(), -1, udp},
        {"UDP shorter by one", with(client6(1, ELAPSED), [](Frame6 &f) { f.udpLen = 8 + 4 + 6 - 1; }).bytes(), 0, ""},
        {"no UDP length at all", changed([](Frame6 &f) { f.udpLen = 0; }), 0, ""},
        {"type and transaction id alone", message_of(4).bytes(), 0, ""},
        {"one byte less", message_of(3).bytes(), -1, ""},
        {"no message", message_of(0).bytes(), -1, ""},
        {"payload shorter than the UDP header", changed([](Frame6 &f) { f.payloadLen = 7, f.udpLen = 7; }), -1, ""},
        {"payload of 0", changed([](Frame6 &f) { f.payloadLen = 0, f.udpLen = 0; }), -1, ""},
        {"payload of 65535", changed([](Frame6 &f) { f.payloadLen = 65535; }), -1, tooShort},
        {"RELAY-FORW", client6(12).bytes(), -1, relayed},
        {"RELAY-REPL", server6(13).bytes(), -1, relayed, 547},
        {"a message of 14", client6(14).bytes(), 0, ""},
        {"a frame that ends in the IPv6 header", cut(plain, plain.size() - 40), -1, "none", 0},
        {"a full frame", message_of(2048 - 62).bytes(), 0, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.clear();
        const Parsed parsed(row.frame);
        EXPECT_EQ(parsed.result, row.result);
        Lines expected = {"[DHCPSNOOP] svlan 4096, cvlan 10.\r\n"};
        if (row.text != "none") {
            const size_t at = passed.find("%d");
            expected.push_back(std::string(passed).replace(at, 2, std::to_string(row.port)));
            if (!row.text.empty())
                expected.push_back(row.text);
        }
        EXPECT_EQ(debug_texts(), expected);
        EXPECT_TRUE(row.result != 0 || parsed.info.frameLen <= row.frame.size());
    }
    const Parsed padded(plain + Bytes(10, 0xEE));
    EXPECT_EQ(padded.info.frameLen, plain.size());
    EXPECT_EQ(padded.info.rxLen, plain.size() + 10);
}

TEST_F(Parse6, WithoutFullParseOnlyThePortIsTested)
{
    Parsed parsed(client6(12));
    DhcpsnoopPktInfo info = {};
    info.frame = parsed.rx.data;
    info.frameLen = 70; // too short for what the headers say
    info.l2HdrLen = 14;
    info.ipHdr = parsed.rx.data + 14;
    world.clear();
    for (const uint32_t full : {0u, 2u})
        EXPECT_EQ(dhcp6snoop_packet_parse(&info, full), 0);
    EXPECT_TRUE(info.udpHdr == nullptr && info.dhcpMsg == nullptr && info.msgType == 0 && info.ipBodyLen == 0);
    EXPECT_EQ(debug_texts(), Lines{});
    parsed.rx.data[55] = 0; // port 0x0200
    EXPECT_EQ(dhcp6snoop_packet_parse(&info, 0), -1);
    EXPECT_EQ(dhcp6snoop_packet_parse(nullptr, 1), -1);
}

TEST_F(Parse6, ScopeIndexLeavesTheSourceAddress)
{
    const struct {
        const char *claim, *from, *to;
    } rows[] = {
        {"link-local", "fe80:1234::1", "fe80::1"},
        {"link-local, to the last prefix bit", "febf:ffff:5::1", "febf:0:5::1"},
        {"site-local keeps it", "fec0:1234::1", "fec0:1234::1"},
        {"global keeps it", "2001:db8::1", "2001:db8::1"},
        {"multicast keeps it", "ff02:1234::1", "ff02:1234::1"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        Frame6 frame = client6(1);
        frame.srcIp = ip6(row.from);
        const Parsed parsed(frame);
        EXPECT_EQ(parsed.result, 0);
        frame.udpChecksum = static_cast<uint16_t>(frame.bytes()[60] << 8 | frame.bytes()[61]);
        frame.srcIp = ip6(row.to); // the checksum is as it was
        EXPECT_EQ(hex(parsed.bytes()), hex(frame.bytes()));
    }
}

TEST_F(Parse6, Options)
{
    struct Found {
        uint32_t status;
        int interfaceId, remoteId; // offsets in the option area, -1 = none
        std::vector<int> ias;
    };
    // claim, options, found
    const std::tuple<const char *, Bytes, Found> rows[] = {
        {"none", {}, {0, -1, -1, {}}},
        {"the last status counts", status6(2) + status6(3), {3, -1, -1, {}}},
        {"a status of one byte does not", status6(2) + opt6(13, {9}) + ELAPSED, {2, -1, -1, {}}},
        {"a status of two bytes does", opt6(13, {1, 2}), {0x102, -1, -1, {}}},
        {"the last Interface-Id counts", opt6(18, {1}) + opt6(18, {2, 3}), {0, 5, -1, {}}},
        {"the last Remote-Id counts", opt6(37, be32(1)) + opt6(37, be32(2)), {0, -1, 8, {}}},
        {"empty options count", opt6(18, {}) + opt6(37, {}), {0, 0, 4, {}}},
        {"code 3 and 4, not 25 (IA_PD)", opt6(25, Bytes(12, 0)) + ia_na({}) + ia_ta({}), {0, -1, -1, {16, 32}}},
        {"nested options are not looked at", ia_na(status6(2) + opt6(18, {1}) + opt6(37, be32(1)) + ia_ta({})), {0, -1, -1, {0}}},
        {"three bytes behind the last option", opt6(18, {1}) + Bytes{0, 18, 0}, {0, 0, -1, {}}},
        {"one byte behind the last option", opt6(18, {1}) + Bytes{0}, {0, 0, -1, {}}},
        {"a bare header at the end", opt6(18, {1}) + opt6(37, {}, 4), {0, 0, 5, {}}},
        {"an option that claims more than there is is recorded", opt6(18, {1}, 65531), {0, 0, -1, {}}},
        {"nothing behind it is", opt6(3, Bytes(12, 0), 65535) + opt6(18, {1}), {0, -1, -1, {0}}},
        {"a step of 65536 does not come round", opt6(1, {0, 0}, 65532) + opt6(18, {1}), {0, -1, -1, {}}},
        {"a status whose code is not there", opt6(13, {}, 2), {0, -1, -1, {}}},
        {"a status of which one byte is there", opt6(13, {7}, 2), {0, -1, -1, {}}},
    };
    for (const auto &[claim, options, found] : rows) {
        SCOPED_TRACE(claim);
        const Parsed parsed(client6(1, options));
        ASSERT_EQ(parsed.result, 0);
        const uint8_t *area = parsed.rx.data + 66;
        const auto at = [area](const uint8_t *option) {
            return option == nullptr ? -1 : static_cast<int>(option - area);
        };
        EXPECT_EQ(parsed.info.statusCode, found.status);
        EXPECT_EQ(at(parsed.info.interfaceIdOpt), found.interfaceId);
        EXPECT_EQ(at(parsed.info.remoteIdOpt), found.remoteId);
        ASSERT_EQ(parsed.info.iaCount, found.ias.size());
        for (size_t i = 0; i < found.ias.size(); i++)
            EXPECT_EQ(at(parsed.info.iaOpts[i]), found.ias[i]);
    }
}

// The option area is what the IPv6 payload holds, not what the UDP datagram holds.
TEST_F(Parse6, OptionsBehindTheDatagramCount)
{
    Frame6 frame = client6(1, ELAPSED);
    frame.slack = opt6(18, {1});
    const Parsed parsed(frame);
    EXPECT_EQ(parsed.info.interfaceIdOpt, parsed.rx.data + 66 + 6);
    frame.padding = frame.slack;
    frame.slack = {};
    EXPECT_EQ(Parsed(frame).info.interfaceIdOpt, nullptr);
}

TEST_F(Parse6, AtMostSixtyFourIas)
{
    for (const uint32_t count : {63u, 64u, 65u, 80u}) {
        SCOPED_TRACE(count);
        Bytes options;
        for (uint32_t i = 0; i < count; i++)
            options = options + (i % 2 == 0 ? ia_na({}, i) : ia_ta({}, i));
        const Parsed parsed(client6(1, options + opt6(18, {1})));
        ASSERT_EQ(parsed.info.iaCount, std::min(count, 64u));
        EXPECT_EQ(parsed.info.iaOpts[parsed.info.iaCount - 1][7], std::min(count, 64u) - 1); // its IAID
        EXPECT_NE(parsed.info.interfaceIdOpt, nullptr);                                      // the walk goes on
    }
}

// Frames at the very end of the buffer, where every header may begin and not end.
TEST_F(Parse6, NothingIsReadBehindTheBuffer)
{
    const Bytes full = message_of(2048 - 62).bytes();
    for (size_t l2 = 14; l2 <= 2060; l2++) {
        Bytes frame = Bytes(l2, 0x60) + Bytes(full.begin() + 14, full.end());
        frame.resize(2048);
        const Parsed parsed(frame, {.l2 = static_cast<uint16_t>(l2), .etherType = 0x86DD});
        if (parsed.result == 0) {
            EXPECT_LE(parsed.info.frameLen, 2048u);
        }
    }
    // Extension headers up to the buffer's end: each is skipped, the last one begins at or behind it.
    for (const uint8_t next : {uint8_t{0}, uint8_t{43}, uint8_t{60}}) {
        Bytes frame = client6(1).bytes();
        frame[20] = next;
        frame.resize(54);
        while (frame.size() < 2048)
            frame = frame + Bytes{next, 0, 0, 0, 0, 0, 0, 0};
        frame.resize(2048);
        EXPECT_EQ(Parsed(frame).result, -1);
        frame[54 + 8 * 100 + 1] = 255;
        EXPECT_EQ(Parsed(frame).result, -1);
    }
}

// The kernel's IPV6_ADDR_ bits for the ranges of RFC 4291 2.4.
TEST_F(Parse6, AddressKinds)
{
    const std::pair<uint32_t, std::vector<const char *>> rows[] = {
        {0, {"::"}},
        {0x1, {"2000::", "2001:db8::1", "3fff:ffff::1", "dfff::1"}},
        {0x2, {"ff0e::1", "ff00::1", "ff12::1", "ff32::1"}},
        {0x11, {"::1"}},
        {0x12, {"ff01::1"}},
        {0x21, {"fe80::1", "febf:ffff::1"}},
        {0x22, {"ff02::1:2"}},
        {0x41, {"fec0::1", "feff:ffff::1"}},
        {0x42, {"ff05::1:3"}},
        {0x81, {"::2", "::10.0.0.1"}},
        {0x1000, {"::ffff:10.0.0.1", "::ffff:0:0"}},
        {0x2000, {"1fff:ffff::1", "e000::1", "fe00::1", "fdff::1", "fe7f:ffff::1", "0:0:1::", "1::", "::1:0:0", "::fffe:10.0.0.1", "0:0:0:1::1"}},
    };
    for (const auto &[kind, addresses] : rows)
        for (const char *address : addresses)
            EXPECT_EQ(ipv6_addr_type(ip6(address).data()), kind) << address;
}

TEST_F(Parse6, UdpChecksum)
{
    for (const char *frame : {SOLICIT, SOLICIT_TAGGED, ADVERTISE, REQUEST_18_37, REPLY}) {
        Parsed parsed(hex_bytes(frame));
        ASSERT_EQ(parsed.result, 0);
        const auto sum = static_cast<uint16_t>(parsed.info.udpHdr[6] << 8 | parsed.info.udpHdr[7]);
        EXPECT_EQ(dhcp6snoop_get_udp_checksum(&parsed.info), 0); // with its own in place it adds up
        parsed.info.udpHdr[6] = parsed.info.udpHdr[7] = 0;
        EXPECT_EQ(dhcp6snoop_get_udp_checksum(&parsed.info), sum);
    }
    // An odd length; scapy's sum of
    // IPv6(src="fe80::1",dst="ff02::1:2")/UDP(sport=546,dport=547)/b"\1\2\3\4\5".
    Frame6 odd = {.srcIp = ip6("fe80::1"), .udpChecksum = 0, .message = Bytes{1, 2, 3, 4, 5}};
    const Parsed parsed(odd);
    EXPECT_EQ(dhcp6snoop_get_udp_checksum(&parsed.info), 0xF501);
}

TEST_F(Parse6, UdpChecksumOfTooLongADatagram)
{
    for (const uint32_t length : {2012u, 2013u, 65535u}) {
        Parsed parsed(message_of(2048 - 62));
        parsed.info.ipHdr = parsed.info.frame;
        parsed.info.udpHdr = parsed.info.frame + 36; // so much stands in front of it in the work buffer of 2048
        parsed.info.udpLen = length;
        EXPECT_EQ(dhcp6snoop_get_udp_checksum(&parsed.info) != 0, length == 2012) << length;
    }
}

TEST_F(Parse6, OptionFinder)
{
    const struct {
        const char *claim;
        Bytes area;
        uint32_t length; // 1000 = all
        int found;       // offset, -1 = none
    } rows[] = {
        {"the first one", opt6(5, {1}) + opt6(5, {2}), 1000, 0},
        {"behind another", opt6(1, {1, 2, 3}) + opt6(5, {2}), 1000, 7},
        {"behind an empty one", opt6(1, {}) + opt6(5, {}), 1000, 4},
        {"not there", opt6(1, {1}) + opt6(6, {1}), 1000, -1},
        // Kept: the first option counts whatever the length says.
        {"the first one, longer than the area", opt6(5, Bytes(20, 0)), 6, 0},
        {"the second begins where the area ends", opt6(1, {1}) + opt6(5, {1}), 5, -1},
        {"the second has three bytes in the area", opt6(1, {1}) + opt6(5, {1}), 8, -1},
        {"the second has its header in the area", opt6(1, {1}) + opt6(5, {1}), 9, 5},
        {"no area", opt6(5, {1}), 0, -1},
        {"a length that passes the area", opt6(1, {1}, 65535) + opt6(5, {1}), 1000, -1},
        {"a step of 65536", opt6(1, {}, 65532) + opt6(5, {1}), 1000, -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        Bytes area = row.area;
        const uint32_t length = row.length == 1000 ? static_cast<uint32_t>(area.size()) : row.length;
        const uint8_t *found = dhcp6snoop_get_opt(area.data(), 5, length);
        EXPECT_EQ(found == nullptr ? -1 : static_cast<int>(found - area.data()), row.found);
    }
    EXPECT_EQ(dhcp6snoop_get_opt(nullptr, 5, 8), nullptr);
}

} // namespace
