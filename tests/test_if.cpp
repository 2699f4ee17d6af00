// The interface table: order, capacity, switching on and off, versions and the hardware trap.
#include "daemon_test.h"

namespace
{

class Interface : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset(3);
        for (const uint32_t ifIndex : {10u, 20u, 30u, 40u})
            world.access(ifIndex, 10);
    }

    static std::vector<uint32_t> indexes()
    {
        std::vector<uint32_t> found;
        for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList))
            found.push_back(ifp->ifIndex);
        return found;
    }
};

using Indexes = std::vector<uint32_t>;

TEST_F(Interface, ListIsSortedAndEqualIndexesKeepTheirOrder)
{
    dhcpsnoop_if_add(30);
    DhcpsnoopIf *first = dhcpsnoop_if_add(10);
    dhcpsnoop_if_add(10);
    EXPECT_EQ(indexes(), (Indexes{10, 10, 30}));
    EXPECT_EQ(dhcpsnoop_if_lookup(10), first);
    dhcpsnoop_if_delete(first);
    dhcpsnoop_if_add(20);
    EXPECT_EQ(indexes(), (Indexes{10, 20, 30}));
    EXPECT_EQ(dhcpsnoop_if_lookup(11), nullptr);
}

TEST_F(Interface, FullTableRefuses)
{
    for (const uint32_t ifIndex : {30u, 10u, 20u})
        ASSERT_EQ(dhcpsnoop_if_enable(ifIndex), 0u);
    world.clear();
    const std::string before = world_state();
    for (const int flags : {0, 1, 2}) {
        debug(flags);
        EXPECT_EQ(dhcpsnoop_if_enable(40), 12u);
        EXPECT_EQ(printed("[DHCPSNOOP] Failed to allocate memory for interface 40.\r\n"), flags == 1);
        world.clear();
    }
    debug(0);
    EXPECT_EQ(world.calls(), Lines{});
    EXPECT_EQ(world_state(), before);
}

TEST_F(Interface, EntryIsZeroedWhenTakenAgain)
{
    DhcpsnoopIf *ifp = dhcpsnoop_if_add(10);
    memset(ifp->circuitId, 0xAA, sizeof ifp->circuitId);
    ifp->relayAddr = ifp->serverIp[2] = ifp->counters[2] = ifp->remoteIdType = 9;
    ifp->flags = 0xFFFFFFFF;
    dhcpsnoop_if_delete(ifp);
    dhcpsnoop_if_delete(nullptr);
    ASSERT_EQ(dhcpsnoop_if_add(10), ifp); // the head of the free list is taken
    EXPECT_EQ(Bytes(ifp->circuitId, ifp->circuitId + 128), Bytes(128, 0));
    EXPECT_TRUE(ifp->relayAddr == 0 && ifp->serverIp[2] == 0 && ifp->counters[2] == 0 && ifp->remoteIdType == 0 && ifp->flags == 0);
}

TEST_F(Interface, EnableAsksThePlatform)
{
    const char *const MAC = "02 00 00 00 01 0a";
    // claim, change, MAC, router, vlanIf, vid, the mode that is told
    const std::tuple<const char *, void (*)(WorldPort &), const char *, bool, bool, uint32_t, const char *> rows[] = {
        {"a port in bridge mode", [](WorldPort &) {}, MAC, false, false, 0, "bridge"},
        {"in router mode", [](WorldPort &p) { p.workMode = 1; }, MAC, true, false, 0, "router"},
        {"a mode word of 2 is called router, but the bit is clear", [](WorldPort &p) { p.workMode = 2; }, MAC, false, false, 0, "router"},
        {"a VLAN interface", [](WorldPort &p) { p.isVlanIf = true, p.vid = 4094; }, MAC, false, true, 4094, "bridge"},
        {"only 12 bits of its VLAN are taken", [](WorldPort &p) { p.isVlanIf = true, p.vid = 0xF00A; }, MAC, false, true, 10, "bridge"},
        {"nothing answered: bridge mode, no VLAN interface, MAC zero", [](WorldPort &p) { p.isVlanIf = true, p.workMode = 1, p.silent = {33, 193, 417, 5400}; }, "00 00 00 00 00 00", false, false, 0, "bridge"},
        {"a VLAN interface whose VLAN is not answered", [](WorldPort &p) { p.isVlanIf = true, p.silent = {5400}; }, MAC, false, true, 0, "bridge"},
    };
    for (const auto &[claim, change, mac, router, vlanIf, vid, text] : rows) {
        SCOPED_TRACE(claim);
        world.reset();
        change(world.access(10, 10));
        debug(1);
        ASSERT_EQ(dhcpsnoop_if_enable(10), 0u);
        EXPECT_EQ(debug_texts()[1], world_format("[DHCPSNOOP] Dhcpsnoop interface work mode %s.\r\n", text));
        EXPECT_EQ(world.calls(), Lines{"qorIfSetApi 10 305 23"}); // DHCPv4 is trapped, DHCPv6 not
        const DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(10);
        ASSERT_NE(ifp, nullptr);
        // In use, IPv4, policy 2 (keep), not trusted; router mode and VLAN as answered.
        EXPECT_EQ(ifp->flags, 0x80000000 | 1u << 23 | 2u << 21 | vid << 2 | (router ? 2u : 0u));
        EXPECT_EQ(ifp->isVlanIf, vlanIf ? 1 : 0);
        EXPECT_EQ(world_hex(ifp->mac, 6), mac);
        EXPECT_TRUE(ifp->setting21 == 100 && ifp->maxUser == 32768 && ifp->curUser == 0);
    }
}

