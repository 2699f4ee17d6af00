// The kind of a frame: the tags around its packet, and whether the packet is DHCP. Part of guard.bpf.c. IEEE
// 802.1Q, RFC 1042, RFC 791, RFC 8200, RFC 768; ports of RFC 2131 and RFC 8415; fragments as RFC 7610.
#ifndef DHCPSNOOP_GUARD_FRAME_H
#define DHCPSNOOP_GUARD_FRAME_H

#include <stdbool.h>

#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>
#include <linux/in6.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

// Of what is read into, or written in parts: without CAP_PERFMON kernel 6.1 lets nobody write a part of an
// 8-byte word of the stack that a register was stored in.
#define OWN_WORDS __attribute__((aligned(8)))

// The kernel verifies such a function once, for any arguments, in place of once for every way that leads to
// it: without CAP_PERFMON kernel 6.1 gives up after a million instructions.
#define VERIFIED_ALONE __attribute__((noinline))

enum {
    TAGS_LEFT = 2,     // tags in the bytes, behind the one that the kernel may have taken out
    VID_MASK = 0x0FFF, // of a tag control field
    IPV4_HEADER = 20,
    IPV4_FRAGMENT_OFFSET = 0x1FFF,
    IPV6_HEADER = 40,
    IPV6_HEADERS = 16, // extension headers walked; RFC 8200 4.1 knows no packet with more than 7
    AUTHENTICATION = 51,
    MOBILITY = 135,
    HOST_IDENTITY = 139,
    SHIM6 = 140,
    DHCP_SERVER = 67,   // and 68 for clients
    DHCP6_CLIENT = 546, // and 547 for servers
};

// The kind of a frame; 0 = none that is of interest here.
enum {
    DHCP = 1,
    DHCP_TO_SERVER = 2, // to a server's port for certain: passes the guard where it is not trapped
    DHCP_ELSEWHERE = 4, // by its source port alone, to some other service: trapped it does not pass the guard
    UNCLEAR = 8,        // cannot be told, and some hosts take such a frame: passes no trap and no guard
    FAMILY_V4 = 16,     // GUARD_TRAP_V4 and GUARD_TRAP_V6, shifted by FAMILIES
    FAMILY_V6 = 32,
    FAMILIES = 4,
    IS_IP = 64, // source guard looks at it
    IS_ARP = 128,
};

static __always_inline bool load(const struct __sk_buff *skb, __u32 offset, void *to, __u32 size)
{
    return bpf_skb_load_bytes(skb, offset, to, size) == 0;
}

static __always_inline bool is_tag(__u16 type)
{
    return type == ETH_P_8021Q || type == ETH_P_8021AD || type == ETH_P_QINQ1;
}

// Where a frame's packet begins.
struct network {
    __u8 at;
    bool snap;  // the packet is in an IEEE 802.2 SNAP frame, and `type` is of that
    __u16 type; // EtherType behind the tags; that of a tag when there are too many, or one is cut
    __u16 vid;  // of the outermost tag; 0 = none
    __u16 pad;
};

// `type` is the frame's EtherType, or length, in its bytes. Gives a struct network.
VERIFIED_ALONE __u64 behind_tags(struct __sk_buff *skb, __u32 type)
{
    bool tagged = skb->vlan_present;
    struct network network = {.at = ETH_HLEN, .type = (__u16)type};

    if (tagged)
        network.vid = skb->vlan_tci & VID_MASK;
    for (int i = 0; i < TAGS_LEFT; i++) {
        OWN_WORDS __be16 tag[2];

        if (!is_tag(network.type) || !load(skb, network.at, tag, sizeof tag))
            break;
        if (!tagged)
            network.vid = bpf_ntohs(tag[0]) & VID_MASK;
        tagged = true;
        network.type = bpf_ntohs(tag[1]);
        network.at += sizeof tag;
    }
    if (network.type < ETH_P_802_3_MIN) { // a length
        OWN_WORDS __u8 snap[8];

        if (load(skb, network.at, snap, sizeof snap) && snap[0] == 0xAA && snap[1] == 0xAA) {
            network.type = (__u16)(snap[6] << 8 | snap[7]);
            network.snap = true;
        }
    }
    __u64 word;
    _Static_assert(sizeof word == sizeof network, "");
    __builtin_memcpy(&word, &network, sizeof word);
    return word;
}

static __always_inline struct network network_of(__u64 word)
{
    struct network network;
    __builtin_memcpy(&network, &word, sizeof network);
    return network;
}

