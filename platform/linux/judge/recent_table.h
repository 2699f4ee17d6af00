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
        for (const Entry &entry : row(key))
            if (entry.key == key)
                return entry.since >= notBefore ? &entry.value : nullptr;
        return nullptr;
    }

    void put(uint64_t key, const Value &value, Ticks now)
    {
        Row &at = rows_[index(key)];
        auto entry = std::ranges::find(at, key, &Entry::key);
        if (entry == at.end())
            entry = std::ranges::min_element(at, {}, &Entry::since);
        *entry = {key, now, value};
    }

    void clear() { std::ranges::fill(rows_, Row{}); }

  private:
    static constexpr uint32_t ROW = 8;
    struct Entry {
        uint64_t key = 0; // 0: free
        Ticks since = 0;
        Value value = {};
    };
    using Row = std::array<Entry, ROW>;
    size_t index(uint64_t key) const { return static_cast<size_t>(key) & (rows_.size() - 1); }
    const Row &row(uint64_t key) const { return rows_[index(key)]; }

    std::vector<Row> rows_;
};

} // namespace platform_linux
