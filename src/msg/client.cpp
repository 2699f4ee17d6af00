// A client's message on its way to the servers: vetted against the protections of its interface, recorded in
// the binding and MAC-user tables, given option 82, and relayed by UDP or forwarded out of the trusted ports.
#include "dhcpsnoop_msg.h"

#include <cstring>

#include "debug.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_user.h"
#include "protocol.h"
#include "wire.h"

static bool source_mac_matches(const DhcpsnoopPktInfo *info)
{
    if ((info->ifp->flags & DHCPSNOOP_IF_CHECK_MAC) == 0)
        return true;
    if (info->chaddr != nullptr && std::memcmp(info->srcMac, info->chaddr, ETH_ADDR_LEN) == 0)
        return true;
    info->ifp->counters[DHCPSNOOP_DROP_SOURCE_MAC]++;
    DEBUG_TRACE("[DHCPSNOOP] Source mac in pkt %s and client mac %s don't match,stop process!\r\n",
                mac_text(info->srcMac).text, mac_text(info->chaddr).text);
    return false;
}

// An IPv4 frame whose IP header says version 6 comes here too; its message may be shorter than a BOOTP
// header, and then has neither the ciaddr to check nor the giaddr to write.
static bool has_bootp_header(const DhcpsnoopPktInfo *info) { return info->dhcpLen >= DHCP_MESSAGE_MIN; }

// A renewal or rebinding carries its address in ciaddr; a first request does not and is not checked.
static bool binding_check_applies(const DhcpsnoopPktInfo *info)
{
    if ((info->ifp->flags & DHCPSNOOP_IF_CHECK_BINDING) == 0)
        return false;
    if (info->msgType == DHCP_REQUEST)
        return wire_get32(info->dhcpMsg + DHCP_CIADDR) != 0;
    return info->msgType == DHCP_RELEASE;
}

static bool binding_matches(const DhcpsnoopPktInfo *info, const DhcpsnoopUser *user,
                            DhcpsnoopClientPlace place)
{
    if (!binding_check_applies(info))
        return true;
    DEBUG_TRACE("[DHCPSNOOP] Check user bind entry.\r\n");
    if (user == nullptr || user->userType != DHCPSNOOP_USER_DYNAMIC)
        return true;
    if (wire_get32(info->clientIp) == info->srcIp && dhcpsnoop_user_is_at(user, info->chaddr, place))
        return true;
    info->ifp->counters[DHCPSNOOP_DROP_BINDING]++;
    DEBUG_TRACE("[DHCPSNOOP] User entry information mismatch, stop process!\r\n");
    return false;
}

static bool relaying(const DhcpsnoopPktInfo *info) { return info->giaddr == 0 && info->ifp->relayAddr != 0; }

static void dynamic_user_delete(DhcpsnoopUser *user)
{
    if (user != nullptr && user->userType == DHCPSNOOP_USER_DYNAMIC)
        dhcpsnoop_user_delete(user);
}

// Gives false when the frame goes no further.
static bool bindings_follow(const DhcpsnoopPktInfo *info, const DhcpsnoopUserKey *key, DhcpsnoopUser *user)
{
    DhcpsnoopMacUser *macUser = nullptr;
    if (relaying(info)) {
        macUser = dhcpsnoop_mac_user_lookup(info->chaddr);
        if (macUser == nullptr && user == nullptr) {
            macUser = dhcpsnoop_mac_user_add(info);
            if (macUser == nullptr) {
                DEBUG_TRACE("[DHCPSNOOP] Failed to add mac user entry, stop process!\r\n");
                return false;
            }
        }
    }

    switch (info->msgType) {
    case DHCP_REQUEST:
        dhcpsnoop_mac_user_delete(macUser);
        return dhcpsnoop_user_add(key, user, info) == 0;
    case DHCP_DECLINE:
    case DHCP_RELEASE:
        dynamic_user_delete(user);
        dhcpsnoop_mac_user_delete(macUser);
        return true;
    default:
        return true;
    }
}

// Only the DHCP message leaves: the kernel builds the headers, so the headers of the frame are not updated.
static void relay(const DhcpsnoopPktInfo *info)
{
    if (!has_bootp_header(info))
        return;
    const uint32_t relayAddr = info->ifp->relayAddr;
    wire_put32(info->dhcpMsg + DHCP_GIADDR, relayAddr);
    DEBUG_TRACE("[DHCPSNOOP] Giaddr is zero, set giaddr to %s.\r\n", ipv4_text(relayAddr).text);
    for (uint32_t server : info->ifp->serverIp) {
        if (server != 0)
            dhcpsnoop_udp_socket_send(info, relayAddr, server);
    }
}

void dhcpsnoop_client_packet_recv(DhcpsnoopPktInfo *info)
{
    if (info == nullptr || info->ifp == nullptr)
        return;
    const DhcpsnoopClientPlace place = dhcpsnoop_client_place(info);
    const bool onVlanIf = info->ifp->isVlanIf != 0;

    if (onVlanIf && dhcpsnoop_if_lookup(place.ifIndex) != nullptr) {
        DEBUG_TRACE("[DHCPSNOOP] Interface is enable, do not process the received packet!\r\n");
        return;
    }
    if (!source_mac_matches(info))
        return;

    const DhcpsnoopUserKey key = dhcpsnoop_user_key(DHCPSNOOP_IPV4, info->clientIp);
    DhcpsnoopUser *user = dhcpsnoop_user_lookup(&key);

    const bool readsCiaddr =
        (info->ifp->flags & DHCPSNOOP_IF_CHECK_BINDING) != 0 && info->msgType == DHCP_REQUEST;
    if (readsCiaddr && !has_bootp_header(info))
        return;
    if (!binding_matches(info, user, place))
        return;
    if (!bindings_follow(info, &key, user))
        return;
    if ((info->ifp->flags & DHCPSNOOP_IF_OPTION82) != 0 && dhcpsnoop_process_option82(info) != 0)
        return;

    if (relaying(info)) {
        relay(info);
        return;
    }
    DEBUG_TRACE("[DHCPSNOOP] Send packet to server, inport %d, vid %d, len %d.\r\n", place.ifIndex, place.vid,
                info->frameLen);
    if (onVlanIf)
        dhcpsnoop_npt_send_to_server(info);
    else
        dhcpsnoop_send_to_server(info);
}
