// The socket calls, the clock and calloc, as the linker's --wrap turns them. Descriptors from
// WORLD_FIRST_SOCKET on are the world's; descriptor 0 is too, because the daemon relays through it and closes
// it when its start-up fails early. Every other descriptor is the kernel's own.
#include "world.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "management.h"

namespace
{

bool is_ours(int fd) { return fd >= WORLD_FIRST_SOCKET || fd == 0; }

// Journals the call of the kernel and gives its result, errno set when refused.
__attribute__((format(printf, 1, 2))) int called(const char *format, ...)
{
    WorldScope scope;
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    world.enter({.did = Did::Call, .text = line});
    const auto refusal = world.refused(line);
    if (refusal && *refusal < 0)
        errno = WORLD_EPERM;
    return refusal.value_or(0);
}

const char *domain_name(int domain)
{
    const std::map<int, const char *> names = {{AF_PACKET, "AF_PACKET"}, {AF_UNIX, "AF_UNIX"}, {AF_INET, "AF_INET"}, {AF_NETLINK, "AF_NETLINK"}};
    return names.contains(domain) ? names.at(domain) : "?";
}

std::string option_name(int level, int option)
{
    const std::map<int, const char *> names = {{SO_BROADCAST, "SO_BROADCAST"}, {SO_REUSEADDR, "SO_REUSEADDR"}, {SO_RCVBUF, "SO_RCVBUF"}, {SO_RCVLOWAT, "SO_RCVLOWAT"}};
    return level == SOL_SOCKET && names.contains(option) ? names.at(option) : world_format("%d %d", level, option);
}

std::string address_text(const struct sockaddr *address, socklen_t length)
{
    sa_family_t family;
    memcpy(&family, address, sizeof family);
    std::string text = domain_name(family);
    if (family == AF_UNIX) {
        text += world_format(" %s", reinterpret_cast<const struct sockaddr_un *>(address)->sun_path);
    } else if (family == AF_NETLINK) {
        struct sockaddr_nl nl;
        memcpy(&nl, address, sizeof nl);
        text += world_format(" %u %u", nl.nl_pid, nl.nl_groups);
    } else if (family == AF_INET) {
        struct sockaddr_in in;
        memcpy(&in, address, sizeof in);
        text += world_format(" %08x:%u", ntohl(in.sin_addr.s_addr), ntohs(in.sin_port));
    }
    return text + world_format(" %u", length);
}

std::string dotted(uint32_t address)
{
    return world_format("%u.%u.%u.%u", address >> 24, (address >> 16) & 255, (address >> 8) & 255, address & 255);
}

} // namespace

