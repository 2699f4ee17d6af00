// The transactions of clients that wait for a server, found by their identity. When the table is full, the
// oldest gives way of the ports that share most of it: a port that floods loses its own.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "clock.h"
#include "host.h"

namespace platform_linux
{

// A cache line.
struct alignas(64) Transaction {
    uint64_t id;       // of family, transaction id and client
    uint64_t clientId; // DUID, or client identifier (option 61); 0 = none
    Ticks seen;
    Host host;
    uint32_t interface;           // that the message is attributed to
    uint32_t serverId, vendorTag; // of its latest message, as a binding keeps them
    uint32_t type;                // of its latest message
    bool ipv6, trusted, rapid;    // it came in on a trusted port; with rapid commit
};

class Transactions
{
  public:
    explicit Transactions(uint32_t count);

    Transaction *find(uint64_t id);
    // As the newest, in place of the earlier one of that identity.
    void put(const Transaction &transaction);
    void clear();

  private:
    static constexpr uint32_t NONE = UINT32_MAX;
    static constexpr uint32_t GROUPS = 64, CHAIN_MAX = 64;
    static constexpr uint32_t EVICTED_PER_LOOK = 8; // of a group that was the fullest
    struct Links {                                  // nodes; neighbours are touched oftener than transactions
        uint32_t chain, older, newer;
    };
    struct Group {
        uint32_t oldest = NONE, newest = NONE, count = 0;
    };

    uint32_t &bucket(uint64_t id) { return buckets_[static_cast<size_t>(id) & (buckets_.size() - 1)]; }
    uint32_t find_node(uint64_t id);
    uint32_t take_free();
    void remove(uint32_t node);

    std::vector<Transaction> nodes_;
    std::vector<Links> links_;
    std::vector<uint32_t> buckets_;
    std::array<Group, GROUPS> groups_; // by port
    uint32_t free_;                    // chained
    size_t fullest_ = 0;
    uint32_t evicted_ = 0;
};

} // namespace platform_linux
