// The server path: trust, learning, who the reply is for, relay undo, option 82 and boot options on the way
// back.
#include "daemon_test.h"

namespace
{

constexpr uint32_t HOST = ip4(10, 0, 0, 100), SERVER = ip4(10, 0, 0, 1), RELAY = ip4(10, 0, 0, 254);
constexpr uint8_t OFFER = 2, ACK = 5, NAK = 6;

class Server : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        for (const uint32_t ifIndex : {1u, 2u, 3u})
            world.access(ifIndex, 10);
        world.access(4, 20);
        client = snoop(1);
        trusted = snoop(2, DHCPSNOOP_IF_TRUSTED);
        snoop(3);
        snoop(4);
    }

    DhcpsnoopIf *client = nullptr, *trusted = nullptr;
};

constexpr Arrival ON2 = {.port = 2};

TEST_F(Server, RepliesComeFromTrustedPortsOnly)
{
    debug(1);
    make_binding(HOST, MAC_CLIENT, 1, 10);
    for (const uint8_t type : {OFFER, ACK, NAK}) {
        const std::string before = world_state();
        world.clear();
        receive(server_frame(type), {.port = 3});
        EXPECT_EQ(sent_summary(), "");
        EXPECT_TRUE(printed("[DHCPSNOOP] Port is untrust,stop process!\r\n"));
        DhcpsnoopIf *in = dhcpsnoop_if_lookup(3);
        EXPECT_EQ(in->counters[DHCPSNOOP_DROP_UNTRUSTED], 1u);
        in->counters[DHCPSNOOP_DROP_UNTRUSTED] = 0;
        EXPECT_EQ(world_state(), before); // the binding and its lease among it
    }
    world.vlan_interface(110, 10);
    snoop(110, DHCPSNOOP_IF_TRUSTED);
    debug(1);
    receive(server_frame(ACK), {.port = 9, .inIf = 110});
    EXPECT_EQ(sent_summary(), "");
    EXPECT_TRUE(printed("[DHCPSNOOP] Vlan interface do not process the DHCP Reply message!\r\n"));
}

TEST_F(Server, Learning)
{
    const Bytes OFFERED = opt_type(OFFER) + opt_ip(54, SERVER);
    // claim, learn, port, options, learned
    const std::tuple<const char *, uint8_t, uint32_t, Bytes, size_t> rows[] = {
        {"switched off", 0, 2, OFFERED, 0},
        {"switched on", 1, 2, OFFERED, 1},
        {"another value is not on", 2, 2, OFFERED, 0},
        {"no server id", 1, 2, opt_type(OFFER), 0},
        {"a server behind an untrusted port is learned too", 1, 3, opt_type(ACK) + opt_ip(54, SERVER), 1},
    };
    for (const auto &[claim, learn, port, options, learned] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        gDhcpsnoop.serverLearn = learn;
        for (int i = 0; i < 2; i++)
            receive(Frame{.op = 2, .options = options + OPT_END}, {.port = port, .outer = 10});
        EXPECT_EQ(dhcpsnoop_server_lookup(SERVER, 10, port) != nullptr, learned == 1);
        size_t count = 0;
        for (const DhcpsnoopLink *at = gDhcpsnoop.serverList.next; at != &gDhcpsnoop.serverList; at = at->next)
            count++;
        EXPECT_EQ(count, learned); // once only
    }
}

