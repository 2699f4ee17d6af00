// Refusals by reason and place: in all, and in the last hour by whole minutes. The places that were refused
// last are told apart. The owner locks.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <net/if.h>
#include <string>
#include <vector>

#include "clock.h"

namespace platform_linux
{

constexpr size_t REFUSAL_PLACES = 64;               // those refused last
constexpr const char *REFUSAL_NO_PLACE = "-";       // of none in particular
constexpr const char *REFUSAL_ELSEWHERE = "others"; // places beyond REFUSAL_PLACES

using PlaceName = std::array<char, IFNAMSIZ>;
PlaceName place_name(const char *text); // REFUSAL_NO_PLACE for an empty one

class HourCounts
{
  public:
    explicit HourCounts(size_t reasons) : others_(reasons) {}

    // Allocates nothing.
    void add(size_t reason, const PlaceName &name, Ticks now, uint32_t number);

    struct Count {
        size_t reason;
        std::string place;
        uint64_t total;
        uint32_t lastHour; // up to now, by whole minutes
    };
    // Each reason and place with a refusal, by reason.
    std::vector<Count> all(Ticks now) const;

  private:
    static constexpr int64_t HOUR = 60; // minutes

    // Refusals of one minute, counted from the machine's start.
    struct Minute {
        int64_t number;
        uint32_t count;
    };
    struct Place {
        PlaceName name;
        size_t reason;
        uint64_t total; // 0: free
        int64_t latest; // minute
        std::array<Minute, HOUR> minutes;

        void add(Minute minute);
        uint32_t hour(int64_t now) const;
    };
    void merge(const Place &place);
    Place &place_of(size_t reason, const PlaceName &name);

    std::array<Place, REFUSAL_PLACES> places_ = {};
    std::vector<Place> others_; // by reason
};

} // namespace platform_linux
