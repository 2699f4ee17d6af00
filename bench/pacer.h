// When frames may go: so many a second, evenly, or as fast as they are forwarded.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

using Clock = std::chrono::steady_clock;

class Pacer
{
  public:
    // Frames a second; 0 = no limit.
    Pacer(uint64_t rate, Clock::time_point start) : rate_(rate), start_(start) {}

    // How many of `wanted` frames may go now. What was missed is made up for.
    uint64_t allow(uint64_t wanted, Clock::time_point now)
    {
        if (rate_ == 0)
            return wanted;
        const std::chrono::duration<double> elapsed = now - start_;
        const auto due = static_cast<uint64_t>(elapsed.count() * static_cast<double>(rate_));
        const uint64_t allowed = std::min(wanted, due > gone_ ? due - gone_ : 0);
        gone_ += allowed;
        return allowed;
    }

  private:
    uint64_t rate_, gone_ = 0;
    Clock::time_point start_;
};
