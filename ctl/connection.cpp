// A request goes out behind its length in one piece, and its reply has the same length. No length in it is
// believed, and waiting ends after the time that is given.
#include "connection.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "management.h"

namespace
{

using Clock = std::chrono::steady_clock;

[[noreturn]] void throwConnectError(const std::string &path, int error)
{
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        throw NobodyListens("no daemon is listening on " + path);
    case EACCES:
    case EPERM:
        throw NoDaemon("not permitted to use " + path +
                       ": the daemon serves root only; the group dhcpsnoop may show");
    case EAGAIN:
    case ETIMEDOUT:
        throw NoDaemon("the daemon on " + path + " is too busy to take a request");
    default:
        throw NoDaemon("cannot connect to " + path + ": " + std::strerror(error));
    }
}

// Waits until the socket can be read or the deadline has passed.
bool waitReadable(int descriptor, Clock::time_point deadline)
{
    for (;;) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0)
            return false;
        pollfd wait = {descriptor, POLLIN, 0};
        int ready = poll(&wait, 1, static_cast<int>(left));
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            throw NoDaemon(std::string("waiting for the daemon failed: ") + std::strerror(errno));
    }
}

// The socket may stand in a directory where anybody creates files: only root or the caller is believed.
void checkPeer(int descriptor, const std::string &path)
{
    ucred peer = {};
    socklen_t length = sizeof(peer);
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        throw NoDaemon("cannot tell who serves " + path + ": " + std::strerror(errno));
    if (peer.uid != 0 && peer.uid != geteuid())
        throw NoDaemon(path + " is served by user " + std::to_string(peer.uid) +
                       ", not by root: not trusted");
}

// One request and its reply on a connection of their own.
Bytes exchangeOnce(const std::string &path, std::chrono::milliseconds timeout, const Bytes &body)
{
    const Connection connection(SOCK_STREAM, path, timeout);
    const Bytes framed = adr_request_frame(body);
    connection.send(framed.data(), framed.size());
    uint32_t length = 0;
    connection.receiveAll(&length, sizeof(length));
    if (length > DHCPSNOOP_REQUEST_MAX)
        throw NoDaemon("malformed reply: a length of " + std::to_string(length) + " bytes");
    Bytes reply(length);
    connection.receiveAll(reply.data(), reply.size());
    return reply;
}

} // namespace

Socket::~Socket()
{
    if (descriptor_ >= 0)
        close(descriptor_);
}

