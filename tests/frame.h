// Frames for tests, built field by field with code of their own: a default Frame is a valid broadcast
// DHCPDISCOVER of client 1, and a test names only what it is about. Lengths and checksums are computed from
// what the frame holds unless the test sets them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

constexpr Mac MAC_BROADCAST = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr Mac MAC_CLIENT = {0x02, 0xC1, 0x00, 0x00, 0x00, 0x01};
constexpr Mac MAC_CLIENT2 = {0x02, 0xC1, 0x00, 0x00, 0x00, 0x02};
constexpr Mac MAC_SERVER = {0x02, 0x5E, 0x00, 0x00, 0x00, 0x01};

constexpr uint32_t ip4(uint8_t a, uint8_t b, uint8_t c, uint8_t d)
{
    return uint32_t{a} << 24 | uint32_t{b} << 16 | uint32_t{c} << 8 | d;
}

// Bytes of a number, most significant first.
Bytes be16(uint32_t value);
Bytes be32(uint32_t value);
Bytes text_bytes(std::string_view text);
Bytes mac_bytes(const Mac &mac);
Bytes hex_bytes(std::string_view text); // "35 01 05 ff"; blanks are skipped
Bytes operator+(Bytes left, const Bytes &right);

// One DHCP option (or sub-option): code, length, data.
Bytes opt(uint8_t code, const Bytes &data);
Bytes opt_type(uint8_t messageType); // 53
Bytes opt_ip(uint8_t code, uint32_t address);
Bytes opt_lease(uint32_t seconds); // 51
const Bytes OPT_END = {255};

struct Tag {
    uint16_t tpid = 0x8100;
    uint16_t tci = 0; // priority and VLAN id
};

struct Frame {
    Mac dst = MAC_BROADCAST, src = MAC_CLIENT;
    std::vector<Tag> tags = {};
    uint16_t etherType = 0x0800;
    // IPv4 (RFC 791)
    uint8_t ipVersion = 4;
    std::optional<uint16_t> ipTotalLen = {};
    uint8_t protocol = 17;
    uint32_t srcIp = 0, dstIp = 0xFFFFFFFF;
    Bytes ipOptions = {};
    uint16_t srcPort = 68, dstPort = 67;
    std::optional<uint16_t> udpLen = {}, udpChecksum = {};
    // BOOTP (RFC 2131 2)
    uint8_t op = 1;
    uint32_t xid = 0x3903F326;
    uint16_t flags = 0;
    uint32_t ciaddr = 0, yiaddr = 0, giaddr = 0;
    Mac chaddr = MAC_CLIENT;
    // The option area as it stands, end option included; empty for none.
    Bytes options = {53, 1, 1, 255};
    // What stands instead of the BOOTP message and its options.
    std::optional<Bytes> payload = {};
    Bytes padding = {}; // behind the IP datagram

    Bytes bytes() const;
    operator Bytes() const { return bytes(); }
    // The BOOTP message alone, options included.
    Bytes message() const;
};

// ---- DHCPv6 (RFC 8415; option 37: RFC 4649)

using Ip6 = std::array<uint8_t, 16>;
Ip6 ip6(const char *text);

constexpr Mac MAC_DHCP6_SERVERS = {0x33, 0x33, 0x00, 0x01, 0x00, 0x02};

Bytes opt6(uint16_t code, const Bytes &data, std::optional<uint16_t> length = {});
Bytes status6(uint16_t code, std::string_view text = "");
Bytes iaaddr(const char *address, uint32_t valid, const Bytes &options = {});
Bytes ia_na(const Bytes &options);
Bytes ia_ta(const Bytes &options);

// A default one is a valid SOLICIT of client 1 without options.
struct Frame6 {
    Mac dst = MAC_DHCP6_SERVERS, src = MAC_CLIENT;
    std::vector<Tag> tags = {};
    uint16_t etherType = 0x86DD;
    // IPv6 (RFC 8200)
    std::optional<uint16_t> payloadLen = {};
    uint8_t nextHeader = 17;
    uint8_t hopLimit = 1;
    Ip6 srcIp = ip6("fe80::c1ff:fe00:1"), dstIp = ip6("ff02::1:2");
    Bytes extension = {}; // between IPv6 and UDP header
    uint16_t srcPort = 546, dstPort = 547;
    std::optional<uint16_t> udpLen = {}, udpChecksum = {};
    // DHCPv6 (RFC 8415 8)
    uint8_t type = 1;
    uint32_t xid = 0x10A2B3;
    Bytes options = {};
    std::optional<Bytes> message = {}; // instead of type, transaction id and options
    Bytes slack = {};                  // behind the UDP datagram, inside the IPv6 payload
    Bytes padding = {};                // behind the IPv6 payload

    Bytes bytes() const;
    operator Bytes() const { return bytes(); }
};

Frame6 client6(uint8_t type, const Bytes &options = {});
// To client 1, by unicast.
Frame6 server6(uint8_t type, const Bytes &options = {});

// The RFC 1071 sum by the simplest means, for expectations.
uint16_t internet_checksum(const Bytes &bytes);

std::vector<std::string> parts(const std::string &text, char separator);

// A frame as lines of 16 bytes, for comparison: a difference shows as a line.
std::string dump(const Bytes &frame);

std::string hex(const Bytes &bytes);
