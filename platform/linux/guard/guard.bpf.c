// The classifier at every port's clsact ingress. A frame comes in as it came from the port. A DHCP frame that
// is trapped there goes to the daemon's packet socket by way of the loopback device (guard_maps.h), with no
// copy left for the bridge; when nobody listens it is lost. An IP packet or ARP message that is checked there
// goes on when a rule agrees with its source, else it is dropped and counted. So is a frame whose kind or
// place cannot be told, where a trap or the guard stands. Every other frame goes on untouched.
#include <linux/pkt_cls.h>

#include "guard_frame.bpf.h"
#include "guard_maps.h"

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, GUARD_PORTS_MAX);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __type(key, __u32);
    __type(value, struct guard_port);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_ports SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, GUARD_VLANS);
    __type(key, __u32);
    __type(value, struct guard_vlan);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_vlans SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct guard_state);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_state SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, GUARD_PORTS_MAX);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __type(key, __u32);
    __type(value, struct guard_items);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_port_items SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, GUARD_VLANS);
    __type(key, __u32);
    __type(value, struct guard_items);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_vlan_items SEC(".maps");

// Sized by the daemon for its rules, and all of it there from the start: an update never waits for memory.
struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, 512);
    __type(key, struct guard_rule_key);
    __type(value, struct guard_rule);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_rules SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_HASH);
    __uint(max_entries, GUARD_PORTS_MAX);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __type(key, __u32);
    __type(value, struct guard_refused);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_refused SEC(".maps");

// Where a frame came in.
struct place {
    const struct guard_port *port;
    __u32 ifindex, vid;
    bool known; // the port is a member of the VLAN; else the frame may come out in any of the port's VLANs
};

#include "guard_source.bpf.h"

// Verified by itself, at the price of a look-up: inside the program the kernel would follow both sides of
// every later branch once more, as it does behind an index that varies without CAP_PERFMON, and give up.
__attribute__((noinline)) int is_member(__u32 ifindex, __u32 vid)
{
    const struct guard_port *port = bpf_map_lookup_elem(&guard_ports, &ifindex);

    return port && port->members[(vid & VID_MASK) / 64] >> vid % 64 & 1;
}

static __always_inline bool is_trapped(const struct place *place, __u8 families)
{
    const struct guard_port *port = place->port;
    const struct guard_vlan *vlan = &port->vlans;
    __u32 zero = 0;

    if (place->known)
        vlan = bpf_map_lookup_elem(&guard_vlans, &place->vid);
    if (!vlan)
        return false;
    if ((port->trap | vlan->trap) & families)
        return true;
    if (!((port->inherited | vlan->inherited) & families))
        return false;
    const struct guard_state *state = bpf_map_lookup_elem(&guard_state, &zero);
    return state && bpf_ktime_get_boot_ns() < state->inherited_until;
}

// One program decides, and the bridge does not get the frames that it takes: a tap on the port with this
// program as its socket filter would see the same frames, but two taps cost all other traffic of a bridge 270
// ns a frame (1580 -> 1850 ns with this program in place, 342-byte frames between two veth ports).
static __always_inline int to_daemon(struct __sk_buff *skb, __u8 family)
{
    struct guard_frame header = {.ifindex = skb->ifindex};
    // Apart from the header, for the reason given at OWN_WORDS.
    struct {
        __u8 addresses[2 * ETH_ALEN];
        __be32 tag;
    } front = {};
    bool tagged = skb->vlan_present;

    header.type = family == GUARD_TRAP_V4 ? bpf_htons(GUARD_ETHERTYPE_V4) : bpf_htons(GUARD_ETHERTYPE_V6);
    if (tagged && !load(skb, 0, front.addresses, sizeof front.addresses))
        return TC_ACT_SHOT;
    if (bpf_skb_change_head(skb, sizeof header + (tagged ? sizeof front.tag : 0), 0) ||
        bpf_skb_store_bytes(skb, 0, &header, sizeof header, 0))
        return TC_ACT_SHOT;
    // The addresses move forward by the length of the tag, which comes to lie where their end was.
    front.tag = bpf_htonl((__u32)bpf_ntohs((__be16)skb->vlan_proto) << 16 | (__u16)skb->vlan_tci);
    if (tagged && bpf_skb_store_bytes(skb, sizeof header, &front, sizeof front, 0))
        return TC_ACT_SHOT;
    return (int)bpf_redirect(GUARD_LOOPBACK, BPF_F_INGRESS);
}

SEC("tc")
int dhcpsnoop_guard(struct __sk_buff *skb)
{
    __u32 ifindex = skb->ifindex;
    struct network network = behind_tags(skb);

    if (network.type != ETH_P_IP && network.type != ETH_P_IPV6 && network.type != ETH_P_ARP &&
        !is_tag(network.type))
        return TC_ACT_UNSPEC; // on to whatever other filters the port has
    const struct guard_port *port = bpf_map_lookup_elem(&guard_ports, &ifindex);
    if (!port)
        return TC_ACT_UNSPEC;
    __u32 vid = network.vid ? network.vid : port->native;
    struct place place = {port, ifindex, vid, is_member(ifindex, vid)};
    __u64 dhcp = dhcp_of(skb, network);
    bool unclear = dhcp & DHCP_UNCLEAR;
    __u8 family = network.type == ETH_P_IP ? GUARD_TRAP_V4 : GUARD_TRAP_V6;
    bool trapped = dhcp && is_trapped(&place, unclear ? GUARD_TRAP_V4 | GUARD_TRAP_V6 : family);

    if (unclear || !place.known) {
        if (!trapped && !items_checked(&place, features_of(network, dhcp)))
            return TC_ACT_UNSPEC;
        return refuse(ifindex, unclear ? GUARD_REFUSED_UNCLEAR : GUARD_REFUSED_VLAN);
    }
    bool free = trapped ? !(dhcp & DHCP_ELSEWHERE) : dhcp & DHCP_TO_SERVER;
    __u32 reason = free ? GUARD_REASONS : refused_source(skb, network, &place);
    if (reason != GUARD_REASONS)
        return refuse(ifindex, reason);
    return trapped ? to_daemon(skb, family) : TC_ACT_UNSPEC;
}
