// Records from the peer unit. Not there yet: what arrives is ignored, whatever the role.
#include "dhcpsnoop_sync.h"

void dhcpsnoop_sync_pkt_recv(QorBuffer *) {}

void dhcpsnoop_sync_user_recv(const uint8_t *) {}

void dhcpsnoop_sync_server_recv(const uint8_t *) {}
