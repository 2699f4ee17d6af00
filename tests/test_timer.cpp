// The lease scan.
#include "daemon_test.h"

#include <ctime>

namespace
{

class Timer : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        dhcpsnoop_user_timer_check(); // takes up this world's time
        start = world.now;
    }

    // Whether a scan ran, told from its text.
    static bool scan_at(int64_t time)
    {
        world.now = time;
        world.clear();
        debug(2);
        dhcpsnoop_user_timer_check();
        debug(0);
        return printed("[DHCPSNOOP] Timeout, check the user binding table!\r\n");
    }

    int64_t start = 0;
};

TEST_F(Timer, ScansAreSixtySecondsApart)
{
    EXPECT_FALSE(scan_at(start));
    EXPECT_FALSE(scan_at(start + 59));
    EXPECT_TRUE(scan_at(start + 60));
    EXPECT_FALSE(scan_at(start + 60));
    EXPECT_FALSE(scan_at(start + 119));
    EXPECT_TRUE(scan_at(start + 500));
    EXPECT_FALSE(scan_at(start + 559));
}

TEST_F(Timer, ClockSetBackScansAtOnceAndTakesUpTheNewTime)
{
    EXPECT_TRUE(scan_at(start - 1));
    EXPECT_FALSE(scan_at(start + 58));
    EXPECT_TRUE(scan_at(start + 59));
    EXPECT_TRUE(scan_at(start - 100'000));
}

TEST_F(Timer, Expiry)
{
    // claim, userType, leaseTime, age (at the scan), expires
    const std::tuple<const char *, uint8_t, uint32_t, int64_t, bool> rows[] = {
        {"one second left", DHCPSNOOP_USER_DYNAMIC, 3600, 3599, false},
        {"the lease is over at its end", DHCPSNOOP_USER_DYNAMIC, 3600, 3600, true},
        {"a provisional lease at the first scan", DHCPSNOOP_USER_DYNAMIC, 60, 60, true},
        {"static entries never expire", DHCPSNOOP_USER_STATIC, 60, 100'000, false},
        {"IP source guard entries never expire", DHCPSNOOP_USER_IPSG, 60, 100'000, false},
        {"the lease time is unsigned", DHCPSNOOP_USER_DYNAMIC, 0x80000000, 100'000, false},
        {"an endless lease", DHCPSNOOP_USER_DYNAMIC, 0xFFFFFFFF, 900'000'000, false},
        {"a lease that starts in the future does not expire", DHCPSNOOP_USER_DYNAMIC, 60, -100'000, false},
        {"a lease of 0 is over at once", DHCPSNOOP_USER_DYNAMIC, 0, 0, true},
        {"but not before it starts", DHCPSNOOP_USER_DYNAMIC, 0, -1, false},
    };
    for (const auto &[claim, userType, leaseTime, age, expires] : rows) {
        SCOPED_TRACE(claim);
        world.reset();
        DhcpsnoopUser *user = make_binding(ip4(10, 0, 0, 5), MAC_CLIENT, 1, 10);
        user->userType = userType;
        user->leaseTime = leaseTime;
        user->leaseStart = static_cast<uint32_t>(world.now - age);
        ASSERT_TRUE(scan_at(world.now));
        EXPECT_EQ(binding(ip4(10, 0, 0, 5)) == nullptr, expires);
        EXPECT_EQ(printed("[DHCPSNOOP] User time out, mac:02:c1:00:00:00:01.\r\n"), expires);
        EXPECT_EQ(world_check_tables(), "");
    }
}

TEST_F(Timer, TimesBeyond2038)
{
    if (sizeof(time_t) < 8)
        GTEST_SKIP() << "a 32-bit clock ends in 2038";
    world.now = 0xF0000000;
    DhcpsnoopUser *user = make_binding(ip4(10, 0, 0, 5), MAC_CLIENT, 1, 10);
    user->leaseTime = 100;
    EXPECT_EQ(user->leaseStart, 0xF0000000);
    scan_at(0xF0000000 + 99);
    EXPECT_NE(binding(ip4(10, 0, 0, 5)), nullptr);
    scan_at(0xF0000000 + 199);
    EXPECT_EQ(binding(ip4(10, 0, 0, 5)), nullptr);
}

TEST_F(Timer, EveryBucketAndEveryEntryIsVisited)
{
    // 130 addresses: every one of the 63 buckets has two or more entries.
    for (uint32_t i = 0; i < 130; i++)
        make_binding(ip4(10, 0, 0, static_cast<uint8_t>(i)), MAC_CLIENT, 1, 10)->leaseTime = i % 2 == 0 ? 60 : 600;
    ASSERT_TRUE(scan_at(start + 60));
    EXPECT_EQ(count_bindings(), 65u);
    for (uint32_t i = 0; i < 130; i++)
        EXPECT_EQ(binding(ip4(10, 0, 0, static_cast<uint8_t>(i))) != nullptr, i % 2 == 1);
}

TEST_F(Timer, WaitingClientsGoAfterTwoMinutesSilently)
{
    world.access(1, 10);
    snoop(1);
    for (const Mac &mac : {MAC_CLIENT, MAC_CLIENT2}) {
        Parsed parsed(Frame{.chaddr = mac});
        parsed.info.rxTime = static_cast<uint32_t>(start);
        ASSERT_NE(dhcpsnoop_mac_user_add(&parsed.info), nullptr);
    }
    ASSERT_TRUE(scan_at(start + 119));
    EXPECT_EQ(count_waiting(), 2u);
    ASSERT_TRUE(scan_at(start + 179));
    EXPECT_EQ(count_waiting(), 0u);
    EXPECT_EQ(debug_texts().size(), 1u);
    EXPECT_EQ(world.texts(Did::Log), Lines{});

    Parsed parsed(Frame{});
    parsed.info.rxTime = static_cast<uint32_t>(start + 179);
    dhcpsnoop_mac_user_add(&parsed.info);
    ASSERT_TRUE(scan_at(start + 179 + 120));
    EXPECT_EQ(count_waiting(), 0u);
}

} // namespace
