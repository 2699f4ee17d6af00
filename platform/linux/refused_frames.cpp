#include "refused_frames.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "dhcp6snoop_msg.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_msg.h"
#include "dhcpsnoop_user.h"
#include "list.h"
#include "model.h"
#include "protocol.h"
#include "refusals.h"
#include "taken_frame.h"
#include "vlan_bridge.h"
#include "wire.h"

namespace platform_linux
{
namespace
{

constexpr uint32_t IA_NA_FIXED = 12, IA_TA_FIXED = 4; // IAID, T1, T2; IAID
constexpr uint32_t IAADDR_FIXED = 24, IAADDR_VALID_LIFETIME = 20;

void count(Refused reason, uint32_t ifIndex)
{
    const Port *port = model_port(ifIndex);
    refusal_count(reason, port != nullptr ? port->name : "");
}

// As the loop finds it.
DhcpsnoopIf *interface_of(const DhcpsnoopRxPkt &packet)
{
    if (DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(packet.ifIndex); ifp != nullptr)
        return ifp;
    const uint32_t vlanInterface = model_vlan_interface(packet.outerVid);
    return vlanInterface != 0 ? dhcpsnoop_if_lookup(vlanInterface) : nullptr;
}

// The interface whose limit a client's binding would break, null for none.
const DhcpsnoopIf *limiting(const DhcpsnoopPktInfo &info)
{
    const DhcpsnoopIf *interfaces[] = {info.ifp, nullptr};
    if (info.ifp->isVlanIf == 0)
        interfaces[1] = dhcpsnoop_if_lookup_by_vid(info.svlan);
    for (const DhcpsnoopIf *ifp : interfaces)
        if (ifp != nullptr && ifp->curUser >= ifp->maxUser)
            return ifp;
    return nullptr;
}

bool table_full() { return list_empty(&gDhcpsnoop.userFreeList); }

// The daemon has no binding of an address that a client asked for.
bool count_unbound(const DhcpsnoopPktInfo &info)
{
    const DhcpsnoopIf *limit = limiting(info);
    if (limit != nullptr)
        count(Refused::usersLimit, limit->ifIndex);
    else if (table_full())
        count(Refused::bindingsFull, info.ifIndex);
    else
        return false;
    return true;
}

// Whether the frame could leave by another port. A port that is down or blocked takes none.
bool has_way_out(const DhcpsnoopPktInfo &info)
{
    constexpr uint32_t BOTH = DHCPSNOOP_IF_IN_USE | DHCPSNOOP_IF_TRUSTED;
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        const Port *port = (ifp->flags & BOTH) == BOTH ? model_port(ifp->ifIndex) : nullptr;
        if (port != nullptr && ifp->ifIndex != info.ifIndex && port->sends(info.svlan) &&
            vlan_is_of(info.svlan, port->bridge))
            return true;
    }
    return false;
}

void count_no_way_out(const DhcpsnoopPktInfo &info, const TakenFrame &frame)
{
    if (!frame.leaves && !has_way_out(info))
        count(Refused::noTrustedPort, info.ifIndex);
}

// Whether the message has passed the checks of its interface, by the entry of its address as it is now.
bool passed_checks(const DhcpsnoopPktInfo &info, const DhcpsnoopUser *user)
{
    const uint32_t flags = info.ifp->flags;
    if ((flags & DHCPSNOOP_IF_CHECK_MAC) != 0 && memcmp(info.srcMac, info.chaddr, ETH_ADDR_LEN) != 0)
        return false;
    const bool follows = info.msgType == DHCP_REQUEST || info.msgType == DHCP_RELEASE;
    return (flags & DHCPSNOOP_IF_CHECK_BINDING) == 0 || !follows || user == nullptr ||
           user->userType != DHCPSNOOP_USER_DYNAMIC ||
           (info.msgType == DHCP_REQUEST &&
            dhcpsnoop_user_is_at(user, info.chaddr, dhcpsnoop_client_place(&info)));
}

void look4(const DhcpsnoopPktInfo &info, const TakenFrame &frame)
{
    const DhcpsnoopUserKey key = dhcpsnoop_user_key(DHCPSNOOP_IPV4, info.clientIp);
    const DhcpsnoopUser *user = dhcpsnoop_user_lookup(&key);
    if (info.dhcpMsg[DHCP_OP] == BOOTREPLY)
        count(Refused::untrusted, info.ifIndex);
    if (info.dhcpMsg[DHCP_OP] != BOOTREQUEST)
        return;
    if (!passed_checks(info, user)) {
        count(Refused::clientChecks, info.ifIndex);
        return;
    }
    if (info.msgType == DHCP_REQUEST && user == nullptr && count_unbound(info))
        return;
    if (info.giaddr != 0 || info.ifp->relayAddr == 0) {
        count_no_way_out(info, frame);
        return;
    }
    if (user == nullptr && table_full() && dhcpsnoop_mac_user_lookup(info.chaddr) == nullptr)
        count(Refused::bindingsFull, info.ifIndex);
    else if (std::ranges::all_of(info.ifp->serverIp, [](uint32_t server) { return server == 0; }))
        count(Refused::noRelayServer, info.ifp->ifIndex);
}

// Whether an address that the IA asks for has no binding. The parser has found the IA's header in the frame.
bool asks_unbound(const DhcpsnoopPktInfo &info, const uint8_t *ia)
{
    const uint8_t *area = ia + DHCP6_OPT_DATA;
    const auto left = static_cast<uint32_t>(info.frame + std::min(info.frameLen, DHCPSNOOP_FRAME_MAX) - area);
    const uint32_t length = std::min<uint32_t>(wire_get16(ia + DHCP6_OPT_LEN), left);
    uint32_t at = wire_get16(ia + DHCP6_OPT_CODE) == DHCP6_OPT_IA_NA ? IA_NA_FIXED : IA_TA_FIXED;
    while (at + DHCP6_OPT_HEADER_LEN <= length) {
        const uint8_t *option = area + at, *data = option + DHCP6_OPT_DATA;
        const uint32_t size = wire_get16(option + DHCP6_OPT_LEN);
        at += DHCP6_OPT_HEADER_LEN + size;
        if (wire_get16(option + DHCP6_OPT_CODE) != DHCP6_OPT_IAADDR || size < IAADDR_FIXED || at > length ||
            wire_get32(data + IAADDR_VALID_LIFETIME) == 0)
            continue;
        const DhcpsnoopUserKey key = dhcpsnoop_user_key(DHCPSNOOP_IPV6, data);
        if (ipv6_addr_type(key.ipAddr) != IPV6_ADDR_ANY && dhcpsnoop_user_lookup(&key) == nullptr)
            return true;
    }
    return false;
}

// A message whose binding is refused is forwarded all the same.
void look6(const DhcpsnoopPktInfo &info, const TakenFrame &frame)
{
    switch (info.msgType) {
    case DHCP6_ADVERTISE:
    case DHCP6_REPLY:
    case DHCP6_RECONFIGURE:
        count(Refused::untrusted, info.ifIndex);
        return;
    case DHCP6_SOLICIT:
    case DHCP6_REQUEST:
        if (std::any_of(info.iaOpts, info.iaOpts + std::min(info.iaCount, DHCPSNOOP_IA_MAX),
                        [&info](const uint8_t *ia) { return asks_unbound(info, ia); }))
            count_unbound(info);
        break;
    default:
        break;
    }
    count_no_way_out(info, frame);
}

// The daemon's own parser, silent.
bool parse(DhcpsnoopRxPkt &packet, DhcpsnoopPktInfo &info)
{
    const uint8_t traces = std::exchange(gDhcpsnoop.debugFlags, uint8_t{0});
    const bool parsed = dhcpsnoop_packet_parse(&packet, &info, 1) == 0;
    gDhcpsnoop.debugFlags = traces;
    return parsed;
}

void look(TakenFrame &frame)
{
    DhcpsnoopRxPkt &packet = frame.packet;
    const bool ipv6 = packet.etherType == ETHER_TYPE_IPV6;
    if (frame.leaves && !ipv6)
        return;
    packet.inIf = interface_of(packet);
    if (packet.inIf == nullptr || (packet.inIf->flags & DHCPSNOOP_IF_TRUSTED) != 0)
        return;
    const uint32_t version = dhcpsnoop_flag_get(packet.inIf->flags, DHCPSNOOP_IF_VERSION);
    DhcpsnoopPktInfo info;
    if ((version & (ipv6 ? DHCPSNOOP_IPV6 : DHCPSNOOP_IPV4)) == 0 || !parse(packet, info) ||
        info.ipHdr[0] >> 4 != (ipv6 ? 6 : 4))
        return;
    info.chaddr = ipv6 ? info.srcMac : info.chaddr;
    if (ipv6 && frame.leaves && limiting(info) == nullptr && !table_full())
        return;
    if (ipv6)
        look6(info, frame);
    else
        look4(info, frame);
}

} // namespace

void refused_frames_count()
{
    for (TakenFrame &frame : takenFrames)
        if (std::exchange(frame.isNew, false))
            look(frame);
    latestFrame = nullptr;
    refusals_log();
}

} // namespace platform_linux
