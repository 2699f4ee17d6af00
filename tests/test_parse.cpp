// The DHCPv4 frame parser: each rung of its ladder in pairs, each option, and lengths that lie.
#include "scene.h"

namespace
{

// What a parsed frame leaves in the record: only what is not zero, pointers relative to the option area; then the texts behind the
// line of VLANs.
std::string recorded(const Bytes &frame, const Arrival &arrival = {})
{
    world.clear();
    const Parsed parsed(frame, arrival);
    const DhcpsnoopPktInfo &info = parsed.info;
    std::string text = parsed.result == 0 ? "" : "refused ";
    const struct {
        const char *name;
        uint32_t number;
        const uint8_t *pointer;
    } fields[] = {{"type", info.msgType, nullptr}, {"server", info.serverId, nullptr}, {"lease", info.leaseTime, nullptr}, {"router", info.router, nullptr}, {"opt60", 0, info.opt60}, {"tag", info.opt60Sub1, nullptr}, {"opt67", 0, info.opt67}, {"opt82", 0, info.opt82}, {"circuit", 0, info.circuitId}, {"remote", 0, info.remoteId}, {"sub9", 0, info.subopt9}, {"opt125", 0, info.opt125}, {"end", 0, info.optEnd}};
    for (const auto &field : fields) {
        if (parsed.result == 0 && field.number != 0)
            text += world_format("%s %x ", field.name, field.number);
        if (parsed.result == 0 && field.pointer != nullptr)
            text += world_format("%s @%td ", field.name, field.pointer - (info.dhcpMsg + 240));
    }
    if (world_hex(info.clientIp, 4) != "00 00 00 00")
        text += "client " + world_hex(info.clientIp, 4) + " ";
    for (std::string line : debug_texts())
        if (line.find("svlan") == std::string::npos)
            text += "! " + line.substr(12, line.size() - 14) + " ";
    return text.substr(0, text.size() - !text.empty());
}

using Parse = DaemonOnPort1;

TEST_F(Parse, EveryFieldOfAnOrdinaryFrame)
{
    // An ACK with two tags, IP options and padding: nothing is where it is in the simplest frame.
    const Frame frame = {.dst = MAC_CLIENT, .src = MAC_SERVER, .tags = {{0x88A8, 0x2064}, {0x8100, 0x0014}}, .srcIp = ip4(10, 0, 0, 1), .dstIp = ip4(10, 0, 0, 100), .ipOptions = hex_bytes("94 04 00 00"), .srcPort = 67, .dstPort = 68, .op = 2, .ciaddr = ip4(10, 0, 0, 99), .yiaddr = ip4(10, 0, 0, 100), .giaddr = ip4(10, 9, 9, 9), .options = opt_type(5) + opt_ip(3, ip4(10, 0, 0, 254)) + opt_lease(7200) + opt_ip(54, ip4(10, 0, 0, 1)) + opt(60, {1, 4, 0, 0, 1, 2}) + opt(67, {'b'}) + opt(82, {1, 2, 'c', 'c', 2, 1, 'r', 9, 0}) + opt(125, {0}) + OPT_END, .padding = Bytes(7, 0xEE)};
    const Arrival arrival = {.port = 1, .outer = 100, .inner = 20};
    const Parsed parsed(frame, arrival);
    EXPECT_EQ(debug_texts(), Lines{"[DHCPSNOOP] svlan 100, cvlan 20.\r\n"});
    const DhcpsnoopPktInfo &i = parsed.info;
    EXPECT_EQ(recorded(frame.bytes(), arrival), "type 5 server a000001 lease 1c20 router a0000fe opt60 @21 tag 102 opt67 @29 opt82 @32 circuit @34 remote @38 sub9 @41 opt125 @43 end @46 client 0a 00 00 64");
    EXPECT_EQ(world_format("if %u time %u vlans %u %u type %x from %x by %x", i.ifIndex, i.rxTime, i.svlan, i.cvlan, i.ethType, i.srcIp, i.giaddr), "if 1 time 0 vlans 100 20 type 800 from a000001 by a090909");
    // 47 bytes of options, 240 of message, 8 of UDP, 24 of IP, 22 of layer 2; 7 of padding
    EXPECT_EQ(world_format("%u %u %u %u %u %u %u", i.rxLen, i.frameLen, i.l2HdrLen, i.ipHdrLen, i.ipBodyLen, i.udpLen, i.dhcpLen), "348 341 22 24 295 295 287");
    const auto at = [&](const uint8_t *p) { return p - parsed.rx.data; };
    EXPECT_EQ(world_format("%td %td %td %td %td %td %td %td %td %td", at(i.frame), at(i.dstMac), at(i.srcMac), at(i.ethHdr), at(i.ipHdr), at(i.ipTotLen), at(i.udpHdr), at(i.udpLenField), at(i.dhcpMsg), at(i.chaddr)), "0 0 6 0 22 24 46 50 54 82");
    EXPECT_TRUE(parsed.result == 0 && i.ifp == dhcpsnoop_if_lookup(1));
}

// A frame whose BOOTP message is cut to that many bytes, every length true.
Bytes message_of(size_t length)
{
    Bytes message = Frame{.options = Bytes(length > 240 ? length - 240 : 0, 0)}.message();
    message.resize(length);
    return Frame{.payload = message}.bytes();
}

// The frame with a word put in, and another.
Bytes with(Bytes frame, size_t at, uint16_t word, size_t at2 = 0, uint16_t word2 = 0)
{
    frame[at] = static_cast<uint8_t>(word >> 8), frame[at + 1] = static_cast<uint8_t>(word);
    return at2 == 0 ? frame : with(frame, at2, word2);
}

const Bytes WHOLE = Frame{}.bytes(), SHORTER(WHOLE.begin(), WHOLE.end() - 1), FULL = Frame{.options = Bytes(1762, 0) + opt_type(1) + OPT_END}.bytes();
const Bytes LAST_IP = with(with(Bytes(2048, 0), 2028, 0x4500), 2030, 0xF814, 2036, 17); // total length 63508 + 2028 = 65536
constexpr Arrival IP_AT_14 = {.l2 = 14, .etherType = 0x0800}, IP_AT_2028 = {.l2 = 2028, .etherType = 0x0800};

const struct {
    const char *claim;
    Bytes frame;
    const char *outcome;
    Arrival arrival = {};
} LADDER[] = {
    // clang-format off
    {"a DISCOVER of 286 bytes", WHOLE, "type 1 end @3"},
    {"EtherType neither IPv4 nor IPv6", Frame{.etherType = 0x0806}.bytes(), "refused ! This is not a IPv4 or IPv6 packet, stop process!", {.l2 = 14, .etherType = 0x0806}},
    {"IP version 5", Frame{.ipVersion = 5}.bytes(), "refused ! This is not a IPv4 packet!"},
    {"Kept: the version nibble decides, not the EtherType", WHOLE, "type 1 end @3", {.etherType = 0x86DD}},
    {"version 6 is not taken for IPv4", Frame{.ipVersion = 6}.bytes(), "refused"},
    {"header of 16 bytes", Frame{.ihl = 4}.bytes(), "refused ! IPv4 header len must be larger than 20!"},
    {"header of 60 bytes", Frame{.ipOptions = Bytes(40, 1)}.bytes(), "type 1 end @3"},
    {"total length below the header", Frame{.ipTotalLen = 19}.bytes(), "refused ! Total len of ip must be larger than header len!"},
    {"total length of just the header: no UDP datagram in it", Frame{.ipTotalLen = 20}.bytes(), "refused ! Udp len 252 must not exceed ip body len 0!"},
    {"one byte is missing", SHORTER, "refused ! Len checking failed, ethernet header 14, ip header 20, total 286, received 285!"},
    {"padding behind the datagram", Frame{.padding = Bytes(20, 0)}.bytes(), "type 1 end @3"},
    {"not UDP", Frame{.protocol = 6}.bytes(), "refused ! This is not a udp packet!"},
    {"ports 1234 to 67", Frame{.srcPort = 1234, .dstPort = 67}.bytes(), "type 1 end @3"},
    {"ports 1234 to 68", Frame{.srcPort = 1234, .dstPort = 68}.bytes(), "type 1 end @3"},
    {"ports 67 to 1234", Frame{.srcPort = 67, .dstPort = 1234}.bytes(), "type 1 end @3"},
    {"ports 68 to 1234", Frame{.srcPort = 68, .dstPort = 1234}.bytes(), "type 1 end @3"},
    {"ports 66 to 69", Frame{.srcPort = 66, .dstPort = 69}.bytes(), "refused ! This is not a dhcp packet!"},
    {"UDP length beyond the IP body", Frame{.udpLen = 253}.bytes(), "refused ! Udp len 253 must not exceed ip body len 252!"},
    {"UDP length short of the IP body", Frame{.udpLen = 251}.bytes(), ""},
    {"a message of 239 bytes", message_of(239), "refused ! Message (len 247) is too short, stop process!"},
    {"a message of 240 bytes", message_of(240), ""},
    {"UDP length 0", Frame{.udpLen = 0}.bytes(), "refused ! Message (len 0) is too short, stop process!"},
    {"neither checksum is verified", Frame{.ipChecksum = 1, .udpChecksum = 2}.bytes(), "type 1 end @3"},
    {"the cookie is not checked", Frame{.cookie = 0}.bytes(), "type 1 end @3"},
    // The arithmetic of 16 bits lets these through the length test; the datagram is bounded all the same.
    {"the whole buffer", FULL, "type 1 end @1765"},
    {"IP total length that wraps (65522 + 14), datagram within the frame", with(FULL, 16, 0xFFF2), "type 1 end @1765"},
    {"IP total length that wraps, datagram beyond the frame", with(FULL, 16, 0xFFF2, 38, 0xFF00), "refused"},
    {"a datagram of one byte more than the frame", with(FULL, 16, 0xFFF2, 38, 2015), "refused"},
    {"a layer-2 header that leaves no room for IP", Bytes(2048, 0x45), "refused", {.l2 = 2029, .etherType = 0x0800}},
    {"a layer-2 header beyond the buffer", Bytes(2048, 0x45), "refused", {.l2 = 65535, .etherType = 0x0800}},
    {"one byte captured", Bytes{0x45}, "refused ! This is not a IPv4 packet!", IP_AT_14},
    {"nothing captured, header at its start", Bytes{}, "refused ! This is not a IPv4 packet!", {.l2 = 0, .etherType = 0x0800}},
    {"the UDP header begins at the buffer's end", LAST_IP, "refused", IP_AT_2028},
    {"but what the IP header there holds is looked at", with(LAST_IP, 2036, 6), "refused ! This is not a udp packet!", IP_AT_2028},
    // clang-format on
};

TEST_F(Parse, Ladder)
{
    for (const auto &row : LADDER)
        EXPECT_EQ(recorded(row.frame, row.arrival), row.outcome) << row.claim;
    DhcpsnoopRxPkt rx = rx_packet(FULL);
    rx.len = 65535; // more than the buffer counts as the buffer
    DhcpsnoopPktInfo info;
    EXPECT_EQ(dhcpsnoop_packet_parse(&rx, &info, 1), 0);
    EXPECT_EQ(info.rxLen, 2048u);
    EXPECT_EQ(dhcpsnoop_packet_parse(nullptr, &info, 1), -1);
    EXPECT_EQ(dhcpsnoop_packet_parse(&rx, nullptr, 1), -1);
}

TEST_F(Parse, WithoutFullParseOnlyHeaders)
{
    DhcpsnoopRxPkt rx = rx_packet(Frame{.udpLen = 7}.bytes());
    DhcpsnoopPktInfo info;
    for (const uint32_t full : {0u, 2u}) { // anything but 1
        EXPECT_EQ(dhcpsnoop_packet_parse(&rx, &info, full), 0);
        EXPECT_TRUE(info.udpHdr == rx.data + 34 && info.udpLenField == nullptr && info.dhcpMsg == nullptr && info.udpLen == 0);
    }
    EXPECT_TRUE(printed("[DHCPSNOOP] svlan 4096, cvlan 10.\r\n") && info.svlan == 10 && info.cvlan == 0); // 4096 is only printed
    rx = rx_packet(Frame{.srcPort = 1, .dstPort = 1}.bytes());
    EXPECT_EQ(dhcpsnoop_packet_parse(&rx, &info, 0), -1);
}

const struct {
    const char *claim, *area, *outcome;
    bool full = false; // the area ends the buffer of 2048 bytes; what an option's words reach beyond reads as zero
    uint32_t ciaddr = 0, yiaddr = 0;
} OPTIONS[] = {
    // clang-format off
    {"none", "", ""},
    {"only the end", "ff", "end @0"},
    {"one byte that is no end", "35", ""},
    {"type and end", "35 01 05 ff", "type 5 end @3"},
    {"an option is recorded only if a byte follows it", "35 01 05", ""},
    {"pads between", "00 00 35 01 05 00 ff", "type 5 end @6"},
    {"pads only", "00 00 00 00", ""},
    {"nothing behind the end counts", "35 01 05 ff 36 04 0a 00 00 01 00", "type 5 end @3"},
    {"the last occurrence wins", "35 01 05 35 01 06 ff", "type 6 end @6"},
    {"an option whose length passes the area ends the walk", "35 01 05 36 05 0a 00 00 01", "type 5"},
    {"the length byte is the last", "35 01 05 36 ff", "type 5"},
    {"a code without length", "35 01 05 36", "type 5"},
    {"an unknown option is passed over", "0c 02 61 62 35 01 03 ff", "type 3 end @7"},
    {"an option of 255 bytes of length", "0c ff 00", ""},
    {"message type of length 0", "35 00 ff", "end @2 ! Option length must be 1 octets."},
    {"message type of length 2", "35 02 05 05 ff", "end @4 ! Option length must be 1 octets."},
    {"server id", "36 04 0a 00 00 01 ff", "server a000001 end @6"},
    {"server id of length 5", "36 05 0a 00 00 01 00 35 01 02 ff", "type 2 end @10 ! Option length must be 4 octets."},
    {"server id of length 3", "36 03 0a 00 00 ff", "end @5 ! Option length must be 4 octets."},
    {"lease", "33 04 00 00 0e 10 ff", "lease e10 end @6"},
    {"lease of length 8", "33 08 00 00 0e 10 00 00 0e 10 ff", "end @10 ! Option length must be 4 octets."},
    {"router: the first of two", "03 08 0a 00 00 01 0a 00 00 02 ff", "router a000001 end @10"},
    {"router of length 6", "03 06 0a 00 00 01 0a 00 ff", "end @8 ! Option length must always be a multiple of 4."},
    {"router of length 0 reads the 4 bytes that follow", "03 00 35 01 05 ff", "type 5 router 350105ff end @5"},
    {"router of length 0 at the end of the area", "35 01 05 03 00 ff", "type 5 router ff000000 end @5"},
    {"requested address", "32 04 0a 01 01 05 ff", "end @6 client 0a 01 01 05"},
    {"requested address 0.0.0.0 is none", "32 04 00 00 00 00 ff", "end @6"},
    {"requested address of length 0", "32 00 ff", "end @2 ! Option length must be 4 octets."},
    {"vendor class", "3c 01 61 ff", "opt60 @0 end @3"},
    {"vendor class of length 0", "3c 00 ff", "end @2 ! option60 length must be larger than 1 octets."},
    {"vendor class with item 1 of 4 bytes", "3c 06 01 04 12 34 56 78 ff", "opt60 @0 tag 12345678 end @8"},
    {"item 1 of 3 bytes ends the walk", "3c 0b 01 03 12 34 56 01 04 00 00 00 09 ff", "opt60 @0 end @13"},
    {"item 1 behind another", "3c 09 07 01 00 01 04 00 00 00 09 ff", "opt60 @0 tag 9 end @11"},
    {"the first item 1 counts", "3c 0c 01 04 00 00 00 07 01 04 00 00 00 09 ff", "opt60 @0 tag 7 end @14"},
    {"an item whose data lies behind the option", "3c 02 01 04 ff 00 00 01", "opt60 @0 tag ff000001 end @4"},
    {"items of length 254 do not wrap", "3c 03 02 fe 00 ff", "opt60 @0 end @5"},
    {"boot file name of length 0", "43 00 ff", "opt67 @0 end @2"},
    {"relay information without sub-options", "52 00 ff", "opt82 @0 end @2"},
    {"each sub-option", "52 09 01 01 61 02 01 62 09 01 63 ff", "opt82 @0 circuit @2 remote @5 sub9 @8 end @11"},
    {"in any order, others between", "52 08 09 00 05 02 00 00 01 00 ff", "opt82 @0 circuit @8 sub9 @2 end @10"},
    {"the last of two", "52 04 01 00 01 00 ff", "opt82 @0 circuit @4 end @6"},
    {"an item longer than its option", "52 03 02 ff 00 ff", "opt82 @0 remote @2 end @5"},
    {"its header astride the option's end", "52 01 02 ff", "opt82 @0 remote @2 end @3"},
    {"nor those of length 255", "52 05 03 ff 00 01 00 ff", "opt82 @0 end @7"},
    {"items of length 254 do not wrap", "52 03 01 fe 00 ff", "opt82 @0 circuit @2 end @5"},
    {"router of length 0, three bytes left in the buffer", "03 00 00 00 ff", "router ff00 end @1741", true},
    {"vendor item, two bytes left", "3c 02 01 04 00 ff", "opt60 @1736 tag ff0000 end @1741", true},
    {"vendor item without its length", "3c 01 01 ff", "opt60 @1738 end @1741", true},
    {"relay item at the very end", "52 01 02 ff", "opt82 @1738 remote @1740 end @1741", true},
    {"relay item of length 255", "52 02 01 fd ff", "opt82 @1737 circuit @1739 end @1741", true},
    {"ciaddr", "35 01 05 ff", "type 5 end @3 client 0a 00 00 01", false, ip4(10, 0, 0, 1)},
    {"yiaddr over ciaddr", "35 01 05 ff", "type 5 end @3 client 0a 00 00 02", false, ip4(10, 0, 0, 1), ip4(10, 0, 0, 2)},
    {"the requested address over both", "32 04 0a 01 01 05 ff", "end @6 client 0a 01 01 05", false, ip4(10, 0, 0, 1), ip4(10, 0, 0, 2)},
    {"a requested 0.0.0.0 leaves the choice", "32 04 00 00 00 00 ff", "end @6 client 0a 00 00 01", false, ip4(10, 0, 0, 1)},
    {"0.0.0.1 is an address", "32 04 00 00 00 01 ff", "end @6 client 00 00 00 01"},
    {"the last requested address", "32 04 0a 00 00 07 32 04 0a 00 00 08 ff", "end @12 client 0a 00 00 08"},
    // clang-format on
};

TEST_F(Parse, Options)
{
    for (const auto &row : OPTIONS) {
        const Bytes area = hex_bytes(row.area);
        Frame frame = {.ciaddr = row.ciaddr, .yiaddr = row.yiaddr, .options = row.full ? Bytes(1742 - area.size(), 0) + area : area};
        if (row.full)
            frame.tags.resize(6);
        EXPECT_EQ(recorded(frame.bytes()), row.outcome) << row.claim;
    }
}

} // namespace
