// The socket calls, the clock and calloc, as the linker's --wrap turns them. They are the world's; only a connection of the
// command server (a descriptor below WORLD_FIRST_SOCKET, but 0, through which the daemon relays) is the kernel's own.
#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <utility>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/un.h>

static bool is_ours(int fd) { return fd >= WORLD_FIRST_SOCKET || fd == 0; }

static std::string dotted(uint32_t address)
{
    return world_format("%u.%u.%u.%u", address >> 24, (address >> 16) & 255, (address >> 8) & 255, address & 255);
}

static std::string address_text(const struct sockaddr *address, size_t length)
{
    sockaddr_nl nl = {};
    sockaddr_in in = {};
    memcpy(&nl, address, std::min(length, sizeof nl));
    memcpy(&in, address, std::min(length, sizeof in));
    if (address->sa_family == AF_NETLINK)
        return world_format("AF_NETLINK %u %u %zu", nl.nl_pid, nl.nl_groups, length);
    if (address->sa_family == AF_INET)
        return world_format("AF_INET %08x:%u %zu", ntohl(in.sin_addr.s_addr), ntohs(in.sin_port), length);
    return world_format("AF_UNIX %s %zu mode %04o", reinterpret_cast<const sockaddr_un *>(address)->sun_path, length, 0777 & ~world.umask);
}

// Sends what the entry holds, or refuses it.
static ssize_t sent(WorldEntry entry)
{
    const auto count = static_cast<ssize_t>(entry.data.size());
    const std::string line = entry.text;
    world.enter(std::move(entry));
    errno = WORLD_EPERM;
    return world.refused(line) ? -1 : count;
}

