// The classifier itself, run by the kernel on frames of ours (BPF_PROG_TEST_RUN), for the object of this build and for the one kept in
// the tree. A tag that the kernel has taken out of the frame cannot be had here; test_frames.cpp has those.
#include <map>
#include <sstream>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/pkt_cls.h>

#include "guard_maps.h"
#include "netns_test.h"

namespace
{

constexpr size_t TYPE = 12, NETWORK = 14;
constexpr uint32_t RUN = 7; // of the daemon
constexpr const char *REASONS[] = {"ipv4", "ipv6", "arp", "malformed", "unclear", "vlan", "origin", "rate"};
static_assert(std::size(REASONS) == GUARD_REASONS);

// Frames of host 5 (02:..:05 with 10.0.10.5 and 2001:db8:10::5), and of others with its MAC; scapy's.
const std::map<std::string, std::string> FRAMES = {
    {"udp", "02000000000102000000000508004500001d00010000401152ca0a000a050a000a010fa0138800093cae78"},
    {"later", "02000000000102000000000508004500001c000100b9401152120a000a050a000a016162636465666768"},
    {"request", "ffffffffffff020000000005080600010800060400010200000000050a000a050000000000000a000a01"},
    {"reply", "020000000001020000000005080600010800060400020200000000050a000a050200000000010a000a01"},
    {"probe", "ffffffffffff02000000000508060001080006040001020000000005000000000000000000000a000a09"},
    {"udp6", "02000000000102000000000586dd600000000009114020010db800100000000000000000000520010db80010000000000000000000010fa013880009091c78"},
    {"later6", "02000000000102000000000586dd6000000000102c4020010db800100000000000000000000520010db800100000000000000000000111000050000000006162636465666768"},
    {"dad", "3333ff00000902000000000586dd6000000000183aff00000000000000000000000000000000ff0200000000000000000001ff00000987004ccd0000000020010db8001000000000000000000009"},
    {"advert", "02000000000102000000000586dd6000000000183aff20010db800100000000000000000000920010db800100000000000000000000188004e3ea000000020010db8001000000000000000000009"},
    {"ping6", "02000000000102000000000586dd6000000000083aff20010db800100000000000000000000920010db80010000000000000000000018000242100000000"},
    {"mld", "33330000001602000000000586dd6000000000100001fe800000000000000000000000000005ff0200000000000000000000000000163a000502000001008f00731e00000000"},
    {"lldp", "0180c200000e02000000000588cc00000000000000000000000000000000000000000000"},
    {"other", "0200000000010200000000059200000a0800"},
};
const std::map<std::string, uint8_t> PROTOCOLS = {{"hop", 0}, {"tcp", 6}, {"udp", 17}, {"route", 43}, {"frag", 44}, {"esp", 50}, {"auth", 51}, {"icmp", 58}, {"none", 59}, {"dest", 60}, {"mobility", 135}, {"identity", 139}, {"shim", 140}, {"253", 253}};
const std::map<char, uint8_t> BITS = {{'4', GUARD_TRAP_V4}, {'6', GUARD_TRAP_V6}, {'a', GUARD_CHECK_ADDRESS}, {'m', GUARD_CHECK_MAC}, {'v', GUARD_CHECK_VLAN}, {'p', GUARD_CHECK_PORT}, {'x', GUARD_EXEMPT}, {'!', GUARD_NOT_4}};
const std::map<std::string, uint8_t> KINDS = {{"rule4", GUARD_IPV4}, {"rule6", GUARD_IPV6}, {"rulea", GUARD_ARP}};
const std::map<char, uint16_t> TPIDS = {{'q', 0x8100}, {'s', 0x88A8}, {'o', 0x9100}, {'x', 0x9200}};

// Families or items: "46", "amvp".
uint8_t bits(const std::string &letters)
{
    uint8_t all = 0;
    for (const char letter : letters)
        all |= BITS.at(letter);
    return all;
}

uint32_t number_of(const std::string &text) { return static_cast<uint32_t>(std::stoul(text, nullptr, 0)); }

void write_at(Bytes &bytes, size_t at, const Bytes &part) { std::copy(part.begin(), part.end(), bytes.begin() + static_cast<ptrdiff_t>(at)); }

// An IPv6 packet by its header chain "dest:1,frag:9,udp": a destination header of 16 bytes, a fragment at offset 1 with more to come. The
// last is the payload's protocol; the payload is always a DHCPv6 message between these ports (RFC 8415).
Bytes packet6(std::string chain, uint32_t source, uint32_t destination)
{
    Bytes payload = be16(source) + be16(destination) + be16(12) + be16(0) + hex_bytes("01123456");
    uint8_t next = 0;
    for (bool last = true; !chain.empty(); last = false) {
        const size_t comma = chain.rfind(',') + 1, colon = chain.find(':', comma);
        const std::string name = chain.substr(comma, colon - comma);
        const uint32_t value = colon == std::string::npos ? 0 : number_of(chain.substr(colon + 1));
        if (!last && name == "frag")
            payload = Bytes{next, 0} + be16(value) + be32(0x1234) + payload;
        else if (!last)
            payload = Bytes{next, static_cast<uint8_t>(value)} + Bytes(name == "auth" ? value * 4 + 6 : value * 8 + 6, 0) + payload;
        next = PROTOCOLS.at(name);
        chain.resize(std::max<size_t>(comma, 1) - 1);
    }
    return hex_bytes("60000000") + be16(static_cast<uint32_t>(payload.size())) + Bytes{next, 1} +
           hex_bytes("fe800000000000000000000000000001 ff020000000000000000000000010002") + payload;
}

// Tags "q10" (0x8100), "s" (0x88A8), "o" (0x9100), "x" (0x9200), with the whole control field; then a name of FRAMES, "v4 68 67" (a DHCP
// message between these ports, behind "opt" with IP options) or "v6 CHAIN 546 547". Changes: bytes "at" an offset behind the EtherType,
// "mac" (Ethernet source's last byte), "type", "snap" (RFC 1042), "cut" to a length.
Bytes frame_of(const std::string &words)
{
    std::istringstream in(words);
    std::string word, value;
    Bytes tags, frame, options;
    size_t length = SIZE_MAX;
    bool snap = false;
    while (in >> word) {
        if (frame.empty() && TPIDS.count(word[0]) != 0 && isdigit(word[1])) {
            tags = tags + be16(TPIDS.at(word[0])) + be16(number_of(word.substr(1)));
        } else if (FRAMES.count(word) != 0) {
            frame = hex_bytes(FRAMES.at(word));
        } else if (word == "snap") {
            snap = true;
        } else if (!(in >> value)) {
            ADD_FAILURE() << word << " in " << words;
        } else if (word == "opt") {
            options = hex_bytes(value);
        } else if (word == "v4") {
            Frame dhcp;
            dhcp.ipOptions = options;
            dhcp.srcPort = static_cast<uint16_t>(number_of(value));
            in >> dhcp.dstPort;
            frame = dhcp.bytes();
        } else if (word == "v6") {
            uint32_t source = 0, destination = 0;
            in >> source >> destination;
            frame = hex_bytes("333300010002 02c100000001 86dd") + packet6(value, source, destination);
        } else if (word == "at") {
            const size_t at = NETWORK + number_of(value);
            in >> value;
            write_at(frame, at, hex_bytes(value));
        } else if (word == "mac" || word == "type") {
            write_at(frame, word == "mac" ? TYPE - 1 : TYPE, hex_bytes(value));
        } else if (word == "cut") {
            length = number_of(value);
        }
    }
    const auto type = frame.begin() + TYPE;
    const Bytes front(frame.begin(), type), rest(type, frame.end());
    frame = front + tags + (snap ? be16(static_cast<uint32_t>(rest.size() + 6)) + hex_bytes("aaaa03000000") : Bytes{}) + rest;
    frame.resize(std::min(length, frame.size()));
    return frame;
}

class Classifier : public GuardedBridge, public ::testing::WithParamInterface<const char *>
{
  protected:
    void SetUp() override
    {
        GuardedBridge::SetUp();
        if (IsSkipped())
            return;
        object_ = bpf_object__open_file(GetParam(), nullptr);
        bpf_map *map;
        bpf_object__for_each_map(map, object_) bpf_map__set_pin_path(map, nullptr);
        ASSERT_EQ(bpf_object__load(object_), 0) << GetParam();
    }
    void TearDown() override
    {
        bpf_object__close(object_);
        GuardedBridge::TearDown();
    }

