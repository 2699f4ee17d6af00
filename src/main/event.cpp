// Platform events. Links, aggregates, cards, slots and check items are not followed yet: every event is
// accepted and nothing is done about it.
#include "dhcpsnoop_main.h"

int32_t dhcpsnoop_notify_recv(uint8_t *, int32_t) { return 0; }

void dhcpsnoop_newlink_process(uint8_t *, int32_t) {}

void dhcpsnoop_dellink_process(uint8_t *, int32_t) {}

void dhcpsnoop_ipsgchangeitem_process(uint8_t *, int32_t) {}

void dhcpsnoop_daichangeitem_process(uint8_t *, int32_t) {}