TEST_F(Interface, RefusedTrapUndoesEnabling)
{
    const std::string before = world_state();
    world.refuse("qorIfSetApi 10 305 23", 55);
    make_binding(ip4(10, 0, 0, 1), MAC_CLIENT, 10, 10);
    EXPECT_EQ(dhcpsnoop_if_enable(10), 55u); // the trap's result, not that of the undoing
    EXPECT_EQ(dhcpsnoop_if_lookup(10), nullptr);
    EXPECT_EQ(world.calls(), Lines{"qorIfSetApi 10 305 23"}); // no version yet: nothing to delete
    EXPECT_NE(binding(ip4(10, 0, 0, 1)), nullptr);
    dhcpsnoop_user_delete(binding(ip4(10, 0, 0, 1)));
    EXPECT_EQ(world_state(), before);
}

TEST_F(Interface, DisableDeletesDynamicBindingsAndWithdrawsStaticOnes)
{
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    world.ipsg[10] = {.items = 0x80};
    DhcpsnoopIf *ifp = snoop(10);
    make_binding(ip4(10, 0, 0, 1), MAC_CLIENT, 10, 10);
    make_binding(ip4(10, 0, 0, 2), MAC_CLIENT2, 20, 10); // on another port
    DhcpsnoopUser *fixed = make_binding(ip4(10, 0, 0, 3), MAC_CLIENT2, 10, 10);
    fixed->userType = DHCPSNOOP_USER_STATIC;
    dhcpsnoop_user_update_hw(fixed, 1);
    EXPECT_EQ(fixed->hwFlags, 0x80);
    world.refuse("qorIfSetApi 10 306", 9);
    world.clear();
    EXPECT_EQ(dhcpsnoop_if_disable(ifp), 0u);
    EXPECT_EQ(dhcpsnoop_if_disable(nullptr), 0u);
    EXPECT_EQ(binding(ip4(10, 0, 0, 1)), nullptr);
    EXPECT_NE(binding(ip4(10, 0, 0, 2)), nullptr);
    EXPECT_NE(binding(ip4(10, 0, 0, 3)), nullptr);
    EXPECT_EQ(fixed->hwFlags, 0);
    const Lines calls = world.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0], "qorIfSetApi 10 306 23");
    EXPECT_EQ(calls[1].substr(0, 12), "hw delete 10");

    // Switched on again, the static one comes back.
    world.refuse("nothing");
    ASSERT_EQ(dhcpsnoop_if_enable(10), 0u);
    EXPECT_EQ(fixed->hwFlags, 0x80);
}

TEST_F(Interface, LookupByVlan)
{
    world.vlan_interface(20, 10);
    world.vlan_interface(30, 10);
    DhcpsnoopIf *port = snoop(10);
    set_flag_field(port, DHCPSNOOP_IF_VID, 10);
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(10), nullptr); // a port, even when its VLAN bits match
    snoop(30);
    snoop(20);
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(10), dhcpsnoop_if_lookup(20)); // the first in the list
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(11), nullptr);
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(0x1000A), dhcpsnoop_if_lookup(20)); // low 16 bits
    EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(0x100A), nullptr);
}

