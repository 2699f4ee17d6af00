// Three tables of slots with linear probing (bindings by key, bindings by MAC address, waiting clients by MAC
// address), a ring through the bindings of one MAC address, and a treap over the keys. All of it is one block
// that is made with the pool and never grows. The hash is seeded with the block's address, so that a client
// who picks its addresses does not pick their slots, too.
#include "user_index.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "dhcpsnoop_user.h"

using Number = uint16_t; // of an entry: its place in the pool, from 1 on; 0 = none

struct Links {
    Number next, prev;   // ring of the MAC address; next is 0 while the binding is not in the index
    Number lower, upper; // subtrees of smaller and of larger keys
    Number group;        // of ports: where it counts
};

// A slot: 16 bits of the hash, 16 bits of the entry's number; 0 = empty. At least half of the slots are
// empty, so every search ends.
struct UserIndex {
    uint32_t mask; // count of slots - 1
    uint32_t used; // entries of the pool, bindings and waiting clients
    Number root;
    uint32_t *byKey, *byMac, *waiting;
    Links *links;     // by number
    uint32_t *onPort; // bindings; ports whose indexes have the same last bits count as one
};

UserIndex *gUserIndex;

int32_t dhcpsnoop_user_index_init(uint16_t count)
{
    size_t slots = 2;
    while (slots < 2 * size_t{count})
        slots *= 2;
    const size_t links = size_t{count} + 1;
    const size_t groups = slots / 2;
    const size_t size = sizeof(UserIndex) + (3 * slots + groups) * sizeof(uint32_t) + links * sizeof(Links);
    void *block = std::calloc(1, size);
    if (block == nullptr)
        return -1;
    gUserIndex = ::new (block) UserIndex{};
    gUserIndex->mask = static_cast<uint32_t>(slots - 1);
    gUserIndex->byKey = ::new (gUserIndex + 1) uint32_t[3 * slots]();
    gUserIndex->byMac = gUserIndex->byKey + slots;
    gUserIndex->waiting = gUserIndex->byMac + slots;
    gUserIndex->onPort = ::new (gUserIndex->waiting + slots) uint32_t[groups]();
    gUserIndex->links = ::new (gUserIndex->onPort + groups) Links[links]();
    return 0;
}

void dhcpsnoop_user_index_free(void)
{
    std::free(gUserIndex);
    gUserIndex = nullptr;
}

static DhcpsnoopUser *user_at(Number number)
{
    return static_cast<DhcpsnoopUser *>(gDhcpsnoop.userPool) + number - 1;
}

// Waiting clients stand in nodes of the same size.
static DhcpsnoopMacUser *waiting_at(Number number)
{
    return static_cast<DhcpsnoopMacUser *>(static_cast<DhcpsnoopLink *>(user_at(number)));
}

static Number number_of(const DhcpsnoopLink *entry)
{
    return static_cast<Number>(static_cast<const DhcpsnoopUser *>(entry) -
                               static_cast<const DhcpsnoopUser *>(gDhcpsnoop.userPool) + 1);
}

// ---- hashes

static uint64_t mix(uint64_t a, uint64_t b)
{
    uint64_t hash = (a ^ reinterpret_cast<uintptr_t>(gUserIndex)) * 0x9E3779B97F4A7C15;
    hash = (hash ^ hash >> 32 ^ b) * 0xD6E8FEB86659FD93;
    return (hash ^ hash >> 32) * 0xD6E8FEB86659FD93;
}

// Kept: of an IPv4 key only four bytes count, as in a lookup along the chain.
static uint64_t hash_of(const DhcpsnoopUserKey &key)
{
    uint64_t words[2] = {};
    std::memcpy(words, key.ipAddr, key.ipType == DHCPSNOOP_IPV4 ? 4 : sizeof words);
    return mix(words[0] + key.ipType, words[1]);
}

static uint64_t hash_of(const uint8_t *mac)
{
    uint64_t word = 0;
    std::memcpy(&word, mac, 6);
    return mix(word, 0);
}

static uint32_t home_of(uint64_t hash) { return static_cast<uint32_t>(hash >> 32) & gUserIndex->mask; }
static uint32_t word_of(uint64_t hash, Number number) { return static_cast<uint32_t>(hash) << 16 | number; }

// ---- slots

static uint32_t after(uint32_t at) { return (at + 1) & gUserIndex->mask; }

// The slot of the first entry that `same` accepts, or the empty one where the search ended.
template <class Same> static uint32_t *slot_find(uint32_t *slots, uint64_t hash, Same same)
{
    uint32_t at = home_of(hash);
    while (slots[at] != 0 &&
           ((slots[at] ^ word_of(hash, 0)) >> 16 != 0 || !same(static_cast<Number>(slots[at]))))
        at = after(at);
    return &slots[at];
}

