// All that the daemon's tables hold, as the platform's thread knows it from the records that passed: what the
// journal is written anew from, and what tells after a full copy which records have gone.
#pragma once

#include <string_view>
#include <unordered_map>
#include <vector>

#include "unit_record.h"

namespace platform_linux
{

struct UnitKeyHash {
    size_t operator()(const UnitKey &key) const
    {
        return std::hash<std::string_view>{}({reinterpret_cast<const char *>(key.data()), key.size()});
    }
};

// The largest tables that the daemon can have, its full copy, and then some.
constexpr size_t UNIT_TABLE_MAX = 1 << 17;

class UnitTable
{
  public:
    struct Held {
        UnitRecord record;
        bool parked = false; // its port is not there: the daemon does not know of it yet
        uint32_t copy = 0;   // the last full copy that had it
    };

    // Takes a record in. False when it changes nothing that is held, or there is no room.
    bool apply(const UnitRecord &record, bool parked = false);

    // Around a full copy that is applied in between: copy_end gives a delete record for each that it had not,
    // and forgets them. Parked ones only if asked to: the daemon's own copy cannot have them.
    void copy_begin() { copy_++; }
    std::vector<UnitRecord> copy_end(bool parkedToo = false);

    // A delete record for each parked binding whose lease has ended; forgets them.
    std::vector<UnitRecord> expire_parked(uint32_t now);

    std::unordered_map<UnitKey, Held, UnitKeyHash> &held() { return held_; }
    const std::unordered_map<UnitKey, Held, UnitKeyHash> &held() const { return held_; }

  private:
    template <class Which> std::vector<UnitRecord> forget(Which which);

    std::unordered_map<UnitKey, Held, UnitKeyHash> held_;
    uint32_t copy_ = 0;
};

} // namespace platform_linux
