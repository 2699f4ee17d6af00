// What the management workers share: the table lock for the length of a scope, values as they arrive, names
// for messages.
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

struct IfText {
    char text[64];
};

inline IfText if_name(uint32_t ifIndex)
{
    IfText name = {};
    qorIfUnit2Name(ifIndex, name.text, sizeof name.text - 1);
    name.text[sizeof name.text - 1] = '\0';
    return name;
}

inline IfText if_description(uint32_t ifIndex)
{
    IfText description = {};
    nmGetIfPartDescr(ifIndex, description.text, sizeof description.text - 1);
    description.text[sizeof description.text - 1] = '\0';
    return description;
}
