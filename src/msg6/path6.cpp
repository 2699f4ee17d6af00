// DHCPv6 messages on their way. From a client: bindings of the addresses asked for, options 18 and 37, out of
// the trusted ports. From a server: trusted ports only, the client's port found again by its own option,
// bindings confirmed or removed, the options stripped, out of that port or flooded in the VLAN.
#include "dhcp6snoop_msg.h"

#include <algorithm>
#include <cstring>

#include "debug.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_msg.h"
#include "dhcpsnoop_sync.h"
#include "dhcpsnoop_user.h"
#include "frame_edit.h"
#include "protocol.h"
#include "wire.h"

static constexpr uint32_t IA_NA_FIXED = 12, IA_TA_FIXED = 4; // IAID, T1, T2; IAID
static constexpr uint32_t IAADDR_FIXED = 24, IAADDR_VALID_LIFETIME = 20;

// An area of options inside the message: never longer than what is left of the frame.
struct Area {
    uint8_t *start;
    uint32_t size;
};

static uint8_t *find_option(const DhcpsnoopPktInfo *info, Area area, uint32_t code)
{
    const uint32_t left = frame_left(info, area.start);
    if (left < DHCP6_OPT_HEADER_LEN)
        return nullptr;
    return dhcp6snoop_get_opt(area.start, code, std::min(area.size, left));
}

// True when the area has a Status Code option that is long enough.
static bool find_status(const DhcpsnoopPktInfo *info, Area area, uint32_t *status)
{
    const uint8_t *option = find_option(info, area, DHCP6_OPT_STATUS_CODE);
    if (option == nullptr || wire_get16(option + DHCP6_OPT_LEN) < 2 ||
        frame_left(info, option) < DHCP6_OPT_DATA + 2)
        return false;
    *status = wire_get16(option + DHCP6_OPT_DATA);
    return true;
}

static void bind_by_reply(const DhcpsnoopPktInfo *info, DhcpsnoopUser *user, uint32_t validLifetime)
{
    if (user == nullptr || user->userType != DHCPSNOOP_USER_DYNAMIC)
        return;
    user->leaseTime = validLifetime;
    user->leaseStart = info->rxTime;
    user->bindState = DHCPSNOOP_BIND_BOUND;
    dhcpsnoop_user_update_hw(user, 1);
    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_MASTER)
        dhcpsnoop_sync_user_send(user, 1);
}

// `address` is an IAADDR whose fixed part is all there. False ends the processing of the whole message.
static bool address_process(const DhcpsnoopPktInfo *info, uint8_t *address, bool fromClient, uint32_t *status)
{
    const DhcpsnoopUserKey key = dhcpsnoop_user_key(DHCPSNOOP_IPV6, address + DHCP6_OPT_DATA);
    const uint32_t validLifetime = wire_get32(address + DHCP6_OPT_DATA + IAADDR_VALID_LIFETIME);
    DEBUG_TRACE("[DHCPSNOOP] Get ip address %s in IA_ADDR option, valid_time %d.\r\n", address_text(key).text,
                validLifetime);
    if (ipv6_addr_type(key.ipAddr) == IPV6_ADDR_ANY)
        return true;

    DhcpsnoopUser *user = dhcpsnoop_user_lookup(&key);
    // Kept: the status stays set for all later addresses of the message.
    const uint32_t length = wire_get16(address + DHCP6_OPT_LEN);
    find_status(info, {address + DHCP6_OPT_DATA + IAADDR_FIXED, length - IAADDR_FIXED}, status);

    const bool gone = info->msgType == DHCP6_RELEASE || info->msgType == DHCP6_DECLINE;
    if (validLifetime != 0 && *status == 0 && !gone) {
        if (fromClient && (info->msgType == DHCP6_SOLICIT || info->msgType == DHCP6_REQUEST))
            return dhcpsnoop_user_add(&key, user, info) == 0;
        bind_by_reply(info, user, validLifetime);
        return true;
    }
    DEBUG_TRACE("[DHCPSNOOP] Delete user: ip is %s.\r\n", address_text(key).text);
    if (user != nullptr && user->userType == DHCPSNOOP_USER_DYNAMIC)
        dhcpsnoop_user_delete(user);
    return true;
}

// False ends the processing of the whole message.
static bool ia_process(const DhcpsnoopPktInfo *info, uint8_t *ia, bool fromClient, uint32_t *status)
{
    const uint32_t type = wire_get16(ia + DHCP6_OPT_CODE), length = wire_get16(ia + DHCP6_OPT_LEN);
    DEBUG_TRACE("[DHCPSNOOP] IA option type %d, len %d.\r\n", type, length);
    const uint32_t fixed = type == DHCP6_OPT_IA_NA ? IA_NA_FIXED : IA_TA_FIXED;
    const Area inner = {ia + DHCP6_OPT_DATA + fixed, length > fixed ? length - fixed : 0};

    uint32_t iaStatus = 0;
    if (find_status(info, inner, &iaStatus) && iaStatus != 0) {
        DEBUG_TRACE("[DHCPSNOOP] Status code of IA option is not OK!\r\n");
        return true;
    }
    uint8_t *address = find_option(info, inner, DHCP6_OPT_IAADDR);
    if (address == nullptr) {
        DEBUG_TRACE("[DHCPSNOOP] IA_ADDR option doesn't exist!\r\n");
        return true;
    }
    while (address != nullptr) {
        const uint32_t addressLength = wire_get16(address + DHCP6_OPT_LEN);
        if (addressLength >= IAADDR_FIXED) {
            if (frame_left(info, address) < DHCP6_OPT_DATA + IAADDR_FIXED)
                return true;
            if (!address_process(info, address, fromClient, status))
                return false;
        }
        // Kept: the length left is counted from the whole inner area each time, not from where the search
        // stands.
        const uint32_t step = DHCP6_OPT_HEADER_LEN + addressLength;
        if (step >= inner.size || step >= frame_left(info, address))
            return true;
        address = find_option(info, {address + step, inner.size - step}, DHCP6_OPT_IAADDR);
    }
    return true;
}

