// DHCPv6 options 18 and 37. Not built yet: no option is made, inserted or stripped.
#include "dhcp6snoop_msg.h"

uint32_t dhcp6snoop_construct_opt18(const DhcpsnoopPktInfo *, uint8_t *, uint32_t) { return 0; }

uint32_t dhcp6snoop_construct_opt37(const DhcpsnoopPktInfo *, uint8_t *, uint32_t) { return 0; }

void dhcp6snoop_insert_opt(DhcpsnoopPktInfo *, const uint8_t *, uint32_t) {}

uint16_t dhcp6snoop_strip_opt(DhcpsnoopPktInfo *, uint32_t) { return 0; }

void dhcp6snoop_construct_client_opt(DhcpsnoopPktInfo *) {}
