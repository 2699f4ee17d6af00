// Events from the platform.
#pragma once

#include <cstdint>

// Walks one datagram of platform events. `length` is recvfrom's result. Always 0.
int32_t dhcpsnoop_notify_recv(uint8_t *buffer, int32_t length);
void dhcpsnoop_newlink_process(uint8_t *message, int32_t length);
void dhcpsnoop_dellink_process(uint8_t *message, int32_t length);
void dhcpsnoop_ipsgchangeitem_process(uint8_t *message, int32_t length);
void dhcpsnoop_daichangeitem_process(uint8_t *message, int32_t length);
