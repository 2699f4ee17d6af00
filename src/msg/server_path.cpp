// A server's reply on its way to the client: accepted on trusted ports only, recorded, its relaying and
// option 82 undone, and sent out of the client's port or flooded in the client's VLAN.
#include "dhcpsnoop_msg.h"

#include <cstring>

#include "debug.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_server.h"
#include "dhcpsnoop_user.h"
#include "frame_edit.h"
#include "protocol.h"
#include "wire.h"

static constexpr uint32_t HOOK_BUFFER_LEN = 256;

// Data of the auto-provisioning hook for an acknowledgement. The length is the room on entry, and the count
// of bytes to insert afterwards.
struct HookBuffer {
    uint8_t bytes[HOOK_BUFFER_LEN] = {};
    QorBuffer buffer = {bytes, HOOK_BUFFER_LEN};
};

// Way of a reply: out of `egress`, or flooded in `vid` when `egress` is null.
struct Destination {
    const DhcpsnoopIf *egress;
    uint32_t vid;
};

static const DhcpsnoopIf *enabled_if(uint32_t ifIndex)
{
    const DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(ifIndex);
    return ifp != nullptr && (ifp->flags & DHCPSNOOP_IF_IN_USE) != 0 ? ifp : nullptr;
}

// Before the trust test: a server behind an untrusted port is learned too.
static void server_learn(const DhcpsnoopPktInfo *info)
{
    if (gDhcpsnoop.serverLearn != 1 || info->serverId == 0)
        return;
    if (dhcpsnoop_server_lookup(info->serverId, info->svlan, info->ifIndex) == nullptr)
        dhcpsnoop_server_add(info->serverId, info->svlan, info->ifIndex);
}

static void find_by_mac_user(const DhcpsnoopPktInfo *info, Destination *to)
{
    if (info->giaddr == 0)
        return;
    const DhcpsnoopMacUser *macUser = dhcpsnoop_mac_user_lookup(info->chaddr);
    if (macUser == nullptr)
        return;
    to->egress = enabled_if(macUser->ifIndex);
    to->vid = macUser->vid;
}

static void bind_and_find(const DhcpsnoopPktInfo *info, HookBuffer *option125, HookBuffer *bootFile,
                          Destination *to)
{
    const DhcpsnoopUser *user = dhcpsnoop_user_update(info, &option125->buffer, &bootFile->buffer);
    if (user == nullptr) {
        find_by_mac_user(info, to);
        return;
    }
    to->vid = user->vid;
    to->egress = enabled_if(user->ifIndex);
}

// Kept: the address family plays no part; only the first dynamic binding of the MAC is considered.
static void unbind_and_find(const DhcpsnoopPktInfo *info, Destination *to)
{
    DhcpsnoopUser *user = dhcpsnoop_user_lookup_dynamic(info->chaddr);
    if (user == nullptr)
        return;
    to->vid = user->vid;
    to->egress = enabled_if(user->ifIndex);
    if (user->serverId == info->serverId)
        dhcpsnoop_user_delete(user);
}

static bool relayed_by_us(const DhcpsnoopPktInfo *info, const DhcpsnoopIf *egress)
{
    if (info->giaddr == 0 || egress->relayAddr != info->giaddr)
        return false;
    for (uint32_t server : egress->serverIp) {
        if (server == info->serverId)
            return true;
    }
    return false;
}

