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
    EXPECT_TRUE(parsed.result == 0 || parsed.result == -1);
    std::string text = parsed.result == 0 ? "" : "refused ";
    for (const auto &[name, number] : {std::pair("type", info.msgType), {"server", info.serverId}, {"lease", info.leaseTime}, {"router", info.router}, {"tag", info.opt60Sub1}})
        text += number != 0 && parsed.result == 0 ? world_format("%s %x ", name, number) : "";
    for (const auto &[name, at] : {std::pair("opt60", info.opt60), {"opt67", info.opt67}, {"opt82", info.opt82}, {"circuit", info.circuitId}, {"remote", info.remoteId}, {"sub9", info.subopt9}, {"opt125", info.opt125}, {"end", info.optEnd}})
        text += at != nullptr && parsed.result == 0 ? world_format("%s @%td ", name, at - (info.dhcpMsg + 240)) : "";
    text += world_hex(info.clientIp, 4) != "00 00 00 00" ? "client " + world_hex(info.clientIp, 4) + " " : "";
    for (std::string line : world.texts(Did::Debug))
        if (line.find("svlan") == std::string::npos)
            text += "! " + line.substr(12, line.size() - 14) + " ";
    return text.substr(0, text.size() - !text.empty());
}

using Parse = Daemon;

// An ACK with two tags, IP options and padding: nothing is where it is in the simplest frame.
const Frame ACK_WITH_ALL = {.dst = MAC_CLIENT, .src = MAC_SERVER, .tags = {{0x88A8, 0x2064}, {0x8100, 0x0014}}, .srcIp = ip4(10, 0, 0, 1), .dstIp = ip4(10, 0, 0, 100), .ipOptions = hex_bytes("94 04 00 00"), .srcPort = 67, .dstPort = 68, .op = 2, .ciaddr = ip4(10, 0, 0, 99), .yiaddr = ip4(10, 0, 0, 100), .giaddr = ip4(10, 9, 9, 9), .options = opt_type(5) + opt_ip(3, ip4(10, 0, 0, 254)) + opt_lease(7200) + opt_ip(54, ip4(10, 0, 0, 1)) + opt(60, {1, 4, 0, 0, 1, 2}) + opt(67, {'b'}) + opt(82, {1, 2, 'c', 'c', 2, 1, 'r', 9, 0}) + opt(125, {0}) + OPT_END, .padding = Bytes(7, 0xEE)};

const Bytes WHOLE = Frame{}.bytes(), SHORTER(WHOLE.begin(), WHOLE.end() - 1), FULL = Bytes(1762, 0) + opt_type(1) + OPT_END; // FULL fills 2048 bytes
const Bytes LAST_IP = Bytes(2028, 0) + hex_bytes("45 00 f8 14 00 00 00 00 00 11") + Bytes(10, 0);                            // total length 63508 + 2028 = 65536
constexpr Arrival IP_AT_2028 = {.l2 = 2028, .etherType = 0x0800};

TEST_F(Parse, Ladder)
{
    check({
        {"IP version 5", recorded(Frame{.ipVersion = 5}), "refused ! This is not a IPv4 packet!"},
        {"Kept: the version nibble decides, not the EtherType", recorded(WHOLE, {.etherType = 0x86DD}), "type 1 end @3"},
        {"total length below the header", recorded(Frame{.ipTotalLen = 19}), "refused ! Total len of ip must be larger than header len!"},
        {"total length of just the header: no UDP datagram in it", recorded(Frame{.ipTotalLen = 20}), "refused ! Udp len 252 must not exceed ip body len 0!"},
        {"more received than the buffer counts as the buffer", recorded(Frame{.ipTotalLen = 2035, .padding = Bytes(65535 - 286, 0)}), "refused ! Len checking failed, ethernet header 14, ip header 20, total 2049, received 2048!"},
        {"not UDP", recorded(Frame{.protocol = 6}), "refused ! This is not a udp packet!"},
        {"ports 1234 to 67", recorded(Frame{.srcPort = 1234, .dstPort = 67}), "type 1 end @3"},
        {"ports 66 to 69", recorded(Frame{.srcPort = 66, .dstPort = 69}), "refused ! This is not a dhcp packet!"},
        {"UDP length beyond the IP body", recorded(Frame{.udpLen = 253}), "refused ! Udp len 253 must not exceed ip body len 252!"},
        {"UDP length short of the IP body", recorded(Frame{.udpLen = 251}), ""},
        {"padding is no end option", recorded(Frame{.payload = Bytes(240, 0), .padding = OPT_END}), ""},
        // The arithmetic of 16 bits lets these through the length test; the datagram is bounded all the same.
        {"IP total length that wraps (65522 + 14), datagram within the frame", recorded(Frame{.ipTotalLen = 0xFFF2, .options = FULL}), "type 1 end @1765"},
        {"a datagram of one byte more than the frame", recorded(Frame{.ipTotalLen = 0xFFF2, .udpLen = 2015, .options = FULL}), "refused"},
        {"a layer-2 header that leaves no room for IP", recorded(Bytes(2048, 0x45), {.l2 = 2029, .etherType = 0x0800}), "refused"},
        {"the UDP header begins at the buffer's end", recorded(LAST_IP, IP_AT_2028), "refused"},
        {"the UDP header ends the buffer", recorded(Bytes(2020, 0) + hex_bytes("45 00 00 1c 00 00 00 00 00 11") + Bytes(18, 0), {.l2 = 2020, .etherType = 0x0800}), "refused ! This is not a dhcp packet!"},
        {"but what the IP header there holds is looked at", recorded(Bytes(2028, 0) + hex_bytes("45 00 f8 14 00 00 00 00 00 06") + Bytes(10, 0), IP_AT_2028), "refused ! This is not a udp packet!"},
    });
}