// Either port, as the daemon's parser has it: a reply from a server's odd source port counts too.
static __always_inline __u64 dhcp_ports(const struct __sk_buff *skb, __u32 udp, __u16 lower, __u16 server)
{
    OWN_WORDS __be16 port[2];

    if (!load(skb, udp, port, sizeof port))
        return 0;
    __u16 source = bpf_ntohs(port[0]), destination = bpf_ntohs(port[1]);
    if (destination == server)
        return DHCP | DHCP_TO_SERVER;
    if (destination == lower || destination == lower + 1)
        return DHCP;
    return source == lower || source == lower + 1 ? DHCP | DHCP_ELSEWHERE : 0;
}

// A fragment counts when it is the first one: without it nobody puts the datagram together. A client that
// reads the frames itself need not look at version and header length; the kernel does.
static __always_inline __u64 dhcp_v4(const struct __sk_buff *skb, __u32 ip)
{
    OWN_WORDS __u8 header[10]; // up to the protocol

    if (!load(skb, ip, header, sizeof header))
        return 0;
    __u32 headerLength = (header[0] & 15) * 4;
    if (header[0] >> 4 != 4 || headerLength < IPV4_HEADER)
        return UNCLEAR;
    if (header[9] != IPPROTO_UDP || (((header[6] << 8) | header[7]) & IPV4_FRAGMENT_OFFSET))
        return 0;
    return dhcp_ports(skb, ip + headerLength, DHCP_SERVER, DHCP_SERVER);
}

// A walk along an IPv6 packet's header chain, in words of 8 bytes as OWN_WORDS.
struct chain {
    const struct __sk_buff *skb;
    __u64 at, end; // the next header, and where the packet's own length ends it
    __u64 next;    // its kind
    __u64 dhcp;
};

// One header of the chain; 1 ends the walk.
static long walk_header(__attribute__((unused)) __u32 index, void *context)
{
    struct chain *chain = context;
    OWN_WORDS __u8 extension[4];

    switch (chain->next) {
    case IPPROTO_UDP:
        if (chain->at + 4 <= chain->end)
            chain->dhcp = dhcp_ports(chain->skb, (__u32)chain->at, DHCP6_CLIENT, DHCP6_CLIENT + 1);
        return 1;
    case IPPROTO_HOPOPTS:
    case IPPROTO_ROUTING:
    case IPPROTO_FRAGMENT:
    case IPPROTO_DSTOPTS:
    case AUTHENTICATION:
    case MOBILITY:
    case HOST_IDENTITY:
    case SHIM6:
        break;
    default:
        chain->dhcp = 0;
        return 1;
    }
    if (chain->at + 8 > chain->end || !load(chain->skb, (__u32)chain->at, extension, sizeof extension))
        return 1;
    if (chain->next == IPPROTO_FRAGMENT) {
        if (extension[2] || extension[3] & 0xF8) { // not the first
            chain->dhcp = 0;
            return 1;
        }
        chain->at += 8;
    } else if (chain->next == AUTHENTICATION) {
        chain->at += (extension[1] + 2) * 4;
    } else {
        chain->at += (extension[1] + 1) * 8;
    }
    chain->next = extension[0];
    return 0;
}

// By the whole header chain. One that does not end inside the packet could hide the UDP header in its second
// fragment, behind what is here only padding: it is taken for DHCP (RFC 7610 5).
static __always_inline __u64 dhcp_v6(const struct __sk_buff *skb, __u32 ip)
{
    OWN_WORDS __u8 header[8]; // up to the hop limit

    if (!load(skb, ip, header, sizeof header))
        return 0;
    if (header[0] >> 4 != 6)
        return UNCLEAR;
    __u32 payload = ip + IPV6_HEADER;
    struct chain chain = {skb, payload, payload + ((header[4] << 8) | header[5]), header[6], DHCP};
    bpf_loop(IPV6_HEADERS, walk_header, &chain, 0);
    return chain.dhcp;
}

// The kind of a frame, by where its packet begins. Linux takes no IP from SNAP frames on Ethernet. An access
// point sends them on as they are, and on the air they are the usual form: its stations take them.
VERIFIED_ALONE int kind_of(struct __sk_buff *skb, __u64 word)
{
    struct network network = network_of(word);

    if (is_tag(network.type))
        return UNCLEAR | FAMILY_V4 | FAMILY_V6 | IS_IP | IS_ARP;
    if (network.type == ETH_P_ARP)
        return IS_ARP;
    if (network.type != ETH_P_IP && network.type != ETH_P_IPV6)
        return 0;
    int kind = network.type == ETH_P_IP ? FAMILY_V4 | IS_IP : FAMILY_V6 | IS_IP;
    __u64 dhcp = UNCLEAR;
    if (!network.snap)
        dhcp = network.type == ETH_P_IP ? dhcp_v4(skb, network.at) : dhcp_v6(skb, network.at);
    if (dhcp & UNCLEAR)
        kind = FAMILY_V4 | FAMILY_V6 | IS_IP | IS_ARP;
    return kind | (int)dhcp;
}

#endif
