// Keeping the peer unit in step. Not there yet: no record is built and nothing is sent, whatever the role.
#include "dhcpsnoop_sync.h"

void dhcpsnoop_sync_pkt_send(const uint8_t *, uint32_t, uint32_t) {}

uint32_t dhcpsnoop_sync_user_pkt_build(const DhcpsnoopUser *, uint32_t, uint8_t *) { return 0; }

uint32_t dhcpsnoop_sync_server_pkt_build(const DhcpsnoopServer *, uint32_t, uint8_t *) { return 0; }

void dhcpsnoop_sync_user_send(const DhcpsnoopUser *, uint32_t) {}

void dhcpsnoop_sync_server_send(const DhcpsnoopServer *, uint32_t) {}

void dhcpsnoop_sync_all_send(uint32_t, uint32_t) {}
