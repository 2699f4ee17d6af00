// Whole exchanges, frame by frame, as a client, a server and the switch between them see them.
#include "daemon_test.h"

namespace
{

constexpr uint32_t HOST = ip4(10, 0, 0, 100), SERVER = ip4(10, 0, 0, 1);
constexpr Arrival FROM_SERVER = {.port = 2};

// Client 1 on access port 1, client 2 on access port 3, both in VLAN 10; the server on port 2.
class Exchange : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
        for (const uint32_t ifIndex : {1u, 2u, 3u})
            world.access(ifIndex, 10);
        world.access(4, 20);
        world.ipsg[1] = {.items = 0xF0};
        for (const uint32_t ifIndex : {1u, 3u, 4u})
            snoop(ifIndex, DHCPSNOOP_IF_OPTION82 | DHCPSNOOP_IF_CHECK_MAC | DHCPSNOOP_IF_CHECK_BINDING);
        snoop(2, DHCPSNOOP_IF_TRUSTED);
        dhcpsnoop_user_timer_check();
    }

    void TearDown() override { EXPECT_EQ(world_check_tables(true), ""); }

    // A message through the daemon; what it sent.
    static std::string through(const Frame &frame, const Arrival &arrival = {})
    {
        world.clear();
        receive(frame, arrival);
        return sent_summary();
    }

    static Frame request(uint32_t address) { return client_frame(3, opt_ip(50, address) + opt_ip(54, SERVER)); }

    // The client's REQUEST and the server's ACK.
    static void obtain()
    {
        through(request(HOST));
        through(server_frame(5), FROM_SERVER);
    }

    static Frame unicast(Frame frame)
    {
        frame.srcIp = frame.ciaddr = HOST;
        frame.dstIp = SERVER;
        frame.dst = MAC_SERVER;
        return frame;
    }

    static void pass_time(int64_t seconds)
    {
        world.now += seconds;
        dhcpsnoop_user_timer_check();
    }
};

const Bytes ID82 = hex_bytes("52 14 01 08 00 06 00 0a 01 00 00 01 02 08 00 06 02 00 00 00 01 01");

TEST_F(Exchange, FourMessages)
{
    // DISCOVER: only the server's port gets it, with option 82; nothing is recorded.
    EXPECT_EQ(through(client_frame(1)), "2 308");
    EXPECT_EQ(dump(sent_frame()), dump(client_frame(1, ID82).bytes()));
    EXPECT_EQ(count_bindings(), 0u);
    // OFFER: flooded in the VLAN, as nobody knows yet where the client is.
    EXPECT_EQ(through(server_frame(2), FROM_SERVER), "1 298, 3 298");
    // REQUEST: a provisional binding, not in hardware yet.
    EXPECT_EQ(through(request(HOST)), "2 320");
    ASSERT_NE(binding(HOST), nullptr);
    EXPECT_EQ(binding(HOST)->leaseTime, 60u);
    EXPECT_EQ(world.calls("hw"), Lines{});
    // ACK: bound, enforced, without option 82, to the client's port alone.
    EXPECT_EQ(through(server_frame(5, ID82), FROM_SERVER), "1 298");
    EXPECT_EQ(dump(sent_frame()), dump(server_frame(5).bytes()));
    EXPECT_EQ(binding(HOST)->leaseTime, 3600u);
    EXPECT_EQ(binding(HOST)->bindState, 1);
    ASSERT_EQ(world.calls("hw add 1").size(), 1u);
    EXPECT_EQ(binding(HOST)->hwFlags, 0x80);
}

TEST_F(Exchange, ThroughATrunk)
{
    world.trunk(2, {10, 20});
    Frame discover = client_frame(1);
    EXPECT_EQ(through(discover), "2 312");
    discover = client_frame(1, ID82);
    discover.tags = {{0x8100, 10}};
    EXPECT_EQ(dump(sent_frame()), dump(discover.bytes()));
    through(request(HOST));
    Frame ack = server_frame(5);
    ack.tags = {{0x8100, 10}};
    EXPECT_EQ(through(ack, FROM_SERVER), "1 298"); // untagged again
    EXPECT_EQ(dump(sent_frame()), dump(server_frame(5).bytes()));
    // A client of VLAN 20 on its own port; nothing leaks into VLAN 10.
    EXPECT_EQ(through(client_frame(1), {.port = 4, .outer = 20}), "2 312");
    Frame offer = server_frame(2);
    offer.tags = {{0x8100, 20}};
    EXPECT_EQ(through(offer, {.port = 2, .outer = 20}), "4 298");
}

