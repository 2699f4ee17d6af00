#include "unit_table.h"

namespace platform_linux
{

bool UnitTable::apply(const UnitRecord &record, bool parked)
{
    const UnitKey key = unit_key(record);
    if (!record.add)
        return held_.erase(key) != 0;
    auto it = held_.find(key);
    if (it == held_.end()) {
        if (held_.size() >= UNIT_TABLE_MAX)
            return false;
        held_.emplace(key, Held{record, parked, copy_});
        return true;
    }
    it->second.copy = copy_;
    it->second.parked = parked;
    if (it->second.record == record)
        return false;
    it->second.record = record;
    return true;
}

template <class Which> std::vector<UnitRecord> UnitTable::forget(Which which)
{
    std::vector<UnitRecord> gone;
    for (auto it = held_.begin(); it != held_.end();) {
        if (!which(it->second)) {
            ++it;
            continue;
        }
        gone.push_back(it->second.record);
        gone.back().add = false;
        it = held_.erase(it);
    }
    return gone;
}

std::vector<UnitRecord> UnitTable::copy_end(bool parkedToo)
{
    return forget(
        [this, parkedToo](const Held &held) { return (parkedToo || !held.parked) && held.copy != copy_; });
}

std::vector<UnitRecord> UnitTable::expire_parked(uint32_t now)
{
    return forget([now](const Held &held) { return held.parked && held.record.expired(now); });
}

} // namespace platform_linux
