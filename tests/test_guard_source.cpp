// IP source guard and ARP inspection in the classifier: which frames of a guarded port go on, and why the
// others are counted. The frames are scapy's.
#include "guard_program.h"

#include <array>
#include <vector>

namespace
{

// 02:..:05 with 10.0.10.5 and 2001:db8:10::5.
const Bytes UDP4 = hex_bytes("02000000000102000000000508004500001d00010000401152ca0a000a050a000a010fa0138800093cae78"),
            LATER4 = hex_bytes("02000000000102000000000508004500001c000100b9401152120a000a050a000a016162636465666768"),
            REQUEST = hex_bytes("ffffffffffff020000000005080600010800060400010200000000050a000a050000000000000a000a01"),
            REPLY = hex_bytes("020000000001020000000005080600010800060400020200000000050a000a050200000000010a000a01"),
            UDP6 = hex_bytes("02000000000102000000000586dd6000000000091140 20010db8001000000000000000000005"
                             "20010db80010000000000000000000010fa013880009091c78"),
            LATER6 = hex_bytes("02000000000102000000000586dd6000000000102c40 20010db8001000000000000000000005"
                               "20010db800100000000000000000000111000050000000006162636465666768");
// Of others, with that MAC.
const Bytes PROBE = hex_bytes("ffffffffffff02000000000508060001080006040001020000000005000000000000000000000a000a09"),
            DAD = hex_bytes("3333ff00000902000000000586dd6000000000183aff 00000000000000000000000000000000"
                            "ff0200000000000000000001ff00000987004ccd0000000020010db8001000000000000000000009"),
            ADVERT = hex_bytes("02000000000102000000000586dd6000000000183aff 20010db8001000000000000000000009"
                               "20010db800100000000000000000000188004e3ea000000020010db8001000000000000000000009"),
            PING6 = hex_bytes("02000000000102000000000586dd6000000000083aff 20010db8001000000000000000000009"
                              "20010db80010000000000000000000018000242100000000"),
            MLD = hex_bytes("33330000001602000000000586dd6000000000100001 fe800000000000000000000000000005"
                            "ff0200000000000000000000000000163a000502000001008f00731e00000000"),
            SOLICIT = hex_bytes("33330001000202000000000586dd60000000000c1140 20010db8001000000000000000000009"
                                "ff02000000000000000000000001000202220223000ccdb801000001"),
            LLDP = hex_bytes("0180c200000e02000000000588cc00000000000000000000000000000000000000000000");

constexpr size_t SOURCE_MAC = 6, TYPE = 12, NETWORK = 14, ARP_MAC = 22, ARP_ADDRESS = 28, IP_ADDRESS = 26, IP6_ADDRESS = 22;
constexpr uint8_t ADDRESS = GUARD_CHECK_ADDRESS, MAC = GUARD_CHECK_MAC, VLAN = GUARD_CHECK_VLAN, PORT = GUARD_CHECK_PORT;

Bytes with(Bytes bytes, size_t at, const Bytes &part)
{
    std::copy(part.begin(), part.end(), bytes.begin() + static_cast<ptrdiff_t>(at));
    return bytes;
}

Bytes tagged(const Bytes &bytes, const Bytes &tags)
{
    const auto type = bytes.begin() + TYPE;
    return Bytes(bytes.begin(), type) + tags + Bytes(type, bytes.end());
}

// The same packet as IEEE 802.2 has it (RFC 1042).
Bytes snap(const Bytes &bytes)
{
    const Bytes front(bytes.begin(), bytes.begin() + TYPE), rest(bytes.begin() + TYPE, bytes.end());
    return front + be16(static_cast<uint32_t>(rest.size() + 6)) + hex_bytes("aaaa03000000") + rest;
}

Bytes first(const Bytes &bytes, size_t length) { return Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(length)); }

class GuardSource : public GuardProgram
{
  protected:
    void SetUp() override
    {
        GuardProgram::SetUp();
        if (IsSkipped())
            return;
        veth("p2", "c2");
        other_ = index("p2");
        const std::vector<guard_refused> zero(static_cast<size_t>(libbpf_num_possible_cpus()));
        for (const uint32_t port : {port_, other_}) {
            const guard_port untagged10 = port_of(10, 0, 0);
            put("guard_ports", port, &untagged10);
            put("guard_refused", port, zero.data());
            guard(port, ADDRESS, ADDRESS);
        }
    }

