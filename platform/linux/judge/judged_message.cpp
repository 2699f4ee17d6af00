// RFC 2131 2, RFC 2132, RFC 8415 8, 21.
#include "judged_message.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_user.h"
#include "keyed_hash.h"
#include "protocol.h"
#include "wire.h"

namespace platform_linux
{
namespace
{

constexpr uint32_t DHCP_XID = 4;
constexpr uint8_t OPT_OVERLOAD = 52, OPT_CLIENT_ID = 61, OPT_RAPID_COMMIT = 80; // RFC 2132, RFC 4039
constexpr uint16_t OPT6_CLIENT_ID = 1, OPT6_RAPID_COMMIT = 14;
constexpr uint32_t IA_NA_FIXED = 12, IA_TA_FIXED = 4; // IAID, T1, T2; IAID
constexpr uint32_t IAADDR_FIXED = 24, IAADDR_VALID_LIFETIME = 20;

void name(JudgedMessage &message, uint8_t family, const uint8_t *address, uint32_t lease, bool ends)
{
    const DhcpsnoopUserKey key = dhcpsnoop_user_key(family, address);
    static constexpr uint8_t NONE[16] = {};
    const auto named = std::span(message.named).first(message.count);
    const auto isSame = [&key](const NamedAddress &other) {
        return memcmp(&other.key, &key, sizeof key) == 0;
    };
    if (memcmp(key.ipAddr, NONE, sizeof NONE) != 0 && std::ranges::none_of(named, isSame) &&
        message.count < NAMED_MAX)
        message.named[message.count++] = {key, lease, ends};
}

// A message type or an address that stands twice, or in the fields for names (option overload), is one thing
// to the daemon and may be another to the server.
void read_options4(JudgedMessage &message, uint64_t hashKey)
{
    const DhcpsnoopPktInfo &info = *message.info;
    const uint8_t *area = info.dhcpMsg + DHCP_OPTIONS;
    const uint32_t size = info.dhcpLen - DHCP_OPTIONS;
    uint32_t types = 0, addresses = 0;
    for (uint32_t at = 0; at < size && area[at] != DHCP_OPT_END;) {
        if (area[at] == DHCP_OPT_PAD) {
            at++;
            continue;
        }
        if (at + OPT_HEADER_LEN > size || area[at + OPT_LEN] > size - at - OPT_HEADER_LEN)
            return;
        const uint8_t *data = area + at + OPT_DATA, length = area[at + OPT_LEN];
        switch (area[at]) {
        case DHCP_OPT_MESSAGE_TYPE:
            types++;
            break;
        case DHCP_OPT_REQUESTED_IP:
            addresses++;
            break;
        case OPT_OVERLOAD:
            message.unambiguous = false;
            break;
        case OPT_CLIENT_ID:
            message.clientId = KeyedHash(hashKey).add(data, length).value();
            break;
        case OPT_RAPID_COMMIT:
            message.rapid = true;
            break;
        default:
            break;
        }
        at += OPT_HEADER_LEN + length;
    }
    message.unambiguous = message.unambiguous && types < 2 && addresses < 2;
}

bool read4(JudgedMessage &message, uint64_t hashKey)
{
    const DhcpsnoopPktInfo &info = *message.info;
    if (info.dhcpLen < DHCP_MESSAGE_MIN || info.chaddr == nullptr)
        return false;
    const uint8_t op = info.dhcpMsg[DHCP_OP];
    if (op != BOOTREQUEST && op != BOOTREPLY)
        return false;
    message.isReply = op == BOOTREPLY;
    std::copy_n(info.chaddr, ETH_ADDR_LEN, message.host.mac.begin());
    message.transaction = KeyedHash(hashKey)
                              .add(DHCPSNOOP_IPV4)
                              .add(wire_get32(info.dhcpMsg + DHCP_XID))
                              .add(info.chaddr, ETH_ADDR_LEN)
                              .value();
    read_options4(message, hashKey);
    // The daemon acts on the last of them; a server may act on another.
    if (!message.isReply)
        for (const uint32_t at : {DHCP_CIADDR, DHCP_YIADDR})
            name(message, DHCPSNOOP_IPV4, info.dhcpMsg + at, 0, false);
    name(message, DHCPSNOOP_IPV4, info.clientIp, info.leaseTime, false);
    return true;
}

struct Option6 {
    uint16_t code;
    const uint8_t *data;
    uint32_t length;
};

// Calls `take` for each option; false when they do not fill the area. `slack` bytes may be left.
template <class Take> bool each_option6(const uint8_t *area, uint32_t size, uint32_t slack, Take take)
{
    uint32_t at = 0;
    while (size - at >= DHCP6_OPT_HEADER_LEN) {
        const uint32_t length = wire_get16(area + at + DHCP6_OPT_LEN);
        if (length > size - at - DHCP6_OPT_HEADER_LEN)
            return false;
        take(Option6{wire_get16(area + at + DHCP6_OPT_CODE), area + at + DHCP6_OPT_DATA, length});
        at += DHCP6_OPT_HEADER_LEN + length;
    }
    return size - at <= slack;
}

bool has_failed(const Option6 &option)
{
    return option.code == DHCP6_OPT_STATUS_CODE && option.length >= 2 && wire_get16(option.data) != 0;
}

// `failed` is a status that was found, and stays for later addresses, as the daemon has it.
void read_ia(JudgedMessage &message, const Option6 &ia, bool &failed)
{
    const uint32_t fixed = ia.code == DHCP6_OPT_IA_NA ? IA_NA_FIXED : IA_TA_FIXED;
    if (ia.length < fixed)
        return;
    const uint8_t *area = ia.data + fixed;
    bool isRefused = false;
    const bool fills = each_option6(area, ia.length - fixed, 0, [&isRefused](const Option6 &option) {
        isRefused = isRefused || has_failed(option);
    });
    message.unambiguous = message.unambiguous && fills;
    if (isRefused && message.isReply)
        return;
    each_option6(area, ia.length - fixed, 0, [&](const Option6 &option) {
        if (option.code != DHCP6_OPT_IAADDR || option.length < IAADDR_FIXED)
            return;
        each_option6(option.data + IAADDR_FIXED, option.length - IAADDR_FIXED, 0,
                     [&failed](const Option6 &inner) { failed = failed || has_failed(inner); });
        const uint32_t lease = wire_get32(option.data + IAADDR_VALID_LIFETIME);
        name(message, DHCPSNOOP_IPV6, option.data, lease, failed || lease == 0);
    });
}

bool read6(JudgedMessage &message, uint64_t hashKey)
{
    const DhcpsnoopPktInfo &info = *message.info;
    const auto start = static_cast<uint32_t>(info.dhcpMsg + DHCP6_OPTIONS - info.frame);
    if (info.frameLen > DHCPSNOOP_FRAME_MAX || start > info.frameLen)
        return false;
    message.isReply =
        message.type == DHCP6_ADVERTISE || message.type == DHCP6_REPLY || message.type == DHCP6_RECONFIGURE;
    std::copy_n(info.srcMac, ETH_ADDR_LEN, message.host.mac.begin());
    bool failed = false;
    const auto take = [&](const Option6 &option) {
        switch (option.code) {
        case OPT6_CLIENT_ID:
            message.clientId = KeyedHash(hashKey).add(option.data, option.length).value();
            break;
        case OPT6_RAPID_COMMIT:
            message.rapid = true;
            break;
        case DHCP6_OPT_IAADDR: // the daemon may read it as a part of the IA in front
            message.unambiguous = false;
            break;
        case DHCP6_OPT_IA_NA:
        case DHCP6_OPT_IA_TA:
            read_ia(message, option, failed);
            break;
        default:
            break;
        }
    };
    const bool fills =
        each_option6(info.frame + start, info.frameLen - start, DHCP6_OPT_HEADER_LEN - 1, take);
    message.unambiguous = message.unambiguous && fills;
    message.transaction = KeyedHash(hashKey)
                              .add(DHCPSNOOP_IPV6)
                              .add(wire_get32(info.dhcpMsg) & 0xFFFFFF)
                              .add(message.clientId)
                              .value();
    return true;
}

// Frames that the daemon drops for another reason.
bool daemon_drops(const JudgedMessage &message)
{
    const DhcpsnoopPktInfo &info = *message.info;
    if (message.isReply)
        return !message.trusted;
    if (info.ifp->isVlanIf != 0 && dhcpsnoop_if_lookup(info.ifIndex) != nullptr)
        return true;
    return !message.ipv6 && (info.ifp->flags & DHCPSNOOP_IF_CHECK_MAC) != 0 &&
           memcmp(info.srcMac, info.chaddr, ETH_ADDR_LEN) != 0;
}

} // namespace

bool judged_message_read(const DhcpsnoopPktInfo &info, uint64_t hashKey, JudgedMessage &message)
{
    if (info.ifp == nullptr)
        return false;
    const DhcpsnoopClientPlace place = dhcpsnoop_client_place(&info);
    message.info = &info;
    message.ipv6 = info.ethType == ETHER_TYPE_IPV6;
    message.trusted = info.ifp->isVlanIf == 0 && (info.ifp->flags & DHCPSNOOP_IF_TRUSTED) != 0;
    message.unambiguous = true;
    message.isReply = message.rapid = false;
    message.type = info.msgType;
    message.clientId = message.count = 0;
    message.host.place = {place.ifIndex, place.vid};
    if (info.ipHdr[0] >> 4 != (message.ipv6 ? 6 : 4))
        return false;
    return (message.ipv6 ? read6(message, hashKey) : read4(message, hashKey)) && !daemon_drops(message);
}

} // namespace platform_linux
