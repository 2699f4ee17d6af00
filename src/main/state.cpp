// The global state record, the pools its tables draw from, and the place of the lock.
// All memory of the daemon is allocated here, once, at start-up.
#include "dhcpsnoop_state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "list.h"

DhcpsnoopGlobal gDhcpsnoop;

// The block's address goes behind the head it was carved for.
static_assert(offsetof(DhcpsnoopGlobal, ifPool) ==
              offsetof(DhcpsnoopGlobal, ifFreeList) + sizeof(DhcpsnoopLink));
static_assert(offsetof(DhcpsnoopGlobal, userPool) ==
              offsetof(DhcpsnoopGlobal, userFreeList) + sizeof(DhcpsnoopLink));
static_assert(offsetof(DhcpsnoopGlobal, serverPool) ==
              offsetof(DhcpsnoopGlobal, serverFreeList) + sizeof(DhcpsnoopLink));

int32_t dhcpsnoop_memlist_init(DhcpsnoopLink *head, uint32_t entrySize, uint32_t count)
{
    list_init(head);

    constexpr size_t smallest = std::max(size_t{8}, sizeof(DhcpsnoopLink));
    constexpr size_t alignment = alignof(DhcpsnoopLink);
    const size_t stride = (std::max(size_t{entrySize}, smallest) + alignment - 1) / alignment * alignment;
    if (count == 0)
        count = 1;

    auto *block = static_cast<uint8_t *>(std::calloc(count, stride));
    if (block == nullptr)
        return -1;
    std::memcpy(head + 1, &block, sizeof block);

    for (uint32_t i = 0; i < count; i++)
        list_insert_after(head, ::new (static_cast<void *>(block + i * stride)) DhcpsnoopLink{});
    return 0;
}

// The daemon has one thread. A lock on semId belongs in these two if it ever has more.
void dhcpsnoop_lock(void) {}

void dhcpsnoop_unlock(void) {}
