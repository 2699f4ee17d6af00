// Bindings in hardware and as events: records byte by byte, whose check items count, groups of bindings.
#include "daemon_test.h"

#include <algorithm>

#include "event_message.h"

namespace
{

constexpr uint32_t HOST = ip4(10, 0, 0, 50);
constexpr uint32_t IPSG = 1, DAI = 2;

class Hardware : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        world.access(1, 10);
        world.vlan_interface(110, 10);
        gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
        gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
        user = make_binding(HOST, MAC_CLIENT, 1, 10);
        user->userAttr = 7;
    }

    DhcpsnoopUser *user = nullptr;
};

TEST_F(Hardware, RecordByCheckItemsAndKind)
{
    user->origVid = 11; // told apart from vid here only
    user->ipsgHwId = 0x1111;
    user->daiHwId = 0x2222;
    const Bytes mac = mac_bytes(MAC_CLIENT), none6(6, 0), ip = {10, 0, 0, 50};
    // M, V, P, A: with MAC, VLANs, port, address.
    const auto record = [&](const std::string &items, uint32_t ipsgId, uint8_t rule, uint32_t daiId) {
        const auto has = [&](char item) { return items.find(item) != std::string::npos; };
        return (has('M') ? mac : none6) + host16(has('V') ? 10 : 0) + host32(has('P') ? 1 : 0) + host32(ipsgId) +
               (has('A') ? ip + Bytes(12, 0) : Bytes(16, 0)) + host16(7) + host16(has('V') ? 11 : 0) +
               Bytes{1, rule, static_cast<uint8_t>(has('M') ? 0x30 : 0), static_cast<uint8_t>(has('A') ? 0x20 : 0)} + host32(daiId);
    };
    const struct {
        const char *claim;
        uint8_t items;
        uint32_t kind;
        uint8_t daiStarted;
        Bytes record;
    } rows[] = {
        {"everything, IP source guard", 0xF0, IPSG, 0, record("MVPA", 0x1111, 0x80, 0)},
        {"no item at all", 0x00, IPSG, 1, record("", 0x1111, 0x80, 0)},
        {"IP and port", 0x90, IPSG, 0, record("PA", 0x1111, 0x80, 0)},
        {"MAC", 0x40, IPSG, 0, record("M", 0x1111, 0x80, 0)},
        {"VLAN", 0x20, IPSG, 0, record("V", 0x1111, 0x80, 0)},
        {"ARP inspection", 0xF0, DAI, 1, record("MVPA", 0, 0x40, 0x2222)},
        {"ARP inspection that was not started", 0xF0, DAI, 0, record("MVPA", 0, 0, 0)},
    };
    for (const auto &row : rows) {
        for (const uint32_t add : {1u, 0u}) {
            SCOPED_TRACE(row.claim);
            world.clear();
            gDhcpsnoop.daiStarted = row.daiStarted;
            uint8_t items = row.items;
            debug(2);
            EXPECT_EQ(dhcpsnoop_user_state_notify(user, add, &items, row.kind), 0);
            const auto calls = world.all(Did::Call);
            ASSERT_EQ(calls.size(), 1u);
            EXPECT_EQ(calls[0]->text.substr(0, add == 1 ? 8 : 11), add == 1 ? "hw add 1" : "hw delete 1");
            EXPECT_EQ(hex(calls[0]->data), hex(row.record));
            // Kept: what is printed as check items are the rule flags.
            EXPECT_EQ(debug_texts(), Lines{world_format("[DHCPSNOOP] %s user in hwapi: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip "
                                                        "10.0.0.50, checkitem 0x%x.\r\n",
                                                        add == 1 ? "Add" : "Delete", row.record[37])});
            // Kept: a kind-2 record without ARP inspection carries 0, and so does the binding after an add.
            EXPECT_EQ(user->daiHwId, add == 1 && row.kind == DAI && row.daiStarted == 0 ? 0u : 0x2222u);
            user->daiHwId = 0x2222;
        }
    }

    DhcpsnoopUserKey key6 = {.ipType = 2, .reserved = {}, .ipAddr = {0x20, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9}};
    DhcpsnoopUser *user6 = dhcpsnoop_user_table_add(&key6);
    uint8_t items = 0x80;
    world.clear();
    dhcpsnoop_user_state_notify(user6, 1, &items, IPSG);
    EXPECT_EQ(hex(world.all(Did::Call)[0]->data), hex(Bytes(16, 0) + Bytes(key6.ipAddr, key6.ipAddr + 16) +
                                                      hex_bytes("00 00 00 00 02 80 00 80 00 00 00 00")));
    EXPECT_TRUE(printed("[DHCPSNOOP] Add user in hwapi: port 0 ,vid 0 ,mac 00:00:00:00:00:00 ,ip 2001::9, checkitem 0x80.\r\n"));
}

