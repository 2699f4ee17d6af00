// Values by key, as many as there is room for: of those that share a row the oldest gives way.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <vector>

#include "clock.h"

namespace platform_linux
{

template <class Value> class RecentTable
{
  public:
    explicit RecentTable(uint32_t count) : rows_(std::bit_ceil(std::max(count / ROW, 16u))) {}

    // Null when it is not known, or is older.
    const Value *find(uint64_t key, Ticks notBefore = 0) const
    {
        const Row &at = row(key);
        const auto i = static_cast<size_t>(std::ranges::find(at.keys, key) - at.keys.begin());
        return i != ROW && at.kept[i].since >= notBefore ? &at.kept[i].value : nullptr;
    }

    void put(uint64_t key, const Value &value, Ticks now)
    {
        Row &at = rows_[index(key)];
        auto i = static_cast<size_t>(std::ranges::find(at.keys, key) - at.keys.begin());
        if (i == ROW)
            i = static_cast<size_t>(std::ranges::min_element(at.kept, {}, &Kept::since) - at.kept.begin());
        at.keys[i] = key;
        at.kept[i] = {now, value};
    }

    void clear() { std::ranges::fill(rows_, Row{}); }

  private:
    static constexpr uint32_t ROW = 8;
    struct Kept {
        Ticks since = 0;
        [[no_unique_address]] Value value = {};
    };
    struct alignas(64) Row {                 // a look-up reads one cache line
        std::array<uint64_t, ROW> keys = {}; // 0: free
        std::array<Kept, ROW> kept = {};
    };
    size_t index(uint64_t key) const { return static_cast<size_t>(key) & (rows_.size() - 1); }
    const Row &row(uint64_t key) const { return rows_[index(key)]; }

    std::vector<Row> rows_;
};

} // namespace platform_linux