std::string options(const char *area, uint32_t ciaddr = 0, uint32_t yiaddr = 0) { return recorded(Frame{.ciaddr = ciaddr, .yiaddr = yiaddr, .options = hex_bytes(area)}); }

// The area ends the buffer of 2048 bytes; what an option's words reach beyond reads as zero.
std::string at_the_end(const char *area)
{
    const Bytes end = hex_bytes(area);
    return recorded(Frame{.tags = std::vector<Tag>(6), .options = Bytes(1742 - end.size(), 0) + end});
}

TEST_F(Parse, Options)
{
    check({
        {"every field", recorded(ACK_WITH_ALL, {.outer = 100, .inner = 20}), "type 5 server a000001 lease 1c20 router a0000fe tag 102 opt60 @21 opt67 @29 opt82 @32 circuit @34 remote @38 sub9 @41 opt125 @43 end @46 client 0a 00 00 64"},
        {"an option is recorded only if a byte follows it", options("35 01 05"), ""},
        {"nothing behind the end counts", options("35 01 05 ff 00 35 01 06 00"), "type 5 end @3"},
        {"nor behind an end that comes first", options("ff 00 35 01 06 00"), "end @0"},
        {"the last occurrence wins", options("35 01 05 35 01 06 ff"), "type 6 end @6"},
        {"an option whose length passes the area ends the walk", options("35 01 05 36 05 0a 00 00 01"), "type 5"},
        {"message type of length 2", options("35 02 05 05 ff"), "end @4 ! Option length must be 1 octets."},
        {"router: the first of two", options("03 08 0a 00 00 01 0a 00 00 02 ff"), "router a000001 end @10"},
        {"router of length 6", options("03 06 0a 00 00 01 0a 00 ff"), "end @8 ! Option length must always be a multiple of 4."},
        {"router of length 0 reads the 4 bytes that follow", options("03 00 35 01 05 ff"), "type 5 router 350105ff end @5"},
        {"vendor class of length 0", options("3c 00 ff"), "end @2 ! option60 length must be larger than 1 octets."},
        {"item 1 of 3 bytes ends the walk", options("3c 0b 01 03 12 34 56 01 04 00 00 00 09 ff"), "opt60 @0 end @13"},
        {"the first item 1 counts", options("3c 0c 01 04 00 00 00 07 01 04 00 00 00 09 ff"), "tag 7 opt60 @0 end @14"},
        {"an item whose data lies behind the option", options("3c 02 01 04 ff 00 00 01"), "tag ff000001 opt60 @0 end @4"},
        {"what follows the option is no item", options("3c 02 07 00 01 04 00 00 00 09 ff"), "opt60 @0 end @10"},
        {"what follows the option is no sub-option", options("52 03 01 01 61 02 01 00 ff"), "opt82 @0 circuit @2 end @8"},
        {"its header astride the option's end", options("52 01 02 ff"), "opt82 @0 remote @2 end @3"},
        {"nor those of length 255", options("52 05 03 ff 00 01 00 ff"), "opt82 @0 end @7"},
        {"items of length 254 do not wrap", options("52 03 01 fe 00 ff"), "opt82 @0 circuit @2 end @5"},
        {"router of length 0, three bytes left in the buffer", at_the_end("03 00 00 00 ff"), "router ff00 end @1741"},
        {"vendor item, two bytes left", at_the_end("3c 02 01 04 00 ff"), "tag ff0000 opt60 @1736 end @1741"},
        {"relay item at the very end", at_the_end("52 01 02 ff"), "opt82 @1738 remote @1740 end @1741"},
        {"the requested address over both", options("32 04 0a 01 01 05 ff", ip4(10, 0, 0, 1), ip4(10, 0, 0, 2)), "end @6 client 0a 01 01 05"},
        {"a requested 0.0.0.0 leaves the choice", options("32 04 00 00 00 00 ff", ip4(10, 0, 0, 1)), "end @6 client 0a 00 00 01"},
    });
}

} // namespace