// The reply came to our relay address; the client gets it as if from its own link (RFC 2131 4.1).
static void relay_undo(DhcpsnoopPktInfo *info, const DhcpsnoopIf *egress)
{
    wire_put32(info->ipHdr + IPV4_SRC, egress->relayAddr);
    wire_put16(info->udpHdr + UDP_DST_PORT, DHCP_CLIENT_PORT);
    const bool broadcast = info->msgType == DHCP_NAK ||
                           (wire_get16(info->dhcpMsg + DHCP_FLAGS) & DHCP_FLAG_BROADCAST) != 0 ||
                           wire_get32(info->clientIp) == 0 || info->chaddr == nullptr;
    if (broadcast) {
        std::memset(info->ipHdr + IPV4_DST, 0xFF, 4);
        std::memset(info->dstMac, 0xFF, ETH_ADDR_LEN);
    } else {
        std::memcpy(info->ipHdr + IPV4_DST, info->clientIp, sizeof info->clientIp);
        std::memcpy(info->dstMac, info->chaddr, ETH_ADDR_LEN);
    }
    dhcpsnoop_update_checksum(info, 0, 0);
}

// A remote-id that is not this switch's own is left in place.
static void option82_remove(DhcpsnoopPktInfo *info, const DhcpsnoopIf *egress)
{
    // Kept: the fallback is the global remote-id mode, where clients' frames use the circuit-id's.
    uint32_t mode = dhcpsnoop_flag_get(egress->flags, DHCPSNOOP_IF_MODE);
    if (mode == 0)
        mode = gDhcpsnoop.remoteIdFmt.mode;
    if ((egress->flags & DHCPSNOOP_IF_OPTION82) == 0 || info->remoteId == nullptr ||
        (mode != DHCPSNOOP_FORMAT_TYPED && mode != DHCPSNOOP_FORMAT_RAW))
        return;
    const uint32_t span = dhcpsnoop_remote_id_span(egress, mode);
    if (!frame_holds(info, info->remoteId, span) || info->remoteId + span > frame_message_end(info))
        return;
    if (dhcpsnoop_remote_id_cmp(info->remoteId, egress, mode) == 0)
        dhcpsnoop_strip_option(info);
}

void dhcpsnoop_server_packet_recv(DhcpsnoopPktInfo *info)
{
    if (info == nullptr || info->ifp == nullptr)
        return;
    if (info->ifp->isVlanIf != 0) {
        DEBUG_TRACE("[DHCPSNOOP] Vlan interface do not process the DHCP Reply message!\r\n");
        return;
    }
    server_learn(info);
    if ((info->ifp->flags & DHCPSNOOP_IF_TRUSTED) == 0) {
        info->ifp->counters[DHCPSNOOP_DROP_UNTRUSTED]++;
        DEBUG_TRACE("[DHCPSNOOP] Port is untrust,stop process!\r\n");
        return;
    }

    HookBuffer option125, bootFile;
    Destination to = {nullptr, info->svlan};
    switch (info->msgType) {
    case DHCP_ACK:
        bind_and_find(info, &option125, &bootFile, &to);
        break;
    case DHCP_NAK:
        unbind_and_find(info, &to);
        break;
    default:
        find_by_mac_user(info, &to);
        break;
    }
    if (to.egress == nullptr) {
        DEBUG_TRACE("[DHCPSNOOP] Broadcast packet to client,inport %d,vid %d,len %d.\r\n", info->ifp->ifIndex,
                    to.vid, info->frameLen);
        dhcpsnoop_flood(info, to.vid);
        return;
    }

    if (relayed_by_us(info, to.egress))
        relay_undo(info, to.egress);
    option82_remove(info, to.egress);
    if (info->msgType == DHCP_ACK) {
        // Kept: lengths that nothing filled in are still the room, and both insertions then refuse them as
        // invalid.
        if (bootFile.buffer.length != 0)
            dhcpsnoop_insert_opt67(info, bootFile.bytes, bootFile.buffer.length);
        if (option125.buffer.length != 0)
            dhcpsnoop_insert_opt125(info, option125.bytes, option125.buffer.length);
    }
    DEBUG_TRACE("[DHCPSNOOP] Unicast packet to client,outport %d,vid %d,len %d.\r\n", to.egress->ifIndex,
                to.vid, info->frameLen);
    dhcpsnoop_send_to_client(info, to.egress, to.vid);
}
