#include "peer_link.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "report.h"

namespace platform_linux
{
namespace
{
constexpr Ticks BACKOFF_FIRST = 200, BACKOFF_LAST = 5000;
constexpr Ticks HANDSHAKE_TIME = 5000; // of TCP, TLS and the first message
constexpr Ticks ALIVE_PERIOD = 2000;   // without anything else to say
constexpr Ticks SILENCE_MAX = 10'000;  // of the peer
constexpr Ticks STALL_MAX = 30'000;    // with something to send that it does not take
constexpr size_t CONNECTIONS_MAX = 8;  // all but one of strangers, until they prove who they are
constexpr size_t OUT_MAX = 16 << 20;   // more than the largest full copy
constexpr size_t OUT_KEPT = 1 << 20;   // of room that was needed once
constexpr size_t READS_PER_TURN = 8;   // of 16 KiB, a TLS record

void set_option(int fd, int level, int option, int value)
{
    setsockopt(fd, level, option, &value, sizeof value);
}
} // namespace

bool PeerLink::start(std::string &error)
{
    tls_ = tls_load(conf_, error);
    struct stat status = {};
    if (stat(conf_.key.c_str(), &status) == 0 && (status.st_mode & (S_IRWXO | S_IWGRP)) != 0)
        platform_report(LOG_WARNING, "%s: others may read or write the key: chmod 600", conf_.key.c_str());
    return tls_ != nullptr;
}

void PeerLink::say(const std::string &trouble)
{
    trouble_ = trouble;
    if (trouble == said_)
        return; // with every attempt
    said_ = trouble;
    platform_report(LOG_WARNING, "peer unit %s: %s", conf_.addressText.c_str(), trouble.c_str());
}

bool PeerLink::make_tls(Connection &connection, bool accepting)
{
    set_option(connection.fd.get(), IPPROTO_TCP, TCP_NODELAY, 1);
    connection.tls = tls_->session(connection.fd.get(), accepting);
    return connection.tls != nullptr;
}

bool PeerLink::listen_now(Ticks now)
{
    if (listener_)
        return true;
    if (now < retryAt_)
        return false;
    Fd fd(socket(AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    set_option(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, 0);
    set_option(fd.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&conf_.address), sizeof conf_.address) != 0 ||
        listen(fd.get(), CONNECTIONS_MAX) != 0) {
        say(std::string("cannot listen: ") + strerror(errno));
        retryAt_ = now + BACKOFF_LAST;
        return false;
    }
    trouble_ = "not connected yet";
    listener_ = std::move(fd);
    return true;
}

void PeerLink::accept_all(Ticks now)
{
    for (;;) {
        Fd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
            say(std::string("cannot accept: ") + strerror(errno));
            listener_.reset(); // the connection would go on waiting, and poll return at once
            retryAt_ = now + BACKOFF_LAST;
        }
        if (!fd)
            return;
        if (connections_.size() == CONNECTIONS_MAX) {
            // The stranger who has been here longest; the peer is none.
            const auto oldest = std::find_if(connections_.begin(), connections_.end(),
                                             [this](const Connection &other) { return &other != current_; });
            connections_.erase(oldest);
        }
        if (!make_tls(connections_.emplace_back(std::move(fd), now), true))
            connections_.pop_back();
    }
}

