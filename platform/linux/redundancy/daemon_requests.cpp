#include "daemon_requests.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace platform_linux
{
namespace
{
constexpr Ticks RETRY = 20;        // the daemon has not come up yet, or its backlog is full
constexpr Ticks PATIENCE = 20'000; // for a busy daemon

// Another process at the path would get our records.
bool is_ourselves(int connection)
{
    ucred peer = {};
    socklen_t length = sizeof peer;
    return getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.pid == getpid();
}

Fd connect_to(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    Fd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const bool connected =
        connect(connection.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
        is_ourselves(connection.get());
    return connected ? std::move(connection) : Fd();
}
} // namespace

void DaemonRequests::ask(AdrRequest request, Done done)
{
    queue_.push_back({std::move(request), std::move(done)});
    if (queue_.size() == 1)
        deadline_ = 0;
}

void DaemonRequests::give_up(Ticks now)
{
    connection_.reset();
    deadline_ = now + RETRY;
}

void DaemonRequests::send(Ticks now)
{
    framed_ = adr_request_frame(adr_request_encode(queue_.front().request));
    connection_ = connect_to(path_);
    received_ = 0;
    if (!connection_ || ::send(connection_.get(), framed_.data(), framed_.size(), MSG_NOSIGNAL) !=
                            static_cast<ssize_t>(framed_.size())) {
        give_up(now);
        return;
    }
    deadline_ = now + PATIENCE;
}

void DaemonRequests::serve(short events, Ticks now)
{
    if (queue_.empty())
        return;
    if (!connection_) {
        if (now >= deadline_)
            send(now);
        return;
    }
    if (events == 0) {
        if (now >= deadline_)
            give_up(now);
        return;
    }
    uint8_t bytes[DHCPSNOOP_REQUEST_MAX]; // whose result nobody needs
    const ssize_t got = recv(connection_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (got <= 0) {
        give_up(now);
        return;
    }
    received_ += static_cast<size_t>(got);
    if (received_ < framed_.size()) // the reply is as long as the request
        return;
    connection_.reset();
    const Done done = std::move(queue_.front().done);
    queue_.pop_front();
    done();
    if (!queue_.empty())
        send(now);
}

} // namespace platform_linux
