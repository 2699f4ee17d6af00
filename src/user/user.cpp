// The binding table, keyed by IP address. A client's request makes a provisional dynamic entry, a server's
// acknowledgement binds it; static entries are management's and no frame changes them. Nothing is allocated:
// entries come from the shared pool.
#include "dhcpsnoop_user.h"

#include <arpa/inet.h>
#include <cstring>

#include "debug.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_state.h"
#include "dhcpsnoop_sync.h"
#include "list.h"
#include "user_index.h"
#include "wire.h"

static uint32_t address_length(uint8_t ipType) { return ipType == DHCPSNOOP_IPV4 ? 4 : 16; }

DhcpsnoopUserKey dhcpsnoop_user_key(uint8_t ipType, const uint8_t *address)
{
    DhcpsnoopUserKey key = {};
    key.ipType = ipType;
    std::memcpy(key.ipAddr, address, address_length(ipType));
    return key;
}

uint32_t dhcpsnoop_user_hash_key(const DhcpsnoopUserKey *key)
{
    uint32_t sum = 0;
    for (uint32_t i = 0; i < address_length(key->ipType); i++)
        sum += key->ipAddr[i];
    return sum % DHCPSNOOP_BUCKETS;
}

DhcpsnoopUser *dhcpsnoop_user_lookup(const DhcpsnoopUserKey *key)
{
    return key != nullptr ? user_index_find(key) : nullptr;
}

static bool is_dynamic_of(const DhcpsnoopUser *user, const uint8_t *mac)
{
    return user->userType == DHCPSNOOP_USER_DYNAMIC && std::memcmp(user->mac, mac, sizeof user->mac) == 0;
}

// Where several have that MAC address, a walk along all chains would find the first of the lowest chain.
DhcpsnoopUser *dhcpsnoop_user_lookup_dynamic(const uint8_t mac[6])
{
    DhcpsnoopUser *found = nullptr;
    uint32_t lowest = DHCPSNOOP_BUCKETS, inLowest = 0;
    DhcpsnoopUser *first = mac != nullptr ? user_index_mac_first(mac) : nullptr;
    for (DhcpsnoopUser *user = first; user != nullptr; user = user_index_mac_next(user, first)) {
        const uint32_t bucket = dhcpsnoop_user_hash_key(&user->key);
        if (user->userType != DHCPSNOOP_USER_DYNAMIC || bucket > lowest)
            continue;
        inLowest = bucket < lowest ? 1 : inLowest + 1;
        lowest = bucket;
        found = user;
    }
    if (inLowest <= 1)
        return found;
    for (DhcpsnoopUser *user : list_each<DhcpsnoopUser>(&gDhcpsnoop.userHash[lowest])) {
        if (is_dynamic_of(user, mac))
            return user;
    }
    return nullptr;
}

DhcpsnoopUser *dhcpsnoop_user_table_add(const DhcpsnoopUserKey *key)
{
    if (key == nullptr)
        return nullptr;
    auto *added = list_take<DhcpsnoopUser>(&gDhcpsnoop.userFreeList);
    if (added == nullptr) {
        DEBUG_TRACE("[DHCPSNOOP] Can't allocate memory for user entry!\r\n");
        return nullptr;
    }
    added->key = *key;
    DEBUG_TRACE("[DHCPSNOOP] User do not exist, add it to user table.\r\n");
    list_insert_after(&gDhcpsnoop.userHash[dhcpsnoop_user_hash_key(key)], added);
    user_index_add(added);
    return added;
}

DhcpsnoopClientPlace dhcpsnoop_client_place(const DhcpsnoopPktInfo *info)
{
    if (info->ifp->isVlanIf == 0)
        return {info->ifp->ifIndex, info->svlan};
    return {info->ifIndex, static_cast<uint16_t>(dhcpsnoop_flag_get(info->ifp->flags, DHCPSNOOP_IF_VID))};
}

static bool limit_reached(const DhcpsnoopIf *ifp) { return ifp != nullptr && ifp->curUser >= ifp->maxUser; }

static void count_up(DhcpsnoopIf *ifp)
{
    if (ifp != nullptr)
        ifp->curUser++;
}

static void count_down(DhcpsnoopIf *ifp)
{
    if (ifp != nullptr && ifp->curUser != 0)
        ifp->curUser--;
}

void dhcpsnoop_user_count_down(const DhcpsnoopUser *user)
{
    count_down(dhcpsnoop_if_lookup(user->ifIndex));
    count_down(dhcpsnoop_if_lookup_by_vid(user->vid));
}

