#include "wake.h"

#include <atomic>
#include <linux/netlink.h>
#include <sys/socket.h>

namespace platform_linux
{

static std::atomic<int> waits = -1;

// By an empty request that asks for its acknowledgement, which anyone may send.
bool wake_event_socket(int sock)
{
    nlmsghdr request{};
    request.nlmsg_len = sizeof request;
    request.nlmsg_type = NLMSG_NOOP;
    request.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return sendto(sock, &request, sizeof request, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&kernel),
                  sizeof kernel) == static_cast<ssize_t>(sizeof request);
}

void wake_event_socket_later(int sock) { waits = sock; }

void wake_those_who_wait()
{
    if (const int sock = waits.exchange(-1); sock >= 0 && !wake_event_socket(sock))
        waits = sock;
}

} // namespace platform_linux
