/* What guard.bpf.c shares with guard.cpp and frames.cpp: the values of the pinned maps and what stands before
 * a trapped frame, in the host's byte order where nothing else is said. A change of the map values takes a
 * new GUARD_LAYOUT, so that a newer daemon never reads an older one's maps. */
#ifndef DHCPSNOOP_GUARD_MAPS_H
#define DHCPSNOOP_GUARD_MAPS_H

#include <linux/types.h>

#define GUARD_LAYOUT 1
#define GUARD_PORTS_MAX 4096
#define GUARD_VLANS 4096

/* Bits of `trap` and `inherited`: the families whose DHCP frames are held back. */
#define GUARD_TRAP_V4 1
#define GUARD_TRAP_V6 2

/* Map guard_ports, by interface index. */
struct guard_port {
    __u16 native;       /* VLAN of untagged and priority-tagged frames; 0 = none */
    __u8 trap;          /* set by the running daemon */
    __u8 inherited;     /* set by an earlier one: counts until guard_state.inherited_until */
    __u8 qdisc_is_ours; /* 1: the clsact queueing discipline was made for the guard */
    __u8 reserved[3];
};

/* Map guard_vlans, by VLAN id. */
struct guard_vlan {
    __u8 trap, inherited;
    __u8 reserved[2];
};

/* Map guard_state, one element. */
struct guard_state {
    __u64 inherited_until; /* nanoseconds of CLOCK_BOOTTIME */
    __u64 netns_cookie;    /* of the network namespace that the maps are about; 0 = new maps */
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