static void log_added(const DhcpsnoopUser *user)
{
    zlog_dispatch_logging(
        QOR_LOG_MODULE, QOR_LOG_LEVEL,
        "[DHCPSNOOP] Add %s dhcpsnoop entry: ip %s, mac %02x:%02x:%02x:%02x:%02x:%02x, interface %s, vlan %d, leasetime %d.\r\n",
        user_type_word(user->userType), address_text(user->key).text, user->mac[0], user->mac[1],
        user->mac[2], user->mac[3], user->mac[4], user->mac[5], if_description(user->ifIndex).text, user->vid,
        user->leaseTime);
}

bool dhcpsnoop_user_is_at(const DhcpsnoopUser *user, const uint8_t *mac, DhcpsnoopClientPlace place)
{
    return mac != nullptr && std::memcmp(user->mac, mac, sizeof user->mac) == 0 && user->vid == place.vid &&
           user->ifIndex == place.ifIndex;
}

// Whether the entry of the address serves the client that asks for it. A dynamic one starts its time anew.
static bool existing_serves(DhcpsnoopUser *existing, const DhcpsnoopPktInfo *info, DhcpsnoopClientPlace place)
{
    DEBUG_TRACE("[DHCPSNOOP] User entry is already exist!\r\n");
    if (existing->userType != DHCPSNOOP_USER_DYNAMIC) {
        DEBUG_TRACE("[DHCPSNOOP] Static user is already exist, return!\r\n");
        return true;
    }
    if (dhcpsnoop_user_is_at(existing, info->chaddr, place)) {
        existing->leaseStart = info->rxTime;
        return true;
    }
    DEBUG_TRACE("[DHCPSNOOP] User information is changed, delete it!\r\n");
    return false;
}

int32_t dhcpsnoop_user_add(const DhcpsnoopUserKey *key, DhcpsnoopUser *existing, const DhcpsnoopPktInfo *info)
{
    if (key == nullptr)
        return 0;
    if (info == nullptr || info->ifp == nullptr)
        return -1;

    const DhcpsnoopClientPlace place = dhcpsnoop_client_place(info);
    const bool onVlanIf = info->ifp->isVlanIf != 0;
    DhcpsnoopIf *portIf = onVlanIf ? dhcpsnoop_if_lookup(place.ifIndex) : info->ifp;
    DhcpsnoopIf *vlanIf = onVlanIf ? info->ifp : dhcpsnoop_if_lookup_by_vid(place.vid);

    if (portIf != nullptr && (portIf->flags & DHCPSNOOP_IF_TRUSTED) != 0) {
        DEBUG_TRACE("[DHCPSNOOP] Received Boot-Request message on trust port, don't record user entry!\r\n");
        return 0;
    }
    if (info->chaddr == nullptr)
        return -1;
    DEBUG_TRACE("[DHCPSNOOP] User information: interface %d, vid %d, mac %s, ip %s.\r\n", place.ifIndex,
                place.vid, mac_text(info->chaddr).text, address_text(*key).text);

    if (existing != nullptr) {
        if (existing_serves(existing, info, place))
            return 0;
        dhcpsnoop_user_delete(existing); // its node may be the next one taken
    }

    if (limit_reached(portIf) || limit_reached(vlanIf)) {
        DEBUG_TRACE("[DHCPSNOOP] Number of users on the interface exceeds the limit!\r\n");
        return -1;
    }
    DhcpsnoopUser *user = dhcpsnoop_user_table_add(key);
    if (user == nullptr)
        return -1;

    user->vid = user->origVid = place.vid;
    dhcpsnoop_user_port_set(user, place.ifIndex);
    dhcpsnoop_user_mac_set(user, info->chaddr);
    user->userType = DHCPSNOOP_USER_DYNAMIC;
    user->leaseTime = DHCPSNOOP_LEASE_PROVISIONAL;
    user->leaseStart = info->rxTime;
    user->bindState = DHCPSNOOP_BIND_REQUESTED;
    user->macMark = DHCPSNOOP_MAC_MARK;
    user->vendorTag = info->opt60Sub1;
    user->serverId = info->serverId;
    count_up(portIf);
    count_up(vlanIf);
    log_added(user);
    return 0;
}

// The auto-provisioning hook learns of a binding whole, of a deletion only whose it was.
static void install_hook_bound(const DhcpsnoopUser *user, QorBuffer *option125, QorBuffer *bootFile)
{
    if (gDhcpsnoop.deftinstallCb == nullptr)
        return;
    DhcpsnoopInstallRecord record = {};
    record.clientIp = wire_get32(user->key.ipAddr);
    record.vendorTag = user->vendorTag;
    std::memcpy(record.mac, user->mac, sizeof record.mac);
    record.one = 1;
    record.add = 1;
    gDhcpsnoop.deftinstallCb(&record, option125, bootFile);
}

static void install_hook_deleted(const DhcpsnoopUser *user)
{
    if (gDhcpsnoop.deftinstallCb == nullptr)
        return;
    DhcpsnoopInstallRecord record = {};
    std::memcpy(record.mac, user->mac, sizeof record.mac);
    gDhcpsnoop.deftinstallCb(&record, nullptr, nullptr);
}

