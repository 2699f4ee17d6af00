/* What guard.bpf.c shares with classifier.cpp, packet_socket.cpp and dhcpsnoopctl: the values of the pinned
 * maps and what stands before a trapped frame, in the host's byte order where nothing else is said. A change
 * of the map values takes a new GUARD_LAYOUT, so that a newer daemon never reads an older one's maps. The
 * maps bear their values' names and are pinned under them; each says who writes it. */
#ifndef DHCPSNOOP_GUARD_MAPS_H
#define DHCPSNOOP_GUARD_MAPS_H

#include <linux/types.h>

#define GUARD_LAYOUT 7
#define GUARD_PORTS_MAX 4096
#define GUARD_VLANS 4096

/* Bits of `trap` and `inherited`: the families whose DHCP frames are held back. */
#define GUARD_TRAP_V4 1
#define GUARD_TRAP_V6 2

/* Map guard_vlans, by VLAN id. The daemon writes it. */
struct guard_vlan {
    __u8 trap, inherited;
    __u8 reserved[2];
};

/* Map guard_state, one element. The daemon writes it. */
struct guard_state {
    __u64 inherited_until; /* of traps: nanoseconds of CLOCK_BOOTTIME */
    __u64 netns_cookie;    /* of the network namespace that the maps are about; 0 = new maps */
    __u64 rules_until;     /* of rules that an earlier run installed: nanoseconds of CLOCK_BOOTTIME */
    __u64 masks;           /* of all rules: bit 16 * kind + mask / 16 when there is one like that */
    __u32 run;             /* of the daemon: 1, 2, ... as the maps were taken over */
    __u32 reserved;
};

/* Check items, the bits of a guard_items byte and of a rule's mask. */
#define GUARD_CHECK_ADDRESS 0x80
#define GUARD_CHECK_MAC 0x40
#define GUARD_CHECK_VLAN 0x20
#define GUARD_CHECK_PORT 0x10
#define GUARD_CHECK_ALL 0xF0
#define GUARD_EXEMPT 0x01 /* alone, in a port's guard_items byte: the port does not follow its VLANs' */

/* IP source guard alone, beside its check items: the families that it checks. Neither: IPv4. */
#define GUARD_FAMILY_6 0x02 /* IPv6 as well */
#define GUARD_NOT_4 0x04    /* not IPv4 */

/* Maps guard_port_items, a hash by interface index, and guard_vlan_items, an array by VLAN id: where IP
 * source guard and ARP inspection stand, by the check items that bindings are to be installed with; 0 = off
 * there, as is a port without an element. What is on for a port counts for it in place of its VLAN's, each of
 * the two for itself. dhcpsnoopctl writes them, also while no daemon runs; the daemon takes a port's element
 * away when the device has gone. */
struct guard_items {
    __u8 ip, arp;
    __u8 ip_pending, arp_pending; /* the items that come next, once the daemon has installed its bindings with
                                   * them; 0 = none. The classifier goes by those above alone */
};

/* Map guard_ports, by interface index: the devices on which the classifier stands; while a bridge is
 * protected all devices that the daemon knows. The daemon writes it. */
struct guard_port {
    __u64 left_until; /* 0 = a port, whose ingress judges every frame; else it is none, and its frames are
                       * judged as before until then: nanoseconds of CLOCK_BOOTTIME */
    __u64 since;      /* a port from then on at the egress of others, when the frames that its ingress let go
                       * before are on their way no more; the largest number = it waits for its settings, or
                       * is in a bridge that is not protected */
    __u16 native;     /* VLAN of untagged and priority-tagged frames; 0 = none */
    __u8 trap;        /* set by the running daemon */
    __u8 inherited;   /* set by an earlier one: counts until guard_state.inherited_until */
    __u8 qdisc_is_ours; /* 1: the clsact queueing discipline was made for the guard */
    __u8 is_host;       /* 1: a bridge device, whose machine is the port: dhcpsnoop_host stands there */
    __u8 reserved[2];
    /* All of its VLANs together, for a frame whose VLAN cannot be told. */
    struct guard_vlan vlans;
    struct guard_items vlan_items; /* in force */
    /* The VLANs that it is a member of: bit VID % 64 of word VID / 64. Bit 0 of word 0: its frames are of no
     * VLAN. */
    __u64 members[GUARD_VLANS / 64];
};

/* Kinds of rules. */
#define GUARD_IPV4 1 /* IP source guard */
#define GUARD_IPV6 2
#define GUARD_ARP 3 /* ARP inspection */

/* Map guard_rules: who may send. A frame passes when some rule agrees with it in all that the rule's mask
 * names; what it does not name is zero. The daemon writes it. */
struct guard_rule_key {
    __u32 ifindex;
    __u16 vid;   /* the outermost tag's, or the port's native VLAN */
    __u8 kind;   /* GUARD_IPV4, ... */
    __u8 mask;   /* check items */
    __u8 mac[6]; /* Ethernet source; in ARP the sender's too */
    __u8 pad[2];
    __u8 addr[16]; /* network order, IPv4 in the first 4 */
};