TEST_F(Interface, VersionChange)
{
    const std::string changed = "Interface trust state is changed!\n\r";
    const auto process = [](uint32_t inet, const char *rest) { return world_format("[DHCPSNOOP] Process user on interface 10, inet type %u, user type = %s.\r\n", inet, rest); };
    const std::string on4 = process(1, "2, operate 1"), on6 = process(2, "2, operate 1");
    const std::string off4[] = {process(1, "1, operate 2"), process(1, "2, operate 0")}, off6[] = {process(2, "1, operate 2"), process(2, "2, operate 0")};
    const auto notify = [](uint32_t version, uint32_t state) {
        return world_format("[DHCPSNOOP] Notify interface state to hwapi: unit 10, verion %u, state %u.\r\n", version, state);
    };
    // claim, from, to, stored, trusted, texts, calls
    const std::tuple<const char *, uint32_t, uint32_t, uint32_t, bool, Lines, Lines> rows[] = {
        {"a trusted interface gains IPv6 and loses its trust", 1, 3, 3, true, {on6, notify(2, 1)}, {"qorIfSetApi 10 305 24"}},
        {"it loses IPv4", 3, 2, 2, false, {off4[0], off4[1], notify(1, 0)}, {"qorIfSetApi 10 306 23"}},
        {"one for the other, IPv4 first", 1, 2, 2, false, {off4[0], off4[1], notify(1, 0), on6, notify(2, 1)}, {"qorIfSetApi 10 306 23", "qorIfSetApi 10 305 24"}},
        {"the other way round", 2, 1, 1, true, {on4, notify(1, 1), off6[0], off6[1], notify(2, 0)}, {"qorIfSetApi 10 305 23", "qorIfSetApi 10 306 24"}},
        {"the same version touches nothing but clears the trust", 1, 1, 1, true, {}, {}},
        {"only two bits are stored", 1, 5, 1, false, {}, {}},
        {"none at all", 3, 0, 0, false, {off4[0], off4[1], notify(1, 0), off6[0], off6[1], notify(2, 0)}, {"qorIfSetApi 10 306 23", "qorIfSetApi 10 306 24"}},
    };
    for (const auto &[claim, from, to, stored, trusted, texts, calls] : rows) {
        for (const int flags : {0, 2}) {
            SCOPED_TRACE(claim);
            world.reset();
            world.access(10, 10);
            DhcpsnoopIf *ifp = snoop(10, trusted ? DHCPSNOOP_IF_TRUSTED : 0);
            set_flag_field(ifp, DHCPSNOOP_IF_VERSION, from);
            const uint32_t others = ifp->flags & ~(3u << 23) & ~DHCPSNOOP_IF_TRUSTED;
            debug(flags);
            Printed out;
            EXPECT_EQ(dhcpsnoop_if_version_set(ifp, to), 0u);
            // Kept: printed whatever the debug flags.
            EXPECT_EQ(out.text(), trusted ? changed : "");
            EXPECT_EQ(ifp->flags, others | stored << 23);
            EXPECT_EQ(debug_texts(), flags == 0 ? Lines{} : texts);
            EXPECT_EQ(world.calls(), calls);
        }
    }
}

TEST_F(Interface, TrapCalls)
{
    const std::string addFailed = "[DHCPSNOOP] Add dhcp acl failed!\r\n",
                      add6Failed = "[DHCPSNOOP] Add dhcpv6 acl failed!\r\n",
                      deleteFailed = "[DHCPSNOOP] Delete dhcp acl failed!\r\n",
                      delete6Failed = "[DHCPSNOOP] Delete dhcpv6 acl failed!\r\n",
                      failed = "[DHCPSNOOP] Notify interface state to hwapi failed!\r\n";
    const std::string add4 = "qorIfSetApi 10 305 23", add6 = "qorIfSetApi 10 305 24",
                      del4 = "qorIfSetApi 10 306 23", del6 = "qorIfSetApi 10 306 24";
    const struct {
        const char *claim;
        uint32_t version, state;
        int32_t result4, result6, result;
        Lines calls, texts;
    } rows[] = {
        {"add IPv4", 1, 1, 0, 0, 0, {add4}, {}},
        {"add IPv6", 2, 1, 0, 0, 0, {add6}, {}},
        {"add both", 3, 1, 0, 0, 0, {add4, add6}, {}},
        {"add neither", 0, 1, 0, 0, 0, {}, {}},
        {"a refused IPv4 ends it", 3, 1, 4, 6, 4, {add4}, {addFailed}},
        {"a refused IPv6 is the result", 3, 1, 0, 6, 6, {add4, add6}, {add6Failed}},
        {"delete both", 3, 0, 0, 0, 0, {del4, del6}, {}},
        {"any other state deletes", 1, 2, 0, 0, 0, {del4}, {}},
        {"an IPv4 failure goes on, and is forgotten when IPv6 succeeds", 3, 0, 4, 0, 0, {del4, del6}, {deleteFailed}},
        {"both fail", 3, 0, 4, 6, 6, {del4, del6}, {deleteFailed, delete6Failed, failed}},
        {"IPv4 alone fails", 1, 0, 4, 0, 4, {del4}, {deleteFailed, failed}},
        {"IPv6 alone fails", 2, 0, 0, 6, 6, {del6}, {delete6Failed, failed}},
        {"delete neither", 0, 0, 4, 6, 0, {}, {}},
    };
    for (const auto &row : rows) {
        for (const int flags : {0, 1, 2}) {
            SCOPED_TRACE(row.claim);
            world.reset();
            debug(flags);
            for (const char *command : {"305", "306"}) {
                world.refuse(world_format("qorIfSetApi 10 %s 23", command), row.result4);
                world.refuse(world_format("qorIfSetApi 10 %s 24", command), row.result6);
            }
            EXPECT_EQ(dhcpsnoop_if_state_notify(10, row.version, row.state), row.result);
            EXPECT_EQ(world.calls(), row.calls);
            Lines texts = {world_format("[DHCPSNOOP] Notify interface state to hwapi: unit 10, verion %u, state %u.\r\n", row.version, row.state)};
            texts.insert(texts.end(), row.texts.begin(), row.texts.end());
            EXPECT_EQ(debug_texts(), flags == 0 ? Lines{} : texts);
        }
    }
}

} // namespace
