// The rules of bindings in the kernel: counted by key, found again after a restart, and given up when what
// the daemon installs now says otherwise. Each call makes a handful of look-ups in maps of the kernel,
// however many bindings there are, and allocates nothing once the maps are taken over.
#include "guard_bindings.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include <bpf/bpf.h>
#include <unistd.h>

#include "guard.h"

namespace platform_linux
{
namespace
{

constexpr uint32_t MASK_BITS = 64; // of guard_state.masks
constexpr uint64_t NANOSECONDS = 1000000000;

struct Bindings {
    int map = -1, state = -1;
    guard_state now = {};
    uint32_t uses[MASK_BITS] = {}; // keys in the map, by bit of guard_state.masks
    uint32_t inherited = 0;        // keys in the map that are an earlier run's
    // Those, as they were taken over: by address, and by MAC. What has gone since is still here.
    std::vector<guard_binding_key> byAddress, byMac;
} bindings;

uint32_t mask_bit(const guard_binding_key &key) { return 16u * key.kind + key.mask / 16u; }

bool same(const guard_binding_key &one, const guard_binding_key &other)
{
    return memcmp(&one, &other, sizeof one) == 0;
}

bool have(uint8_t item, const guard_binding_key &one, const guard_binding_key &other)
{
    return (one.mask & other.mask & item) != 0;
}

bool address_before(const guard_binding_key &one, const guard_binding_key &other)
{
    const int kinds = one.kind - other.kind;
    return kinds != 0 ? kinds < 0 : memcmp(one.addr, other.addr, sizeof one.addr) < 0;
}

bool mac_before(const guard_binding_key &one, const guard_binding_key &other)
{
    const int kinds = one.kind - other.kind;
    return kinds != 0 ? kinds < 0 : memcmp(one.mac, other.mac, sizeof one.mac) < 0;
}

// The key with the items of `mask` only.
guard_binding_key reduced(const guard_binding_key &key, uint8_t mask)
{
    guard_binding_key less = {};
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
    return -bpf_map_update_elem(bindings.state, &zero, &bindings.now, BPF_ANY);
}

void count_key(const guard_binding_key &key) // before it is in the map
{
    const uint32_t bit = mask_bit(key);
    if (bindings.uses[bit]++ == 0) {
        bindings.now.masks |= uint64_t{1} << bit;
        state_write();
    }
}

void discount_key(const guard_binding_key &key) // when it is not in the map any more
{
    const uint32_t bit = mask_bit(key);
    if (--bindings.uses[bit] == 0) {
        bindings.now.masks &= ~(uint64_t{1} << bit);
        state_write();
    }
}

// Drops a key if it is there and an earlier run's.
bool drop_inherited(const guard_binding_key &key)
{
    guard_binding binding = {};
    if (bpf_map_lookup_elem(bindings.map, &key, &binding) != 0 || binding.run == bindings.now.run ||
        bpf_map_delete_elem(bindings.map, &key) != 0)
        return false;
    discount_key(key);
    bindings.inherited--;
    return true;
}

// An address has one binding, and a MAC one port in a VLAN: what an earlier run said of them otherwise is
// over. So is what it let pass with fewer items of the same host.
void drop_contradictions(const guard_binding_key &key)
{
    if (bindings.inherited == 0)
        return;
    if (key.mask & GUARD_CHECK_ADDRESS) {
        const auto [first, last] =
            std::equal_range(bindings.byAddress.begin(), bindings.byAddress.end(), key, address_before);
        for (auto old = first; old != last; ++old) {
            if (have(GUARD_CHECK_ADDRESS, *old, key) && !same(*old, key))
                drop_inherited(*old);
        }
    }
    if (key.mask & GUARD_CHECK_MAC) {
        const auto [first, last] =
            std::equal_range(bindings.byMac.begin(), bindings.byMac.end(), key, mac_before);
        for (auto old = first; old != last; ++old) {
            if (have(GUARD_CHECK_PORT, *old, key) && old->ifindex != key.ifindex &&
                !(have(GUARD_CHECK_VLAN, *old, key) && old->vid != key.vid))
                drop_inherited(*old);
        }
    }
    for (uint32_t items = 0x10; items < key.mask; items += 0x10) {
        const auto mask = static_cast<uint8_t>(items);
        if ((mask & key.mask) == mask && bindings.uses[16u * key.kind + items / 16] != 0)
            drop_inherited(reduced(key, mask));
    }
}

bool drop_any_inherited()
{
    while (bindings.inherited != 0 && !bindings.byMac.empty()) {
        const bool dropped = drop_inherited(bindings.byMac.back());
        bindings.byMac.pop_back();
        if (dropped)
            return true;
    }
    return false;
}

// All at once, as what is deleted during a walk makes it begin again.
std::vector<guard_binding_key> all_keys(int map)
{
    std::vector<guard_binding_key> keys;
    guard_binding_key key = {};
    for (const guard_binding_key *previous = nullptr; bpf_map_get_next_key(map, previous, &key) == 0;
         previous = &key)
        keys.push_back(key);
    return keys;
}

} // namespace

uint64_t guard_clock()
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * NANOSECONDS + static_cast<uint64_t>(now.tv_nsec);
}

