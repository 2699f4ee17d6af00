// The one walk along a map of the kernel.
#pragma once

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

} // namespace platform_linux
