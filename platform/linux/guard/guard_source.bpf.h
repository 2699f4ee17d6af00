// IP source guard and ARP inspection: the packets of a guarded port that go on. Part of guard.bpf.c, after
// its maps. RFC 791, RFC 8200, RFC 4861, RFC 826, RFC 5227.
#ifndef DHCPSNOOP_GUARD_SOURCE_H
#define DHCPSNOOP_GUARD_SOURCE_H

#include "guard_frame.bpf.h"
#include "guard_maps.h"

enum {
    ND_HOP_LIMIT = 255, // RFC 4861: nobody takes neighbour discovery with another
    ND_FIRST = 133,     // router solicitation
    ND_LAST = 137,      // redirect
    ARP_LENGTH = 28,    // for IPv4 on Ethernet
    ARP_ETHERNET = 1,
    ARP_REQUEST = 1,
    MASKS_WITH_MAC = 0xF0F0, // of one kind's bits in guard_state.masks
};

// The source that a packet claims. In words of 8 bytes as OWN_WORDS.
struct source {
    __u64 kind; // of the rules that it needs: GUARD_IPV4, ...
    __u64 mac;  // as the words of a guard_rule_key, and so the address
    __u64 address[2];
    __u64 without; // rules that are out of the question, as one kind's bits in guard_state.masks
};

// A packet needs a rule that agrees with its source, or nothing; or a guard_reason refuses it at once.
enum { RULE = GUARD_REASONS, NOTHING };

static __always_inline __u32 need_of_v4(const struct __sk_buff *skb, __u32 ip, struct source *source)
{
    OWN_WORDS __u8 header[IPV4_HEADER];

    if (!load(skb, ip, header, sizeof header))
        return GUARD_REFUSED_MALFORMED;
    if (ip + (header[0] & 15) * 4 > skb->len)
        return GUARD_REFUSED_MALFORMED;
    source->kind = GUARD_IPV4;
    load(skb, ip + 12, source->address, 4);
    return RULE;
}

static __always_inline __u32 need_of_v6(const struct __sk_buff *skb, __u32 ip, struct source *source)
{
    OWN_WORDS __u8 header[IPV6_HEADER];
    OWN_WORDS __u8 type;

    if (!load(skb, ip, header, sizeof header))
        return GUARD_REFUSED_MALFORMED;
    source->kind = GUARD_IPV6;
    load(skb, ip + 8, source->address, sizeof source->address);
    if (!source->address[0] && !source->address[1]) // duplicate address detection
        return NOTHING;
    if (header[8] == 0xFE && (header[9] & 0xC0) == 0x80) // fe80::/10
        return NOTHING;
    if (header[6] == IPPROTO_ICMPV6 && header[7] == ND_HOP_LIMIT &&
        load(skb, ip + IPV6_HEADER, &type, sizeof type) && type >= ND_FIRST && type <= ND_LAST)
        return NOTHING;
    return RULE;
}

// A rule that names the MAC wants it as the Ethernet source too. In a SNAP frame `arp` is where SNAP begins,
// which is no ARP: no client of ours sends so, and some hosts take it.
static __always_inline __u32 need_of_arp(const struct __sk_buff *skb, __u32 arp, struct source *source)
{
    __u64 sender = 0;
    OWN_WORDS __be16 head[4];

    if (!load(skb, arp, head, sizeof head) || arp + ARP_LENGTH > skb->len ||
        head[0] != bpf_htons(ARP_ETHERNET) || head[1] != bpf_htons(ETH_P_IP) ||
        head[2] != bpf_htons(ETH_ALEN << 8 | 4))
        return GUARD_REFUSED_MALFORMED;
    source->kind = GUARD_ARP;
    load(skb, arp + 8, &sender, ETH_ALEN);
    load(skb, arp + 14, source->address, 4);
    if (sender != source->mac)
        source->without = MASKS_WITH_MAC;
    if (head[3] == bpf_htons(ARP_REQUEST) && !source->address[0]) // a probe
        return NOTHING;
    return RULE;
}

// The first word of a guard_rule_key.
static __always_inline __u64 first_word(__u64 ifindex, __u64 vid, __u64 kind, __u64 mask)
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return ifindex | vid << 32 | kind << 48 | mask << 56;
#else
    return ifindex << 32 | vid << 16 | kind << 8 | mask;
#endif
}

// The search for a rule that agrees with a source, in words of 8 bytes too.
struct search {
    const struct source *source;
    const struct guard_state *state;
    __u64 ifindex, vid;
    __u64 masks; // not tried yet: bit 15 is the next
    __u64 found;
};

