// Who listens is found out when there is something to say: connections wait in the socket's backlog until
// the next event, which they then get as their first. So the daemon's loop need not know of the socket.
#include "subscribers.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace platform_linux
{
namespace
{

// Connections that came and went since the last event wait there too.
constexpr int BACKLOG = 4096;
constexpr int SEND_BUFFER = 1 << 20; // some 1300 records; the default holds a fifth

struct Subscriber {
    int sock = -1;
    uint64_t lost = 0; // since the last record that it took
};

int listener = -1;
std::array<Subscriber, SUBSCRIBERS_MAX> subscribers;

bool put(int sock, const EventRecord &record)
{
    return send(sock, &record, sizeof record, MSG_DONTWAIT | MSG_NOSIGNAL) ==
           static_cast<ssize_t>(sizeof record);
}

bool is_full() { return errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM || errno == EINTR; }

void drop(Subscriber &subscriber)
{
    close(subscriber.sock);
    subscriber = Subscriber();
}

void tell(Subscriber &subscriber, const EventRecord &record)
{
    if (subscriber.lost != 0) {
        EventRecord gap = {};
        gap.type = record.type;
        gap.length = sizeof gap;
        gap.event = EVENT_LOST;
        gap.lost = subscriber.lost;
        if (put(subscriber.sock, gap))
            subscriber.lost = 0;
    }
    if (subscriber.lost == 0 && put(subscriber.sock, record))
        return;
    if (is_full())
        subscriber.lost++;
    else
        drop(subscriber);
}

void accept_and_tell(const EventRecord &record)
{
    for (int i = 0; i < BACKLOG; i++) {
        // As a rule nobody is there, and accept makes a socket before it finds out.
        pollfd waiting = {listener, POLLIN, 0};
        if (poll(&waiting, 1, 0) != 1)
            return;
        const int sock = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (sock < 0 && errno == ECONNABORTED)
            continue;
        if (sock < 0)
            return;
        Subscriber *place = nullptr;
        for (Subscriber &subscriber : subscribers)
            place = place == nullptr && subscriber.sock < 0 ? &subscriber : place;
        if (place == nullptr) {
            close(sock);
            continue;
        }
        if (setsockopt(sock, SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER, sizeof SEND_BUFFER) < 0)
            setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER);
        place->sock = sock;
        tell(*place, record); // frees the place again when nobody is there any more
    }
}

// One level, as /run/dhcpsnoop may have to be made.
void make_directory(const char *path)
{
    const char *slash = strrchr(path, '/');
    if (slash != nullptr && slash != path)
        mkdir(std::string(path, slash).c_str(), 0755);
}

} // namespace

int subscribers_open(const char *path)
{
    subscribers_close();
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path)
        return ENAMETOOLONG;
    memcpy(address.sun_path, path, strlen(path));
    make_directory(path);

    listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener < 0)
        return errno;
    // Only a socket: the path may have been mistyped.
    struct stat there;
    if (lstat(path, &there) == 0 && S_ISSOCK(there.st_mode))
        unlink(path);
    // The mode is narrowed before the path exists, so nobody else ever finds it open.
    const mode_t before = umask(0177);
    int error = bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ? errno : 0;
    umask(before);
    if (error == 0 && listen(listener, BACKLOG) != 0)
        error = errno;
    if (error != 0)
        subscribers_close();
    return error;
}

void subscribers_close()
{
    for (Subscriber &subscriber : subscribers)
        if (subscriber.sock >= 0)
            drop(subscriber);
    if (listener >= 0)
        close(listener);
    listener = -1;
}

int subscribers_publish(const EventRecord &record)
{
    if (listener < 0)
        return ENOTCONN;
    for (Subscriber &subscriber : subscribers)
        if (subscriber.sock >= 0)
            tell(subscriber, record);
    accept_and_tell(record);
    return 0;
}

} // namespace platform_linux