void PeerLink::connect_now(Ticks now)
{
    backoff_ = std::clamp(backoff_ * 2, BACKOFF_FIRST, BACKOFF_LAST);
    retryAt_ = now + backoff_;
    Fd fd(socket(AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        say(std::string("no socket: ") + strerror(errno));
        return;
    }
    Connection &connection = connections_.emplace_back(std::move(fd), now);
    const int result = connect(connection.fd.get(), reinterpret_cast<const sockaddr *>(&conf_.address),
                               sizeof conf_.address);
    connection.connecting = result != 0;
    if ((result != 0 && errno != EINPROGRESS) || !make_tls(connection, false)) {
        say(std::string("cannot connect: ") + strerror(errno));
        connections_.pop_back();
    }
}

bool PeerLink::put(Connection &connection, PeerMessage type, std::span<const uint8_t> payload)
{
    uint8_t frame[PEER_FRAME_MAX];
    const size_t length = peer_frame_write(frame, type, payload);
    if (connection.out.size() - connection.sent + length > OUT_MAX)
        return false;
    connection.out.insert(connection.out.end(), frame, frame + length);
    return true;
}

bool PeerLink::put_hello(Connection &connection)
{
    connection.toldRole = handlers_.role();
    const uint8_t role[4] = {connection.toldRole};
    return put(connection, PeerMessage::hello, role);
}

bool PeerLink::send_role() { return current_ != nullptr && put_hello(*current_); }

bool PeerLink::send(PeerMessage type, std::span<const uint8_t> payload)
{
    return current_ != nullptr && put(*current_, type, payload);
}

void PeerLink::hold(bool held)
{
    if (held_ && !held && current_ != nullptr)
        current_->hasMore = true; // perhaps, inside TLS, where poll does not see it
    held_ = held;
}

bool PeerLink::tls_failed(Connection &connection, TlsResult result, const char *doing)
{
    connection.wantsWrite = connection.wantsWrite || result == TlsResult::wantsWrite;
    if (result == TlsResult::closed)
        say("the peer has closed the connection");
    else if (result == TlsResult::failed)
        say(std::string(doing) + ": " + connection.tls->trouble());
    return result == TlsResult::closed || result == TlsResult::failed;
}

bool PeerLink::shake_hands(Connection &connection, Ticks now)
{
    if (connection.connecting) {
        int error = 0;
        socklen_t length = sizeof error;
        getsockopt(connection.fd.get(), SOL_SOCKET, SO_ERROR, &error, &length);
        if (error != 0) {
            say(std::string("cannot connect: ") + strerror(error));
            return false;
        }
        connection.connecting = false;
    }
    const TlsResult result = connection.tls->shake_hands();
    if (result != TlsResult::done)
        return !tls_failed(connection, result, "no TLS with it");
    connection.secured = true;
    connection.heard = connection.moved = now;
    return put_hello(connection);
}

bool PeerLink::take(Connection &connection, const PeerFrame &frame)
{
    if (&connection != current_ && frame.type != PeerMessage::hello) {
        say("its first message is no hello");
        return false;
    }
    if (frame.type != PeerMessage::hello) {
        handlers_.frame(frame);
        return true;
    }
    if (frame.payload[0] > DHCPSNOOP_ROLE_SLAVE) {
        say("a role that there is not");
        return false;
    }
    peerRole_ = static_cast<DhcpsnoopRole>(frame.payload[0]);
    if (&connection == current_) {
        handlers_.frame(frame);
        return true;
    }
    // The peer proved who it is: an older connection belongs to an earlier run of it.
    Connection *before = current_;
    current_ = &connection;
    if (before != nullptr) {
        handlers_.down();
        before->replaced = true;
    }
    backoff_ = 0;
    trouble_.clear();
    said_.clear();
    platform_report(LOG_NOTICE, "peer unit %s: connected", conf_.addressText.c_str());
    handlers_.up();
    return connection.toldRole == handlers_.role() || put_hello(connection);
}

bool PeerLink::read_some(Connection &connection, Ticks now)
{
    uint8_t bytes[16384];
    connection.hasMore = false;
    for (size_t i = 0; i < READS_PER_TURN && !held_; i++) {
        size_t count = 0;
        const TlsResult result = connection.tls->read(bytes, count);
        if (result != TlsResult::done)
            return !tls_failed(connection, result, "reading from it");
        connection.heard = now;
        std::span<const uint8_t> rest(bytes, count);
        while (const auto frame = connection.reader.next(rest))
            if (!take(connection, *frame))
                return false;
        if (connection.reader.fault() != nullptr) {
            say(std::string("it sends ") + connection.reader.fault());
            return false;
        }
    }
    connection.hasMore = !held_;
    return true;
}

bool PeerLink::write_some(Connection &connection, Ticks now)
{
    if (connection.out.empty() && now - connection.moved >= ALIVE_PERIOD)
        put(connection, PeerMessage::alive, {});
    while (connection.sent < connection.out.size()) {
        const size_t left = std::min<size_t>(connection.out.size() - connection.sent, 1 << 20);
        size_t count = 0;
        const TlsResult result = connection.tls->write({&connection.out[connection.sent], left}, count);
        if (result != TlsResult::done)
            return !tls_failed(connection, result, "writing to it");
        connection.sent += count;
        connection.moved = now;
        if (connection.sent > OUT_KEPT) {
            connection.out.erase(connection.out.begin(),
                                 connection.out.begin() + static_cast<ptrdiff_t>(connection.sent));
            connection.sent = 0;
        }
    }
    connection.out.clear();
    connection.sent = 0;
    if (connection.out.capacity() > OUT_KEPT)
        connection.out.shrink_to_fit();
    return true;
}

bool PeerLink::is_late(const Connection &connection, Ticks now)
{
    if (&connection != current_ && now - connection.since >= HANDSHAKE_TIME)
        say("it does not get as far as a hello");
    else if (&connection == current_ && !held_ && now - connection.heard >= SILENCE_MAX)
        say("it has fallen silent");
    else if (&connection == current_ && !connection.out.empty() && now - connection.moved >= STALL_MAX)
        say("it takes nothing any more");
    else
        return false;
    return true;
}

bool PeerLink::progress(Connection &connection, short events, Ticks now)
{
    if (connection.replaced || is_late(connection, now))
        return false;
    if (connection.connecting && events == 0)
        return true;
    connection.wantsWrite = false;
    if (!connection.secured && !shake_hands(connection, now))
        return false;
    if (!connection.secured)
        return true;
    return read_some(connection, now) && write_some(connection, now);
}

void PeerLink::drop(Connection *connection, Ticks now)
{
    if (connection == current_) {
        current_ = nullptr;
        retryAt_ = now + BACKOFF_FIRST;
        handlers_.down();
    }
    connections_.remove_if([connection](const Connection &other) { return &other == connection; });
}

void PeerLink::watch(std::vector<pollfd> &descriptors) const
{
    descriptors.push_back({listener_.get(), POLLIN, 0});
    for (const Connection &connection : connections_) {
        const bool writes =
            connection.connecting || connection.wantsWrite || connection.sent < connection.out.size();
        const bool reads = !connection.connecting && !(held_ && &connection == current_);
        // A closed connection would end every wait, even without events.
        if (reads || writes)
            descriptors.push_back(
                {connection.fd.get(), static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0)), 0});
    }
}

