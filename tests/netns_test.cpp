#include "netns_test.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

// virtio_net_hdr, whose own header is not C++.
struct VnetHeader {
    uint8_t flags, gsoType;
    uint16_t headerLength, gsoSize, checksumStart, checksumOffset;
};
static constexpr uint8_t NEEDS_CHECKSUM = 1;

void NetnsTest::SetUp()
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, for namespaces and eBPF";
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0)
        GTEST_SKIP() << "needs namespaces of its own: " << strerror(errno);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 || mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
        GTEST_SKIP() << "needs mounts of its own: " << strerror(errno);
    sysctl("net/ipv6/conf/default/disable_ipv6", "1");
}

std::string NetnsTest::run(const std::string &command)
{
    std::string output;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << command << ": " << strerror(errno);
        return output;
    }
    char piece[512];
    for (size_t got; (got = fread(piece, 1, sizeof piece, pipe)) > 0;)
        output.append(piece, got);
    const int status = pclose(pipe);
    EXPECT_EQ(status, 0) << command << "\n"
                         << output;
    return output;
}

void NetnsTest::veth(const std::string &one, const std::string &other)
{
    run("ip link add " + one + " type veth peer name " + other);
    run("ip link set " + one + " up && ip link set " + other + " up");
}

void NetnsTest::bridge_of_two()
{
    run("ip link add br0 type bridge mcast_snooping 0 && ip link set br0 up");
    for (const std::string n : {"1", "2"}) {
        veth("p" + n, "c" + n);
        run("ip link set p" + n + " mtu 9000 master br0 && ip link set c" + n + " mtu 9000");
    }
}

uint32_t NetnsTest::index(const std::string &device)
{
    const uint32_t found = if_nametoindex(device.c_str());
    EXPECT_NE(found, 0u) << device;
    return found;
}

void NetnsTest::sysctl(const std::string &path, const std::string &value) { std::ofstream("/proc/sys/" + path) << value; }

Wire::Wire(const std::string &device) : sock_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL)))
{
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(device.c_str()));
    const int on = 1;
    EXPECT_EQ(bind(sock_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    EXPECT_EQ(setsockopt(sock_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on), 0) << strerror(errno);
    EXPECT_EQ(setsockopt(sock_, SOL_PACKET, PACKET_VNET_HDR, &on, sizeof on), 0) << strerror(errno);
}

Wire::~Wire() { close(sock_); }

static void send_with(int sock, VnetHeader header, const Bytes &frame)
{
    iovec parts[] = {{&header, sizeof header}, {const_cast<uint8_t *>(frame.data()), frame.size()}};
    EXPECT_EQ(writev(sock, parts, 2), static_cast<ssize_t>(sizeof header + frame.size())) << strerror(errno);
}

void Wire::send(const Bytes &frame) { send_with(sock_, VnetHeader{}, frame); }

void Wire::send_unfinished(const Bytes &frame, size_t start, size_t offset)
{
    VnetHeader header = {};
    header.flags = NEEDS_CHECKSUM;
    header.checksumStart = static_cast<uint16_t>(start);
    header.checksumOffset = static_cast<uint16_t>(offset);
    send_with(sock_, header, frame);
}

std::optional<Bytes> Wire::receive()
{
    for (pollfd wait = {sock_, POLLIN, 0}; poll(&wait, 1, 100) > 0;) {
        Bytes got(70000);
        const ssize_t length = recv(sock_, got.data(), got.size(), 0);
        if (length < static_cast<ssize_t>(sizeof(VnetHeader)) + ETH_HLEN)
            continue;
        got.resize(static_cast<size_t>(length));
        got.erase(got.begin(), got.begin() + sizeof(VnetHeader));
        return got;
    }
    return std::nullopt;
}
