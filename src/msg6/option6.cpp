// DHCPv6 options 18 (Interface-Id, RFC 8415 21.18) and 37 (Remote-Id, RFC 4649): built, appended to client
// messages, and stripped from replies, with the IPv6 and UDP lengths and the UDP checksum kept true.
#include "dhcp6snoop_msg.h"

#include <algorithm>
#include <cstring>

#include "debug.h"
#include "dhcpsnoop_format.h"
#include "dhcpsnoop_msg.h"
#include "frame_edit.h"
#include "protocol.h"
#include "wire.h"

static constexpr uint32_t OPTION_ROOM = 512;

// Kept: more modes are templates here than in option 82.
bool dhcp6snoop_is_template(uint32_t mode)
{
    return mode == 1 || mode == 2 || mode == DHCPSNOOP_FORMAT_TEMPLATE;
}

// Kept: the inner length at 1 says 6, though eight bytes of circuit data follow.
static void default_data(const DhcpsnoopPktInfo *info, uint8_t *out)
{
    static constexpr uint8_t circuit[] = {1, 6, 0, 6}, remote[] = {2, 8, 0, 6};
    std::memcpy(out, circuit, sizeof circuit);
    dhcpsnoop_circuit_data(info->ifp->ifIndex, info->svlan, out + 4);
    std::memcpy(out + 10, remote, sizeof remote);
    std::memcpy(out + DHCP6_DEFAULT_ID_MAC, info->ifp->mac, sizeof info->ifp->mac);
}

// The option's data at `out`; gives its length, 0 when a template rendered to nothing.
static uint32_t build_data(const DhcpsnoopPktInfo *info, const DhcpsnoopOptionText &option, uint8_t *out,
                           uint32_t size)
{
    if (dhcp6snoop_is_template(option_text_mode(info->ifp, option)))
        return dhcpsnoop_option_print(info, option, out, size);
    // The interface's string also when the mode is the global one.
    const uint32_t length = option_text_length(info->ifp, option);
    if (length != 0) {
        std::memcpy(out, info->ifp->*option.text, length);
        return length;
    }
    default_data(info, out);
    return DHCP6_DEFAULT_ID_LEN;
}

uint32_t dhcp6snoop_construct_opt18(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t size)
{
    if (info == nullptr || buffer == nullptr || info->ifp == nullptr)
        return 0;
    wire_put16(buffer + DHCP6_OPT_CODE, DHCP6_OPT_INTERFACE_ID);
    const uint32_t length = build_data(info, OPTION_TEXT_INTERFACE_ID, buffer + DHCP6_OPT_DATA, size);
    if (length == 0)
        return 0;
    if (info->frameLen + DHCP6_OPT_HEADER_LEN + length > DHCPSNOOP_FRAME_MAX) {
        DEBUG_TRACE("[DHCPSNOOP] Packet len exceeds the max, don't insert option18.\r\n");
        return 0;
    }
    wire_put16(buffer + DHCP6_OPT_LEN, length);
    return DHCP6_OPT_HEADER_LEN + length;
}

uint32_t dhcp6snoop_construct_opt37(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t size)
{
    if (info == nullptr || buffer == nullptr || info->ifp == nullptr)
        return 0;
    wire_put16(buffer + DHCP6_OPT_CODE, DHCP6_OPT_REMOTE_ID);
    wire_put32(buffer + DHCP6_OPT_DATA, gDhcpsnoop.enterpriseNum);
    // Kept: with a template that renders to nothing, the enterprise number still makes an option.
    const uint32_t length =
        DHCP6_ENTERPRISE_LEN +
        build_data(info, OPTION_TEXT_REMOTE_ID6, buffer + DHCP6_OPT_DATA + DHCP6_ENTERPRISE_LEN, size);
    if (info->frameLen + DHCP6_OPT_HEADER_LEN + length > DHCPSNOOP_FRAME_MAX) {
        DEBUG_TRACE("[DHCPSNOOP] Packet len exceeds the max, don't insert option37.\r\n");
        return 0;
    }
    wire_put16(buffer + DHCP6_OPT_LEN, length);
    return DHCP6_OPT_HEADER_LEN + length;
}

