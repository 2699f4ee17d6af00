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
    std::copy(body.begin(), body.end(), bytes.begin() + sizeof length);
    return bytes;
}

Bytes native(uint32_t length) { return framed(length, Bytes()); }

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

    // Everything the daemon answered, up to its closing the connection (which is a reset when it left bytes
    // unread).
    static Bytes answer(int sock)
    {
        const timeval limit = {5, 0};
        setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        Bytes bytes(4096);
        size_t length = 0;
        ssize_t got;
        while ((got = recv(sock, bytes.data() + length, bytes.size() - length, 0)) > 0)
            length += static_cast<size_t>(got);
        EXPECT_TRUE(got == 0 || errno == ECONNRESET) << "the connection was not closed";
        bytes.resize(length);
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
    std::copy_n(Request::big_endian({0x01020304}).begin(), 4,
                reply.begin() + static_cast<long>(get.dataAt) + 4);
    const Bytes largest = Request(22, 0).data(9, Bytes(1520 - 30, 0x33)).bytes;
    ASSERT_EQ(largest.size(), 1520u);

    const struct {
        const char *claim;
        Bytes sent;
        int32_t result;
        Bytes answer;
        const char *error; // where it begins; "" = none is printed
        bool refused;
    } rows[] = {
        {"a request", framed(get.bytes), 0, framed(reply), "", false},
        {"one of the largest size", framed(largest), 0, framed(largest), "", false},
        {"one that is refused is answered with the length alone", framed(Bytes(25, 1)), 0, native(0), "",
         true},
        {"bytes behind it are not read", framed(26, Bytes(60, 1)), 0, native(0), "", true},
        {"an empty one is answered with 22 bytes, and nobody else's", framed(Bytes()), 0,
         framed(Bytes(22, 0)), "", false},
        {"one byte too large", framed(Bytes(1521, 1)), -1, Bytes(),
         "[DHCPSNOOP] Command server recv buf failed!\r\n: ", false},
        {"the largest length there is", framed(0xFFFFFFFF, Bytes(100, 1)), -1, Bytes(),
         "[DHCPSNOOP] Command server recv buf failed!\r\n: ", false},
        {"nothing", Bytes(), -1, Bytes(), "[DHCPSNOOP] Command server recv buflen failed!\r\n: ", false},
        {"three bytes of a length", Bytes(3, 0), -1, Bytes(),
         "[DHCPSNOOP] Command server recv buflen failed!\r\n: ", false},
        {"no body", native(40), -1, Bytes(), "[DHCPSNOOP] Command server recv buf failed!\r\n: ", false},
        {"a byte too few", framed(40, Bytes(39, 1)), -1, Bytes(),
         "[DHCPSNOOP] Command server recv buf failed!\r\n: ", false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        const int sock = client(row.sent);
        shutdown(sock, SHUT_WR);
        world.clear();
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_DUMP;
        PrintedError error;
        Printed out;
        EXPECT_EQ(dhcpsnoop_cmd_server(), row.result);
        EXPECT_EQ(error.text().substr(0, strlen(row.error)), row.error);
        EXPECT_EQ(error.text().empty(), row.error[0] == '\0');
        EXPECT_EQ(printed("[DHCPSNOOP] Command server: call cmd process failed!\r\n"), row.refused);
        EXPECT_EQ(answer(sock), row.answer);
    }
}

TEST_F(CommandServer, EachConnectionByItself)
{
    const Bytes set = framed(Request(0, 2).number(0).count(0).word(7).bytes);
    const int first = client(set), silent = client({}), second = client(framed(Bytes()));
    close(silent);
    PrintedError error;
    Printed out;
    EXPECT_EQ(dhcpsnoop_cmd_server(), 0);
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, 7u);
    EXPECT_EQ(dhcpsnoop_cmd_server(), -1);
    EXPECT_EQ(dhcpsnoop_cmd_server(), 0);
    EXPECT_EQ(answer(first).size(), set.size());
    // Nothing of the first request shows in the answer to the empty one.
    EXPECT_EQ(answer(second), framed(Bytes(22, 0)));
}

TEST_F(CommandServer, ClientGoneBeforeItsReply)
{
    close(client(framed(Request(0, 2).number(0).count(0).word(9).bytes)));
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_DUMP;
    PrintedError error;
    EXPECT_EQ(dhcpsnoop_cmd_server(), -1);
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, 9u);
    EXPECT_TRUE(printed("[DHCPSNOOP] Command server: send -1 bytes was different from 45!\r\n"));
    EXPECT_TRUE(error.text().starts_with("[DHCPSNOOP] Command server sendto failed!\r\n: ")) << error.text();
}

TEST_F(CommandServer, NothingAccepted)
{
    {
        gDhcpsnoop.cmdSock = fake_; // accepts nothing
        PrintedError error;
        EXPECT_EQ(dhcpsnoop_cmd_server(), -1);
        EXPECT_TRUE(error.text().starts_with("[DHCPSNOOP] Command server accept failed!\r\n: "))
            << error.text();
        gDhcpsnoop.cmdSock = listening_;
    }
    // Kept: a connection that comes as descriptor 0 is no connection either.
    const int sock = client(framed(Bytes()));
    PrintedError error;
    const int input = dup(0);
    syscall(SYS_close, 0);
    EXPECT_EQ(dhcpsnoop_cmd_server(), -1);
    EXPECT_TRUE(error.text().starts_with("[DHCPSNOOP] Command server accept failed!\r\n: ")) << error.text();
    if (input >= 0) {
        dup2(input, 0);
        close(input);
    } else {
        syscall(SYS_close, 0);
    }
    close(sock);
}

// The limits that the kernel keeps for a client that says nothing, read off the connection while the daemon
// waits on it.
TEST_F(CommandServer, SilentClientIsNotWaitedForForEver)
{
    struct Limits {
        timeval receive = {}, send = {};
        int lowWater = 0;
        bool waiting = false;
    } limits;
    PrintedError error;
    const int sock = client({});
    const int connection = dup(sock); // the number that accept will give
    close(connection);

    std::thread watcher([&limits, sock, connection] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!limits.waiting && std::chrono::steady_clock::now() < deadline) {
            socklen_t length = sizeof limits.send;
            // The last of the three to be set.
            getsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &limits.send, &length);
            limits.waiting = limits.send.tv_sec != 0;
            std::this_thread::yield();
        }
        socklen_t length = sizeof limits.receive;
        getsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limits.receive, &length);
        length = sizeof limits.lowWater;
        getsockopt(connection, SOL_SOCKET, SO_RCVLOWAT, &limits.lowWater, &length);
        shutdown(sock, SHUT_WR);
    });
    EXPECT_EQ(dhcpsnoop_cmd_server(), -1);
    watcher.join();
    EXPECT_TRUE(error.text().starts_with("[DHCPSNOOP] Command server recv buflen failed!\r\n: "))
        << error.text();
    EXPECT_EQ(limits.receive.tv_sec, 10);
    EXPECT_EQ(limits.receive.tv_usec, 0);
    EXPECT_EQ(limits.send.tv_sec, 10);
    EXPECT_EQ(limits.lowWater, 30);
    close(sock);
}

} // namespace