TEST_F(Hardware, IdentifiersComeBackFromAnAddEvenAFailedOne)
{
    // add, kind, result, ipsgId, daiId
    const std::tuple<uint32_t, uint32_t, int32_t, uint32_t, uint32_t> rows[] = {{1, IPSG, 0, 0x51, 4}, {1, IPSG, 9, 0x51, 4}, {1, DAI, 0, 3, 0x52}, {0, IPSG, 0, 3, 4}, {0, DAI, 0, 3, 4}};
    for (const auto &[add, kind, result, ipsgId, daiId] : rows) {
        SCOPED_TRACE(world_format("add %u kind %u result %d", add, kind, result));
        SetUp();
        gDhcpsnoop.daiStarted = 1;
        user->ipsgHwId = 3;
        user->daiHwId = 4;
        world.newIpsgHwId = 0x51;
        world.newDaiHwId = 0x52;
        if (result != 0)
            world.refuse("hw", result);
        debug(1);
        uint8_t items = 0xF0;
        EXPECT_EQ(dhcpsnoop_user_state_notify(user, add, &items, kind), result);
        EXPECT_EQ(user->ipsgHwId, ipsgId);
        EXPECT_EQ(user->daiHwId, daiId);
        EXPECT_EQ(printed("[DHCPSNOOP] Add user info in hwapi failed!\r\n"), result != 0);
    }
}

TEST_F(Hardware, WhoseCheckItems)
{
    const struct {
        const char *claim;
        std::optional<WorldGuard> port, vlan;
        bool vlanInterface;
        uint8_t source, items; // source 0 = not installed
        size_t questions;
    } rows[] = {
        {"the port's", WorldGuard{.items = 0x90}, WorldGuard{.items = 0x40}, true, 2, 0x90, 2},
        {"the VLAN's when the port has none", std::nullopt, WorldGuard{.items = 0x40}, true, 1, 0x40, 3},
        {"the VLAN's when the port is off", WorldGuard{.enabled = 0, .items = 0x90}, WorldGuard{.items = 0x40}, true, 1, 0x40, 3},
        {"only 1 is on", WorldGuard{.enabled = 2, .items = 0x90}, WorldGuard{.enabled = 3, .items = 0x40}, true, 0, 0, 2},
        {"a failing answer is off", WorldGuard{.enabled = 1, .items = 0x90, .result = 5}, std::nullopt, true, 0, 0, 2},
        {"neither", std::nullopt, std::nullopt, true, 0, 0, 2},
        {"a VLAN without interface is not asked", std::nullopt, WorldGuard{.items = 0x40}, false, 0, 0, 1},
    };
    for (const auto &row : rows) {
        for (const uint32_t kind : {IPSG, DAI}) {
            SCOPED_TRACE(world_format("%s, kind %u", row.claim, kind));
            SetUp();
            gDhcpsnoop.daiStarted = 1;
            auto &guards = kind == IPSG ? world.ipsg : world.dai;
            (kind == IPSG ? gDhcpsnoop.antiArpIfGet : gDhcpsnoop.ipsgIfGet) = nullptr; // the other kind is off
            if (row.port)
                guards[1] = *row.port;
            if (row.vlan)
                guards[110] = *row.vlan;
            if (!row.vlanInterface)
                world.ports.erase(110);
            dhcpsnoop_user_update_hw(user, 1);
            const uint8_t bit = kind == IPSG ? 0x80 : 0x40;
            EXPECT_EQ(user->hwFlags, row.source != 0 ? bit : 0);
            EXPECT_EQ(kind == IPSG ? user->ipsgSource : user->daiSource, row.source);
            EXPECT_EQ(kind == IPSG ? user->ipsgCheckItems : user->daiCheckItems, row.items);
            EXPECT_EQ(kind == IPSG ? user->daiSource : user->ipsgSource, 0);
            // The request goes to the binding's port even when the items are the VLAN's.
            EXPECT_EQ(world.calls("hw add 1").size(), row.source != 0 ? 1u : 0u);
            EXPECT_EQ(world.questions(kind == IPSG ? "ipsg" : "arp").size(), row.questions);
            if (row.vlanInterface && row.source == 1) {
                EXPECT_EQ(world.questions("qorIndexTrans"), Lines{"qorIndexTrans 1,1,1,1,10,3,0 7"});
            }
        }
    }
}

