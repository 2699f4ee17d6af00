// Settings of the whole switch. A change is offered to the platform first and stored when it is accepted.
#include "nm_common.h"

#include <cstring>

#include "debug.h"
#include "dhcpsnoop_if.h"
#include "dhcpsnoop_server.h"
#include "dhcpsnoop_sync.h"
#include "dhcpsnoop_user.h"
#include "list.h"

static constexpr uint32_t ALL_IP_TYPES = DHCPSNOOP_IPV4 | DHCPSNOOP_IPV6;
static constexpr uint32_t SNOOPED_USER_TYPES = DHCPSNOOP_USER_DYNAMIC | DHCPSNOOP_USER_STATIC;

struct Change {
    void *source;
    uint32_t cmd;
    void *data;
    uint32_t mode;
};

static bool accepted(const Change &change)
{
    return qorHwScalarSync(change.source, QOR_SYNC_GLOBAL + change.cmd, change.data, change.mode) == 0;
}

// IP source guard bindings are not snooping's and stay.
static void flush_tables(void)
{
    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (user->userType != DHCPSNOOP_USER_IPSG)
            dhcpsnoop_user_delete(user);
    }
    for (DhcpsnoopMacUser *macUser : hash_each<DhcpsnoopMacUser>(gDhcpsnoop.macUserHash))
        dhcpsnoop_mac_user_delete(macUser);
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList))
        dhcpsnoop_if_disable(ifp);
    for (DhcpsnoopServer *server : list_each<DhcpsnoopServer>(&gDhcpsnoop.serverList))
        dhcpsnoop_server_delete(server);
}

static int32_t enable_set(const Change &change, uint32_t number)
{
    if (number == gDhcpsnoop.globalEnable)
        return NM_OK;
    if (!accepted(change))
        return NM_HW_REFUSED;
    if (number != 1)
        flush_tables();
    gDhcpsnoop.globalEnable = static_cast<uint8_t>(number);
    return NM_OK;
}

static int32_t enterprise_set(const Change &change, uint32_t number)
{
    if (!accepted(change))
        return NM_HW_REFUSED;
    gDhcpsnoop.enterpriseNum = number;
    return NM_OK;
}

static int32_t hw_notify_set(const Change &change, uint32_t number)
{
    DEBUG_EVENT("[DHCPSNOOP] Global dhcpsnoop setapi: hardware notify state %d.\r\n", number);
    if (number == gDhcpsnoop.hwNotifyEnable)
        return NM_OK;
    if (!accepted(change))
        return NM_HW_REFUSED;
    gDhcpsnoop.hwNotifyEnable = static_cast<uint8_t>(number);
    dhcpsnoop_user_process_on_interface(nullptr, ALL_IP_TYPES, SNOOPED_USER_TYPES,
                                        gDhcpsnoop.hwNotifyEnable == 1 ? 1 : 0);
    return NM_OK;
}

static int32_t server_learn_set(const Change &change, uint32_t number)
{
    if (!accepted(change))
        return NM_HW_REFUSED;
    gDhcpsnoop.serverLearn = static_cast<uint8_t>(number);
    return NM_OK;
}

static int32_t statistics_clear(void)
{
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList))
        std::memset(ifp->counters, 0, sizeof ifp->counters);
    return NM_OK;
}

static int32_t sync_packet_receive(void *data)
{
    QorBuffer *packet = value_bytes(data);
    if (packet == nullptr)
        return NM_BAD_COMMAND;
    dhcpsnoop_sync_pkt_recv(packet);
    return NM_OK;
}

static int32_t number_set(const Change &change)
{
    const uint32_t *number = value_number(change.data);
    if (number == nullptr)
        return NM_BAD_COMMAND;
    switch (change.cmd) {
    case GLOBAL_ENABLE:
        return enable_set(change, *number);
    case GLOBAL_ENTERPRISE:
        return enterprise_set(change, *number);
    case GLOBAL_HW_NOTIFY:
        return hw_notify_set(change, *number);
    case GLOBAL_SERVER_LEARN:
        return server_learn_set(change, *number);
    case GLOBAL_DEBUG:
        gDhcpsnoop.debugFlags = static_cast<uint8_t>(*number);
        return NM_OK;
    default:
        return NM_BAD_COMMAND;
    }
}

static int32_t setting_set(const Change &change)
{
    switch (change.cmd) {
    case GLOBAL_CLEAR_STATS:
        return statistics_clear();
    case GLOBAL_SYNC_PACKET:
        return sync_packet_receive(change.data);
    default:
        return number_set(change);
    }
}

static int32_t _dhcpSnoopSetApi(void *source, uint32_t cmd, void *data, uint32_t mode)
{
    DEBUG_EVENT("[DHCPSNOOP] Global dhcpsnoop setapi: cmd %d.\r\n", cmd);
    const TableLock lock;
    const int32_t rc = setting_set({source, cmd, data, mode});
    DEBUG_EVENT("[DHCPSNOOP] Global dhcpsnoop setapi: end, rc = %d.\r\n", rc);
    return rc;
}

int32_t dhcpSnoopSetApi(void *source, uint32_t cmd, void *data)
{
    return _dhcpSnoopSetApi(source, cmd, data, QOR_SYNC_SET);
}

int32_t dhcpSnoopSyncApi(void *source, uint32_t cmd, void *data)
{
    return _dhcpSnoopSetApi(source, cmd, data, QOR_SYNC_PEER);
}

static uint32_t user_count(void)
{
    uint32_t count = 0;
    for (const DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash))
        count += user->userType != DHCPSNOOP_USER_IPSG ? 1 : 0;
    return count;
}

int32_t dhcpSnoopGetApi(void *, uint32_t cmd, void *value)
{
    const TableLock lock;
    switch (cmd) {
    case GLOBAL_ENABLE:
        return value_put(value, gDhcpsnoop.globalEnable);
    case GLOBAL_ENTERPRISE:
        return value_put(value, gDhcpsnoop.enterpriseNum);
    case GLOBAL_USER_COUNT:
        return value_put(value, user_count());
    case GLOBAL_HW_NOTIFY:
        return value_put(value, gDhcpsnoop.hwNotifyEnable);
    case GLOBAL_SERVER_LEARN:
        return value_put(value, gDhcpsnoop.serverLearn);
    case GLOBAL_DEBUG:
        return value_put(value, gDhcpsnoop.debugFlags);
    default:
        return NM_BAD_COMMAND;
    }
}

int32_t dhcpSnoop_debug_set(uint32_t mask, uint32_t op)
{
    switch (op) {
    case 1:
        gDhcpsnoop.debugFlags = static_cast<uint8_t>(gDhcpsnoop.debugFlags | mask);
        return 0;
    case 2:
        gDhcpsnoop.debugFlags = static_cast<uint8_t>(gDhcpsnoop.debugFlags & ~mask);
        return 0;
    default:
        return -1;
    }
}
