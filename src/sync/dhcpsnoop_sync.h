// The running role of this control unit, and the records that keep the peer's tables in step.
#pragma once

#include "platform.h"

uint32_t dhcpsnoop_running_role_get(void); // DhcpsnoopRole, asked of the platform on every call

void dhcpsnoop_sync_pkt_send(const uint8_t *buffer, uint32_t length, uint32_t destination);
uint32_t dhcpsnoop_sync_user_pkt_build(const DhcpsnoopUser *user, uint32_t add, uint8_t *out); // always 60
uint32_t dhcpsnoop_sync_server_pkt_build(const DhcpsnoopServer *server, uint32_t add,
                                         uint8_t *out); // always 16
void dhcpsnoop_sync_user_send(const DhcpsnoopUser *user, uint32_t add);
void dhcpsnoop_sync_server_send(const DhcpsnoopServer *server, uint32_t add);
void dhcpsnoop_sync_all_send(uint32_t destination, uint32_t request);
void dhcpsnoop_sync_pkt_recv(QorBuffer *transfer);
void dhcpsnoop_sync_user_recv(const uint8_t *record);
void dhcpsnoop_sync_server_recv(const uint8_t *record);
