// Start-up and shutdown.
#pragma once

#include "dhcpsnoop.h"

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