    int map(const char *name) { return bpf_object__find_map_fd_by_name(object_, name); }

    template <class Key, class Value>
    void put(const char *name, const Key &key, const Value &value) { ASSERT_EQ(bpf_map_update_elem(map(name), &key, &value, BPF_ANY), 0) << name; }

    // A rule for host 5 on p1 in VLAN 10, with these items of it.
    guard_rule_key rule(uint8_t kind, uint8_t items)
    {
        guard_rule_key key = {items & GUARD_CHECK_PORT ? if_nametoindex("p1") : 0, static_cast<uint16_t>(items & GUARD_CHECK_VLAN ? 10 : 0), kind, items, {}, {}, {}};
        if (items & GUARD_CHECK_MAC)
            memcpy(key.mac, hex_bytes("020000000005").data(), 6);
        if (items & GUARD_CHECK_ADDRESS)
            memcpy(key.addr, hex_bytes(kind == GUARD_IPV6 ? "20010db8001000000000000000000005" : "0a000a05000000000000000000000000").data(), 16);
        return key;
    }

    // Buckets that never fill again, with so many tokens: "3/1" (for all, for known clients).
    static guard_buckets buckets(const std::string &tokens)
    {
        constexpr uint64_t NEVER = 1'000'000'000'000'000;
        const size_t slash = tokens.find('/');
        return {0, 0, NEVER, NEVER * number_of(tokens.substr(0, slash)), NEVER * number_of(tokens.substr(slash + 1))};
    }

