// The binding table and the MAC-user table.
#include "daemon_test.h"

namespace
{

constexpr uint32_t HOST = ip4(10, 0, 0, 50);

class User : public Daemon
{
  protected:
    void SetUp() override { set_up(0); }

    void set_up(uint16_t userMax)
    {
        world.reset(0, userMax);
        world.access(1, 10);
        world.access(2, 10);
        world.vlan_interface(110, 10);
        port = snoop(1);
    }

    // A client's request for an address, learned directly.
    static int32_t learn(uint32_t address, const Mac &mac, const Arrival &arrival = {})
    {
        Parsed parsed(Frame{.src = mac, .chaddr = mac, .options = opt_type(3) + opt_ip(54, ip4(10, 0, 0, 1)) + opt(60, hex_bytes("01 04 00 00 00 63")) + OPT_END}, arrival);
        parsed.info.rxTime = static_cast<uint32_t>(world.now);
        const DhcpsnoopUserKey key = key4(address);
        return dhcpsnoop_user_add(&key, dhcpsnoop_user_lookup(&key), &parsed.info);
    }

    static DhcpsnoopUser *acknowledge(uint32_t address, const Bytes &options)
    {
        Parsed parsed(Frame{.op = 2, .yiaddr = address, .options = opt_type(5) + options + OPT_END}, {.port = 1});
        parsed.info.rxTime = static_cast<uint32_t>(world.now);
        uint8_t data[2][256] = {};
        QorBuffer option125 = {data[0], 256}, bootFile = {data[1], 256};
        return dhcpsnoop_user_update(&parsed.info, &option125, &bootFile);
    }