// Equal keys are found newest first, as in a chain: the new entry takes the slot of an older one, which moves
// on.
static void slot_add(uint32_t *slots, uint64_t hash, Number number)
{
    uint32_t word = word_of(hash, number), at = home_of(hash);
    for (; slots[at] != 0; at = after(at)) {
        if ((slots[at] ^ word) >> 16 == 0)
            std::swap(slots[at], word);
    }
    slots[at] = word;
}

// Entries behind the gap move up into it, unless that would be ahead of their home. `hashOf` tells an entry's
// hash.
template <class HashOf> static void slot_remove(uint32_t *slots, uint32_t *gone, HashOf hashOf)
{
    auto gap = static_cast<uint32_t>(gone - slots);
    if (*gone == 0)
        return;
    for (uint32_t at = after(gap); slots[at] != 0; at = after(at)) {
        const uint32_t home = home_of(hashOf(static_cast<Number>(slots[at])));
        if (((at - home) & gUserIndex->mask) < ((at - gap) & gUserIndex->mask))
            continue;
        slots[gap] = slots[at];
        gap = at;
    }
    slots[gap] = 0;
}

// ---- bindings by MAC address

static uint64_t mac_hash(Number number) { return hash_of(user_at(number)->mac); }

static uint32_t *mac_slot(const uint8_t *mac)
{
    return slot_find(gUserIndex->byMac, hash_of(mac),
                     [mac](Number number) { return std::memcmp(user_at(number)->mac, mac, 6) == 0; });
}

static void ring_add(const DhcpsnoopUser *user)
{
    Links *links = gUserIndex->links;
    const Number number = number_of(user), first = static_cast<Number>(*mac_slot(user->mac));
    if (first == 0)
        slot_add(gUserIndex->byMac, hash_of(user->mac), number);
    const Number before = first != 0 ? first : number, behind = first != 0 ? links[first].next : number;
    links[number].next = behind;
    links[number].prev = before;
    links[behind].prev = links[before].next = number;
}

static void ring_remove(const DhcpsnoopUser *user)
{
    Links *links = gUserIndex->links;
    const Number number = number_of(user), next = links[number].next;
    uint32_t *slot = mac_slot(user->mac);
    if (next == number)
        slot_remove(gUserIndex->byMac, slot, mac_hash);
    else if (static_cast<Number>(*slot) == number)
        *slot = *slot >> 16 << 16 | next;
    links[links[number].prev].next = next;
    links[next].prev = links[number].prev;
    links[number].next = links[number].prev = 0;
}

void dhcpsnoop_user_mac_set(DhcpsnoopUser *user, const uint8_t mac[6])
{
    ring_remove(user);
    std::memcpy(user->mac, mac, sizeof user->mac);
    ring_add(user);
}

DhcpsnoopUser *user_index_mac_first(const uint8_t mac[6])
{
    const auto first = static_cast<Number>(gUserIndex != nullptr ? *mac_slot(mac) : 0);
    return first != 0 ? user_at(first) : nullptr;
}

DhcpsnoopUser *user_index_mac_next(const DhcpsnoopUser *user, const DhcpsnoopUser *first)
{
    DhcpsnoopUser *next = user_at(gUserIndex->links[number_of(user)].next);
    return next != first ? next : nullptr;
}

// ---- bindings by port

static Number group_of(uint32_t ifIndex) { return static_cast<Number>(ifIndex & gUserIndex->mask >> 1); }

static void count_up(const DhcpsnoopUser *user)
{
    const Number group = group_of(user->ifIndex);
    gUserIndex->links[number_of(user)].group = group;
    gUserIndex->onPort[group]++;
}

static void count_down(const DhcpsnoopUser *user)
{
    gUserIndex->onPort[gUserIndex->links[number_of(user)].group]--;
}

void dhcpsnoop_user_port_set(DhcpsnoopUser *user, uint32_t ifIndex)
{
    count_down(user);
    user->ifIndex = ifIndex;
    count_up(user);
}

uint32_t user_index_on_port(uint32_t ifIndex) { return gUserIndex->onPort[group_of(ifIndex)]; }

// ---- the order of keys: a treap, whose priorities are hashes of the entries' numbers

static uint64_t priority(Number number) { return mix(number, 1); }

static bool below(Number a, Number b)
{
    const int order = std::memcmp(&user_at(a)->key, &user_at(b)->key, sizeof(DhcpsnoopUserKey));
    return order != 0 ? order < 0 : a < b;
}