    // Words, each with its value: "rate" and "sum" (buckets), "known", "stale" and "elsewhere" (a client's last byte, of this run, of an
    // earlier one, of p2), "native", "trap" and "inherited" (families), "ip" and "arp" (items) of both ports, which are members of
    // VLANs 10, 20, 40 and 1000; the same of VLAN 10 with "v" in front; "rule4", "rule6", "rulea"; "old" (an earlier run's, until so many
    // weeks after the boot).
    void prepare(const std::string &words)
    {
        guard_port port = {};
        guard_items items = {};
        guard_state state = {};
        state.run = RUN;
        port.native = 10;
        uint32_t run = RUN;
        const std::map<std::string, uint8_t *> places = {{"trap", &port.trap}, {"inherited", &port.inherited}, {"ip", &items.ip}, {"arp", &items.arp}, {"vtrap", &port.vlans.trap}, {"vinherited", &port.vlans.inherited}, {"vip", &port.vlan_items.ip}, {"varp", &port.vlan_items.arp}};
        for (guard_rule_key key = {}; bpf_map_get_next_key(map("guard_rules"), nullptr, &key) == 0;)
            bpf_map_delete_elem(map("guard_rules"), &key);
        for (guard_known_key key = {}; bpf_map_get_next_key(map("guard_known"), nullptr, &key) == 0;)
            bpf_map_delete_elem(map("guard_known"), &key);
        guard_rate rate = {};
        std::istringstream in(words);
        for (std::string word, value; in >> word >> value;) {
            if (word == "rate" || word == "sum") {
                rate.buckets = word == "rate" ? buckets(value) : rate.buckets;
                put("guard_rate_sum", 0, buckets(value));
            } else if (word == "known" || word == "stale" || word == "elsewhere") {
                const guard_known_key key = {if_nametoindex(word == "elsewhere" ? "p2" : "p1"), {2, 0, 0, 0, 0, static_cast<uint8_t>(number_of(value))}, {}};
                put("guard_known", key, guard_known{word == "stale" ? uint64_t{1} : 0, 1});
            } else if (word == "native") {
                port.native = static_cast<uint16_t>(number_of(value));
            } else if (word == "old") {
                run = RUN - 1;
                state.rules_until = state.inherited_until = std::stoull(value) * 604'800'000'000'000;
            } else if (places.count(word) != 0) {
                *places.at(word) = bits(value);
            } else {
                state.masks |= uint64_t{1} << (16 * KINDS.at(word) + bits(value) / 16);
                put("guard_rules", rule(KINDS.at(word), bits(value)), guard_rule{1, run, 0});
            }
        }
        port.members[0] = port.native == 0 ? 1 : uint64_t{1} << 10 | uint64_t{1} << 20 | uint64_t{1} << 40;
        port.members[15] = port.native == 0 ? 0 : uint64_t{1} << 40; // VLAN 1000
        put("guard_state", 0, state);
        put("guard_vlans", 10, port.vlans);
        put("guard_vlan_items", 10, port.vlan_items);
        for (const uint32_t ifIndex : {if_nametoindex("p1"), if_nametoindex("p2")}) {
            put("guard_ports", ifIndex, port);
            put("guard_port_items", ifIndex, items);
            put("guard_rates", ifIndex, rate);
        }
    }

