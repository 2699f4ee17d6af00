// Bindings and relay servers as management lists, reads and changes them.
#include "daemon_test.h"

#include <algorithm>
#include <cstring>
#include <functional>

#include "dhcpsnoop_nm.h"

namespace
{

constexpr uint32_t HOST = 0x0A000A01; // 10.0.10.1, the binding most tests are about
const std::string HOST_SYNC = "qorHwDhcpSnoopUserSync 01 00 00 00 0a 00 0a 01 00 00 00 00 00 00 00 00 00 00 00 00 ";

int32_t set(uint32_t cmd, uint32_t value, uint32_t address = HOST)
{
    const DhcpsnoopUserKey key = key4(address);
    return dhcpSnoopUserSetApi(&key, cmd, &value);
}

int32_t act(uint32_t action, uint32_t address = HOST) { return set(9, action, address); }

uint32_t get(uint32_t cmd)
{
    const DhcpsnoopUserKey key = key4(HOST);
    uint32_t value = 0xEEEEEEEE;
    EXPECT_EQ(dhcpSnoopUserGetApi(&key, cmd, &value), 0);
    return value;
}

// Port 5 and the VLAN interface 100 of VLAN 10 are snooped.
class Bindings : public Daemon
{
  protected:
    void SetUp() override { prepare(); }

    void prepare()
    {
        world.reset(0, 4);
        world.access(5, 10);
        world.vlan_interface(100, 10);
        port_ = snoop(5);
        vlan_ = snoop(100);
    }

    // A provisional dynamic binding of HOST on port 5, or one of another type and state.
    DhcpsnoopUser *make(uint8_t type = DHCPSNOOP_USER_DYNAMIC, uint8_t state = DHCPSNOOP_BIND_REQUESTED)
    {
        DhcpsnoopUser *user = make_binding(HOST, {2, 0, 0, 0, 0, 1}, 5, 10);
        user->userType = type;
        user->bindState = state;
        user->leaseTime = 60;
        if (type != DHCPSNOOP_USER_DYNAMIC) {
            port_->curUser--;
            vlan_->curUser--;
        }
        world.clear();
        return user;
    }

