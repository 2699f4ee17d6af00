// The daemon's changes on their way to the platform's thread. The daemon neither waits nor allocates: the
// thread holds the lock only to exchange two pointers, and a change without room is counted and lost.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <utility>

#include "unit_record.h"

namespace platform_linux
{

struct Change {
    enum class Kind : uint8_t { record, copyBegin, copyEnd }; // a full copy is between the two
    Kind kind;
    UnitRecord record;
    uint32_t ifIndex;  // of the record's port, or that it had
    uint64_t identity; // of the port; 0 = unknown
};

class ChangeQueue
{
  public:
    // Unused memory is never touched, and so takes no room.
    explicit ChangeQueue(size_t capacity)
        : capacity_(capacity), filling_(std::make_unique_for_overwrite<Change[]>(capacity)),
          taken_(std::make_unique_for_overwrite<Change[]>(capacity))
    {
    }

    // True when the other side waits for something to take and must be woken.
    bool push(std::span<const Change> changes)
    {
        const std::scoped_lock lock(mutex_);
        const size_t fit = std::min(changes.size(), capacity_ - used_);
        std::copy_n(changes.begin(), fit, filling_.get() + used_);
        used_ += fit;
        dropped_ += changes.size() - fit;
        const bool wake = waiting_;
        waiting_ = false;
        return wake;
    }

    struct Taken {
        std::span<const Change> changes; // valid until the next call
        uint64_t dropped;                // behind the last of them, since the last call
    };
    // With nothing to take, the next push is to wake the taker.
    Taken take()
    {
        const std::scoped_lock lock(mutex_);
        const Taken taken = {
            {filling_.get(), used_},
            dropped_
        };
        std::swap(filling_, taken_);
        waiting_ = used_ == 0 && dropped_ == 0;
        used_ = 0;
        dropped_ = 0;
        return taken;
    }

  private:
    const size_t capacity_;
    std::mutex mutex_;
    std::unique_ptr<Change[]> filling_, taken_;
    size_t used_ = 0;
    uint64_t dropped_ = 0;
    bool waiting_ = true;
};

} // namespace platform_linux
