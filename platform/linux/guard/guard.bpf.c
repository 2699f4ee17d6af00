// The classifier at every port's clsact ingress, the gate at the egress of protected bridges' ports, and the
// trap at the egress of bridge devices whose own machine is a port.
// Ingress: A frame comes in as it came from the port. A DHCP frame that
// is trapped there goes to the daemon's packet socket by way of the loopback device (guard_maps.h), with no
// copy left for the bridge; when nobody listens, or the port has sent too many, it is lost. An IP packet or
// ARP message that is checked there goes on when a rule agrees with its source, else it is dropped and
// counted. So is a frame whose kind or place cannot be told, where a trap or the guard stands. Every other
// frame goes on untouched.
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

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, GUARD_PORTS_MAX);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __type(key, struct guard_mac);
    __type(value, __u64);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_own SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct guard_sockets);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_sockets SEC(".maps");

#include "guard_rate.bpf.h"
#include "guard_source.bpf.h"

// A member or not: the frame of another VLAN may come out in any VLAN of the port. Verified alone also
// because of the index that varies: the kernel follows both sides of every later branch once more behind it.
VERIFIED_ALONE int is_member(__u32 ifindex, __u32 vid)
{
    const struct guard_port *port = bpf_map_lookup_elem(&guard_ports, &ifindex);

    return port && port->members[(vid & VID_MASK) / 64] >> vid % 64 & 1;
}

// `known`: the port is a member of the VLAN; else all of its VLANs count.
VERIFIED_ALONE int is_trapped(__u32 ifindex, __u32 vid, __u32 known, __u32 families)
{
    const struct guard_port *port = bpf_map_lookup_elem(&guard_ports, &ifindex);
    const struct guard_vlan *vlan = bpf_map_lookup_elem(&guard_vlans, &vid);
    __u32 zero = 0;

    if (!port || !vlan)
        return 0;
    if ((port->trap | (known ? vlan->trap : port->vlans.trap)) & families)
        return 1;
    if (!((port->inherited | (known ? vlan->inherited : port->vlans.inherited)) & families))
        return 0;
    const struct guard_state *state = bpf_map_lookup_elem(&guard_state, &zero);
    return state && bpf_ktime_get_boot_ns() < state->inherited_until;
}