    void guard(uint32_t port, uint8_t ip, uint8_t arp)
    {
        guard_items items = {};
        items.ip = ip;
        items.arp = arp;
        put("guard_port_items", port, &items);
    }

    // The binding of host 5 on p1 in VLAN 10, as so many items of it.
    guard_rule_key host5(uint8_t kind, uint8_t mask) const
    {
        guard_rule_key key = {};
        key.kind = kind;
        key.mask = mask;
        if (mask & PORT)
            key.ifindex = port_;
        if (mask & VLAN)
            key.vid = 10;
        if (mask & MAC)
            memcpy(key.mac, UDP4.data() + SOURCE_MAC, 6);
        if (mask & ADDRESS)
            memcpy(key.addr, kind == GUARD_IPV6 ? &UDP6[IP6_ADDRESS] : &UDP4[IP_ADDRESS], kind == GUARD_IPV6 ? 16 : 4);
        return key;
    }

    void bind(const guard_rule_key &key, uint32_t run = 1)
    {
        const guard_rule rule = {1, run, 0};
        ASSERT_EQ(bpf_map_update_elem(map("guard_rules"), &key, &rule, BPF_ANY), 0);
        state_.masks |= uint64_t{1} << (16 * key.kind + key.mask / 16);
        state_.run = 1;
        put("guard_state", 0, &state_);
    }

    void unbind(const guard_rule_key &key)
    {
        ASSERT_EQ(bpf_map_delete_elem(map("guard_rules"), &key), 0);
        state_.masks = 0;
        put("guard_state", 0, &state_);
    }

    int map(const char *name) { return bpf_object__find_map_fd_by_name(object_, name); }

    // Frames refused on p1 since the last call, by reason.
    std::array<uint64_t, GUARD_REASONS> refused()
    {
        std::vector<guard_refused> each(static_cast<size_t>(libbpf_num_possible_cpus()));
        std::array<uint64_t, GUARD_REASONS> sum = {};
        EXPECT_EQ(bpf_map_lookup_elem(map("guard_refused"), &port_, each.data()), 0);
        for (guard_refused &one : each)
            for (size_t reason = 0; reason < GUARD_REASONS; reason++)
                sum[reason] += std::exchange(one.frames[reason], 0u);
        put("guard_refused", port_, each.data());
        return sum;
    }

    uint32_t other_ = 0;
    guard_state state_ = {};
};

// Every combination of check items: what is not among them may differ, what is may not.
TEST_P(GuardSource, GoesByTheItemsOfTheBinding)
{
    const Bytes otherMac = hex_bytes("020000000006"), tag20 = hex_bytes("81000014");
    const struct {
        const char *claim;
        uint8_t kind;
        Bytes frame, otherAddress, otherSender;
    } kinds[] = {
        {"IPv4", GUARD_IPV4, UDP4, with(UDP4, IP_ADDRESS + 3, {6}), with(UDP4, SOURCE_MAC, otherMac)},
        {"IPv6", GUARD_IPV6, UDP6, with(UDP6, IP6_ADDRESS + 15, {6}), with(UDP6, SOURCE_MAC, otherMac)},
        {"ARP", GUARD_ARP, REQUEST, with(REQUEST, ARP_ADDRESS + 3, {6}), with(with(REQUEST, SOURCE_MAC, otherMac), ARP_MAC, otherMac)},
    };
    for (const auto &[claim, kind, frame, otherAddress, otherSender] : kinds) {
        for (unsigned mask = 0x10; mask <= 0xF0; mask += 0x10) {
            SCOPED_TRACE(std::string(claim) + " " + std::to_string(mask));
            const auto items = static_cast<uint8_t>(mask);
            const guard_rule_key key = host5(kind, items);
            bind(key);
            for (const uint32_t port : {port_, other_})
                guard(port, items, items);
            EXPECT_EQ(verdict(frame), PASSED);
            EXPECT_EQ(verdict(tagged(frame, hex_bytes("8100000a"))), PASSED) << "its VLAN, tagged";
            EXPECT_EQ(verdict(otherAddress), mask & ADDRESS ? REFUSED : PASSED) << "address";
            EXPECT_EQ(verdict(otherSender), mask & MAC ? REFUSED : PASSED) << "MAC";
            EXPECT_EQ(verdict(tagged(frame, tag20)), mask & VLAN ? REFUSED : PASSED) << "VLAN";
            EXPECT_EQ(verdict(frame, nullptr, other_), mask & PORT ? REFUSED : PASSED) << "port";
            for (const uint8_t more : {ADDRESS, MAC, VLAN, PORT}) {
                guard(port_, items | more, items | more);
                EXPECT_EQ(verdict(frame), mask & more ? PASSED : REFUSED) << "where " << unsigned{more} << " is checked too";
            }
            guard(port_, items, items);
            unbind(key);
            EXPECT_EQ(verdict(frame), REFUSED) << "no binding";
        }
    }
}

