#include "hour_counts.h"

#include <algorithm>
#include <cstring>

namespace platform_linux
{

static constexpr Ticks MINUTE = 60'000;

PlaceName place_name(const char *text)
{
    PlaceName name = {};
    strncpy(name.data(), text[0] != 0 ? text : REFUSAL_NO_PLACE, name.size() - 1);
    return name;
}

void HourCounts::Place::add(Minute minute)
{
    Minute &at = minutes[static_cast<size_t>(minute.number % HOUR)];
    if (at.number < minute.number)
        at = {minute.number, 0};
    at.count += at.number == minute.number ? minute.count : 0;
    total += minute.count;
    latest = std::max(latest, minute.number);
}

uint32_t HourCounts::Place::hour(int64_t now) const
{
    uint32_t sum = 0;
    for (const Minute &minute : minutes)
        sum += now - minute.number < HOUR ? minute.count : 0;
    return sum;
}

// Those that have no room of their own.
void HourCounts::merge(const Place &place)
{
    Place &into = others_[place.reason];
    into.name = place_name(REFUSAL_ELSEWHERE);
    into.reason = place.reason;
    const uint64_t total = into.total + place.total;
    for (const Minute &minute : place.minutes)
        into.add(minute);
    into.total = total;
}

HourCounts::Place &HourCounts::place_of(size_t reason, const PlaceName &name)
{
    Place *oldest = places_.data(); // or free
    for (Place &place : places_) {
        if (place.total != 0 && place.reason == reason && place.name == name)
            return place;
        if (place.latest < oldest->latest)
            oldest = &place;
    }
    if (oldest->total != 0)
        merge(*oldest);
    *oldest = {name, reason, 0, 0, {}};
    return *oldest;
}

void HourCounts::add(size_t reason, const PlaceName &name, Ticks now, uint32_t number)
{
    place_of(reason, name).add({now / MINUTE, number});
}

std::vector<HourCounts::Count> HourCounts::all(Ticks now) const
{
    std::vector<Count> found;
    for (size_t reason = 0; reason < others_.size(); reason++) {
        const auto add = [&](const Place &place) {
            if (place.total != 0 && place.reason == reason)
                found.push_back({reason, place.name.data(), place.total, place.hour(now / MINUTE)});
        };
        std::ranges::for_each(places_, add);
        add(others_[reason]);
    }
    return found;
}

} // namespace platform_linux
