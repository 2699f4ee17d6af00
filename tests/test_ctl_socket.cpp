// The client's way to the daemon: the socket between, and peers of any kind behind it.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "connection.h"
#include "frame.h"

namespace
{

const std::string PATH = "/tmp/ctl_test." + std::to_string(getpid());

int listenAt(const std::string &path)
{
    sockaddr_un address = {AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_TRUE(bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 && listen(sock, 1) == 0);
    return sock;
}

// What the client sends, taken as the daemon takes it: the length, then the body in one receive. Then the answer in pieces,
// because a stream keeps no boundaries.
Bytes answered(int connection, uint32_t length, const Bytes &bytes)
{
    uint32_t asked = 0;
    EXPECT_EQ(recv(connection, &asked, sizeof asked, 0), 4);
    Bytes request(asked), framed(sizeof length);
    EXPECT_EQ(recv(connection, request.data(), asked, 0), static_cast<ssize_t>(asked));
    std::memcpy(framed.data(), &length, sizeof length);
    for (const uint8_t byte : framed + bytes)
        EXPECT_EQ(send(connection, &byte, 1, MSG_NOSIGNAL), 1);
    return request;
}

std::string exchanged(const std::string &path)
{
    try {
        return hex(socketExchange(path, std::chrono::milliseconds(200))(Bytes(30, 7)));
    } catch (const NoDaemon &error) {
        return error.what();
    }
}

TEST(CtlSocket, Peers)
{
    Bytes request;
    const std::tuple<const char *, std::function<void(int)>, const char *> rows[] = {
        {"one request and its reply", [&](int c) { request = answered(c, 5, {1, 2, 3, 4, 5}); }, "01 02 03 04 05"},
        {"does not answer", [](int c) { char byte; recv(c, &byte, 1, MSG_WAITALL | MSG_PEEK); std::this_thread::sleep_for(std::chrono::milliseconds(400)); }, "did not answer in time"},
        {"never stands still and never ends", [](int c) { for (answered(c, 1000, {}); send(c, "", 1, MSG_NOSIGNAL) == 1;) std::this_thread::sleep_for(std::chrono::milliseconds(20)); }, "did not answer in time"},
        {"closes without an answer", [](int c) { Bytes bytes(34); recv(c, bytes.data(), bytes.size(), MSG_WAITALL); }, "closed the connection without a whole answer"},
        {"gives a length past any reply", [](int c) { answered(c, 1521, {}); }, "a length of 1521 bytes"},
        {"gives the greatest length", [](int c) { answered(c, UINT32_MAX, {}); }, "a length of 4294967295 bytes"},
        {"gives less than it says", [](int c) { answered(c, 40, Bytes(39)); }, "without a whole answer"},
    };
    const int listening = listenAt(PATH);
    for (const auto &[claim, serve, outcome] : rows) {
        std::thread peer([listening, &serve = serve] {
            const int connection = accept(listening, nullptr, nullptr);
            serve(connection);
            close(connection);
        });
        const std::string text = exchanged(PATH);
        EXPECT_NE(text.find(outcome), std::string::npos) << claim << ": " << text;
        peer.join();
    }
    close(listening);
    EXPECT_EQ(request, Bytes(30, 7));
    EXPECT_EQ(exchanged(PATH), "no daemon is listening on " + PATH); // a socket file that outlived its daemon
    unlink(PATH.c_str());
    EXPECT_EQ(exchanged(PATH), "no daemon is listening on " + PATH);
    EXPECT_THROW(socketExchange(std::string(200, 'x'))(Bytes(30)), UsageError);
}

TEST(CtlSocket, OthersThanRoot)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, to become another user";
    const int listening = listenAt(PATH);
    chmod(PATH.c_str(), 0600);
    // Somebody else has taken the daemon's place, as anybody can in /tmp.
    const std::string taken = PATH + ".taken";
    ASSERT_EQ(seteuid(65534), 0);
    const int impostor = listenAt(taken);
    const std::string error = exchanged(PATH);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_NE(error.find("the daemon serves root only"), std::string::npos) << error;
    EXPECT_EQ(exchanged(taken), taken + " is served by user 65534, not by root: not trusted");
    for (const int sock : {listening, impostor})
        close(sock);
    for (const std::string &path : {PATH, taken})
        unlink(path.c_str());
}

} // namespace