    DhcpsnoopIf *port = nullptr;
};

TEST_F(User, KeysAndBuckets)
{
    DhcpsnoopUserKey a = key4(ip4(10, 0, 0, 1)), b = key4(ip4(1, 0, 0, 10)), six = a;
    six.ipType = DHCPSNOOP_IPV6;
    six.ipAddr[15] = 0;
    const DhcpsnoopUserKey high = key4(0xFFFFFFFF), most = key6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    for (const auto &[key, bucket] : {std::pair<const DhcpsnoopUserKey *, uint32_t>{&a, 11u}, {&b, 11u}, {&six, 11u}, {&high, 1020u % 63}, {&most, 4080u % 63}})
        EXPECT_EQ(dhcpsnoop_user_hash_key(key), bucket);

    // Same bucket, same first bytes: three entries, each found.
    DhcpsnoopUser *users[] = {dhcpsnoop_user_table_add(&a), dhcpsnoop_user_table_add(&b), dhcpsnoop_user_table_add(&six)};
    EXPECT_EQ(dhcpsnoop_user_lookup(&a), users[0]);
    EXPECT_EQ(dhcpsnoop_user_lookup(&b), users[1]);
    EXPECT_EQ(dhcpsnoop_user_lookup(&six), users[2]);
    six.ipAddr[15] = 1;
    EXPECT_EQ(dhcpsnoop_user_lookup(&six), nullptr); // 16 bytes are compared
    a.ipAddr[15] = 1;
    EXPECT_EQ(dhcpsnoop_user_lookup(&a), users[0]); // 4 bytes are compared
    EXPECT_EQ(dhcpsnoop_user_lookup(nullptr), nullptr);
    EXPECT_EQ(dhcpsnoop_user_table_add(nullptr), nullptr);
    // The newest stands first in its bucket.
    EXPECT_EQ(gDhcpsnoop.userHash[11].next, users[2]);
}

TEST_F(User, EntryIsZeroedButForItsKey)
{
    DhcpsnoopUserKey key = key4(HOST);
    key.reserved[1] = 7;
    DhcpsnoopUser *user = dhcpsnoop_user_table_add(&key);
    memset(static_cast<void *>(user->mac), 0xAA, 6);
    user->serverId = user->daiHwId = user->gateway = 9;
    dhcpsnoop_user_delete(user);
    ASSERT_EQ(dhcpsnoop_user_table_add(&key), user); // the node freed last is taken first
    EXPECT_EQ(memcmp(&user->key, &key, sizeof key), 0);
    EXPECT_EQ(world_hex(user->mac, 6), "00 00 00 00 00 00");
    EXPECT_TRUE(user->serverId == 0 && user->daiHwId == 0 && user->gateway == 0 && user->userType == 0);
}

TEST_F(User, Learning)
{
    debug(1);
    world.ports[1].name = std::string(70, 'n'); // a description longer than its room
    EXPECT_EQ(learn(HOST, MAC_CLIENT), 0);
    const DhcpsnoopUser *user = binding(HOST);
    ASSERT_NE(user, nullptr);
    EXPECT_TRUE(user->vid == 10 && user->origVid == 10 && user->ifIndex == 1 && user->macMark == 0x30);
    EXPECT_TRUE(user->leaseTime == 60 && user->leaseStart == static_cast<uint32_t>(world.now) && user->userType == 1 && user->bindState == 4);
    EXPECT_EQ(world_hex(user->mac, 6), "02 c1 00 00 00 01");
    EXPECT_TRUE(user->vendorTag == 99 && user->serverId == ip4(10, 0, 0, 1));
    EXPECT_EQ(user->hwFlags, 0);
    EXPECT_EQ(port->curUser, 1);
    EXPECT_EQ(world.texts(Did::Log),
              Lines{"7 1 [DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.0.50, mac 02:c1:00:00:00:01, interface " + std::string(63, 'n') + ", vlan 10, leasetime 60.\r\n"});
    EXPECT_TRUE(printed("[DHCPSNOOP] User information: interface 1, vid 10, mac 02:c1:00:00:00:01, ip 10.0.0.50.\r\n"));
    EXPECT_EQ(world.questions("nmGetIfPartDescr"), Lines{"nmGetIfPartDescr 1 63"});
    EXPECT_EQ(world.calls(), Lines{}); // nothing is installed or announced yet

    EXPECT_EQ(dhcpsnoop_user_add(nullptr, nullptr, nullptr), 0);
    const DhcpsnoopUserKey key = key4(HOST + 1);
    EXPECT_EQ(dhcpsnoop_user_add(&key, nullptr, nullptr), -1);
    Parsed parsed(Frame{});
    parsed.info.chaddr = nullptr;
    EXPECT_EQ(dhcpsnoop_user_add(&key, nullptr, &parsed.info), -1);
    EXPECT_EQ(count_bindings(), 1u);
}

TEST_F(User, PlaceTrustAndCounts)
{
    constexpr uint32_t T = DHCPSNOOP_IF_TRUSTED;
    const struct {
        const char *claim;
        uint32_t portFlags, vlanFlags;
        bool onVlanIf;
        Arrival arrival;
        const char *place; // "" = not recorded
        uint16_t portCount, vlanCount;
    } rows[] = {
        {"on a port", 0, 0, false, {.outer = 10}, "if 1 vid 10", 1, 1},
        {"in a VLAN without VLAN interface", 0, 0, false, {.outer = 20}, "if 1 vid 20", 1, 0},
        {"on a trusted port", T, 0, false, {.outer = 10}, "", 0, 0},
        {"the VLAN's trust does not count", 0, T, false, {.outer = 10}, "if 1 vid 10", 1, 1},
        {"on a VLAN interface, from a port without entry", 0, 0, true, {.port = 2, .outer = 20, .inIf = 110}, "if 2 vid 10", 0, 1},
        {"on a trusted VLAN interface", 0, T, true, {.port = 2, .outer = 20, .inIf = 110}, "if 2 vid 10", 0, 1},
        {"on a VLAN interface, from a port with one", 0, 0, true, {.port = 1, .outer = 20, .inIf = 110}, "if 1 vid 10", 1, 1},
        {"on a VLAN interface, from a trusted port", T, 0, true, {.port = 1, .outer = 20, .inIf = 110}, "", 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        SetUp();
        DhcpsnoopIf *vlan = snoop(110, row.vlanFlags);
        port->flags |= row.portFlags;
        debug(1);
        EXPECT_EQ(learn(HOST, MAC_CLIENT, row.arrival), 0);
        const DhcpsnoopUser *user = binding(HOST);
        EXPECT_EQ(user == nullptr ? "" : world_format("if %u vid %u", user->ifIndex, user->vid), row.place);
        EXPECT_EQ(port->curUser, row.portCount);
        EXPECT_EQ(vlan->curUser, row.vlanCount);
        EXPECT_EQ(printed("[DHCPSNOOP] Received Boot-Request message on trust port, don't record user entry!\r\n"), user == nullptr);
        dhcpsnoop_user_delete(binding(HOST));
        EXPECT_TRUE(port->curUser == 0 && vlan->curUser == 0);

        // A MAC user is made in the same place, whatever trust and limits say.
        port->maxUser = 0;
        Parsed parsed(Frame{}, row.arrival);
        const DhcpsnoopMacUser *waiting = dhcpsnoop_mac_user_add(&parsed.info);
        ASSERT_NE(waiting, nullptr);
        const std::string place = world_format("if %u vid %u", waiting->ifIndex, waiting->vid);
        if (*row.place != '\0') {
            EXPECT_EQ(place, row.place);
        }
        EXPECT_TRUE(port->curUser == 0 && vlan->curUser == 0);
    }
}

TEST_F(User, KnownClientAsksAgain)
{
    const char *CHANGED = "User information is changed, delete it!", *FIXED = "Static user is already exist, return!";
    // claim, userType, mac, arrival, refreshed, replaced, text
    const std::tuple<const char *, uint8_t, Mac, Arrival, bool, bool, const char *> rows[] = {
        {"nothing changed", 1, MAC_CLIENT, {}, true, false, "User entry is already exist!"},
        {"another MAC", 1, MAC_CLIENT2, {}, false, true, CHANGED},
        {"another VLAN", 1, MAC_CLIENT, {.outer = 20}, false, true, CHANGED},
        {"another port", 1, MAC_CLIENT, {.port = 2}, false, true, CHANGED},
        {"a static entry is never displaced", 2, MAC_CLIENT2, {}, false, false, FIXED},
        {"nor an IP source guard entry", 4, MAC_CLIENT2, {}, false, false, FIXED},
    };
    for (const auto &[claim, userType, mac, arrival, refreshed, replaced, text] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        snoop(2);
        DhcpsnoopUser *user = make_binding(HOST, MAC_CLIENT, 1, 10);
        user->userType = userType;
        const uint32_t before = user->leaseStart;
        world.now += 100;
        debug(1);
        EXPECT_EQ(learn(HOST, mac, arrival), 0);
        EXPECT_TRUE(printed(std::string("[DHCPSNOOP] ") + text + "\r\n"));
        user = binding(HOST);
        ASSERT_NE(user, nullptr);
        EXPECT_EQ(user->leaseTime, replaced ? 60u : 3600u);
        EXPECT_EQ(user->bindState, replaced ? 4 : 1);
        EXPECT_EQ(user->leaseStart, before + (refreshed || replaced ? 100 : 0));
        EXPECT_EQ(world.texts(Did::Log).size(), replaced ? 2u : 0u);
        EXPECT_EQ(world_check_tables(userType == 1), "");
    }
}

TEST_F(User, Limits)
{
    debug(1);
    port->maxUser = 2;
    EXPECT_EQ(learn(HOST, MAC_CLIENT), 0);
    EXPECT_EQ(learn(HOST + 1, MAC_CLIENT), 0);
    EXPECT_FALSE(printed("[DHCPSNOOP] Number of users on the interface exceeds the limit!\r\n"));
    EXPECT_EQ(learn(HOST + 2, MAC_CLIENT), -1);
    EXPECT_TRUE(printed("[DHCPSNOOP] Number of users on the interface exceeds the limit!\r\n"));
    EXPECT_EQ(learn(HOST, MAC_CLIENT), 0);  // a repeated request
    EXPECT_EQ(learn(HOST, MAC_CLIENT2), 0); // a changed one: its old entry makes room
    EXPECT_EQ(port->curUser, 2);

    // The VLAN has a limit of its own; a port without entry has none.
    DhcpsnoopIf *vlan = snoop(110);
    vlan->maxUser = 1;
    EXPECT_EQ(learn(HOST + 3, MAC_CLIENT, {.port = 2, .inIf = 110}), 0);
    EXPECT_EQ(learn(HOST + 4, MAC_CLIENT, {.port = 2, .inIf = 110}), -1);
    port->maxUser = 5;
    EXPECT_EQ(learn(HOST + 4, MAC_CLIENT), -1);
    EXPECT_EQ(learn(HOST + 4, MAC_CLIENT, {.outer = 20}), 0);
    EXPECT_EQ(count_bindings(), 4u);

    // Kept: a changed entry is gone before the limit is looked at.
    vlan->maxUser = 0;
    EXPECT_EQ(learn(HOST + 4, MAC_CLIENT2), -1);
    EXPECT_EQ(binding(HOST + 4), nullptr);
}

TEST_F(User, PoolIsSharedWithMacUsers)
{
    set_up(2);
    debug(1);
    const Parsed parsed(Frame{});
    ASSERT_EQ(learn(HOST, MAC_CLIENT), 0);
    dhcpsnoop_user_delete(binding(HOST));
    DhcpsnoopMacUser *waiting = dhcpsnoop_mac_user_add(&parsed.info); // in the node of that binding
    const Bytes rest(sizeof(DhcpsnoopUser) - sizeof *waiting);
    EXPECT_EQ(Bytes(reinterpret_cast<uint8_t *>(waiting + 1), reinterpret_cast<uint8_t *>(waiting) + sizeof(DhcpsnoopUser)), rest);
    EXPECT_EQ(learn(HOST, MAC_CLIENT), 0);
    EXPECT_EQ(learn(HOST + 1, MAC_CLIENT), -1);
    EXPECT_EQ(debug_texts().back(), "[DHCPSNOOP] Can't allocate memory for user entry!\r\n");
    EXPECT_EQ(port->curUser, 1);
    EXPECT_EQ(dhcpsnoop_mac_user_add(&parsed.info), nullptr);
    EXPECT_EQ(debug_texts().back(), "[DHCPSNOOP] Can't allocate memory for mac user entry!\r\n");
    dhcpsnoop_mac_user_delete(waiting);
    EXPECT_EQ(learn(HOST + 1, MAC_CLIENT), 0);
}

TEST_F(User, AcknowledgementBinds)
{
    gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback;
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    world.ipsg[1] = {.items = 0x80};
    learn(HOST, MAC_CLIENT);
    world.now += 5;
    world.clear();
    debug(1);
    DhcpsnoopUser *user = acknowledge(HOST, opt_lease(7200) + opt_ip(3, ip4(10, 0, 0, 254)));
    ASSERT_EQ(user, binding(HOST));
    EXPECT_EQ(user->leaseTime, 7200u);
    EXPECT_EQ(user->leaseStart, static_cast<uint32_t>(world.now));
    EXPECT_EQ(user->bindState, 1);
    EXPECT_EQ(world_hex(reinterpret_cast<const uint8_t *>(&user->gateway), 4), "0a 00 00 fe"); // network order
    const Lines calls = world.calls();
    ASSERT_EQ(calls.size(), 3u); // announced, handed to the hook, installed: in this order
    EXPECT_EQ(calls[0], "qorNetlinkSend 16 0 72");
    EXPECT_EQ(calls[1], "deftinstall ip 0a000032 tag 00000063 mac 02 c1 00 00 00 01 one 1 add 1, 256 256");
    EXPECT_EQ(calls[2].substr(0, 8), "hw add 1");
    EXPECT_EQ(hex(world.all(Did::Call)[1]->data), hex(Bytes(12, 0)));
    EXPECT_TRUE(printed("[DHCPSNOOP] User entry is already exist, update the entry information.\r\n"));

    // Deleted again: withdrawn, announced, the hook told only whose it was.
    world.clear();
    debug(1);
    dhcpsnoop_user_delete(user);
    ASSERT_EQ(world.calls().size(), 3u);
    EXPECT_EQ(world.calls()[0].substr(0, 11), "hw delete 1");
    EXPECT_EQ(world.calls()[1], "qorNetlinkSend 16 0 72");
    EXPECT_EQ(world.calls()[2], "deftinstall ip 00000000 tag 00000000 mac 02 c1 00 00 00 01 one 0 add 0, null null");
    EXPECT_EQ(world.texts(Did::Log), Lines{"7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50\r\n"});
    EXPECT_TRUE(printed("[DHCPSNOOP] Delete the user entry: ip is 10.0.0.50.\r\n"));
}

TEST_F(User, AcknowledgementOfWhat)
{
    const char *UPDATED = "User entry is already exist, update the entry information.", *FIXED = "There is a static entry with the same ip address!";
    // claim, acknowledged, userType, options, updated, leaseTime, bindState, announced, text
    const std::tuple<const char *, uint32_t, uint8_t, Bytes, bool, uint32_t, uint8_t, bool, const char *> rows[] = {
        {"no lease option: the provisional lease stays", HOST, 1, {}, true, 60, 4, false, UPDATED},
        {"a lease of 0 is none", HOST, 1, opt_lease(0), true, 60, 4, false, UPDATED},
        {"an endless lease", HOST, 1, opt_lease(0xFFFFFFFF), true, 0xFFFFFFFF, 1, false, UPDATED},
        {"a router alone", HOST, 1, opt_ip(3, 9), true, 60, 4, true, UPDATED},
        {"no address", 0, 1, opt_lease(9), false, 60, 4, false, "Client ip address is zero,return!"},
        {"an address that nobody asked for creates nothing", HOST + 1, 1, opt_lease(9), false, 60, 4, false, "User entry 10.0.0.51 isn't exist!"},
        {"a static entry is not changed", HOST, 2, opt_lease(9) + opt_ip(3, 9), false, 60, 4, false, FIXED},
        {"an IP source guard entry is not changed", HOST, 4, opt_lease(9), false, 60, 4, false, FIXED},
    };
    for (const auto &[claim, acknowledged, userType, options, updated, leaseTime, bindState, announced, text] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        learn(HOST, MAC_CLIENT);
        DhcpsnoopUser *user = binding(HOST);
        user->userType = userType;
        const uint32_t start = user->leaseStart;
        world.now += 50;
        world.clear();
        debug(1);
        EXPECT_EQ(acknowledge(acknowledged, options), updated ? user : nullptr);
        EXPECT_EQ(user->leaseTime, leaseTime);
        EXPECT_EQ(user->bindState, bindState);
        EXPECT_EQ(user->leaseStart != start, bindState == 1);
        EXPECT_EQ(user->gateway != 0, announced);
        EXPECT_EQ(world.calls("qorNetlinkSend").size(), announced ? 1u : 0u);
        EXPECT_TRUE(printed(std::string("[DHCPSNOOP] ") + text + "\r\n"));
        EXPECT_EQ(count_bindings(), 1u);
    }
    EXPECT_EQ(dhcpsnoop_user_update(nullptr, nullptr, nullptr), nullptr);
}

TEST_F(User, DeletionOfWhat)
{
    gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback;
    const struct {
        const char *claim;
        uint8_t ipType, userType, hwFlags;
        uint32_t gateway;
        const char *word;
        bool announced, counted;
    } rows[] = {
        {"dynamic with gateway", 1, 1, 0, 9, "dynamic", true, true},
        {"dynamic without gateway", 1, 1, 0, 0, "dynamic", false, true},
        {"IPv6", 2, 1, 0, 9, "dynamic", false, true},
        {"static", 1, 2, 0, 9, "static", false, false},
        {"IP source guard", 1, 4, 0, 9, "other", false, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        SetUp();
        gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback;
        DhcpsnoopIf *vlan = snoop(110);
        DhcpsnoopUserKey key = key4(HOST);
        key.ipType = row.ipType;
        DhcpsnoopUser *user = dhcpsnoop_user_table_add(&key);
        user->userType = row.userType;
        user->gateway = row.gateway;
        user->ifIndex = 1;
        user->vid = 10;
        port->curUser = vlan->curUser = 3;
        dhcpsnoop_user_delete(user);
        EXPECT_EQ(count_bindings(), 0u);
        const char *address = row.ipType == 1 ? "10.0.0.50" : "a00:32::";
        EXPECT_EQ(world.texts(Did::Log), Lines{world_format("7 1 [DHCPSNOOP] Delete %s dhcpsnoop entry: ip %s\r\n", row.word, address)});
        EXPECT_EQ(world.calls("qorNetlinkSend").size(), row.announced ? 1u : 0u);
        EXPECT_EQ(world.calls("deftinstall").size(), row.announced ? 1u : 0u);
        EXPECT_EQ(port->curUser, row.counted ? 2 : 3);
        EXPECT_EQ(vlan->curUser, row.counted ? 2 : 3);
    }
    // A count of 0 stays, an absent interface is no fault.
    SetUp();
    DhcpsnoopUser *user = make_binding(HOST, MAC_CLIENT, 1, 10);
    port->curUser = 0;
    dhcpsnoop_user_delete(user);
    EXPECT_EQ(port->curUser, 0);
    dhcpsnoop_user_delete(make_binding(HOST, MAC_CLIENT, 77, 10));
    dhcpsnoop_user_delete(nullptr);
}

TEST_F(User, Query)
{
    DhcpsnoopUser *user = make_binding(HOST, MAC_CLIENT, 1, 10);
    make_binding(HOST + 1, MAC_CLIENT2, 2, 20);
    const DhcpsnoopUserQuery right = {.ipAddr = {10, 0, 0, 50}, .ifIndex = 1, .mac = {2, 0xC1, 0, 0, 0, 1}, .vid = 10, .ipType = 1, .mask = 0xF0};
    // claim, change, without (the mask that does not ask for it)
    const std::tuple<const char *, void (*)(DhcpsnoopUserQuery &), uint32_t> rows[] = {
        {"another address", [](DhcpsnoopUserQuery &q) { q.ipAddr[3] = 9; }, 0x70},
        {"16 bytes of the address count", [](DhcpsnoopUserQuery &q) { q.ipAddr[15] = 1; }, 0x70},
        {"another type", [](DhcpsnoopUserQuery &q) { q.ipType = 2; }, 0x70},
        {"another MAC", [](DhcpsnoopUserQuery &q) { q.mac[0] = 9; }, 0xB0},
        {"another VLAN", [](DhcpsnoopUserQuery &q) { q.vid = 20; }, 0xD0},
        {"another port", [](DhcpsnoopUserQuery &q) { q.ifIndex = 2; }, 0xE0},
        {"nothing that is there", [](DhcpsnoopUserQuery &q) { q = {}, q.mask = 0xF0; }, 0},
    };
    for (const auto &[claim, change, without] : rows) {
        SCOPED_TRACE(claim);
        DhcpsnoopUserQuery query = right;
        EXPECT_EQ(dhcpsnoop_user_get(&query), 0);
        change(query);
        EXPECT_EQ(dhcpsnoop_user_get(&query), -1);
        query.mask = static_cast<decltype(query.mask)>(without);
        EXPECT_EQ(dhcpsnoop_user_get(&query), 0);
    }
    DhcpsnoopUserQuery otherPort = {};
    otherPort.ifIndex = 2, otherPort.mask = 0x10;
    EXPECT_EQ(dhcpsnoop_user_get(&otherPort), 0);
    dhcpsnoop_user_delete(user);
    dhcpsnoop_user_delete(binding(HOST + 1));
    const DhcpsnoopUserQuery any = {};
    EXPECT_EQ(dhcpsnoop_user_get(&any), -1);
    EXPECT_EQ(dhcpsnoop_user_get(nullptr), -1);
}

TEST_F(User, MacUsers)
{
    const Mac a = {0, 0, 0, 0, 1, 2}, b = {0, 0, 0, 0, 2, 1}, high = {255, 255, 255, 255, 255, 255};
    EXPECT_EQ(dhcpsnoop_mac_user_hash(a.data()), 3u);
    EXPECT_EQ(dhcpsnoop_mac_user_hash(b.data()), 3u);
    EXPECT_EQ(dhcpsnoop_mac_user_hash(high.data()), 1530u % 63);
    Parsed first(Frame{.chaddr = a, .options = opt_type(3) + opt_ip(54, 77) + OPT_END}),
        second(Frame{.chaddr = b});
    first.info.rxTime = 1234;
    DhcpsnoopMacUser *one = dhcpsnoop_mac_user_add(&first.info), *two = dhcpsnoop_mac_user_add(&second.info);
    EXPECT_TRUE(one->ageTime == 120 && one->seenTime == 1234 && one->serverId == 77 && one->ifIndex == 1 && one->vid == 10);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(a.data()), one);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(b.data()), two);
    // Duplicates are the caller's affair; the newest is found.
    DhcpsnoopMacUser *again = dhcpsnoop_mac_user_add(&first.info);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(a.data()), again);
    dhcpsnoop_mac_user_delete(again);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(a.data()), one);
    EXPECT_EQ(gDhcpsnoop.userFreeList.next, again);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(high.data()), nullptr);
    const Mac lastByte = {0, 0, 0, 0, 1, 2 + 63}; // the same bucket, five equal bytes
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(lastByte.data()), nullptr);
    EXPECT_EQ(dhcpsnoop_mac_user_lookup(nullptr), nullptr);
    EXPECT_EQ(dhcpsnoop_mac_user_add(nullptr), nullptr);
    first.info.chaddr = nullptr;
    EXPECT_EQ(dhcpsnoop_mac_user_add(&first.info), nullptr);
    dhcpsnoop_mac_user_delete(nullptr);
    EXPECT_EQ(world.texts(Did::Log), Lines{});
}

} // namespace
