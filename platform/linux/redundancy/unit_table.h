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

// Where a binding or server is.
struct UnitPlace {
    enum class At : uint8_t {
        port,    // the daemon has it, at its port
        deadEnd, // the daemon has it, at the index of a port that has gone
        parked,  // the port is missing, and the daemon does not have it
    };
    At at = At::port;
    uint32_t ifIndex = 0;   // the daemon's for its port, of the last time that it had it; 0 = none
    uint64_t identity = 0;  // of its port: it comes back only on the same one; 0 = unknown, so on any
    uint32_t awaySince = 0; // by the wall clock; 0 = its port is there
    // The lease's start is by the clock of an earlier start of the machine, which read this; 0 = it is not.
    uint32_t earlierClock = 0;

    bool waits() const { return at != At::port; } // for its port
};

// More than the daemon's largest tables.
constexpr size_t UNIT_TABLE_MAX = 1 << 17;

class UnitTable
{
  public:
    struct Held {
        UnitRecord record;
        UnitPlace place;
        uint32_t copy = 0; // number of the last full copy with it
    };

    // Takes a record in. False when nothing changes that the journal has, or there is no room.
    bool apply(const UnitRecord &record, const UnitPlace &place = {});

    // Around the records of a full copy: copy_end forgets each record that the copy did not have, and gives a
    // delete record for it. Parked records only with `parkedToo`: the daemon's own copy never has them.
    void copy_begin() { copy_++; }
    std::vector<UnitRecord> copy_end(bool parkedToo = false);

    // The wall clock was set ahead, or back: the leases that go by it get another start and keep their age.
    // Gives those that the daemon has.
    std::vector<UnitRecord> clock_set(int32_t ahead);

    // The clock of earlier starts of the machine is taken for the present one, which is so much behind it.
    void clock_accept(uint32_t behind);

    // A delete record for each parked binding whose lease has ended; forgets them.
    std::vector<UnitRecord> expire_parked(uint32_t now);

    // The bindings that never end and whose port has been away for so long; forgets them.
    std::vector<Held> give_up(uint32_t now, uint32_t away);

    // At most `most` waiting bindings in the order of their keys, behind `from`.
    std::vector<const Held *> waiting(const UnitKey &from, size_t most) const;

    std::unordered_map<UnitKey, Held, UnitKeyHash> &held() { return held_; }
    const std::unordered_map<UnitKey, Held, UnitKeyHash> &held() const { return held_; }
    Held *find(const UnitRecord &record)
    {
        const auto it = held_.find(unit_key(record));
        return it != held_.end() ? &it->second : nullptr;
    }

  private:
    template <class Which> std::vector<Held> forget(Which which);

    std::unordered_map<UnitKey, Held, UnitKeyHash> held_;
    uint32_t copy_ = 0;
};

} // namespace platform_linux
