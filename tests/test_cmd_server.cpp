// The command socket with real clients: framing, refusals, time limits. The listening socket is the world's, a connection is
// the kernel's own.
#include "scene.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

namespace
{

// Function 2 reads, function 0 sets the enterprise number; 22 is a function that there is not.
const Bytes HEADER = hex_bytes("00 02 00 04 00 00 00 02 00 02 00 04 00 00 00 00 00 02 00 04 00 00 00 02 01 00 02 00 04 00 00 00 00");
const Bytes READ = HEADER + hex_bytes("03 02 00 04 00 00 00 00");

Bytes set_number(uint8_t number)
{
    Bytes bytes = READ;
    bytes[7] = 0;
    bytes.back() = number;
    return bytes;
}

Bytes framed(const Bytes &body, std::optional<uint32_t> length = {})
{
    const uint32_t said = length.value_or(static_cast<uint32_t>(body.size()));
    Bytes bytes(sizeof said);
    memcpy(bytes.data(), &said, sizeof said);
    return bytes + body;
}

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
    Bytes largest(1520), number = READ;
    std::ranges::copy(HEADER, largest.begin());
    largest[7] = 22;
    std::ranges::copy(Bytes{3, 9, 0x05, 0xD2}, largest.begin() + 26);
    std::ranges::copy(be32(0x01020304), number.end() - 4);
    const std::tuple<const char *, Bytes, const char *, Bytes> rows[] = {
        {"a request", framed(READ), "0", framed(number)},
        {"one of the largest size", framed(largest), "0", framed(largest)},
        {"one that is refused is answered with the length alone", framed(Bytes(25, 1)), "0", framed({})},
        {"bytes behind it are not read", framed(Bytes(60, 1), 26), "0", framed({})},
        {"an empty one is answered with 22 bytes, and nobody else's", framed({}), "0", framed(Bytes(22, 0))},
        {"one byte too large", framed(Bytes(1521, 1)), "-1 recv buf failed", {}},
        {"the largest length there is", framed(Bytes(100, 1), 0xFFFFFFFF), "-1 recv buf failed", {}},
        {"nothing", {}, "-1 recv buflen failed", {}},
        {"three bytes of a length", Bytes(3, 0), "-1 recv buflen failed", {}},
        {"a byte too few", framed(Bytes(39, 1), 40), "-1 recv buf failed", {}},
        {"one that sets a number", framed(set_number(7)), "0", framed(set_number(7))},
        {"nothing of it shows in the next answer", framed({}), "0", framed(Bytes(22, 0))},
    };
    for (const auto &[claim, sent, outcome, answered] : rows) {
        const int sock = client(sent);
        const timeval limit = {5, 0};
        setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        shutdown(sock, SHUT_WR);
        EXPECT_EQ(serve(), outcome) << claim;
        Bytes answer(4096); // up to the connection's end, a reset when the daemon left bytes unread
        const ssize_t length = recv(sock, answer.data(), answer.size(), MSG_WAITALL);
        EXPECT_TRUE(length >= 0 || errno == ECONNRESET) << claim << ": the connection was not closed";
        answer.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
        EXPECT_EQ(hex(answer), hex(answered)) << claim;
        close(sock);
    }
    EXPECT_EQ(gDhcpsnoop.enterpriseNum, 7u);
}

TEST_F(CommandServer, ClientThatDoesNotWait)
{
    close(client(framed(set_number(9)))); // gone before its reply
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
