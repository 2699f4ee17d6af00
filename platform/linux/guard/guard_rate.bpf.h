// The limit of DHCP frames that a port hands to the daemon. Part of guard.bpf.c, before its programs. Generic
// cell rate algorithm of ITU-T I.371; a word for a bucket, changed by compare-and-swap, because a spin lock
// costs three times as much.
#ifndef DHCPSNOOP_GUARD_RATE_H
#define DHCPSNOOP_GUARD_RATE_H

#include "guard_frame.bpf.h"
#include "guard_maps.h"

enum { RATE_TRIES = 4 }; // of a token that other processors take first

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, GUARD_PORTS_MAX);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __type(key, __u32);
    __type(value, struct guard_rate);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_rates SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct guard_buckets);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_rate_sum SEC(".maps");

// Sized by the daemon for its bindings.
struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, 512);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __type(key, struct guard_known_key);
    __type(value, struct guard_known);
    __uint(pinning, LIBBPF_PIN_BY_NAME);
} guard_known SEC(".maps");

// Takes a token. The clocks of two processors may differ by a little: `full` is never before `now` then.
static __always_inline bool take_token(__u64 *word, __u64 now, __u64 interval, __u64 depth)
{
    __u64 seen = *word;

    for (int i = 0; i < RATE_TRIES; i++) {
        __u64 full = seen > now ? seen : now;
        if (full - now + interval > depth)
            return false;
        __u64 was = __sync_val_compare_and_swap(word, seen, full + interval);
        if (was == seen)
            return true;
        seen = was;
    }
    return false;
}

// Asked only when the common bucket is empty: an attacker who borrows the address of a client draws on what
// is reserved for the clients of his own port.
static __always_inline bool is_known_client(const struct __sk_buff *skb, __u64 now)
{
    __u64 key[2] = {skb->ifindex, 0};
    _Static_assert(sizeof key == sizeof(struct guard_known_key), "");

    load(skb, ETH_ALEN, &key[1], ETH_ALEN);
    const struct guard_known *known = bpf_map_lookup_elem(&guard_known, key);
    return known && (!known->until || now < known->until);
}

// Whether a trapped frame is one too many. What a port takes beyond its own share of the sum, known clients
// of other ports still have.
VERIFIED_ALONE int is_over_rate(struct __sk_buff *skb)
{
    __u32 ifindex = skb->ifindex, zero = 0;
    struct guard_rate *rate = bpf_map_lookup_elem(&guard_rates, &ifindex);
    struct guard_buckets *sum = bpf_map_lookup_elem(&guard_rate_sum, &zero);

    if (!rate || !sum || !rate->buckets.interval)
        return 0;
    struct guard_buckets *port = &rate->buckets;
    __u64 now = bpf_ktime_get_boot_ns();
    if (take_token(&port->common, now, port->interval, port->common_depth) &&
        take_token(&sum->common, now, sum->interval, sum->common_depth))
        return 0;
    return !(is_known_client(skb, now) && take_token(&port->known, now, port->interval, port->known_depth) &&
             take_token(&sum->known, now, sum->interval, sum->known_depth));
}

#endif