TEST_F(Server, WhereTheReplyGoes)
{
    const char *unicast = "1", *flooded = "1 3"; // the members of VLAN 10 but port 2
    const struct {
        const char *claim;
        uint8_t type;
        bool binding, waiting;
        bool enabled;    // the client's port
        uint32_t giaddr; // of the reply
        uint16_t outer;  // VLAN it came in
        const char *ports;
        uint16_t clientVlan = 10;
    } rows[] = {
        {"an ACK to the binding's port", ACK, true, false, true, 0, 10, unicast},
        {"in the binding's VLAN, whatever VLAN it came in", ACK, true, false, true, 0, 20, unicast},
        {"the binding's port is not in use: flooded in the binding's VLAN", ACK, true, false, false, 0, 20, "3"},
        {"an ACK without binding is flooded", ACK, false, false, true, 0, 10, flooded},
        {"an ACK without binding, waiting, not relayed", ACK, false, true, true, 0, 10, flooded},
        {"an ACK without binding, waiting, relayed", ACK, false, true, true, RELAY, 10, unicast},
        {"an ACK with a binding never asks who waits", ACK, true, true, false, RELAY, 10, "3"},
        {"an offer is flooded", OFFER, true, false, true, 0, 10, flooded},
        {"an offer for a waiting client", OFFER, false, true, true, RELAY, 10, unicast},
        {"an offer for a waiting client in its VLAN", OFFER, false, true, true, RELAY, 20, unicast},
        {"whose port is not in use: flooded in its VLAN", OFFER, false, true, false, RELAY, 20, "3"},
        {"an offer for a waiting client, not relayed", OFFER, false, true, true, 0, 10, flooded},
        {"a relayed offer, nobody waits", OFFER, false, false, true, RELAY, 10, flooded},
        {"flooded in the VLAN it came in", OFFER, false, false, true, 0, 20, "4"},
        {"a NAK to the binding's port", NAK, true, false, true, 0, 10, unicast},
        {"a NAK never asks who waits", NAK, false, true, true, RELAY, 10, flooded},
        {"a NAK whose port is not in use", NAK, true, false, false, 0, 10, "3"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        SetUp();
        world.ports[2].vlans = {10, 20};
        if (row.binding)
            make_binding(HOST, MAC_CLIENT, 1, row.clientVlan);
        if (row.waiting) {
            const Parsed parsed(Frame{}, {.outer = row.clientVlan});
            dhcpsnoop_mac_user_add(&parsed.info);
        }
        if (!row.enabled)
            client->flags &= ~DHCPSNOOP_IF_IN_USE;
        debug(1);
        Frame frame = server_frame(row.type);
        frame.giaddr = row.giaddr;
        receive(frame, {.port = 2, .outer = row.outer});
        std::string ports;
        for (const WorldEntry *entry : world.all(Did::Frame))
            ports += world_format("%s%u", ports.empty() ? "" : " ", entry->port);
        EXPECT_EQ(ports, row.ports);
        const size_t length = frame.bytes().size();
        EXPECT_EQ(printed(world_format("[DHCPSNOOP] Unicast packet to client,outport 1,vid 10,len %zu.\r\n", length)), row.ports == unicast);
        const uint32_t vlan = *row.ports == '4' ? 20 : 10;
        EXPECT_EQ(printed(world_format("[DHCPSNOOP] Broadcast packet to client,inport 2,vid %u,len %zu.\r\n", vlan, length)), row.ports != unicast);
    }
}

TEST_F(Server, FloodedToTheMembersOfAVlanInterface)
{
    world.vlan_interface(110, 10);
    snoop(110);
    world.members(10, {1, 9, 2});
    receive(server_frame(OFFER), ON2);
    EXPECT_EQ(sent_summary(), "1 298, 9 302, 2 298");
}

TEST_F(Server, Nak)
{
    // claim, bindingServer, naking, userType, deleted, unicast
    const std::tuple<const char *, uint32_t, uint32_t, uint8_t, bool, bool> rows[] = {
        {"of the server of the binding", SERVER, SERVER, DHCPSNOOP_USER_DYNAMIC, true, true},
        {"of another server: kept but delivered", SERVER, SERVER + 1, DHCPSNOOP_USER_DYNAMIC, false, true},
        {"neither names a server", 0, 0, DHCPSNOOP_USER_DYNAMIC, true, true},
        {"a static binding is not looked at", SERVER, SERVER, DHCPSNOOP_USER_STATIC, false, false},
    };
    for (const auto &[claim, bindingServer, naking, userType, deleted, unicast] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        DhcpsnoopUser *user = make_binding(HOST, MAC_CLIENT, 1, 10);
        user->serverId = bindingServer;
        user->userType = userType;
        receive(Frame{.op = 2, .options = opt_type(NAK) + opt_ip(54, naking) + OPT_END}, ON2);
        EXPECT_EQ(binding(HOST) == nullptr, deleted);
        EXPECT_EQ(sent_summary(), unicast ? "1 292" : "1 292, 3 292");
    }

    // Only the first dynamic binding of the MAC is considered, in the order of the buckets.
    SetUp();
    make_binding(ip4(0, 0, 0, 2), MAC_CLIENT, 3, 10)->serverId = SERVER;
    make_binding(ip4(0, 0, 0, 1), MAC_CLIENT, 1, 10)->serverId = SERVER + 1;
    receive(Frame{.op = 2, .options = opt_type(NAK) + opt_ip(54, SERVER) + OPT_END}, ON2);
    EXPECT_EQ(count_bindings(), 2u);
    EXPECT_EQ(sent_summary(), "1 292");
    // Kept: the address family plays no part.
    SetUp();
    make_binding(key6("::1"), MAC_CLIENT, 3, 10);
    receive(Frame{.op = 2, .options = opt_type(NAK) + OPT_END}, ON2);
    EXPECT_EQ(count_bindings(), 0u);
    EXPECT_EQ(sent_summary(), "3 286");
}

TEST_F(Server, RelayUndo)
{
    // claim, type, flags, yiaddr, giaddr, serverId, undone, broadcast
    const std::tuple<const char *, uint8_t, uint16_t, uint32_t, uint32_t, uint32_t, bool, bool> rows[] = {
        {"to the client's address", ACK, 0, HOST, RELAY, SERVER, true, false},
        {"with the broadcast flag", ACK, 0x8000, HOST, RELAY, SERVER, true, true},
        {"other flags do not count", ACK, 0x7FFF, HOST, RELAY, SERVER, true, false},
        {"a second configured server", ACK, 0, HOST, RELAY, ip4(10, 7, 7, 7), true, false},
        {"a NAK is broadcast", NAK, 0, 0, RELAY, SERVER, true, true},
        {"a NAK is broadcast even with an address", NAK, 0, HOST, RELAY, SERVER, true, true},
        {"an offer without address is broadcast", OFFER, 0, 0, RELAY, SERVER, true, true},
        {"another relay's reply stays as it is", ACK, 0x8000, HOST, RELAY + 1, SERVER, false, false},
        {"another server's reply stays as it is", ACK, 0x8000, HOST, RELAY, SERVER + 1, false, false},
        // Kept: a free slot equals a reply without server id.
        {"a reply without server id equals a free slot", ACK, 0, HOST, RELAY, 0, true, false},
    };
    for (const auto &[claim, type, flags, yiaddr, giaddr, serverId, undone, broadcast] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        client->relayAddr = RELAY;
        client->serverIp[1] = SERVER;
        client->serverIp[2] = ip4(10, 7, 7, 7);
        if (type == OFFER) {
            const Parsed parsed(Frame{});
            dhcpsnoop_mac_user_add(&parsed.info);
        } else {
            make_binding(HOST, MAC_CLIENT, 1, 10);
        }
        Frame frame = {.dst = {2, 0, 0, 0, 0, 9}, .src = MAC_SERVER, .srcIp = SERVER, .dstIp = RELAY, .srcPort = 67, .dstPort = 67, .op = 2, .flags = flags, .yiaddr = yiaddr, .giaddr = giaddr, .options = opt_type(type) + (serverId != 0 ? opt_ip(54, serverId) : Bytes{}) + OPT_END};
        receive(frame, ON2);
        if (undone) {
            frame.srcIp = RELAY;
            frame.dstPort = 68;
            frame.dstIp = broadcast ? 0xFFFFFFFF : HOST;
            frame.dst = broadcast ? MAC_BROADCAST : MAC_CLIENT;
        }
        EXPECT_EQ(dump(sent_frame()), dump(frame.bytes()));
        EXPECT_EQ(hex(Bytes(world.all(Did::Frame)[0]->address.begin() + 12, world.all(Did::Frame)[0]->address.begin() + 18)),
                  hex(mac_bytes(frame.dst)));
    }
}

TEST_F(Server, Option82OnTheWayBack)
{
    const Bytes typed = opt(82, hex_bytes("01 01 63 02 08 00 06 02 00 00 00 01 01"));
    const Bytes raw = opt(82, hex_bytes("01 01 63 02 06 02 00 00 00 01 01"));
    const Bytes foreign = opt(82, hex_bytes("02 08 00 06 02 00 00 00 09 09"));
    // claim, option, enabled, mode (of the interface), globalRemote (mode), stripped
    const std::tuple<const char *, Bytes, bool, uint32_t, uint16_t, bool> rows[] = {
        {"typed, own", typed, true, 3, 4, true},
        {"raw, own", raw, true, 4, 3, true},
        {"typed read as raw", typed, true, 4, 3, false},
        {"another's remote-id", foreign, true, 3, 3, false},
        {"option 82 processing is off", typed, false, 3, 3, false},
        {"mode 5 never strips", typed, true, 5, 3, false},
        // Kept: the fallback is the global remote-id mode.
        {"the global remote-id mode", raw, true, 0, 4, true},
        {"which is not the circuit-id's", typed, true, 0, 4, false},
        {"the global mode 5", typed, true, 0, 5, false},
        {"no remote-id", opt(82, {1, 1, 'c'}), true, 3, 3, false},
        {"a remote-id cut short", opt(82, hex_bytes("02 08 00 06 02 00 00 00 01")), true, 3, 3, false},
    };
    for (const auto &[claim, option, enabled, mode, globalRemote, stripped] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        make_binding(HOST, MAC_CLIENT, 1, 10);
        if (enabled)
            client->flags |= DHCPSNOOP_IF_OPTION82;
        set_flag_field(client, DHCPSNOOP_IF_MODE, mode);
        gDhcpsnoop.remoteIdFmt.mode = globalRemote;
        gDhcpsnoop.circuitIdFmt.mode = 3;
        receive(server_frame(ACK, option), ON2);
        EXPECT_EQ(dump(sent_frame()), dump(server_frame(ACK, stripped ? Bytes{} : option).bytes()));
    }

    // A flooded reply keeps its option 82.
    SetUp();
    client->flags |= DHCPSNOOP_IF_OPTION82;
    receive(server_frame(ACK, typed), ON2);
    EXPECT_EQ(option_of(world.all(Did::Frame)[0]->data, 82), Bytes(typed.begin() + 2, typed.end()));
}

TEST_F(Server, RemoteIdAtTheEndOfTheMessage)
{
    // Option 82 claims two bytes, its remote-id six more: whether they end the message or stand partly behind
    // it.
    make_binding(HOST, MAC_CLIENT, 1, 10);
    client->flags |= DHCPSNOOP_IF_OPTION82;
    set_flag_field(client, DHCPSNOOP_IF_MODE, 4);
    for (const int behind : {0, 1, 6}) {
        SCOPED_TRACE(behind);
        world.clear();
        Frame frame = server_frame(ACK);
        frame.options = opt_type(ACK) + hex_bytes("52 02 02 06 02 00 00 00 01 01");
        const auto udpLen = static_cast<uint16_t>(8 + frame.message().size());
        frame.udpLen = static_cast<uint16_t>(udpLen - behind);
        receive(frame, ON2);
        EXPECT_EQ(option_of(sent_frame(), 82).has_value(), behind != 0);
    }
}

TEST_F(Server, BootOptions)
{
    const Lines refused = {"[DHCPSNOOP] Insert option67, len is 256.\r\n", "[DHCPSNOOP] option67 len is invalid!\r\n", "[DHCPSNOOP] Insert option125, len is 256.\r\n", "[DHCPSNOOP] option125 len is invalid!\r\n"};
    const Bytes own = opt(82, hex_bytes("02 08 00 06 02 00 00 00 01 01"));
    const auto inserted125 = [](const Bytes &data) {
        const auto length = static_cast<uint8_t>(data.size());
        return Bytes{125, static_cast<uint8_t>(length + 7)} + be32(32473) + Bytes{static_cast<uint8_t>(length + 2), 4, length} + data;
    };
    const struct {
        const char *claim;
        uint8_t type;
        bool hook;
        std::optional<Bytes> bootFile, option125;
        Bytes added;
        Lines texts;
    } rows[] = {
        {"both, the boot file first", ACK, true, text_bytes("boot.bin"), text_bytes("x"), opt(67, text_bytes("boot.bin")) + inserted125(text_bytes("x")), {"[DHCPSNOOP] Insert option67, len is 8.\r\n", "[DHCPSNOOP] Insert option125, len is 1.\r\n"}},
        {"a length of 0 inserts nothing", ACK, true, Bytes{}, Bytes{}, {}, {}},
        // Kept: lengths that nothing filled in are still the room, and both insertions refuse them.
        {"nothing filled in", ACK, true, std::nullopt, std::nullopt, {}, refused},
        {"no hook", ACK, false, text_bytes("b"), text_bytes("x"), {}, refused},
        {"a NAK gets none", NAK, true, text_bytes("b"), text_bytes("x"), {}, {}},
        {"an offer to a waiting client gets none", OFFER, true, text_bytes("b"), text_bytes("x"), {}, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        SetUp();
        make_binding(HOST, MAC_CLIENT, 1, 10);
        const Parsed discover(Frame{});
        dhcpsnoop_mac_user_add(&discover.info);
        client->flags |= DHCPSNOOP_IF_OPTION82;
        world.bootFile = row.bootFile;
        world.option125 = row.option125;
        if (row.hook)
            gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback;
        debug(1);
        const Frame frame = {.src = MAC_SERVER, .srcIp = SERVER, .srcPort = 67, .dstPort = 68, .op = 2, .yiaddr = HOST, .giaddr = RELAY, .options = opt_type(row.type) + opt_ip(54, SERVER) + own + OPT_END};
        receive(frame, ON2);
        Frame expected = frame; // option 82 is this port's own and goes
        expected.options = opt_type(row.type) + opt_ip(54, SERVER) + row.added + OPT_END;
        EXPECT_EQ(dump(sent_frame()), dump(expected.bytes()));
        Lines texts;
        for (const std::string &text : debug_texts())
            if (text.find("option67") != std::string::npos || text.find("option125") != std::string::npos)
                texts.push_back(text);
        EXPECT_EQ(texts, row.texts);
    }
}

TEST_F(Server, NullsAreIgnored)
{
    dhcpsnoop_server_packet_recv(nullptr);
    Parsed parsed(server_frame(ACK), ON2);
    parsed.info.ifp = nullptr;
    dhcpsnoop_server_packet_recv(&parsed.info);
    EXPECT_EQ(sent_summary(), "");
}

} // namespace
