// The command socket with real clients: framing, refusals, time limits.
#include "daemon_test.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "request.h"

namespace
{

Bytes framed(uint32_t length, const Bytes &body)
{
    Bytes bytes(sizeof length + body.size());
    memcpy(bytes.data(), &length, sizeof length);
    std::ranges::copy(body, bytes.begin() + sizeof length);
    return bytes;
}

Bytes framed(const Bytes &body) { return framed(static_cast<uint32_t>(body.size()), body); }

// A listening socket of the test's own, at an address that the kernel chose, in the place of the daemon's.
class CommandServer : public Daemon
{
  protected:
    void SetUp() override
    {
        Daemon::SetUp();
        fake_ = gDhcpsnoop.cmdSock;
        listening_ = real_socket();
        address_.sun_family = AF_UNIX;
        ASSERT_EQ(bind(listening_, address(), sizeof address_.sun_family), 0);
        addressLength_ = sizeof address_;
        ASSERT_EQ(getsockname(listening_, address(), &addressLength_), 0);
        ASSERT_EQ(listen(listening_, 10), 0);
        gDhcpsnoop.cmdSock = listening_;
    }

    void TearDown() override
    {
        close(listening_);
        gDhcpsnoop.cmdSock = fake_;
        Daemon::TearDown();
    }

    static int real_socket()
    {
        world.fakeSockets = false;
        const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
        world.fakeSockets = true;
        return sock;
    }

    sockaddr *address() { return reinterpret_cast<sockaddr *>(&address_); }

    // Connected, the bytes sent.
    int client(const Bytes &bytes)
    {
        const int sock = real_socket();
        EXPECT_EQ(connect(sock, address(), addressLength_), 0);
        EXPECT_EQ(send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        return sock;
    }

    // Everything the daemon answered, up to its closing the connection (a reset when it left bytes unread).
    static Bytes answer(int sock)
    {
        const timeval limit = {5, 0};
        setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        Bytes bytes(4096);
        const ssize_t length = recv(sock, bytes.data(), bytes.size(), MSG_WAITALL);
        EXPECT_TRUE(length >= 0 || errno == ECONNRESET) << "the connection was not closed";
        bytes.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
        close(sock);
        return bytes;
    }

    int listening_ = -1, fake_ = -1;
    sockaddr_un address_ = {};
    socklen_t addressLength_ = 0;
};

TEST_F(CommandServer, OneRequestOneReply)
{
    gDhcpsnoop.enterpriseNum = 0x01020304;
    const Request get = Request(2, 2).number(0).count(0).word(0);
    Bytes reply = get.bytes;
    std::copy_n(Request::big_endian({0}).begin(), 4, reply.begin() + 12);
    std::copy_n(Request::big_endian({0x01020304}).begin(), 4, reply.end() - 4);
    const Bytes largest = Request(22, 0).data(9, Bytes(1520 - 30, 0x33)).bytes;
    ASSERT_EQ(largest.size(), 1520u);
    // What is sent, the result, what is answered, what failed ("" = nothing is printed).
    const std::tuple<const char *, Bytes, int32_t, Bytes, std::string> rows[] = {
        {"a request", framed(get.bytes), 0, framed(reply), ""},
        {"one of the largest size", framed(largest), 0, framed(largest), ""},
        {"one that is refused is answered with the length alone", framed(Bytes(25, 1)), 0, framed(Bytes()), ""},
        {"bytes behind it are not read", framed(26, Bytes(60, 1)), 0, framed(Bytes()), ""},
        {"an empty one is answered with 22 bytes, and nobody else's", framed(Bytes()), 0, framed(Bytes(22, 0)), ""},
        {"one byte too large", framed(Bytes(1521, 1)), -1, Bytes(), "buf"},
        {"the largest length there is", framed(0xFFFFFFFF, Bytes(100, 1)), -1, Bytes(), "buf"},
        {"nothing", Bytes(), -1, Bytes(), "buflen"},
        {"three bytes of a length", Bytes(3, 0), -1, Bytes(), "buflen"},
        {"a byte too few", framed(40, Bytes(39, 1)), -1, Bytes(), "buf"},
    };
    for (const auto &[claim, sent, result, answered, failed] : rows) {
        SCOPED_TRACE(claim);
        const int sock = client(sent);
        shutdown(sock, SHUT_WR);
        PrintedError error;
        Printed out;
        EXPECT_EQ(dhcpsnoop_cmd_server(), result);
        EXPECT_TRUE(failed.empty() ? error.text().empty() : error.text().starts_with("[DHCPSNOOP] Command server recv " + failed + " failed!\r\n: ")) << error.text();
        EXPECT_EQ(answer(sock), answered);
    }
}

TEST_F(CommandServer, NothingOfOneRequestShowsInTheNextAnswer)
{
    const int first = client(framed(Request(0, 2).number(0).count(0).word(7).bytes)), second = client(framed(Bytes()));
    Printed out;
    EXPECT_EQ(dhcpsnoop_cmd_server(), 0);
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, 7u);
    EXPECT_EQ(dhcpsnoop_cmd_server(), 0);
    EXPECT_EQ(answer(second), framed(Bytes(22, 0)));
    close(first);
}

TEST_F(CommandServer, ClientGoneBeforeItsReply)
{
    close(client(framed(Request(0, 2).number(0).count(0).word(9).bytes)));
    PrintedError error;
    EXPECT_EQ(dhcpsnoop_cmd_server(), -1);
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, 9u);
    EXPECT_TRUE(error.text().starts_with("[DHCPSNOOP] Command server sendto failed!\r\n: ")) << error.text();
}

// Kept: a connection that comes as descriptor 0 is no connection.
TEST_F(CommandServer, DescriptorZero)
{
    const int sock = client(framed(Bytes()));
    PrintedError error;
    const int input = dup(0);
    syscall(SYS_close, 0);
    EXPECT_EQ(dhcpsnoop_cmd_server(), -1);
    EXPECT_TRUE(error.text().starts_with("[DHCPSNOOP] Command server accept failed!\r\n: ")) << error.text();
    syscall(SYS_close, 0);
    if (input >= 0) {
        dup2(input, 0);
        close(input);
    }
    close(sock);
}

// The limits that the kernel keeps for a client that says nothing, read off the connection while the daemon waits on it.
TEST_F(CommandServer, SilentClientIsNotWaitedForForEver)
{
    timeval receive = {}, send = {};
    int lowWater = 0;
    PrintedError error;
    const int sock = client({});
    const int connection = dup(sock); // the number that accept will give
    close(connection);
    std::thread watcher([&] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (send.tv_sec == 0 && std::chrono::steady_clock::now() < deadline) {
            socklen_t length = sizeof send; // the last of the three to be set
            getsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &send, &length);
            std::this_thread::yield();
        }
        socklen_t length = sizeof receive;
        getsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &receive, &length);
        length = sizeof lowWater;
        getsockopt(connection, SOL_SOCKET, SO_RCVLOWAT, &lowWater, &length);
        shutdown(sock, SHUT_WR);
    });
    EXPECT_EQ(dhcpsnoop_cmd_server(), -1);
    watcher.join();
    EXPECT_EQ(receive.tv_sec, 10);
    EXPECT_EQ(send.tv_sec, 10);
    EXPECT_EQ(lowWater, 30);
    close(sock);
}

} // namespace
