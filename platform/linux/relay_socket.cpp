// The UDP socket through which relayed requests leave. Nothing is ever received from it: servers answer to
// the relay address, and those answers come as trapped frames.
#include "relay_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/filter.h>
#include <sys/socket.h>
#include <unistd.h>

#include "clock.h"
#include "dhcpsnoop_start.h"
#include "fd.h"
#include "guard.h"
#include "list.h"
#include "protocol.h"
#include "report.h"

namespace platform_linux
{
namespace
{

constexpr int RELAY_SOCKET = 0;
constexpr Ticks TRY_AGAIN = 1000, TELL_AGAIN = 60'000;

bool isOpen = false;
Ticks tryAt = 0, tellAt = 0;

bool is_wanted()
{
    if (gDhcpsnoop.ifList.next == nullptr) // before the daemon's start-up
        return false;
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList))
        if (std::ranges::any_of(ifp->serverIp, [](uint32_t server) { return server != 0; }))
            return true;
    return false;
}

// Frames that come in all the same (a server behind a port without snooping) are thrown away before they are
// queued. The socket stays open for them, so that the kernel does not answer "port unreachable".
bool receive_nothing(int sock)
{
    sock_filter nothing[] = {BPF_STMT(BPF_RET | BPF_K, 0)};
    const sock_fprog program = {1, nothing};
    if (setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
        return false;
    char byte;
    while (recv(sock, &byte, sizeof byte, MSG_DONTWAIT | MSG_TRUNC) >= 0) {
    }
    return true;
}

void open_socket(Ticks now)
{
    tryAt = now + TRY_AGAIN;
    const Fd sock(dhcpsnoop_udp_socket_init());
    isOpen = sock && receive_nothing(sock.get()) && dup3(sock.get(), RELAY_SOCKET, O_CLOEXEC) == RELAY_SOCKET;
    if (isOpen)
        trap_own_socket(GUARD_SOCKET_RELAY, RELAY_SOCKET);
    if (isOpen || now < tellAt)
        return;
    tellAt = now + TELL_AGAIN;
    platform_report(
        LOG_ERR,
        "UDP port %u cannot be opened, nothing is relayed: %s (another DHCP server or relay of this "
        "machine has it, or CAP_NET_BIND_SERVICE is missing)",
        DHCP_SERVER_PORT, strerror(errno));
}

void close_socket()
{
    const Fd nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (nothing && dup3(nothing.get(), RELAY_SOCKET, O_CLOEXEC) == RELAY_SOCKET)
        isOpen = false;
}

} // namespace

void relay_socket_follow()
{
    static timespec looked = {};
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    if (now.tv_sec == looked.tv_sec && now.tv_nsec == looked.tv_nsec)
        return;
    looked = now;
    const bool wanted = is_wanted();
    if (wanted && !isOpen && ticks() >= tryAt)
        open_socket(ticks());
    else if (!wanted && isOpen)
        close_socket();
}

} // namespace platform_linux
