#include "transactions.h"

#include <algorithm>
#include <bit>

namespace platform_linux
{

Transactions::Transactions(uint32_t count) : nodes_(count), links_(count), buckets_(std::bit_ceil(count * 2))
{
    clear();
}

void Transactions::clear()
{
    std::ranges::fill(buckets_, NONE);
    groups_.fill({});
    free_ = NONE;
    for (uint32_t i = 0; i < nodes_.size(); i++) {
        links_[i].chain = free_;
        free_ = i;
    }
}

uint32_t Transactions::find_node(uint64_t id)
{
    uint32_t node = bucket(id);
    for (uint32_t i = 0; i < CHAIN_MAX && node != NONE; i++, node = links_[node].chain)
        if (nodes_[node].id == id)
            return node;
    return NONE;
}

Transaction *Transactions::find(uint64_t id)
{
    const uint32_t node = find_node(id);
    return node != NONE ? &nodes_[node] : nullptr;
}

void Transactions::remove(uint32_t node)
{
    const Links &gone = links_[node];
    uint32_t *link = &bucket(nodes_[node].id);
    while (*link != node)
        link = &links_[*link].chain;
    *link = gone.chain;
    Group &group = groups_[nodes_[node].host.place.ifIndex % GROUPS];
    (gone.older != NONE ? links_[gone.older].newer : group.oldest) = gone.newer;
    (gone.newer != NONE ? links_[gone.newer].older : group.newest) = gone.older;
    group.count--;
    links_[node].chain = free_;
    free_ = node;
}

uint32_t Transactions::take_free()
{
    if (free_ == NONE) {
        if (evicted_++ % EVICTED_PER_LOOK == 0 || groups_[fullest_].count == 0)
            fullest_ =
                static_cast<size_t>(std::ranges::max_element(groups_, {}, &Group::count) - groups_.begin());
        remove(groups_[fullest_].oldest);
    }
    const uint32_t node = free_;
    free_ = links_[node].chain;
    return node;
}

void Transactions::put(const Transaction &transaction)
{
    if (const uint32_t before = find_node(transaction.id); before != NONE)
        remove(before);
    const uint32_t node = take_free();
    Group &group = groups_[transaction.host.place.ifIndex % GROUPS];
    uint32_t &first = bucket(transaction.id);
    nodes_[node] = transaction;
    links_[node] = {first, group.newest, NONE};
    first = node;
    (group.newest != NONE ? links_[group.newest].newer : group.oldest) = node;
    group.newest = node;
    group.count++;
    if (free_ == NONE && groups_[fullest_].count != 0)
        __builtin_prefetch(&nodes_[groups_[fullest_].oldest]); // the next to give way, and so to be written
}

} // namespace platform_linux
