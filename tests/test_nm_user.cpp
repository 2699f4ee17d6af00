// Bindings and relay servers as management lists, reads and changes them.
#include "daemon_test.h"

#include <cstring>

#include "dhcpsnoop_nm.h"

namespace
{

constexpr uint32_t HOST = 0x0A000A01; // 10.0.10.1, the binding most tests are about
const std::string HOST_KEY = "01 00 00 00 0a 00 0a 01 00 00 00 00 00 00 00 00 00 00 00 00";

int32_t set(uint32_t address, uint32_t cmd, uint32_t value)
{
    const DhcpsnoopUserKey key = key4(address);
    return dhcpSnoopUserSetApi(&key, cmd, &value);
}

int32_t act(uint32_t action, uint32_t address = HOST) { return set(address, 9, action); }

uint32_t get(uint32_t cmd, uint32_t address = HOST)
{
    const DhcpsnoopUserKey key = key4(address);
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
    DhcpsnoopUser *make(uint8_t type = DHCPSNOOP_USER_DYNAMIC, uint8_t state = DHCPSNOOP_BIND_REQUESTED,
                        uint32_t address = HOST)
    {
        DhcpsnoopUser *user = make_binding(address, {2, 0, 0, 0, 0, 1}, 5, 10);
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
    const struct {
        uint8_t type;
        Bytes address;
        uint8_t userType;
    } entries[] = {
        {2, {0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 1},
        {1, {10, 0, 0, 200}, 1},
        {1, {10, 0, 0, 3}, 2},
        {1, {9, 255, 255, 255}, 1},
        {1, {10, 0, 0, 100}, 4},
        {1, {1, 0, 0, 4}, 4},
    };
    for (const auto &entry : entries) {
        DhcpsnoopUserKey key = {};
        key.ipType = entry.type;
        memcpy(key.ipAddr, entry.address.data(), entry.address.size());
        dhcpsnoop_user_table_add(&key)->userType = entry.userType;
    }
    DhcpsnoopUserKey key = {};
    std::string listed;
    int32_t result = dhcpSnoopUserGetFirst(&key);
    for (int i = 0; result == 0 && i < 10; i++) {
        const auto *bytes = reinterpret_cast<const uint8_t *>(&key);
        listed += world_hex(bytes, 1) + ":" + world_hex(key.ipAddr, 4) + ", ";
        result = dhcpSnoopUserGetNext(&key, &key);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(listed, "01:09 ff ff ff, 01:0a 00 00 03, 01:0a 00 00 c8, 02:20 01 0d b8, ");

    // From a key that is not there, and one of IP source guard's.
    const struct {
        uint32_t from, next;
    } rows[] = {
        {0, 0x09FFFFFF}, {0x0A000004, 0x0A0000C8}, {0x0A000064, 0x0A0000C8}, {0x01000004, 0x09FFFFFF}};
    for (const auto &row : rows) {
        const DhcpsnoopUserKey from = key4(row.from), expected = key4(row.next);
        ASSERT_EQ(dhcpSnoopUserGetNext(&from, &key), 0);
        EXPECT_EQ(memcmp(&key, &expected, sizeof key), 0) << row.from;
    }
    EXPECT_EQ(dhcpSnoopUserGetFirst(nullptr), -1);
    EXPECT_EQ(dhcpSnoopUserGetNext(&key, nullptr), -1);
    EXPECT_EQ(dhcpSnoopUserGetNext(nullptr, &key), -1);
}

TEST_F(Bindings, Attributes)
{
    DhcpsnoopUser *user = make();
    const struct {
        uint32_t cmd, value;
        const char *call;
        uint32_t read;
    } rows[] = {
        {1, 0x10014, " 0x8ce8001 65556 0x3", 20},
        {2, 0x10014, " 0x8ce8002 65556 0x3", 0x10014},
        {4, 0x20007, " 0x8ce8004 131079 0x3", 7},
    };
    for (const auto &row : rows) {
        world.clear();
        EXPECT_EQ(set(HOST, row.cmd, row.value), 0);
        EXPECT_EQ(world.calls(), Lines{"qorHwDhcpSnoopUserSync " + HOST_KEY + row.call});
        EXPECT_EQ(get(row.cmd), row.read);
    }
    EXPECT_EQ(user->vid, 20);
    EXPECT_EQ(user->origVid, 20);
    EXPECT_EQ(get(6), 60u);
    EXPECT_EQ(get(8), 1u);
    EXPECT_EQ(get(9), 4u);
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
    EXPECT_EQ(world.calls(),
              Lines{"qorHwDhcpSnoopUserSync " + HOST_KEY + " 0x8ce8005 {01 02 03 04 05} 0x80000003"});
    EXPECT_EQ(world_hex(user->mac, 6), "02 00 00 00 00 01");
    EXPECT_EQ(user->macMark, 0);
    value.length = 7;
    EXPECT_EQ(dhcpSnoopUserSyncApi(&key, 5, &value), 0);
    EXPECT_EQ(world.calls().back(),
              "qorHwDhcpSnoopUserSync " + HOST_KEY + " 0x8ce8005 {01 02 03 04 05 06 07} 0x80000001");
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
    const struct {
        const char *claim;
        uint8_t type;
        int64_t later;
        uint32_t lease, elapsed;
    } rows[] = {
        {"within the lease", 1, 59, 60, 59},
        {"at its end", 1, 60, 60, 60},
        {"a dynamic one past its lease shows the lease", 1, 70, 60, 60},
        {"a static one what it is", 2, 70, 60, 70},
        {"of a clock that went back, a dynamic one shows the lease", 1, -5, 60, 60},
        {"and a static one what the word holds", 2, -1, 0xFFFFFFFF, 0xFFFFFFFF},
    };
    const int64_t start = world.now;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        user->userType = row.type;
        user->leaseTime = row.lease;
        user->leaseStart = static_cast<uint32_t>(start);
        world.now = start + row.later;
        EXPECT_EQ(get(7), row.elapsed);
    }
    user->userType = DHCPSNOOP_USER_DYNAMIC;
}

TEST_F(Bindings, Refused)
{
    const struct {
        const char *claim;
        uint8_t type, state; // of the binding there is; 0 = none
        uint32_t cmd;
        int32_t result;
    } rows[] = {
        {"nothing there", 0, 0, 1, 0x3E80002},
        {"nothing there, whatever the command", 0, 0, 77, 0x3E80002},
        {"bound", 1, 1, 1, 0x3E8000C},
        {"bound, whatever the command", 2, 1, 77, 0x3E8000C},
        {"bound, another interface", 2, 1, 2, 0x3E8000C},
        {"bound, another MAC", 1, 1, 5, 0x3E8000C},
        {"the lease", 1, 4, 6, 0x3E80010},
        {"the elapsed time", 1, 4, 7, 0x3E80010},
        {"the type", 1, 4, 8, 0x3E80010},
        {"a command there is not", 1, 4, 3, 0x3E80010},
        {"a command there is not", 1, 4, 10, 0x3E80010},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare();
        if (row.type != 0)
            make(row.type, row.state);
        const std::string before = world_state();
        EXPECT_EQ(set(HOST, row.cmd, 9), row.result);
        EXPECT_EQ(world.calls(), Lines{});
        EXPECT_EQ(world_state(), before);
    }
}

TEST_F(Bindings, HardwareRefusesOrValueIsMissing)
{
    make();
    const DhcpsnoopUserKey key = key4(HOST), other = key4(HOST + 1);
    Bytes mac(6, 7);
    QorBuffer value = {mac.data(), 6}, nowhere = {nullptr, 6};
    const std::string before = world_state();
    for (const uint32_t cmd : {1u, 2u, 4u, 5u, 9u}) {
        EXPECT_EQ(dhcpSnoopUserSetApi(&key, cmd, nullptr), 0x3E80010) << cmd;
        EXPECT_EQ(dhcpSnoopUserGetApi(&key, cmd, nullptr), 0x3E80010) << cmd;
    }
    EXPECT_EQ(dhcpSnoopUserSetApi(&key, 5, &nowhere), 0x3E80010);
    EXPECT_EQ(dhcpSnoopUserGetApi(&key, 5, &nowhere), 0x3E80010);
    EXPECT_EQ(world.calls(), Lines{});
    world.refuse("qorHwDhcpSnoopUserSync");
    for (const uint32_t cmd : {1u, 2u, 4u})
        EXPECT_EQ(set(HOST, cmd, 9), 0x3E80004) << cmd;
    EXPECT_EQ(dhcpSnoopUserSetApi(&key, 5, &value), 0x3E80004);
    for (const uint32_t action : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u}) {
        EXPECT_EQ(act(action), 0x3E80004) << action;
        EXPECT_EQ(act(action, HOST + 1), 0x3E80004) << action;
    }
    EXPECT_EQ(world_state(), before);
    // Reading.
    uint32_t number = 5;
    EXPECT_EQ(dhcpSnoopUserGetApi(&other, 1, &number), 0x3E80002);
    for (const uint32_t cmd : {0u, 3u, 10u})
        EXPECT_EQ(dhcpSnoopUserGetApi(&key, cmd, &number), 0x3E80010) << cmd;
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(dhcpSnoopUserSetApi(nullptr, 1, &number), 0x3E8001A);
    EXPECT_EQ(dhcpSnoopUserSyncApi(nullptr, 1, &number), 0x3E8001A);
    EXPECT_EQ(dhcpSnoopUserGetApi(nullptr, 1, &number), 0x3E8001A);
}

TEST_F(Bindings, Actions)
{
    const struct {
        const char *claim;
        uint8_t type; // of the binding there is; 0 = none
        uint32_t action;
        int32_t result;
        const char *after; // "type state" of the binding there is now
    } rows[] = {
        {"nothing to bind", 0, 1, 0x3E80002, ""},
        {"nothing to unbind", 0, 2, 0x3E80002, ""},
        {"nothing to unbind", 0, 3, 0x3E80002, ""},
        {"create", 0, 4, 0, "2 3"},
        {"create", 0, 5, 0, "2 3"},
        {"nothing to delete", 0, 6, 0x3E80002, ""},
        {"no action, nothing there", 0, 0, 0x3E80002, ""},
        {"no action, nothing there", 0, 7, 0x3E80002, ""},
        {"bind a dynamic one: it stays dynamic", 1, 1, 0, "1 1"},
        {"bind a static one", 2, 1, 0, "2 1"},
        {"unbind a dynamic one: it becomes static", 1, 2, 0, "2 2"},
        {"unbind", 2, 3, 0, "2 3"},
        {"create what is there", 1, 4, 0x3E80003, "1 4"},
        {"create what is there", 2, 5, 0x3E80003, "2 4"},
        {"delete", 1, 6, 0, ""},
        {"delete", 2, 6, 0, ""},
        {"no action", 1, 0, 0x3E80010, "1 4"},
        {"no action", 2, 7, 0x3E80010, "2 4"},
        {"no action", 2, 0x101, 0x3E80010, "2 4"},
        {"bind IP source guard's", 4, 1, 0x3E80003, "4 4"},
        {"unbind IP source guard's", 4, 2, 0x3E80003, "4 4"},
        {"create IP source guard's", 4, 4, 0x3E80003, "4 4"},
        {"delete IP source guard's", 4, 6, 0x3E80003, "4 4"},
        {"no action on IP source guard's", 4, 9, 0x3E80003, "4 4"},
    };
    const std::string guarded =
        "[DHCPSNOOP] dhcpsnoop user setapi: this is a IPSG binding entry with the same ip!\r\n";
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare();
        if (row.type != 0)
            make(row.type);
        gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_DUMP;
        EXPECT_EQ(act(row.action), row.result);
        // The hardware is told first, whatever comes of it.
        ASSERT_FALSE(world.calls().empty());
        EXPECT_EQ(world.calls()[0],
                  world_format("qorHwDhcpSnoopUserSync %s 0x8ce8009 %u 0x3", HOST_KEY.c_str(), row.action));
        const DhcpsnoopUser *user = binding(HOST);
        EXPECT_EQ(user == nullptr ? "" : world_format("%u %u", user->userType, user->bindState), row.after);
        EXPECT_EQ(printed(guarded), row.type == DHCPSNOOP_USER_IPSG);
        EXPECT_EQ(world_check_tables(true), "");
    }
}

TEST_F(Bindings, CreatedOnesAreStaticAndEmpty)
{
    world.now += 500;
    EXPECT_EQ(act(4), 0);
    const DhcpsnoopUser *user = binding(HOST);
    EXPECT_EQ(user->leaseTime, 0xFFFFFFFFu);
    EXPECT_EQ(user->leaseStart, 0u);
    EXPECT_TRUE(user->vid == 0 && user->ifIndex == 0 && user->hwFlags == 0 && user->macMark == 0);
    EXPECT_EQ(get(7), static_cast<uint32_t>(world.now)); // since ever
    for (uint32_t i = 1; i < 4; i++)
        EXPECT_EQ(act(5, HOST + i), 0);
    EXPECT_EQ(act(4, HOST + 4), 12); // no entry is free
    EXPECT_EQ(act(4, HOST), 0x3E80003);
    EXPECT_EQ(count_bindings(), 4u);
    EXPECT_EQ(world.all(Did::Log).size(), 0u);
}

TEST_F(Bindings, BindInstallsAllChecks)
{
    world.now += 40;
    const struct {
        const char *claim;
        const char *refused; // "" = nothing
        uint8_t hwFlags, ipsgItems, daiItems;
    } rows[] = {
        {"both", "", 0xC0, 0xF5, 0xFA},
        // The bits go, what else stood in the byte stays.
        {"IP source guard refused", "ipsg", 0x40, 0x05, 0xFA},
        {"ARP inspection refused", "dai", 0x80, 0xF5, 0x0A},
        {"both refused", "both", 0x00, 0x05, 0x0A},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare();
        gDhcpsnoop.daiStarted = 1;
        DhcpsnoopUser *user = make();
        user->ipsgCheckItems = 0x85;
        user->daiCheckItems = 0x0A;
        world.newIpsgHwId = 71;
        world.newDaiHwId = 72;
        const std::string refused = row.refused;
        const std::string rule = "hw add 5: mac 02 00 00 00 00 01 vid 10 if 5 ipsg ";
        if (refused == "ipsg")
            world.refuse(rule, -1, 1);
        else if (refused == "both")
            world.refuse(rule, -1, 2);
        else if (refused == "dai")
            world.refuse(
                "hw add 5: mac 02 00 00 00 00 01 vid 10 if 5 ipsg 0 addr 0a 00 0a 01 00 00 00 00 00 00 00 00 00 00 00 00 attr 0 orig 10 type 1 rule 40");
        world.now += 7;
        EXPECT_EQ(act(1), 0); // whatever came of the two
        const Lines rules = world.calls("hw add 5");
        ASSERT_EQ(rules.size(), 2u);
        EXPECT_NE(rules[0].find(" rule 80 "), std::string::npos) << rules[0];
        EXPECT_NE(rules[1].find(" rule 40 "), std::string::npos) << rules[1];
        EXPECT_EQ(user->hwFlags, row.hwFlags);
        EXPECT_EQ(user->ipsgCheckItems, row.ipsgItems);
        EXPECT_EQ(user->daiCheckItems, row.daiItems);
        EXPECT_EQ(user->ipsgHwId, 71u);
        EXPECT_EQ(user->daiHwId, 72u);
        EXPECT_EQ(user->leaseStart, static_cast<uint32_t>(world.now));
        EXPECT_EQ(user->leaseTime, 60u); // and it expires, if it did before
        EXPECT_EQ(
            world.texts(Did::Log),
            Lines{
                "7 1 [DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.10.1, mac 02:00:00:00:00:01, interface swp5, vlan 10.\r\n"});
    }
}

TEST_F(Bindings, BindIsLoggedByType)
{
    world.ports[5].name = std::string(80, 'n');
    make(DHCPSNOOP_USER_STATIC, 3);
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(
        world.texts(Did::Log),
        Lines{"7 1 [DHCPSNOOP] Add static dhcpsnoop entry: ip 10.0.10.1, mac 02:00:00:00:00:01, interface " +
              std::string(63, 'n') + ", vlan 10.\r\n"});
}

TEST_F(Bindings, UnbindWithdraws)
{
    const struct {
        const char *claim;
        uint8_t type, hwFlags;
        const char *refused;
        int32_t result;
        uint8_t hwFlagsAfter;
        size_t rules;
        uint32_t users; // on the port and in the VLAN, of 3 before
        bool unbound;
    } rows[] = {
        {"installed for nothing", 1, 0x00, "", 0, 0x00, 0, 2, true},
        {"installed for both", 1, 0xC0, "", 0, 0x00, 2, 2, true},
        {"a static one is not counted", 2, 0x40, "", 0, 0x00, 1, 3, true},
        {"IP source guard refused: its result, and nothing else is done", 1, 0xC0, "hw delete", 7, 0xC0, 1, 3,
         false},
        {"ARP inspection refused", 1, 0xC0, "second", 7, 0x40, 2, 3, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare();
        gDhcpsnoop.daiStarted = 1;
        DhcpsnoopUser *user = make(row.type, 1);
        port_->curUser = vlan_->curUser = 3;
        user->hwFlags = row.hwFlags;
        user->ipsgCheckItems = 0x80;
        user->daiCheckItems = 0x40;
        const uint32_t start = user->leaseStart;
        if (row.refused == std::string("second"))
            world.refuse("hw delete 5: mac 02 00 00 00 00 01",
                         7); // of the two, only the second carries the MAC
        else if (row.refused[0] != '\0')
            world.refuse(row.refused, 7);
        world.now += 100;
        EXPECT_EQ(act(2), row.result);
        // Only what was installed is withdrawn.
        EXPECT_EQ(world.calls("hw delete").size(), row.rules);
        EXPECT_EQ(user->hwFlags, row.hwFlagsAfter);
        EXPECT_EQ(user->ipsgCheckItems, 0x80);
        EXPECT_EQ(user->daiCheckItems, 0x40);
        EXPECT_EQ(port_->curUser, row.users);
        EXPECT_EQ(vlan_->curUser, row.users);
        EXPECT_EQ(user->userType, row.unbound ? 2 : row.type);
        EXPECT_EQ(user->bindState, row.unbound ? 2 : 1);
        EXPECT_EQ(user->leaseTime, row.unbound ? 0xFFFFFFFF : 60u);
        EXPECT_EQ(user->leaseStart, row.unbound ? static_cast<uint32_t>(world.now) : start);
        EXPECT_EQ(world.all(Did::Log).size(), 0u);
    }
    // Counts that are 0 already stay.
    make(1, 4, HOST + 1);
    port_->curUser = vlan_->curUser = 0;
    EXPECT_EQ(act(3, HOST + 1), 0);
    EXPECT_EQ(port_->curUser + vlan_->curUser, 0);
}

TEST_F(Bindings, BoundUnboundChanged)
{
    EXPECT_EQ(act(4), 0);
    EXPECT_EQ(set(HOST, 1, 10), 0);
    EXPECT_EQ(set(HOST, 2, 5), 0);
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(set(HOST, 1, 20), 0x3E8000C);
    EXPECT_EQ(act(2), 0);
    EXPECT_EQ(set(HOST, 1, 20), 0);
    EXPECT_EQ(get(1), 20u);
    EXPECT_EQ(get(9), 2u);
    EXPECT_EQ(act(6), 0);
    EXPECT_EQ(binding(HOST), nullptr);
}

// ---- relay servers

int32_t server(uint32_t ifIndex, uint32_t address, uint32_t value, uint32_t cmd = 1)
{
    const uint32_t pair[2] = {ifIndex, address};
    return dhcpSnoopServerIpSetApi(pair, cmd, &value);
}

TEST_F(Bindings, RelayServerSlots)
{
    const struct {
        const char *claim;
        uint32_t ifIndex, address, cmd, value;
        int32_t result;
        const char *slots; // of port 5
    } rows[] = {
        {"add", 5, 0xA, 1, 1, 0, "a 0 0"},
        {"add, as 4", 5, 0xB, 1, 4, 0, "a b 0"},
        {"add what is there", 5, 0xA, 1, 5, 0, "a b 0"},
        {"add, as 5", 5, 0xC, 1, 5, 0, "a b c"},
        {"add one too many", 5, 0xD, 1, 1, 0x3E80010, "a b c"},
        {"add what is there to a full one", 5, 0xC, 1, 1, 0, "a b c"},
        {"remove what is not there", 5, 0xD, 1, 6, 0, "a b c"},
        {"remove", 5, 0xA, 1, 6, 0, "0 b c"},
        {"remove", 5, 0xC, 1, 6, 0, "0 b 0"},
        {"the first free slot is taken", 5, 0xE, 1, 1, 0, "e b 0"},
        {"no action", 5, 0xF, 1, 0, 0x3E80010, "e b 0"},
        {"no action", 5, 0xF, 1, 2, 0x3E80010, "e b 0"},
        {"no action", 5, 0xF, 1, 7, 0x3E80010, "e b 0"},
        {"another command", 5, 0xF, 2, 1, 0x3E80002, "e b 0"},
        {"no interface", 9, 0xF, 1, 1, 0x3E80002, "e b 0"},
    };
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_DUMP;
    world.access(9, 10).name = "swp9";
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.clear();
        EXPECT_EQ(server(row.ifIndex, row.address, row.value, row.cmd), row.result);
        EXPECT_EQ(world_format("%x %x %x", port_->serverIp[0], port_->serverIp[1], port_->serverIp[2]),
                  row.slots);
        Lines texts = {world_format("[DHCPSNOOP] Set server-ip: if swp%u, ip 0x%x, cmd %u, flag 0x3.\r\n",
                                    row.ifIndex, row.address, row.cmd)};
        if (row.address == 0xD && row.value == 1)
            texts.push_back("[DHCPSNOOP] Number of relay server-ip exceeds the max!\r\n");
        texts.push_back(world_format("[DHCPSNOOP] Set relay server-ip end: rc %d.\r\n", row.result));
        EXPECT_EQ(debug_texts(), texts);
        EXPECT_EQ(world.calls(), Lines{});
    }
    const uint32_t pair[2] = {5, 0xB};
    world.clear();
    EXPECT_EQ(dhcpSnoopServerIpSetApi(pair, 1, nullptr), 0x3E80010);
    EXPECT_EQ(dhcpSnoopServerIpSetApi(nullptr, 1, nullptr), 0x3E8001A);
    uint32_t remove = 6;
    EXPECT_EQ(dhcpSnoopServerIpSyncApi(pair, 1, &remove), 0);
    EXPECT_EQ(port_->serverIp[1], 0u);
    EXPECT_TRUE(printed("[DHCPSNOOP] Set server-ip: if swp5, ip 0xb, cmd 1, flag 0x1.\r\n"));
}

TEST_F(Bindings, RelayServersAreListedAndFound)
{
    world.access(3, 10);
    world.access(7, 10);
    DhcpsnoopIf *unused = snoop(3);
    unused->serverIp[0] = 0x99;
    unused->flags &= ~0x80000000;
    port_->serverIp[1] = 0xA;
    port_->serverIp[2] = 0xB;
    snoop(7);
    vlan_->serverIp[0] = 0xA;

    const struct {
        const char *claim;
        uint32_t ifIndex, address; // 0, 0 = the first
        const char *found;         // "" = none
    } rows[] = {
        {"the first in use", 0, 0, "5 a"},
        {"the next slot", 5, 0xA, "5 b"},
        {"the next interface that has one", 5, 0xB, "100 a"},
        {"after the last", 100, 0xA, ""},
        {"after one that is not there", 5, 0xC, ""},
        {"after one on another interface", 7, 0xA, ""},
        {"after one of an interface not in use", 3, 0x99, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        const uint32_t from[2] = {row.ifIndex, row.address};
        uint32_t found[2] = {77, 78};
        const int32_t result =
            row.ifIndex == 0 ? dhcpSnoopServerIpGetFirst(found) : dhcpSnoopServerIpGetNext(from, found);
        EXPECT_EQ(result, row.found[0] != '\0' ? 0 : -1);
        EXPECT_EQ(world_format("%u %x", found[0], found[1]), row.found[0] != '\0' ? row.found : "77 4e");
    }
    uint32_t pair[2] = {5, 0xA};
    EXPECT_EQ(dhcpSnoopServerIpGetFirst(nullptr), -1);
    EXPECT_EQ(dhcpSnoopServerIpGetNext(nullptr, pair), -1);
    EXPECT_EQ(dhcpSnoopServerIpGetNext(pair, nullptr), -1);

    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
    const uint32_t absent[2] = {5, 0xC}, nowhere[2] = {9, 0xA};
    EXPECT_EQ(dhcpSnoopServerIpGetApi(pair, 1), 0);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(pair, 2), 0x3E80010);
    EXPECT_EQ(dhcpSnoopServerIpGetApi(absent, 1), 0x3E80002);
    EXPECT_EQ(debug_texts(), Lines{});
    EXPECT_EQ(dhcpSnoopServerIpGetApi(nowhere, 2), 0x3E80002);
    EXPECT_EQ(debug_texts(), Lines{"[DHCPSNOOP] Interface is not exist!\r\n"});
    EXPECT_EQ(dhcpSnoopServerIpGetApi(nullptr, 1), 0x3E8001A);
    vlan_->flags &= ~0x80000000;
    port_->serverIp[1] = port_->serverIp[2] = 0;
    EXPECT_EQ(dhcpSnoopServerIpGetFirst(pair), -1);
}

TEST_F(Bindings, LearnedServersAreShown)
{
    {
        Printed out;
        dhcpsnoop_fake_server_show();
        EXPECT_EQ(out.text(), "\n\r");
    }
    dhcpsnoop_server_add(0x0A000A01, 10, 5);
    dhcpsnoop_server_add(0xC0A8FFFE, 4094, 100);
    Printed out;
    dhcpsnoop_fake_server_show();
    EXPECT_EQ(out.text(), "\n\r IpAddr            Vid       Interface   "
                          "\n\r 192.168.255.254   4094      vlan10      "
                          "\n\r 10.0.10.1         10        swp5        "
                          "\n\r");
}

} // namespace