// One program decides, and the bridge does not get the frames that it takes: a tap on the port with this
// program as its socket filter would see the same frames, but two taps cost all other traffic of a bridge 270
// ns a frame (1580 -> 1850 ns with this program in place, 342-byte frames between two veth ports).
VERIFIED_ALONE int to_daemon(struct __sk_buff *skb, __u32 v4)
{
    struct guard_frame header = {.ifindex = skb->ifindex};
    // Apart from the header, for the reason given at OWN_WORDS.
    struct {
        __u8 addresses[2 * ETH_ALEN];
        __be32 tag;
    } front = {};
    bool tagged = skb->vlan_present;

    header.type = v4 ? bpf_htons(GUARD_ETHERTYPE_V4) : bpf_htons(GUARD_ETHERTYPE_V6);
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

static __always_inline int trap(struct __sk_buff *skb, __u32 kind)
{
    return is_over_rate(skb) ? refuse(skb->ifindex, GUARD_REFUSED_RATE)
                             : to_daemon(skb, kind >> FAMILIES & GUARD_TRAP_V4);
}

VERIFIED_ALONE int is_protecting(void)
{
    __u64 nobody = 0;
    const __u64 *until = bpf_map_lookup_elem(&guard_own, &nobody);

    return until && bpf_ktime_get_boot_ns() < *until;
}

// An Ethernet source that is one of this host's.
VERIFIED_ALONE int is_own(struct __sk_buff *skb)
{
    __u64 mac = 0;

    return load(skb, ETH_ALEN, &mac, ETH_ALEN) && mac && bpf_map_lookup_elem(&guard_own, &mac);
}

// At the egress of the ports of protected bridges. A frame goes on when the ingress of a port has judged it,
// when it is this host's own, sent or routed, and not when it comes from a device that the daemon has not
// seen yet, or whose settings are not in force yet. Such a port routes nothing: the host's own address there
// is forged. Frames that came in on a host port have been judged where they came into its bridge, if this
// host routes them.
SEC("tc")
int dhcpsnoop_out(struct __sk_buff *skb)
{
    __u32 from = skb->ingress_ifindex;

    if (!from)
        return TC_ACT_UNSPEC;
    const struct guard_port *port = bpf_map_lookup_elem(&guard_ports, &from);
    bool routes = port && (port->left_until || port->is_host);
    bool judged = port && !routes && (!port->since || bpf_ktime_get_boot_ns() >= port->since);
    if (judged || !is_protecting() || (routes && is_own(skb)))
        return TC_ACT_UNSPEC;
    return refuse(skb->ifindex, GUARD_REFUSED_ORIGIN);
}

// The daemon's socket that sent the frame; GUARD_SOCKETS = none of them.
VERIFIED_ALONE int socket_of(struct __sk_buff *skb)
{
    __u32 zero = 0;
    const struct guard_sockets *sockets = bpf_map_lookup_elem(&guard_sockets, &zero);
    __u64 cookie = bpf_get_socket_cookie(skb);

    if (!cookie || !sockets)
        return GUARD_SOCKETS;
    return cookie == sockets->cookies[GUARD_SOCKET_V4]      ? GUARD_SOCKET_V4
           : cookie == sockets->cookies[GUARD_SOCKET_V6]    ? GUARD_SOCKET_V6
           : cookie == sockets->cookies[GUARD_SOCKET_RELAY] ? GUARD_SOCKET_RELAY
                                                            : GUARD_SOCKETS;
}

// At the egress of a bridge device whose machine is a port. A frame of the daemon's packet sockets is for
// this machine, which takes it as received there. DHCP of this machine is trapped as if it had come in on a
// port: the bridge does not get it. Never at that device's ingress, where the daemon's own frames would be
// trapped. Frames that the bridge forwards pass neither. The sender of a raw frame says what skb->protocol
// is: it does not count here.
SEC("tc")
int dhcpsnoop_host(struct __sk_buff *skb)
{
    __u32 ifindex = skb->ifindex;
    OWN_WORDS __be16 type = 0;

    if (!load(skb, ETH_HLEN - sizeof type, &type, sizeof type))
        return TC_ACT_UNSPEC;
    __u64 network = behind_tags(skb, bpf_ntohs(type));
    __u32 kind = (__u32)kind_of(skb, network);
    if (!(kind & (DHCP | UNCLEAR)))
        return TC_ACT_UNSPEC;
    __u32 sender = (__u32)socket_of(skb);
    if (sender == GUARD_SOCKET_V4 || sender == GUARD_SOCKET_V6)
        return (int)bpf_redirect(ifindex, BPF_F_INGRESS);
    const struct guard_port *port = bpf_map_lookup_elem(&guard_ports, &ifindex);
    if (sender == GUARD_SOCKET_RELAY || !port ||
        (port->left_until && bpf_ktime_get_boot_ns() >= port->left_until))
        return TC_ACT_UNSPEC;
    __u32 native = port->native;
    __u32 vid = network_of(network).vid;
    if (!vid)
        vid = native;
    __u32 known = (__u32)is_member(ifindex, vid);
    if (!is_trapped(ifindex, vid, known, kind >> FAMILIES))
        return TC_ACT_UNSPEC;
    if (!known || kind & UNCLEAR)
        return refuse(ifindex, kind & UNCLEAR ? GUARD_REFUSED_UNCLEAR : GUARD_REFUSED_VLAN);
    return trap(skb, kind);
}

SEC("tc")
int dhcpsnoop_guard(struct __sk_buff *skb)
{
    __u32 ifindex = skb->ifindex;
    const struct guard_port *port = bpf_map_lookup_elem(&guard_ports, &ifindex);

    if (!port)
        return TC_ACT_UNSPEC;
    // No port: nobody there may pass for this host at the ports' egress.
    if (port->left_until && bpf_ktime_get_boot_ns() >= port->left_until)
        return is_protecting() && is_own(skb) ? refuse(ifindex, GUARD_REFUSED_ORIGIN) : TC_ACT_UNSPEC;
    __u32 native = port->native;
    __u64 network = behind_tags(skb, bpf_ntohs((__be16)skb->protocol));
    __u32 kind = (__u32)kind_of(skb, network);
    if (!kind)
        return TC_ACT_UNSPEC; // on to whatever other filters the port has
    __u32 vid = network_of(network).vid;
    if (!vid)
        vid = native;
    __u32 known = (__u32)is_member(ifindex, vid);
    bool trapped = kind & (DHCP | UNCLEAR) && is_trapped(ifindex, vid, known, kind >> FAMILIES);
    bool judged = known && !(kind & UNCLEAR);
    bool free = judged && (trapped ? !(kind & DHCP_ELSEWHERE) : kind & DHCP_TO_SERVER);
    __u32 items = free ? 0 : (__u32)items_checked(ifindex, vid, known, kind);

    if (!judged && (trapped || items))
        return refuse(ifindex, kind & UNCLEAR ? GUARD_REFUSED_UNCLEAR : GUARD_REFUSED_VLAN);
    if (items) {
        __u32 reason = (__u32)refused_source(skb, network, vid, items);
        if (reason != GUARD_REASONS)
            return refuse(ifindex, reason);
    }
    return trapped ? trap(skb, kind) : TC_ACT_UNSPEC;
}
