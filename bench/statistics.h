// What came of a run: how many frames, in what time, and how long they took.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

#include "pacer.h"

class Statistics
{
  public:
    void forwarded(Clock::duration took)
    {
        forwarded_++;
        const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(took).count();
        histogram_[std::min<size_t>(static_cast<size_t>(std::max<int64_t>(micros, 0)),
                                    histogram_.size() - 1)]++;
    }
    void worked(Clock::duration time) { worked_ += time; }

    uint64_t forwarded() const { return forwarded_; }
    double seconds() const { return std::chrono::duration<double>(worked_).count(); }
    // Microseconds that so many of a hundred frames took at most; the largest that is told apart is 100 ms.
    size_t percentile(double percent) const
    {
        uint64_t seen = 0;
        for (size_t i = 0; i < histogram_.size(); i++) {
            seen += histogram_[i];
            if (static_cast<double>(seen) >= static_cast<double>(forwarded_) * percent / 100)
                return i;
        }
        return histogram_.size() - 1;
    }

  private:
    Clock::duration worked_{};
    uint64_t forwarded_ = 0;
    std::vector<uint64_t> histogram_ = std::vector<uint64_t>(100'001);
};
