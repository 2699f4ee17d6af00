// Settings of the whole switch.
#include "daemon_test.h"

#include "dhcpsnoop_nm.h"

namespace
{

int32_t set(uint32_t cmd, uint32_t value) { return dhcpSnoopSetApi(nullptr, cmd, &value); }

class Global : public Daemon
{
  protected:
    void SetUp() override { prepare(); }

    // Port 5 is snooped, and its traces cleared.
    static void prepare()
    {
        world.reset();
        world.access(5, 10);
        snoop(5);
    }

    // A binding of each type on port 5 (10.0.0.1, .2 and .4), a waiting client, a learned server; all of it in hardware
    // that counts.
    static void populate()
    {
        for (const uint8_t type : {DHCPSNOOP_USER_DYNAMIC, DHCPSNOOP_USER_STATIC, DHCPSNOOP_USER_IPSG}) {
            DhcpsnoopUser *user = make_binding(0x0A000000u + type, {2, 0, 0, 0, 0, 1}, 5, 10);
            user->userType = type;
            user->hwFlags = DHCPSNOOP_HW_IPSG;
            user->ipsgCheckItems = 0xF0;
        }
        dhcpsnoop_if_lookup(5)->curUser = 1;
        DhcpsnoopMacUser *waiting = list_take<DhcpsnoopMacUser>(&gDhcpsnoop.userFreeList);
        waiting->mac[5] = 9;
        list_insert_after(&gDhcpsnoop.macUserHash[9], waiting);
        dhcpsnoop_server_add(0x0A0000FE, 10, 5);
        world.clear();
    }
};

TEST_F(Global, Numbers)
{
    // Command, stored before, value, calls, stored after.
    const std::tuple<const char *, uint32_t, uint32_t, uint32_t, Lines, uint32_t> rows[] = {
        {"on", 1, 0, 1, {"qorHwScalarSync null 0x40001 1 0x3"}, 1},
        {"on where it is on", 1, 1, 1, {}, 1},
        {"off where it is off", 1, 0, 0, {}, 0},
        {"compared whole, and a byte of it stored", 1, 1, 257, {"qorHwScalarSync null 0x40001 257 0x3", "qorIfSetApi 5 306 23"}, 1},
        {"the enterprise number", 2, 7, 0xFFFFFFFE, {"qorHwScalarSync null 0x40002 4294967294 0x3"}, 0xFFFFFFFE},
        {"the same enterprise number is offered again", 2, 7, 7, {"qorHwScalarSync null 0x40002 7 0x3"}, 7},
        {"hardware notification that is on", 4, 1, 1, {}, 1},
        {"server learning that is on", 16, 1, 0x101, {"qorHwScalarSync null 0x40010 257 0x3"}, 1},
        {"the debug flags, all of the byte", 20, 0x42, 0x1F0, {}, 0xF0},
    };
    for (const auto &[claim, cmd, before, given, calls, after] : rows) {
        SCOPED_TRACE(claim);
        prepare();
        const std::map<uint32_t, uint8_t *> bytes = {{1, &gDhcpsnoop.globalEnable}, {4, &gDhcpsnoop.hwNotifyEnable}, {16, &gDhcpsnoop.serverLearn}, {20, &gDhcpsnoop.debugFlags}};
        gDhcpsnoop.enterpriseNum = before;
        if (cmd != 2)
            *bytes.at(cmd) = static_cast<uint8_t>(before);
        EXPECT_EQ(set(cmd, given), 0);
        EXPECT_EQ(world.calls(), calls);
        uint32_t value = 0;
        EXPECT_EQ(dhcpSnoopGetApi(nullptr, cmd, &value), 0);
        EXPECT_EQ(value, after);
        EXPECT_EQ(cmd != 2 ? *bytes.at(cmd) : gDhcpsnoop.enterpriseNum, after);
    }
}

TEST_F(Global, RefusedWithoutTrace)
{
    populate();
    gDhcpsnoop.globalEnable = 1;
    const std::string before = world_state();
    uint32_t value = 1;
    for (const uint32_t cmd : {0u, 3u, 5u, 15u, 18u, 21u, 0xFFFFFFFFu})
        EXPECT_EQ(dhcpSnoopSetApi(nullptr, cmd, &value), 0x3E80010) << cmd;
    for (const uint32_t cmd : {0u, 5u, 17u, 18u, 19u, 21u, 0xFFFFFFFFu})
        EXPECT_EQ(dhcpSnoopGetApi(nullptr, cmd, &value), 0x3E80010) << cmd;
    EXPECT_EQ(value, 1u);
    QorBuffer nowhere = {nullptr, 100};
    EXPECT_EQ(dhcpSnoopSetApi(nullptr, 19, &nowhere), 0x3E80010);
    for (const uint32_t cmd : {1u, 2u, 4u, 16u, 19u, 20u}) {
        EXPECT_EQ(dhcpSnoopSetApi(nullptr, cmd, nullptr), 0x3E80010) << cmd;
        EXPECT_EQ(dhcpSnoopGetApi(nullptr, cmd, nullptr), 0x3E80010) << cmd;
    }
    EXPECT_EQ(dhcpSnoopGetApi(nullptr, 3, nullptr), 0x3E80010);
    EXPECT_EQ(world.calls(), Lines{});
    world.refuse("qorHwScalarSync", 3);
    for (const uint32_t cmd : {1u, 2u, 4u, 16u})
        EXPECT_EQ(set(cmd, 9), 0x3E80004) << cmd;
    EXPECT_EQ(world.calls().size(), 4u);
    EXPECT_EQ(world_state(), before);
}

TEST_F(Global, SwitchingOffLeavesOnlyIpSourceGuardBindings)
{
    populate();
    uint32_t count = 0;
    EXPECT_EQ(dhcpSnoopGetApi(nullptr, 3, &count), 0);
    EXPECT_EQ(count, 2u); // IP source guard's is not counted
    world.role(DHCPSNOOP_ROLE_NONE);
    gDhcpsnoop.globalEnable = 1;
    EXPECT_EQ(set(1, 2), 0); // any state but 1 is off
    EXPECT_EQ(gDhcpsnoop.globalEnable, 2);
    EXPECT_EQ(count_bindings(), 1u);
    ASSERT_NE(binding(0x0A000004), nullptr);
    EXPECT_EQ(binding(0x0A000004)->hwFlags, DHCPSNOOP_HW_IPSG);
    EXPECT_EQ(count_waiting(), 0u);
    EXPECT_TRUE(list_empty(&gDhcpsnoop.ifList));
    EXPECT_TRUE(list_empty(&gDhcpsnoop.serverList));
    // First the platform, then the bindings' rules, then the trap.
    const Lines calls = world.calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0], "qorHwScalarSync null 0x40001 2 0x3");
    EXPECT_TRUE(calls[1].starts_with("hw delete 5") && calls[2].starts_with("hw delete 5"));
    EXPECT_EQ(calls[3], "qorIfSetApi 5 306 23");
    // Switching on brings nothing back.
    world.clear();
    EXPECT_EQ(set(1, 1), 0);
    EXPECT_TRUE(list_empty(&gDhcpsnoop.ifList));
    EXPECT_EQ(world.calls(), Lines{"qorHwScalarSync null 0x40001 1 0x3"});
}