// While bindings are installed anew with other items, old and new count side by side.
TEST_P(GuardSource, TakesBindingsOfSeveralMasks)
{
    bind(host5(GUARD_IPV4, ADDRESS | MAC | VLAN | PORT));
    guard_rule_key six = host5(GUARD_IPV4, ADDRESS);
    six.addr[3] = 6;
    bind(six);
    EXPECT_EQ(verdict(UDP4), PASSED);
    EXPECT_EQ(verdict(with(UDP4, IP_ADDRESS + 3, {6})), PASSED);
    EXPECT_EQ(verdict(with(UDP4, IP_ADDRESS + 3, {7})), REFUSED);
    EXPECT_EQ(verdict(with(UDP4, SOURCE_MAC, hex_bytes("020000000006"))), REFUSED);
    EXPECT_EQ(verdict(UDP6), REFUSED) << "bindings of another kind";
    EXPECT_EQ(verdict(REQUEST), REFUSED);
}

TEST_P(GuardSource, CountsAnEarlierRunsBindingsForATime)
{
    state_.rules_until = boottime() + 3600000000000u;
    bind(host5(GUARD_IPV4, ADDRESS), 7);
    EXPECT_EQ(verdict(UDP4), PASSED);
    state_.rules_until = boottime();
    bind(host5(GUARD_IPV4, ADDRESS), 7);
    EXPECT_EQ(verdict(UDP4), REFUSED);
    bind(host5(GUARD_IPV4, ADDRESS), 1);
    EXPECT_EQ(verdict(UDP4), PASSED) << "installed again";
}

constexpr int FREE = -1, V4 = GUARD_REFUSED_IPV4, V6 = GUARD_REFUSED_IPV6, ARP = GUARD_REFUSED_ARP,
              MALFORMED = GUARD_REFUSED_MALFORMED, UNCLEAR = GUARD_REFUSED_UNCLEAR;

