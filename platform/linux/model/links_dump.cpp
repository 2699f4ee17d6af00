// A dump of all links and bridge VLANs into a model. RFC 3549, rtnetlink(7).
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <sys/time.h>

#include "switch_model.h"

namespace platform_linux
{
namespace
{
constexpr size_t DATAGRAM_MAX = 32768;   // the kernel's largest
constexpr timeval DUMP_TIMEOUT = {2, 0}; // a kernel answers in microseconds
constexpr int DUMP_ATTEMPTS = 10;        // of a dump during which links change

alignas(nlmsghdr) std::array<uint8_t, DATAGRAM_MAX> datagram;

struct SocketCloser {
    void operator()(mnl_socket *sock) const { mnl_socket_close(sock); }
};

enum class DumpResult : uint8_t { complete, interrupted, failed };

DumpResult dump_family(mnl_socket *sock, uint8_t family, SwitchModel &model, DaemonEvents &events)
{
    struct {
        nlmsghdr header;
        ifinfomsg info;
        nlattr attribute;
        uint32_t mask;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.info.ifi_family = family;
    request.attribute.nla_len = sizeof request.attribute + sizeof request.mask;
    request.attribute.nla_type = IFLA_EXT_MASK;
    // Compressed to ranges: 4094 VLANs one by one are more than a message can hold.
    request.mask = family == AF_BRIDGE ? RTEXT_FILTER_BRVLAN_COMPRESSED : RTEXT_FILTER_SKIP_STATS;
    if (mnl_socket_sendto(sock, &request, sizeof request) < 0)
        return DumpResult::failed;
    DumpResult result = DumpResult::complete;
    for (;;) {
        const ssize_t length = mnl_socket_recvfrom(sock, datagram.data(), datagram.size());
        if (length < 0)
            return DumpResult::failed;
        std::span<const uint8_t> rest(datagram.data(), static_cast<size_t>(length));
        model.feed(rest, events);
        while (const nlmsghdr *message = next_message(rest)) {
            if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0)
                result = DumpResult::interrupted;
            if (message->nlmsg_type == NLMSG_DONE)
                return result;
            if (message->nlmsg_type == NLMSG_ERROR) {
                nlmsgerr error{};
                if (mnl_nlmsg_get_payload_len(message) >= sizeof error)
                    memcpy(&error, mnl_nlmsg_get_payload(message), sizeof error);
                errno = -error.error;
                return DumpResult::failed;
            }
        }
    }
}
} // namespace

bool model_dump(SwitchModel &model, DaemonEvents &events)
{
    const std::unique_ptr<mnl_socket, SocketCloser> sock(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (!sock || mnl_socket_bind(sock.get(), 0, MNL_SOCKET_AUTOPID) < 0 ||
        setsockopt(mnl_socket_get_fd(sock.get()), SOL_SOCKET, SO_RCVTIMEO, &DUMP_TIMEOUT,
                   sizeof DUMP_TIMEOUT) < 0)
        return false;
    DumpResult result = DumpResult::interrupted;
    for (int attempt = 0; attempt < DUMP_ATTEMPTS && result == DumpResult::interrupted; attempt++) {
        model.dump_begin();
        result = dump_family(sock.get(), AF_UNSPEC, model, events);
        if (result != DumpResult::failed)
            result = std::max(result, dump_family(sock.get(), AF_BRIDGE, model, events));
        model.dump_end(result == DumpResult::complete, events);
    }
    if (result == DumpResult::interrupted)
        errno = EAGAIN;
    return result == DumpResult::complete;
}

} // namespace platform_linux
