#include "kernel_dump.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <sys/time.h>

namespace platform_linux
{
namespace
{

constexpr size_t DATAGRAM_MAX = 32768; // the kernel's largest
constexpr timeval TIMEOUT = {2, 0};

struct SocketCloser {
    void operator()(mnl_socket *sock) const { mnl_socket_close(sock); }
};

} // namespace

bool kernel_dump(int protocol, uint16_t type, const void *body, size_t size, mnl_cb_t take, void *to)
{
    alignas(nlmsghdr) std::array<char, MNL_NLMSG_HDRLEN + DUMP_BODY_MAX> request = {};
    if (size > DUMP_BODY_MAX) {
        errno = EMSGSIZE;
        return false;
    }
    nlmsghdr *header = mnl_nlmsg_put_header(request.data());
    header->nlmsg_type = type;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    std::copy_n(static_cast<const char *>(body), size,
                static_cast<char *>(mnl_nlmsg_put_extra_header(header, size)));
    const std::unique_ptr<mnl_socket, SocketCloser> sock(mnl_socket_open2(protocol, SOCK_CLOEXEC));
    if (!sock || mnl_socket_bind(sock.get(), 0, MNL_SOCKET_AUTOPID) < 0 ||
        setsockopt(mnl_socket_get_fd(sock.get()), SOL_SOCKET, SO_RCVTIMEO, &TIMEOUT, sizeof TIMEOUT) < 0 ||
        mnl_socket_sendto(sock.get(), header, header->nlmsg_len) < 0)
        return false;
    alignas(nlmsghdr) static std::array<char, DATAGRAM_MAX> datagram;
    for (int more = MNL_CB_OK; more > MNL_CB_STOP;) {
        const ssize_t length = mnl_socket_recvfrom(sock.get(), datagram.data(), datagram.size());
        if (length < 0)
            return false;
        more = mnl_cb_run(datagram.data(), static_cast<size_t>(length), 0, 0, take, to);
        if (more < 0)
            return false;
    }
    return true;
}

} // namespace platform_linux
