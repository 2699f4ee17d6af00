// The socket calls, the clock and calloc, as the linker's --wrap turns them. They are the world's; only a connection of the
// command server (a descriptor below WORLD_FIRST_SOCKET, but 0, through which the daemon relays) is the kernel's own.
#include "world.h"

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

// The structure that `address` begins with, as far as it reaches.
template <class Address>
static Address address_as(const void *address, size_t length)
{
    Address copy = {};
    memcpy(&copy, address, std::min(length, sizeof copy));
    return copy;
}

static std::string address_text(const struct sockaddr *address, size_t length)
{
    const auto nl = address_as<sockaddr_nl>(address, length);
    const auto in = address_as<sockaddr_in>(address, length);
    if (address->sa_family == AF_NETLINK)
        return world_format("AF_NETLINK %u %u %zu", nl.nl_pid, nl.nl_groups, length);
    if (address->sa_family == AF_INET)
        return world_format("AF_INET %08x:%u %zu", ntohl(in.sin_addr.s_addr), ntohs(in.sin_port), length);
    return world_format("AF_UNIX %s %zu", reinterpret_cast<const sockaddr_un *>(address)->sun_path, length);
}

// Sends what the entry holds, or refuses it.
static ssize_t sent(WorldEntry entry)
{
    const auto count = static_cast<ssize_t>(entry.data.size());
    const std::string line = entry.text;
    world.enter(std::move(entry));
    errno = EPERM;
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
    const std::map<int, const char *> names = {{AF_PACKET, "AF_PACKET"}, {AF_UNIX, "AF_UNIX"}, {AF_INET, "AF_INET"}, {AF_NETLINK, "AF_NETLINK"}};
    const std::string line = world_format("socket %s %d 0x%04x", names.at(domain), type & 0xF, ntohs(static_cast<uint16_t>(protocol)));
    world.enter({.did = Did::Call, .text = line});
    errno = EPERM;
    const auto refusal = world.refused(line);
    return refusal ? *refusal : world.nextSocket++;
}

int __wrap_bind(int, const struct sockaddr *address, socklen_t length) { return world_called("bind " + address_text(address, length)); }

int __wrap_listen(int, int backlog) { return world_called(WORLD_LINE("listen %d", backlog)); }

int __wrap_accept(int, struct sockaddr *, socklen_t *)
{
    world_called(WORLD_LINE("accept"));
    errno = EAGAIN;
    return std::exchange(world.connection, -1);
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
    const std::map<int, const char *> names = {{SO_BROADCAST, "SO_BROADCAST"}, {SO_REUSEADDR, "SO_REUSEADDR"}, {SO_RCVBUF, "SO_RCVBUF"}, {SO_RCVLOWAT, "SO_RCVLOWAT"}, {SO_RCVTIMEO, "SO_RCVTIMEO"}, {SO_SNDTIMEO, "SO_SNDTIMEO"}};
    const auto number = length == sizeof(timeval) ? static_cast<int>(address_as<timeval>(value, length).tv_sec) : address_as<int>(value, length);
    const int result = world_called(WORLD_LINE("setsockopt %s %d", level == SOL_SOCKET && names.contains(option) ? names.at(option) : "?", number));
    return is_ours(fd) ? result : __real_setsockopt(fd, level, option, value, length);
}

int __wrap_ioctl(int, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    const int value = *va_arg(arguments, int *);
    va_end(arguments);
    return world_called(WORLD_LINE("ioctl %s %d", request == FIONBIO ? "FIONBIO" : "?", value));
}

int __wrap_close(int fd) { return is_ours(fd) ? world_called(WORLD_LINE("close %d", fd)) : __real_close(fd); }

int __wrap_unlink(const char *path) { return world_called(WORLD_LINE("unlink %s", path)); }

mode_t __wrap_umask(mode_t mask) { return world_called(WORLD_LINE("umask %04o", mask)), 022; }

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
        highest = std::max(highest, fd);
        if (world.readable.erase(fd) != 0) {
            marked++;
            FD_SET(fd, &readable);
        }
    }
    line += world_format(", %ld s%s", static_cast<long>(timeout->tv_sec), nfds == highest + 1 ? "" : ", wrong count");
    timeout->tv_sec = 0; // as Linux does
    if (world_called(line) != 0)
        return -1; // and leaves the set as it was
    *readSet = readable;
    return marked;
}

ssize_t __wrap_sendto(int fd, const void *bytes, size_t count, int, const struct sockaddr *address, socklen_t length)
{
    WorldScope scope;
    const auto port = static_cast<uint32_t>(address_as<sockaddr_ll>(address, length).sll_ifindex);
    const auto *first = static_cast<const uint8_t *>(bytes), *to = reinterpret_cast<const uint8_t *>(address);
    if (!world.recording && world.sent != nullptr)
        world.sent(Did::Frame, first, count, port);
    if (world.quiet())
        return static_cast<ssize_t>(count);
    return sent({.did = Did::Frame, .text = world_format("frame %u %zu", port, count), .data = Bytes(first, first + count), .port = port, .socket = fd, .address = Bytes(to, to + length)});
}

static std::string dotted(uint32_t address) { return world_format("%u.%u.%u.%u", address >> 24, (address >> 16) & 255, (address >> 8) & 255, address & 255); }

ssize_t __wrap_sendmsg(int fd, const struct msghdr *msg, int flags)
{
    if (!is_ours(fd))
        return __real_sendmsg(fd, msg, flags);
    WorldScope scope;
    const auto to = address_as<sockaddr_in>(msg->msg_name, msg->msg_namelen);
    const auto *first = static_cast<const uint8_t *>(msg->msg_iov[0].iov_base);
    const size_t count = msg->msg_iov[0].iov_len;
    if (!world.recording && world.sent != nullptr)
        world.sent(Did::Relay, first, count, ntohl(to.sin_addr.s_addr));
    if (world.quiet())
        return static_cast<ssize_t>(count);
    struct in_pktinfo info = {};
    const auto *control = static_cast<const uint8_t *>(msg->msg_control);
    if (msg->msg_controllen == CMSG_SPACE(sizeof info))
        info = address_as<in_pktinfo>(control + CMSG_LEN(0), sizeof info);
    const Bytes right = world_control({}, IPPROTO_IP, IP_PKTINFO, Bytes(reinterpret_cast<uint8_t *>(&info), reinterpret_cast<uint8_t *>(&info + 1)));
    const bool good = msg->msg_iovlen == 1 && to.sin_family == AF_INET && msg->msg_namelen == sizeof to && Bytes(control, control + msg->msg_controllen) == right && info.ipi_ifindex == 0 && info.ipi_addr.s_addr == 0;
    return sent({.did = Did::Relay, .text = "relay " + dotted(ntohl(info.ipi_spec_dst.s_addr)) + " " + dotted(ntohl(to.sin_addr.s_addr)) + world_format(":%u %zu", ntohs(to.sin_port), count) + (good ? "" : ", bad address or packet information"), .data = Bytes(first, first + count), .socket = fd});
}
}