// The rules of one mask; 1 ends the search.
static long try_mask(__u32 index, void *context)
{
    struct search *search = context;
    const struct source *source = search->source;
    __u64 mask = (15 - index) << 4;
    bool used = search->masks & 0x8000;

    search->masks = search->masks << 1 & 0xFFFF;
    if (used) {
        __u64 key[4] = {
            first_word(mask & GUARD_CHECK_PORT ? search->ifindex : 0,
                       mask & GUARD_CHECK_VLAN ? search->vid : 0, source->kind, mask),
            mask & GUARD_CHECK_MAC ? source->mac : 0,
            mask & GUARD_CHECK_ADDRESS ? source->address[0] : 0,
            mask & GUARD_CHECK_ADDRESS ? source->address[1] : 0,
        };
        _Static_assert(sizeof key == sizeof(struct guard_rule_key), "");
        const struct guard_rule *rule = bpf_map_lookup_elem(&guard_rules, key);
        search->found =
            rule && (rule->run == search->state->run || bpf_ktime_get_boot_ns() < search->state->rules_until);
    }
    return search->found || !search->masks;
}

// The masks that name all of these check items, as one kind's bits in guard_state.masks. Without branches, of
// which the kernel would follow every combination.
static __always_inline __u64 masks_with(__u64 items)
{
    return 0xFFFF & ~((items >> 7 & 1) * 0x00FF | (items >> 6 & 1) * 0x0F0F | (items >> 5 & 1) * 0x3333 |
                      (items >> 4 & 1) * 0x5555);
}

// One look-up for each mask that some rule has, the fullest first; usually there is one. A rule that names
// less than is checked here is of a place that checks less, and does not count.
VERIFIED_ALONE int is_ruled(struct source *source, __u32 ifindex, __u32 vid, __u32 items)
{
    __u32 zero = 0;
    const struct guard_state *state = bpf_map_lookup_elem(&guard_state, &zero);

    if (!state || !source)
        return 0;
    struct search search = {source, state, ifindex, vid, 0, 0};
    search.masks = state->masks >> 16 * source->kind & masks_with(items) & ~source->without;
    bpf_loop(16, try_mask, &search, 0);
    return (int)search.found;
}

// What a place checks of a frame of this kind.
static __always_inline __u32 items_of(const struct guard_items *place, __u32 kind)
{
    __u32 ip = place->ip, items = 0;

    if ((kind & FAMILY_V4 && !(ip & GUARD_NOT_4)) || (kind & FAMILY_V6 && ip & GUARD_FAMILY_6))
        items = kind & IS_IP ? ip : 0;
    if (kind & IS_ARP)
        items |= place->arp;
    return items & GUARD_CHECK_ALL;
}

// The items checked of a frame of this kind; 0 = nothing is checked. A feature that is on at the port, or
// from which the port is exempt, counts there in place of its VLAN's.
VERIFIED_ALONE int items_checked(__u32 ifindex, __u32 vid, __u32 known, __u32 kind)
{
    const struct guard_items *own = bpf_map_lookup_elem(&guard_port_items, &ifindex);
    __u32 items = 0, left = kind;

    if (own) {
        items = items_of(own, kind);
        if (own->ip)
            left &= ~IS_IP;
        if (own->arp)
            left &= ~IS_ARP;
    }
    if (items || !(left & (IS_IP | IS_ARP)))
        return (int)items;
    if (known) {
        const struct guard_items *vlan = bpf_map_lookup_elem(&guard_vlan_items, &vid);
        return vlan ? (int)items_of(vlan, left) : 0;
    }
    const struct guard_port *port = bpf_map_lookup_elem(&guard_ports, &ifindex);
    return port ? (int)items_of(&port->vlan_items, left) : 0;
}

// Why a packet must not go on; GUARD_REASONS when it may. Its kind and its place can be told.
VERIFIED_ALONE int refused_source(struct __sk_buff *skb, __u64 word, __u32 vid, __u32 items)
{
    struct network network = network_of(word);
    __u32 need, ifindex = skb->ifindex;
    struct source source = {};

    load(skb, ETH_ALEN, &source.mac, ETH_ALEN);
    if (network.type == ETH_P_IP)
        need = need_of_v4(skb, network.at, &source);
    else if (network.type == ETH_P_IPV6)
        need = need_of_v6(skb, network.at, &source);
    else
        need = need_of_arp(skb, network.at, &source);
    if (need == NOTHING || (need == RULE && is_ruled(&source, ifindex, vid, items)))
        return GUARD_REASONS;
    return (int)(need == RULE ? (__u32)source.kind - GUARD_IPV4 + GUARD_REFUSED_IPV4 : need);
}

VERIFIED_ALONE int refuse(__u32 ifindex, __u32 why)
{
    struct guard_refused *refused = bpf_map_lookup_elem(&guard_refused, &ifindex);

    if (refused) { // no index that varies: without CAP_PERFMON the kernel lets nobody compute such an address
        for (__u32 reason = 0; reason < GUARD_REASONS; reason++)
            refused->frames[reason] += why == reason;
    }
    return TC_ACT_SHOT;
}

#endif
