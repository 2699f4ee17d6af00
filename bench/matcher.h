// Which sent frame a received one is, and which are still on their way. Each frame carries a number
// (messages.h).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "pacer.h"

class Matcher
{
  public:
    // At most `window` frames on their way; `patience` after it was sent, a frame is lost.
    Matcher(uint32_t window, Clock::duration patience) : slots_(window), patience_(patience) {}

    uint64_t room() const { return slots_.size() - (next_ - first_); }
    uint64_t on_their_way() const { return open_; }
    uint64_t lost() const { return lost_; }
    uint64_t unknown() const { return unknown_; } // frames that came twice, late, or from somewhere else

    // The number of a frame that goes now. There must be room.
    uint32_t sent(Clock::time_point now)
    {
        slots_[next_ % slots_.size()] = {now, true};
        open_++;
        return static_cast<uint32_t>(next_++);
    }

    // How long the frame of that number took; none when it was not waited for.
    std::optional<Clock::duration> received(uint32_t number, Clock::time_point now)
    {
        const uint64_t index = next_ - static_cast<uint32_t>(static_cast<uint32_t>(next_) - number);
        if (index >= next_ || index < first_ || !slots_[index % slots_.size()].waiting) {
            unknown_++;
            return std::nullopt;
        }
        Slot &slot = slots_[index % slots_.size()];
        slot.waiting = false;
        open_--;
        advance(now);
        return now - slot.sent;
    }

    // Gives up the frames that are overdue.
    void advance(Clock::time_point now)
    {
        for (; first_ < next_; first_++) {
            Slot &slot = slots_[first_ % slots_.size()];
            if (slot.waiting && now - slot.sent < patience_)
                return;
            if (slot.waiting) {
                slot.waiting = false;
                open_--;
                lost_++;
            }
        }
    }

  private:
    struct Slot {
        Clock::time_point sent;
        bool waiting = false;
    };
    std::vector<Slot> slots_;
    Clock::duration patience_;
    uint64_t first_ = 0, next_ = 0; // frames before `first_` are done with
    uint64_t open_ = 0, lost_ = 0, unknown_ = 0;
};
