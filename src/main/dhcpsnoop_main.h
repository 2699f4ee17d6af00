// Start-up, the loop, the lease timer, learned servers, the command server and platform events.
#pragma once

#include "platform.h"

extern "C" {

// Opens a UDP socket bound to port 67 on any address, for sending relayed requests. -1 on failure.
// The daemon itself never calls it; the platform's launcher may (see dhcpsnoop_init_ex).
int32_t dhcpsnoop_udp_socket_init(void);

// Builds gDhcpsnoop and opens its sockets; a count of 0 means the default (20, 256, 256). 0 when started, or
// started before; -1 with everything released. Kept: udpSock stays at the 0 of the zero-fill, so that relayed
// requests leave through descriptor 0. Whoever starts the daemon hands over the UDP socket there.
int32_t dhcpsnoop_init_ex(uint16_t ifCount, uint16_t userCount, uint16_t serverCount, uint32_t optionMode,
                          DhcpsnoopInstallHook deftinstallHook, DhcpsnoopIfHook ipsgHook,
                          DhcpsnoopIfHook antiArpHook);
int32_t dhcpsnoop_init(uint16_t ifCount, uint16_t userCount);
void dhcpsnoop_shutdown(void);
}

// Makes `head` a free list of `count` zeroed entries (at least one) and stores their block in the pool
// pointer that follows the head in DhcpsnoopGlobal. -1 with an empty list when memory is exhausted.
int32_t dhcpsnoop_memlist_init(DhcpsnoopLink *head, uint32_t entrySize, uint32_t count);

// The place of a lock on semId, should a second thread ever come. Both do nothing.
void dhcpsnoop_lock(void);
void dhcpsnoop_unlock(void);

[[noreturn]] void dhcpsnoop_main(void);
void dhcpsnoop_main_pass(void); // one pass of the loop: waits at most 60 s, serves each source at most once
void dhcpsnoop_user_timer_check(void);

DhcpsnoopServer *dhcpsnoop_server_lookup(uint32_t serverIp, uint32_t vid, uint32_t ifIndex);
void dhcpsnoop_server_add(uint32_t serverIp, uint32_t vid, uint32_t ifIndex); // does not look for duplicates
DhcpsnoopServer *dhcpsnoop_server_alloc(void);
void dhcpsnoop_server_delete(DhcpsnoopServer *server); // null is ignored

// Serves one connection of the command socket whole. 0 when the reply went out in full, else -1.
int32_t dhcpsnoop_cmd_server(void);

// Executes the request in `buffer` and rewrites it as the reply. Gives the reply's length, 0 when it is no
// request. Never touches a byte beyond `length` (which is at most DHCPSNOOP_REQUEST_MAX), but for the 22
// bytes that answer an empty request.
uint32_t dhcpsnoop_cmd_process(uint8_t *buffer, uint32_t length);

// Walks one datagram of platform events. `length` is recvfrom's result. Always 0.
int32_t dhcpsnoop_notify_recv(uint8_t *buffer, int32_t length);
void dhcpsnoop_newlink_process(uint8_t *message, int32_t length);
void dhcpsnoop_dellink_process(uint8_t *message, int32_t length);
void dhcpsnoop_ipsgchangeitem_process(uint8_t *message, int32_t length);
void dhcpsnoop_daichangeitem_process(uint8_t *message, int32_t length);

// Publishes an event (188 user added, 189 user deleted) with its 48-byte body. The platform's result.
int32_t dhcpsnoop_notify_send(const uint8_t *body48, uint32_t event);
