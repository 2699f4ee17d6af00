// The loop: one select over the four sockets, the lease scan, then at most one unit of work from each source
// in turn. A frame is received into a fixed buffer, attributed to an interface with snooping, and handed on;
// nothing is queued, retried or allocated, and no error ends the loop.
#include "dhcpsnoop_loop.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/uio.h>

#include "debug.h"
#include "dhcpsnoop_cmd.h"
#include "dhcpsnoop_event.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_msg.h"
#include "dhcpsnoop_sync.h"
#include "dhcpsnoop_timer.h"
#include "protocol.h"
#include "wire.h"

static constexpr time_t SELECT_TIMEOUT = 60;

// Shared by both data sockets and the event socket.
alignas(8) static uint8_t buffer[DHCPSNOOP_FRAME_MAX];
alignas(cmsghdr) static uint8_t control[128];
static sockaddr_ll source;
static iovec vector = {buffer, sizeof buffer};
// Kept: set up once and not reset between calls, so msg_controllen and msg_namelen keep the values that the
// kernel last wrote.
static msghdr message = {&source, sizeof source, &vector, 1, control, sizeof control, 0};

// Kept: a frame that comes without packet information gets the last information seen.
static uint8_t packetInfo[QOR_INFO_LEN];
static bool packetInfoSeen;

static DhcpsnoopRxPkt rxpkt;

// The first control message of level SOL_PACKET that is long enough, whatever its type.
static void packet_info_take(void)
{
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level != SOL_PACKET || c->cmsg_len < CMSG_LEN(QOR_INFO_LEN))
            continue;
        const uint8_t *payload = CMSG_DATA(c);
        if (payload + QOR_INFO_LEN > control + sizeof control)
            return;
        std::memcpy(packetInfo, payload, QOR_INFO_LEN);
        packetInfoSeen = true;
        return;
    }
}

// The port's own entry, else that of the VLAN interface of its VLAN; null drops the frame.
static DhcpsnoopIf *attribute_frame(uint16_t etherType)
{
    DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(wire_get32(packetInfo + QOR_INFO_IFINDEX));
    if (ifp != nullptr)
        return ifp;

    const uint32_t request[7] = {
        0, 0, 0, 0, wire_get16(packetInfo + QOR_INFO_OUTER_VID), QOR_UNIT_VLAN_INTERFACE, 0};
    uint32_t ifIndex = 0;
    if (qorIndexTrans(request, QOR_TRANS_INDEX, &ifIndex) != 0) {
        if (etherType == ETHER_TYPE_IPV4)
            DEBUG_RX("[DHCPSNOOP]: qor index trans error!\r\n");
        else
            DEBUG_RX("[DHCPSNOOP] qor index trans error!\r\n");
        return nullptr;
    }
    return dhcpsnoop_if_lookup(ifIndex);
}

static void frame_process(ssize_t received, uint16_t etherType)
{
    packet_info_take();
    if (!packetInfoSeen) {
        if (etherType == ETHER_TYPE_IPV4)
            DEBUG_RX("[DHCPSNOOP]: rxpktInfo was NULL!\r\n");
        else
            DEBUG_RX("[DHCPSNOOP] rxpktInfo was NULL!");
        return;
    }
    DhcpsnoopIf *ifp = attribute_frame(etherType);
    if (ifp == nullptr)
        return;

    const size_t length = std::min(static_cast<size_t>(received), sizeof buffer);
    rxpkt.valid = 1;
    rxpkt.len = static_cast<uint16_t>(length);
    std::memcpy(rxpkt.data, buffer, length);
    // The bytes behind a shorter frame are never those of an earlier frame.
    std::memset(rxpkt.data + length, 0, sizeof rxpkt.data - length);
    rxpkt.inIf = ifp;
    rxpkt.ifIndex = etherType == ETHER_TYPE_IPV4 ? wire_get32(packetInfo + QOR_INFO_IFINDEX)
                                                 : static_cast<uint32_t>(source.sll_ifindex);
    rxpkt.innerVid = wire_get16(packetInfo + QOR_INFO_INNER_VID);
    rxpkt.outerVid = wire_get16(packetInfo + QOR_INFO_OUTER_VID);
    rxpkt.l2HdrLen = packetInfo[QOR_INFO_L2_LEN];
    rxpkt.etherType = etherType;
    dhcpsnoop_recv(&rxpkt);
}

static void serve_frame(int sock, uint16_t etherType)
{
    const ssize_t received = platform_frame_recv(sock, &message);
    if (received < 0) // a link that went down, an interrupted call: no frame
        return;
    if (received == 0) {
        perror(etherType == ETHER_TYPE_IPV4 ? "[DHCPSNOOP]: recvmsg error len!\r\n"
                                            : "[DHCPSNOOP]: recvmsg error len!");
        return;
    }
    frame_process(received, etherType);
}

static void serve_event(int sock)
{
    sockaddr_nl from = {};
    socklen_t fromLength = sizeof from;
    const ssize_t received =
        platform_event_recv(sock, buffer, sizeof buffer, reinterpret_cast<sockaddr *>(&from), &fromLength);
    if (received == 0)
        perror("[DHCPSNOOP]: recvfrom rt_socket  failed!\r\n ");
    else
        dhcpsnoop_notify_recv(buffer, static_cast<int32_t>(received));
}

static bool watchable(int sock) { return sock > 0 && sock < FD_SETSIZE; }

static bool ready(int sock, const fd_set *set) { return watchable(sock) && FD_ISSET(sock, set); }

void dhcpsnoop_main_pass(void)
{
    fd_set set;
    FD_ZERO(&set);
    int highest = 0;
    for (int sock : {gDhcpsnoop.dataSock, gDhcpsnoop.data6Sock, gDhcpsnoop.cmdSock, gDhcpsnoop.rtSock}) {
        if (!watchable(sock))
            continue;
        FD_SET(sock, &set);
        highest = std::max(highest, sock);
    }

    timeval timeout = {SELECT_TIMEOUT, 0};
    const int selected = select(highest + 1, &set, nullptr, nullptr, &timeout);

    if (dhcpsnoop_running_role_get() != DHCPSNOOP_ROLE_SLAVE)
        dhcpsnoop_user_timer_check();
    if (selected == 0)
        return;

    if (ready(gDhcpsnoop.dataSock, &set))
        serve_frame(gDhcpsnoop.dataSock, ETHER_TYPE_IPV4);
    if (ready(gDhcpsnoop.data6Sock, &set))
        serve_frame(gDhcpsnoop.data6Sock, ETHER_TYPE_IPV6);
    if (ready(gDhcpsnoop.cmdSock, &set))
        dhcpsnoop_cmd_server();
    if (ready(gDhcpsnoop.rtSock, &set))
        serve_event(gDhcpsnoop.rtSock);
}

void dhcpsnoop_main(void)
{
    for (;;)
        dhcpsnoop_main_pass();
}
