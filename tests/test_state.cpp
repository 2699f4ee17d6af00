// The pools and the lists they feed.
#include "daemon_test.h"

namespace
{

struct SmallRecord {
    DhcpsnoopLink head;
    void *pool;
};

struct PoolRow {
    const char *claim;
    uint32_t entrySize, count;
    uint32_t entries, stride; // stride on the build's own word size
};

constexpr uint32_t LINKS = sizeof(DhcpsnoopLink);

TEST(Pool, IsCarvedIntoAFreeList)
{
    const PoolRow rows[] = {
        {"three entries of a record's size", 3 * LINKS, 3, 3, 3 * LINKS},
        {"a count of 0 is one entry", 2 * LINKS, 0, 1, 2 * LINKS},
        {"an entry has room for its links at least", 1, 2, 2, LINKS},
        {"an entry of two links is not enlarged", LINKS, 2, 2, LINKS},
        {"an odd size is rounded up so that the links stay aligned", LINKS + 1, 2, 2, LINKS + alignof(DhcpsnoopLink)},
    };
    for (const PoolRow &row : rows) {
        SCOPED_TRACE(row.claim);
        SmallRecord record = {};
        ASSERT_EQ(dhcpsnoop_memlist_init(&record.head, row.entrySize, row.count), 0);
        ASSERT_NE(record.pool, nullptr);
        // The last entry of the block is the first to be taken.
        const auto *block = static_cast<const uint8_t *>(record.pool);
        uint32_t taken = 0;
        for (const DhcpsnoopLink *entry : list_each<DhcpsnoopLink>(&record.head)) {
            ASSERT_LT(taken, row.entries);
            taken++;
            EXPECT_EQ(reinterpret_cast<const uint8_t *>(entry), block + (row.entries - taken) * row.stride);
        }
        EXPECT_EQ(taken, row.entries);
        free(record.pool);
    }
}

TEST(Pool, WithoutMemoryIsAnEmptyList)
{
    SmallRecord record = {};
    world.failCalloc = 1;
    EXPECT_EQ(dhcpsnoop_memlist_init(&record.head, 64, 4), -1);
    EXPECT_TRUE(record.head.next == &record.head && record.head.prev == &record.head);
    EXPECT_EQ(record.pool, nullptr);
}

} // namespace
