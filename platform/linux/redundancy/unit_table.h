// The content of the daemon's tables, from the records that passed. A journal is written anew from it, and
// after a full copy it gives the records that have gone.
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

// More than the daemon's largest tables.
constexpr size_t UNIT_TABLE_MAX = 1 << 17;

class UnitTable
{
  public:
    struct Held {
        UnitRecord record;
        bool parked = false; // its port is missing, and the daemon does not have it yet
        uint32_t copy = 0;   // number of the last full copy with it
    };

    // Takes a record in. False when nothing changes, or there is no room.
    bool apply(const UnitRecord &record, bool parked = false);

    // Around the records of a full copy: copy_end forgets each record that the copy did not have, and gives a
    // delete record for it. Parked records only with `parkedToo`: the daemon's own copy never has them.
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
