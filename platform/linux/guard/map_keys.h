// Walks along maps of the kernel.
#pragma once

#include <cstdint>
#include <vector>

#include <bpf/bpf.h>

namespace platform_linux
{

// Every key of a map. All at once: an entry that is written moves within the map, and a walk that writes
// could meet it again for ever; a deleted one makes the walk begin again.
template <typename Key> std::vector<Key> map_keys(int map)
{
    std::vector<Key> keys;
    Key key = {};
    for (const Key *last = nullptr; bpf_map_get_next_key(map, last, &key) == 0; last = &key)
        keys.push_back(key);
    return keys;
}

// The values of an array map with so many elements.
template <typename Value> std::vector<Value> array_values(int map, uint32_t count)
{
    std::vector<Value> values(count);
    std::vector<uint32_t> keys(count);
    uint32_t next = 0;
    bpf_map_lookup_batch(map, nullptr, &next, keys.data(), values.data(), &count, nullptr);
    return values;
}

} // namespace platform_linux
