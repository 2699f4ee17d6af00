// All bindings of an interface or an aggregate at once: installed in hardware, withdrawn or deleted.
#include "dhcpsnoop_user.h"

#include "debug.h"
#include "list.h"

static constexpr uint32_t OPERATE_INSTALL = 1, OPERATE_DELETE = 2;

// No interface means every binding.
static bool on_interface(const DhcpsnoopUser *user, const DhcpsnoopIf *ifp)
{
    if (ifp == nullptr)
        return true;
    if (ifp->isVlanIf == 1)
        return user->vid == dhcpsnoop_flag_get(ifp->flags, DHCPSNOOP_IF_VID);
    return user->ifIndex == ifp->ifIndex;
}

void dhcpsnoop_user_process_on_interface(DhcpsnoopIf *ifp, uint32_t ipTypes, uint32_t userTypes,
                                         uint32_t operate)
{
    DEBUG_EVENT("[DHCPSNOOP] Process user on interface %d, inet type %d, user type = %d, operate %d.\r\n",
                ifp != nullptr ? ifp->ifIndex : 0, ipTypes, userTypes, operate);
    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (!on_interface(user, ifp) || (ipTypes & user->key.ipType) == 0 ||
            (userTypes & user->userType) == 0)
            continue;
        dhcpsnoop_user_update_hw(user, operate & OPERATE_INSTALL);
        if ((operate & OPERATE_DELETE) != 0)
            dhcpsnoop_user_delete(user);
    }
}

void dhcpsnoop_user_process_on_trunk(uint32_t trunkIfIndex, uint32_t portIfIndex, uint32_t operate)
{
    DEBUG_EVENT("[DHCPSNOOP] Process user on trunk interface %d, port %d, operate %d.\r\n", trunkIfIndex,
                portIfIndex, operate);
    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (trunkIfIndex != 0 && user->ifIndex != trunkIfIndex)
            continue;
        // Kept: a copy, so that the entry's own flags go on describing the trunk. What the trunk has
        // installed is not installed again for a member that joins, and is withdrawn for one that leaves.
        DhcpsnoopUser member = *user;
        member.ifIndex = portIfIndex;
        dhcpsnoop_user_update_hw(&member, operate & OPERATE_INSTALL);
        if ((operate & OPERATE_DELETE) != 0)
            dhcpsnoop_user_delete(user);
    }
}
