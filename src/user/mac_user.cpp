// Clients of a relaying interface that wait for a reply, by MAC address. Entries live 120 seconds and draw on
// the same pool as bindings; nothing about them is logged, enforced or synchronised.
#include "dhcpsnoop_user.h"

#include <cstring>

#include "debug.h"
#include "list.h"
#include "user_index.h"

uint32_t dhcpsnoop_mac_user_hash(const uint8_t mac[6])
{
    uint32_t sum = 0;
    for (uint32_t i = 0; i < 6; i++)
        sum += mac[i];
    return sum % DHCPSNOOP_BUCKETS;
}

DhcpsnoopMacUser *dhcpsnoop_mac_user_add(const DhcpsnoopPktInfo *info)
{
    if (info == nullptr || info->ifp == nullptr || info->chaddr == nullptr)
        return nullptr;
    auto *added = list_take<DhcpsnoopMacUser, DhcpsnoopUser>(&gDhcpsnoop.userFreeList);
    if (added == nullptr) {
        DEBUG_TRACE("[DHCPSNOOP] Can't allocate memory for mac user entry!\r\n");
        return nullptr;
    }
    std::memcpy(added->mac, info->chaddr, sizeof added->mac);
    list_insert_after(&gDhcpsnoop.macUserHash[dhcpsnoop_mac_user_hash(added->mac)], added);
    user_index_add(added);

    const DhcpsnoopClientPlace place = dhcpsnoop_client_place(info);
    added->ifIndex = place.ifIndex;
    added->vid = place.vid;
    added->ageTime = DHCPSNOOP_MAC_USER_AGE;
    added->seenTime = info->rxTime;
    added->serverId = info->serverId;
    return added;
}

DhcpsnoopMacUser *dhcpsnoop_mac_user_lookup(const uint8_t mac[6])
{
    return mac != nullptr ? user_index_find_waiting(mac) : nullptr;
}

void dhcpsnoop_mac_user_delete(DhcpsnoopMacUser *macUser)
{
    if (macUser == nullptr || !list_linked(macUser))
        return;
    user_index_remove(macUser);
    list_unlink(macUser);
    list_insert_after(&gDhcpsnoop.userFreeList, macUser);
}