Ticks PeerLink::deadline() const
{
    const bool retries = conf_.listens ? !listener_ : connections_.empty();
    Ticks first = retries ? retryAt_ : NEVER;
    for (const Connection &connection : connections_) {
        if (connection.hasMore)
            return 0;
        if (&connection != current_) {
            first = std::min(first, connection.replaced ? 0 : connection.since + HANDSHAKE_TIME);
            continue;
        }
        first = std::min(first, connection.moved + (connection.out.empty() ? ALIVE_PERIOD : STALL_MAX));
        if (!held_)
            first = std::min(first, connection.heard + SILENCE_MAX);
    }
    return first;
}

void PeerLink::serve(const std::vector<pollfd> &descriptors, Ticks now)
{
    const auto events = [&descriptors](int fd) {
        for (const pollfd &descriptor : descriptors)
            if (descriptor.fd == fd)
                return descriptor.revents;
        return short{0};
    };
    if (conf_.listens) {
        if (listen_now(now) && events(listener_.get()) != 0)
            accept_all(now);
    } else if (connections_.empty() && now >= retryAt_) {
        connect_now(now);
    }
    for (auto it = connections_.begin(); it != connections_.end();) {
        Connection *connection = &*it++;
        if (!progress(*connection, events(connection->fd.get()), now))
            drop(connection, now);
    }
}

} // namespace platform_linux
