// The client path: protections, bookkeeping, and the way towards the servers.
#include "daemon_test.h"

namespace
{

constexpr uint32_t HOST = ip4(10, 0, 0, 50);

class Client : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        world.access(1, 10);
        world.access(2, 10);
        world.access(3, 10);
        world.vlan_interface(110, 10);
        world.trunk(2, {10, 20}, 10); // the servers
        port = snoop(1);
        snoop(2, DHCPSNOOP_IF_TRUSTED);
    }

    void relaying()
    {
        port->relayAddr = ip4(10, 0, 0, 1);
        port->serverIp[0] = ip4(10, 1, 1, 1);
        port->serverIp[2] = ip4(10, 3, 3, 3);
    }

    DhcpsnoopIf *port = nullptr;
};

TEST_F(Client, ProtectionAgainstForgedHardwareAddress)
{
    // claim, flags, chaddr, passes
    const std::tuple<const char *, uint32_t, Mac, bool> rows[] = {
        {"equal", DHCPSNOOP_IF_CHECK_MAC, MAC_CLIENT, true},
        {"different", DHCPSNOOP_IF_CHECK_MAC, MAC_CLIENT2, false},
        {"different, not checked", 0, MAC_CLIENT2, true},
    };
    for (const auto &[claim, flags, chaddr, passes] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        debug(1);
        port->flags |= flags;
        receive(Frame{.chaddr = chaddr, .options = opt_type(3) + opt_ip(50, HOST) + OPT_END});
        EXPECT_EQ(sent_summary(), passes ? "2 292" : "");
        EXPECT_EQ(port->counters[DHCPSNOOP_DROP_SOURCE_MAC], passes ? 0u : 1u);
        EXPECT_EQ(count_bindings(), passes ? 1u : 0u);
        EXPECT_EQ(printed("[DHCPSNOOP] Source mac in pkt 02:c1:00:00:00:01 and client mac 02:c1:00:00:00:02 don't match,stop process!\r\n"), !passes);
    }
}

TEST_F(Client, ProtectionOfBoundClients)
{
    const std::string mismatch = "[DHCPSNOOP] User entry information mismatch, stop process!\r\n";
    struct Row {
        const char *claim;
        uint8_t type;
        uint32_t ciaddr, srcIp;
        Mac chaddr;
        Arrival arrival;
        bool checked, passes;
        uint8_t userType = DHCPSNOOP_USER_DYNAMIC;
        uint32_t requested = 0;
    };
    const Row rows[] = {
        {"a renewal that is right in everything", 3, HOST, HOST, MAC_CLIENT, {}, true, true},
        {"from another source address", 3, HOST, HOST + 1, MAC_CLIENT, {}, true, false},
        {"from no source address", 3, HOST, 0, MAC_CLIENT, {}, true, false},
        {"with another MAC", 3, HOST, HOST, MAC_CLIENT2, {}, true, false},
        {"in another VLAN", 3, HOST, HOST, MAC_CLIENT, {.outer = 20}, true, false},
        {"from another port", 3, HOST, HOST, MAC_CLIENT, {.port = 3}, true, false},
        {"of another client address", 3, HOST, HOST, MAC_CLIENT, {}, true, true, DHCPSNOOP_USER_DYNAMIC, HOST + 9},
        {"a release that is right", 7, HOST, HOST, MAC_CLIENT, {}, true, true},
        {"a release with another MAC", 7, HOST, HOST, MAC_CLIENT2, {}, true, false},
        {"a release without ciaddr", 7, 0, HOST + 1, MAC_CLIENT, {}, true, false, DHCPSNOOP_USER_DYNAMIC, HOST},
        {"a first request is not checked", 3, 0, 0, MAC_CLIENT2, {}, false, true, DHCPSNOOP_USER_DYNAMIC, HOST},
        {"a discover is not checked", 1, HOST, 0, MAC_CLIENT2, {}, false, true},
        {"a decline is not checked", 4, HOST, 0, MAC_CLIENT2, {}, false, true},
        {"an inform is not checked", 8, HOST, 0, MAC_CLIENT2, {}, false, true},
        {"a static binding passes", 3, HOST, 0, MAC_CLIENT2, {}, true, true, DHCPSNOOP_USER_STATIC},
        {"an IP source guard binding passes", 7, HOST, 0, MAC_CLIENT2, {}, true, true, DHCPSNOOP_USER_IPSG},
    };
    for (const Row &row : rows) {
        for (const bool enabled : {true, false}) {
            SCOPED_TRACE(std::string(row.claim) + (enabled ? "" : ", check off"));
            SetUp();
            snoop(3);
            make_binding(HOST, MAC_CLIENT, 1, 10)->userType = row.userType;
            if (enabled) {
                port->flags |= DHCPSNOOP_IF_CHECK_BINDING;
                dhcpsnoop_if_lookup(3)->flags |= DHCPSNOOP_IF_CHECK_BINDING;
            }
            world.ports[2].vlans = {10, 20};
            debug(1);
            const std::string before = world_state();
            const Bytes requested = row.requested != 0 ? opt_ip(50, row.requested) : Bytes{};
            receive(Frame{.src = row.chaddr, .srcIp = row.srcIp, .ciaddr = row.ciaddr, .chaddr = row.chaddr, .options = opt_type(row.type) + requested + OPT_END}, row.arrival);
            DhcpsnoopIf *in = dhcpsnoop_if_lookup(row.arrival.port);
            const bool passes = row.passes || !enabled;
            EXPECT_EQ(in->counters[DHCPSNOOP_DROP_BINDING], passes ? 0u : 1u);
            EXPECT_EQ(printed(mismatch), !passes);
            EXPECT_EQ(printed("[DHCPSNOOP] Check user bind entry.\r\n"), enabled && row.checked);
            EXPECT_EQ(world.all(Did::Frame).empty(), !passes);
            if (!passes) {
                in->counters[DHCPSNOOP_DROP_BINDING] = 0;
                EXPECT_EQ(world_state(), before);
            }
        }
    }
}

