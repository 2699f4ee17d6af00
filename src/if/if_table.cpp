// The table of interfaces with snooping switched on, ascending by interface index.
#include "dhcpsnoop_if_table.h"

#include "debug.h"
#include "list.h"

uint32_t gIfChanges;

DhcpsnoopIf *dhcpsnoop_if_lookup(uint32_t ifIndex)
{
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        if (ifp->ifIndex == ifIndex)
            return ifp;
    }
    return nullptr;
}

DhcpsnoopIf *dhcpsnoop_if_lookup_by_vid(uint32_t vid)
{
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        if (ifp->isVlanIf == 1 && dhcpsnoop_flag_get(ifp->flags, DHCPSNOOP_IF_VID) == (vid & 0xFFFF))
            return ifp;
    }
    return nullptr;
}

DhcpsnoopIf *dhcpsnoop_if_add(uint32_t ifIndex)
{
    DhcpsnoopIf *added = list_take<DhcpsnoopIf>(&gDhcpsnoop.ifFreeList);
    if (added == nullptr) {
        DEBUG_TRACE("[DHCPSNOOP] Failed to allocate memory for interface %ld.\r\n",
                    static_cast<long>(ifIndex));
        return nullptr;
    }
    gIfChanges++;
    added->ifIndex = ifIndex;

    DhcpsnoopLink *after = &gDhcpsnoop.ifList;
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        if (ifp->ifIndex > ifIndex)
            break;
        after = ifp;
    }
    list_insert_after(after, added);
    return added;
}

void dhcpsnoop_if_delete(DhcpsnoopIf *ifp)
{
    if (ifp == nullptr || !list_linked(ifp))
        return;
    gIfChanges++;
    list_unlink(ifp);
    list_insert_after(&gDhcpsnoop.ifFreeList, ifp);
}
