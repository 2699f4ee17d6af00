// The rules in the kernel: counted by key, found again after a restart, and given up when the daemon installs
// one that contradicts them. Each call makes a handful of look-ups in maps of the kernel, however many rules
// there are, and allocates nothing once the maps are taken over.
#include "guard_rules.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <bpf/bpf.h>
#include <unistd.h>

#include "map_keys.h"

namespace platform_linux
{
namespace
{

constexpr uint32_t MASK_BITS = 64; // of guard_state.masks
constexpr uint64_t NANOSECONDS = 1000000000;

struct Rules {
    int map = -1, state = -1;
    guard_state now = {};
    uint32_t uses[MASK_BITS] = {}; // keys in the map, by bit of guard_state.masks
    uint32_t inherited = 0;        // keys in the map that are an earlier run's
    // Those, as they were taken over: by address, and by MAC. Those that have gone since are still here.
    std::vector<guard_rule_key> byAddress, byMac;
} rules;

uint32_t mask_bit(const guard_rule_key &key) { return 16u * key.kind + key.mask / 16u; }

bool same(const guard_rule_key &one, const guard_rule_key &other)
{
    return memcmp(&one, &other, sizeof one) == 0;
}

bool have(uint8_t item, const guard_rule_key &one, const guard_rule_key &other)
{
    return (one.mask & other.mask & item) != 0;
}

bool address_before(const guard_rule_key &one, const guard_rule_key &other)
{
    const int kinds = one.kind - other.kind;
    return kinds != 0 ? kinds < 0 : memcmp(one.addr, other.addr, sizeof one.addr) < 0;
}

bool mac_before(const guard_rule_key &one, const guard_rule_key &other)
{
    const int kinds = one.kind - other.kind;
    return kinds != 0 ? kinds < 0 : memcmp(one.mac, other.mac, sizeof one.mac) < 0;
}

// The key with the items of `mask` only.
guard_rule_key reduced(const guard_rule_key &key, uint8_t mask)
{
    guard_rule_key less = {};
    less.kind = key.kind;
    less.mask = mask;
    if (mask & GUARD_CHECK_PORT)
        less.ifindex = key.ifindex;
    if (mask & GUARD_CHECK_VLAN)
        less.vid = key.vid;
    if (mask & GUARD_CHECK_MAC)
        memcpy(less.mac, key.mac, sizeof less.mac);
    if (mask & GUARD_CHECK_ADDRESS)
        memcpy(less.addr, key.addr, sizeof less.addr);
    return less;
}

int state_write()
{
    const uint32_t zero = 0;
    return -bpf_map_update_elem(rules.state, &zero, &rules.now, BPF_ANY);
}

void count_key(const guard_rule_key &key) // before it is in the map
{
    const uint32_t bit = mask_bit(key);
    if (rules.uses[bit]++ == 0) {
        rules.now.masks |= uint64_t{1} << bit;
        state_write();
    }
}

void discount_key(const guard_rule_key &key) // when it is not in the map any more
{
    const uint32_t bit = mask_bit(key);
    if (--rules.uses[bit] == 0) {
        rules.now.masks &= ~(uint64_t{1} << bit);
        state_write();
    }
}

// Drops a key if it is there and an earlier run's.
bool drop_inherited(const guard_rule_key &key)
{
    guard_rule rule = {};
    if (bpf_map_lookup_elem(rules.map, &key, &rule) != 0 || rule.run == rules.now.run ||
        bpf_map_delete_elem(rules.map, &key) != 0)
        return false;
    discount_key(key);
    rules.inherited--;
    return true;
}

// An address has one binding, and a MAC one port in a VLAN: rules of an earlier run that say otherwise end.
// So do its rules with fewer items of the same host.
void drop_contradictions(const guard_rule_key &key)
{
    if (rules.inherited == 0)
        return;
    if (key.mask & GUARD_CHECK_ADDRESS) {
        const auto [first, last] =
            std::equal_range(rules.byAddress.begin(), rules.byAddress.end(), key, address_before);
        for (auto old = first; old != last; ++old) {
            if (have(GUARD_CHECK_ADDRESS, *old, key) && !same(*old, key))
                drop_inherited(*old);
        }
    }
    if (key.mask & GUARD_CHECK_MAC) {
        const auto [first, last] = std::equal_range(rules.byMac.begin(), rules.byMac.end(), key, mac_before);
        for (auto old = first; old != last; ++old) {
            if (have(GUARD_CHECK_PORT, *old, key) && old->ifindex != key.ifindex &&
                !(have(GUARD_CHECK_VLAN, *old, key) && old->vid != key.vid))
                drop_inherited(*old);
        }
    }
    for (uint32_t items = GUARD_CHECK_PORT; items < key.mask; items += GUARD_CHECK_PORT) {
        const auto mask = static_cast<uint8_t>(items);
        if ((mask & key.mask) == mask && rules.uses[16u * key.kind + items / 16] != 0)
            drop_inherited(reduced(key, mask));
    }
}

bool drop_any_inherited()
{
    while (rules.inherited != 0 && !rules.byMac.empty()) {
        const bool dropped = drop_inherited(rules.byMac.back());
        rules.byMac.pop_back();
        if (dropped)
            return true;
    }
    return false;
}

} // namespace

uint32_t guard_rules_open(int map, int state)
{
    guard_rules_close();
    rules.map = map;
    rules.state = state;
    const uint32_t zero = 0;
    bpf_map_lookup_elem(state, &zero, &rules.now);
    const uint64_t now = guard_clock();
    const bool stillInherited = now < rules.now.rules_until;
    // However often daemons start: a rule that none of them installs again has its time from its own run's
    // end.
    const auto until = static_cast<uint32_t>(now / NANOSECONDS + GUARD_INHERIT_RULES_SECONDS);
    rules.now.masks = 0;
    for (const guard_rule_key &key : map_keys<guard_rule_key>(map)) {
        guard_rule rule = {};
        if (bpf_map_lookup_elem(map, &key, &rule) != 0)
            continue;
        if (rule.run == rules.now.run) {
            rule.inherited_until = until;
            bpf_map_update_elem(map, &key, &rule, BPF_EXIST);
        } else if (!stillInherited || rule.inherited_until <= now / NANOSECONDS) {
            bpf_map_delete_elem(map, &key);
            continue;
        }
        rules.uses[mask_bit(key) % MASK_BITS]++;
        rules.now.masks |= uint64_t{1} << mask_bit(key) % MASK_BITS;
        rules.byAddress.push_back(key);
    }
    rules.byMac = rules.byAddress;
    rules.inherited = static_cast<uint32_t>(rules.byMac.size());
    std::sort(rules.byAddress.begin(), rules.byAddress.end(), address_before);
    std::sort(rules.byMac.begin(), rules.byMac.end(), mac_before);
    // The time first: between the two a frame of a bound host must not find neither.
    rules.now.rules_until = now + uint64_t{GUARD_INHERIT_RULES_SECONDS} * NANOSECONDS;
    state_write();
    rules.now.run++;
    state_write();
    return rules.inherited;
}

void guard_rules_close() { rules = Rules(); }

int guard_rules_copy(int from, int to)
{
    for (const guard_rule_key &key : map_keys<guard_rule_key>(from)) {
        guard_rule rule = {};
        if (bpf_map_lookup_elem(from, &key, &rule) == 0 && bpf_map_update_elem(to, &key, &rule, BPF_ANY) != 0)
            return errno;
    }
    return 0;
}

int guard_rule_add(const guard_rule_key &key)
{
    if (rules.map < 0)
        return EOPNOTSUPP;
    if ((key.mask & GUARD_CHECK_ALL) == 0 || (key.mask & ~GUARD_CHECK_ALL) != 0 || key.kind < GUARD_IPV4 ||
        key.kind > GUARD_ARP)
        return EINVAL;
    guard_rule rule = {};
    const bool known = bpf_map_lookup_elem(rules.map, &key, &rule) == 0;
    if (known && rule.run == rules.now.run) {
        rule.references++;
        return -bpf_map_update_elem(rules.map, &key, &rule, BPF_EXIST);
    }
    rule = {1, rules.now.run, 0};
    if (!known)
        count_key(key);
    int error = -bpf_map_update_elem(rules.map, &key, &rule, BPF_ANY);
    while (error == E2BIG && drop_any_inherited())
        error = -bpf_map_update_elem(rules.map, &key, &rule, BPF_ANY);
    if (error != 0 && !known)
        discount_key(key);
    if (error == 0 && known)
        rules.inherited--;
    if (error == 0)
        drop_contradictions(key);
    return error == E2BIG ? ENOSPC : error;
}

int guard_rule_remove(const guard_rule_key &key)
{
    guard_rule rule = {};
    if (rules.map < 0)
        return EOPNOTSUPP;
    if (bpf_map_lookup_elem(rules.map, &key, &rule) != 0 || rule.run != rules.now.run)
        return ENOENT;
    if (rule.references > 1) {
        rule.references--;
        return -bpf_map_update_elem(rules.map, &key, &rule, BPF_EXIST);
    }
    const int error = -bpf_map_delete_elem(rules.map, &key);
    if (error == 0)
        discount_key(key);
    return error;
}

} // namespace platform_linux
