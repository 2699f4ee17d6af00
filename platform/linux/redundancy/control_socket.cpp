#include "control_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace platform_linux
{
namespace
{
constexpr size_t CLIENTS_MAX = 16;
constexpr size_t REQUEST_MAX = 128;
constexpr Ticks ASK_TIME = 5000;
} // namespace

ControlSocket::~ControlSocket()
{
    for (const Client &client : clients_)
        close(client.fd);
    if (listener_ >= 0)
        close(listener_);
}

bool ControlSocket::open(const std::string &path, std::string &error)
{
    const auto wrong = [&] {
        error = path + ": " + strerror(errno);
        if (listener_ >= 0)
            close(listener_);
        listener_ = -1;
        return false;
    };
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return wrong();
    }
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    mkdir(path.substr(0, path.rfind('/')).c_str(), S_IRWXU); // as the service manager makes it
    listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listener_ < 0)
        return wrong();
    // Only a socket: the path may have been mistyped.
    struct stat there = {};
    if (lstat(path.c_str(), &there) == 0 && S_ISSOCK(there.st_mode))
        unlink(path.c_str());
    // Nobody can connect before it listens, so the mode is right by then.
    if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0 || listen(listener_, CLIENTS_MAX) != 0)
        return wrong();
    return true;
}

void ControlSocket::drop(uint64_t number)
{
    clients_.remove_if([number](const Client &client) {
        if (client.number == number)
            close(client.fd);
        return client.number == number;
    });
}

void ControlSocket::answer(uint64_t number, const std::string &text)
{
    for (const Client &client : clients_)
        if (client.number == number)
            send(client.fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    drop(number);
}

void ControlSocket::ask(Client &client)
{
    char text[REQUEST_MAX];
    const ssize_t length = recv(client.fd, text, sizeof text, MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    const uint64_t number = client.number;
    if (length <= 0 || client.asked) { // gone, or more than one request
        drop(number);
        return;
    }
    client.asked = true;
    handler_(std::string(text, static_cast<size_t>(length)),
             [this, number](const std::string &reply) { answer(number, reply); });
}

void ControlSocket::accept_all(Ticks now)
{
    for (;;) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            return;
        if (clients_.size() == CLIENTS_MAX)
            drop(clients_.front().number);
        clients_.push_back({fd, ++numbers_, false, now + ASK_TIME});
    }
}

void ControlSocket::watch(std::vector<pollfd> &descriptors) const
{
    if (listener_ >= 0)
        descriptors.push_back({listener_, POLLIN, 0});
    for (const Client &client : clients_)
        descriptors.push_back({client.fd, POLLIN, 0});
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
        if (descriptor.fd == listener_) {
            accept_all(now);
            continue;
        }
        const auto client = std::find_if(clients_.begin(), clients_.end(),
                                         [&](const Client &other) { return other.fd == descriptor.fd; });
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