TEST_F(Hardware, InstallAndWithdraw)
{
    world.ipsg[1] = {.items = 0x90};
    world.dai[1] = {.items = 0x40};
    gDhcpsnoop.daiStarted = 1;
    dhcpsnoop_user_update_hw(user, 1);
    ASSERT_EQ(world.calls("hw add").size(), 2u);
    EXPECT_NE(world.calls("hw add")[0].find("rule 80"), std::string::npos); // IP source guard first
    EXPECT_EQ(user->hwFlags, 0xC0);

    // What is installed is not refreshed.
    world.ipsg[1].items = 0x10;
    dhcpsnoop_user_update_hw(user, 1);
    EXPECT_EQ(world.calls("hw add").size(), 2u);
    EXPECT_EQ(user->ipsgCheckItems, 0x90);

    // A refused withdrawal leaves it installed; the other kind is withdrawn all the same.
    world.refuse("hw delete", 1, 1);
    dhcpsnoop_user_update_hw(user, 0);
    EXPECT_EQ(user->hwFlags, 0x80);
    EXPECT_TRUE(user->ipsgCheckItems == 0x90 && user->ipsgSource == 2 && user->daiCheckItems == 0 && user->daiSource == 0);
    dhcpsnoop_user_update_hw(user, 0);
    EXPECT_TRUE(user->hwFlags == 0 && user->ipsgCheckItems == 0 && user->ipsgSource == 0);
    const size_t before = world.calls().size();
    dhcpsnoop_user_update_hw(user, 0);
    EXPECT_EQ(world.calls().size(), before);

    // A binding that is deleted is withdrawn, whichever of the two has it.
    for (const uint8_t installed : {uint8_t{0x40}, uint8_t{0xC0}}) {
        DhcpsnoopUser *other = make_binding(HOST + 1, MAC_CLIENT2, 1, 10);
        other->hwFlags = installed;
        world.clear();
        dhcpsnoop_user_delete(other);
        EXPECT_EQ(world.calls("hw delete 1").size(), installed == 0xC0 ? 2u : 1u);
    }

    // A refused install leaves it not installed.
    world.refuse("hw add", 1, 1);
    dhcpsnoop_user_update_hw(user, 1);
    EXPECT_TRUE(user->hwFlags == 0x40 && user->ipsgCheckItems == 0 && user->ipsgSource == 0);
}

TEST_F(Hardware, Events)
{
    user->gateway = 0;
    memcpy(&user->gateway, hex_bytes("0a 00 00 fe").data(), 4);
    // claim, add, event, word
    const std::tuple<const char *, uint32_t, uint16_t, const char *> rows[] = {
        {"added", 1, 188, "add"}, {"deleted", 0, 189, "delete"}, {"only 1 is an addition", 2, 189, "add"}};
    for (const auto &[claim, add, event, word] : rows) {
        SCOPED_TRACE(claim);
        world.clear();
        debug(1);
        dhcpsnoop_user_notifier(user, add);
        ASSERT_EQ(world.calls(), Lines{"qorNetlinkSend 16 0 72"});
        const Bytes expected = host32(0) + host32(51) + host32(72) + host16(event) + Bytes(10, 0) +
                               mac_bytes(MAC_CLIENT) + host16(10) + host32(1) + Bytes{10, 0, 0, 50} +
                               Bytes(12, 0) + Bytes{10, 0, 0, 254} + Bytes(12, 0) + hex_bytes("00 00 01 00");
        EXPECT_EQ(hex(world.all(Did::Call)[0]->data), hex(expected));
        EXPECT_EQ(debug_texts(), (Lines{world_format("[DHCPSNOOP]  Send notify: event %u\r\n", event),
                                        world_format("[DHCPSNOOP] Notify %s user: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, "
                                                     "gateway 10.0.0.254.\r\n",
                                                     word)}));
    }
    const struct {
        const char *claim;
        void (*change)(DhcpsnoopUser *);
    } silent[] = {
        {"no gateway", [](DhcpsnoopUser *u) { u->gateway = 0; }},
        {"not dynamic", [](DhcpsnoopUser *u) { u->userType = 2; }},
        {"IPv6", [](DhcpsnoopUser *u) { u->key.ipType = 2; }},
    };
    for (const auto &row : silent) {
        SCOPED_TRACE(row.claim);
        const DhcpsnoopUser before = *user;
        row.change(user);
        world.clear();
        dhcpsnoop_user_notifier(user, 1);
        EXPECT_EQ(world.calls(), Lines{});
        *user = before;
    }
}