void connectTo(const Socket &sock, const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        throw UsageError("the socket's path is empty or too long: '" + path + "'");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (sock.get() < 0)
        throw NoDaemon(std::string("cannot create a socket: ") + std::strerror(errno));
    if (connect(sock.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        throwConnectError(path, errno);
    checkPeer(sock.get(), path);
}

Connection::Connection(int type, const std::string &path, std::chrono::milliseconds timeout)
    : sock_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)), deadline_(Clock::now() + timeout)
{
    // A full queue of connections makes connect wait; the send timeout ends that too.
    timeval limit = {static_cast<time_t>(timeout.count() / 1000),
                     static_cast<suseconds_t>(timeout.count() % 1000 * 1000)};
    setsockopt(sock_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    connectTo(sock_, path);
}

void Connection::send(const void *bytes, size_t size) const
{
    ssize_t sent = ::send(sock_.get(), bytes, size, MSG_NOSIGNAL);
    if (sent < 0)
        throw NoDaemon(std::string("sending the request failed: ") + std::strerror(errno));
    if (static_cast<size_t>(sent) != size)
        throw NoDaemon("the daemon did not take the whole request");
}

size_t Connection::receive(void *out, size_t size) const
{
    const size_t got = receiveSome(out, size);
    if (got == 0)
        throw NoDaemon("the daemon closed the connection without a whole answer");
    return got;
}

size_t Connection::receiveSome(void *out, size_t size) const
{
    for (;;) {
        if (!waitReadable(sock_.get(), deadline_))
            throw NoDaemon("the daemon did not answer in time");
        ssize_t got = recv(sock_.get(), out, size, MSG_DONTWAIT);
        if (got >= 0)
            return static_cast<size_t>(got);
        if (errno != EINTR && errno != EAGAIN)
            throw NoDaemon(std::string("reading the daemon's answer failed: ") + std::strerror(errno));
    }
}

void Connection::receiveAll(void *out, size_t size) const
{
    for (size_t got = 0; got < size;)
        got += receive(static_cast<uint8_t *>(out) + got, size - got);
}

Bytes Connection::receiveFile() const
{
    char text[256];
    iovec vector = {text, sizeof(text)};
    int descriptor = -1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(descriptor))];
    msghdr message = {};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    if (!waitReadable(sock_.get(), deadline_))
        throw NoDaemon("the daemon did not answer in time");
    const ssize_t got = recvmsg(sock_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    const cmsghdr *header = got > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
        header->cmsg_len == CMSG_LEN(sizeof(descriptor)))
        std::memcpy(&descriptor, CMSG_DATA(header), sizeof(descriptor));
    const Socket file(descriptor);
    struct stat about = {};
    if (descriptor < 0)
        throw NoDaemon("the daemon handed out no file: " +
                       std::string(text, static_cast<size_t>(std::max<ssize_t>(got, 0))));
    if (fstat(descriptor, &about) != 0 || about.st_size < 0)
        throw NoDaemon("the daemon's file cannot be read");
    Bytes bytes(static_cast<size_t>(about.st_size));
    for (size_t at = 0; at < bytes.size();) {
        const ssize_t count = pread(descriptor, &bytes[at], bytes.size() - at, static_cast<off_t>(at));
        if (count <= 0)
            throw NoDaemon("the daemon's file cannot be read");
        at += static_cast<size_t>(count);
    }
    return bytes;
}

void Connection::finish() const { shutdown(sock_.get(), SHUT_WR); }

std::string Connection::receiveRest() const
{
    std::string rest;
    char piece[65536];
    while (const size_t got = receiveSome(piece, sizeof piece))
        rest.append(piece, got);
    return rest;
}

bool isDaemonRunning(const Daemon &daemon)
{
    try {
        daemon.ask({FUNC_GLOBAL_GET, GLOBAL_ENABLE});
        return true;
    } catch (const NobodyListens &) {
        return false;
    }
}

Exchange socketExchange(std::string path, std::chrono::milliseconds timeout)
{
    return [path = std::move(path), timeout](const Bytes &body) { return exchangeOnce(path, timeout, body); };
}

std::string daemonSocketPath()
{
    const char *named = std::getenv(DHCPSNOOP_SOCKET_ENV);
    if (named && *named)
        return named;
    struct stat about = {};
    const bool hasMoved = lstat(DHCPSNOOP_CONTROL_PATH, &about) == 0 || errno != ENOENT;
    const bool isRoots = lstat(DHCPSNOOP_SOCKET_PATH, &about) == 0 && S_ISSOCK(about.st_mode) &&
                         (about.st_uid == 0 || about.st_uid == geteuid());
    return !hasMoved && isRoots ? DHCPSNOOP_SOCKET_PATH : DHCPSNOOP_CONTROL_PATH;
}

std::string askPlatform(const std::string &request)
{
    constexpr size_t ANSWER_MAX = 65536;
    constexpr std::chrono::seconds PATIENCE(60); // a change of role may have thousands of bindings to install
    const char *named = std::getenv(DHCPSNOOP_PLATFORM_SOCKET_ENV);
    const Connection connection(SOCK_SEQPACKET, named && *named ? named : DHCPSNOOP_PLATFORM_SOCKET_PATH,
                                PATIENCE);
    connection.send(request.data(), request.size());
    std::string answer(ANSWER_MAX, '\0');
    answer.resize(connection.receive(answer.data(), answer.size()));
    return answer;
}
