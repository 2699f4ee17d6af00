// sendmmsg and recvmmsg on an AF_PACKET socket.
#include "link.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

static constexpr int RECEIVE_BUFFER = 4 << 20; // the kernel doubles it; forced beyond the system's limit

void die(const std::string &what)
{
    fprintf(stderr, "%s: %s\n", what.c_str(), strerror(errno));
    exit(1);
}

int open_packet_socket(const char *device, uint16_t etherType)
{
    const int sock = socket(AF_PACKET, SOCK_RAW, 0); // takes nothing before it is bound
    if (sock < 0)
        die("packet socket");
    const int on = 1;
    if (setsockopt(sock, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0)
        die("PACKET_IGNORE_OUTGOING");
    if (setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) != 0)
        die("SO_RCVBUFFORCE");
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(etherType);
    if (device != nullptr && (address.sll_ifindex = static_cast<int>(if_nametoindex(device))) == 0)
        die(device);
    if (bind(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        die("bind to a device");
    return sock;
}

Link::Link(const std::string &device, uint16_t etherType)
    : socket_(open_packet_socket(device.c_str(), etherType))
{
    ifreq request = {};
    device.copy(request.ifr_name, IFNAMSIZ - 1);
    if (ioctl(socket_, SIOCGIFHWADDR, &request) != 0)
        die(device);
    memcpy(address_, request.ifr_hwaddr.sa_data, sizeof address_);
    line_.reserve(BATCH);
}

void Link::send(std::span<const uint8_t> frame)
{
    line_.emplace_back(frame.begin(), frame.end());
    if (line_.size() == BATCH)
        flush();
}

void Link::flush()
{
    mmsghdr messages[BATCH] = {};
    iovec vectors[BATCH];
    for (size_t i = 0; i < line_.size(); i++) {
        vectors[i] = {line_[i].data(), line_[i].size()};
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    for (size_t sent = 0; sent < line_.size();) {
        const int count = sendmmsg(socket_, messages + sent, static_cast<unsigned>(line_.size() - sent), 0);
        if (count > 0)
            sent += static_cast<size_t>(count);
        else if (errno != EINTR && errno != ENOBUFS)
            die("send");
    }
    line_.clear();
}

size_t Link::receive_batch()
{
    mmsghdr messages[BATCH] = {};
    iovec vectors[BATCH];
    for (size_t i = 0; i < BATCH; i++) {
        vectors[i] = {room_[i], FRAME_ROOM};
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int count = recvmmsg(socket_, messages, BATCH, MSG_DONTWAIT, nullptr);
    if (count < 0) {
        if (errno == EAGAIN || errno == EINTR || errno == ENETDOWN)
            return 0;
        die("receive");
    }
    for (int i = 0; i < count; i++)
        lengths_[i] = messages[i].msg_len;
    return static_cast<size_t>(count);
}