static void tree_add(Number number)
{
    Links *links = gUserIndex->links;
    Number *at = &gUserIndex->root;
    while (*at != 0 && priority(*at) > priority(number))
        at = below(number, *at) ? &links[*at].lower : &links[*at].upper;

    // Of the subtree found there, smaller keys go to one side and larger keys to the other.
    Number rest = std::exchange(*at, number), *lower = &links[number].lower, *upper = &links[number].upper;
    while (rest != 0) {
        const bool smaller = below(rest, number);
        Number *&side = smaller ? lower : upper;
        *side = rest;
        side = smaller ? &links[rest].upper : &links[rest].lower;
        rest = *side;
    }
    *lower = *upper = 0;
}

static void tree_remove(Number number)
{
    Links *links = gUserIndex->links;
    Number *at = &gUserIndex->root;
    while (*at != number)
        at = below(number, *at) ? &links[*at].lower : &links[*at].upper;
    Number lower = links[number].lower, upper = links[number].upper;
    while (lower != 0 && upper != 0) {
        const bool takeLower = priority(lower) > priority(upper);
        Number &taken = takeLower ? lower : upper;
        *at = taken;
        at = takeLower ? &links[taken].upper : &links[taken].lower;
        taken = *at;
    }
    *at = lower != 0 ? lower : upper;
}

DhcpsnoopUser *dhcpsnoop_user_next(const DhcpsnoopUserKey *from)
{
    DhcpsnoopUser *found = nullptr;
    for (Number at = gUserIndex != nullptr ? gUserIndex->root : Number{0}; at != 0;) {
        DhcpsnoopUser *user = user_at(at);
        const bool larger = from == nullptr || std::memcmp(&user->key, from, sizeof *from) > 0;
        if (larger)
            found = user;
        at = larger ? gUserIndex->links[at].lower : gUserIndex->links[at].upper;
    }
    return found;
}

// ---- bindings

static uint64_t key_hash(Number number) { return hash_of(user_at(number)->key); }

static bool same_key(const DhcpsnoopUserKey &a, const DhcpsnoopUserKey &b)
{
    if (a.ipType != b.ipType)
        return false;
    return a.ipType == DHCPSNOOP_IPV4 ? std::memcmp(a.ipAddr, b.ipAddr, 4) == 0
                                      : std::memcmp(a.ipAddr, b.ipAddr, sizeof a.ipAddr) == 0;
}

DhcpsnoopUser *user_index_find(const DhcpsnoopUserKey *key)
{
    if (gUserIndex == nullptr)
        return nullptr;
    const auto found = static_cast<Number>(*slot_find(gUserIndex->byKey, hash_of(*key), [key](Number number) {
        return same_key(user_at(number)->key, *key);
    }));
    return found != 0 ? user_at(found) : nullptr;
}

void user_index_add(DhcpsnoopUser *user)
{
    const Number number = number_of(user);
    slot_add(gUserIndex->byKey, hash_of(user->key), number);
    tree_add(number);
    ring_add(user);
    count_up(user);
    gUserIndex->used++;
}

void user_index_remove(DhcpsnoopUser *user)
{
    const Number number = number_of(user);
    if (gUserIndex->links[number].next == 0)
        return;
    slot_remove(
        gUserIndex->byKey,
        slot_find(gUserIndex->byKey, hash_of(user->key), [number](Number at) { return at == number; }),
        key_hash);
    tree_remove(number);
    ring_remove(user);
    count_down(user);
    gUserIndex->used--;
}

// ---- waiting clients

static uint64_t waiting_hash(Number number) { return hash_of(waiting_at(number)->mac); }

DhcpsnoopMacUser *user_index_find_waiting(const uint8_t mac[6])
{
    if (gUserIndex == nullptr)
        return nullptr;
    const auto found =
        static_cast<Number>(*slot_find(gUserIndex->waiting, hash_of(mac), [mac](Number number) {
            return std::memcmp(waiting_at(number)->mac, mac, 6) == 0;
        }));
    return found != 0 ? waiting_at(found) : nullptr;
}

void user_index_add(DhcpsnoopMacUser *macUser)
{
    slot_add(gUserIndex->waiting, hash_of(macUser->mac), number_of(macUser));
    gUserIndex->used++;
}

void user_index_remove(DhcpsnoopMacUser *macUser)
{
    const Number number = number_of(macUser);
    slot_remove(
        gUserIndex->waiting,
        slot_find(gUserIndex->waiting, hash_of(macUser->mac), [number](Number at) { return at == number; }),
        waiting_hash);
    gUserIndex->used--;
}

uint32_t user_index_free(void) { return gDhcpsnoop.userMax - gUserIndex->used; }
