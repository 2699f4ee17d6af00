// The DHCPv4 frame parser: each rung of its ladder in pairs, each option, and lengths that lie.
#include "daemon_test.h"

namespace
{

using Parse = DaemonOnPort1;

const std::string SVLAN = "[DHCPSNOOP] svlan 4096, cvlan 10.\r\n";

TEST_F(Parse, EveryFieldOfAnOrdinaryFrame)
{
    // An ACK with two tags, IP options and padding: nothing is where it is in the simplest frame.
    const Frame frame = {.dst = MAC_CLIENT, .src = MAC_SERVER, .tags = {{0x88A8, 0x2064}, {0x8100, 0x0014}}, .srcIp = ip4(10, 0, 0, 1), .dstIp = ip4(10, 0, 0, 100), .ipOptions = hex_bytes("94 04 00 00"), .srcPort = 67, .dstPort = 68, .op = 2, .ciaddr = ip4(10, 0, 0, 99), .yiaddr = ip4(10, 0, 0, 100), .giaddr = ip4(10, 9, 9, 9), .options = opt_type(5) + opt_ip(3, ip4(10, 0, 0, 254)) + opt_lease(7200) + opt_ip(54, ip4(10, 0, 0, 1)) + opt(60, {1, 4, 0, 0, 1, 2}) + opt(67, {'b'}) + opt(82, {1, 2, 'c', 'c', 2, 1, 'r', 9, 0}) + opt(125, {0}) + OPT_END, .padding = Bytes(7, 0xEE)};
    const Parsed parsed(frame, {.port = 1, .outer = 100, .inner = 20});
    ASSERT_EQ(parsed.result, 0);
    const DhcpsnoopPktInfo &info = parsed.info;
    const uint8_t *base = parsed.rx.data;
    EXPECT_EQ(info.ifp, dhcpsnoop_if_lookup(1));
    const auto length = static_cast<uint32_t>(frame.bytes().size()), message = static_cast<uint32_t>(frame.message().size());
    EXPECT_EQ((std::vector<uint32_t>{info.ifIndex, info.rxTime, info.svlan, info.cvlan, info.ethType, info.msgType, info.opt60Sub1, info.leaseTime}), (std::vector<uint32_t>{1, 0, 100, 20, 0x0800, 5, 0x102, 7200}));
    EXPECT_EQ((std::vector<uint32_t>{info.rxLen, info.frameLen, info.l2HdrLen, info.ipHdrLen, info.ipBodyLen, info.udpLen, info.dhcpLen}), (std::vector<uint32_t>{length, length - 7, 22, 24, message + 8, message + 8, message}));
    EXPECT_EQ((std::vector<uint32_t>{info.srcIp, info.giaddr, info.router, info.serverId}), (std::vector<uint32_t>{ip4(10, 0, 0, 1), ip4(10, 9, 9, 9), ip4(10, 0, 0, 254), ip4(10, 0, 0, 1)}));
    EXPECT_EQ(world_hex(info.clientIp, 4), "0a 00 00 64");
    EXPECT_TRUE(info.frame == base && info.dstMac == base && info.srcMac == base + 6 && info.ethHdr == base);
    EXPECT_TRUE(info.ipHdr == base + 22 && info.ipTotLen == base + 24 && info.udpHdr == base + 46 && info.udpLenField == base + 50);
    EXPECT_TRUE(info.dhcpMsg == base + 54 && info.chaddr == base + 54 + 28);
    const uint8_t *options = base + 54 + 240;
    EXPECT_TRUE(info.opt60 == options + 21 && info.opt67 == options + 29 && info.opt82 == options + 32 && info.opt125 == options + 43 && info.optEnd == options + 46);
    EXPECT_TRUE(info.circuitId == options + 34 && info.remoteId == options + 38 && info.subopt9 == options + 41);
    EXPECT_EQ(debug_texts(), Lines{"[DHCPSNOOP] svlan 100, cvlan 20.\r\n"});
}

struct LadderRow {
    const char *claim;
    Bytes frame;
    Arrival arrival;
    int32_t result;
    const char *text; // after the VLAN line; "" = none
};

void check_ladder(const std::vector<LadderRow> &rows)
{
    for (const LadderRow &row : rows) {
        SCOPED_TRACE(row.claim);
        world.clear();
        const Parsed parsed(row.frame, row.arrival);
        EXPECT_EQ(parsed.result, row.result);
        Lines texts = debug_texts();
        if (!texts.empty() && texts[0] == SVLAN)
            texts.erase(texts.begin());
        EXPECT_EQ(texts, *row.text == '\0' ? Lines{} : Lines{row.text});
    }
}

// A frame whose BOOTP message is cut to that many bytes, every length true.
Bytes message_of(size_t length)
{
    Bytes message = Frame{.options = Bytes(length > 240 ? length - 240 : 0, 0)}.message();
    message.resize(length);
    return Frame{.payload = message}.bytes();
}

Bytes cut(Bytes frame, size_t count)
{
    frame.resize(frame.size() - count);
    return frame;
}

TEST_F(Parse, Ladder)
{
    ASSERT_EQ(Frame{}.bytes().size(), 286u);
    const std::string shortText = "[DHCPSNOOP] Len checking failed, ethernet header 14, ip header 20, total 286, received 285!\r\n";
    check_ladder({
        {"a DISCOVER", Frame{}.bytes(), {}, 0, ""},
        {"EtherType neither IPv4 nor IPv6", Frame{.etherType = 0x0806}.bytes(), {.l2 = 14, .etherType = 0x0806}, -1, "[DHCPSNOOP] This is not a IPv4 or IPv6 packet, stop process!\r\n"},
        {"IP version 5", Frame{.ipVersion = 5}.bytes(), {}, -1, "[DHCPSNOOP] This is not a IPv4 packet!\r\n"},
        {"header of 16 bytes", Frame{.ihl = 4}.bytes(), {}, -1, "[DHCPSNOOP] IPv4 header len must be larger than 20!\r\n"},
        {"header of 20 bytes", Frame{.ihl = 5}.bytes(), {}, 0, ""},
        {"header of 60 bytes", Frame{.ipOptions = Bytes(40, 1)}.bytes(), {}, 0, ""},
        {"total length below the header", Frame{.ipTotalLen = 19}.bytes(), {}, -1, "[DHCPSNOOP] Total len of ip must be larger than header len!\r\n"},
        {"total length of just the header: no UDP datagram in it", Frame{.ipTotalLen = 20}.bytes(), {}, -1, "[DHCPSNOOP] Udp len 252 must not exceed ip body len 0!\r\n"},
        {"one byte is missing", cut(Frame{}.bytes(), 1), {}, -1, shortText.c_str()},
        {"padding behind the datagram", Frame{.padding = Bytes(20, 0)}.bytes(), {}, 0, ""},
        {"not UDP", Frame{.protocol = 6}.bytes(), {}, -1, "[DHCPSNOOP] This is not a udp packet!\r\n"},
        {"ports 1234 to 67", Frame{.srcPort = 1234, .dstPort = 67}.bytes(), {}, 0, ""},
        {"ports 1234 to 68", Frame{.srcPort = 1234, .dstPort = 68}.bytes(), {}, 0, ""},
        {"ports 67 to 1234", Frame{.srcPort = 67, .dstPort = 1234}.bytes(), {}, 0, ""},
        {"ports 68 to 1234", Frame{.srcPort = 68, .dstPort = 1234}.bytes(), {}, 0, ""},
        {"ports 66 to 69", Frame{.srcPort = 66, .dstPort = 69}.bytes(), {}, -1, "[DHCPSNOOP] This is not a dhcp packet!\r\n"},
        {"UDP length beyond the IP body", Frame{.udpLen = 253}.bytes(), {}, -1, "[DHCPSNOOP] Udp len 253 must not exceed ip body len 252!\r\n"},
        {"UDP length short of the IP body", Frame{.udpLen = 251}.bytes(), {}, 0, ""},
        {"a message of 239 bytes", message_of(239), {}, -1, "[DHCPSNOOP] Message (len 247) is too short, stop process!\r\n"},
        {"a message of 240 bytes", message_of(240), {}, 0, ""},
        {"UDP length 0", Frame{.udpLen = 0}.bytes(), {}, -1, "[DHCPSNOOP] Message (len 0) is too short, stop process!\r\n"},
        {"neither checksum is verified", Frame{.ipChecksum = 1, .udpChecksum = 2}.bytes(), {}, 0, ""},
        {"the cookie is not checked", Frame{.cookie = 0}.bytes(), {}, 0, ""},
    });
}

TEST_F(Parse, LengthsThatLie)
{
    // The arithmetic of 16 bits lets these through the length test; the datagram is bounded all the same.
    const uint8_t tail[] = {53, 1, 1, 255};
    Bytes full = Frame{.options = Bytes(2048 - 14 - 28 - 240 - 4, 0) + Bytes(tail, tail + 4)}.bytes();
    ASSERT_EQ(full.size(), 2048u);
    Bytes wrapped = full;
    wrapped[16] = 0xFF; // IP total length 65522 + 14 = 65536
    wrapped[17] = 0xF2;
    Bytes wrappedFar = wrapped;
    wrappedFar[38] = 0xFF; // and a UDP length near it
    wrappedFar[39] = 0x00;
    Bytes ipEnd = Bytes(2048, 0x45);
    check_ladder({
        {"the whole buffer", full, {}, 0, ""},
        {"IP total length that wraps, datagram within the frame", wrapped, {}, 0, ""},
        {"IP total length that wraps, datagram beyond the frame", wrappedFar, {}, -1, ""},
        {"a layer-2 header that leaves no room for IP", ipEnd, {.l2 = 2029, .etherType = 0x0800}, -1, ""},
        {"a layer-2 header beyond the buffer", ipEnd, {.l2 = 65535, .etherType = 0x0800}, -1, ""},
        {"one byte captured", Bytes{0x45}, {.l2 = 14, .etherType = 0x0800}, -1, "[DHCPSNOOP] This is not a IPv4 packet!\r\n"},
        {"nothing captured, header at its start", Bytes{}, {.l2 = 0, .etherType = 0x0800}, -1, "[DHCPSNOOP] This is not a IPv4 packet!\r\n"},
    });

    // The last layer-2 header that leaves room: the IP header's 20 bytes end the buffer, the UDP header is outside.
    Bytes last(2048, 0);
    last[2028] = 0x45;
    last[2030] = 0xF8; // total length 63508 + 2028 = 65536
    last[2031] = 0x14;
    last[2037] = 17;
    check_ladder({{"the UDP header begins at the buffer's end", last, {.l2 = 2028, .etherType = 0x0800}, -1, ""}});

    last[2037] = 6; // but what it holds is looked at
    check_ladder({{"not UDP at the buffer's end", last, {.l2 = 2028, .etherType = 0x0800}, -1, "[DHCPSNOOP] This is not a udp packet!\r\n"}});

    // More than the buffer claimed by the record counts as the buffer.
    DhcpsnoopRxPkt rx = rx_packet(full);
    rx.len = 65535;
    DhcpsnoopPktInfo info;
    EXPECT_EQ(dhcpsnoop_packet_parse(&rx, &info, 1), 0);
    EXPECT_EQ(info.rxLen, 2048u);

    EXPECT_EQ(dhcpsnoop_packet_parse(nullptr, &info, 1), -1);
    EXPECT_EQ(dhcpsnoop_packet_parse(&rx, nullptr, 1), -1);
}

TEST_F(Parse, VersionNibbleDecidesTheFamily)
{
    // Kept: the version nibble decides, not the EtherType.
    Parsed as4(Frame{}, {.etherType = 0x86DD});
    EXPECT_EQ(as4.result, 0);
    EXPECT_EQ(as4.info.ethType, 0x86DDu);
    EXPECT_EQ(as4.info.msgType, 1u);
    Parsed as6(Frame{.ipVersion = 6}, {});
    EXPECT_EQ(as6.info.ethType, 0x0800u);
    EXPECT_EQ(as6.info.ipTotLen == as6.info.ipHdr + 2, false); // not taken for IPv4
    EXPECT_FALSE(printed("[DHCPSNOOP] This is not a IPv4 packet!\r\n"));
}

TEST_F(Parse, WithoutFullParseOnlyHeaders)
{
    DhcpsnoopRxPkt rx = rx_packet(Frame{.udpLen = 7}.bytes());
    DhcpsnoopPktInfo info;
    for (const uint32_t full : {0u, 2u}) { // anything but 1
        EXPECT_EQ(dhcpsnoop_packet_parse(&rx, &info, full), 0);
        EXPECT_TRUE(info.udpHdr == rx.data + 34 && info.udpLenField == nullptr && info.dhcpMsg == nullptr && info.udpLen == 0);
    }
    rx = rx_packet(Frame{.srcPort = 1, .dstPort = 1}.bytes());
    EXPECT_EQ(dhcpsnoop_packet_parse(&rx, &info, 0), -1);
}

TEST_F(Parse, VlanLineNamesASingleTagAsTheCustomers)
{
    Parsed untagged(Frame{}, {.outer = 10});
    Parsed tagged(Frame{}, {.outer = 100, .inner = 7});
    EXPECT_EQ(debug_texts(), (Lines{"[DHCPSNOOP] svlan 4096, cvlan 10.\r\n", "[DHCPSNOOP] svlan 100, cvlan 7.\r\n"}));
    EXPECT_EQ(untagged.info.svlan, 10); // 4096 is only printed
    EXPECT_EQ(untagged.info.cvlan, 0);
}

// What an option area leaves in the record, as text: only what is not zero.
std::string recorded(const Parsed &parsed)
{
    const DhcpsnoopPktInfo &info = parsed.info;
    std::string text;
    const struct {
        const char *name;
        uint32_t number;
        const uint8_t *pointer;
    } fields[] = {{"type", info.msgType, nullptr}, {"server", info.serverId, nullptr}, {"lease", info.leaseTime, nullptr}, {"router", info.router, nullptr}, {"opt60", 0, info.opt60}, {"tag", info.opt60Sub1, nullptr}, {"opt67", 0, info.opt67}, {"opt82", 0, info.opt82}, {"circuit", 0, info.circuitId}, {"remote", 0, info.remoteId}, {"sub9", 0, info.subopt9}, {"opt125", 0, info.opt125}, {"end", 0, info.optEnd}};
    for (const auto &field : fields) {
        if (field.number != 0)
            text += world_format("%s %x ", field.name, field.number);
        if (field.pointer != nullptr)
            text += world_format("%s @%td ", field.name, field.pointer - (info.dhcpMsg + 240));
    }
    if (world_hex(info.clientIp, 4) != "00 00 00 00")
        text += "client " + world_hex(info.clientIp, 4);
    if (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

TEST_F(Parse, Options)
{
    const std::string must4 = "[DHCPSNOOP] Option length must be 4 octets.\r\n";
    const std::string must1 = "[DHCPSNOOP] Option length must be 1 octets.\r\n";
    const std::string multiple = "[DHCPSNOOP] Option length must always be a multiple of 4.\r\n";
    const std::string vendor = "[DHCPSNOOP] option60 length must be larger than 1 octets.\r\n";
    const struct {
        const char *claim, *area, *recorded;
        Lines texts;
    } rows[] = {
        {"none", "", "", {}},
        {"only the end", "ff", "end @0", {}},
        {"one byte that is no end", "35", "", {}},
        {"type and end", "35 01 05 ff", "type 5 end @3", {}},
        {"an option is recorded only if a byte follows it", "35 01 05", "", {}},
        {"pads between", "00 00 35 01 05 00 ff", "type 5 end @6", {}},
        {"pads only", "00 00 00 00", "", {}},
        {"nothing behind the end counts", "35 01 05 ff 36 04 0a 00 00 01 00", "type 5 end @3", {}},
        {"the last occurrence wins", "35 01 05 35 01 06 ff", "type 6 end @6", {}},
        {"an option whose length passes the area ends the walk", "35 01 05 36 05 0a 00 00 01", "type 5", {}},
        {"the length byte is the last", "35 01 05 36 ff", "type 5", {}},
        {"a code without length", "35 01 05 36", "type 5", {}},
        {"an unknown option is passed over", "0c 02 61 62 35 01 03 ff", "type 3 end @7", {}},
        {"an option of 255 bytes of length", "0c ff 00", "", {}},

        {"message type of length 0", "35 00 ff", "end @2", {must1}},
        {"message type of length 2", "35 02 05 05 ff", "end @4", {must1}},
        {"server id", "36 04 0a 00 00 01 ff", "server a000001 end @6", {}},
        {"server id of length 5", "36 05 0a 00 00 01 00 35 01 02 ff", "type 2 end @10", {must4}},
        {"server id of length 3", "36 03 0a 00 00 ff", "end @5", {must4}},
        {"lease", "33 04 00 00 0e 10 ff", "lease e10 end @6", {}},
        {"lease of length 8", "33 08 00 00 0e 10 00 00 0e 10 ff", "end @10", {must4}},
        {"router: the first of two", "03 08 0a 00 00 01 0a 00 00 02 ff", "router a000001 end @10", {}},
        {"router of length 6", "03 06 0a 00 00 01 0a 00 ff", "end @8", {multiple}},
        {"router of length 0 reads the 4 bytes that follow", "03 00 35 01 05 ff", "type 5 router 350105ff end @5", {}},
        {"router of length 0 at the end of the area", "35 01 05 03 00 ff", "type 5 router ff000000 end @5", {}},
        {"requested address", "32 04 0a 01 01 05 ff", "end @6 client 0a 01 01 05", {}},
        {"requested address 0.0.0.0 is none", "32 04 00 00 00 00 ff", "end @6", {}},
        {"requested address of length 0", "32 00 ff", "end @2", {must4}},

        {"vendor class", "3c 01 61 ff", "opt60 @0 end @3", {}},
        {"vendor class of length 0", "3c 00 ff", "end @2", {vendor}},
        {"vendor class with item 1 of 4 bytes", "3c 06 01 04 12 34 56 78 ff", "opt60 @0 tag 12345678 end @8", {}},
        {"item 1 of 3 bytes ends the walk", "3c 0b 01 03 12 34 56 01 04 00 00 00 09 ff", "opt60 @0 end @13", {}},
        {"item 1 behind another", "3c 09 07 01 00 01 04 00 00 00 09 ff", "opt60 @0 tag 9 end @11", {}},
        {"the first item 1 counts", "3c 0c 01 04 00 00 00 07 01 04 00 00 00 09 ff", "opt60 @0 tag 7 end @14", {}},
        {"an item whose data lies behind the option", "3c 02 01 04 ff 00 00 01", "opt60 @0 tag ff000001 end @4", {}},
        {"items of length 254 do not wrap", "3c 03 02 fe 00 ff", "opt60 @0 end @5", {}},

        {"boot file name of length 0", "43 00 ff", "opt67 @0 end @2", {}},
        {"relay information without sub-options", "52 00 ff", "opt82 @0 end @2", {}},
        {"each sub-option", "52 09 01 01 61 02 01 62 09 01 63 ff", "opt82 @0 circuit @2 remote @5 sub9 @8 end @11", {}},
        {"in any order, others between", "52 08 09 00 05 02 00 00 01 00 ff", "opt82 @0 circuit @8 sub9 @2 end @10", {}},
        {"the last of two", "52 04 01 00 01 00 ff", "opt82 @0 circuit @4 end @6", {}},
        {"an item longer than its option", "52 03 02 ff 00 ff", "opt82 @0 remote @2 end @5", {}},
        {"its header astride the option's end", "52 01 02 ff", "opt82 @0 remote @2 end @3", {}},
        {"nor those of length 255", "52 05 03 ff 00 01 00 ff", "opt82 @0 end @7", {}},
        {"items of length 254 do not wrap", "52 03 01 fe 00 ff", "opt82 @0 circuit @2 end @5", {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(world_format("%s: %s", row.claim, row.area));
        world.clear();
        const Parsed parsed(Frame{.options = hex_bytes(row.area)});
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(recorded(parsed), row.recorded);
        Lines texts = debug_texts();
        texts.erase(texts.begin());
        EXPECT_EQ(texts, row.texts);
    }
}

TEST_F(Parse, AtTheEndOfTheBuffer)
{
    // The frame fills its 2048 bytes: what an option's words reach beyond them reads as zero.
    const struct {
        const char *claim;
        const char *end; // the last bytes of the frame
        const char *recorded;
    } rows[] = {
        {"router of length 0, three bytes left", "03 00 00 00 ff", "router ff00 end @1741"},
        {"vendor item, two bytes left", "3c 02 01 04 00 ff", "opt60 @1736 tag ff0000 end @1741"},
        {"vendor item without its length", "3c 01 01 ff", "opt60 @1738 end @1741"},
        {"relay item at the very end", "52 01 02 ff", "opt82 @1738 remote @1740 end @1741"},
        {"relay item of length 255", "52 02 01 fd ff", "opt82 @1737 circuit @1739 end @1741"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        const Bytes end = hex_bytes(row.end);
        const Bytes tagged = Frame{.tags = {{0x8100, 1}, {0x8100, 2}, {0x8100, 3}, {0x8100, 4}, {0x8100, 5}, {0x8100, 6}},
                                   .options = Bytes(1742 - end.size(), 0) + end}
                                 .bytes();
        ASSERT_EQ(tagged.size(), 2048u);
        const Parsed parsed(tagged);
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(recorded(parsed), row.recorded);
    }
}

TEST_F(Parse, ClientAddress)
{
    // claim, ciaddr, yiaddr, options, client
    const std::tuple<const char *, uint32_t, uint32_t, const char *, const char *> rows[] = {
        {"none", 0, 0, "35 01 01 ff", "00 00 00 00"},
        {"yiaddr", 0, ip4(10, 0, 0, 2), "35 01 05 ff", "0a 00 00 02"},
        {"yiaddr over ciaddr", ip4(10, 0, 0, 1), ip4(10, 0, 0, 2), "35 01 05 ff", "0a 00 00 02"},
        {"the requested address over both", ip4(10, 0, 0, 1), ip4(10, 0, 0, 2), "32 04 0a 01 01 05 ff", "0a 01 01 05"},
        {"a requested 0.0.0.0 leaves the choice", ip4(10, 0, 0, 1), 0, "32 04 00 00 00 00 ff", "0a 00 00 01"},
        {"0.0.0.1 is an address", 0, 0, "32 04 00 00 00 01 ff", "00 00 00 01"},
        {"the last requested address", 0, 0, "32 04 0a 00 00 07 32 04 0a 00 00 08 ff", "0a 00 00 08"},
    };
    for (const auto &[claim, ciaddr, yiaddr, options, client] : rows) {
        SCOPED_TRACE(claim);
        const Parsed parsed(Frame{.ciaddr = ciaddr, .yiaddr = yiaddr, .options = hex_bytes(options)});
        EXPECT_EQ(world_hex(parsed.info.clientIp, 4), client);
    }
}

} // namespace
