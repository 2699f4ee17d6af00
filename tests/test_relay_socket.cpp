// Descriptor 0 before the daemon's start-up, in processes of their own: what it is when the daemon begins.
#include "netns_test.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "relay_socket.h"

namespace
{

// What a check of the child found, 0 when all was well. Numbered by its place in the test.
int in_child(const std::function<int()> &work)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

sockaddr_in address(uint32_t host, uint16_t port)
{
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = htonl(host);
    return result;
}

int udp(uint16_t port)
{
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in own = address(INADDR_ANY, port);
    EXPECT_EQ(bind(sock, reinterpret_cast<const sockaddr *>(&own), sizeof own), 0) << strerror(errno);
    return sock;
}

ino_t inode(int descriptor)
{
    struct stat found = {};
    return fstat(descriptor, &found) == 0 ? found.st_ino : 0;
}

uint16_t port_of(int descriptor)
{
    sockaddr_in own = {};
    socklen_t length = sizeof own;
    return getsockname(descriptor, reinterpret_cast<sockaddr *>(&own), &length) == 0 && own.sin_family == AF_INET ? ntohs(own.sin_port) : uint16_t{0};
}

// A datagram to port 67 of this machine and a second one: an ICMP error of the first would fail it.
bool send_twice()
{
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in relay = address(INADDR_LOOPBACK, 67);
    const bool sent = connect(sock, reinterpret_cast<const sockaddr *>(&relay), sizeof relay) == 0 &&
                      send(sock, "x", 1, 0) == 1 && send(sock, "x", 1, 0) == 1;
    close(sock);
    return sent;
}

bool receives_nothing(int descriptor)
{
    char byte;
    return recv(descriptor, &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

class RelaySocket : public NetnsTest
{
  protected:
    void SetUp() override
    {
        NetnsTest::SetUp();
        if (!IsSkipped())
            run("ip link set lo up");
    }
};

TEST_F(RelaySocket, IsOpenedInPlaceOfStandardInput)
{
    for (const bool closed : {false, true}) {
        EXPECT_EQ(in_child([closed] {
                      close(0);
                      if (!closed && open("/dev/null", O_RDONLY) != 0)
                          return 1;
                      const int next = fcntl(2, F_DUPFD, 1);
                      close(next);
                      if (platform_linux::relay_socket_start() != 0 || port_of(0) != 67)
                          return 2;
                      if (!send_twice() || !receives_nothing(0))
                          return 3;
                      const int after = fcntl(2, F_DUPFD, 1);
                      return after == next ? 0 : 4; // nothing else stayed open
                  }),
                  0)
            << (closed ? "closed" : "/dev/null");
    }
}

TEST_F(RelaySocket, HandedOverIsKept)
{
    EXPECT_EQ(in_child([] {
                  const int handed = udp(67);
                  const ino_t before = inode(handed);
                  if (dup2(handed, 0) != 0 || close(handed) != 0 || !send_twice())
                      return 1;
                  if (platform_linux::relay_socket_start() != 0 || inode(0) != before)
                      return 2;
                  return receives_nothing(0) && send_twice() && receives_nothing(0) ? 0 : 3;
              }),
              0);
}

TEST_F(RelaySocket, HandedOverOfAnotherKindIsReplaced)
{
    for (const auto &[type, port] : {std::pair{SOCK_DGRAM, uint16_t{6767}}, {SOCK_STREAM, uint16_t{67}}})
        EXPECT_EQ(in_child([type = type, port = port] {
                      close(0);
                      const sockaddr_in own = address(INADDR_ANY, port);
                      if (socket(AF_INET, type, 0) != 0 || bind(0, reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0)
                          return 1;
                      int now = 0;
                      socklen_t length = sizeof now;
                      const bool replaced = platform_linux::relay_socket_start() == 0 && port_of(0) == 67;
                      return replaced && getsockopt(0, SOL_SOCKET, SO_TYPE, &now, &length) == 0 && now == SOCK_DGRAM ? 0 : 2;
                  }),
                  0)
            << port;
}

TEST_F(RelaySocket, ThatMayNotBeBoundLeavesStandardInput)
{
    EXPECT_EQ(in_child([] {
                  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
                  __user_cap_data_struct none[2] = {};
                  close(0);
                  if (open("/dev/null", O_RDONLY) != 0 || syscall(SYS_capset, &header, none) != 0)
                      return 1;
                  const ino_t before = inode(0);
                  testing::internal::CaptureStderr();
                  if (platform_linux::relay_socket_start() != 0 || inode(0) != before)
                      return 2;
                  const std::string said = testing::internal::GetCapturedStderr();
                  return said.find("UDP port 67 cannot be opened, nothing will be relayed: Permission denied") != std::string::npos ? 0 : 3;
              }),
              0);
}

} // namespace
