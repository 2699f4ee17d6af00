// One captured frame in, DhcpsnoopPktInfo out: pointers to every header and option that later stages read or
// rewrite. Validates layer by layer and rejects at the first fault; touches nothing but the record. IPv6 goes
// to its own parser. RFC 791, RFC 768, RFC 2131 2, RFC 2132.
#include "dhcpsnoop_msg.h"

#include <algorithm>
#include <cstring>

#include "debug.h"
#include "dhcp6snoop_msg.h"
#include "frame_edit.h"
#include "protocol.h"
#include "wire.h"

static constexpr uint32_t VLAN_NONE = 4096; // in the trace, "no service VLAN"

// Which lengths of an option are taken; of the others it is complained, and the option is skipped.
struct LengthRule {
    bool (*fits)(uint32_t length);
    const char *complaint;
};
static constexpr LengthRule ANY = {[](uint32_t) { return true; }, nullptr};
static constexpr LengthRule NOT_ZERO = {[](uint32_t length) { return length != 0; },
                                        "[DHCPSNOOP] option60 length must be larger than 1 octets.\r\n"};
static constexpr LengthRule ONE = {[](uint32_t length) { return length == 1; },
                                   "[DHCPSNOOP] Option length must be 1 octets.\r\n"};
static constexpr LengthRule FOUR = {[](uint32_t length) { return length == 4; },
                                    "[DHCPSNOOP] Option length must be 4 octets.\r\n"};
static constexpr LengthRule MULTIPLE_OF_FOUR = {
    [](uint32_t length) { return length % 4 == 0; },
    "[DHCPSNOOP] Option length must always be a multiple of 4.\r\n"};

static void client_ip_take(DhcpsnoopPktInfo *info, const uint8_t *address)
{
    if (wire_get32(address) != 0)
        std::memcpy(info->clientIp, address, sizeof info->clientIp);
}

struct OptionRule {
    uint8_t code;
    const LengthRule *length;
    void (*record)(DhcpsnoopPktInfo *info, uint8_t *option);
};

// Kept: a router option of length 0 passes, and the four bytes that follow it are read.
// clang-format off
static constexpr OptionRule OPTION_RULES[] = {
    {DHCP_OPT_ROUTER,       &MULTIPLE_OF_FOUR, [](DhcpsnoopPktInfo *info, uint8_t *option) { info->router = frame_get32(info, option + OPT_DATA); }},
    {DHCP_OPT_REQUESTED_IP, &FOUR,             [](DhcpsnoopPktInfo *info, uint8_t *option) { client_ip_take(info, option + OPT_DATA); }},
    {DHCP_OPT_LEASE_TIME,   &FOUR,             [](DhcpsnoopPktInfo *info, uint8_t *option) { info->leaseTime = wire_get32(option + OPT_DATA); }},
    {DHCP_OPT_MESSAGE_TYPE, &ONE,              [](DhcpsnoopPktInfo *info, uint8_t *option) { info->msgType = option[OPT_DATA]; }},
    {DHCP_OPT_SERVER_ID,    &FOUR,             [](DhcpsnoopPktInfo *info, uint8_t *option) { info->serverId = wire_get32(option + OPT_DATA); }},
    {DHCP_OPT_VENDOR_CLASS, &NOT_ZERO,         [](DhcpsnoopPktInfo *info, uint8_t *option) { info->opt60 = option; }},
    {DHCP_OPT_BOOT_FILE,    &ANY,              [](DhcpsnoopPktInfo *info, uint8_t *option) { info->opt67 = option; }},
    {DHCP_OPT_RELAY_INFO,   &ANY,              [](DhcpsnoopPktInfo *info, uint8_t *option) { info->opt82 = option; }},
    {DHCP_OPT_VI_VENDOR,    &ANY,              [](DhcpsnoopPktInfo *info, uint8_t *option) { info->opt125 = option; }},
};
// clang-format on

static void option_take(DhcpsnoopPktInfo *info, uint8_t *option)
{
    for (const OptionRule &rule : OPTION_RULES) {
        if (rule.code != *option)
            continue;
        if (rule.length->fits(option[OPT_LEN]))
            rule.record(info, option);
        else
            DEBUG_TRACE("%s", rule.length->complaint);
    }
}

