// The classifier itself, run by the kernel on frames of ours (BPF_PROG_TEST_RUN): what it takes for DHCP,
// where it traps, and how a trapped frame leaves. The same rows for the object of this build and for the one
// kept in the tree. A tag that the kernel has taken out of the frame cannot be had here; test_frames.cpp has
// those.
#include "guard_program.h"

namespace
{

constexpr uint16_t S_TAG = 0x88A8, OLD_S_TAG = 0x9100;
constexpr uint8_t HOP_BY_HOP = 0, TCP = 6, UDP = 17, ROUTING = 43, FRAGMENT = 44, ESP = 50, AH = 51,
                  ICMPV6 = 58, NO_NEXT = 59, DESTINATION = 60, MOBILITY = 135;

Frame v4(uint16_t srcPort = 68, uint16_t dstPort = 67)
{
    Frame frame = discover();
    frame.srcPort = srcPort;
    frame.dstPort = dstPort;
    return frame;
}

Frame tagged(std::vector<Tag> tags)
{
    Frame frame = discover();
    frame.tags = std::move(tags);
    return frame;
}

// Byte 6 and 7 of the IPv4 header: flags and fragment offset.
Bytes fragment(uint16_t flagsAndOffset)
{
    Bytes bytes = v4().bytes();
    bytes[20] = static_cast<uint8_t>(flagsAndOffset >> 8);
    bytes[21] = static_cast<uint8_t>(flagsAndOffset);
    return bytes;
}

Bytes cut(Bytes bytes, size_t length)
{
    bytes.resize(length);
    return bytes;
}

// An IPv6 frame. `rest` is what follows the header whose first next-header value is `next`; the payload
// length is that of `rest`, less `padding` bytes that stand behind the packet.
Bytes v6(uint8_t next, const Bytes &rest, std::vector<Tag> tags = {}, size_t padding = 0)
{
    Bytes bytes = hex_bytes("33 33 00 01 00 02 02 c1 00 00 00 01");
    for (const Tag &tag : tags)
        bytes = bytes + be16(tag.tpid) + be16(tag.tci);
    return bytes + hex_bytes("86 dd 60 00 00 00") + be16(static_cast<uint32_t>(rest.size() - padding)) +
           Bytes{next, 1} + hex_bytes("fe800000000000000000000000000001 ff020000000000000000000000010002") +
           rest;
}

// RFC 8415: a SOLICIT with transaction id and nothing else.
Bytes udp6(uint16_t srcPort = 546, uint16_t dstPort = 547)
{
    return be16(srcPort) + be16(dstPort) + be16(12) + be16(0) + hex_bytes("01 12 34 56");
}

// An extension header of 8 * (1 + extra) bytes.
Bytes extension(uint8_t next, uint8_t extra = 0)
{
    return Bytes{next, extra} + repeated(0, 6 + 8 * size_t{extra});
}

Bytes fragment6(uint8_t next, uint16_t offsetAndMore)
{
    return Bytes{next, 0} + be16(offsetAndMore) + be32(0x1234);
}

Bytes chain(size_t headers, uint8_t last, const Bytes &rest)
{
    Bytes bytes;
    for (size_t i = 1; i < headers; i++)
        bytes = bytes + extension(DESTINATION);
    return bytes + extension(last) + rest;
}

struct ClassRow {
    const char *claim;
    Bytes frame;
    int family; // 4 or 6: DHCP of that family; 0: none of the daemon's business; -1: not to be told
};

const ClassRow CLASS_ROWS[] = {
    {"a client's DISCOVER", v4().bytes(), 4},
    {"a server's broadcast reply", v4(67, 68).bytes(), 4},
    {"between relay and server", v4(67, 67).bytes(), 4},
    {"a reply from an odd port", v4(1234, 68).bytes(), 4},
    {"a request from an odd port", v4(1234, 67).bytes(), 4},
    {"to an odd port from the server port", v4(67, 1234).bytes(), 4},
    {"to an odd port from the client port", v4(68, 1234).bytes(), 4},
    {"the port below", v4(66, 66).bytes(), 0},
    {"the port above (TFTP)", v4(69, 69).bytes(), 0},
    {"67 in the high byte", v4(67 << 8, 68 << 8).bytes(), 0},
    {"TCP on the same ports",
     [] {
         Frame f = discover();
         f.protocol = TCP;
         return f.bytes();
     }(),
     0},
    {"one 802.1Q tag", tagged({{0x8100, 10}}).bytes(), 4},
    {"one S-tag", tagged({{S_TAG, 10}}).bytes(), 4},
    {"one old S-tag", tagged({{OLD_S_TAG, 10}}).bytes(), 4},
    {"a priority tag", tagged({{0x8100, 0xE000}}).bytes(), 4},
    {"S-tag and C-tag", tagged({{S_TAG, 10}, {0x8100, 20}}).bytes(), 4},
    {"old S-tag and C-tag", tagged({{OLD_S_TAG, 10}, {0x8100, 20}}).bytes(), 4},
    {"two C-tags", tagged({{0x8100, 10}, {0x8100, 20}}).bytes(), 4},
    {"three tags left in the frame", tagged({{S_TAG, 10}, {S_TAG, 10}, {0x8100, 20}}).bytes(), -1},
    {"a tag of unknown type", tagged({{0x9200, 10}}).bytes(), 0},
    {"4 bytes of IP options",
     [] {
         Frame f = discover();
         f.ipOptions = repeated(1, 4);
         return f.bytes();
     }(),
     4},
    {"40 bytes of IP options",
     [] {
         Frame f = discover();
         f.ipOptions = repeated(1, 40);
         return f.bytes();
     }(),
     4},
    {"ports inside the IP options",
     [] {
         Frame f = v4(5000, 5001);
         f.ipOptions = hex_bytes("00 44 00 43");
         return f.bytes();
     }(),
     0},
    {"a header length of 4 words",
     [] {
         Frame f = discover();
         f.ihl = 4;
         f.dstIp = 0x00440043;
         return f.bytes();
     }(),
     -1},
    {"version 6 behind 0x0800",
     [] {
         Frame f = discover();
         f.ipVersion = 6;
         return f.bytes();
     }(),
     -1},
    {"do not fragment", fragment(0x4000), 4},
    {"the reserved flag", fragment(0x8000), 4},
    {"a first fragment", fragment(0x2000), 4},
    {"a later fragment that reads like ports", fragment(0x2001), 0},
    {"a later fragment at 32 KiB", fragment(0x1000), 0},
    {"the last fragment of the largest datagram", fragment(0x1FFF), 0},
    {"cut in the ports", cut(v4().bytes(), 37), 0},
    {"cut behind the ports", cut(v4().bytes(), 38), 4},
    {"cut in the tag", cut(tagged({{0x8100, 10}}).bytes(), 17), -1},
    {"ARP on which IP bytes follow",
     [] {
         Frame f = discover();
         f.etherType = 0x0806;
         return f.bytes();
     }(),
     0},
    {"a length in place of the EtherType",
     [] {
         Frame f = discover();
         f.etherType = 0x0148;
         return f.bytes();
     }(),
     0},

    {"a SOLICIT", v6(UDP, udp6()), 6},
    {"a server's reply", v6(UDP, udp6(547, 546)), 6},
    {"a reply from an odd port, v6", v6(UDP, udp6(5000, 546)), 6},
    {"a request from an odd port, v6", v6(UDP, udp6(5000, 547)), 6},
    {"to an odd port, v6", v6(UDP, udp6(547, 5000)), 6},
    {"the ports around", v6(UDP, udp6(545, 548)), 0},
    {"DHCPv4 ports in IPv6", v6(UDP, udp6(68, 67)), 0},
    {"DHCPv6 ports in IPv4", v4(546, 547).bytes(), 0},
    {"TCP, v6", v6(TCP, udp6()), 0},
    {"version 4 behind 0x86DD",
     [] {
         Bytes b = v6(UDP, udp6());
         b[14] = 0x45;
         return b;
     }(),
     -1},
    {"a tagged SOLICIT", v6(UDP, udp6(), {{0x8100, 10}}), 6},
    {"a SOLICIT with two tags", v6(UDP, udp6(), {{OLD_S_TAG, 10}, {0x8100, 20}}), 6},
    {"behind a hop-by-hop header", v6(HOP_BY_HOP, extension(UDP) + udp6()), 6},
    {"behind a long hop-by-hop header", v6(HOP_BY_HOP, extension(UDP, 3) + udp6()), 6},
    {"behind three kinds of header",
     v6(HOP_BY_HOP, extension(ROUTING) + extension(DESTINATION, 1) + extension(UDP, 2) + udp6()), 6},
    {"behind an authentication header (RFC 4302: words less 2)", v6(AH, Bytes{UDP, 4} + repeated(0, 22) + udp6()), 6},
    {"behind a mobility header", v6(MOBILITY, extension(UDP) + udp6()), 6},
    {"TCP behind a hop-by-hop header", v6(HOP_BY_HOP, extension(TCP) + udp6()), 0},
    {"multicast listener report", v6(HOP_BY_HOP, extension(ICMPV6) + udp6()), 0},
    {"neighbour discovery", v6(ICMPV6, udp6()), 0},
    {"encrypted", v6(ESP, udp6()), 0},
    {"nothing follows", v6(NO_NEXT, udp6()), 0},
    {"an unknown protocol", v6(253, udp6()), 0},
    {"a first fragment, v6", v6(FRAGMENT, fragment6(UDP, 1) + udp6()), 6},
    {"an atomic fragment (RFC 6946)", v6(FRAGMENT, fragment6(UDP, 0) + udp6()), 6},
    {"a later fragment, v6", v6(FRAGMENT, fragment6(UDP, 0x0009) + udp6()), 0},
    {"a later fragment at 8 KiB", v6(FRAGMENT, fragment6(UDP, 0x2000) + udp6()), 0},
    {"a first fragment of TCP", v6(FRAGMENT, fragment6(TCP, 1) + udp6(546, 547)), 0},
    {"a first fragment that ends in its header chain (RFC 7610)",
     v6(FRAGMENT, fragment6(DESTINATION, 1) + Bytes{UDP, 1} + repeated(0, 6)), 6},
    {"the same with innocent ports in the padding behind it",
     v6(FRAGMENT, fragment6(DESTINATION, 1) + Bytes{UDP, 1} + repeated(0, 14) + udp6(5000, 5001), {}, 20), 6},
    {"a UDP header only in the padding", v6(UDP, udp6(5000, 5001), {}, 12), 6},
    {"an extension header only in the padding", v6(HOP_BY_HOP, extension(TCP), {}, 8), 6},
    {"15 extension headers, then TCP", v6(DESTINATION, chain(15, TCP, udp6())), 0},
    {"16 extension headers, more than anybody sends", v6(DESTINATION, chain(16, TCP, udp6())), 6},
    {"cut in the ports, v6", cut(v6(UDP, udp6()), 57), 0},
};

TEST_P(GuardProgram, TakesDhcpAndNothingElse)
{
    const guard_port port = port_of(1, GUARD_TRAP_V4 | GUARD_TRAP_V6, 0);
    put("guard_ports", port_, &port);
    for (const ClassRow &row : CLASS_ROWS) {
        SCOPED_TRACE(row.claim);
        Bytes out;
        EXPECT_EQ(verdict(row.frame, &out), row.family > 0 ? TAKEN : row.family < 0 ? REFUSED : PASSED);
        EXPECT_EQ(hex(out), hex(row.family > 0 ? carried(row.family, row.frame) : row.frame));
    }
}

// What one family's trap is about never touches the other's frames.
TEST_P(GuardProgram, TrapsOneFamilyAlone)
{
    for (const int family : {4, 6}) {
        const guard_port port = port_of(1, family == 4 ? uint8_t{GUARD_TRAP_V4} : uint8_t{GUARD_TRAP_V6}, 0);
        put("guard_ports", port_, &port);
        for (const ClassRow &row : CLASS_ROWS) {
            SCOPED_TRACE(row.claim);
            EXPECT_EQ(verdict(row.frame), row.family == family ? TAKEN : row.family < 0 ? REFUSED : PASSED);
        }
    }
}

TEST_P(GuardProgram, TrapsWhereItIsTold)
{
    constexpr uint8_t V4 = GUARD_TRAP_V4, V6 = GUARD_TRAP_V6;
    struct Place {
        uint8_t trap, inherited;
    };
    const Bytes untagged = v4().bytes(), priority = tagged({{0x8100, 0xE000}}).bytes(),
                vlan10 = tagged({{0x8100, 0x600A}}).bytes(), vlan20 = tagged({{0x8100, 20}}).bytes(),
                sTag10 = tagged({{S_TAG, 10}, {0x8100, 20}}).bytes(),
                sTag20 = tagged({{S_TAG, 20}, {0x8100, 10}}).bytes();
    const struct {
        const char *claim;
        Place port, vlan; // the trap of port p1, and of VLAN 10
        uint16_t native;  // of port p1
        Bytes frame;
        uint32_t verdict;
    } rows[] = {
        {"no trap", {0, 0}, {0, 0}, 10, untagged, PASSED},
        {"the port's", {V4, 0}, {0, 0}, 10, untagged, TAKEN},
        {"the port's, any VLAN", {V4, 0}, {0, 0}, 10, vlan20, TAKEN},
        {"the port's other family", {V6, 0}, {0, 0}, 10, untagged, PASSED},
        {"the VLAN's, untagged on a port of it", {0, 0}, {V4, 0}, 10, untagged, TAKEN},
        {"the VLAN's, untagged on another's port", {0, 0}, {V4, 0}, 20, untagged, PASSED},
        {"the VLAN's, untagged on a routed port", {0, 0}, {V4, 0}, 0, untagged, PASSED},
        {"the VLAN's, priority tag", {0, 0}, {V4, 0}, 10, priority, TAKEN},
        {"the VLAN's, priority tag elsewhere", {0, 0}, {V4, 0}, 20, priority, PASSED},
        {"the VLAN's tag, with a priority", {0, 0}, {V4, 0}, 20, vlan10, TAKEN},
        {"another VLAN's tag on a port of it", {0, 0}, {V4, 0}, 10, vlan20, PASSED},
        {"the outer of two tags", {0, 0}, {V4, 0}, 20, sTag10, TAKEN},
        {"the inner of two tags", {0, 0}, {V4, 0}, 10, sTag20, PASSED},
        {"the VLAN's other family", {0, 0}, {V6, 0}, 10, untagged, PASSED},
        {"both", {V4, 0}, {V4, 0}, 10, untagged, TAKEN},
        {"an earlier run's on the port", {0, V4}, {0, 0}, 10, untagged, TAKEN},
        {"an earlier run's on the VLAN", {0, 0}, {0, V4}, 10, vlan10, TAKEN},
        {"an earlier run's of the other family", {0, V6}, {0, V6}, 10, untagged, PASSED},
    };
    const uint64_t now = boottime();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        const guard_port port = port_of(row.native, row.port.trap, row.port.inherited);
        const guard_vlan vlan = {.trap = row.vlan.trap, .inherited = row.vlan.inherited, .reserved = {}};
        guard_state holds = {}, over = {};
        holds.inherited_until = now + 3600000000000u;
        over.inherited_until = now;
        put("guard_ports", port_, &port);
        put("guard_vlans", 10, &vlan);
        put("guard_state", 0, &holds);
        EXPECT_EQ(verdict(row.frame), row.verdict);
        put("guard_state", 0, &over);
        const bool set = ((row.port.trap | row.vlan.trap) & V4) != 0;
        EXPECT_EQ(verdict(row.frame), set ? row.verdict : PASSED) << "after the time to inherit is over";
    }
}

// The bridge, bond or VLAN device above sees the frame once more; a VLAN's trap must not take it there.
TEST_P(GuardProgram, LeavesDevicesThatAreNoPorts)
{
    const guard_vlan vlan = {.trap = GUARD_TRAP_V4, .inherited = 0, .reserved = {}};
    put("guard_vlans", 10, &vlan);
    EXPECT_EQ(verdict(tagged({{0x8100, 10}}).bytes()), PASSED);
}

INSTANTIATE_TEST_SUITE_P(Built, GuardProgram, ::testing::Values(GUARD_BUILT_OBJECT));
INSTANTIATE_TEST_SUITE_P(InTheTree, GuardProgram, ::testing::Values(GUARD_TREE_OBJECT));

} // namespace
