// The daemon's packet sockets on a stock kernel: a trapped frame comes from the classifier by way of the
// loopback device, behind the header of guard_maps.h, and goes to the loop as the switch would have handed it
// over, whole, with a true UDP checksum, its VLAN in a priority tag, and the packet information. A frame that
// the switch would not have taken (no port of ours, a VLAN that the port does not receive, longer than the
// loop's buffer) is answered -1, which the loop drops in silence.
#include "platform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/uio.h>

#include "dhcpsnoop_msg.h"
#include "guard.h"
#include "model.h"
#include "platform_numbers.h"
#include "protocol.h"
#include "report.h"
#include "taken_frame.h"
#include "vlan_bridge.h"
#include "wire.h"

namespace platform_linux
{
namespace
{

// One DHCP frame takes 1.3 KiB of it; the kernel's usual 208 KiB are full after 167.
constexpr int RECEIVE_BUFFER = 4 << 20;

constexpr uint32_t TAGS_MAX = 3; // as the classifier: one that the kernel took out, and two behind it
constexpr uint16_t VID_MASK = 0x0FFF;

bool is_tag(uint16_t type) { return type == TPID_8021Q || type == ETH_P_8021AD || type == ETH_P_QINQ1; }

struct Tags {
    uint32_t headerLength; // of the whole layer-2 header
    uint16_t outer, inner; // VLAN ids, 0 = no such tag or a priority tag
};

// False when the layer-2 header does not end inside the frame.
bool read_tags(const uint8_t *frame, size_t length, Tags &tags)
{
    uint16_t vids[TAGS_MAX] = {};
    uint32_t count = 0, at = ETH_TYPE;
    for (; count < TAGS_MAX && at + 2 <= length && is_tag(wire_get16(frame + at)); at += VLAN_TAG_LEN) {
        if (at + VLAN_TAG_LEN > length)
            return false;
        vids[count++] = wire_get16(frame + at + 2) & VID_MASK;
    }
    tags = {at + 2, vids[0], vids[1]};
    return tags.headerLength <= length;
}

// With checksum offload (any veth, any virtual machine) only the sum over the pseudo-header stands in the
// field and nobody finishes it once the frame has left the kernel: clients would ignore the datagram.
// Extension headers are left alone, because the daemon takes no DHCPv6 message behind them.
void complete_udp_checksum(uint8_t *packet, size_t length)
{
    size_t udp = 0;
    if (length >= IPV4_HEADER_MIN && packet[0] >> 4 == 4 && packet[IPV4_PROTOCOL] == IP_PROTO_UDP)
        udp = static_cast<size_t>(packet[0] & 15) * 4;
    else if (length >= IPV6_HEADER_LEN && packet[0] >> 4 == 6 && packet[IPV6_NEXT_HEADER] == IP_PROTO_UDP)
        udp = IPV6_HEADER_LEN;
    if (udp < IPV4_HEADER_MIN || udp + UDP_HEADER_LEN > length)
        return;
    const uint32_t udpLength = wire_get16(packet + udp + UDP_LENGTH);
    if (udpLength < UDP_HEADER_LEN || udp + udpLength > length)
        return;
    const uint16_t sum = checkdhcpsnoopsum(packet + udp, static_cast<int32_t>(udpLength));
    wire_put16(packet + udp + UDP_CHECKSUM, sum != 0 ? sum : 0xFFFF); // RFC 768: zero is sent as all ones
}

bool left_to_offload(msghdr *message)
{
    for (cmsghdr *c = CMSG_FIRSTHDR(message); c != nullptr; c = CMSG_NXTHDR(message, c)) {
        if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA ||
            c->cmsg_len < CMSG_LEN(sizeof(tpacket_auxdata)))
            continue;
        tpacket_auxdata aux;
        std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
        return (aux.tp_status & TP_STATUS_CSUMNOTREADY) != 0;
    }
    return false;
}

// The loop never resets its lengths: what is written here is the room that the next call finds.
void write_packet_info(msghdr *message, uint32_t ifIndex, uint16_t outer, const Tags &tags)
{
    cmsghdr *c = static_cast<cmsghdr *>(message->msg_control);
    std::memset(c, 0, CMSG_SPACE(QOR_INFO_LEN));
    c->cmsg_level = SOL_PACKET;
    c->cmsg_type = PACKET_AUXDATA;
    c->cmsg_len = CMSG_LEN(QOR_INFO_LEN);
    uint8_t *info = CMSG_DATA(c);
    wire_put32(info + QOR_INFO_IFINDEX, ifIndex);
    wire_put16(info + QOR_INFO_OUTER_VID, outer);
    wire_put16(info + QOR_INFO_INNER_VID, tags.inner);
    info[QOR_INFO_L2_LEN] = static_cast<uint8_t>(tags.headerLength);
    message->msg_controllen = CMSG_SPACE(QOR_INFO_LEN);
}

void remember(const guard_frame &front, const uint8_t *frame, size_t length, uint16_t outer, const Tags &tags)
{
    const bool ipv6 = front.type == htons(GUARD_ETHERTYPE_V6);
    latestFrame = &takenFrames[ipv6 ? 1 : 0];
    latestFrame->isNew = true;
    latestFrame->leaves = false;
    DhcpsnoopRxPkt &packet = latestFrame->packet;
    packet.len = static_cast<uint16_t>(std::min(length, sizeof packet.data));
    std::copy_n(frame, packet.len, packet.data);
    std::fill(packet.data + packet.len, std::end(packet.data), uint8_t{0});
    packet.ifIndex = front.ifindex;
    packet.innerVid = tags.inner;
    packet.outerVid = outer;
    packet.l2HdrLen = static_cast<uint16_t>(tags.headerLength);
    packet.etherType = ipv6 ? ETHER_TYPE_IPV6 : ETHER_TYPE_IPV4;
}

ssize_t no_frame(int error)
{
    errno = error;
    return -1;
}

} // namespace
} // namespace platform_linux

