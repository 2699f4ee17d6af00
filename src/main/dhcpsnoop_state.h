// The pools of entries, and the place of the lock.
#pragma once

#include "dhcpsnoop.h"

// Makes `head` a free list of `count` zeroed entries (at least one) and stores their block in the pool
// pointer that follows the head in DhcpsnoopGlobal. -1 with an empty list when memory is exhausted.
int32_t dhcpsnoop_memlist_init(DhcpsnoopLink *head, uint32_t entrySize, uint32_t count);

// The place of a lock on semId, should a second thread ever come. Both do nothing.
void dhcpsnoop_lock(void);
void dhcpsnoop_unlock(void);