    // "-" passes untouched, "4" and "6" go to the daemon behind their header, else the reason that is counted; "?" is anything else.
    // `from`: at the port's egress, from that device or from this "host"; "machine": the port is this machine.
    std::string verdict(const Bytes &frame, const char *port = "p1", const std::string &from = "")
    {
        __sk_buff context = {};
        context.ingress_ifindex = from.empty() || from == "host" || from == "machine" ? 0 : if_nametoindex(from.c_str());
        const uint32_t ifIndex = context.ifindex = if_nametoindex(port);
        std::vector<guard_refused> counts(static_cast<size_t>(libbpf_num_possible_cpus()));
        EXPECT_EQ(bpf_map_update_elem(map("guard_refused"), &ifIndex, counts.data(), BPF_ANY), 0);
        Bytes out(4096);
        LIBBPF_OPTS(bpf_test_run_opts, opts, .data_in = frame.data(), .data_out = out.data(), .data_size_in = static_cast<uint32_t>(frame.size()),
                    .data_size_out = static_cast<uint32_t>(out.size()), .ctx_in = &context, .ctx_size_in = sizeof context, .repeat = 1);
        EXPECT_EQ(bpf_prog_test_run_opts(bpf_program__fd(bpf_object__find_program_by_name(object_, from.empty() ? "dhcpsnoop_guard" : from == "machine" ? "dhcpsnoop_host"
                                                                                                                                                        : "dhcpsnoop_out")),
                                         &opts),
                  0)
            << strerror(errno);
        out.resize(opts.data_size_out);
        EXPECT_EQ(bpf_map_lookup_elem(map("guard_refused"), &ifIndex, counts.data()), 0);
        std::string text = opts.retval == static_cast<uint32_t>(TC_ACT_UNSPEC) && out == frame ? "-" : "";
        for (const guard_refused &one : counts)
            for (size_t reason = 0; reason < GUARD_REASONS; reason++)
                if (one.frames[reason] != 0)
                    text += opts.retval == TC_ACT_SHOT && one.frames[reason] == 1 ? REASONS[reason] : "?";
        // The loopback device's Ethernet header with the family's EtherType, then the port.
        Bytes front = Bytes(20, 0);
        memcpy(front.data() + 16, &ifIndex, 4);
        for (const int family : {4, 6}) {
            write_at(front, TYPE, be16(family == 4 ? 0x88B5 : 0x88B6));
            text += opts.retval == TC_ACT_REDIRECT && out == front + frame ? std::to_string(family) : "";
        }
        return text.empty() ? "?" : text;
    }

