// Who listens is found out when there is something to say: connections wait in the socket's backlog until
// the next event, which they then get as their first. So the daemon's loop need not know of the socket.
#include "subscribers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

#include "private_listener.h"

namespace platform_linux
{
namespace
{

// Connections that came and went since the last event wait there too.
constexpr int BACKLOG = 4096;
constexpr int SEND_BUFFER = 1 << 20; // some 1300 records; the default holds a fifth

struct Subscriber {
    Fd sock;
    uint64_t lost = 0; // since the last record that it took
};

Fd listener;
std::array<Subscriber, SUBSCRIBERS_MAX> subscribers;

bool put(int sock, const EventRecord &record)
{
    return send(sock, &record, sizeof record, MSG_DONTWAIT | MSG_NOSIGNAL) ==
           static_cast<ssize_t>(sizeof record);
}

bool is_full() { return errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM || errno == EINTR; }

void tell(Subscriber &subscriber, const EventRecord &record)
{
    if (subscriber.lost != 0) {
        EventRecord gap = {};
        gap.type = record.type;
        gap.length = sizeof gap;
        gap.event = EVENT_LOST;
        gap.lost = subscriber.lost;
        if (put(subscriber.sock.get(), gap))
            subscriber.lost = 0;
    }
    if (subscriber.lost == 0 && put(subscriber.sock.get(), record))
        return;
    if (is_full())
        subscriber.lost++;
    else
        subscriber = Subscriber();
}

void accept_and_tell(const EventRecord &record)
{
    for (int i = 0; i < BACKLOG; i++) {
        // As a rule nobody is there, and accept makes a socket before it finds out.
        pollfd waiting = {listener.get(), POLLIN, 0};
        if (poll(&waiting, 1, 0) != 1)
            return;
        Fd sock(accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!sock && errno == ECONNABORTED)
            continue;
        if (!sock)
            return;
        Subscriber *place =
            std::ranges::find_if(subscribers, [](const Subscriber &other) { return !other.sock; });
        if (place == subscribers.end())
            continue;
        if (setsockopt(sock.get(), SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER, sizeof SEND_BUFFER) < 0)
            setsockopt(sock.get(), SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER);
        place->sock = std::move(sock);
        tell(*place, record); // frees the place again when nobody is there any more
    }
}

} // namespace

int subscribers_open(const char *path)
{
    subscribers_close();
    listener = private_listener(path, BACKLOG);
    return listener ? 0 : errno;
}

void subscribers_close()
{
    subscribers = {};
    listener.reset();
}

int subscribers_publish(const EventRecord &record)
{
    if (!listener)
        return ENOTCONN;
    for (Subscriber &subscriber : subscribers)
        if (subscriber.sock)
            tell(subscriber, record);
    accept_and_tell(record);
    return 0;
}

} // namespace platform_linux
