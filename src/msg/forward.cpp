// The senders: a processed frame out of the ports it belongs to, tagged as each port wants it, or its DHCP
// message by UDP to a server. One copy per egress port in a fixed buffer; a failed send is reported and the
// next port tried.
#include "dhcpsnoop_msg.h"

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/uio.h>

#include "debug.h"
#include "dhcpsnoop_if_table.h"
#include "list.h"
#include "protocol.h"
#include "wire.h"

static constexpr uint32_t TAGGED_MIN = 16; // shortest frame with a tag to look at
static constexpr uint8_t PACKET_TYPE = 2;
static constexpr uint32_t MEMBER_LIST_LEN = 256;

static_assert(sizeof(sockaddr_ll) == 20);

// A frame as it leaves one port.
struct Outgoing {
    uint8_t bytes[DHCPSNOOP_FRAME_MAX + VLAN_TAG_LEN];
    uint32_t length;
};

static int32_t port_query(uint32_t ifIndex, uint32_t attribute, uint32_t vid)
{
    // The platform's record may be longer than its known part.
    alignas(8) struct {
        SysIfQuery query;
        uint8_t rest[224];
    } buffer = {};
    buffer.query.vid = vid;
    return sysIFGet(ifIndex, attribute, &buffer);
}

static bool router_mode(const DhcpsnoopIf *ifp) { return (ifp->flags & DHCPSNOOP_IF_ROUTER) != 0; }

static bool enabled(const DhcpsnoopIf *ifp) { return (ifp->flags & DHCPSNOOP_IF_IN_USE) != 0; }

static uint32_t port_tpid(uint32_t ifIndex)
{
    uint32_t tpid = 0;
    qorIfGetApi(ifIndex, QOR_IF_TPID, &tpid);
    return tpid;
}

static uint32_t port_tpid_traced(uint32_t ifIndex)
{
    const uint32_t tpid = port_tpid(ifIndex);
    DEBUG_TRACE("[DHCPSNOOP] TPID of this interface is 0x%0x.\r\n", tpid);
    return tpid;
}

// How an egress port wants the frame.
struct PortTagging {
    uint32_t tpid;
    bool untagged; // the port sends the VLAN untagged
    uint32_t vid;  // of a tag that is added
    bool renumber; // a tag that is kept gets `vid` too
};

// `tpid` as the platform gave it. A routed port is not asked: it sends without a tag.
static PortTagging tagging(uint32_t ifIndex, uint32_t tpid, bool routed, uint32_t vid, bool renumber)
{
    return {tpid != 0 ? tpid : TPID_8021Q, routed || port_query(ifIndex, QOR_SYS_UNTAGGED, vid) != 0, vid,
            renumber};
}

static bool frame_for_port(const DhcpsnoopPktInfo *info, const PortTagging &port, Outgoing *out)
{
    if (info->frameLen < TAGGED_MIN)
        return false;
    const uint8_t *frame = info->frame;
    const bool tagged = wire_get16(frame + ETH_TYPE) == port.tpid;

    if (port.untagged && tagged) {
        std::memcpy(out->bytes, frame, ETH_TYPE);
        std::memcpy(out->bytes + ETH_TYPE, frame + ETH_TYPE + VLAN_TAG_LEN,
                    info->frameLen - ETH_TYPE - VLAN_TAG_LEN);
        out->length = info->frameLen - VLAN_TAG_LEN;
        return true;
    }
    if (!port.untagged && !tagged) {
        std::memcpy(out->bytes, frame, ETH_TYPE);
        wire_put16(out->bytes + ETH_TYPE, port.tpid);
        wire_put16(out->bytes + VLAN_TCI, port.vid);
        std::memcpy(out->bytes + ETH_TYPE + VLAN_TAG_LEN, frame + ETH_TYPE, info->frameLen - ETH_TYPE);
        out->length = info->frameLen + VLAN_TAG_LEN;
        return true;
    }
    std::memcpy(out->bytes, frame, info->frameLen);
    out->length = info->frameLen;
    if (tagged && port.renumber)
        wire_put16(out->bytes + VLAN_TCI, port.vid);
    return true;
}

