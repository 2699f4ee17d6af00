// What moving a frame costs at least when it is done one at a time as the daemon does it: select, recvmsg
// with packet information, a copy, sendto out of the other port. Ends with the signal that stops it.
//
//   bench_loop DEVICE DEVICE
#include "link.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: bench_loop DEVICE DEVICE\n");
        return 2;
    }
    const auto first = static_cast<int>(if_nametoindex(argv[1])),
               second = static_cast<int>(if_nametoindex(argv[2]));
    if (first == 0 || second == 0)
        die("device");
    const int sock = open_packet_socket(nullptr, ETH_P_IP);
    const int on = 1;
    if (setsockopt(sock, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on) != 0)
        die("PACKET_AUXDATA");

    static uint8_t frame[FRAME_ROOM], copy[FRAME_ROOM];
    alignas(cmsghdr) static uint8_t control[128];
    sockaddr_ll from = {};
    iovec vector = {frame, sizeof frame};
    for (;;) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(sock, &set);
        timeval timeout = {60, 0};
        if (select(sock + 1, &set, nullptr, nullptr, &timeout) <= 0)
            continue;
        msghdr message = {&from, sizeof from, &vector, 1, control, sizeof control, 0};
        const ssize_t length = recvmsg(sock, &message, 0);
        if (length < 0)
            continue;
        memcpy(copy, frame, static_cast<size_t>(length));

        sockaddr_ll to = {};
        to.sll_family = AF_PACKET;
        to.sll_protocol = htons(ETH_P_IP);
        to.sll_ifindex = from.sll_ifindex == first ? second : first;
        to.sll_halen = ETH_ALEN;
        memcpy(to.sll_addr, copy, ETH_ALEN);
        sendto(sock, copy, static_cast<size_t>(length), 0, reinterpret_cast<const sockaddr *>(&to),
               sizeof to);
    }
}