TEST_F(Hardware, GroupsOnAnInterface)
{
    // Who is taken of: dynamic on port 1 in VLAN 10 (a), static there (b), dynamic on port 2 in VLAN 10 (c),
    // IPv6 on port 1 in VLAN 20 (d), IP source guard on port 1 (e).
    const struct {
        const char *claim;
        uint32_t ifIndex; // 0 = every binding
        uint32_t ipTypes, userTypes;
        const char *taken;
    } rows[] = {
        {"a port, dynamic IPv4", 1, 1, 1, "a"},
        {"a port, static IPv4", 1, 1, 2, "b"},
        {"a port, both", 1, 3, 3, "abd"},
        {"IP source guard entries only when asked for", 1, 3, 7, "abde"},
        {"a VLAN interface, by VLAN", 110, 3, 3, "abc"},
        {"no interface: all", 0, 3, 3, "abcd"},
        {"IPv6", 0, 2, 3, "d"},
        {"no type at all", 0, 0, 3, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.reset();
        world.access(1, 10);
        world.vlan_interface(110, 10);
        snoop(1);
        snoop(110);
        const std::tuple<char, uint8_t, uint8_t, uint32_t, uint16_t> bindings[] = {{'a', 1, 1, 1, 10}, {'b', 1, 2, 1, 10}, {'c', 1, 1, 2, 10}, {'d', 2, 1, 1, 20}, {'e', 1, 4, 1, 10}};
        for (const auto &[name, ipType, userType, ifIndex, vid] : bindings) {
            DhcpsnoopUserKey key = key4(HOST + static_cast<uint32_t>(name));
            key.ipType = ipType;
            DhcpsnoopUser *made = make_binding(key, {static_cast<uint8_t>(name)}, ifIndex, vid);
            made->userType = userType;
            made->hwFlags = 0x80;
            made->ipsgCheckItems = 0x40;
        }
        debug(2);
        dhcpsnoop_user_process_on_interface(dhcpsnoop_if_lookup(row.ifIndex), row.ipTypes, row.userTypes, 0);
        std::string taken;
        for (const WorldEntry *entry : world.all(Did::Call))
            taken += static_cast<char>(entry->data[0]);
        std::sort(taken.begin(), taken.end());
        EXPECT_EQ(taken, row.taken);
        EXPECT_EQ(debug_texts()[0], world_format("[DHCPSNOOP] Process user on interface %u, inet type %u, user type = %u, operate 0.\r\n",
                                                 row.ifIndex, row.ipTypes, row.userTypes));
        EXPECT_EQ(count_bindings(), 5u);
        dhcpsnoop_user_process_on_interface(dhcpsnoop_if_lookup(row.ifIndex), row.ipTypes, row.userTypes, 2);
        EXPECT_EQ(count_bindings(), 5u - taken.size());
    }
}

TEST_F(Hardware, GroupsOnATrunk)
{
    world.ipsg[1] = {.items = 0x80};
    world.ipsg[8] = {.items = 0x40};
    debug(1);
    // Kept: what the trunk has installed is not installed again for a member, and is withdrawn for one that
    // leaves.
    dhcpsnoop_user_process_on_trunk(1, 8, 1);
    EXPECT_EQ(world.calls("hw add 8").size(), 1u); // not installed on the trunk: the member is
    EXPECT_TRUE(user->hwFlags == 0 && user->ifIndex == 1);
    EXPECT_TRUE(printed("[DHCPSNOOP] Process user on trunk interface 1, port 8, operate 1.\r\n"));
    dhcpsnoop_user_update_hw(user, 1);
    world.clear();
    dhcpsnoop_user_process_on_trunk(1, 8, 1);
    EXPECT_EQ(world.calls(), Lines{});
    dhcpsnoop_user_process_on_trunk(1, 8, 0);
    EXPECT_EQ(world.calls("hw delete 8").size(), 1u);
    EXPECT_TRUE(user->hwFlags == 0x80 && user->ipsgCheckItems == 0x80);
    dhcpsnoop_user_process_on_trunk(2, 8, 0);
    EXPECT_EQ(world.calls().size(), 1u); // another trunk
    dhcpsnoop_user_process_on_trunk(0, 9, 0);
    EXPECT_EQ(world.calls("hw delete 9").size(), 1u); // 0 is every binding
    dhcpsnoop_user_process_on_trunk(1, 8, 2);
    EXPECT_EQ(count_bindings(), 0u);
}

} // namespace