    DhcpsnoopIf *port_ = nullptr, *vlan_ = nullptr;
};

TEST_F(Bindings, AreListedByKey)
{
    world.reset();
    // By address octet by octet, IPv4 first; IP source guard's (type 4) are left out.
    const auto add = [](const DhcpsnoopUserKey &key, uint8_t type) { dhcpsnoop_user_table_add(&key)->userType = type; };
    for (const uint32_t address : {0x0A0000C8u, 0x0A000003u, 0x09FFFFFFu})
        add(key4(address), DHCPSNOOP_USER_DYNAMIC);
    for (const uint32_t address : {0x0A000064u, 0x01000004u})
        add(key4(address), DHCPSNOOP_USER_IPSG);
    DhcpsnoopUserKey key = key4(0x01020304);
    key.ipType = 2;
    add(key, DHCPSNOOP_USER_DYNAMIC);

    std::string listed;
    int32_t result = dhcpSnoopUserGetFirst(&key);
    for (int i = 0; result == 0 && i < 10; i++) {
        listed += world_hex(&key.ipType, 1) + ":" + world_hex(key.ipAddr, 4) + ", ";
        result = dhcpSnoopUserGetNext(&key, &key);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(listed, "01:09 ff ff ff, 01:0a 00 00 03, 01:0a 00 00 c8, 02:01 02 03 04, ");
    const DhcpsnoopUserKey gone = key4(0x0A000004), next = key4(0x0A0000C8);
    ASSERT_EQ(dhcpSnoopUserGetNext(&gone, &key), 0);
    EXPECT_EQ(memcmp(&key, &next, sizeof key), 0);
    EXPECT_EQ(dhcpSnoopUserGetFirst(nullptr), -1);
    EXPECT_EQ(dhcpSnoopUserGetNext(&key, nullptr), -1);
    EXPECT_EQ(dhcpSnoopUserGetNext(nullptr, &key), -1);
}

// Every tenth host keeps its address while the others, between any two steps of a list, come and go.
TEST_F(Bindings, AListDuringTrafficLosesAndRepeatsNothingThatStayed)
{
    constexpr uint32_t HOSTS = 400, BASE = ip4(10, 0, 0, 1), SERVER = ip4(10, 0, 9, 9);
    constexpr Arrival FROM_SERVER = {.port = 2};
    world.reset(0, HOSTS);
    world.access(1, 10);
    world.access(2, 10);
    snoop(1);
    snoop(2, DHCPSNOOP_IF_TRUSTED);
    const auto address_of = [](uint32_t host) { return BASE + host * 7; };
    const auto play = [&](uint32_t host) {
        Frame frame = client_frame(3, opt_ip(50, address_of(host)) + opt_ip(54, SERVER));
        frame.src = frame.chaddr = {2, 0, 0, 0, static_cast<uint8_t>(host >> 8), static_cast<uint8_t>(host)};
        if (binding(address_of(host)) != nullptr) {
            frame.options = opt_type(7) + opt_ip(54, SERVER) + OPT_END; // RELEASE
            frame.ciaddr = frame.srcIp = address_of(host);
            receive(frame);
        } else {
            receive(frame);
            Frame ack = server_frame(5);
            ack.chaddr = frame.chaddr;
            ack.yiaddr = address_of(host);
            receive(ack, FROM_SERVER);
        }
        world.clear();
    };
    for (uint32_t host = 0; host < HOSTS; host += 2)
        play(host);
    ASSERT_EQ(count_bindings(), HOSTS / 2);

    for (uint32_t round = 0, random = 1; round < 5; round++) {
        std::vector<uint32_t> listed;
        DhcpsnoopUserKey key;
        for (int32_t result = dhcpSnoopUserGetFirst(&key); result == 0; result = dhcpSnoopUserGetNext(&key, &key)) {
            ASSERT_LT(listed.size(), size_t{HOSTS});
            listed.push_back(uint32_t{key.ipAddr[0]} << 24 | uint32_t{key.ipAddr[1]} << 16 | uint32_t{key.ipAddr[2]} << 8 | key.ipAddr[3]);
            const uint32_t host = (listed.back() - BASE) / 7;
            ASSERT_EQ(listed.back(), address_of(host));
            EXPECT_NE(binding(listed.back()), nullptr) << "listed what is not there";
            for (int i = 0; i < 3; i++) {
                random = random * 1103515245 + 12345;
                if (const uint32_t other = (i == 0 ? host : random >> 16) % HOSTS; other % 10 != 0)
                    play(other);
            }
        }
        EXPECT_EQ(std::adjacent_find(listed.begin(), listed.end(), std::greater_equal<>()), listed.end());
        for (uint32_t host = 0; host < HOSTS; host += 10)
            EXPECT_TRUE(std::binary_search(listed.begin(), listed.end(), address_of(host))) << host;
        EXPECT_GT(listed.size(), size_t{HOSTS / 10});
    }
}

TEST_F(Bindings, Numbers)
{
    const DhcpsnoopUser *user = make();
    EXPECT_EQ(set(1, 0x10014), 0);
    EXPECT_EQ(set(2, 0x10014), 0);
    EXPECT_EQ(set(4, 0x20007), 0);
    EXPECT_EQ(world.calls(), (Lines{HOST_SYNC + "0x8ce8001 65556 0x3", HOST_SYNC + "0x8ce8002 65556 0x3", HOST_SYNC + "0x8ce8004 131079 0x3"}));
    EXPECT_EQ((std::vector<uint32_t>{get(1), get(2), get(4), get(6), get(8), get(9)}), (std::vector<uint32_t>{20, 0x10014, 7, 60, 1, 4}));
    EXPECT_EQ(user->origVid, 20);
    // Its user counts are still of where it was; deleting it takes none from an interface that is not there.
    EXPECT_EQ(act(6), 0);
}

TEST_F(Bindings, Mac)
{
    DhcpsnoopUser *user = make();
    user->macMark = 0;
    const DhcpsnoopUserKey key = key4(HOST);
    Bytes mac = {1, 2, 3, 4, 5, 6, 7};
    QorBuffer value = {mac.data(), 5};
    // Kept: too short is found out when the hardware has been told.
    EXPECT_EQ(dhcpSnoopUserSetApi(&key, 5, &value), 0x3E8000D);
    EXPECT_EQ(world.calls(), Lines{HOST_SYNC + "0x8ce8005 {01 02 03 04 05} 0x80000003"});
    EXPECT_EQ(world_hex(user->mac, 6), "02 00 00 00 00 01");
    EXPECT_EQ(user->macMark, 0);
    value.length = 7;
    EXPECT_EQ(dhcpSnoopUserSyncApi(&key, 5, &value), 0);
    EXPECT_EQ(world.calls().back(), HOST_SYNC + "0x8ce8005 {01 02 03 04 05 06 07} 0x80000001");
    EXPECT_EQ(world_hex(user->mac, 6), "01 02 03 04 05 06");
    EXPECT_EQ(user->macMark, 0x30);

    Bytes room(7, 0xEE);
    QorBuffer out = {room.data(), 5};
    EXPECT_EQ(dhcpSnoopUserGetApi(&key, 5, &out), 0x3E8000D);
    EXPECT_EQ(room, Bytes(7, 0xEE));
    out.length = 7;
    EXPECT_EQ(dhcpSnoopUserGetApi(&key, 5, &out), 0);
    EXPECT_EQ(out.length, 6u);
    EXPECT_EQ(room, (Bytes{1, 2, 3, 4, 5, 6, 0xEE}));
}

TEST_F(Bindings, Elapsed)
{
    DhcpsnoopUser *user = make();
    const int64_t start = world.now;
    user->leaseStart = static_cast<uint32_t>(start);
    // A dynamic one past its lease of 60, or of a clock that went back, shows the lease; a static one what the word holds.
    const std::tuple<uint8_t, int64_t, uint32_t> rows[] = {{1, 59, 59}, {1, 70, 60}, {1, -5, 60}, {2, 70, 70}, {2, -1, 0xFFFFFFFF}};
    for (const auto &[type, later, elapsed] : rows) {
        user->userType = type;
        world.now = start + later;
        EXPECT_EQ(get(7), elapsed) << later;
    }
    user->userType = DHCPSNOOP_USER_DYNAMIC;
}

TEST_F(Bindings, RefusedWithoutTrace)
{
    const std::tuple<const char *, uint8_t, uint32_t, int32_t> rows[] = {
        // state of the binding there is, 0 = none; command, result
        {"nothing there, whatever the command", 0, 77, 0x3E80002},
        {"bound, whatever the command", 1, 77, 0x3E8000C},
        {"bound, another VLAN", 1, 1, 0x3E8000C},
        {"the lease", 4, 6, 0x3E80010},
        {"a command there is not", 4, 10, 0x3E80010},
    };
    for (const auto &[claim, state, cmd, result] : rows) {
        SCOPED_TRACE(claim);
        prepare();
        if (state != 0)
            make(DHCPSNOOP_USER_DYNAMIC, state);
        const std::string before = world_state();
        EXPECT_EQ(set(cmd, 9), result);
        EXPECT_EQ(world.calls(), Lines{});
        EXPECT_EQ(world_state(), before);
    }
}

TEST_F(Bindings, HardwareRefusesOrValueIsMissing)
{
    make();
    const DhcpsnoopUserKey key = key4(HOST);
    Bytes mac(6, 7);
    QorBuffer value = {mac.data(), 6}, nowhere = {nullptr, 6};
    const std::string before = world_state();
    for (const uint32_t cmd : {1u, 2u, 4u, 5u, 9u}) {
        void *missing = cmd == 5 ? &nowhere : nullptr;
        EXPECT_EQ(dhcpSnoopUserSetApi(&key, cmd, missing), 0x3E80010) << cmd;
        EXPECT_EQ(dhcpSnoopUserGetApi(&key, cmd, missing), 0x3E80010) << cmd;
        EXPECT_EQ(dhcpSnoopUserSetApi(&key, cmd, nullptr), 0x3E80010) << cmd;
    }
    EXPECT_EQ(world.calls(), Lines{});
    world.refuse("qorHwDhcpSnoopUserSync");
    for (const uint32_t cmd : {1u, 2u, 4u})
        EXPECT_EQ(set(cmd, 9), 0x3E80004) << cmd;
    EXPECT_EQ(dhcpSnoopUserSetApi(&key, 5, &value), 0x3E80004);
    for (uint32_t action = 0; action < 8; action++) {
        EXPECT_EQ(act(action), 0x3E80004) << action;
        EXPECT_EQ(act(action, HOST + 1), 0x3E80004) << action;
    }
    EXPECT_EQ(world_state(), before);
    uint32_t number = 5;
    EXPECT_EQ(dhcpSnoopUserGetApi(&key, 10, &number), 0x3E80010);
    EXPECT_EQ(dhcpSnoopUserSetApi(nullptr, 1, &number), 0x3E8001A);
    EXPECT_EQ(dhcpSnoopUserSyncApi(nullptr, 1, &number), 0x3E8001A);
    EXPECT_EQ(dhcpSnoopUserGetApi(nullptr, 1, &number), 0x3E8001A);
    EXPECT_EQ(number, 5u);
}

TEST_F(Bindings, Actions)
{
    // Type of the binding there is (0 = none), action, result, "type state" of the one there is then.
    const std::tuple<const char *, uint8_t, uint32_t, int32_t, const char *> rows[] = {
        {"nothing to bind", 0, 1, 0x3E80002, ""},
        {"create", 0, 4, 0, "2 3"},
        {"create by the other number", 0, 5, 0, "2 3"},
        {"nothing to delete", 0, 6, 0x3E80002, ""},
        {"no action, nothing there", 0, 7, 0x3E80002, ""},
        {"bind a dynamic one: it stays dynamic", 1, 1, 0, "1 1"},
        {"unbind a dynamic one: it becomes static", 1, 2, 0, "2 2"},
        {"create what is there", 1, 4, 0x3E80003, "1 4"},
        {"delete", 2, 6, 0, ""},
        {"no action", 1, 0, 0x3E80010, "1 4"},
        {"an action is compared whole", 2, 0x101, 0x3E80010, "2 4"},
        {"bind IP source guard's", 4, 1, 0x3E80003, "4 4"},
        {"delete IP source guard's", 4, 6, 0x3E80003, "4 4"},
    };
    for (const auto &[claim, type, action, result, after] : rows) {
        SCOPED_TRACE(claim);
        prepare();
        if (type != 0)
            make(type);
        debug(DHCPSNOOP_DEBUG_DUMP);
        EXPECT_EQ(act(action), result);
        // The hardware is told first, whatever comes of it.
        ASSERT_FALSE(world.calls().empty());
        EXPECT_EQ(world.calls()[0], HOST_SYNC + world_format("0x8ce8009 %u 0x3", action));
        const DhcpsnoopUser *user = binding(HOST);
        EXPECT_EQ(user == nullptr ? "" : world_format("%u %u", user->userType, user->bindState), after);
        EXPECT_EQ(printed("[DHCPSNOOP] dhcpsnoop user setapi: this is a IPSG binding entry with the same ip!\r\n"), type == DHCPSNOOP_USER_IPSG);
        EXPECT_EQ(world_check_tables(true), "");
    }
}

TEST_F(Bindings, CreatedOnesAreStaticAndEmpty)
{
    EXPECT_EQ(act(4), 0);
    const DhcpsnoopUser *user = binding(HOST);
    EXPECT_TRUE(user->leaseTime == 0xFFFFFFFF && user->leaseStart == 0 && user->vid == 0 && user->ifIndex == 0 && user->hwFlags == 0 && user->macMark == 0);
    for (uint32_t i = 1; i < 4; i++)
        EXPECT_EQ(act(5, HOST + i), 0);
    EXPECT_EQ(act(4, HOST + 4), 12); // no entry is free
    EXPECT_EQ(act(4, HOST), 0x3E80003);
    EXPECT_EQ(count_bindings(), 4u);
}

TEST_F(Bindings, BindInstallsAllChecks)
{
    // Rules of this attribute refused ("" = of both) so often; installed, and the checks, then. The bits go, what else stood in
    // the byte stays.
    const std::tuple<const char *, const char *, int, uint8_t, uint8_t, uint8_t> rows[] = {
        {"both", "", 0, 0xC0, 0xF5, 0xFA},
        {"IP source guard refused", "", 1, 0x40, 0x05, 0xFA},
        {"ARP inspection refused", "0 addr 0a 00 0a 01 00 00 00 00 00 00 00 00 00 00 00 00 attr 0 orig 10 type 1 rule 40", 1, 0x80, 0xF5, 0x0A},
        {"both refused", "", 2, 0x00, 0x05, 0x0A},
    };
    for (const auto &[claim, refused, times, hwFlags, ipsgItems, daiItems] : rows) {
        SCOPED_TRACE(claim);
        prepare();
        gDhcpsnoop.daiStarted = 1;
        DhcpsnoopUser *user = make();
        user->ipsgCheckItems = 0x85;
        user->daiCheckItems = 0x0A;
        world.refuse(std::string("hw add 5: mac 02 00 00 00 00 01 vid 10 if 5 ipsg ") + refused, -1, times);
        world.now += 7;
        EXPECT_EQ(act(1), 0); // whatever came of the two
        const Lines rules = world.calls("hw add 5");
        ASSERT_EQ(rules.size(), 2u);
        EXPECT_NE(rules[0].find(" rule 80 "), std::string::npos) << rules[0];
        EXPECT_NE(rules[1].find(" rule 40 "), std::string::npos) << rules[1];
        EXPECT_EQ(user->hwFlags, hwFlags);
        EXPECT_EQ(user->ipsgCheckItems, ipsgItems);
        EXPECT_EQ(user->daiCheckItems, daiItems);
        EXPECT_EQ(user->leaseStart, static_cast<uint32_t>(world.now));
        EXPECT_EQ(user->leaseTime, 60u); // and it expires, if it did before
        EXPECT_EQ(world.texts(Did::Log), Lines{"7 1 [DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.10.1, mac 02:00:00:00:00:01, interface swp5, vlan 10.\r\n"});
    }
}

TEST_F(Bindings, UnbindWithdraws)
{
    // Type, installed, what is refused (of the two rules, only the second carries the MAC), result, installed then, rules
    // withdrawn, users on the port and in the VLAN before and then.
    const std::tuple<const char *, uint8_t, uint8_t, const char *, int32_t, uint8_t, size_t, uint16_t, uint16_t> rows[] = {
        {"installed for nothing; a count that is 0 stays", 1, 0x00, "", 0, 0x00, 0, 0, 0},
        {"installed for both", 1, 0xC0, "", 0, 0x00, 2, 3, 2},
        {"a static one is not counted", 2, 0x40, "", 0, 0x00, 1, 3, 3},
        {"IP source guard refused: its result, and nothing else is done", 1, 0xC0, "hw delete", 7, 0xC0, 1, 3, 3},
        {"ARP inspection refused", 1, 0xC0, "hw delete 5: mac 02 00 00 00 00 01", 7, 0x40, 2, 3, 3},
    };
    for (const auto &[claim, type, hwFlags, refused, result, hwFlagsAfter, rules, users, usersAfter] : rows) {
        SCOPED_TRACE(claim);
        prepare();
        gDhcpsnoop.daiStarted = 1;
        DhcpsnoopUser *user = make(type, 1);
        port_->curUser = vlan_->curUser = users;
        user->hwFlags = hwFlags;
        user->ipsgCheckItems = 0x80;
        user->daiCheckItems = 0x40;
        if (refused[0] != '\0')
            world.refuse(refused, result);
        const uint32_t start = user->leaseStart;
        world.now += 100;
        EXPECT_EQ(act(2), result);
        // Only what was installed is withdrawn, and what to check stays.
        EXPECT_EQ(world.calls("hw delete").size(), rules);
        EXPECT_EQ(user->hwFlags, hwFlagsAfter);
        EXPECT_EQ(user->ipsgCheckItems | user->daiCheckItems, 0xC0);
        EXPECT_EQ(port_->curUser, usersAfter);
        EXPECT_EQ(vlan_->curUser, usersAfter);
        const bool unbound = result == 0;
        EXPECT_TRUE(unbound ? user->userType == 2 && user->bindState == 2 : user->userType == type && user->bindState == 1);
        EXPECT_EQ(user->leaseTime, unbound ? 0xFFFFFFFF : 60u);
        EXPECT_EQ(user->leaseStart, unbound ? static_cast<uint32_t>(world.now) : start);
    }
}

// ---- relay servers

TEST_F(Bindings, RelayServerSlots)
{
    // Interface, address, command, value, result, the slots of port 5 then.
    const std::tuple<const char *, uint32_t, uint32_t, uint32_t, uint32_t, int32_t, const char *> rows[] = {
        {"add", 5, 0xA, 1, 1, 0, "a 0 0"},
        {"add, as 4", 5, 0xB, 1, 4, 0, "a b 0"},
        {"add what is there", 5, 0xA, 1, 5, 0, "a b 0"},
        {"add, as 5", 5, 0xC, 1, 5, 0, "a b c"},
        {"add one too many", 5, 0xD, 1, 1, 0x3E80010, "a b c"},
        {"add what is there to a full one", 5, 0xC, 1, 1, 0, "a b c"},
        {"remove what is not there", 5, 0xD, 1, 6, 0, "a b c"},
        {"remove", 5, 0xA, 1, 6, 0, "0 b c"},
        {"the first free slot is taken", 5, 0xE, 1, 1, 0, "e b c"},
        {"no action", 5, 0xF, 1, 2, 0x3E80010, "e b c"},
        {"another command", 5, 0xF, 2, 1, 0x3E80002, "e b c"},
        {"no interface", 9, 0xF, 1, 1, 0x3E80002, "e b c"},
    };
    for (const auto &[claim, ifIndex, address, cmd, value, result, slots] : rows) {
        SCOPED_TRACE(claim);
        const uint32_t pair[2] = {ifIndex, address};
        uint32_t given = value;
        EXPECT_EQ(dhcpSnoopServerIpSetApi(pair, cmd, &given), result);
        EXPECT_EQ(world_format("%x %x %x", port_->serverIp[0], port_->serverIp[1], port_->serverIp[2]), slots);
    }
    const uint32_t pair[2] = {5, 0xB};
    EXPECT_EQ(dhcpSnoopServerIpSetApi(pair, 1, nullptr), 0x3E80010);
    EXPECT_EQ(dhcpSnoopServerIpSetApi(nullptr, 1, nullptr), 0x3E8001A);
    EXPECT_EQ(world.calls(), Lines{});
}

TEST_F(Bindings, RelayServersAreListedAndFound)
{
    world.access(3, 10);
    DhcpsnoopIf *unused = snoop(3);
    unused->serverIp[0] = 0x99;
    unused->flags &= ~0x80000000;
    port_->serverIp[1] = 0xA;
    port_->serverIp[2] = 0xB;
    vlan_->serverIp[0] = 0xA;
    // From the first in use slot by slot; nothing after the last, one that is not there, or one of an interface not in use.
    const std::tuple<uint32_t, uint32_t, const char *> rows[] = {{0, 0, "5 a"}, {5, 0xA, "5 b"}, {5, 0xB, "100 a"}, {100, 0xA, ""}, {5, 0xC, ""}, {3, 0x99, ""}};
    uint32_t found[2] = {};
    for (const auto &[ifIndex, address, next] : rows) {
        const uint32_t from[2] = {ifIndex, address};
        const int32_t result = ifIndex == 0 ? dhcpSnoopServerIpGetFirst(found) : dhcpSnoopServerIpGetNext(from, found);
        EXPECT_EQ(result == 0 ? world_format("%u %x", found[0], found[1]) : "", next) << ifIndex << ' ' << address;
    }
    const uint32_t there[2] = {5, 0xA}, absent[2] = {5, 0xC}, nowhere[2] = {9, 0xA};
    EXPECT_EQ(dhcpSnoopServerIpGetFirst(nullptr), -1);
    EXPECT_EQ(dhcpSnoopServerIpGetNext(nullptr, found), -1);
    EXPECT_EQ(dhcpSnoopServerIpGetNext(there, nullptr), -1);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(there, 1), 0);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(there, 2), 0x3E80010);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(absent, 1), 0x3E80002);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(nowhere, 2), 0x3E80002);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(nullptr, 1), 0x3E8001A);
}

TEST_F(Bindings, LearnedServersAreShown)
{
    dhcpsnoop_server_add(0x0A000A01, 10, 5);
    dhcpsnoop_server_add(0xC0A8FFFE, 4094, 100);
    Printed out;
    dhcpsnoop_fake_server_show();
    EXPECT_EQ(out.text(), "\n\r IpAddr            Vid       Interface   \n\r 192.168.255.254   4094      vlan10      "
                          "\n\r 10.0.10.1         10        swp5        \n\r");
}

} // namespace