void dhcp6snoop_process_each_ia_opt(DhcpsnoopPktInfo *info, uint32_t fromClient)
{
    if (info == nullptr)
        return;
    DEBUG_TRACE("[DHCPSNOOP] Process each IA option, total num %d.\r\n", info->iaCount);
    uint32_t status = 0;
    for (uint32_t i = 0; i < std::min(info->iaCount, DHCPSNOOP_IA_MAX); i++) {
        if (!ia_process(info, info->iaOpts[i], fromClient == 1, &status))
            return;
    }
}

static bool asks_for_options(const DhcpsnoopIf *ifp)
{
    return (ifp->flags & (DHCPSNOOP_IF_OPTION18 | DHCPSNOOP_IF_OPTION37)) != 0;
}

void dhcp6snoop_client_packet_recv(DhcpsnoopPktInfo *info)
{
    if (info == nullptr || info->ifp == nullptr)
        return;
    DEBUG_TRACE("[DHCPSNOOP] Process client packet.\r\n");
    const bool onVlanIf = info->ifp->isVlanIf != 0;
    if (onVlanIf && dhcpsnoop_if_lookup(info->ifIndex) != nullptr) {
        DEBUG_TRACE("[DHCPSNOOP] MuxTk discords process the received packet!\r\n");
        return;
    }
    info->chaddr = info->srcMac; // the MAC of a DHCPv6 client is the source of its frame

    switch (info->msgType) {
    case DHCP6_SOLICIT:
    case DHCP6_REQUEST:
    case DHCP6_RELEASE:
    case DHCP6_DECLINE:
        dhcp6snoop_process_each_ia_opt(info, 1);
        break;
    default:
        break;
    }
    if (asks_for_options(info->ifp))
        dhcp6snoop_construct_client_opt(info);

    DEBUG_TRACE("[DHCPSNOOP] Send packet to server.\r\n");
    if (onVlanIf)
        dhcpsnoop_npt_send_to_server(info);
    else
        dhcpsnoop_send_to_server(info);
}

void dhcp6snoop_server_packet_recv(DhcpsnoopPktInfo *info)
{
    if (info == nullptr || info->ifp == nullptr)
        return;
    if (info->ifp->isVlanIf != 0) {
        DEBUG_TRACE("[DHCPSNOOP] MuxTk discords process the received packet!\r\n");
        return;
    }
    DEBUG_TRACE("[DHCPSNOOP] Process server packet!\r\n");
    if ((info->ifp->flags & DHCPSNOOP_IF_TRUSTED) == 0) {
        DEBUG_TRACE("[DHCPSNOOP] Port state is untrust, stop process!\r\n");
        return;
    }

    const DhcpsnoopIf *client = dhcp6snoop_get_if_from_opt(info, DHCP6_OPT_INTERFACE_ID);
    if (client != nullptr && (client->flags & DHCPSNOOP_IF_OPTION18) != 0) {
        DEBUG_TRACE("[DHCPSNOOP] Strip interface id option, client port %d.\r\n", client->ifIndex);
        dhcp6snoop_strip_opt(info, DHCP6_OPT_INTERFACE_ID);
    }
    const DhcpsnoopIf *byRemoteId = dhcp6snoop_get_if_from_opt(info, DHCP6_OPT_REMOTE_ID);
    if (byRemoteId != nullptr && (byRemoteId->flags & DHCPSNOOP_IF_OPTION37) != 0) {
        DEBUG_TRACE("[DHCPSNOOP] Strip remote id option, client port %d.\r\n", byRemoteId->ifIndex);
        dhcp6snoop_strip_opt(info, DHCP6_OPT_REMOTE_ID);
    }
    if (client == nullptr)
        client = byRemoteId;
    if (info->msgType == DHCP6_REPLY)
        dhcp6snoop_process_each_ia_opt(info, 0);

    if (client != nullptr) {
        DEBUG_TRACE("[DHCPSNOOP] Unicast packet to client port.\r\n");
        if ((client->flags & DHCPSNOOP_IF_ROUTER) != 0)
            dhcpsnoop_npt_send_to_client(info, info->svlan);
        else
            dhcpsnoop_send_to_client(info, client, info->svlan);
        return;
    }
    DEBUG_TRACE("[DHCPSNOOP] Broadcast packet to client.\r\n");
    dhcpsnoop_flood(info, info->svlan);
}
