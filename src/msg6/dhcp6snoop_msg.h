// The DHCPv6 engine (RFC 8415): parser, options 18 and 37, client and server paths.
#pragma once

#include "dhcpsnoop.h"

int32_t dhcp6snoop_packet_parse(DhcpsnoopPktInfo *info, uint32_t fullParse); // 0 accepted, -1 rejected
uint32_t ipv6_addr_type(const uint8_t address[16]);
uint16_t dhcp6snoop_get_udp_checksum(const DhcpsnoopPktInfo *info);
// Finds the top-level options again after the message was edited.
void dhcp6snoop_options_find(DhcpsnoopPktInfo *info);
// The first option of the code in an area of at least 4 readable bytes; null when there is none.
uint8_t *dhcp6snoop_get_opt(uint8_t *area, uint32_t code, uint32_t length);

bool dhcp6snoop_is_template(uint32_t mode); // of the options 18 and 37
// Their data on an interface without text and template.
constexpr uint32_t DHCP6_DEFAULT_ID_LEN = 20, DHCP6_DEFAULT_ID_MAC = 14;
constexpr uint32_t DHCP6_ENTERPRISE_LEN = 4; // in front of the data of option 37
uint32_t dhcp6snoop_construct_opt18(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t size);
uint32_t dhcp6snoop_construct_opt37(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t size);
void dhcp6snoop_insert_opt(DhcpsnoopPktInfo *info, const uint8_t *option, uint32_t count);
uint16_t dhcp6snoop_strip_opt(DhcpsnoopPktInfo *info, uint32_t code);
void dhcp6snoop_construct_client_opt(DhcpsnoopPktInfo *info);

void dhcp6snoop_client_packet_recv(DhcpsnoopPktInfo *info);
void dhcp6snoop_server_packet_recv(DhcpsnoopPktInfo *info);
void dhcp6snoop_process_each_ia_opt(DhcpsnoopPktInfo *info, uint32_t fromClient);
DhcpsnoopIf *dhcp6snoop_get_if_from_opt(const DhcpsnoopPktInfo *info, uint32_t code);

// Makes what finds an interface by its option, for a pool of that size, and gives it back. -1 when memory is
// exhausted.
int32_t dhcp6snoop_port_index_init(uint16_t count);
void dhcp6snoop_port_index_free(void);
