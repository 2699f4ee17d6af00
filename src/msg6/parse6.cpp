// DHCPv6 frames. Not snooped yet: every one is rejected, so none is forwarded by the daemon.
#include "dhcp6snoop_msg.h"

int32_t dhcp6snoop_packet_parse(DhcpsnoopPktInfo *, uint32_t) { return -1; }

uint32_t ipv6_addr_type(const uint8_t[16]) { return 0; }

uint16_t dhcp6snoop_get_udp_checksum(const DhcpsnoopPktInfo *) { return 0; }

uint8_t *dhcp6snoop_get_opt(uint8_t *, uint32_t, uint32_t) { return nullptr; }
