// Settings of a VLAN are those of its VLAN interface: the VLAN id is translated into that interface's index
// and the interface's attribute set or read. Nothing is stored here.
#include "nm_common.h"

#include "debug.h"
#include "list.h"
#include "protocol.h"

static bool snooped_vlan(const DhcpsnoopIf *ifp) { return if_in_use(ifp) && ifp->isVlanIf == 1; }

// The first VLAN, in the order of the interface list, whose id is at least `least`.
// Kept: that order is the interface indexes', not the VLAN ids'.
static int32_t vlan_find(uint64_t least, uint32_t *out)
{
    if (out == nullptr)
        return -1;
    const TableLock lock;
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        const uint32_t vid = dhcpsnoop_flag_get(ifp->flags, DHCPSNOOP_IF_VID);
        if (!snooped_vlan(ifp) || vid < least)
            continue;
        *out = vid;
        return 0;
    }
    return -1;
}

int32_t dhcpSnoopVlanGetFirst(uint32_t *out) { return vlan_find(0, out); }

int32_t dhcpSnoopVlanGetNext(uint32_t from, uint32_t *out) { return vlan_find(uint64_t{from} + 1, out); }

// The interface's attribute for the VLAN's; 0, which no interface attribute has, for none.
static uint32_t interface_cmd(uint32_t vlanCmd)
{
    switch (vlanCmd) {
    case VLAN_MAX_USER:
        return IF_MAX_USER;
    case VLAN_ENABLE:
        return IF_ENABLE;
    default:
        return 0;
    }
}

// The index of the VLAN's interface, or why there is none.
static int32_t vlan_interface(uint32_t vid, bool set, uint32_t *ifIndex)
{
    if (vid < VLAN_ID_MIN || vid > VLAN_ID_MAX) {
        DEBUG_EVENT(set ? "[DHCPSNOOP] dhcpsnoop vlan setapi: vid is invalid!\r\n"
                        : "[DHCPSNOOP] dhcpsnoop vlan getapi: vid is invalid!\r\n");
        return NM_INVALID;
    }
    const uint32_t request[QOR_LOCATION_WORDS] = {1, 1, 1, 1, vid, QOR_UNIT_VLAN_INTERFACE, 0};
    if (qorIndexTrans(request, QOR_TRANS_INDEX, ifIndex) == 0)
        return NM_OK;
    DEBUG_EVENT(set ? "[DHCPSNOOP] dhcpsnoop vlan setapi: get unit of the vlan failed!\r\n"
                    : "[DHCPSNOOP] dhcpsnoop vlan getapi: get unit of the vlan failed!\r\n");
    return -1;
}

int32_t dhcpSnoopVlanSetApi(uint32_t vid, uint32_t cmd, void *data)
{
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop vlan setapi: vid %d, cmd %d.\r\n", vid, cmd);
    uint32_t ifIndex = 0;
    const int32_t rc = vlan_interface(vid, true, &ifIndex);
    if (rc != NM_OK)
        return rc;
    const uint32_t ifCmd = interface_cmd(cmd);
    return ifCmd != 0 ? dhcpSnoopIfSetApi(ifIndex, ifCmd, data) : NM_BAD_COMMAND;
}

int32_t dhcpSnoopVlanGetApi(uint32_t vid, uint32_t cmd, void *data)
{
    DEBUG_EVENT("dhcpsnoop vlan getapi: vid = %d, cmd = %d.\r\n", vid, cmd);
    uint32_t ifIndex = 0;
    const int32_t rc = vlan_interface(vid, false, &ifIndex);
    if (rc != NM_OK)
        return rc;
    const uint32_t ifCmd = interface_cmd(cmd);
    return ifCmd != 0 ? dhcpSnoopIfGetApi(ifIndex, ifCmd, data) : NM_BAD_COMMAND;
}
