#include "unit_table.h"

#include <algorithm>
#include <utility>

namespace platform_linux
{
namespace
{
std::vector<UnitRecord> deletes_of(const std::vector<UnitTable::Held> &gone)
{
    std::vector<UnitRecord> records;
    for (const UnitTable::Held &held : gone) {
        records.push_back(held.record);
        records.back().add = false;
    }
    return records;
}
} // namespace

bool UnitTable::apply(const UnitRecord &record, const UnitPlace &place)
{
    const UnitKey key = unit_key(record);
    if (!record.add)
        return held_.erase(key) != 0;
    auto it = held_.find(key);
    if (it == held_.end()) {
        if (held_.size() >= UNIT_TABLE_MAX)
            return false;
        held_.emplace(key, Held{record, place, copy_});
        return true;
    }
    Held &held = it->second;
    const bool same = held.record == record && held.place.identity == place.identity &&
                      held.place.awaySince == place.awaySince;
    held = {record, place, copy_};
    return !same;
}

template <class Which> std::vector<UnitTable::Held> UnitTable::forget(Which which)
{
    std::vector<Held> gone;
    for (auto it = held_.begin(); it != held_.end();) {
        if (!which(it->second)) {
            ++it;
            continue;
        }
        gone.push_back(it->second);
        it = held_.erase(it);
    }
    return gone;
}

std::vector<UnitRecord> UnitTable::copy_end(bool parkedToo)
{
    return deletes_of(forget([this, parkedToo](const Held &held) {
        return (parkedToo || held.place.at != UnitPlace::At::parked) && held.copy != copy_;
    }));
}

namespace
{
void shift(UnitTable::Held &held, uint32_t by)
{
    if (!held.record.never_ends())
        held.record.leaseStart += by;
    if (held.place.awaySince != 0)
        held.place.awaySince += by;
}
} // namespace

std::vector<UnitRecord> UnitTable::clock_set(int32_t ahead)
{
    std::vector<UnitRecord> known;
    for (auto &[key, held] : held_) {
        if (held.place.earlierClock != 0)
            continue;
        shift(held, static_cast<uint32_t>(ahead));
        if (!held.record.never_ends() && held.place.at != UnitPlace::At::parked)
            known.push_back(held.record);
    }
    return known;
}

void UnitTable::clock_accept(uint32_t behind)
{
    for (auto &[key, held] : held_)
        if (std::exchange(held.place.earlierClock, 0) != 0)
            shift(held, 0 - behind);
}

std::vector<UnitRecord> UnitTable::expire_parked(uint32_t now)
{
    return deletes_of(forget([now](const Held &held) {
        return held.place.at == UnitPlace::At::parked && held.record.expired(now);
    }));
}

std::vector<UnitTable::Held> UnitTable::give_up(uint32_t now, uint32_t away)
{
    return forget([now, away](const Held &held) {
        return held.place.waits() && held.record.type == SYNC_USER && held.record.never_ends() &&
               static_cast<int32_t>(now - held.place.awaySince) >= 0 && now - held.place.awaySince >= away;
    });
}

std::vector<const UnitTable::Held *> UnitTable::waiting(const UnitKey &from, size_t most) const
{
    std::vector<const Held *> found;
    for (const auto &[key, held] : held_)
        if (held.place.waits() && held.record.type == SYNC_USER && key > from)
            found.push_back(&held);
    const auto end = found.begin() + static_cast<ptrdiff_t>(std::min(most, found.size()));
    std::ranges::partial_sort(found, end, {}, [](const Held *held) { return unit_key(held->record); });
    found.erase(end, found.end());
    return found;
}

} // namespace platform_linux
