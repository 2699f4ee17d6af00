// Snooping switched on, off or over to another IP version on an interface: its entry, its traps in hardware
// and the bindings of its clients.
#include "dhcpsnoop_if.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "debug.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_user.h"
#include "management.h"

// Operations of dhcpsnoop_user_process_on_interface.
static constexpr uint32_t WITHDRAW = 0, INSTALL = 1, WITHDRAW_AND_DELETE = 2;

static int32_t trap(uint32_t ifIndex, uint32_t command, uint32_t protocol)
{
    return qorIfSetApi(ifIndex, command, &protocol);
}

static int32_t traps_add(uint32_t ifIndex, uint32_t version)
{
    if ((version & DHCPSNOOP_IPV4) != 0) {
        const int32_t result = trap(ifIndex, QOR_IF_TRAP_ADD, QOR_TRAP_DHCP);
        if (result != 0) {
            DEBUG_EVENT("[DHCPSNOOP] Add dhcp acl failed!\r\n");
            return result;
        }
    }
    if ((version & DHCPSNOOP_IPV6) != 0) {
        const int32_t result = trap(ifIndex, QOR_IF_TRAP_ADD, QOR_TRAP_DHCPV6);
        if (result != 0)
            DEBUG_EVENT("[DHCPSNOOP] Add dhcpv6 acl failed!\r\n");
        return result;
    }
    return 0;
}

static int32_t traps_delete(uint32_t ifIndex, uint32_t version)
{
    int32_t result = 0;
    if ((version & DHCPSNOOP_IPV4) != 0) {
        result = trap(ifIndex, QOR_IF_TRAP_DELETE, QOR_TRAP_DHCP);
        if (result != 0)
            DEBUG_EVENT("[DHCPSNOOP] Delete dhcp acl failed!\r\n");
    }
    // Kept: with IPv6 the result is that of DHCPv6 alone; a DHCP failure before it is forgotten.
    if ((version & DHCPSNOOP_IPV6) != 0) {
        result = trap(ifIndex, QOR_IF_TRAP_DELETE, QOR_TRAP_DHCPV6);
        if (result != 0)
            DEBUG_EVENT("[DHCPSNOOP] Delete dhcpv6 acl failed!\r\n");
    }
    if (result != 0)
        DEBUG_EVENT("[DHCPSNOOP] Notify interface state to hwapi failed!\r\n");
    return result;
}

int32_t dhcpsnoop_if_state_notify(uint32_t ifIndex, uint32_t version, uint32_t state)
{
    DEBUG_EVENT("[DHCPSNOOP] Notify interface state to hwapi: unit %d, verion %d, state %d.\r\n", ifIndex,
                version, state);
    return state == 1 ? traps_add(ifIndex, version) : traps_delete(ifIndex, version);
}

// A word the platform does not answer reads as 0.
static uint32_t attribute_word(uint32_t ifIndex, uint32_t attribute)
{
    uint32_t word = 0;
    return qorIfGetApi(ifIndex, attribute, &word) == 0 ? word : 0;
}

static void properties_fetch(DhcpsnoopIf *ifp)
{
    uint8_t mac[sizeof ifp->mac] = {};
    QorBuffer macBuffer = {mac, sizeof mac};
    if (qorIfGetApi(ifp->ifIndex, QOR_IF_MAC, &macBuffer) == 0)
        std::memcpy(ifp->mac, mac, sizeof ifp->mac);

    const uint32_t mode = attribute_word(ifp->ifIndex, QOR_IF_WORK_MODE);
    if ((mode & 1) != 0)
        ifp->flags |= DHCPSNOOP_IF_ROUTER;
    DEBUG_TRACE("[DHCPSNOOP] Dhcpsnoop interface work mode %s.\r\n", mode != 0 ? "router" : "bridge");

    ifp->isVlanIf = attribute_word(ifp->ifIndex, QOR_IF_IS_VLAN) != 0 ? 1 : 0;
    if (ifp->isVlanIf != 0) {
        const uint32_t vid = attribute_word(ifp->ifIndex, QOR_IF_VLAN);
        ifp->flags = dhcpsnoop_flag_set(ifp->flags, DHCPSNOOP_IF_VID, vid);
    }
}

uint32_t dhcpsnoop_if_enable(uint32_t ifIndex)
{
    DhcpsnoopIf *ifp = dhcpsnoop_if_add(ifIndex);
    if (ifp == nullptr)
        return NM_NO_MEMORY;
    const int32_t trapped = dhcpsnoop_if_state_notify(ifIndex, DHCPSNOOP_IPV4, 1);
    if (trapped != 0) {
        dhcpsnoop_if_disable(ifp);
        return static_cast<uint32_t>(trapped);
    }

    ifp->flags |= DHCPSNOOP_IF_IN_USE;
    ifp->flags = dhcpsnoop_flag_set(ifp->flags, DHCPSNOOP_IF_VERSION, DHCPSNOOP_IPV4);
    ifp->flags = dhcpsnoop_flag_set(ifp->flags, DHCPSNOOP_IF_POLICY, DHCPSNOOP_POLICY_DEFAULT);
    ifp->setting21 = DHCPSNOOP_SETTING21_DEFAULT;
    ifp->maxUser = DHCPSNOOP_MAX_USER_DEFAULT;
    properties_fetch(ifp);

    dhcpsnoop_user_process_on_interface(ifp, DHCPSNOOP_IPV4, DHCPSNOOP_USER_STATIC, INSTALL);
    return 0;
}

static void bindings_withdraw(DhcpsnoopIf *ifp, uint32_t version)
{
    dhcpsnoop_user_process_on_interface(ifp, version, DHCPSNOOP_USER_DYNAMIC, WITHDRAW_AND_DELETE);
    dhcpsnoop_user_process_on_interface(ifp, version, DHCPSNOOP_USER_STATIC, WITHDRAW);
}

uint32_t dhcpsnoop_if_disable(DhcpsnoopIf *ifp)
{
    if (ifp == nullptr)
        return 0;
    const uint32_t version = dhcpsnoop_flag_get(ifp->flags, DHCPSNOOP_IF_VERSION);
    dhcpsnoop_if_state_notify(ifp->ifIndex, version, 0);
    bindings_withdraw(ifp, version);
    dhcpsnoop_if_delete(ifp);
    return 0;
}

uint32_t dhcpsnoop_if_version_set(DhcpsnoopIf *ifp, uint32_t version)
{
    const uint32_t before = dhcpsnoop_flag_get(ifp->flags, DHCPSNOOP_IF_VERSION);
    for (uint32_t bit : {DHCPSNOOP_IPV4, DHCPSNOOP_IPV6}) {
        if (((version ^ before) & bit) == 0)
            continue;
        const bool added = (version & bit) != 0;
        if (added)
            dhcpsnoop_user_process_on_interface(ifp, bit, DHCPSNOOP_USER_STATIC, INSTALL);
        else
            bindings_withdraw(ifp, bit);
        dhcpsnoop_if_state_notify(ifp->ifIndex, bit, added ? 1 : 0);
    }
    ifp->flags = dhcpsnoop_flag_set(ifp->flags, DHCPSNOOP_IF_VERSION, version);

    // Kept: the interface comes out untrusted even when the version did not change.
    if ((ifp->flags & DHCPSNOOP_IF_TRUSTED) != 0)
        std::printf("Interface trust state is changed!\n\r");
    ifp->flags &= ~DHCPSNOOP_IF_TRUSTED;
    return 0;
}