TEST_F(Client, Bookkeeping)
{
    enum Had { nothing,
               dynamic,
               fixed };
    constexpr uint8_t DISCOVER = 1, REQUEST = 3, DECLINE = 4, RELEASE = 7, INFORM = 8;
    // claim, relay, giaddr, waiting (a MAC-user entry is there), had, type, bound, waits (afterwards)
    const std::tuple<const char *, bool, bool, bool, Had, uint8_t, bool, bool> rows[] = {
        {"a discover leaves no trace", false, false, false, nothing, DISCOVER, false, false},
        {"a request is recorded", false, false, false, nothing, REQUEST, true, false},
        {"a repeated request", false, false, false, dynamic, REQUEST, true, false},
        {"a decline deletes", false, false, false, dynamic, DECLINE, false, false},
        {"a release deletes", false, false, false, dynamic, RELEASE, false, false},
        {"but not a static binding", false, false, false, fixed, RELEASE, true, false},
        {"an inform changes nothing", false, false, false, dynamic, INFORM, true, false},
        {"a MAC user is left alone without relay", false, false, true, dynamic, RELEASE, false, true},

        {"relay: a discover waits for its reply", true, false, false, nothing, DISCOVER, false, true},
        {"relay: once only", true, false, true, nothing, DISCOVER, false, true},
        {"relay: not when a binding is known", true, false, false, dynamic, DISCOVER, true, false},
        {"relay: an inform waits too", true, false, false, nothing, INFORM, false, true},
        {"relay: a request ends the waiting and is recorded", true, false, true, nothing, REQUEST, true, false},
        {"relay: a request out of the blue", true, false, false, nothing, REQUEST, true, false},
        {"relay: a decline ends both", true, false, true, dynamic, DECLINE, false, false},
        {"relay: a release ends both", true, false, true, dynamic, RELEASE, false, false},
        {"relay: a release spares the static binding", true, false, true, fixed, RELEASE, true, false},
        {"relay: a release of a bound client", true, false, false, dynamic, RELEASE, false, false},
        {"another relay's message does not wait", true, true, false, nothing, DISCOVER, false, false},
        {"another relay's request is recorded", true, true, true, nothing, REQUEST, true, true},
    };
    for (const auto &[claim, relay, giaddr, waiting, had, type, bound, waits] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        if (relay)
            relaying();
        if (waiting) {
            const Parsed earlier(Frame{});
            dhcpsnoop_mac_user_add(&earlier.info);
        }
        if (had != nothing)
            make_binding(HOST, MAC_CLIENT, 1, 10)->userType = had == dynamic ? DHCPSNOOP_USER_DYNAMIC : DHCPSNOOP_USER_STATIC;
        receive(Frame{.giaddr = giaddr ? ip4(10, 9, 9, 9) : 0, .options = opt_type(type) + opt_ip(50, HOST) + OPT_END});
        EXPECT_EQ(count_bindings(), bound ? 1u : 0u);
        EXPECT_EQ(count_waiting(), waits ? 1u : 0u);
        const bool relayed = relay && !giaddr;
        EXPECT_EQ(world.all(Did::Relay).size(), relayed ? 2u : 0u);
        EXPECT_EQ(world.all(Did::Frame).size(), relayed ? 0u : 1u);
    }
}