// Both features stand on the port; the address of host 5 is bound, its MAC for ARP too.
TEST_P(GuardSource, LetsPassWhatItMust)
{
    bind(host5(GUARD_IPV4, ADDRESS));
    bind(host5(GUARD_IPV6, ADDRESS));
    bind(host5(GUARD_ARP, ADDRESS | MAC));
    const Bytes relayed = tagged(LLDP, hex_bytes("8100000a"));
    const struct {
        const char *claim;
        Bytes frame;
        int reason; // why it is refused, or FREE
    } rows[] = {
        {"a bound source", UDP4, FREE},
        {"a later fragment of it", LATER4, FREE},
        {"a later fragment of another", with(LATER4, IP_ADDRESS + 3, {6}), V4},
        {"source 0.0.0.0", with(UDP4, IP_ADDRESS, Bytes(4)), V4},
        {"a client's DISCOVER that nobody traps", discover().bytes(), FREE},
        {"a server's reply that nobody traps", [] { Frame f = discover(); f.srcPort = 67; f.dstPort = 68; return f.bytes(); }(), V4},
        {"from a client's port to another service", [] { Frame f = discover(); f.dstPort = 53; return f.bytes(); }(), V4},
        {"cut in the IP header", first(tagged(UDP4, hex_bytes("8100000a")), NETWORK + 4 + 19), MALFORMED},
        {"a header length of 4 words", with(UDP4, NETWORK, {0x44}), UNCLEAR},
        {"a header longer than the frame", with(UDP4, NETWORK, {0x48}), MALFORMED},
        {"a header as long as the frame", first(UDP4, NETWORK + 20), FREE},
        {"version 6 behind 0x0800", with(UDP4, NETWORK, {0x65}), UNCLEAR},

        {"a bound sender's request", REQUEST, FREE},
        {"a bound sender's reply", REPLY, FREE},
        {"another's Ethernet source", with(REPLY, SOURCE_MAC + 5, {6}), ARP},
        {"another's MAC in the message", with(REPLY, ARP_MAC + 5, {6}), ARP},
        {"a probe for an address (RFC 5227)", PROBE, FREE},
        {"a reply of nobody", with(PROBE, NETWORK + 7, {2}), ARP},
        {"ARP for another protocol", with(REQUEST, NETWORK + 2, {0x86, 0xDD}), MALFORMED},
        {"ARP on another medium", with(REQUEST, NETWORK, {0, 6}), MALFORMED},
        {"MACs of 7 bytes in ARP", with(REQUEST, NETWORK + 4, {7}), MALFORMED},
        {"cut in the ARP message", first(REQUEST, NETWORK + 27), MALFORMED},
        {"cut behind its first words", first(REQUEST, NETWORK + 7), MALFORMED},

        {"a bound source, v6", UDP6, FREE},
        {"a later fragment of it, v6", LATER6, FREE},
        {"a later fragment of another, v6", with(LATER6, IP6_ADDRESS + 15, {6}), V6},
        {"duplicate address detection", DAD, FREE},
        {"neighbour discovery for an address without a binding", ADVERT, FREE},
        {"the same from beyond the link", with(ADVERT, NETWORK + 7, {254}), V6},
        {"an echo request from there", PING6, V6},
        {"neighbour discovery's first type", with(ADVERT, NETWORK + 40, {133}), FREE},
        {"the type below", with(ADVERT, NETWORK + 40, {132}), V6},
        {"its last type", with(ADVERT, NETWORK + 40, {137}), FREE},
        {"the type above", with(ADVERT, NETWORK + 40, {138}), V6},
        {"cut behind the IPv6 header", first(ADVERT, NETWORK + 40), V6},
        {"a listener report, link-local", MLD, FREE},
        {"the last link-local prefix", with(UDP6, IP6_ADDRESS, {0xFE, 0xBF}), FREE},
        {"the prefix above", with(UDP6, IP6_ADDRESS, {0xFE, 0xC0}), V6},
        {"a SOLICIT that nobody traps", SOLICIT, FREE},
        {"cut in the IPv6 header", first(tagged(UDP6, hex_bytes("8100000a")), NETWORK + 4 + 39), MALFORMED},
        {"version 4 behind 0x86DD", with(UDP6, NETWORK, {0x45}), UNCLEAR},

        {"neither IP nor ARP", LLDP, FREE},
        {"neither, tagged", relayed, FREE},
        {"a bound source behind two tags", tagged(UDP4, hex_bytes("88a8000a 81000014")), FREE},
        {"another behind two tags", tagged(with(UDP4, IP_ADDRESS + 3, {6}), hex_bytes("88a8000a 81000014")), V4},
        {"three tags", tagged(UDP4, hex_bytes("8100000a 8100000a 8100000a")), UNCLEAR},
        {"IPv4 in a SNAP frame", snap(UDP4), UNCLEAR},
        {"ARP in a SNAP frame, tagged", tagged(snap(REQUEST), hex_bytes("8100000a")), MALFORMED},
        {"IPv6 in a SNAP frame of another organisation", with(snap(UDP6), NETWORK + 3, hex_bytes("0000f8")), UNCLEAR},
        {"another protocol in a SNAP frame", with(snap(UDP4), NETWORK + 6, hex_bytes("2000")), FREE},
        {"another 802.2 frame", with(snap(UDP4), NETWORK, hex_bytes("4242")), FREE},
        {"cut in the tag", first(tagged(UDP4, hex_bytes("8100000a")), NETWORK + 3), UNCLEAR},
    };
    for (const auto &[claim, frame, reason] : rows) {
        SCOPED_TRACE(claim);
        std::array<uint64_t, GUARD_REASONS> counts = {};
        if (reason != FREE)
            counts[static_cast<size_t>(reason)] = 1;
        EXPECT_EQ(verdict(frame), reason == FREE ? PASSED : REFUSED);
        EXPECT_EQ(refused(), counts);
    }
}

