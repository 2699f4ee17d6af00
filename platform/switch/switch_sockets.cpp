// The four socket operations on the switch's own kernel, which attaches the packet information to every frame
// itself and has all of the event groups; and its word on the command socket and on DHCP messages.
#include "platform.h"

#include <linux/netlink.h>

namespace
{
constexpr int PACKET_INFO_OPTION = 20; // SOL_PACKET option of the switch's kernel
} // namespace

int32_t platform_packet_info_enable(int sock)
{
    const int on = 1;
    return setsockopt(sock, SOL_PACKET, PACKET_INFO_OPTION, &on, sizeof on);
}

ssize_t platform_frame_recv(int sock, struct msghdr *msg) { return recvmsg(sock, msg, 0); }

int32_t platform_event_group_join(int sock, uint32_t group)
{
    return setsockopt(sock, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
}

ssize_t platform_event_recv(int sock, void *buffer, size_t size, struct sockaddr *from, socklen_t *fromLength)
{
    return recvfrom(sock, buffer, size, 0, from, fromLength);
}

// The core serves its socket.
int32_t platform_serves_commands() { return 0; }

// The switch's own features protect bindings: go on.
int32_t platform_message_judge(const DhcpsnoopPktInfo *) { return 0; }
