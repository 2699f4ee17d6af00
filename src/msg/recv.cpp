// The one entry of every trapped frame: parsed, checked against the IP versions that its interface snoops,
// traced, and handed to the path of its direction. Of a frame only the records of the paths stay.
#include "dhcpsnoop_msg.h"

#include <ctime>

#include "debug.h"
#include "dhcp6snoop_msg.h"
#include "protocol.h"

static const char *message_type_word(uint32_t type)
{
    static constexpr const char *words[] = {"unknow", "discover", "offer",   "request", "decline",
                                            "ack",    "nak",      "release", "inform"};
    return type < sizeof words / sizeof words[0] ? words[type] : words[0];
}

static bool family_snooped(const DhcpsnoopPktInfo *info)
{
    const uint32_t version = dhcpsnoop_flag_get(info->ifp->flags, DHCPSNOOP_IF_VERSION);
    const bool ipv6 = info->ethType == ETHER_TYPE_IPV6;
    if ((version & (ipv6 ? DHCPSNOOP_IPV6 : DHCPSNOOP_IPV4)) != 0)
        return true;
    // Kept: an interface that snoops neither version is named "IPv6".
    DEBUG_TRACE("[DHCPSNOOP] Interface version %s and packet type %s mismatch!\r\n",
                version == DHCPSNOOP_IPV4 ? "IPv4" : "IPv6", ipv6 ? "IPv6" : "IPv4");
    return false;
}

// Kept: the BOOTP op byte alone decides the direction, not the ports and not the message type.
static void dhcp_dispatch(DhcpsnoopPktInfo *info)
{
    const uint8_t op = info->dhcpMsg[DHCP_OP];
    DEBUG_TRACE("[DHCPSNOOP] Dhcp %s packet, type value %d(%s).\r\n", op == BOOTREQUEST ? "request" : "reply",
                info->msgType & 0xFF, message_type_word(info->msgType & 0xFF));
    if (op == BOOTREQUEST)
        dhcpsnoop_client_packet_recv(info);
    else if (op == BOOTREPLY)
        dhcpsnoop_server_packet_recv(info);
}

static void dhcp6_dispatch(DhcpsnoopPktInfo *info)
{
    DEBUG_TRACE("[DHCPSNOOP] dhcpv6 packet,type is %d.\r\n", info->msgType);
    switch (info->msgType) {
    case DHCP6_ADVERTISE:
    case DHCP6_REPLY:
    case DHCP6_RECONFIGURE:
        dhcp6snoop_server_packet_recv(info);
        break;
    default:
        dhcp6snoop_client_packet_recv(info);
        break;
    }
}

void dhcpsnoop_recv(DhcpsnoopRxPkt *rxpkt)
{
    DEBUG_TRACE("[DHCPSNOOP] Receive a dhcp message, check and process it!\r\n");
    DhcpsnoopPktInfo info;
    if (dhcpsnoop_packet_parse(rxpkt, &info, 1) != 0) {
        DEBUG_TRACE("[DHCPSNOOP] Parse packet error, stop process!\r\n");
        return;
    }
    if (info.ifp == nullptr || !family_snooped(&info))
        return;

    DEBUG_TRACE(
        "[DHCPSNOOP] Receive a packet: interface %d,invlan %d,outvlan %d,received len %d,msg len %d.\r\n",
        info.ifp->ifIndex, info.cvlan, info.svlan, info.rxLen, info.frameLen);
    debug_dump(info.frame, info.rxLen);
    info.rxTime = static_cast<uint32_t>(time(nullptr));
    if (platform_message_judge(&info) != 0) {
        DEBUG_TRACE("[DHCPSNOOP] The platform refuses the message, stop process!\r\n");
        return;
    }

    if (info.ethType == ETHER_TYPE_IPV6)
        dhcp6_dispatch(&info);
    else
        dhcp_dispatch(&info);
    DEBUG_TRACE("[DHCPSNOOP] Process pkt end.\r\n");
}