uint32_t guard_bindings_open(int map, int state)
{
    guard_bindings_close();
    bindings.map = map;
    bindings.state = state;
    const uint32_t zero = 0;
    bpf_map_lookup_elem(state, &zero, &bindings.now);
    const uint64_t now = guard_clock();
    const bool stillInherited = now < bindings.now.bindings_until;
    // However often daemons start: what none of them installs again has its time from its own run's end.
    const auto until = static_cast<uint32_t>(now / NANOSECONDS + GUARD_INHERIT_BINDINGS_SECONDS);
    bindings.now.masks = 0;
    for (const guard_binding_key &key : all_keys(map)) {
        guard_binding binding = {};
        if (bpf_map_lookup_elem(map, &key, &binding) != 0)
            continue;
        if (binding.run == bindings.now.run) {
            binding.references = until;
            bpf_map_update_elem(map, &key, &binding, BPF_EXIST);
        } else if (!stillInherited || binding.references <= now / NANOSECONDS) {
            bpf_map_delete_elem(map, &key);
            continue;
        }
        bindings.uses[mask_bit(key) % MASK_BITS]++;
        bindings.now.masks |= uint64_t{1} << mask_bit(key) % MASK_BITS;
        bindings.byAddress.push_back(key);
    }
    bindings.byMac = bindings.byAddress;
    bindings.inherited = static_cast<uint32_t>(bindings.byMac.size());
    std::sort(bindings.byAddress.begin(), bindings.byAddress.end(), address_before);
    std::sort(bindings.byMac.begin(), bindings.byMac.end(), mac_before);
    // The time first: between the two a frame of a bound host must not find neither.
    bindings.now.bindings_until = now + uint64_t{GUARD_INHERIT_BINDINGS_SECONDS} * NANOSECONDS;
    state_write();
    bindings.now.run++;
    state_write();
    return bindings.inherited;
}

void guard_bindings_close() { bindings = Bindings(); }

int guard_bindings_copy(int from, int to)
{
    for (const guard_binding_key &key : all_keys(from)) {
        guard_binding binding = {};
        if (bpf_map_lookup_elem(from, &key, &binding) == 0 &&
            bpf_map_update_elem(to, &key, &binding, BPF_ANY) != 0)
            return errno;
    }
    return 0;
}

int guard_binding_add(const guard_binding_key &key)
{
    if (bindings.map < 0)
        return EOPNOTSUPP;
    if ((key.mask & 0xF0) == 0 || (key.mask & 0x0F) != 0 || key.kind < GUARD_IPV4 || key.kind > GUARD_ARP)
        return EINVAL;
    guard_binding binding = {};
    const bool known = bpf_map_lookup_elem(bindings.map, &key, &binding) == 0;
    if (known && binding.run == bindings.now.run) {
        binding.references++;
        return -bpf_map_update_elem(bindings.map, &key, &binding, BPF_EXIST);
    }
    binding = {1, bindings.now.run};
    if (!known)
        count_key(key);
    int error = -bpf_map_update_elem(bindings.map, &key, &binding, BPF_ANY);
    while (error == E2BIG && drop_any_inherited())
        error = -bpf_map_update_elem(bindings.map, &key, &binding, BPF_ANY);
    if (error != 0 && !known)
        discount_key(key);
    if (error == 0 && known)
        bindings.inherited--;
    if (error == 0)
        drop_contradictions(key);
    return error == E2BIG ? ENOSPC : error;
}

int guard_binding_remove(const guard_binding_key &key)
{
    guard_binding binding = {};
    if (bindings.map < 0)
        return EOPNOTSUPP;
    if (bpf_map_lookup_elem(bindings.map, &key, &binding) != 0 || binding.run != bindings.now.run)
        return ENOENT;
    if (binding.references > 1) {
        binding.references--;
        return -bpf_map_update_elem(bindings.map, &key, &binding, BPF_EXIST);
    }
    const int error = -bpf_map_delete_elem(bindings.map, &key);
    if (error == 0)
        discount_key(key);
    return error;
}

} // namespace platform_linux
