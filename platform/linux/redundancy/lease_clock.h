// The clock that the daemon's leases go by: its wall clock, until that is set. The daemon then has a start of
// each lease that means another time, until it gets them all anew.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "clock.h"

namespace platform_linux
{

// In seconds.
struct Moment {
    uint32_t wall;
    uint32_t sinceBoot;
    uint32_t boot; // of which start of the machine; 0 = unknown
};

class LeaseClock
{
  public:
    LeaseClock() : boot_(boot_number()) { follow(clock_reading()); }

    // The time by this clock, whatever the wall clock was set to since.
    Moment now(const ClockReading &reading = clock_reading()) const
    {
        return {static_cast<uint32_t>((reading.sinceBoot + offset_) / 1000),
                static_cast<uint32_t>(reading.sinceBoot / 1000), boot_};
    }

    // How many seconds the wall clock was set ahead since; 0 for less than 2, as a leap second is.
    int32_t set_ahead(const ClockReading &reading = clock_reading()) const
    {
        const int64_t ahead = reading.wall - reading.sinceBoot - offset_;
        return std::abs(ahead) < 2000 ? 0 : static_cast<int32_t>(ahead / 1000);
    }

    void follow(const ClockReading &reading) { offset_ = reading.wall - reading.sinceBoot; }

  private:
    std::atomic<int64_t> offset_; // of the wall clock to the other, in milliseconds
    const uint32_t boot_;
};

} // namespace platform_linux