TEST_P(GuardSource, StandsWhereItIsTold)
{
    const Bytes tag10 = hex_bytes("8100000a"), tag20 = hex_bytes("81000014");
    struct Items {
        uint8_t ip, arp;
    };
    const struct {
        const char *claim;
        Items port, vlan10;
        Bytes frame;
        uint32_t verdict;
    } rows[] = {
        {"off", {0, 0}, {0, 0}, UDP4, PASSED},
        {"off, ARP", {0, 0}, {0, 0}, REQUEST, PASSED},
        {"off, too many tags", {0, 0}, {0, 0}, tagged(UDP4, tag20 + tag20 + tag20), PASSED},
        {"source guard on the port", {PORT, 0}, {0, 0}, UDP4, REFUSED},
        {"it leaves ARP alone", {PORT, 0}, {0, 0}, REQUEST, PASSED},
        {"inspection on the port", {0, MAC}, {0, 0}, REQUEST, REFUSED},
        {"it leaves IPv4 alone", {0, MAC}, {0, 0}, UDP4, PASSED},
        {"it leaves IPv6 alone", {0, MAC}, {0, 0}, UDP6, PASSED},
        {"inspection, too many tags", {0, MAC}, {0, 0}, tagged(UDP4, tag20 + tag20 + tag20), REFUSED},
        {"source guard in the VLAN, native", {0, 0}, {VLAN, 0}, UDP6, REFUSED},
        {"in the VLAN, tagged", {0, 0}, {VLAN, 0}, tagged(UDP6, tag10), REFUSED},
        {"in another VLAN", {0, 0}, {VLAN, 0}, tagged(UDP6, tag20), PASSED},
        {"inspection in the VLAN", {0, 0}, {0, VLAN}, REPLY, REFUSED},
        {"each feature in its own place", {MAC, 0}, {0, VLAN}, REPLY, REFUSED},
        {"an exempt port", {GUARD_EXEMPT, 0}, {VLAN, 0}, UDP6, PASSED},
        {"exempt from the other feature", {0, GUARD_EXEMPT}, {VLAN, 0}, UDP6, REFUSED},
        {"exempt from inspection", {0, GUARD_EXEMPT}, {VLAN, VLAN}, REPLY, PASSED},
        {"exempt from one, too many tags", {GUARD_EXEMPT, 0}, {VLAN, VLAN}, tagged(UDP4, tag10 + tag20 + tag20), REFUSED},
        {"exempt from both, too many tags", {GUARD_EXEMPT, GUARD_EXEMPT}, {VLAN, VLAN}, tagged(UDP4, tag10 + tag20 + tag20), PASSED},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        guard_items vlan = {};
        vlan.ip = row.vlan10.ip;
        vlan.arp = row.vlan10.arp;
        put("guard_vlan_items", 10, &vlan);
        guard(port_, row.port.ip, row.port.arp);
        EXPECT_EQ(verdict(row.frame), row.verdict);
    }
}

// The daemon gets a trapped frame whatever the guard thinks of its source, if it is for a client or a server.
TEST_P(GuardSource, ComesAfterTheTrap)
{
    const guard_port trapped = port_of(10, GUARD_TRAP_V4 | GUARD_TRAP_V6, 0);
    put("guard_ports", port_, &trapped);
    const size_t v4 = NETWORK + 20, v6 = NETWORK + 40;
    const Bytes reply = hex_bytes("11110044"), reply6 = hex_bytes("11110222"), from68 = hex_bytes("00440035"),
                from546 = hex_bytes("02220035");
    for (const Bytes &frame : {discover().bytes(), SOLICIT, with(UDP4, v4, reply), with(UDP6, v6, reply6)})
        EXPECT_EQ(verdict(frame), TAKEN);
    EXPECT_EQ(refused(), (std::array<uint64_t, GUARD_REASONS>{}));
    // From a client's port to another service: a disguise.
    for (const Bytes &frame : {with(UDP4, v4, from68), with(UDP6, v6, from546)})
        EXPECT_EQ(verdict(frame), REFUSED);
    EXPECT_EQ(refused(), (std::array<uint64_t, GUARD_REASONS>{1, 1, 0, 0}));
    bind(host5(GUARD_IPV4, ADDRESS));
    EXPECT_EQ(verdict(with(UDP4, v4, from68)), TAKEN) << "from a bound source";
}

INSTANTIATE_TEST_SUITE_P(Built, GuardSource, ::testing::Values(GUARD_BUILT_OBJECT));
INSTANTIATE_TEST_SUITE_P(InTheTree, GuardSource, ::testing::Values(GUARD_TREE_OBJECT));

} // namespace
