// The socket of the daemon's events: who gets what, and that nobody can hold the daemon up.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "platform.h"
#include "subscribers.h"

using namespace platform_linux;

namespace
{

class Subscribers : public testing::Test
{
  protected:
    void SetUp() override { ASSERT_EQ(subscribers_open(path_.c_str()), 0); }
    void TearDown() override
    {
        subscribers_close();
        for (const int sock : socks_)
            close(sock);
        unlink(path_.c_str());
        rmdir(directory_.c_str());
    }

    int subscribe()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path_.c_str());
        socks_.push_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        EXPECT_EQ(connect(socks_.back(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return socks_.back();
    }

    // As the daemon does: an event with a mark to know it by.
    static void publish(uint16_t event, uint16_t mark)
    {
        EventRecord record = {};
        record.type = 51;
        record.length = sizeof record;
        record.event = event;
        record.user.vid = mark;
        EXPECT_EQ(qorNetlinkSend(16, 0, &record, sizeof record), 0);
    }

    // "188:7", "lost 3", "end", or "" when nothing is there.
    static std::string next(int sock)
    {
        EventRecord record;
        const ssize_t length = recv(sock, &record, sizeof record, MSG_DONTWAIT | MSG_TRUNC);
        if (length <= 0)
            return length == 0 ? "end" : "";
        EXPECT_EQ(length, 72);
        EXPECT_TRUE(record.zero == 0 && record.type == 51 && record.length == 72);
        if (record.event == EVENT_LOST)
            return "lost " + std::to_string(record.lost);
        return std::to_string(record.event) + ":" + std::to_string(record.user.vid);
    }

    static std::string all(int sock)
    {
        std::string events;
        for (std::string event = next(sock); !event.empty(); event = event == "end" ? "" : next(sock))
            events += (events.empty() ? "" : " ") + event;
        return events;
    }

    std::string directory_ = testing::TempDir() + "events." + std::to_string(getpid());
    std::string path_ = directory_ + "/socket";
    std::vector<int> socks_;
};

TEST_F(Subscribers, EachGetsEveryEventSinceItConnected)
{
    publish(188, 1);
    const int first = subscribe();
    publish(188, 2);
    const int second = subscribe();
    publish(189, 3);
    subscribers_close();
    EXPECT_EQ(all(first), "188:2 189:3 end");
    EXPECT_EQ(all(second), "189:3 end");
}

TEST_F(Subscribers, TheSocketIsRootsAlone)
{
    struct stat found;
    ASSERT_EQ(stat(path_.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0600u);
    EXPECT_EQ(subscribers_open(path_.c_str()), 0) << "in place of an earlier run's";
    subscribers_close();
    unlink(path_.c_str());
    close(creat(path_.c_str(), 0600));
    EXPECT_EQ(subscribers_open(path_.c_str()), EADDRINUSE) << "no file but a socket is taken away";
}

TEST_F(Subscribers, OneThatDoesNotReadLosesAndIsToldHowMuch)
{
    const int slow = subscribe(), reader = subscribe();
    constexpr int COUNT = 20000;
    int read = 0;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < COUNT; i++) {
        publish(188, 5);
        read += next(reader) == "188:5" ? 1 : 0;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_EQ(read, COUNT) << "the slow one costs the other nothing";
    int got = 0;
    while (next(slow) == "188:5")
        got++;
    EXPECT_GT(got, 100);
    EXPECT_LT(got, COUNT);
    publish(189, 6);
    EXPECT_EQ(all(slow), "lost " + std::to_string(COUNT - got) + " 189:6");
}

TEST_F(Subscribers, ThoseThatAreGoneMakeRoom)
{
    for (size_t i = 0; i < 3 * SUBSCRIBERS_MAX; i++) {
        close(subscribe());
        socks_.pop_back();
    }
    for (size_t i = 0; i < SUBSCRIBERS_MAX; i++)
        subscribe();
    const int surplus = subscribe();
    publish(188, 1);
    EXPECT_EQ(next(surplus), "end");
    close(socks_[0]);
    socks_.erase(socks_.begin());
    publish(188, 2);
    const int late = subscribe();
    publish(188, 3);
    EXPECT_EQ(next(late), "188:3");
    EXPECT_EQ(all(socks_[0]), "188:1 188:2 188:3");
}

TEST_F(Subscribers, OnlyTheDaemonsEventsArePublished)
{
    const int sock = subscribe();
    EventRecord record = {};
    EXPECT_EQ(qorNetlinkSend(16, 1, &record, sizeof record), EINVAL);
    EXPECT_EQ(qorNetlinkSend(15, 0, &record, sizeof record), EINVAL);
    EXPECT_EQ(qorNetlinkSend(16, 0, &record, sizeof record - 1), EINVAL);
    EXPECT_EQ(qorNetlinkSend(16, 0, nullptr, sizeof record), EINVAL);
    EXPECT_EQ(next(sock), "");
    subscribers_close();
    EXPECT_EQ(qorNetlinkSend(16, 0, &record, sizeof record), ENOTCONN);
}

} // namespace
