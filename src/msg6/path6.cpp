// The DHCPv6 paths. Not there yet: nothing is learned and nothing is forwarded.
#include "dhcp6snoop_msg.h"

void dhcp6snoop_client_packet_recv(DhcpsnoopPktInfo *) {}

void dhcp6snoop_server_packet_recv(DhcpsnoopPktInfo *) {}

void dhcp6snoop_process_each_ia_opt(DhcpsnoopPktInfo *, uint32_t) {}

DhcpsnoopIf *dhcp6snoop_get_if_from_opt(const DhcpsnoopPktInfo *, uint32_t) { return nullptr; }
