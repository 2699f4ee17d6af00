#include "netns_test.h"

#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <sys/wait.h>

// virtio_net_hdr, whose own header is not C++.
struct VnetHeader {
    uint8_t flags, gsoType;
    uint16_t headerLength, gsoSize, checksumStart, checksumOffset;
};

void NetnsTest::SetUp()
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
        GTEST_SKIP() << "needs root, for namespaces and mounts of its own: " << strerror(errno);
    std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 1;
}

static std::string read_all(FILE *file)
{
    std::string text;
    for (int byte; (byte = fgetc(file)) != EOF;)
        text += static_cast<char>(byte);
    return text;
}

std::string NetnsTest::run(const std::string &command)
{
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    std::string output = read_all(pipe);
    EXPECT_EQ(pclose(pipe), 0) << command << "\n"
                               << output;
    return output;
}

void GuardedBridge::SetUp()
{
    std::string why, note;
    NetnsTest::SetUp();
    if (IsSkipped())
        return;
    run("ip link add br0 type bridge mcast_snooping 0 && ip link set br0 up");
    for (const std::string n : {"1", "2"})
        run("ip link add p" + n + " mtu 9000 type veth peer name c" + n + " mtu 9000 && ip link set p" + n + " up master br0 && ip link set c" + n + " up");
    if (!platform_linux::guard_open(8, why, note))
        GTEST_SKIP() << "needs eBPF: " << why;
}

std::string in_child(const std::function<void()> &body)
{
    fflush(nullptr);
    int ends[2], status = 0;
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        const rlimit noCore = {0, 0}, stack = {1 << 20, 1 << 20};
        setrlimit(RLIMIT_CORE, &noCore);
        setrlimit(RLIMIT_STACK, &stack);
        alarm(30);
        dup2(ends[1], STDERR_FILENO);
        body();
        _exit(::testing::Test::HasFailure() ? 1 : 99);
    }
    close(ends[1]);
    waitpid(child, &status, 0);
    FILE *said = fdopen(ends[0], "r");
    const std::string text = read_all(said);
    fclose(said);
    return text + (WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status)) : "status " + std::to_string(WEXITSTATUS(status)));
}

Wire::Wire(const std::string &device) : sock_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL)))
{
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(device.c_str()));
    const int on = 1;
    EXPECT_EQ(bind(sock_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    EXPECT_EQ(setsockopt(sock_.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on), 0) << strerror(errno);
    EXPECT_EQ(setsockopt(sock_.get(), SOL_PACKET, PACKET_VNET_HDR, &on, sizeof on), 0) << strerror(errno);
}

void Wire::send(const Bytes &frame, size_t unfinished)
{
    VnetHeader header = {unfinished != 0, 0, 0, 0, static_cast<uint16_t>(unfinished), 6};
    iovec parts[] = {{&header, sizeof header}, {const_cast<uint8_t *>(frame.data()), frame.size()}};
    EXPECT_EQ(writev(sock_.get(), parts, 2), static_cast<ssize_t>(sizeof header + frame.size())) << strerror(errno);
}

Bytes Wire::receive()
{
    Bytes got(70000);
    pollfd wait = {sock_.get(), POLLIN, 0};
    const ssize_t length = poll(&wait, 1, 100) > 0 ? recv(sock_.get(), got.data(), got.size(), 0) : 0;
    return length > 0 ? Bytes(got.begin() + sizeof(VnetHeader), got.begin() + length) : Bytes();
}