DhcpsnoopUser *dhcpsnoop_user_update(const DhcpsnoopPktInfo *info, QorBuffer *option125, QorBuffer *bootFile)
{
    if (info == nullptr)
        return nullptr;
    if (wire_get32(info->clientIp) == 0) {
        DEBUG_TRACE("[DHCPSNOOP] Client ip address is zero,return!\r\n");
        return nullptr;
    }
    const DhcpsnoopUserKey key = dhcpsnoop_user_key(DHCPSNOOP_IPV4, info->clientIp);
    DhcpsnoopUser *user = dhcpsnoop_user_lookup(&key);
    if (user == nullptr) {
        DEBUG_TRACE("[DHCPSNOOP] User entry %s isn't exist!\r\n", address_text(key).text);
        return nullptr;
    }
    if (user->userType != DHCPSNOOP_USER_DYNAMIC) {
        DEBUG_TRACE("[DHCPSNOOP] There is a static entry with the same ip address!\r\n");
        return nullptr;
    }
    DEBUG_TRACE("[DHCPSNOOP] User entry is already exist, update the entry information.\r\n");

    if (info->leaseTime != 0) {
        user->leaseTime = info->leaseTime;
        user->leaseStart = info->rxTime;
        user->bindState = DHCPSNOOP_BIND_BOUND;
    }
    if (info->router != 0) {
        user->gateway = htonl(info->router);
        dhcpsnoop_user_notifier(user, 1);
    }
    install_hook_bound(user, option125, bootFile);
    dhcpsnoop_user_update_hw(user, 1);
    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_MASTER)
        dhcpsnoop_sync_user_send(user, 1);
    return user;
}

void dhcpsnoop_user_delete(DhcpsnoopUser *user)
{
    if (user == nullptr || !list_linked(user))
        return;
    DEBUG_TRACE("[DHCPSNOOP] Delete the user entry: ip is %s.\r\n", address_text(user->key).text);
    zlog_dispatch_logging(QOR_LOG_MODULE, QOR_LOG_LEVEL, "[DHCPSNOOP] Delete %s dhcpsnoop entry: ip %s\r\n",
                          user_type_word(user->userType), address_text(user->key).text);

    dhcpsnoop_user_update_hw(user, 0); // what is installed of it
    const bool dynamic = user->userType == DHCPSNOOP_USER_DYNAMIC;
    if (dynamic && user->key.ipType == DHCPSNOOP_IPV4 && user->gateway != 0) {
        dhcpsnoop_user_notifier(user, 0);
        install_hook_deleted(user);
    }
    if (dynamic)
        dhcpsnoop_user_count_down(user);
    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_MASTER)
        dhcpsnoop_sync_user_send(user, 0);

    user_index_remove(user);
    list_unlink(user);
    list_insert_after(&gDhcpsnoop.userFreeList, user);
}

static bool matches(const DhcpsnoopUser *user, const DhcpsnoopUserQuery *query)
{
    if ((query->mask & DHCPSNOOP_CHECK_IP) != 0 &&
        (user->key.ipType != query->ipType ||
         std::memcmp(user->key.ipAddr, query->ipAddr, sizeof query->ipAddr) != 0))
        return false;
    if ((query->mask & DHCPSNOOP_CHECK_MAC) != 0 &&
        std::memcmp(user->mac, query->mac, sizeof query->mac) != 0)
        return false;
    if ((query->mask & DHCPSNOOP_CHECK_VLAN) != 0 && user->vid != query->vid)
        return false;
    return (query->mask & DHCPSNOOP_CHECK_PORT) == 0 || user->ifIndex == query->ifIndex;
}

// An address or a MAC address that must match leaves few bindings to look at.
static bool any_matches(const DhcpsnoopUserQuery *query)
{
    if ((query->mask & DHCPSNOOP_CHECK_IP) != 0) {
        const DhcpsnoopUserKey key = dhcpsnoop_user_key(query->ipType, query->ipAddr);
        const DhcpsnoopUser *user = dhcpsnoop_user_lookup(&key);
        return user != nullptr && matches(user, query);
    }
    if ((query->mask & DHCPSNOOP_CHECK_MAC) != 0) {
        const DhcpsnoopUser *first = user_index_mac_first(query->mac), *user = first;
        while (user != nullptr && !matches(user, query))
            user = user_index_mac_next(user, first);
        return user != nullptr;
    }
    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (matches(user, query))
            return true;
    }
    return false;
}

int32_t dhcpsnoop_user_get(const DhcpsnoopUserQuery *query)
{
    if (query == nullptr)
        return -1;
    dhcpsnoop_lock();
    const bool found = any_matches(query);
    dhcpsnoop_unlock();
    return found ? 0 : -1;
}
