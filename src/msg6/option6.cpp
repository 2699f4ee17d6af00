// DHCPv6 options 18 (Interface-Id, RFC 8415 21.18) and 37 (Remote-Id, RFC 4649): built, appended to client
// messages, and stripped from replies, with the IPv6 and UDP lengths and the UDP checksum kept true.
#include "dhcp6snoop_msg.h"

#include <algorithm>
#include <cstring>

#include "debug.h"
#include "dhcpsnoop_format.h"
#include "frame_edit.h"
#include "protocol.h"
#include "wire.h"

static constexpr uint32_t DEFAULT_DATA_LEN = 20;
static constexpr uint32_t ENTERPRISE_LEN = 4;
static constexpr uint32_t OPTION_ROOM = 512;

// Kept: more modes are templates here than in option 82.
static bool is_template(uint32_t mode) { return mode == 1 || mode == 2 || mode == DHCPSNOOP_FORMAT_TEMPLATE; }

// Kept: the inner length at 1 says 6, though eight bytes of circuit data follow.
static void default_data(const DhcpsnoopPktInfo *info, uint8_t *out)
{
    uint32_t location[QOR_LOCATION_WORDS] = {};
    qorIndexTrans(&info->ifp->ifIndex, QOR_TRANS_LOCATION, location);
    out[0] = 1;
    out[1] = 6;
    out[2] = 0;
    out[3] = 6;
    wire_put16(out + 4, info->svlan);
    out[6] = static_cast<uint8_t>(location[QOR_LOCATION_SYSTEM]);
    out[7] = static_cast<uint8_t>(location[QOR_LOCATION_SLOT]);
    out[8] = static_cast<uint8_t>(location[QOR_LOCATION_CARD]);
    out[9] = static_cast<uint8_t>(location[QOR_LOCATION_PORT]);
    out[10] = 2;
    out[11] = 8;
    out[12] = 0;
    out[13] = 6;
    std::memcpy(out + 14, info->ifp->mac, sizeof info->ifp->mac);
}

// One of the two options' settings: the interface's, and the global one.
struct Settings {
    uint8_t mode; // 0 = the global one
    const uint8_t *text;
    uint32_t length;
    const DhcpsnoopOptionFormat *fallback;
};

// The option's data at `out`; gives its length, 0 when a template rendered to nothing.
static uint32_t build_data(const DhcpsnoopPktInfo *info, const Settings &settings, uint8_t *out,
                           uint32_t size)
{
    const bool own = settings.mode != 0;
    if (is_template(own ? settings.mode : settings.fallback->mode))
        return dhcpsnoop_format_print(info, own ? settings.text : settings.fallback->text,
                                      own ? settings.length : settings.fallback->len, out, size);
    // The interface's string also when the mode is the global one.
    if (settings.length != 0) {
        std::memcpy(out, settings.text, settings.length);
        return settings.length;
    }
    default_data(info, out);
    return DEFAULT_DATA_LEN;
}

uint32_t dhcp6snoop_construct_opt18(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t size)
{
    if (info == nullptr || buffer == nullptr || info->ifp == nullptr)
        return 0;
    const DhcpsnoopIf *ifp = info->ifp;
    const Settings settings = {ifp->interfaceIdFmt, ifp->interfaceId,
                               std::min(uint32_t{ifp->interfaceIdLen}, DHCPSNOOP_TEXT_MAX),
                               &gDhcpsnoop.interfaceIdFmt};
    wire_put16(buffer + DHCP6_OPT_CODE, DHCP6_OPT_INTERFACE_ID);
    const uint32_t length = build_data(info, settings, buffer + DHCP6_OPT_DATA, size);
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
    const DhcpsnoopIf *ifp = info->ifp;
    const Settings settings = {ifp->remoteId6Fmt, ifp->remoteId6,
                               std::min(uint32_t{ifp->remoteId6Len}, DHCPSNOOP_TEXT_MAX),
                               &gDhcpsnoop.remoteId6Fmt};
    wire_put16(buffer + DHCP6_OPT_CODE, DHCP6_OPT_REMOTE_ID);
    wire_put32(buffer + DHCP6_OPT_DATA, gDhcpsnoop.enterpriseNum);
    // Kept: with a template that renders to nothing, the enterprise number still makes an option.
    const uint32_t length =
        ENTERPRISE_LEN + build_data(info, settings, buffer + DHCP6_OPT_DATA + ENTERPRISE_LEN, size);
    if (info->frameLen + DHCP6_OPT_HEADER_LEN + length > DHCPSNOOP_FRAME_MAX) {
        DEBUG_TRACE("[DHCPSNOOP] Packet len exceeds the max, don't insert option37.\r\n");
        return 0;
    }
    wire_put16(buffer + DHCP6_OPT_LEN, length);
    return DHCP6_OPT_HEADER_LEN + length;
}

// Kept: dhcpLen is not changed by an insert or a strip. RFC 8200 8.1 sends a sum of zero as all ones; here it
// stays 0, as in IPv4, and the receiver discards the datagram.
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

void dhcp6snoop_construct_client_opt(DhcpsnoopPktInfo *info)
{
    if (info == nullptr || info->ifp == nullptr)
        return;
    // Kept: the length is a single byte from here on; of a longer option its low byte's worth is appended.
    if ((info->ifp->flags & DHCPSNOOP_IF_OPTION18) != 0 && info->interfaceIdOpt == nullptr) {
        uint8_t option[OPTION_ROOM] = {};
        const auto length = static_cast<uint8_t>(dhcp6snoop_construct_opt18(info, option, sizeof option));
        DEBUG_TRACE("[DHCPSNOOP] Construct option18, option len %d.\r\n", length);
        if (length != 0) {
            DEBUG_TRACE("[DHCPSNOOP] Insert option18 to packet.\r\n");
            dhcp6snoop_insert_opt(info, option, length);
        }
    }
    if ((info->ifp->flags & DHCPSNOOP_IF_OPTION37) != 0 && info->remoteIdOpt == nullptr) {
        uint8_t option[OPTION_ROOM] = {};
        const auto length = static_cast<uint8_t>(dhcp6snoop_construct_opt37(info, option, sizeof option));
        DEBUG_TRACE("[DHCPSNOOP] Construct option37, option len %d.\r\n", length);
        if (length != 0) {
            DEBUG_TRACE("[DHCPSNOOP] Insert option37 to packet.\r\n");
            dhcp6snoop_insert_opt(info, option, length);
        }
    }
}
