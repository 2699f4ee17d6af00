// The command socket with real clients: framing, refusals, time limits. The listening socket is the world's, a connection is
// the kernel's own.
#include "event_message.h"
#include "steps.h"

#include <algorithm>

#include <sys/socket.h>
#include <unistd.h>

namespace
{

// What is sent, or answered: a request's result word is set.
Bytes framed(const Bytes &body) { return host32(static_cast<uint32_t>(body.size())) + body; }
Bytes sent(const std::string &words) { return framed(request(words)); }
Bytes answered(const std::string &words) { return sent(words + " | at 12 0 at 13 0 at 14 0 at 15 0"); }

// The result, and what failed: "-1 accept failed".
std::string serve(void (*first)() = [] {})
{
    PrintedError error;
    Printed out;
    first();
    const std::string result = std::to_string(dhcpsnoop_cmd_server()), begin = "[DHCPSNOOP] Command server ", &said = error.text();
    return result + (said.starts_with(begin) ? " " + said.substr(begin.size(), said.find("!\r\n: ") - begin.size()) : said);
}

class CommandServer : public testing::Test
{
  protected:
    void SetUp() override { gDhcpsnoop = {}; }

    // Connected, the bytes sent; the next accept gives the other end.
    static int client(const Bytes &bytes)
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        EXPECT_EQ(send(ends[0], bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        world.connection = ends[1];
        return ends[0];
    }
};

TEST_F(CommandServer, OneRequestOneReply)
{
    gDhcpsnoop.enterpriseNum = 0x01020304;
    const std::tuple<const char *, Bytes, const char *, Bytes> rows[] = {
        {"a request", sent("global.get 2 = 0"), "0", answered("global.get 2 = 0x01020304")},
        {"one of the largest size", sent("22 2 form 9 1490"), "0", sent("22 2 form 9 1490")},
        {"one that is refused is answered with the length alone", framed(Bytes(25, 1)), "0", framed({})},
        {"bytes behind it are not read", host32(26) + Bytes(60, 1), "0", framed({})},
        {"an empty one is answered with 22 bytes, and nobody else's", framed({}), "0", framed(Bytes(22, 0))},
        {"one byte too large", framed(Bytes(1521, 1)), "-1 recv buf failed", {}},
        {"the largest length there is", host32(0xFFFFFFFF) + Bytes(100, 1), "-1 recv buf failed", {}},
        {"nothing", {}, "-1 recv buflen failed", {}},
        {"three bytes of a length", Bytes(3, 0), "-1 recv buflen failed", {}},
        {"a byte too few", host32(40) + Bytes(39, 1), "-1 recv buf failed", {}},
        {"one that sets a number", sent("global.set 2 = 7"), "0", answered("global.set 2 = 7")},
        {"nothing of it shows in the next answer", framed({}), "0", framed(Bytes(22, 0))},
    };
    for (const auto &[claim, bytes, outcome, reply] : rows) {
        const int sock = client(bytes);
        const timeval limit = {5, 0};
        setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        shutdown(sock, SHUT_WR);
        EXPECT_EQ(serve(), outcome) << claim;
        Bytes answer(4096); // up to the connection's end, a reset when the daemon left bytes unread
        const ssize_t length = recv(sock, answer.data(), answer.size(), MSG_WAITALL);
        EXPECT_TRUE(length >= 0 || errno == ECONNRESET) << claim << ": the connection was not closed";
        answer.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
        EXPECT_EQ(hex(answer), hex(reply)) << claim;
        close(sock);
    }
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, 7u);
}

TEST_F(CommandServer, ClientThatDoesNotWait)
{
    close(client(sent("global.set 2 = 9"))); // gone before its reply
    EXPECT_EQ(serve(), "-1 sendto failed");
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, 9u);
}

TEST_F(CommandServer, KeptDescriptorZeroIsNoConnection)
{
    EXPECT_EQ(serve([] { world.connection = 0; }), "-1 accept failed");
    EXPECT_EQ(serve(), "-1 accept failed");
}

// The kernel keeps the limits for a client that says nothing.
TEST_F(CommandServer, SilentClientIsNotWaitedForForEver)
{
    const int sock = client({});
    shutdown(sock, SHUT_WR);
    world.clear();
    serve();
    EXPECT_EQ(world.calls(), (Lines{"accept", "setsockopt SO_RCVLOWAT 30", "setsockopt SO_RCVTIMEO 10", "setsockopt SO_SNDTIMEO 10"}));
    close(sock);
}

} // namespace