extern "C" {

int __real_setsockopt(int, int, int, const void *, socklen_t);
int __real_close(int);
ssize_t __real_sendmsg(int, const struct msghdr *, int);
void *__real_calloc(size_t, size_t);

// dhcpsnoop_recv(DhcpsnoopRxPkt *), on its way from the loop.
void __real__Z14dhcpsnoop_recvP14DhcpsnoopRxPkt(DhcpsnoopRxPkt *rxpkt);

void __wrap__Z14dhcpsnoop_recvP14DhcpsnoopRxPkt(DhcpsnoopRxPkt *rxpkt)
{
    if (world.recording) {
        WorldScope scope;
        world.received.push_back(*rxpkt);
    }
    __real__Z14dhcpsnoop_recvP14DhcpsnoopRxPkt(rxpkt);
}

time_t __wrap_time(time_t *) { return static_cast<time_t>(world.now); }

void *__wrap_calloc(size_t count, size_t size)
{
    return world.failCalloc > 0 && --world.failCalloc == 0 ? nullptr : __real_calloc(count, size);
}

int __wrap_socket(int domain, int type, int protocol)
{
    WorldScope scope;
    const std::map<int, const char *> names = {{AF_PACKET, "AF_PACKET"}, {AF_UNIX, "AF_UNIX"}, {AF_INET, "AF_INET"}, {AF_NETLINK, "AF_NETLINK"}};
    const std::string text = domain == AF_PACKET ? world_format("0x%04x", ntohs(static_cast<uint16_t>(protocol))) : std::to_string(protocol);
    const std::string line = world_format("socket %s %d ", names.at(domain), type & 0xF) + text;
    world.enter({.did = Did::Call, .text = line});
    errno = WORLD_EPERM;
    const auto refused = world.refused(line);
    return refused ? *refused : world.nextSocket++;
}

int __wrap_bind(int, const struct sockaddr *address, socklen_t length) { return world_called("bind %s", address_text(address, length).c_str()); }

int __wrap_listen(int, int backlog) { return world_called("listen %d", backlog); }

int __wrap_accept(int, struct sockaddr *, socklen_t *)
{
    world_called("accept");
    errno = EAGAIN;
    return std::exchange(world.connection, -1);
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
    if (!is_ours(fd))
        return __real_setsockopt(fd, level, option, value, length);
    const std::map<int, const char *> names = {{SO_BROADCAST, "SO_BROADCAST"}, {SO_REUSEADDR, "SO_REUSEADDR"}, {SO_RCVBUF, "SO_RCVBUF"}};
    int number = -1;
    if (length == sizeof number)
        memcpy(&number, value, sizeof number);
    return world_called("setsockopt %s %d", level == SOL_SOCKET && names.contains(option) ? names.at(option) : "?", number);
}

int __wrap_ioctl(int, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    const int value = *va_arg(arguments, int *);
    va_end(arguments);
    return world_called("ioctl %s %d", request == FIONBIO ? "FIONBIO" : "?", value);
}

int __wrap_close(int fd) { return is_ours(fd) ? world_called("close %d", fd) : __real_close(fd); }

int __wrap_unlink(const char *path) { return world_called("unlink %s", path); }

mode_t __wrap_umask(mode_t mask) { return std::exchange(world.umask, mask); }

int __wrap_fchmod(int, mode_t mode) { return world_called("fchmod %04o", mode); }

int __wrap_chmod(const char *path, mode_t mode) { return world_called("chmod %s %04o", path, mode); }

// Marks what is readable in this world. The line has the watched descriptors by name and the time-out.
int __wrap_select(int nfds, fd_set *readSet, fd_set *, fd_set *, struct timeval *timeout)
{
    WorldScope scope;
    const std::pair<const char *, int> known[] = {{"data", gDhcpsnoop.dataSock}, {"data6", gDhcpsnoop.data6Sock}, {"cmd", gDhcpsnoop.cmdSock}, {"rt", gDhcpsnoop.rtSock}, {"udp", gDhcpsnoop.udpSock}};
    std::string line = "select";
    int highest = 0, marked = 0;
    fd_set readable;
    FD_ZERO(&readable);
    for (const auto &[name, fd] : known) {
        if (fd < 0 || fd >= FD_SETSIZE || !FD_ISSET(fd, readSet))
            continue;
        line += world_format(" %s", name);
        highest = fd > highest ? fd : highest;
        if (world.readable.contains(fd)) {
            marked++;
            FD_SET(fd, &readable);
        }
    }
    line += world_format(", %ld s%s", static_cast<long>(timeout->tv_sec), nfds == highest + 1 ? "" : ", wrong count");
    world.enter({.did = Did::Call, .text = line});
    timeout->tv_sec = 0; // as Linux does
    errno = EINTR;
    if (world.selectResult && *world.selectResult < 0)
        return *world.selectResult; // and leaves the set as it was
    *readSet = readable;
    world.readable.clear();
    return world.selectResult.value_or(marked);
}

ssize_t __wrap_sendto(int fd, const void *bytes, size_t count, int, const struct sockaddr *address, socklen_t length)
{
    WorldScope scope;
    struct sockaddr_ll ll = {};
    memcpy(&ll, address, length < sizeof ll ? length : sizeof ll);
    const auto port = static_cast<uint32_t>(ll.sll_ifindex);
    const auto *first = static_cast<const uint8_t *>(bytes), *to = reinterpret_cast<const uint8_t *>(address);
    if (!world.recording && world.sent != nullptr)
        world.sent(Did::Frame, first, count, port);
    if (world.quiet())
        return static_cast<ssize_t>(count);
    return sent({.did = Did::Frame, .text = world_format("frame %u %zu", port, count), .data = Bytes(first, first + count), .port = port, .socket = fd, .address = Bytes(to, to + length)});
}

ssize_t __wrap_sendmsg(int fd, const struct msghdr *msg, int flags)
{
    if (!is_ours(fd))
        return __real_sendmsg(fd, msg, flags);
    WorldScope scope;
    struct sockaddr_in to = {};
    memcpy(&to, msg->msg_name, msg->msg_namelen < sizeof to ? msg->msg_namelen : sizeof to);
    const auto *first = static_cast<const uint8_t *>(msg->msg_iov[0].iov_base);
    const size_t count = msg->msg_iov[0].iov_len;
    if (!world.recording && world.sent != nullptr)
        world.sent(Did::Relay, first, count, ntohl(to.sin_addr.s_addr));
    if (world.quiet())
        return static_cast<ssize_t>(count);
    struct cmsghdr header = {};
    struct in_pktinfo info = {};
    if (msg->msg_controllen == CMSG_SPACE(sizeof info)) {
        memcpy(&header, msg->msg_control, sizeof header);
        memcpy(&info, static_cast<const uint8_t *>(msg->msg_control) + CMSG_LEN(0), sizeof info);
    }
    const bool right = msg->msg_iovlen == 1 && to.sin_family == AF_INET && msg->msg_namelen == sizeof to && header.cmsg_level == IPPROTO_IP && header.cmsg_type == IP_PKTINFO &&
                       header.cmsg_len == CMSG_LEN(sizeof info) && info.ipi_ifindex == 0 && info.ipi_addr.s_addr == 0;
    return sent({.did = Did::Relay, .text = "relay " + dotted(ntohl(info.ipi_spec_dst.s_addr)) + " " + dotted(ntohl(to.sin_addr.s_addr)) + world_format(":%u %zu", ntohs(to.sin_port), count) + (right ? "" : ", bad address or packet information"), .data = Bytes(first, first + count), .socket = fd});
}
}