static bool send_frame(const DhcpsnoopPktInfo *info, uint32_t ifIndex, const Outgoing &out)
{
    debug_dump(out.bytes, out.length);
    sockaddr_ll to = {};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(static_cast<uint16_t>(info->ethType));
    to.sll_ifindex = static_cast<int>(ifIndex);
    to.sll_pkttype = PACKET_TYPE;
    to.sll_halen = ETH_ADDR_LEN;
    std::memcpy(to.sll_addr, info->frame, ETH_ADDR_LEN);
    const int sock = info->ethType == ETHER_TYPE_IPV6 ? gDhcpsnoop.data6Sock : gDhcpsnoop.dataSock;
    return sendto(sock, out.bytes, out.length, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) >= 0;
}

static bool sendable(const DhcpsnoopPktInfo *info)
{
    return info != nullptr && info->frameLen <= DHCPSNOOP_FRAME_MAX;
}

static bool ipv6(const DhcpsnoopPktInfo *info) { return info->ethType == ETHER_TYPE_IPV6; }

static bool trusted_egress(const DhcpsnoopIf *ifp)
{
    return enabled(ifp) && (ifp->flags & DHCPSNOOP_IF_TRUSTED) != 0;
}

// Out of every trusted interface but the one that the frame came in on. A frame on a VLAN interface leaves by
// ports only, and every one of them is asked, routed or not.
static void send_to_servers(const DhcpsnoopPktInfo *info, bool onVlanIf)
{
    if (!sendable(info) || info->ifp == nullptr)
        return;
    const uint32_t ingress = onVlanIf ? info->ifIndex : info->ifp->ifIndex;
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        if (ifp->ifIndex == ingress || (onVlanIf && ifp->isVlanIf != 0) || !trusted_egress(ifp))
            continue;
        const bool routed = !onVlanIf && router_mode(ifp);
        if (!routed && port_query(ifp->ifIndex, QOR_SYS_EXCLUDED, info->svlan) != 0)
            continue;
        Outgoing out;
        if (!frame_for_port(info,
                            tagging(ifp->ifIndex, port_tpid_traced(ifp->ifIndex), routed, info->svlan, false),
                            &out))
            continue;
        DEBUG_TRACE(onVlanIf ? "[DHCPSNOOP] Npt send message to server, len is %d buflen is %d.\r\n"
                             : "[DHCPSNOOP] Send message to server, len is %d buflen is %d.\r\n",
                    info->frameLen, out.length);
        if (send_frame(info, ifp->ifIndex, out))
            continue;
        if (onVlanIf)
            DEBUG_TRACE(ipv6(info) ? "[DHCPSNOOP] Npt send v6 message to server failed!\r\n"
                                   : "[DHCPSNOOP] Npt send message to server failed!\r\n");
        else
            DEBUG_TRACE(ipv6(info) ? "[DHCPSNOOP] Send v6 message to server failed!\r\n"
                                   : "[DHCPSNOOP] Send message to server failed!\r\n");
    }
}

void dhcpsnoop_send_to_server(const DhcpsnoopPktInfo *info) { send_to_servers(info, false); }

void dhcpsnoop_npt_send_to_server(const DhcpsnoopPktInfo *info) { send_to_servers(info, true); }

void dhcpsnoop_send_to_client(const DhcpsnoopPktInfo *info, const DhcpsnoopIf *egress, uint32_t vid)
{
    if (!sendable(info) || egress == nullptr)
        return;
    // Kept: only -1 stops the frame here; the other senders skip a port on any non-zero answer.
    const bool routed = router_mode(egress);
    if (!routed && port_query(egress->ifIndex, QOR_SYS_EXCLUDED, vid) == -1)
        return;
    // Kept: a tag that stays keeps its VLAN even when that is not the client's (a server's reply to our
    // relay); the floods renumber it.
    Outgoing out;
    if (!frame_for_port(info, tagging(egress->ifIndex, port_tpid_traced(egress->ifIndex), routed, vid, false),
                        &out))
        return;
    DEBUG_TRACE("[DHCPSNOOP] Send message to client, len is %d buflen is %d.\r\n", info->frameLen,
                out.length);
    if (!send_frame(info, egress->ifIndex, out))
        DEBUG_TRACE(ipv6(info) ? "[DHCPSNOOP] Send v6 message to client failed!\r\n"
                               : "[DHCPSNOOP] Send message to client failed!\r\n");
}