    bpf_object *object_ = nullptr;
};

struct ClassifierRow {
    const char *claim, *before, *frames, *outcome; // frames and their verdicts, separated by '|'
};

#define BOUND "udp at 20 00440043" // a DHCP message of host 5

const ClassifierRow CLASSIFIER_ROWS[] = {
    {"a client's, a server's, between relay and server", "trap 46", "v4 68 67 | v4 67 68 | v4 67 67", "4 4 4"},
    {"other ports: below, above (TFTP), in the high byte, of DHCPv6", "trap 46", "v4 66 66 | v4 69 69 | v4 17152 17408 | v4 546 547", "- - - -"},
    {"other protocols: TCP, ARP, a length, an unknown type", "trap 46", "v4 68 67 at 9 06 | v4 68 67 type 0806 | v4 68 67 type 0148 | lldp", "- - - -"},
    {"one tag, of each type; with a priority", "trap 46", "q10 v4 68 67 | s10 v4 68 67 | o10 v4 68 67 | q0xE000 v4 68 67 | x10 v4 68 67", "4 4 4 4 -"},
    {"two tags", "trap 46", "s10 q20 v4 68 67 | o10 q20 v4 68 67 | q10 q20 v4 68 67 | q10 q0 v6 udp 547 546 | q0 q4095 v4 67 68", "4 4 4 6 4"},
    {"a tag behind the last one looked at", "trap 4", "s10 s10 q20 v4 67 68 | q0 q0 q0 v4 67 68 | q0 s0 q0x1000 q0 v6 udp 547 546 | s0 s0 s0 s0 q10 v4 67 68 | q0 q0 o0 lldp", "unclear unclear unclear unclear unclear"},
    {"the same around fragments", "trap 6", "q0 q0 q0 q0 v4 67 68 at 6 2000 | q0 q0 q0 q0 v4 67 68 at 6 2001 | q0 q0 q0 v6 frag:1,udp 547 546 | s0 q0 s0 v6 frag:9,udp 547 546", "unclear unclear unclear unclear"},
    {"where only a VLAN traps, an earlier run did, or the guard stands", "vtrap 6", "q10 q0 q0 v4 67 68 | q20 q0 q0 v4 67 68 | q30 q0 q0 v4 67 68", "unclear - unclear"},
    {"a header that contradicts 0x0800", "trap 4", "v4 67 68 at 0 65 | v4 67 68 at 0 05 | v4 67 68 at 0 44 | v4 67 68 at 0 40 | q10 v4 67 68 at 0 55 | udp at 0 44", "unclear unclear unclear unclear unclear unclear"},
    {"a header that contradicts 0x86DD", "vtrap 6", "v6 udp 547 546 at 0 45 | v6 tcp 1 2 at 0 70 | q10 v6 udp 547 546 at 0 00", "unclear unclear unclear"},
    {"IP and tags in SNAP frames, which access points unpack; others", "trap 46", "snap v4 67 68 | q10 snap udp6 | snap v4 67 68 type 8100 | snap request | snap lldp | v4 67 68 type 0148 at 0 4242aa", "unclear unclear unclear - - -"},
    {"a VLAN that the port is no member of", "vtrap 46", "q30 v4 67 68 | s30 v6 udp 547 546 | q4095 v4 67 68 | q30 q10 v4 67 68 | q30 udp | q30 request | q30 lldp | q20 v4 67 68 | q40 v4 67 68 | q1000 v4 67 68 | q1064 v4 67 68", "vlan vlan vlan vlan - - - - - - vlan"},
    {"inherited by the port's VLANs", "vinherited 4 old 60", "q30 v4 67 68 | q30 v6 udp 547 546", "vlan -"},
    {"guarded: IP and ARP", "vip a6 varp m", "q30 udp | q30 udp6 | q30 reply | q30 lldp | q30 v4 68 67 | q20 udp", "vlan vlan vlan - vlan -"},
    {"an exempt port", "ip x arp x vip a varp m", "q30 udp | q30 reply | q0 q0 q0 udp", "- - -"},
    {"no native VLAN", "native 0 trap 4", "v4 67 68 | q0 v4 67 68 | q10 v4 67 68 | udp | q10 udp", "4 4 vlan - -"},
    {"IP options of 4 and 40 bytes", "trap 46", "opt 01010101 v4 68 67 | opt 01010101010101010101010101010101010101010101010101010101010101010101010101010101 v4 68 67", "4 4"},
    {"fragments: none, flags, the first; later ones", "trap 46", "v4 68 67 at 6 4000 | v4 68 67 at 6 8000 | v4 68 67 at 6 2000 | v4 68 67 at 6 2001 | v4 68 67 at 6 1000 | v4 68 67 at 6 1fff", "4 4 4 - - -"},
    {"cut behind and in the ports, in the tag", "trap 46", "v4 68 67 cut 38 | v4 68 67 cut 37 | q10 v4 68 67 cut 17 | v6 udp 546 547 cut 57", "4 - unclear -"},
    {"DHCPv6", "trap 46", "v6 udp 546 547 | v6 udp 547 546 | v6 udp 5000 546 | v6 udp 5000 547 | v6 udp 547 5000 | q10 v6 udp 546 547 | o10 q20 v6 udp 546 547", "6 6 6 6 6 6 6"},
    {"not DHCPv6", "trap 46", "v6 udp 545 548 | v6 udp 68 67 | v6 tcp 546 547 | v6 esp 546 547 | v6 none 546 547 | v6 253 546 547 | v6 icmp 546 547", "- - - - - - -"},
    {"behind each extension header", "trap 46", "v6 hop,udp 546 547 | v6 route:2,udp 546 547 | v6 dest,udp 546 547 | v6 auth:22,udp 546 547 | v6 mobility,udp 546 547 | v6 identity,udp 546 547 | v6 shim,udp 546 547", "6 6 6 6 6 6 6"},
    {"IPv6 fragments: the first, an atomic one (RFC 6946), later ones, TCP", "trap 46", "v6 frag:1,udp 546 547 | v6 frag:0,udp 546 547 | v6 frag:9,udp 546 547 | v6 frag:0x2000,udp 546 547 | v6 frag:1,tcp 546 547", "6 6 - - -"},
    {"a chain that does not end inside the packet (RFC 7610), whatever the padding says", "trap 46", "v6 udp 5000 5001 at 4 0000 | v6 udp 5000 5001 at 4 0004 | v6 hop,tcp 546 547 at 4 0000 | v6 frag:1,dest:1,udp 5000 5001 at 4 0010 | v6 hop,udp 5000 5001 at 4 0000", "6 - 6 6 6"},
    {"15 extension headers, and more than anybody sends", "trap 46", "v6 dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,tcp 1 2 | v6 dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,dest,tcp 1 2", "- 6"},
    {"a VLAN's trap: native, priority, tagged, the outer tag, others", "vtrap 4", "v4 68 67 | q0xE000 v4 68 67 | q0x600A v4 68 67 | s10 q20 v4 68 67 | s20 q10 v4 68 67 | q20 v4 68 67 | v6 udp 546 547", "4 4 4 4 - - -"},
    {"its time is over", "inherited 4 vinherited 4 old 0", "v4 68 67 | q0 q0 q0 v4 68 67", "- -"},

    {"a port's limit: of both families and all its VLANs; other frames are free, and a port without one", "trap 46 rate 3/0 sum 9/0", "v4 68 67 | udp | q10 v4 68 67 | v6 udp 546 547 | v4 67 68 | q20 v6 udp 547 546 | udp | request", "4 - 4 6 rate rate - -"},
    {"", "trap 46 sum 0/0", "v4 68 67 | v6 udp 546 547", "4 6"},
    {"what is refused otherwise, or not trapped, takes no token", "trap 4 rate 1/0 ip a", "q30 v4 68 67 | q0 q0 q0 v4 67 68 | udp at 20 00440035 | v6 udp 546 547 | v4 68 67 | v4 68 67", "vlan unclear ipv4 - 4 rate"},
    {"a known client has its own bucket when the other is empty; an address of another port's client, or of none, has none", "trap 46 rate 1/3 sum 9/9 known 5 elsewhere 6", BOUND " | " BOUND " | " BOUND " mac 06 | " BOUND " mac 07 | q20 " BOUND " | udp6 at 40 02220223 | " BOUND, "4 4 rate rate 4 6 rate"},
    {"an earlier run's, whose time is over", "trap 4 rate 1/3 sum 9/9 stale 5", BOUND " | " BOUND, "4 rate"},
    {"all ports together: the same two buckets", "trap 4 rate 9/9 sum 1/1 known 5", BOUND " mac 06 | " BOUND " mac 06 | " BOUND " | " BOUND, "4 rate 4 rate"},

    {"rules of several masks", "ip a6 arp a rule4 amvp rule4 m", "udp | udp at 15 06 | udp6 | request", "- ipv4 ipv6 arp"},
    {"an earlier run's count for a time", "ip a rule4 a old 60 rule4 am", "udp", "-"},
    {"and end with it", "ip a old 0 rule4 a", "udp", "ipv4"},
    {"IPv4: bound, fragments, another's", "ip a arp a rule4 a", "udp | later | later at 15 06 | udp at 12 00000000", "- - ipv4 ipv4"},
    {"DHCP that nobody traps", "ip a6", "v4 68 67 | v4 67 68 | v4 68 53 | v6 udp 546 547 | v6 udp 547 546 at 8 20", "- ipv4 ipv4 - ipv6"},
    {"malformed IPv4: cut, a header longer than the frame; as long as it", "ip a rule4 a", "q10 udp cut 37 | udp at 0 48 | udp cut 34", "malformed malformed -"},
    {"contradictions, where either feature stands", "arp a", "udp at 0 44 | udp at 0 65 | udp6 at 0 45 | snap udp | q0 q0 q0 reply | q10 udp cut 17 | udp", "unclear unclear unclear unclear unclear unclear -"},
    {"ARP: request, reply, another Ethernet source, another sender", "ip a arp a rulea am", "request | reply | reply mac 06 | reply at 13 06 | request at 17 06", "- - arp arp arp"},
    {"a probe (RFC 5227) and a reply of nobody", "arp a", "probe | probe at 6 0002", "- arp"},
    {"malformed ARP: protocol, medium, lengths, cut; in SNAP", "arp a rulea a", "request at 2 86dd | request at 0 0006 | request at 4 07 | request cut 41 | request cut 21 | q10 snap request", "malformed malformed malformed malformed malformed malformed"},
    {"IPv6: bound, fragments, another's; cut", "ip a6 rule6 a", "udp6 | later6 | later6 at 23 06 | q10 udp6 cut 57", "- - ipv6 malformed"},
    {"without a rule: DAD, listener reports, link-local, the prefix above", "ip a6", "dad | mld | udp6 at 8 febf | udp6 at 8 fec0", "- - - ipv6"},
    {"neighbour discovery and its types; from beyond the link, cut, an echo", "ip a6", "advert | advert at 40 85 | advert at 40 84 | advert at 40 89 | advert at 40 8a | advert at 7 fe | advert cut 54 | ping6", "- - ipv6 - ipv6 ipv6 ipv6 ipv6"},
    {"source guard of a family: IPv4 unless told otherwise", "ip a", "udp | udp6 | q10 q20 q20 udp6", "ipv4 - unclear"},
    {"IPv6 alone, in the VLAN too", "vip a6!", "udp | udp6 | q30 udp | q30 udp6", "- ipv6 - vlan"},
    {"the port's families replace its VLAN's", "ip a vip a6", "udp | udp6", "ipv4 -"},
    {"inspection in the VLAN, source guard on the port", "ip m varp v", "reply | q20 reply | q20 udp", "arp - ipv4"},
    {"exempt from one feature, or from the other", "ip x vip v varp v", "udp6 | reply | q10 q20 q20 udp", "- arp unclear"},
    {"a trapped frame needs no rule, if it is for a client or a server", "trap 46 ip a6", "v4 68 67 | udp at 20 11110044 | udp6 at 40 11110222 | udp at 20 00440035 | udp6 at 40 02220035", "4 4 6 ipv4 ipv6"},
    {"a disguise of a bound source", "trap 46 ip a rule4 a", "udp at 20 00440035", "4"},
};

TEST_P(Classifier, Rows)
{
    for (const ClassifierRow &row : CLASSIFIER_ROWS) {
        prepare(row.before);
        std::string got;
        for (const std::string &words : parts(row.frames, '|'))
            got += (got.empty() ? "" : " ") + verdict(frame_of(words));
        EXPECT_EQ(got, row.outcome) << row.claim;
    }
}

// Every combination of check items, for each kind of rule: an item that is none of them may differ, the others may not.
TEST_P(Classifier, GoesByTheItemsOfTheRule)
{
    const std::map<std::string, std::vector<std::string>> kinds = {
        // frames of the rule's host: its own, of another address, MAC, VLAN, port
        {"rule4", {"udp", "udp at 15 06", "udp mac 06", "q20 udp", "udp"}},
        {"rule6", {"udp6", "udp6 at 23 06", "udp6 mac 06", "q20 udp6", "udp6"}},
        {"rulea", {"request", "request at 17 06", "request mac 06 at 13 06", "q20 request", "request"}},
    };
    for (const auto &[kind, frames] : kinds)
        for (unsigned set = 1; set < 16; set++) {
            std::string items, matter, suffice;
            for (size_t i = 0; i < 4; i++)
                items += set >> i & 1 ? std::string(1, "amvp"[i]) : "";
            const std::string rule = " " + kind + " " + items;
            prepare("ip 6" + items + " arp " + items + rule);
            EXPECT_EQ(verdict(frame_of(frames[0])) + verdict(frame_of("q10 " + frames[0])), "--") << rule;
            for (size_t i = 0; i < 4; i++)
                matter += verdict(frame_of(frames[i + 1]), i == 3 ? "p2" : "p1") == "-" ? "" : std::string(1, "amvp"[i]);
            for (const std::string more : {"a", "m", "v", "p"}) { // is checked too
                prepare("ip 6" + items + more + " arp " + items + more + rule);
                suffice += verdict(frame_of(frames[0])) == "-" ? more : "";
            }
            EXPECT_EQ(matter + " " + suffice, items + " " + items) << rule;
        }
}

// What leaves by p1, by its origin, and what comes in on a device that is no port; without and with protection.
TEST_P(Classifier, KeepsUnknownOriginsFromProtectedBridges)
{
    guard_port noPort = {};
    noPort.left_until = 1;
    prepare("");
    put("guard_ports", if_nametoindex("c2"), noPort);
    put("guard_own", guard_mac{{2, 0, 0, 0, 0, 5}, {}}, uint64_t{0});
    std::string got;
    for (const uint64_t until : {uint64_t{1}, UINT64_MAX}) {
        put("guard_own", guard_mac{}, until);
        for (const std::string from : {"host", "p2", "c1", "c2"})
            got += verdict(frame_of("udp mac 06"), "p1", from) + " " + verdict(frame_of("udp"), "p1", from) + ", ";
        got += "in " + verdict(frame_of("udp mac 06"), "c2") + " " + verdict(frame_of("udp"), "c2") + "; ";
    }
    EXPECT_EQ(got, "- -, - -, - -, - -, in - -; - -, - -, origin origin, origin -, in - origin; ");
}

TEST_P(Classifier, LimitsThisMachineToo)
{
    prepare("trap 4 rate 1/0 sum 9/0");
    std::string got;
    for (const std::string words : {"v4 68 67", "udp", "v4 67 68"})
        got += verdict(frame_of(words), "p1", "machine") + " ";
    EXPECT_EQ(got, "4 - rate ");
}

// The bridge, bond or VLAN device above sees the frame once more; a VLAN's trap must not take it there.
TEST_P(Classifier, LeavesDevicesThatAreNoPorts)
{
    put("guard_vlans", 10, guard_vlan{GUARD_TRAP_V4, 0, {}});
    EXPECT_EQ(verdict(frame_of("q10 v4 68 67")) + verdict(frame_of("q0 q0 q0 v4 68 67")), "--");
}

INSTANTIATE_TEST_SUITE_P(Built, Classifier, ::testing::Values(GUARD_BUILT_OBJECT));
INSTANTIATE_TEST_SUITE_P(InTheTree, Classifier, ::testing::Values(GUARD_TREE_OBJECT));

} // namespace
