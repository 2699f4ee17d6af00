// The DHCPv4 engine: a trapped frame in, forwarded frames, bindings and counters out. Frames are edited in
// place through the pointers of DhcpsnoopPktInfo; every edit keeps lengths and checksums true and the frame
// within 2048 bytes.
#pragma once

#include "platform.h"

// The one entry of every trapped frame. Every outcome is final.
void dhcpsnoop_recv(DhcpsnoopRxPkt *rxpkt);

// 0 accepted, -1 rejected. fullParse other than 1 stops, accepted, after the port test.
int32_t dhcpsnoop_packet_parse(DhcpsnoopRxPkt *rxpkt, DhcpsnoopPktInfo *info, uint32_t fullParse);

uint16_t checkdhcpsnoopsum(const uint8_t *buffer, int32_t length); // RFC 1071
// The UDP checksum (RFC 768) under the source and destination addresses; 0 for a datagram too long to sum.
uint16_t dhcpsnoop_udp_sum(const uint8_t *addresses, uint32_t addressesLen, const uint8_t *udpHeader,
                           uint32_t length);
// The same for an IPv4 datagram; 0 when it is too long. Clears the checksum field of the header it is given.
uint16_t dhcpsnoop_get_udp_checksum(const uint8_t *ipHeader, uint8_t *udpHeader);
// After the message grew (grow 1) or shrank by delta bytes: lengths and both checksums. Gives the UDP
// checksum.
uint16_t dhcpsnoop_update_checksum(DhcpsnoopPktInfo *info, uint32_t delta, uint32_t grow);

// The six bytes by which options 82 and 18 name a circuit: VLAN, then system, slot, card and port of the
// interface.
void dhcpsnoop_circuit_data(uint32_t ifIndex, uint16_t vid, uint8_t out[6]);

// Option 82 (RFC 3046). The builders give the bytes written, code and length included, 0 for none; `buffer`
// must hold 768 bytes whatever the room.
uint32_t dhcpsnoop_build_subopt_circid(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room);
uint32_t dhcpsnoop_build_subopt_remoteid(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room);
uint32_t dhcpsnoop_build_subopt9(uint8_t *buffer, const DhcpsnoopIf *ifp, uint32_t withHeader);
int32_t dhcpsnoop_append_subopt9(DhcpsnoopPktInfo *info); // 0, or -1 without end option
uint32_t dhcpsnoop_construct_opt82(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room);
int32_t dhcpsnoop_insert_opt82(DhcpsnoopPktInfo *info, const uint8_t *option, uint32_t length);
int32_t dhcpsnoop_process_option82(DhcpsnoopPktInfo *info); // 0 to forward, -1 to drop
// 0 when the remote-id sub-option (null is not equal) is the interface's own. Reads dhcpsnoop_remote_id_span
// bytes of it.
int32_t dhcpsnoop_remote_id_cmp(const uint8_t *subOption, const DhcpsnoopIf *ifp, uint32_t mode);
uint32_t dhcpsnoop_remote_id_span(const DhcpsnoopIf *ifp, uint32_t mode);
void dhcpsnoop_strip_option(DhcpsnoopPktInfo *info);
void dhcpsnoop_insert_opt67(DhcpsnoopPktInfo *info, const uint8_t *name, uint32_t length);
void dhcpsnoop_insert_opt125(DhcpsnoopPktInfo *info, const uint8_t *data, uint32_t length);

// Client to server.
void dhcpsnoop_client_packet_recv(DhcpsnoopPktInfo *info);
void dhcpsnoop_send_to_server(const DhcpsnoopPktInfo *info);     // every other enabled trusted interface
void dhcpsnoop_npt_send_to_server(const DhcpsnoopPktInfo *info); // the same for a frame on a VLAN interface
void dhcpsnoop_udp_socket_send(const DhcpsnoopPktInfo *info, uint32_t fromAddr, uint32_t toAddr);

// Server to client.
void dhcpsnoop_server_packet_recv(DhcpsnoopPktInfo *info);
void dhcpsnoop_send_to_client(const DhcpsnoopPktInfo *info, const DhcpsnoopIf *egress, uint32_t vid);
// To a client whose port is not known: one of the two below.
void dhcpsnoop_flood(const DhcpsnoopPktInfo *info, uint32_t vid);
void dhcpsnoop_broadcast_forwarding(const DhcpsnoopPktInfo *info,
                                    uint32_t vid); // a VLAN without VLAN interface
void dhcpsnoop_npt_send_to_client(const DhcpsnoopPktInfo *info, uint32_t vid); // a VLAN with one