void dhcpsnoop_broadcast_forwarding(const DhcpsnoopPktInfo *info, uint32_t vid)
{
    if (!sendable(info) || info->ifp == nullptr)
        return;
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        if (ifp->ifIndex == info->ifp->ifIndex || ifp->isVlanIf != 0)
            continue;
        if (!router_mode(ifp) && port_query(ifp->ifIndex, QOR_SYS_EXCLUDED, vid) != 0)
            continue;
        if (!enabled(ifp))
            continue;
        Outgoing out;
        if (!frame_for_port(
                info, tagging(ifp->ifIndex, port_tpid(ifp->ifIndex), false, vid, info->svlan != vid), &out))
            continue;
        DEBUG_TRACE("[DHCPSNOOP] Send broadcast message, len is %d.\r\n", info->frameLen);
        if (!send_frame(info, ifp->ifIndex, out))
            DEBUG_TRACE(ipv6(info) ? "[DHCPSNOOP] Send v6 broadcast message failed!\r\n"
                                   : "[DHCPSNOOP] Send broadcast message failed!\r\n");
    }
}

void dhcpsnoop_npt_send_to_client(const DhcpsnoopPktInfo *info, uint32_t vid)
{
    if (!sendable(info))
        return;
    uint8_t members[MEMBER_LIST_LEN] = {};
    QorBuffer list = {members, sizeof members};
    if (qorVlanGetApi(vid, QOR_VLAN_PORTS, &list) != 0) {
        DEBUG_TRACE("[DHCPSNOOP] No member in vlan %d.\r\n", vid);
        return;
    }
    const uint32_t count = std::min(list.length, MEMBER_LIST_LEN) / 4;
    for (uint32_t i = 0; i < count; i++) {
        uint32_t ifIndex;
        std::memcpy(&ifIndex, members + i * 4, sizeof ifIndex);

        // Kept: every member gets the frame, the port it came in on and ports without snooping among them.
        Outgoing out;
        if (!frame_for_port(info, tagging(ifIndex, port_tpid_traced(ifIndex), false, vid, info->svlan != vid),
                            &out))
            continue;
        DEBUG_TRACE("[DHCPSNOOP] Npt send message to client(port %d), len is %d buflen is %d.\r\n", ifIndex,
                    info->frameLen, out.length);
        if (!send_frame(info, ifIndex, out))
            DEBUG_TRACE(ipv6(info) ? "[DHCPSNOOP] Npt send v6 message to client failed, dest port = %d!\r\n"
                                   : "[DHCPSNOOP] Npt send message to client failed, dest port = %d!\r\n",
                        ifIndex);
    }
}

void dhcpsnoop_flood(const DhcpsnoopPktInfo *info, uint32_t vid)
{
    if (dhcpsnoop_if_lookup_by_vid(vid) != nullptr) {
        dhcpsnoop_npt_send_to_client(info, vid);
        return;
    }
    if (ipv6(info))
        DEBUG_TRACE("[DHCPSNOOP] Vlan %d is disable!\r\n", vid);
    dhcpsnoop_broadcast_forwarding(info, vid);
}

void dhcpsnoop_udp_socket_send(const DhcpsnoopPktInfo *info, uint32_t fromAddr, uint32_t toAddr)
{
    if (info == nullptr)
        return;
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(DHCP_SERVER_PORT);
    to.sin_addr.s_addr = htonl(toAddr);
    iovec vector = {info->dhcpMsg, info->dhcpLen};

    in_pktinfo packetInfo = {};
    packetInfo.ipi_spec_dst.s_addr = htonl(fromAddr);
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof packetInfo)] = {};
    msghdr message = {};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof packetInfo);
    std::memcpy(CMSG_DATA(header), &packetInfo, sizeof packetInfo);

    DEBUG_TRACE("[DHCPSNOOP] Send message from %s to %s, length %d.\r\n", ipv4_text(fromAddr).text,
                ipv4_text(toAddr).text, info->dhcpLen);
    if (sendmsg(gDhcpsnoop.udpSock, &message, 0) < 0)
        DEBUG_TRACE("[DHCPSNOOP] Send message ERROR, no 0x%0x.\r\n", errnoGet());
}