extern "C" {

int __real_socket(int, int, int);
int __real_bind(int, const struct sockaddr *, socklen_t);
int __real_listen(int, int);
int __real_accept(int, struct sockaddr *, socklen_t *);
int __real_setsockopt(int, int, int, const void *, socklen_t);
int __real_close(int);
int __real_unlink(const char *);
mode_t __real_umask(mode_t);
int __real_fchmod(int, mode_t);
int __real_chmod(const char *, mode_t);
ssize_t __real_sendto(int, const void *, size_t, int, const struct sockaddr *, socklen_t);
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

time_t __wrap_time(time_t *out)
{
    const auto now = static_cast<time_t>(world.now);
    if (out != nullptr)
        *out = now;
    return now;
}

void *__wrap_calloc(size_t count, size_t size)
{
    if (world.failCalloc > 0 && --world.failCalloc == 0)
        return nullptr;
    return __real_calloc(count, size);
}

int __wrap_socket(int domain, int type, int protocol)
{
    if (!world.fakeSockets)
        return __real_socket(domain, type, protocol);
    WorldScope scope;
    std::string line = world_format("socket %s %d ", domain_name(domain), type & 0xF);
    line += domain == AF_PACKET ? world_format("0x%04x", ntohs(static_cast<uint16_t>(protocol))) : world_format("%d", protocol);
    world.enter({.did = Did::Call, .text = line});
    if (const auto refusal = world.refused(line)) {
        errno = WORLD_EPERM;
        return *refusal;
    }
    return world.nextSocket++;
}

int __wrap_bind(int fd, const struct sockaddr *address, socklen_t length)
{
    if (!is_ours(fd))
        return __real_bind(fd, address, length);
    WorldScope scope;
    const std::string mode = address->sa_family != AF_UNIX ? "" : world_format(" mode %04o", 0777 & ~static_cast<unsigned>(world.umask));
    return called("bind %s%s", address_text(address, length).c_str(), mode.c_str());
}

int __wrap_listen(int fd, int backlog) { return is_ours(fd) ? called("listen %d", backlog) : __real_listen(fd, backlog); }

int __wrap_accept(int fd, struct sockaddr *address, socklen_t *length)
{
    if (!is_ours(fd))
        return __real_accept(fd, address, length);
    called("accept");
    errno = EAGAIN;
    return -1;
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
    if (!is_ours(fd))
        return __real_setsockopt(fd, level, option, value, length);
    WorldScope scope;
    int number = -1;
    if (length == sizeof number)
        memcpy(&number, value, sizeof number);
    return called("setsockopt %s %d", option_name(level, option).c_str(), number);
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (is_ours(fd))
        return called("ioctl %s %d", request == FIONBIO ? "FIONBIO" : "?", *static_cast<int *>(argument));
    errno = ENOTTY; // only the daemon's event socket is driven this way
    return -1;
}

int __wrap_close(int fd) { return is_ours(fd) ? called("close %d", fd) : __real_close(fd); }

// A path of the world's, not of the file system.
static bool is_ours(const char *path) { return world.fakeSockets && strcmp(path, DHCPSNOOP_SOCKET_PATH) == 0; }

int __wrap_unlink(const char *path) { return is_ours(path) ? called("unlink %s", path) : __real_unlink(path); }

mode_t __wrap_umask(mode_t mask)
{
    const mode_t before = world.umask;
    world.umask = mask;
    return world.fakeSockets ? before : __real_umask(mask);
}

int __wrap_fchmod(int fd, mode_t mode) { return is_ours(fd) ? called("fchmod %04o", mode) : __real_fchmod(fd, mode); }

int __wrap_chmod(const char *path, mode_t mode) { return is_ours(path) ? called("chmod %s %04o", path, mode) : __real_chmod(path, mode); }

// Marks what is readable in this world. The line has the watched descriptors by name and the time-out.
int __wrap_select(int nfds, fd_set *readSet, fd_set *, fd_set *, struct timeval *timeout)
{
    WorldScope scope;
    const struct {
        const char *name;
        int fd;
    } known[] = {{"data", gDhcpsnoop.dataSock},
                 {"data6", gDhcpsnoop.data6Sock},
                 {"cmd", gDhcpsnoop.cmdSock},
                 {"rt", gDhcpsnoop.rtSock},
                 {"udp", gDhcpsnoop.udpSock}};
    std::string line = "select";
    int highest = 0;
    for (const auto &entry : known) {
        if (entry.fd >= 0 && entry.fd < FD_SETSIZE && FD_ISSET(entry.fd, readSet)) {
            line += world_format(" %s", entry.name);
            highest = entry.fd > highest ? entry.fd : highest;
        }
    }
    line += world_format(", %ld s%s", static_cast<long>(timeout->tv_sec), nfds == highest + 1 ? "" : ", wrong count");
    world.enter({.did = Did::Call, .text = line});
    timeout->tv_sec = 0; // as Linux does
    if (world.selectResult && *world.selectResult < 0) {
        errno = EINTR; // and leaves the set as it was
        return *world.selectResult;
    }
    int marked = 0;
    for (const auto &entry : known) {
        if (entry.fd < 0 || entry.fd >= FD_SETSIZE || !FD_ISSET(entry.fd, readSet))
            continue;
        if (world.readable.contains(entry.fd))
            marked++;
        else
            FD_CLR(entry.fd, readSet);
    }
    world.readable.clear();
    return world.selectResult.value_or(marked);
}

ssize_t __wrap_sendto(int fd, const void *bytes, size_t count, int flags, const struct sockaddr *address, socklen_t length)
{
    if (!is_ours(fd))
        return __real_sendto(fd, bytes, count, flags, address, length);
    WorldScope scope;
    struct sockaddr_ll ll = {};
    memcpy(&ll, address, length < sizeof ll ? length : sizeof ll);
    if (!world.recording && world.sent != nullptr)
        world.sent(Did::Frame, static_cast<const uint8_t *>(bytes), count, static_cast<uint32_t>(ll.sll_ifindex));
    if (world.quiet())
        return static_cast<ssize_t>(count);
    const auto *first = static_cast<const uint8_t *>(bytes);
    const auto *firstAddress = reinterpret_cast<const uint8_t *>(address);
    const std::string line = world_format("frame %d %zu", ll.sll_ifindex, count);
    world.enter({.did = Did::Frame, .text = line, .data = Bytes(first, first + count), .port = static_cast<uint32_t>(ll.sll_ifindex), .socket = fd, .address = Bytes(firstAddress, firstAddress + length)});
    if (world.refused(line)) {
        errno = WORLD_EPERM;
        return -1;
    }
    return static_cast<ssize_t>(count);
}

ssize_t __wrap_sendmsg(int fd, const struct msghdr *msg, int flags)
{
    if (!is_ours(fd))
        return __real_sendmsg(fd, msg, flags);
    WorldScope scope;
    struct sockaddr_in to = {};
    memcpy(&to, msg->msg_name, msg->msg_namelen < sizeof to ? msg->msg_namelen : sizeof to);
    if (!world.recording && world.sent != nullptr && msg->msg_iovlen == 1)
        world.sent(Did::Relay, static_cast<const uint8_t *>(msg->msg_iov[0].iov_base), msg->msg_iov[0].iov_len, ntohl(to.sin_addr.s_addr));
    if (world.quiet())
        return 0;
    WorldEntry entry = {.did = Did::Relay, .text = {}, .socket = fd};
    for (size_t i = 0; i < msg->msg_iovlen; i++) {
        const auto *first = static_cast<const uint8_t *>(msg->msg_iov[i].iov_base);
        entry.data.insert(entry.data.end(), first, first + msg->msg_iov[i].iov_len);
    }
    entry.to = ntohl(to.sin_addr.s_addr);
    std::string note;
    if (to.sin_family != AF_INET || msg->msg_namelen != sizeof to)
        note += ", bad address";
    const auto *control = static_cast<const uint8_t *>(msg->msg_control);
    entry.address.assign(control, control + msg->msg_controllen);
    struct cmsghdr header = {};
    struct in_pktinfo info = {};
    if (msg->msg_controllen == CMSG_SPACE(sizeof info)) {
        memcpy(&header, control, sizeof header);
        memcpy(&info, control + CMSG_LEN(0), sizeof info);
    }
    if (header.cmsg_level != IPPROTO_IP || header.cmsg_type != IP_PKTINFO || header.cmsg_len != CMSG_LEN(sizeof info) || info.ipi_ifindex != 0 || info.ipi_addr.s_addr != 0)
        note += ", bad packet information";
    entry.from = ntohl(info.ipi_spec_dst.s_addr);
    entry.text = "relay " + dotted(entry.from) + " " + dotted(entry.to) + world_format(":%u %zu", ntohs(to.sin_port), entry.data.size()) + note;
    const std::string line = entry.text;
    const auto count = static_cast<ssize_t>(entry.data.size());
    world.enter(std::move(entry));
    if (world.refused(line)) {
        errno = WORLD_EPERM;
        return -1;
    }
    return count;
}
}