TEST_F(Global, HardwareNotificationInstallsOrWithdraws)
{
    populate();
    gDhcpsnoop.hwNotifyEnable = 1;
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    world.ipsg[5] = {.enabled = 1, .items = 0xF0};
    // IP source guard's own are left alone; any state but 1 withdraws; the state is the byte that is stored.
    for (const auto &[value, installed] : {std::pair{0u, "001"}, {1u, "111"}, {2u, "001"}, {0x101u, "111"}}) {
        EXPECT_EQ(set(4, value), 0);
        std::string text;
        for (const uint32_t address : {0x0A000001u, 0x0A000002u, 0x0A000004u})
            text += binding(address)->hwFlags != 0 ? "1" : "0";
        EXPECT_EQ(text, installed) << value;
        EXPECT_EQ(gDhcpsnoop.hwNotifyEnable, value & 0xFF);
    }
    EXPECT_EQ(count_bindings(), 3u);
}

TEST_F(Global, ClearingStatistics)
{
    DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(5);
    ifp->counters[0] = ifp->counters[1] = ifp->counters[2] = ifp->relayAddr = 5;
    EXPECT_EQ(dhcpSnoopSetApi(nullptr, 17, nullptr), 0);
    EXPECT_EQ(ifp->counters[0] + ifp->counters[1] + ifp->counters[2] + ifp->relayAddr, 5u);
    EXPECT_EQ(world.calls(), Lines{});
}

TEST_F(Global, SourceAndModeGoToThePlatform)
{
    uint32_t value = 5;
    int source = 0;
    EXPECT_EQ(dhcpSnoopSyncApi(&source, 2, &value), 0);
    EXPECT_EQ(dhcpSnoopSetApi(&source, 2, &value), 0);
    EXPECT_EQ(world.calls(), (Lines{"qorHwScalarSync source 0x40002 5 0x1", "qorHwScalarSync source 0x40002 5 0x3"}));
}

TEST_F(Global, DebugFlagsBitByBit)
{
    // Mask, operation, result, the flags after; 0x42 before.
    const std::tuple<uint32_t, uint32_t, int32_t, uint8_t> rows[] = {{0xF01, 1, 0, 0x43}, {0x142, 2, 0, 0x00}, {0x03, 2, 0, 0x40}, {0x03, 0, -1, 0x42}, {0x03, 3, -1, 0x42}};
    for (const auto &[mask, operation, result, after] : rows) {
        gDhcpsnoop.debugFlags = 0x42;
        EXPECT_EQ(dhcpSnoop_debug_set(mask, operation), result);
        EXPECT_EQ(gDhcpsnoop.debugFlags, after);
    }
}

} // namespace