struct guard_rule {
    __u32 references;      /* bindings of the daemon that come to this */
    __u32 run;             /* that installed it; an earlier one's counts until guard_state.rules_until */
    __u32 inherited_until; /* an earlier run's: until which second of CLOCK_BOOTTIME the next daemon takes it
                            * over; 0 = it has not been taken over yet */
};

/* Two buckets of tokens, a token for each DHCP frame that goes to the daemon (GCRA, ITU-T I.371): each is one
 * word, the moment of CLOCK_BOOTTIME at which the bucket will be full, in nanoseconds. The classifier moves
 * the words, from any processor; whoever writes the rest makes them 0, and so both buckets full. */
struct guard_buckets {
    __u64 common;   /* for all */
    __u64 known;    /* for known clients, when the other is empty */
    __u64 interval; /* nanoseconds from one token to the next, in both; 0 = no limit */
    __u64 common_depth,
        known_depth; /* nanoseconds, in which the empty bucket fills; 0 = nobody draws on it */
};

/* Map guard_rates, a hash by interface index: the limit of a port. The daemon makes a port's element, and
 * takes it away with the device. Map guard_rate_sum, one element, has the buckets on which all ports with a
 * limit draw as well. */
struct guard_rate {
    struct guard_buckets buckets;
    __u32 rate, burst, reserved; /* frames a second; frames; 0 and the rest of no meaning = off */
    __u8 is_default;             /* nobody has set it: it follows from `trusted` */
    __u8 trusted;
    __u8 pad[2];
};

/* Map guard_known: the clients of a port that have a binding, by Ethernet address. The daemon writes it. */
struct guard_known_key {
    __u64 ifindex;
    __u8 mac[6];
    __u8 pad[2];
};
struct guard_known {
    __u64 until;      /* nanoseconds of CLOCK_BOOTTIME; 0 = of the present run, for good */
    __u64 references; /* bindings of the present run */
};

/* Why a frame was refused: by the guard, UNCLEAR and VLAN by the trap as well, RATE by it alone. */
enum guard_reason {
    GUARD_REFUSED_IPV4, /* no rule has its source */
    GUARD_REFUSED_IPV6,
    GUARD_REFUSED_ARP,       /* no rule has its sender */
    GUARD_REFUSED_MALFORMED, /* cut short, or ARP for other protocols or media */
    GUARD_REFUSED_UNCLEAR,   /* its kind cannot be told: a tag behind the last one looked at, a header that
                              * contradicts its EtherType, IP in an IEEE 802.2 SNAP frame */
    GUARD_REFUSED_VLAN,      /* its place cannot be told: the port is no member of its VLAN */
    GUARD_REFUSED_ORIGIN, /* it was to leave here, and came from a device whose ingress has not judged it; or
                           * it came in here, no port, with an address of this host */
    GUARD_REFUSED_RATE,   /* DHCP beyond the limit of the port, or of all ports */
    GUARD_REASONS
};

/* Map guard_own, a hash by Ethernet address: those of this namespace's devices that are no ports, which
 * routed frames bear. The element of address zero is there while some bridge is protected: until when,
 * nanoseconds of CLOCK_BOOTTIME; the others' values are no matter. The daemon writes it. */
struct guard_mac {
    __u8 mac[6];
    __u8 pad[2];
};

/* Map guard_sockets, one element: the cookies of the running daemon's sockets, 0 = none. The kernel gives no
 * cookie twice. The daemon writes it. */
enum guard_socket {
    GUARD_SOCKET_V4, /* its packet sockets: what they send to a host port is for this machine */
    GUARD_SOCKET_V6,
    GUARD_SOCKET_RELAY, /* its relayed requests go on as any datagram of this machine */
    GUARD_SOCKETS
};
struct guard_sockets {
    __u64 cookies[GUARD_SOCKETS];
};

/* Map guard_refused, a per-CPU hash by interface index: frames refused on a port since it became one. The
 * classifier counts, the daemon makes a port's element and takes it away with the port. */
struct guard_refused {
    __u64 frames[GUARD_REASONS];
};

/* A trapped frame leaves its port for the loopback device behind this header, whole and with its outermost
 * tag back in its bytes. The two EtherTypes are those that IEEE 802 leaves to local experiments: nothing in
 * the kernel takes them but the daemon's packet sockets, which are bound to them on the loopback device
 * alone. */
#define GUARD_LOOPBACK 1 /* its interface index in every network namespace */
#define GUARD_ETHERTYPE_V4 0x88B5
#define GUARD_ETHERTYPE_V6 0x88B6

struct guard_frame {
    __u8 destination[6], source[6]; /* zero, as the loopback device's own address */
    __be16 type;
    __u16 reserved;
    __u32 ifindex; /* the port that the frame came in on */
};

#endif
