// Offsets and numbers of the protocols on the wire, grouped by where they are defined. Offsets count from the
// header that the prefix names.
#pragma once

#include <cstdint>

// Ethernet (IEEE 802.3, 802.1Q)
constexpr uint32_t ETH_ADDR_LEN = 6;
constexpr uint32_t ETH_DST = 0, ETH_SRC = 6, ETH_TYPE = 12;
constexpr uint32_t ETH_HEADER_LEN = 14;
constexpr uint32_t VLAN_TAG_LEN = 4,
                   VLAN_TCI = 14; // tag of an outermost-tagged frame: TPID at ETH_TYPE, then TCI
constexpr uint16_t VLAN_ID_MIN = 1, VLAN_ID_MAX = 4094;
constexpr uint16_t ETHER_TYPE_IPV4 = 0x0800, ETHER_TYPE_IPV6 = 0x86DD, TPID_8021Q = 0x8100;

// IPv4 (RFC 791 3.1)
constexpr uint32_t IPV4_TOTAL_LEN = 2, IPV4_PROTOCOL = 9, IPV4_CHECKSUM = 10, IPV4_SRC = 12, IPV4_DST = 16;
constexpr uint32_t IPV4_HEADER_MIN = 20, IPV4_HEADER_MAX = 60;

// IPv6 (RFC 8200 3)
constexpr uint32_t IPV6_PAYLOAD_LEN = 4, IPV6_NEXT_HEADER = 6, IPV6_SRC = 8, IPV6_DST = 24,
                   IPV6_HEADER_LEN = 40;
constexpr uint8_t IP_PROTO_HOPOPTS = 0, IP_PROTO_ROUTING = 43, IP_PROTO_FRAGMENT = 44, IP_PROTO_DSTOPTS = 60;

// Kinds of an IPv6 address, as the Linux kernel numbers them.
constexpr uint32_t IPV6_ADDR_ANY = 0, IPV6_ADDR_UNICAST = 0x1, IPV6_ADDR_MULTICAST = 0x2,
                   IPV6_ADDR_LOOPBACK = 0x10, IPV6_ADDR_LINKLOCAL = 0x20, IPV6_ADDR_SITELOCAL = 0x40,
                   IPV6_ADDR_COMPATV4 = 0x80, IPV6_ADDR_MAPPED = 0x1000, IPV6_ADDR_RESERVED = 0x2000;

// UDP (RFC 768)
constexpr uint8_t IP_PROTO_UDP = 17;
constexpr uint32_t UDP_SRC_PORT = 0, UDP_DST_PORT = 2, UDP_LENGTH = 4, UDP_CHECKSUM = 6, UDP_HEADER_LEN = 8;

// BOOTP and DHCP message (RFC 2131 2)
constexpr uint16_t DHCP_SERVER_PORT = 67, DHCP_CLIENT_PORT = 68;
constexpr uint32_t DHCP_OP = 0, DHCP_FLAGS = 10, DHCP_CIADDR = 12, DHCP_YIADDR = 16, DHCP_GIADDR = 24,
                   DHCP_CHADDR = 28, DHCP_MAGIC = 236,
                   DHCP_OPTIONS = 240;     // the option area follows the magic cookie
constexpr uint32_t DHCP_MESSAGE_MIN = 240; // fixed header and magic cookie
constexpr uint8_t BOOTREQUEST = 1, BOOTREPLY = 2;
constexpr uint16_t DHCP_FLAG_BROADCAST = 0x8000;

// DHCP options (RFC 2132; 82: RFC 3046; 125: RFC 3925)
constexpr uint8_t DHCP_OPT_PAD = 0, DHCP_OPT_ROUTER = 3, DHCP_OPT_REQUESTED_IP = 50, DHCP_OPT_LEASE_TIME = 51,
                  DHCP_OPT_MESSAGE_TYPE = 53, DHCP_OPT_SERVER_ID = 54, DHCP_OPT_VENDOR_CLASS = 60,
                  DHCP_OPT_BOOT_FILE = 67, DHCP_OPT_RELAY_INFO = 82, DHCP_OPT_VI_VENDOR = 125,
                  DHCP_OPT_END = 255;

// Relay agent information sub-options (RFC 3046 2.0; 9: RFC 4243)
constexpr uint8_t RELAY_SUBOPT_CIRCUIT_ID = 1, RELAY_SUBOPT_REMOTE_ID = 2, RELAY_SUBOPT_VENDOR = 9;

// DHCP message types (RFC 2132 9.6)
enum DhcpMessageType : uint32_t {
    DHCP_DISCOVER = 1,
    DHCP_OFFER,
    DHCP_REQUEST,
    DHCP_DECLINE,
    DHCP_ACK,
    DHCP_NAK,
    DHCP_RELEASE,
    DHCP_INFORM,
};

// DHCPv6 (RFC 8415 7.2, 7.3, 8, 21; option 37: RFC 4649)
constexpr uint16_t DHCP6_CLIENT_PORT = 546, DHCP6_SERVER_PORT = 547;
constexpr uint32_t DHCP6_OPTIONS = 4; // the option area follows type and transaction id
enum Dhcp6MessageType : uint32_t {
    DHCP6_SOLICIT = 1,
    DHCP6_ADVERTISE = 2,
    DHCP6_REQUEST = 3,
    DHCP6_REPLY = 7,
    DHCP6_RELEASE = 8,
    DHCP6_DECLINE = 9,
    DHCP6_RECONFIGURE = 10,
    DHCP6_RELAY_FORW = 12,
    DHCP6_RELAY_REPL = 13,
};
constexpr uint16_t DHCP6_OPT_IA_NA = 3, DHCP6_OPT_IA_TA = 4, DHCP6_OPT_IAADDR = 5, DHCP6_OPT_STATUS_CODE = 13,
                   DHCP6_OPT_INTERFACE_ID = 18, DHCP6_OPT_REMOTE_ID = 37;
constexpr uint32_t DHCP6_OPT_CODE = 0, DHCP6_OPT_LEN = 2, DHCP6_OPT_DATA = 4, DHCP6_OPT_HEADER_LEN = 4;

// An option as it stands: code, length, data. The pointer is to the code.
constexpr uint32_t OPT_LEN = 1, OPT_DATA = 2, OPT_HEADER_LEN = 2;