TEST_F(Client, WhatCannotBeRecordedIsDropped)
{
    debug(1);
    port->maxUser = 0;
    receive(client_frame(3, opt_ip(50, HOST)));
    EXPECT_EQ(sent_summary(), "");
    EXPECT_TRUE(printed("[DHCPSNOOP] Number of users on the interface exceeds the limit!\r\n"));
    EXPECT_TRUE(printed("[DHCPSNOOP] Process pkt end.\r\n"));
    receive(client_frame(1));
    EXPECT_EQ(sent_summary(), "2 286"); // a discover still passes

    world.reset(0, 1);
    world.access(1, 10);
    port = snoop(1);
    relaying();
    make_binding(HOST + 1, MAC_CLIENT2, 1, 10); // the only node
    debug(1);
    const std::string before = world_state();
    receive(client_frame(1));
    EXPECT_EQ(world.all(Did::Relay).size(), 0u);
    EXPECT_TRUE(printed("[DHCPSNOOP] Can't allocate memory for mac user entry!\r\n"));
    EXPECT_TRUE(printed("[DHCPSNOOP] Failed to add mac user entry, stop process!\r\n"));
    EXPECT_EQ(world_state(), before);
}

TEST_F(Client, RelayedToEveryServer)
{
    relaying();
    debug(1);
    const Frame frame = client_frame(1);
    receive(frame);
    EXPECT_EQ(sent_summary(), ""); // nothing at layer 2
    EXPECT_EQ(world.texts(Did::Relay), (Lines{"relay 10.0.0.1 10.1.1.1:67 244", "relay 10.0.0.1 10.3.3.3:67 244"}));
    Frame expected = frame;
    expected.giaddr = ip4(10, 0, 0, 1);
    for (const WorldEntry *entry : world.all(Did::Relay))
        EXPECT_EQ(hex(entry->data), hex(expected.message()));
    EXPECT_TRUE(printed("[DHCPSNOOP] Giaddr is zero, set giaddr to 10.0.0.1.\r\n"));

    // A first server that cannot be reached does not keep the second from it.
    world.refuse("relay 10.0.0.1 10.1.1.1");
    world.clear();
    receive(frame);
    EXPECT_EQ(world.all(Did::Relay).size(), 2u);
}

TEST_F(Client, RelayedWithOption82)
{
    relaying();
    port->flags |= DHCPSNOOP_IF_OPTION82;
    receive(client_frame(1));
    ASSERT_EQ(world.all(Did::Relay).size(), 2u);
    Frame expected = client_frame(1, hex_bytes("52 14 01 08 00 06 00 0a 01 00 00 01 02 08 00 06 02 00 00 00 01 01"));
    expected.giaddr = ip4(10, 0, 0, 1);
    EXPECT_EQ(hex(world.all(Did::Relay)[0]->data), hex(expected.message()));
}

TEST_F(Client, DropsByOption82Policy)
{
    port->flags |= DHCPSNOOP_IF_OPTION82;
    set_flag_field(port, DHCPSNOOP_IF_POLICY, 1);
    receive(client_frame(3, opt_ip(50, HOST) + opt(82, {1, 0})));
    EXPECT_EQ(sent_summary(), "");
    EXPECT_EQ(count_bindings(), 1u); // recorded before it was dropped
}