using namespace platform_linux;

int32_t platform_packet_info_enable(int sock)
{
    sockaddr_ll address = {};
    socklen_t length = sizeof address;
    if (getsockname(sock, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        return -1;
    const bool v4 = ntohs(address.sll_protocol) == ETH_P_IP, v6 = ntohs(address.sll_protocol) == ETH_P_IPV6;
    if (!v4 && !v6) {
        errno = EINVAL;
        return -1;
    }
    address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(v4 ? GUARD_ETHERTYPE_V4 : GUARD_ETHERTYPE_V6);
    address.sll_ifindex = GUARD_LOOPBACK;
    const int on = 1;
    if (bind(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        setsockopt(sock, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on) != 0)
        return -1;
    if (setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) != 0) {
        setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
        platform_report(LOG_WARNING, "a burst of DHCP frames may be lost, the receive buffer stays small: %s",
                        strerror(errno));
    }
    trap_own_socket(v4 ? GUARD_SOCKET_V4 : GUARD_SOCKET_V6, sock);
    // Until it was bound the socket took every packet of its family.
    uint8_t byte;
    while (recv(sock, &byte, sizeof byte, MSG_DONTWAIT | MSG_TRUNC) >= 0) {
    }
    return 0;
}

ssize_t platform_frame_recv(int sock, struct msghdr *msg)
{
    guard_frame front;
    if (msg->msg_iovlen != 1 || msg->msg_control == nullptr || msg->msg_controllen < CMSG_SPACE(QOR_INFO_LEN))
        return no_frame(EINVAL);
    const iovec room = msg->msg_iov[0];
    iovec parts[] = {
        {&front, sizeof front},
        room
    };
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(tpacket_auxdata))];
    sockaddr_ll from = {};
    msghdr inner = {&from, sizeof from, parts, 2, control, sizeof control, 0};
    const ssize_t received = recvmsg(sock, &inner, MSG_DONTWAIT | MSG_TRUNC);
    if (received < 0)
        return -1;
    const size_t length =
        static_cast<size_t>(received) - std::min<size_t>(sizeof front, static_cast<size_t>(received));
    uint8_t *frame = static_cast<uint8_t *>(room.iov_base);
    Tags tags;
    // Cut to the loop's buffer, a frame could read as another one.
    if (length > room.iov_len || !read_tags(frame, length, tags))
        return no_frame(EAGAIN);
    const Port *port = model_port(front.ifindex);
    if (port == nullptr)
        return no_frame(EAGAIN);
    const uint16_t outer = tags.outer != 0 ? tags.outer : port->nativeVid;
    if (!port->receives(outer) || !vlan_is_of(outer, port->bridge))
        return no_frame(EAGAIN);
    // A priority tag that left a tagged port as it is would say that port's native VLAN.
    if (tags.outer == 0 && wire_get16(frame + ETH_TYPE) == port->tpid)
        wire_put16(frame + VLAN_TCI, wire_get16(frame + VLAN_TCI) | uint32_t{outer});
    if (left_to_offload(&inner))
        complete_udp_checksum(frame + tags.headerLength, length - tags.headerLength);

    write_packet_info(msg, front.ifindex, outer, tags);
    remember(front, frame, length, outer, tags);
    if (msg->msg_name != nullptr) {
        from.sll_ifindex = static_cast<int>(front.ifindex);
        from.sll_protocol = front.type == htons(GUARD_ETHERTYPE_V6) ? htons(ETH_P_IPV6) : htons(ETH_P_IP);
        std::memcpy(msg->msg_name, &from, std::min<size_t>(msg->msg_namelen, sizeof from));
        msg->msg_namelen = sizeof from;
    }
    msg->msg_flags = 0;
    return static_cast<ssize_t>(length);
}
