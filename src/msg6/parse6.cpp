// An IPv6 frame in, the IPv6 part of DhcpsnoopPktInfo out: the message, its top-level options of interest and
// its IA options. Validates step by step and rejects at the first fault. Also the address classification, the
// UDP checksum over IPv6 and the option finder of the DHCPv6 engine. RFC 8200, RFC 8415.
#include "dhcp6snoop_msg.h"

#include <cstring>

#include "debug.h"
#include "dhcpsnoop_msg.h"
#include "frame_edit.h"
#include "protocol.h"
#include "wire.h"

uint32_t ipv6_addr_type(const uint8_t address[16])
{
    const uint32_t first = wire_get32(address), second = wire_get32(address + 4),
                   third = wire_get32(address + 8), fourth = wire_get32(address + 12);
    const uint32_t top = first >> 29;
    if (top != 0 && top != 7)
        return IPV6_ADDR_UNICAST;
    if ((first & 0xFF000000) == 0xFF000000) {
        switch ((first >> 16) & 0xFF) {
        case 0x01:
            return IPV6_ADDR_LOOPBACK | IPV6_ADDR_MULTICAST;
        case 0x02:
            return IPV6_ADDR_LINKLOCAL | IPV6_ADDR_MULTICAST;
        case 0x05:
            return IPV6_ADDR_SITELOCAL | IPV6_ADDR_MULTICAST;
        default:
            return IPV6_ADDR_MULTICAST;
        }
    }
    if ((first & 0xFFC00000) == 0xFE800000)
        return IPV6_ADDR_LINKLOCAL | IPV6_ADDR_UNICAST;
    if ((first & 0xFFC00000) == 0xFEC00000)
        return IPV6_ADDR_SITELOCAL | IPV6_ADDR_UNICAST;
    if (first != 0 || second != 0)
        return IPV6_ADDR_RESERVED;
    if (third == 0x0000FFFF)
        return IPV6_ADDR_MAPPED;
    if (third != 0)
        return IPV6_ADDR_RESERVED;
    if (fourth == 0)
        return IPV6_ADDR_ANY;
    return fourth == 1 ? IPV6_ADDR_LOOPBACK | IPV6_ADDR_UNICAST : IPV6_ADDR_COMPATV4 | IPV6_ADDR_UNICAST;
}

uint16_t dhcp6snoop_get_udp_checksum(const DhcpsnoopPktInfo *info)
{
    if (!frame_holds(info, info->udpHdr, info->udpLen) || !frame_holds(info, info->ipHdr, IPV6_HEADER_LEN))
        return 0;
    // The pseudo-header is shorter than that of RFC 8200 8.1, with the same sum.
    return dhcpsnoop_udp_sum(info->ipHdr + IPV6_SRC, IPV6_HEADER_LEN - IPV6_SRC, info->udpHdr, info->udpLen);
}

uint8_t *dhcp6snoop_get_opt(uint8_t *area, uint32_t code, uint32_t length)
{
    if (area == nullptr || length == 0)
        return nullptr;
    // Kept: the first option counts whatever the length says.
    uint8_t *option = area;
    uint32_t passed = 0;
    while (wire_get16(option + DHCP6_OPT_CODE) != code) {
        const uint32_t step = DHCP6_OPT_HEADER_LEN + wire_get16(option + DHCP6_OPT_LEN);
        passed += step;
        if (passed >= length || length - passed < DHCP6_OPT_HEADER_LEN)
            return nullptr;
        option += step;
    }
    return option;
}

void dhcp6snoop_options_find(DhcpsnoopPktInfo *info)
{
    info->interfaceIdOpt = info->remoteIdOpt = nullptr;
    info->iaCount = 0;
    uint8_t *const area = info->dhcpMsg + DHCP6_OPTIONS;
    const auto start = static_cast<uint32_t>(area - info->frame);
    if (info->frameLen > DHCPSNOOP_FRAME_MAX || start >= info->frameLen)
        return;
    const uint32_t size = info->frameLen - start;

    for (uint32_t offset = 0; offset < size && size - offset >= DHCP6_OPT_HEADER_LEN;) {
        uint8_t *option = area + offset;
        const uint32_t length = wire_get16(option + DHCP6_OPT_LEN);
        switch (wire_get16(option + DHCP6_OPT_CODE)) {
        case DHCP6_OPT_STATUS_CODE:
            if (length >= 2 && size - offset >= DHCP6_OPT_DATA + 2)
                info->statusCode = wire_get16(option + DHCP6_OPT_DATA);
            break;
        case DHCP6_OPT_INTERFACE_ID:
            info->interfaceIdOpt = option;
            break;
        case DHCP6_OPT_REMOTE_ID:
            info->remoteIdOpt = option;
            break;
        case DHCP6_OPT_IA_NA:
        case DHCP6_OPT_IA_TA:
            if (info->iaCount < DHCPSNOOP_IA_MAX)
                info->iaOpts[info->iaCount++] = option;
            break;
        default:
            break;
        }
        offset += DHCP6_OPT_HEADER_LEN + length;
    }
}