TEST_F(Client, VlanInterface)
{
    DhcpsnoopIf *vlan = snoop(110);
    debug(1);
    // Port 3 has no entry of its own: recorded for port 3 in the VLAN interface's VLAN, forwarded to ports.
    receive(client_frame(3, opt_ip(50, HOST)), {.port = 3, .outer = 99, .inIf = 110});
    EXPECT_TRUE(printed("[DHCPSNOOP] Send packet to server, inport 3, vid 10, len 292.\r\n"));
    ASSERT_NE(binding(HOST), nullptr);
    EXPECT_EQ(binding(HOST)->ifIndex, 3u);
    EXPECT_EQ(binding(HOST)->vid, 10);
    EXPECT_EQ(vlan->curUser, 1);
    EXPECT_EQ(sent_summary(), ""); // VLAN 99 is not on port 2
    receive(client_frame(1), {.port = 3, .inIf = 110});
    EXPECT_EQ(sent_summary(), "2 286");
    EXPECT_TRUE(printed("[DHCPSNOOP] Npt send message to server, len is 286 buflen is 286.\r\n"));

    // A port that snoops by itself is not handled through its VLAN too.
    world.clear();
    const std::string before = world_state();
    receive(client_frame(3, opt_ip(50, HOST + 1)), {.port = 1, .inIf = 110});
    EXPECT_EQ(sent_summary(), "");
    EXPECT_EQ(world_state(), before);
    EXPECT_TRUE(printed("[DHCPSNOOP] Interface is enable, do not process the received packet!\r\n"));
}

TEST_F(Client, FrameOfTheOtherFamilyInAnIpv4EtherType)
{
    // A frame of EtherType 0x0800 whose IP header says version 6 reaches this path with its DHCPv6 message:
    // no hardware address, and fewer bytes than a BOOTP header.
    Parsed parsed(Frame{});
    parsed.info.chaddr = nullptr;
    parsed.info.dhcpLen = 4;
    const auto path = [&parsed] {
        world.clear();
        DhcpsnoopPktInfo info = parsed.info;
        dhcpsnoop_client_packet_recv(&info);
    };
    path();
    EXPECT_EQ(sent_summary(), "2 286"); // plain forwarding
    port->flags |= DHCPSNOOP_IF_CHECK_MAC;
    path();
    EXPECT_EQ(sent_summary(), "");
    EXPECT_EQ(port->counters[DHCPSNOOP_DROP_SOURCE_MAC], 1u);
    port->flags &= ~DHCPSNOOP_IF_CHECK_MAC;

    port->flags |= DHCPSNOOP_IF_CHECK_BINDING;
    path();
    EXPECT_EQ(sent_summary(), "2 286"); // a message of type 1 is not checked
    parsed.info.msgType = 3;
    path();
    EXPECT_EQ(sent_summary(), ""); // there is no ciaddr to check
    port->flags &= ~DHCPSNOOP_IF_CHECK_BINDING;
    path();
    EXPECT_EQ(sent_summary(), ""); // nothing to record without a hardware address
    EXPECT_EQ(count_bindings(), 0u);

    relaying();
    debug(1);
    parsed.info.msgType = 1;
    const DhcpsnoopRxPkt before = parsed.rx;
    for (const bool known : {false, true}) { // its address, 0.0.0.0: then it gets as far as the relaying
        SCOPED_TRACE(known);
        if (known)
            make_binding(0, MAC_CLIENT, 1, 10);
        path();
        EXPECT_EQ(world.all(Did::Relay).size(), 0u);
        EXPECT_EQ(memcmp(&before, &parsed.rx, sizeof before), 0);
        EXPECT_EQ(count_waiting(), 0u);
        EXPECT_EQ(printed("[DHCPSNOOP] Failed to add mac user entry, stop process!\r\n"), !known);
    }

    dhcpsnoop_client_packet_recv(nullptr);
    parsed.info.ifp = nullptr;
    dhcpsnoop_client_packet_recv(&parsed.info);
}

} // namespace