// `consumed` counts the bytes of the area up to and including the code at `at`; it is below `size` whenever a
// byte behind that code is read. An option counts only if at least one byte of the area follows it.
static void options_walk(DhcpsnoopPktInfo *info, uint8_t *area, uint32_t size)
{
    if (size == 0)
        return;
    if (area[0] == DHCP_OPT_END) {
        info->optEnd = area;
        return;
    }

    uint8_t *at = area;
    uint32_t consumed = 1;
    while (consumed < size) {
        if (*at == DHCP_OPT_PAD) {
            at++;
        } else {
            const uint32_t length = at[OPT_LEN];
            consumed += 1 + length;
            if (consumed >= size)
                return;
            option_take(info, at);
            at += OPT_HEADER_LEN + length;
        }
        consumed++;
        if (*at == DHCP_OPT_END) {
            info->optEnd = at;
            return;
        }
    }
}

// Items are not checked against the end of the option.
static void relay_suboptions_walk(DhcpsnoopPktInfo *info)
{
    for (uint32_t offset = 0; offset < info->opt82[OPT_LEN];) {
        uint8_t *item = info->opt82 + OPT_DATA + offset;
        switch (frame_get8(info, item)) {
        case RELAY_SUBOPT_CIRCUIT_ID:
            info->circuitId = item;
            break;
        case RELAY_SUBOPT_REMOTE_ID:
            info->remoteId = item;
            break;
        case RELAY_SUBOPT_VENDOR:
            info->subopt9 = item;
            break;
        default:
            break;
        }
        offset += OPT_HEADER_LEN + frame_get8(info, item + OPT_LEN);
    }
}

// The first inner item with code 1 ends the walk, whatever its length.
static void vendor_class_walk(DhcpsnoopPktInfo *info)
{
    for (uint32_t offset = 0; offset < info->opt60[OPT_LEN];) {
        const uint8_t *item = info->opt60 + OPT_DATA + offset;
        const uint32_t length = frame_get8(info, item + OPT_LEN);
        if (frame_get8(info, item) == 1) {
            if (length == 4)
                info->opt60Sub1 = frame_get32(info, item + OPT_DATA);
            return;
        }
        offset += OPT_HEADER_LEN + length;
    }
}

static int32_t dhcp_message_parse(DhcpsnoopPktInfo *info)
{
    info->dhcpMsg = info->udpHdr + UDP_HEADER_LEN;
    if (info->udpLen < UDP_HEADER_LEN + DHCP_MESSAGE_MIN)
        return DEBUG_REJECT("[DHCPSNOOP] Message (len %d) is too short, stop process!\r\n", info->udpLen);
    info->dhcpLen = info->udpLen - UDP_HEADER_LEN;

    info->chaddr = info->dhcpMsg + DHCP_CHADDR;
    client_ip_take(info, info->dhcpMsg + DHCP_CIADDR);
    client_ip_take(info, info->dhcpMsg + DHCP_YIADDR);
    info->giaddr = wire_get32(info->dhcpMsg + DHCP_GIADDR);

    options_walk(info, info->dhcpMsg + DHCP_OPTIONS, info->dhcpLen - DHCP_OPTIONS);
    if (info->opt82 != nullptr)
        relay_suboptions_walk(info);
    if (info->opt60 != nullptr)
        vendor_class_walk(info);
    return 0;
}

static bool is_dhcp_port(uint16_t port) { return port == DHCP_SERVER_PORT || port == DHCP_CLIENT_PORT; }

