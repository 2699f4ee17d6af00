// The learned servers.
#pragma once

#include "dhcpsnoop.h"

DhcpsnoopServer *dhcpsnoop_server_lookup(uint32_t serverIp, uint32_t vid, uint32_t ifIndex);
void dhcpsnoop_server_add(uint32_t serverIp, uint32_t vid, uint32_t ifIndex); // does not look for duplicates
DhcpsnoopServer *dhcpsnoop_server_alloc(void);
void dhcpsnoop_server_delete(DhcpsnoopServer *server); // null is ignored
