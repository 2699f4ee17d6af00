// Descriptor 0 before the daemon's start-up: the UDP socket through which relayed requests leave. Nothing is
// ever received from it: servers answer to the relay address, and those answers come as trapped frames.
#include "relay_socket.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "dhcpsnoop_start.h"
#include "protocol.h"
#include "report.h"

namespace platform_linux
{
namespace
{

constexpr int RELAY_SOCKET = 0;

bool is_relay_socket(int descriptor)
{
    int type = 0;
    socklen_t length = sizeof type;
    sockaddr_in own = {};
    socklen_t ownLength = sizeof own;
    return getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_DGRAM &&
           getsockname(descriptor, reinterpret_cast<sockaddr *>(&own), &ownLength) == 0 &&
           own.sin_family == AF_INET && ntohs(own.sin_port) == DHCP_SERVER_PORT;
}

// What comes in all the same (a server behind a port without snooping) is thrown away before it is queued.
// The socket stays open for it, so that the kernel does not answer "port unreachable".
int receive_nothing(int sock)
{
    sock_filter nothing[] = {BPF_STMT(BPF_RET | BPF_K, 0)};
    const sock_fprog program = {1, nothing};
    if (setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
        return -1;
    char byte;
    while (recv(sock, &byte, sizeof byte, MSG_DONTWAIT | MSG_TRUNC) >= 0) {
    }
    return 0;
}

} // namespace

int32_t relay_socket_start()
{
    if (!is_relay_socket(RELAY_SOCKET)) {
        const int sock = dhcpsnoop_udp_socket_init();
        if (sock < 0) {
            platform_report(LOG_WARNING, "UDP port %u cannot be opened, nothing will be relayed: %s",
                            DHCP_SERVER_PORT, strerror(errno));
            return 0;
        }
        if (sock != RELAY_SOCKET) {
            const int moved = dup2(sock, RELAY_SOCKET);
            const int error = errno;
            close(sock);
            if (moved < 0) {
                platform_report(LOG_WARNING, "descriptor 0 cannot be replaced, nothing will be relayed: %s",
                                strerror(error));
                return 0;
            }
        }
    }
    if (receive_nothing(RELAY_SOCKET) != 0)
        platform_report(LOG_WARNING, "the relay socket cannot be kept from receiving: %s", strerror(errno));
    return 0;
}

} // namespace platform_linux