static int32_t ipv4_parse(DhcpsnoopPktInfo *info, uint32_t fullParse)
{
    info->ipHdrLen = (info->ipHdr[0] & 0x0Fu) * 4;
    if (info->ipHdrLen < IPV4_HEADER_MIN)
        return DEBUG_REJECT("[DHCPSNOOP] IPv4 header len must be larger than 20!\r\n");
    info->ipTotLen = info->ipHdr + IPV4_TOTAL_LEN;
    const uint32_t totalLen = wire_get16(info->ipTotLen);
    if (totalLen < info->ipHdrLen)
        return DEBUG_REJECT("[DHCPSNOOP] Total len of ip must be larger than header len!\r\n");

    info->srcIp = wire_get32(info->ipHdr + IPV4_SRC);
    info->ipBodyLen = totalLen - info->ipHdrLen;
    // Kept: 16-bit arithmetic. The check of the UDP datagram bounds a length that wraps here.
    const uint32_t needed = (info->ipBodyLen + info->ipHdrLen + info->l2HdrLen) & 0xFFFF;
    if (info->rxLen < needed)
        return DEBUG_REJECT(
            "[DHCPSNOOP] Len checking failed, ethernet header %d, ip header %d, total %d, received %d!\r\n",
            info->l2HdrLen, info->ipHdrLen, needed, info->rxLen);
    info->frameLen = needed;

    if (info->ipHdr[IPV4_PROTOCOL] != IP_PROTO_UDP)
        return DEBUG_REJECT("[DHCPSNOOP] This is not a udp packet!\r\n");
    const size_t udpOffset = size_t{info->l2HdrLen} + info->ipHdrLen;
    if (udpOffset + UDP_HEADER_LEN > DHCPSNOOP_FRAME_MAX)
        return -1;
    info->udpHdr = info->frame + udpOffset;
    if (!is_dhcp_port(wire_get16(info->udpHdr + UDP_SRC_PORT)) &&
        !is_dhcp_port(wire_get16(info->udpHdr + UDP_DST_PORT)))
        return DEBUG_REJECT("[DHCPSNOOP] This is not a dhcp packet!\r\n");
    if (fullParse != 1)
        return 0;

    info->udpLenField = info->udpHdr + UDP_LENGTH;
    info->udpLen = wire_get16(info->udpLenField);
    if (info->udpLen > info->ipBodyLen)
        return DEBUG_REJECT("[DHCPSNOOP] Udp len %d must not exceed ip body len %d!\r\n", info->udpLen,
                            info->ipBodyLen);
    if (udpOffset + info->udpLen > info->rxLen)
        return -1;
    return dhcp_message_parse(info);
}

int32_t dhcpsnoop_packet_parse(DhcpsnoopRxPkt *rxpkt, DhcpsnoopPktInfo *info, uint32_t fullParse)
{
    if (rxpkt == nullptr || info == nullptr)
        return -1;
    *info = {};
    if (rxpkt->etherType != ETHER_TYPE_IPV6 && rxpkt->etherType != ETHER_TYPE_IPV4)
        return DEBUG_REJECT("[DHCPSNOOP] This is not a IPv4 or IPv6 packet, stop process!\r\n");
    info->ethType = rxpkt->etherType;
    info->ifp = rxpkt->inIf;
    info->ifIndex = rxpkt->ifIndex;

    // A single tag reads as the customer's; only the trace sees it so.
    if (rxpkt->innerVid == 0)
        DEBUG_TRACE("[DHCPSNOOP] svlan %d, cvlan %d.\r\n", VLAN_NONE, rxpkt->outerVid);
    else
        DEBUG_TRACE("[DHCPSNOOP] svlan %d, cvlan %d.\r\n", rxpkt->outerVid, rxpkt->innerVid);
    info->svlan = rxpkt->outerVid;
    info->cvlan = rxpkt->innerVid;

    info->frame = rxpkt->data;
    info->frameLen = info->rxLen = std::min(uint32_t{rxpkt->len}, DHCPSNOOP_FRAME_MAX);
    info->dstMac = info->ethHdr = info->frame + ETH_DST;
    info->srcMac = info->frame + ETH_SRC;
    info->l2HdrLen = rxpkt->l2HdrLen;
    if (info->l2HdrLen + IPV4_HEADER_MIN > DHCPSNOOP_FRAME_MAX)
        return -1;
    info->ipHdr = info->frame + info->l2HdrLen;

    // Kept: the version nibble decides, not the EtherType.
    switch (info->ipHdr[0] >> 4) {
    case 4:
        return ipv4_parse(info, fullParse);
    case 6:
        return dhcp6snoop_packet_parse(info, fullParse);
    default:
        return DEBUG_REJECT("[DHCPSNOOP] This is not a IPv4 packet!\r\n");
    }
}
