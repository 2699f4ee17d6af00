#include "control_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

#include "private_listener.h"

namespace platform_linux
{
namespace
{
constexpr size_t CLIENTS_MAX = 16;
constexpr Ticks ASK_TIME = 5000;
} // namespace

bool ControlSocket::open(const char *path, std::string &error)
{
    listener_ = private_listener(path, CLIENTS_MAX);
    if (!listener_)
        error = std::string(path) + ": " + strerror(errno);
    return static_cast<bool>(listener_);
}

void ControlSocket::drop(uint64_t number)
{
    clients_.remove_if([number](const Client &client) { return client.number == number; });
}

static void send_reply(int sock, const ControlReply &reply)
{
    iovec text = {const_cast<char *>(reply.text.data()), reply.text.size()};
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof reply.descriptor)] = {};
    msghdr message = {};
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    if (reply.descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof reply.descriptor);
        memcpy(CMSG_DATA(header), &reply.descriptor, sizeof reply.descriptor);
    }
    sendmsg(sock, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void ControlSocket::answer(uint64_t number, const ControlReply &reply)
{
    for (const Client &client : clients_)
        if (client.number == number)
            send_reply(client.fd.get(), reply);
    drop(number);
}

void ControlSocket::ask(Client &client)
{
    char text[CONTROL_REQUEST_MAX];
    const ssize_t length = recv(client.fd.get(), text, sizeof text, MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    const uint64_t number = client.number;
    if (length <= 0 || client.asked) { // gone, or more than one request
        drop(number);
        return;
    }
    client.asked = true;
    if (static_cast<size_t>(length) > sizeof text) {
        answer(number, "the request has " + std::to_string(length) + " bytes, and may have " +
                           std::to_string(sizeof text));
        return;
    }
    handler_(std::string(text, static_cast<size_t>(length)),
             [this, number](const ControlReply &reply) { answer(number, reply); });
}

void ControlSocket::accept_all(Ticks now)
{
    for (;;) {
        Fd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd)
            return;
        if (clients_.size() == CLIENTS_MAX)
            drop(clients_.front().number);
        clients_.push_back({std::move(fd), ++numbers_, false, now + ASK_TIME});
    }
}

void ControlSocket::watch(std::vector<pollfd> &descriptors) const
{
    descriptors.push_back({listener_.get(), POLLIN, 0});
    for (const Client &client : clients_)
        descriptors.push_back({client.fd.get(), POLLIN, 0});
}

Ticks ControlSocket::deadline() const
{
    Ticks first = NEVER;
    for (const Client &client : clients_)
        if (!client.asked)
            first = std::min(first, client.until);
    return first;
}

void ControlSocket::serve(const std::vector<pollfd> &descriptors, Ticks now)
{
    for (const pollfd &descriptor : descriptors) {
        if (descriptor.revents == 0)
            continue;
        if (descriptor.fd == listener_.get()) {
            accept_all(now);
            continue;
        }
        const auto client = std::find_if(clients_.begin(), clients_.end(), [&](const Client &other) {
            return other.fd.get() == descriptor.fd;
        });
        if (client != clients_.end())
            ask(*client);
    }
    for (auto it = clients_.begin(); it != clients_.end();) {
        const Client &client = *it++;
        if (!client.asked && now >= client.until)
            drop(client.number);
    }
}

} // namespace platform_linux
