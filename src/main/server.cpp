// The DHCP servers that were heard answering, newest first. When the pool is used up, the newest makes room.
#include "dhcpsnoop_server.h"

#include "dhcpsnoop_sync.h"
#include "list.h"

DhcpsnoopServer *dhcpsnoop_server_lookup(uint32_t serverIp, uint32_t vid, uint32_t ifIndex)
{
    for (DhcpsnoopServer *server : list_each<DhcpsnoopServer>(&gDhcpsnoop.serverList)) {
        if (server->serverIp == serverIp && server->vid == vid && server->ifIndex == ifIndex)
            return server;
    }
    return nullptr;
}

DhcpsnoopServer *dhcpsnoop_server_alloc(void)
{
    // Kept: a full list replaces its newest entry, not its oldest.
    if (list_empty(&gDhcpsnoop.serverFreeList) && !list_empty(&gDhcpsnoop.serverList))
        dhcpsnoop_server_delete(static_cast<DhcpsnoopServer *>(gDhcpsnoop.serverList.next));
    return list_take<DhcpsnoopServer>(&gDhcpsnoop.serverFreeList);
}

void dhcpsnoop_server_add(uint32_t serverIp, uint32_t vid, uint32_t ifIndex)
{
    DhcpsnoopServer *server = dhcpsnoop_server_alloc();
    if (server == nullptr)
        return;
    server->serverIp = serverIp;
    server->vid = vid;
    server->ifIndex = ifIndex;
    list_insert_after(&gDhcpsnoop.serverList, server);
    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_MASTER)
        dhcpsnoop_sync_server_send(server, 1);
}

void dhcpsnoop_server_delete(DhcpsnoopServer *server)
{
    if (server == nullptr || !list_linked(server))
        return;
    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_MASTER)
        dhcpsnoop_sync_server_send(server, 0);
    list_unlink(server);
    server->serverIp = server->ifIndex = server->vid = 0;
    list_insert_after(&gDhcpsnoop.serverFreeList, server);
}
