#include "control_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

#include "management.h"
#include "private_listener.h"

namespace platform_linux
{
namespace
{
constexpr Ticks ASK_TIME = 1000;
constexpr Ticks REST_TIME = 100;
} // namespace

bool ControlSocket::open(const char *path, std::string &error)
{
    Fd listener = private_listener(path, static_cast<int>(CONTROL_CLIENTS_MAX),
                                   kind_ == ControlKind::framed ? SOCK_STREAM : SOCK_SEQPACKET);
    if (!listener) {
        error = std::string(path) + ": " + strerror(errno);
        return false;
    }
    listeners_.push_back(std::move(listener));
    return true;
}

void ControlSocket::drop(uint64_t number)
{
    clients_.remove_if([number](const Client &client) { return client.number == number; });
}

static void send_reply(int sock, const ControlReply &reply, bool framed)
{
    uint32_t length = static_cast<uint32_t>(reply.text.size());
    iovec pieces[] = {
        {&length,                               sizeof length    },
        {const_cast<char *>(reply.text.data()), reply.text.size()}
    };
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof reply.descriptor)] = {};
    msghdr message = {};
    message.msg_iov = framed ? pieces : pieces + 1;
    message.msg_iovlen = framed ? 2 : 1;
    if (reply.descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof reply.descriptor);
        memcpy(CMSG_DATA(header), &reply.descriptor, sizeof reply.descriptor);
    }
    // The kernel's buffer has room for any answer: the connection had none before.
    sendmsg(sock, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void ControlSocket::answer(uint64_t number, const ControlReply &reply)
{
    for (const Client &client : clients_)
        if (client.number == number)
            send_reply(client.fd.get(), reply, kind_ == ControlKind::framed);
    drop(number);
}

void ControlSocket::ask(Client &client, const std::string &request)
{
    client.asked = true;
    const uint64_t number = client.number;
    handler_(request, [this, number](const ControlReply &reply) { answer(number, reply); });
}

void ControlSocket::ask_packet(Client &client)
{
    char text[CONTROL_REQUEST_MAX];
    const ssize_t length = recv(client.fd.get(), text, sizeof text, MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (length <= 0)
        drop(client.number);
    else if (static_cast<size_t>(length) > sizeof text)
        answer(client.number, "the request has " + std::to_string(length) + " bytes, and may have " +
                                  std::to_string(sizeof text));
    else
        ask(client, std::string(text, static_cast<size_t>(length)));
}

// Bytes behind the request are not read.
void ControlSocket::ask_framed(Client &client)
{
    char bytes[sizeof(uint32_t) + DHCPSNOOP_REQUEST_MAX];
    std::string &received = client.received;
    const ssize_t got = recv(client.fd.get(), bytes, sizeof bytes - received.size(), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    received.append(bytes, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    uint32_t length = 0;
    if (received.size() >= sizeof length)
        memcpy(&length, received.data(), sizeof length);
    const bool isWhole = received.size() >= sizeof length && received.size() - sizeof length >= length;
    if (isWhole && length <= DHCPSNOOP_REQUEST_MAX)
        ask(client, received.substr(sizeof length, length));
    else if (got <= 0 || length > DHCPSNOOP_REQUEST_MAX)
        drop(client.number);
}

bool ControlSocket::has_room() const
{
    return clients_.size() < CONTROL_CLIENTS_MAX ||
           std::ranges::any_of(clients_, [](const Client &client) { return !client.asked; });
}

// The oldest gives way that has not asked.
bool ControlSocket::make_room()
{
    const auto idle = std::ranges::find_if(clients_, [](const Client &client) { return !client.asked; });
    if (idle == clients_.end())
        return false;
    clients_.erase(idle);
    return true;
}

void ControlSocket::accept_all(int listener, Ticks now)
{
    for (size_t i = 0; i < CONTROL_CLIENTS_MAX && has_room(); i++) {
        Fd fd(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
            if (make_room())
                continue;
            rest_ = now + REST_TIME; // the connection goes on waiting, and poll would return at once
            return;
        }
        if (!fd)
            return;
        if (clients_.size() == CONTROL_CLIENTS_MAX)
            make_room();
        clients_.push_back({std::move(fd), ++numbers_, false, now + ASK_TIME, {}});
    }
}

void ControlSocket::watch(std::vector<pollfd> &descriptors) const
{
    const bool open = rest_ == 0 && has_room();
    for (const Fd &listener : listeners_)
        descriptors.push_back({listener.get(), static_cast<short>(open ? POLLIN : 0), 0});
    // A request waits in line for as long as its client has a place: that bounds the line.
    for (const Client &client : clients_)
        if (!client.asked)
            descriptors.push_back({client.fd.get(), POLLIN, 0});
        else if (kind_ == ControlKind::packets)
            descriptors.push_back({client.fd.get(), 0, 0});
}

Ticks ControlSocket::deadline() const
{
    Ticks first = rest_ != 0 ? rest_ : NEVER;
    for (const Client &client : clients_)
        if (!client.asked)
            first = std::min(first, client.until);
    return first;
}

void ControlSocket::serve(const std::vector<pollfd> &descriptors, Ticks now)
{
    if (now >= rest_)
        rest_ = 0;
    for (const pollfd &descriptor : descriptors) {
        if (descriptor.revents == 0)
            continue;
        const auto client = std::find_if(clients_.begin(), clients_.end(), [&](const Client &other) {
            return other.fd.get() == descriptor.fd;
        });
        if (client == clients_.end())
            continue;
        if (client->asked) // it has gone
            drop(client->number);
        else if (kind_ == ControlKind::framed)
            ask_framed(*client);
        else
            ask_packet(*client);
    }
    for (auto it = clients_.begin(); it != clients_.end();) {
        const Client &client = *it++;
        if (!client.asked && now >= client.until)
            drop(client.number);
    }
    // Behind those that were there: what they leave is free, and no descriptor of theirs is another's yet.
    for (const pollfd &descriptor : descriptors)
        for (const Fd &listener : listeners_)
            if (descriptor.revents != 0 && descriptor.fd == listener.get())
                accept_all(listener.get(), now);
}

} // namespace platform_linux
