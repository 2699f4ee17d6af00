// Shared by the management workers: the table lock for the length of a scope, and values as they arrive.
#pragma once

#include "dhcpsnoop_nm.h"
#include "dhcpsnoop_state.h"

// Held for a whole walk or change, platform calls included.
class TableLock
{
  public:
    TableLock() { dhcpsnoop_lock(); }
    ~TableLock() { dhcpsnoop_unlock(); }
    TableLock(const TableLock &) = delete;
    TableLock &operator=(const TableLock &) = delete;
};

// Null when there is no such value.
inline const uint32_t *value_number(const void *value) { return static_cast<const uint32_t *>(value); }

inline QorBuffer *value_bytes(void *value)
{
    auto *bytes = static_cast<QorBuffer *>(value);
    return bytes != nullptr && (bytes->data != nullptr || bytes->length == 0) ? bytes : nullptr;
}

inline int32_t value_put(void *value, uint32_t number)
{
    if (value == nullptr)
        return NM_BAD_COMMAND;
    *static_cast<uint32_t *>(value) = number;
    return NM_OK;
}

inline bool if_in_use(const DhcpsnoopIf *ifp) { return (ifp->flags & DHCPSNOOP_IF_IN_USE) != 0; }
