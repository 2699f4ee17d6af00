// The DHCPv6 parser: each rung of its ladder in pairs, each option, lengths that lie; address kinds, the UDP
// checksum over IPv6, the option finder.
#include "scene.h"

#include <sys/mman.h>

#include "dhcp6snoop_msg.h"

namespace
{

using Parse6 = Daemon;

// "status 3, 18 at 0, 37 at 5, IA at 9": places in the option area.
std::string options(const DhcpsnoopPktInfo &info)
{
    const auto at = [&info](const char *name, const uint8_t *option) {
        return option == nullptr ? "" : world_format(", %s at %d", name, static_cast<int>(option - info.dhcpMsg) - 4);
    };
    std::string text = world_format("status %u", info.statusCode) + at("18", info.interfaceIdOpt) + at("37", info.remoteIdOpt);
    const uint32_t step = info.iaCount > 3 ? info.iaCount - 1 : 1; // of many, the first and the last
    for (uint32_t i = 0; i < info.iaCount; i += step)
        text += at("IA", info.iaOpts[i]);
    return text;
}

std::string options(const Bytes &bytes) { return options(Parsed(client6(1, bytes)).info); }

// What was said, then the result; of an accepted frame the lengths (frame and received, IPv6 header and payload, UDP,
// DHCPv6), the places of IPv6 header, payload length, UDP header, its length and message unless they are the simplest
// frame's, and the bytes that were changed.
std::string parsed(const Frame6 &message, int more = 0, const Arrival &arrival = {})
{
    Bytes frame = message.bytes();
    frame.resize(frame.size() + static_cast<size_t>(more));
    world.clear();
    const Parsed p(frame, arrival);
    const DhcpsnoopPktInfo &i = p.info;
    if (p.result != 0)
        return said() + world_format("|%d", p.result);
    const auto at = [&p](const uint8_t *byte) { return static_cast<int>(byte - p.rx.data); };
    const std::string places = world_format(" at %d %d %d %d %d", at(i.ipHdr), at(i.ipTotLen), at(i.udpHdr), at(i.udpLenField), at(i.dhcpMsg));
    std::string text = said() + world_format("|0x%x %u.%u type %u, %u/%u %u+%u %u %u", i.ethType, i.svlan, i.cvlan, i.msgType, i.frameLen, i.rxLen, i.ipHdrLen, i.ipBodyLen, i.udpLen, i.dhcpLen);
    text += (places == " at 14 18 54 58 62" ? "" : places) + (i.chaddr == nullptr ? "" : " chaddr");
    for (size_t n = 0; n < frame.size(); n++)
        text += p.rx.data[n] == frame[n] ? "" : world_format(" [%zu]=%u", n, p.rx.data[n]);
    return text;
}

std::string kinds(const char *addresses)
{
    std::string text;
    for (const std::string &address : parts(addresses, ' '))
        text += world_format("%x ", ipv6_addr_type(ip6(address.c_str()).data()));
    return text;
}

const Bytes FULL = opt6(1, Bytes(1978, 0)); // options that fill a frame of 2048 bytes

#define VLAN "svlan 4096, cvlan 10.|"
#define PORT(port) VLAN "Src_port " port ", ip6_start 14, udp6_start 54, dh6_start 62.|"
#define OK "0x86dd 10.0 type "
TEST_F(Parse6, Ladder)
{
    const Bytes EXTENSION = hex_bytes("11 00 01 04 00 00 00 00"); // next header UDP, PadN
    Frame6 tagged = server6(7, opt6(8, {0, 0}) + status6(5, "x") + ia_na(iaaddr("2001:db8::1", 60)) + opt6(18, {1, 2, 3}) + ia_ta({}) + opt6(37, be32(9)) + ia_na({}));
    tagged.tags = {{0x88A8, 0x2064}, {0x8100, 0x0014}};
    check({
        {"from port 546; from port 547; the source port alone tells DHCPv6", series({parsed({}), parsed({.srcPort = 547}), parsed({.srcPort = 547, .dstPort = 53})}), PORT("546") OK "1, 66/66 40+12 12 4 / " PORT("547") OK "1, 66/66 40+12 12 4 / " PORT("547") OK "1, 66/66 40+12 12 4"},
        {"from 545; from 548 to 547; TCP; fragment header", series({parsed({.srcPort = 545}), parsed({.srcPort = 548}), parsed({.nextHeader = 6}), parsed({.nextHeader = 44, .extension = hex_bytes("11 00 00 01 00 00 00 01")})}), VLAN "-1"},
        // Kept: what follows an extension header is judged by its own first byte, so that a message behind one is never snooped; 17 is taken for UDP.
        {"hop-by-hop header in front of UDP; a second extension header misread as UDP, port 0x1100", series({parsed({.nextHeader = 0, .extension = EXTENSION}), parsed({.nextHeader = 60, .extension = EXTENSION + EXTENSION})}), VLAN "-1"},
        {"one byte missing; ten bytes more", series({parsed({}, -1), parsed({}, 10)}), PORT("546") "Packet validate: total length is error!|-1 / " PORT("546") OK "1, 66/76 40+12 12 4"},
        {"UDP longer by one; UDP shorter by one; UDP shorter than its header", series({parsed({.udpLen = 13}), parsed({.udpLen = 11}), parsed({.udpLen = 7})}), PORT("546") "Packet validate: udp length is error!|-1 / " PORT("546") OK "1, 66/66 40+12 11 3 / " PORT("546") OK "1, 66/66 40+12 7 0"},
        {"one byte less than type and transaction id; payload of 0; payload of 65535", series({parsed({.message = Bytes(3, 1)}), parsed({.payloadLen = 0, .udpLen = 0}), parsed({.payloadLen = 65535})}), PORT("546") "-1 / " PORT("546") "-1 / " PORT("546") "Packet validate: total length is error!|-1"},
        {"RELAY-FORW; RELAY-REPL; a message of 14", series({parsed({.type = 12}), parsed({.type = 13}), parsed({.type = 14})}), PORT("546") "Relay-server message, stop process!|-1 / " PORT("546") "Relay-server message, stop process!|-1 / " PORT("546") OK "14, 66/66 40+12 12 4"},
        {"a frame that ends in the IPv6 header; a full frame", series({parsed({}, -26), parsed({.options = FULL})}), VLAN "-1 / " PORT("546") OK "1, 2048/2048 40+1994 1994 1986"},
        {"two tags, a server; its options", series({parsed(tagged, 7, {.outer = 100, .inner = 20}), options(Parsed(tagged).info)}), "svlan 100, cvlan 20.|Src_port 547, ip6_start 22, udp6_start 62, dh6_start 70.|0x86dd 100.20 type 7, 170/177 40+108 108 100 at 22 26 62 66 70 / status 5, 18 at 57, 37 at 72, IA at 13, IA at 64, IA at 80"},
        // A scope index never leaves; the checksum is as it was.
        {"link-local; site-local keeps it; multicast keeps it", series({parsed({.srcIp = ip6("febf:ffff:5::1")}), parsed({.srcIp = ip6("fec0:1234::1")}), parsed({.srcIp = ip6("ff02:1234::1")})}), PORT("546") OK "1, 66/66 40+12 12 4 [24]=0 [25]=0 / " PORT("546") OK "1, 66/66 40+12 12 4 / " PORT("546") OK "1, 66/66 40+12 12 4"},
    });
}

TEST_F(Parse6, OptionsAndAddresses)
{
    const auto finds = [](Bytes area, uint32_t length = 1000) {
        const uint8_t *found = dhcp6snoop_get_opt(area.data(), 5, length == 1000 ? static_cast<uint32_t>(area.size()) : length);
        return found == nullptr ? "none" : std::to_string(found - area.data());
    };
    const auto ias = [](int count) { Bytes all; for (; count > 0; count--) all = all + ia_ta({}); return all; };
    Frame6 slack = client6(1);
    slack.slack = slack.padding = opt6(18, {1});
    check({
        {"the last status counts; a status of one byte does not, one of two does; the last Interface-Id and Remote-Id count; empty options count", series({options(status6(2) + status6(3)), options(opt6(13, {1, 2}) + opt6(13, {9})), options(opt6(18, {1}) + opt6(37, be32(1)) + opt6(18, {2, 3}) + opt6(37, be32(2))), options(opt6(18, {}) + opt6(37, {}))}), "status 3 / status 258 / status 0, 18 at 13, 37 at 19 / status 0, 18 at 0, 37 at 4"},
        {"code 3 and 4, not 25 (IA_PD); nested options are not looked at; three bytes behind the last option; a bare header at the end", series({options(opt6(25, Bytes(12, 0)) + ia_na({}) + ia_ta({})), options(ia_na(status6(2) + opt6(18, {1}) + opt6(37, be32(1)) + ia_ta({}))), options(opt6(18, {1}) + Bytes{0, 18, 0}), options(opt6(18, {1}) + opt6(37, {}, 4))}), "status 0, IA at 16, IA at 32 / status 0, IA at 0 / status 0, 18 at 0 / status 0, 18 at 0, 37 at 5"},
        {"an option that claims more than there is is recorded, nothing behind it; a step of 65536 does not come round; a status of which one byte is there; behind the datagram, inside the IPv6 payload, not behind that; 64 IAs; one IA more", series({options(opt6(3, Bytes(12, 0), 65535) + opt6(18, {1})), options(opt6(1, {0, 0}, 65532) + opt6(18, {1})), options(opt6(13, {7}, 2)), options(Parsed(slack).info), options(ias(64) + opt6(18, {1})), options(ias(65) + opt6(18, {1}))}), "status 0, IA at 0 / status 0 / status 0 / status 0, 18 at 0 / status 0, 18 at 512, IA at 0, IA at 504 / status 0, 18 at 520, IA at 0, IA at 504"},
        // The kernel's IPV6_ADDR_ bits for the ranges of RFC 4291 2.4.
        {"any, loopback, IPv4-compatible, IPv4-mapped; global unicast; link-local and site-local; multicast by scope; reserved", series({kinds(":: ::1 ::2 ::10.0.0.1 ::ffff:10.0.0.1 ::ffff:0:0"), kinds("2000:: 3fff:ffff::1 dfff::1"), kinds("fe80::1 febf:ffff::1 fec0::1 feff:ffff::1"), kinds("ff00::1 ff01::1 ff02::1:2 ff05::1:3 ff0e::1 ff12::1"), kinds("1fff:ffff::1 e000::1 fdff::1 fe7f:ffff::1 0:0:1:: 1:: ::1:0:0 ::fffe:10.0.0.1 0:0:0:1::1")}), "0 11 81 81 1000 1000  / 1 1 1  / 21 21 41 41  / 2 12 22 42 2 2  / 2000 2000 2000 2000 2000 2000 2000 2000 2000 "},
        // The option finder.
        {"the first one; behind another; not there; Kept: the first option counts whatever the length says; the second begins where the area ends; the second has three bytes in the area; the second has its header in the area", series({finds(opt6(5, {1}) + opt6(5, {2})), finds(opt6(1, {1, 2, 3}) + opt6(5, {2})), finds(opt6(1, {1}) + opt6(6, {1})), finds(opt6(5, Bytes(20, 0)), 6), finds(opt6(1, {1}) + opt6(5, {1}), 5), finds(opt6(1, {1}) + opt6(5, {1}), 8), finds(opt6(1, {1}) + opt6(5, {1}), 9)}), "0 / 7 / none / 0 / none / none / 5"},
        {"no area; a length that passes the area; a step of 65536", series({finds(opt6(5, {1}), 0), finds(opt6(1, {1}, 65535) + opt6(5, {1})), finds(opt6(1, {}, 65532) + opt6(5, {1}))}), "none"},
    });
}

// Frames in memory that ends with their buffer: nothing is read behind it, whatever the headers claim.
TEST_F(Parse6, NothingIsReadBehindTheBuffer)
{
    constexpr size_t HALF = 65536;
    auto *memory = static_cast<uint8_t *>(mmap(nullptr, 2 * HALF, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(memory + HALF, HALF, PROT_NONE), 0);
    const auto parse = [memory](uint32_t l2, const Bytes &packet) {
        DhcpsnoopPktInfo info = {};
        info.frame = memory + HALF - 2048;
        info.frameLen = 2048;
        info.l2HdrLen = l2;
        info.ipHdr = info.frame + l2;
        memcpy(info.ipHdr, packet.data(), 2048 - l2);
        dhcp6snoop_packet_parse(&info, 1);
    };
    Bytes packet = Frame6{.options = FULL, .padding = Bytes(14, 0)};
    packet.erase(packet.begin(), packet.begin() + 14);
    for (const uint8_t next : Bytes{17, 0, 43, 60}) { // UDP, then extension headers without end
        for (size_t i = next == 17 ? 2048 : 40; i < 2048; i++)
            packet[i] = i % 8 == 0 ? next : 0;
        packet[6] = next;
        for (uint32_t l2 = 14; l2 <= 2048; l2++)
            parse(l2, packet);
    }
    munmap(memory, 2 * HALF);
}

// Of an odd length; scapy's sum of IPv6(src="fe80::1",dst="ff02::1:2")/UDP(sport=546,dport=547)/b"\1\2\3\4\5". Others: test_msg6.cpp.
TEST_F(Parse6, UdpChecksum)
{
    Parsed odd(Frame6{.srcIp = ip6("fe80::1"), .udpChecksum = 0, .message = Bytes{1, 2, 3, 4, 5}});
    EXPECT_EQ(dhcp6snoop_get_udp_checksum(&odd.info), 0xF501);
    odd.info.udpHdr = odd.info.frame + 36; // so much stands in front of it in the work buffer of 2048
    for (odd.info.udpLen = 2012; odd.info.udpLen < 2014; odd.info.udpLen++)
        EXPECT_EQ(dhcp6snoop_get_udp_checksum(&odd.info) != 0, odd.info.udpLen == 2012);
}

} // namespace