TEST_F(Exchange, RelayToTwoServersAndBack)
{
    constexpr uint32_t RELAY = ip4(10, 0, 0, 254), FIRST = ip4(10, 9, 0, 1), SECOND = ip4(10, 9, 0, 2);
    DhcpsnoopIf *port = dhcpsnoop_if_lookup(1);
    port->relayAddr = RELAY;
    port->serverIp[0] = FIRST;
    port->serverIp[1] = SECOND;
    EXPECT_EQ(through(client_frame(1)), "");
    EXPECT_EQ(world.texts(Did::Relay), (Lines{"relay 10.0.0.254 10.9.0.1:67 266", "relay 10.0.0.254 10.9.0.2:67 266"}));
    EXPECT_EQ(count_waiting(), 1u);

    // The second server's OFFER comes to the relay address and leaves as if from the client's own link.
    const auto reply = [&](uint8_t type, bool undone = false) {
        Frame frame = server_frame(type);
        frame.dst = undone ? MAC_CLIENT : Mac{2, 0, 0, 0, 0, 0xFE};
        frame.srcIp = undone ? RELAY : SECOND;
        frame.dstIp = undone ? HOST : RELAY;
        frame.dstPort = undone ? 68 : 67;
        frame.giaddr = RELAY;
        frame.options = opt_type(type) + opt_ip(54, SECOND) + opt_lease(600) + (undone ? Bytes{} : ID82) + OPT_END;
        return frame;
    };
    EXPECT_EQ(through(reply(2), FROM_SERVER), "1 298");
    EXPECT_EQ(dump(sent_frame()), dump(reply(2, true).bytes()));

    through(client_frame(3, opt_ip(50, HOST) + opt_ip(54, SECOND)));
    EXPECT_EQ(world.all(Did::Relay).size(), 2u);
    EXPECT_EQ(count_waiting(), 0u);
    EXPECT_EQ(through(reply(5), FROM_SERVER), "1 298");
    EXPECT_EQ(dump(sent_frame()), dump(reply(5, true).bytes()));
    EXPECT_EQ(binding(HOST)->leaseTime, 600u);
    EXPECT_EQ(binding(HOST)->serverId, SECOND);
}

TEST_F(Exchange, RenewedAndRebound)
{
    obtain();
    const auto start = static_cast<uint32_t>(world.now);
    // Renewing by unicast to the server, rebinding by broadcast (RFC 2131 4.3.2); both carry ciaddr.
    for (const bool rebinding : {false, true}) {
        pass_time(1800);
        Frame renewal = client_frame(3);
        renewal.srcIp = renewal.ciaddr = HOST;
        EXPECT_EQ(through(rebinding ? renewal : unicast(renewal)), "2 308");
        Frame ack = server_frame(5);
        ack.ciaddr = HOST;
        EXPECT_EQ(through(ack, FROM_SERVER), "1 298");
    }
    EXPECT_EQ(binding(HOST)->leaseStart, start + 3600);
    EXPECT_EQ(world.calls("hw"), Lines{}); // it is installed already
    pass_time(3599);
    EXPECT_NE(binding(HOST), nullptr);
    pass_time(60);
    EXPECT_EQ(binding(HOST), nullptr);
}

TEST_F(Exchange, RogueServer)
{
    for (const uint8_t type : {uint8_t{2}, uint8_t{5}, uint8_t{6}}) {
        Frame rogue = server_frame(type);
        rogue.srcIp = ip4(10, 0, 0, 66);
        EXPECT_EQ(through(rogue, {.port = 3}), "");
    }
    EXPECT_EQ(dhcpsnoop_if_lookup(3)->counters[DHCPSNOOP_DROP_UNTRUSTED], 3u);
    through(request(HOST));
    through(server_frame(5), {.port = 3}); // its ACK binds nothing
    EXPECT_EQ(binding(HOST)->bindState, 4);
    EXPECT_EQ(binding(HOST)->leaseTime, 60u);
    // The unanswered request goes at the next scan.
    pass_time(60);
    EXPECT_EQ(count_bindings(), 0u);
}

TEST_F(Exchange, OnAVlanInterface)
{
    // Port 5 of VLAN 10 has no snooping of its own; its VLAN interface has.
    world.access(5, 10);
    world.vlan_interface(110, 10);
    world.members(10, {1, 2, 3, 5});
    DhcpsnoopIf *vlan = snoop(110);
    const Arrival from5 = {.port = 5, .inIf = 110};
    EXPECT_EQ(through(client_frame(1), from5), "2 286");
    EXPECT_EQ(through(server_frame(2), FROM_SERVER), "1 298, 2 298, 3 298, 5 298");
    through(request(HOST), from5);
    EXPECT_EQ(binding(HOST)->ifIndex, 5u);
    EXPECT_EQ(vlan->curUser, 1);
    // The binding's port has no entry: the ACK goes to the whole VLAN, and the binding is bound all the same.
    EXPECT_EQ(through(server_frame(5), FROM_SERVER), "1 298, 2 298, 3 298, 5 298");
    EXPECT_EQ(binding(HOST)->bindState, 1);
    pass_time(3600);
    EXPECT_EQ(vlan->curUser, 0);
}

} // namespace