// Kept: dhcpLen is not changed by an insert or a strip.
static uint16_t lengths_write(DhcpsnoopPktInfo *info)
{
    wire_put16(info->ipTotLen, info->ipBodyLen);
    wire_put16(info->udpLenField, info->udpLen);
    wire_put16(info->udpHdr + UDP_CHECKSUM, 0);
    const uint16_t checksum = dhcp6snoop_get_udp_checksum(info);
    wire_put16(info->udpHdr + UDP_CHECKSUM, checksum);
    return checksum;
}

void dhcp6snoop_insert_opt(DhcpsnoopPktInfo *info, const uint8_t *option, uint32_t count)
{
    if (info == nullptr || option == nullptr || info->frameLen > DHCPSNOOP_FRAME_MAX ||
        count > DHCPSNOOP_FRAME_MAX - info->frameLen)
        return;
    std::memcpy(info->frame + info->frameLen, option, count);
    info->frameLen += count;
    info->ipBodyLen += count;
    info->udpLen += count;
    lengths_write(info);
}

uint16_t dhcp6snoop_strip_opt(DhcpsnoopPktInfo *info, uint32_t code)
{
    if (info == nullptr || info->udpLenField == nullptr)
        return 0;
    const auto start = static_cast<uint32_t>(info->dhcpMsg - info->frame) + DHCP6_OPTIONS;
    constexpr uint32_t headers = UDP_HEADER_LEN + DHCP6_OPTIONS;
    if (info->udpLen < headers || start > DHCPSNOOP_FRAME_MAX)
        return lengths_write(info);

    const uint32_t size = std::min(info->udpLen - headers, DHCPSNOOP_FRAME_MAX - start);
    const uint8_t *area = info->frame + start;
    uint8_t kept[DHCPSNOOP_FRAME_MAX];
    uint32_t keptLen = 0;
    for (uint32_t offset = 0; offset < size;) {
        const uint32_t left = size - offset;
        const bool whole = left >= DHCP6_OPT_HEADER_LEN;
        const uint32_t length =
            whole ? std::min(left, DHCP6_OPT_HEADER_LEN + wire_get16(area + offset + DHCP6_OPT_LEN)) : left;
        if (!whole || wire_get16(area + offset) != code) {
            std::memcpy(kept + keptLen, area + offset, length);
            keptLen += length;
        }
        offset += length;
    }

    const uint32_t removed = size - keptLen;
    std::memcpy(info->frame + start, kept, keptLen);
    info->frameLen = start + keptLen;
    info->ipBodyLen -= removed;
    info->udpLen -= removed;
    dhcp6snoop_options_find(info);
    return lengths_write(info);
}

// Kept: the length is a single byte from here on; of a longer option its low byte's worth is appended.
static void client_option_append(DhcpsnoopPktInfo *info, bool interfaceId)
{
    uint8_t option[OPTION_ROOM] = {};
    const auto length =
        static_cast<uint8_t>(interfaceId ? dhcp6snoop_construct_opt18(info, option, sizeof option)
                                         : dhcp6snoop_construct_opt37(info, option, sizeof option));
    DEBUG_TRACE(interfaceId ? "[DHCPSNOOP] Construct option18, option len %d.\r\n"
                            : "[DHCPSNOOP] Construct option37, option len %d.\r\n",
                length);
    if (length == 0)
        return;
    DEBUG_TRACE(interfaceId ? "[DHCPSNOOP] Insert option18 to packet.\r\n"
                            : "[DHCPSNOOP] Insert option37 to packet.\r\n");
    dhcp6snoop_insert_opt(info, option, length);
}

void dhcp6snoop_construct_client_opt(DhcpsnoopPktInfo *info)
{
    if (info == nullptr || info->ifp == nullptr)
        return;
    if ((info->ifp->flags & DHCPSNOOP_IF_OPTION18) != 0 && info->interfaceIdOpt == nullptr)
        client_option_append(info, true);
    if ((info->ifp->flags & DHCPSNOOP_IF_OPTION37) != 0 && info->remoteIdOpt == nullptr)
        client_option_append(info, false);
}
