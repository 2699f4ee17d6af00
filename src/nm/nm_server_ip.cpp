// Relay server addresses of the interfaces, three at most each, listed, added and removed; and the learned
// servers as a table on standard output. Nothing here is offered to the hardware.
#include "nm_common.h"

#include <cstdio>

#include "debug.h"
#include "dhcpsnoop_if_table.h"
#include "list.h"

// The slot that holds the address, null when none does. A free slot holds address 0.
static uint32_t *slot_lookup(DhcpsnoopIf *ifp, uint32_t address)
{
    for (uint32_t &slot : ifp->serverIp) {
        if (slot == address)
            return &slot;
    }
    return nullptr;
}

// The first address after the pair `from`; the first of all addresses when `from` is null.
static int32_t server_ip_find(const uint32_t *from, uint32_t *outPair)
{
    const TableLock lock;
    bool found = from == nullptr;
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        if (!if_in_use(ifp))
            continue;
        for (const uint32_t address : ifp->serverIp) {
            if (found && address != 0) {
                outPair[0] = ifp->ifIndex;
                outPair[1] = address;
                return 0;
            }
            if (!found)
                found = ifp->ifIndex == from[0] && address == from[1];
        }
    }
    return -1;
}

int32_t dhcpSnoopServerIpGetFirst(uint32_t *outPair)
{
    return outPair != nullptr ? server_ip_find(nullptr, outPair) : -1;
}

int32_t dhcpSnoopServerIpGetNext(const uint32_t *from, uint32_t *outPair)
{
    return from != nullptr && outPair != nullptr ? server_ip_find(from, outPair) : -1;
}

static int32_t server_ip_add(DhcpsnoopIf *ifp, uint32_t address)
{
    if (slot_lookup(ifp, address) != nullptr)
        return NM_OK;
    uint32_t *slot = slot_lookup(ifp, 0);
    if (slot == nullptr) {
        DEBUG_EVENT("[DHCPSNOOP] Number of relay server-ip exceeds the max!\r\n");
        return NM_BAD_COMMAND;
    }
    *slot = address;
    return NM_OK;
}

static int32_t server_ip_remove(DhcpsnoopIf *ifp, uint32_t address)
{
    uint32_t *slot = slot_lookup(ifp, address);
    if (slot != nullptr)
        *slot = 0;
    return NM_OK;
}

static int32_t server_ip_set(const uint32_t *pair, uint32_t cmd, const void *value)
{
    const TableLock lock;
    DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(pair[0]);
    if (ifp == nullptr || cmd != SERVER_IP_SLOT)
        return NM_NO_ENTRY;
    const uint32_t *action = value_number(value);
    if (action == nullptr)
        return NM_BAD_COMMAND;
    switch (*action) {
    case USER_ACTION_BIND:
    case USER_ACTION_CREATE:
    case USER_ACTION_CREATE_ALSO:
        return server_ip_add(ifp, pair[1]);
    case USER_ACTION_DELETE:
        return server_ip_remove(ifp, pair[1]);
    default:
        return NM_BAD_COMMAND;
    }
}

static int32_t _dhcpSnoopServerIpSetApi(const uint32_t *pair, uint32_t cmd, const void *value, uint32_t mode)
{
    if (pair == nullptr)
        return NM_NULL_KEY;
    DEBUG_EVENT("[DHCPSNOOP] Set server-ip: if %s, ip 0x%0x, cmd %d, flag 0x%0x.\r\n", if_name(pair[0]).text,
                pair[1], cmd, mode);
    const int32_t rc = server_ip_set(pair, cmd, value);
    DEBUG_EVENT("[DHCPSNOOP] Set relay server-ip end: rc %d.\r\n", rc);
    return rc;
}

int32_t dhcpSnoopServerIpSetApi(const uint32_t *pair, uint32_t cmd, void *value)
{
    return _dhcpSnoopServerIpSetApi(pair, cmd, value, QOR_SYNC_SET);
}

int32_t dhcpSnoopServerIpSyncApi(const uint32_t *pair, uint32_t cmd, void *value)
{
    return _dhcpSnoopServerIpSetApi(pair, cmd, value, QOR_SYNC_PEER);
}

int32_t dhcpSnoopServerIpGetApi(const uint32_t *pair, uint32_t cmd)
{
    if (pair == nullptr)
        return NM_NULL_KEY;
    const TableLock lock;
    DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(pair[0]);
    if (ifp == nullptr) {
        DEBUG_EVENT("[DHCPSNOOP] Interface is not exist!\r\n");
        return NM_NO_ENTRY;
    }
    if (cmd != SERVER_IP_SLOT)
        return NM_BAD_COMMAND;
    return slot_lookup(ifp, pair[1]) != nullptr ? NM_OK : NM_NO_ENTRY;
}

void dhcpsnoop_fake_server_show(void)
{
    const TableLock lock;
    if (!list_empty(&gDhcpsnoop.serverList))
        std::printf("\n\r %-18s%-10s%-12s", "IpAddr", "Vid", "Interface");
    for (const DhcpsnoopServer *server : list_each<DhcpsnoopServer>(&gDhcpsnoop.serverList))
        std::printf("\n\r %-18s%-10ld%-12s", ipv4_text(server->serverIp).text,
                    static_cast<long>(static_cast<int32_t>(server->vid)),
                    if_description(server->ifIndex).text);
    std::printf("\n\r");
}