// A scope index that the sender's stack embedded never leaves here.
static void source_scope_clear(DhcpsnoopPktInfo *info)
{
    constexpr uint32_t linkLocal = IPV6_ADDR_LINKLOCAL | IPV6_ADDR_UNICAST;
    if ((ipv6_addr_type(info->ipHdr + IPV6_SRC) & linkLocal) == linkLocal)
        wire_put16(info->ipHdr + IPV6_SRC + 2, 0);
}

// Gives the protocol behind the extension headers and moves `offset` to it; -1 when there is none to be had.
static int32_t extension_headers_walk(const DhcpsnoopPktInfo *info, uint32_t *offset)
{
    uint8_t next = info->ipHdr[IPV6_NEXT_HEADER];
    while (next == IP_PROTO_HOPOPTS || next == IP_PROTO_ROUTING || next == IP_PROTO_DSTOPTS) {
        if (*offset + 2 > DHCPSNOOP_FRAME_MAX)
            return -1;
        *offset += (info->frame[*offset + 1] + 1u) * 8;
        if (*offset > info->frameLen || *offset >= DHCPSNOOP_FRAME_MAX)
            return -1;
        // Kept: the first byte found there, which is not the skipped header's next-header field; a message
        // behind extension headers is rejected or misread.
        next = info->frame[*offset];
    }
    return next == IP_PROTO_FRAGMENT ? -1 : next;
}

int32_t dhcp6snoop_packet_parse(DhcpsnoopPktInfo *info, uint32_t fullParse)
{
    if (info == nullptr || !frame_holds(info, info->ipHdr, IPV6_HEADER_LEN))
        return -1;
    source_scope_clear(info);

    uint32_t udpOffset = info->l2HdrLen + IPV6_HEADER_LEN;
    if (extension_headers_walk(info, &udpOffset) != IP_PROTO_UDP)
        return -1;
    if (udpOffset + UDP_HEADER_LEN > DHCPSNOOP_FRAME_MAX)
        return -1;
    uint8_t *const udpHdr = info->frame + udpOffset;
    const uint16_t sourcePort = wire_get16(udpHdr + UDP_SRC_PORT);
    if (sourcePort != DHCP6_CLIENT_PORT && sourcePort != DHCP6_SERVER_PORT)
        return -1;
    if (fullParse != 1)
        return 0;
    DEBUG_TRACE("[DHCPSNOOP] Src_port %d, ip6_start %d, udp6_start %d, dh6_start %d.\r\n", sourcePort,
                info->l2HdrLen, udpOffset, udpOffset + UDP_HEADER_LEN);

    info->ipTotLen = info->ipHdr + IPV6_PAYLOAD_LEN;
    info->ipBodyLen = wire_get16(info->ipTotLen);
    info->ipHdrLen = IPV6_HEADER_LEN;
    const uint32_t needed = info->l2HdrLen + IPV6_HEADER_LEN + info->ipBodyLen;
    if (info->frameLen < needed)
        return DEBUG_REJECT("[DHCPSNOOP] Packet validate: total length is error!\r\n");
    info->frameLen = needed;

    info->udpHdr = udpHdr;
    info->udpLenField = udpHdr + UDP_LENGTH;
    info->udpLen = wire_get16(info->udpLenField);
    if (info->ipBodyLen < info->udpLen)
        return DEBUG_REJECT("[DHCPSNOOP] Packet validate: udp length is error!\r\n");

    // A message has at least its type and transaction id.
    if (udpOffset + UDP_HEADER_LEN + DHCP6_OPTIONS > info->frameLen)
        return -1;
    info->dhcpMsg = udpHdr + UDP_HEADER_LEN;
    info->msgType = info->dhcpMsg[0];
    if (info->msgType == DHCP6_RELAY_FORW || info->msgType == DHCP6_RELAY_REPL)
        return DEBUG_REJECT("[DHCPSNOOP] Relay-server message, stop process!\r\n");
    info->dhcpLen = info->udpLen < UDP_HEADER_LEN ? 0 : info->udpLen - UDP_HEADER_LEN;
    dhcp6snoop_options_find(info);
    return 0;
}
