// DHCPv6 messages on their way: what is learned from IA options, where the client's port is found, and whole
// exchanges as client, server and the switch between them see them.
#include "daemon_test.h"

#include <algorithm>

#include "dhcp6snoop_msg.h"
#include "dhcpv6_frames.h"

namespace
{

constexpr uint32_t BOTH = DHCPSNOOP_IF_OPTION18 | DHCPSNOOP_IF_OPTION37;
constexpr Arrival FROM_SERVER = {.port = 2};
constexpr const char *HOST = "2001:db8::100", *HOST2 = "2001:db8::101", *TEMPORARY = "2001:db8::ff:1";

// Client 1 on access port 1, another port 3 in the same VLAN 10; the server on port 2; port 4 in VLAN 20.
class Path6 : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
        gDhcpsnoop.enterpriseNum = 32473;
        for (const uint32_t ifIndex : {1u, 2u, 3u})
            world.access(ifIndex, 10);
        world.access(4, 20);
        world.ports[1].location = {0x111, 0x122, 0x133, 4, 5, 6, 0x177};
        world.ipsg[1] = {.items = 0xF0};
        for (const uint32_t ifIndex : {1u, 3u, 4u})
            set_flag_field(snoop(ifIndex, BOTH), DHCPSNOOP_IF_VERSION, 3);
        set_flag_field(snoop(2, DHCPSNOOP_IF_TRUSTED), DHCPSNOOP_IF_VERSION, 3);
        dhcpsnoop_user_timer_check();
        world.clear();
    }

    void TearDown() override { EXPECT_EQ(world_check_tables(true), ""); }

    static void pass_time(int64_t seconds)
    {
        world.now += seconds;
        dhcpsnoop_user_timer_check();
    }
};

// A message through the daemon; what it sent.
template <class Message>
std::string through(const Message &frame, const Arrival &arrival = {})
{
    world.clear();
    receive(frame, arrival);
    return sent_summary();
}

// Every IPv6 binding: "address state lease port", with its type when it is not dynamic.
std::string bindings()
{
    std::vector<std::string> found;
    for (DhcpsnoopLink &bucket : gDhcpsnoop.userHash)
        for (const auto *user : list_each<DhcpsnoopUser>(&bucket)) {
            Bytes address(user->key.ipAddr + 14, user->key.ipAddr + 16);
            found.push_back(world_format("%s%s state %u lease %u port %u", hex(address).c_str(),
                                         user->userType == DHCPSNOOP_USER_DYNAMIC ? "" : " fixed",
                                         user->bindState, user->leaseTime, user->ifIndex));
        }
    std::sort(found.begin(), found.end());
    std::string text;
    for (const std::string &line : found)
        text += (text.empty() ? "" : "; ") + line;
    return text;
}

void obtain(const char *address = HOST, uint32_t valid = 3600)
{
    through(client6(3, ia_na(iaaddr(address, valid))));
    through(server6(7, ia_na(iaaddr(address, valid))), FROM_SERVER);
}

TEST_F(Path6, FourMessages)
{
    // SOLICIT: to the server's port alone, with both options; an IA without address teaches nothing.
    EXPECT_EQ(through(hex_bytes(SOLICIT)), "2 154");
    EXPECT_EQ(hex(sent_frame()), hex(hex_bytes(SOLICIT_18_37)));
    EXPECT_EQ(world.all(Did::Frame)[0]->socket, gDhcpsnoop.data6Sock);
    EXPECT_EQ(bindings(), "");
    // ADVERTISE: to the client's port alone, which its options name, without them.
    through(hex_bytes(ADVERTISE_18_37), FROM_SERVER);
    EXPECT_EQ(world.all(Did::Frame).at(0)->port, 1u);
    EXPECT_EQ(hex(sent_frame()), hex(hex_bytes(ADVERTISE)));
    EXPECT_EQ(bindings(), "");
    // REQUEST of two addresses of an IA_NA and one of an IA_TA: provisional, not in hardware.
    through(hex_bytes(REQUEST));
    EXPECT_EQ(hex(sent_frame()), hex(hex_bytes(REQUEST_18_37)));
    EXPECT_EQ(bindings(), "00 01 state 4 lease 60 port 1; 01 00 state 4 lease 60 port 1; 01 01 state 4 lease 60 port 1");
    EXPECT_EQ(world.calls("hw"), Lines{});
    const DhcpsnoopUser *user = binding(HOST);
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(Bytes(user->mac, user->mac + 6), mac_bytes(MAC_CLIENT));
    EXPECT_EQ(user->vid, 10);
    // REPLY: bound for the valid lifetimes, enforced.
    through(hex_bytes(REPLY_18_37), FROM_SERVER);
    EXPECT_EQ(hex(sent_frame()), hex(hex_bytes(REPLY)));
    EXPECT_EQ(bindings(), "00 01 state 1 lease 600 port 1; 01 00 state 1 lease 3600 port 1; 01 01 state 1 lease 3600 port 1");
    EXPECT_EQ(world.calls("hw add 1").size(), 3u);
    // Bound again by a master: the standby is told of each.
    world.role(DHCPSNOOP_ROLE_MASTER);
    through(hex_bytes(REPLY_18_37), FROM_SERVER);
    EXPECT_EQ(world.calls("qorHwScalarSync").size(), 3u);
    world.role(DHCPSNOOP_ROLE_NONE);
    pass_time(600);
    EXPECT_EQ(binding(TEMPORARY), nullptr);
    EXPECT_NE(binding(HOST), nullptr);
}

TEST_F(Path6, ThroughATrunk)
{
    world.trunk(2, {10, 20});
    EXPECT_EQ(through(hex_bytes(SOLICIT)), "2 158");
    EXPECT_EQ(hex(sent_frame()).substr(0, 53), "33 33 00 01 00 02 02 c1 00 00 00 01 81 00 00 0a 86 dd");
    Frame6 reply = server6(2);
    reply.tags = {{0x8100, 20}};
    EXPECT_EQ(through(reply, {.port = 2, .outer = 20}), "4 66"); // untagged, VLAN 20 alone
    // A client on the trunk: its tag stays in front of the options.
    world.trunk(3, {10, 20});
    Frame6 solicit = client6(1);
    solicit.tags = {{0x8100, 10}};
    EXPECT_EQ(through(solicit, {.port = 3}), "2 122");
    solicit.options = opt6(18, hex_bytes("01 06 00 06 00 0a 01 00 00 03 02 08 00 06 02 00 00 00 01 03")) +
                      opt6(37, hex_bytes("00 00 7e d9 01 06 00 06 00 0a 01 00 00 03 02 08 00 06 02 00 00 00 01 03"));
    EXPECT_EQ(dump(sent_frame()), dump(solicit.bytes()));
    // The server gives them back, with its own tag; found again by VLAN and port.
    Frame6 advertise = server6(2, solicit.options);
    advertise.tags = {{0x8100, 10}};
    EXPECT_EQ(through(advertise, FROM_SERVER), "3 70");
}

TEST_F(Path6, LearnedFromWhichMessages)
{
    const char *const ASKED = "01 00 state 4 lease 60 port 1", *const BOUND = "01 00 state 1 lease 3600 port 1";
    // claim, type, bound (before), after (the binding of HOST)
    const std::tuple<const char *, uint8_t, bool, std::string> rows[] = {
        {"SOLICIT asks", 1, false, ASKED},
        {"REQUEST asks", 3, false, ASKED},
        {"CONFIRM", 4, false, ""},
        {"RENEW", 5, false, ""},
        {"REBIND", 6, false, ""},
        {"INFORMATION-REQUEST", 11, false, ""},
        {"a bound client's REQUEST", 3, true, BOUND},
        {"CONFIRM of a bound client", 4, true, BOUND},
        {"RENEW of a bound client", 5, true, BOUND},
        {"REBIND of a bound client", 6, true, BOUND},
        {"RELEASE", 8, true, ""},
        {"DECLINE", 9, true, ""},
    };
    for (const auto &[claim, type, bound, after] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        if (bound)
            obtain();
        const uint32_t start = bound ? binding(HOST)->leaseStart : 0;
        world.now += 5;
        const Frame6 message = client6(type, ia_na(iaaddr(HOST, 7200)));
        EXPECT_EQ(through(message), "2 162"); // forwarded in any case
        EXPECT_EQ(bindings(), after);
        if (bound && !after.empty()) {
            EXPECT_EQ(binding(HOST)->leaseStart, type == 3 ? start + 5 : start);
        }
    }
}

TEST_F(Path6, RenewedAndRebound)
{
    obtain();
    const auto start = static_cast<uint32_t>(world.now);
    for (const uint8_t type : {uint8_t{5}, uint8_t{6}}) {
        pass_time(1800);
        through(client6(type, ia_na(iaaddr(HOST, 0))));
        EXPECT_EQ(binding(HOST)->leaseStart, start + (type == 5 ? 0u : 1800u)); // not by the client
        through(server6(7, ia_na(iaaddr(HOST, 5000))), FROM_SERVER);
    }
    EXPECT_EQ(binding(HOST)->leaseStart, start + 3600);
    EXPECT_EQ(binding(HOST)->leaseTime, 5000u);
    pass_time(4999);
    EXPECT_NE(binding(HOST), nullptr);
    pass_time(60);
    EXPECT_EQ(binding(HOST), nullptr);
}

TEST_F(Path6, ReconfigureIsPassedOn)
{
    EXPECT_EQ(through(server6(10, opt6(19, {5})), FROM_SERVER), "1 71, 3 71");
}

TEST_F(Path6, RogueServer)
{
    through(client6(3, ia_na(iaaddr(HOST2, 60))), {.port = 2}); // nor does a server's port teach anything of clients
    EXPECT_EQ(bindings(), "");
    through(client6(3, ia_na(iaaddr(HOST, 60))));
    const std::string before = world_state();
    debug(1);
    for (const uint8_t type : {uint8_t{2}, uint8_t{7}, uint8_t{10}}) {
        Frame6 rogue = server6(type, ia_na(iaaddr(HOST, 9999)) + opt6(18, {1}));
        EXPECT_EQ(through(rogue, {.port = 3}), "");
        EXPECT_TRUE(printed("[DHCPSNOOP] Port state is untrust, stop process!\r\n"));
        EXPECT_FALSE(printed("[DHCPSNOOP] Process each IA option, total num 1.\r\n"));
    }
    debug(0);
    EXPECT_EQ(world_state(), before);
}

// What the IA options of one message do. The bindings of before: HOST bound, HOST2 asked for, ...::1 static.
TEST_F(Path6, IaOptions)
{
    const std::string fixed = "00 01 fixed state 1 lease 3600 port 1", host = "; 01 00 state 1 lease 3600 port 1",
                      host2 = "; 01 01 state 4 lease 60 port 1", bound2 = "; 01 01 state 1 lease 900 port 1";
    const std::string all = fixed + host + host2, bound = fixed + host + bound2, only2 = fixed + host2; // bound: HOST2, too
    const Bytes ok2 = iaaddr(HOST2, 900), gone = iaaddr(HOST, 0);
    // claim, type, options, after
    const std::tuple<const char *, uint8_t, Bytes, std::string> rows[] = {
        {"REPLY binds", 7, ia_na(ok2), bound},
        {"ADVERTISE does not", 2, ia_na(ok2), all},
        {"in an IA_TA", 7, ia_ta(ok2), bound},
        {"not in an IA_PD", 7, opt6(25, Bytes(12, 0) + ok2), all},
        {"not outside an IA", 7, ok2, all},
        {"lifetime 0 deletes", 7, ia_na(gone), only2},
        {"one kept, one deleted", 7, ia_na(gone + ok2), fixed + bound2},
        {"in two IAs", 7, ia_na(gone) + ia_ta(ok2), fixed + bound2},
        {"an unknown address creates nothing", 7, ia_na(iaaddr("2001:db8::999", 60)), all},
        {"a static one stays", 7, ia_na(iaaddr("2001:db8::1", 60)), all},
        {"a static one is not deleted", 7, ia_na(iaaddr("2001:db8::1", 0)), all},
        {"the unspecified address is skipped", 7, ia_na(iaaddr("::", 0) + ok2), bound},
        {"NoAddrsAvail skips the IA", 7, ia_na(status6(2) + gone), all},
        {"and only that one", 7, ia_na(status6(2) + ok2) + ia_ta(gone), only2},
        {"behind the address as well", 7, ia_na(gone + status6(2)), all},
        {"Success does not", 7, ia_na(status6(0) + ok2), bound},
        {"the first status counts", 7, ia_na(status6(0) + status6(2) + ok2), bound},
        {"a status of one byte is none", 7, ia_na(opt6(13, {2}) + ok2), bound},
        {"a status of the message is not looked at", 7, status6(2) + ia_na(ok2), bound},
        {"an address's failure deletes it", 7, ia_na(iaaddr(HOST, 60, status6(4))), only2},
        {"an address's Success binds it", 7, ia_na(iaaddr(HOST2, 900, status6(0))), bound},
        // Kept: a failure seen once holds for all later addresses of the message.
        {"of the same IA", 7, ia_na(iaaddr(HOST2, 900, status6(4)) + iaaddr(HOST, 60)), fixed},
        {"of later IAs", 7, ia_na(iaaddr(HOST2, 900, status6(4))) + ia_ta(iaaddr(HOST, 60)), fixed},
        {"until an address says otherwise", 7, ia_na(iaaddr(HOST, 60, status6(4)) + iaaddr(HOST2, 900, status6(0))), fixed + bound2},
        {"a status of one byte changes nothing", 7, ia_na(iaaddr(HOST2, 900, opt6(13, {4}))), bound},
        {"RELEASE of both", 8, ia_na(iaaddr(HOST, 60) + ok2), fixed},
        {"DECLINE of one", 9, ia_na(ok2), fixed + host},
        {"SOLICIT with lifetime 0 gives up", 1, ia_na(gone), only2},
        // Lengths that lie.
        {"an IAADDR of 23 bytes is skipped", 7, ia_na(opt6(5, Bytes(23, 0)) + ok2), bound},
        {"an IA_NA shorter than its fixed part", 7, opt6(3, Bytes(11, 0)), all},
        {"what stands behind it is not its own", 7, opt6(3, {}) + opt6(1, Bytes(8, 0)) + gone, all},
        {"nor behind an IA_TA of 0", 7, opt6(4, {}) + opt6(1, {}) + gone, all},
        {"an IA_TA shorter than its fixed part", 7, opt6(4, Bytes(3, 0)), all},
        {"IA_TA read as such, not with 12 fixed bytes", 7, opt6(4, Bytes(4, 0) + gone), only2},
        {"an IA that claims more than there is", 7, opt6(3, Bytes(12, 0) + gone, 65535), only2},
        {"an IAADDR that claims more than there is", 7, ia_na(opt6(5, Bytes(gone.begin() + 4, gone.end()), 65535)), only2},
        {"an IAADDR of which 23 bytes are there", 7, opt6(3, Bytes(12, 0) + opt6(5, Bytes(gone.begin() + 4, gone.end() - 1), 24), 40), all},
        {"three bytes of an option in the IA", 7, ia_na({0, 5, 0}), all},
        {"a status that is cut off", 7, ia_na(gone + opt6(13, {0}, 2)), only2},
        {"an option of 65535 in front", 7, ia_na(opt6(1, {1, 2}, 65535) + ok2), all},
        {"a step of 65536 does not come round", 7, ia_na(opt6(1, {1, 2}, 65532) + ok2), all},
    };
    for (const auto &[claim, type, options, after] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        obtain();
        through(client6(3, ia_na(iaaddr(HOST2, 60))));
        make_binding(key6("2001:db8::1"), MAC_CLIENT2, 1, 10)->userType = DHCPSNOOP_USER_STATIC;
        dhcpsnoop_if_lookup(1)->curUser--;
        ASSERT_EQ(bindings(), all);
        const bool fromServer = type == 2 || type == 7;
        through(fromServer ? server6(type, options) : client6(type, options), fromServer ? FROM_SERVER : Arrival{});
        EXPECT_FALSE(world.all(Did::Frame).empty()); // it is forwarded whatever it says
        EXPECT_EQ(bindings(), after);
    }
}

TEST_F(Path6, IaTexts)
{
    obtain();
    debug(1);
    world.clear();
    Parsed reply(server6(7, ia_na(status6(2)) + ia_ta({}) + ia_na(iaaddr(HOST, 0) + iaaddr("::", 9))));
    world.clear();
    dhcp6snoop_process_each_ia_opt(&reply.info, 0);
    const Lines texts = debug_texts();
    const Lines expected = {"[DHCPSNOOP] Process each IA option, total num 3.\r\n",
                            "[DHCPSNOOP] IA option type 3, len 18.\r\n",
                            "[DHCPSNOOP] Status code of IA option is not OK!\r\n",
                            "[DHCPSNOOP] IA option type 4, len 4.\r\n",
                            "[DHCPSNOOP] IA_ADDR option doesn't exist!\r\n",
                            "[DHCPSNOOP] IA option type 3, len 68.\r\n",
                            "[DHCPSNOOP] Get ip address 2001:db8::100 in IA_ADDR option, valid_time 0.\r\n",
                            "[DHCPSNOOP] Delete user: ip is 2001:db8::100.\r\n"};
    ASSERT_GT(texts.size(), expected.size());
    EXPECT_EQ(Lines(texts.begin(), texts.begin() + static_cast<ptrdiff_t>(expected.size())), expected);
    EXPECT_EQ(texts.back(), "[DHCPSNOOP] Get ip address :: in IA_ADDR option, valid_time 9.\r\n");
    Parsed none(server6(7));
    world.clear();
    dhcp6snoop_process_each_ia_opt(&none.info, 0);
    EXPECT_EQ(debug_texts(), Lines{"[DHCPSNOOP] Process each IA option, total num 0.\r\n"});
    dhcp6snoop_process_each_ia_opt(nullptr, 0);
}

// Kept: the length left for the next IAADDR is counted from the whole inner area each time.
TEST_F(Path6, AddressesOfOneIa)
{
    const auto address = [](int n) { return iaaddr(world_format("2001:db8::%d", n).c_str(), 60); };
    const Bytes other = opt6(1, Bytes(24, 0));
    const auto claims = [&](uint16_t inner) { return opt6(3, Bytes(12, 0) + address(1), static_cast<uint16_t>(12 + inner)); };
    Bytes many;
    for (int n = 1; n <= 60; n++)
        many = many + address(n);
    // claim, options, learned
    const std::tuple<const char *, Bytes, size_t> rows[] = {
        {"a fourth behind the end of three, which the overstated length still reaches", ia_na(address(1) + address(2) + address(3)) + address(4), 4},
        {"also behind another option of that size", ia_na(address(1) + address(2) + address(3)) + other + address(4), 4},
        {"of two it reaches no further than such an option", ia_na(address(1) + address(2)) + other + address(4), 2},
        {"with one address the area ends with it", ia_na(address(1)) + address(2), 1},
        {"as many as a frame holds", ia_na(many), 60},
        // The first address counts whatever the IA says of its own length, if that is more than its fixed part.
        {"the fixed part alone", claims(0), 0},
        {"a byte more", claims(1), 1},
        {"less than an option's header more", claims(3), 1},
    };
    for (const auto &[claim, options, learned] : rows) {
        SetUp();
        dhcpsnoop_if_lookup(1)->maxUser = 100;
        through(client6(3, options));
        EXPECT_EQ(count_bindings(), learned) << claim;
    }
}

TEST_F(Path6, AFullPortStopsTheLearningOnly)
{
    dhcpsnoop_if_lookup(1)->maxUser = 2;
    obtain();
    EXPECT_EQ(through(client6(3, ia_na(iaaddr("2001:db8::1", 60) + iaaddr("2001:db8::2", 60)) + ia_ta(iaaddr(HOST, 0)))), "2 226");
    // The second is refused, and what follows in the message is not looked at.
    EXPECT_EQ(bindings(), "00 01 state 4 lease 60 port 1; 01 00 state 1 lease 3600 port 1");
}

TEST_F(Path6, ClientsPortByItsOption)
{
    const Bytes id1 = hex_bytes("01 06 00 06 00 0a 11 22 77 33 02 08 00 06 02 00 00 00 01 01");
    const Bytes id3 = hex_bytes("01 06 00 06 00 0a 01 00 00 03 02 08 00 06 02 00 00 00 01 03");
    const auto eighteen = [](const Bytes &id) { return opt6(18, id); };
    const auto thirtySeven = [](const Bytes &id) { return opt6(37, be32(32473) + id); };
    Bytes otherVlan = id1;
    otherVlan[5] = 20;
    // claim, options, flags (of port 1), sent
    const std::tuple<const char *, Bytes, uint32_t, std::string> rows[] = {
        {"18 of port 1", eighteen(id1), BOTH, "1 66"},
        {"18 of port 3", eighteen(id3), BOTH, "3 66"},
        {"37 of port 3", thirtySeven(id3), BOTH, "3 66"},
        {"both of port 1, as inserted", eighteen(id1) + thirtySeven(id1), BOTH, "1 66"},
        {"both, the other way round", thirtySeven(id1) + eighteen(id1), BOTH, "1 66"},
        {"18 decides when they differ", eighteen(id3) + thirtySeven(id1), BOTH, "3 66"},
        {"37 when 18 is of no port", eighteen({1, 2}) + thirtySeven(id3), BOTH, "3 72"},
        {"of no port", eighteen({1, 2}), BOTH, "1 72, 3 72"},
        {"of another VLAN", eighteen(otherVlan), BOTH, "1 90, 3 90"},
        {"of another enterprise", opt6(37, be32(9) + id1), BOTH, "1 94, 3 94"},
        {"one byte short", eighteen(Bytes(id1.begin(), id1.end() - 1)), BOTH, "1 89, 3 89"},
        {"cut off by the end of the message", opt6(18, Bytes(id1.begin(), id1.end() - 1), 20), BOTH, "1 89, 3 89"},
        {"none", {}, BOTH, "1 66, 3 66"},
        // The port is found although it does not ask for the option; then nothing is stripped.
        {"a port that does not ask", eighteen(id1) + thirtySeven(id1), 0, "1 118"},
        {"a port that asks for 37 alone", eighteen(id1) + thirtySeven(id1), DHCPSNOOP_IF_OPTION37, "1 90"},
        {"a port that asks for 18 alone", eighteen(id1) + thirtySeven(id1), DHCPSNOOP_IF_OPTION18, "1 94"},
    };
    for (const auto &[claim, options, flags, sent] : rows) {
        SCOPED_TRACE(claim);
        DhcpsnoopIf *port = dhcpsnoop_if_lookup(1);
        port->flags = (port->flags & ~BOTH) | flags;
        EXPECT_EQ(through(server6(2, options), FROM_SERVER), sent);
    }
    dhcpsnoop_if_lookup(1)->flags |= BOTH;
    // Its last byte stands behind the message.
    Frame6 cut = server6(2, opt6(18, Bytes(id1.begin(), id1.end() - 1), 20));
    cut.padding = {id1.back()};
    EXPECT_EQ(through(cut, FROM_SERVER), "1 89, 3 89");
    // A template of what the frame alone tells cannot be rebuilt for a reply.
    gDhcpsnoop.interfaceIdFmt = {5, 2, "%y"};
    world.ports[1].number = 77;
    EXPECT_EQ(through(server6(2, eighteen(text_bytes("77"))), FROM_SERVER), "1 72, 3 72");
    gDhcpsnoop.interfaceIdFmt = {5, 2, "%i"};
    EXPECT_EQ(through(server6(2, eighteen(text_bytes("77"))), FROM_SERVER), "1 66");
    // 255 bytes of template, all the room that is asked for and more than the buffer's.
    gDhcpsnoop.interfaceIdFmt = {5, 255, {}};
    std::fill_n(gDhcpsnoop.interfaceIdFmt.text, 255, 'z');
    EXPECT_EQ(through(server6(2, eighteen(Bytes(255, 'z'))), FROM_SERVER), "1 66");
    gDhcpsnoop.remoteId6Fmt = gDhcpsnoop.interfaceIdFmt;
    EXPECT_EQ(through(server6(2, thirtySeven(Bytes(255, 'z'))), FROM_SERVER), "1 66");
}

TEST_F(Path6, ClientOnARouterPort)
{
    world.access(5, 10);
    world.members(10, {1, 3, 5});
    dhcpsnoop_if_lookup(1)->flags |= DHCPSNOOP_IF_ROUTER;
    through(hex_bytes(ADVERTISE_18_37), FROM_SERVER);
    EXPECT_EQ(sent_summary(), "1 166, 3 166, 5 166");
}

TEST_F(Path6, OnAVlanInterface)
{
    world.access(5, 10);
    world.vlan_interface(110, 10);
    world.members(10, {1, 2, 3, 5});
    DhcpsnoopIf *vlan = snoop(110, BOTH);
    set_flag_field(vlan, DHCPSNOOP_IF_VERSION, 3);
    const Arrival from5 = {.port = 5, .inIf = 110};
    EXPECT_EQ(through(client6(3, ia_na(iaaddr(HOST, 60))), from5), "2 162");
    EXPECT_EQ(bindings(), "01 00 state 4 lease 60 port 5");
    EXPECT_EQ(vlan->curUser, 1);
    const Bytes sent = sent_frame();
    // The reply: found by the VLAN interface's options, to its members.
    Frame6 reply = server6(7);
    reply.options = Bytes(sent.begin() + 66, sent.end());
    reply.options[4 + 12 + 4 + 23] = 200;
    EXPECT_NE(through(reply, FROM_SERVER), "");
    EXPECT_EQ(binding(HOST)->bindState, 1);
    // A reply that names nobody goes to every member, the port it came from among them.
    EXPECT_EQ(through(server6(2), FROM_SERVER), "1 66, 2 66, 3 66, 5 66");
    // A port that snoops by itself is not also handled through its VLAN.
    debug(1);
    EXPECT_EQ(through(client6(1), {.port = 1, .inIf = 110}), "");
    EXPECT_TRUE(printed("[DHCPSNOOP] MuxTk discords process the received packet!\r\n"));
    // No server is listened to behind a VLAN interface, trusted or not.
    vlan->flags |= DHCPSNOOP_IF_TRUSTED;
    EXPECT_EQ(through(server6(2), from5), "");
    EXPECT_TRUE(printed("[DHCPSNOOP] MuxTk discords process the received packet!\r\n"));
    EXPECT_FALSE(printed("[DHCPSNOOP] Process server packet!\r\n"));
    vlan->flags &= ~DHCPSNOOP_IF_TRUSTED;
    pass_time(200);
    EXPECT_EQ(count_bindings(), 0u);
}

TEST_F(Path6, Texts)
{
    debug(1);
    through(hex_bytes(SOLICIT_18_37));
    EXPECT_EQ(debug_texts(),
              (Lines{
                  "[DHCPSNOOP] Receive a dhcp message, check and process it!\r\n",
                  "[DHCPSNOOP] svlan 4096, cvlan 10.\r\n",
                  "[DHCPSNOOP] Src_port 546, ip6_start 14, udp6_start 54, dh6_start 62.\r\n",
                  "[DHCPSNOOP] Receive a packet: interface 1,invlan 0,outvlan 10,received len 154,msg len 154.\r\n",
                  "[DHCPSNOOP] dhcpv6 packet,type is 1.\r\n", "[DHCPSNOOP] Process client packet.\r\n",
                  "[DHCPSNOOP] Process each IA option, total num 1.\r\n",
                  "[DHCPSNOOP] IA option type 3, len 12.\r\n", "[DHCPSNOOP] IA_ADDR option doesn't exist!\r\n",
                  "[DHCPSNOOP] Send packet to server.\r\n", "[DHCPSNOOP] TPID of this interface is 0x0.\r\n",
                  "[DHCPSNOOP] Send message to server, len is 154 buflen is 154.\r\n",
                  "[DHCPSNOOP] Process pkt end.\r\n"}));
    through(hex_bytes(ADVERTISE_18_37), FROM_SERVER);
    const Lines texts = debug_texts();
    ASSERT_GE(texts.size(), 9u);
    EXPECT_EQ(Lines(texts.begin() + 5, texts.begin() + 9),
              (Lines{"[DHCPSNOOP] Process server packet!\r\n", "[DHCPSNOOP] Strip interface id option, client port 1.\r\n",
                     "[DHCPSNOOP] Strip remote id option, client port 1.\r\n", "[DHCPSNOOP] Unicast packet to client port.\r\n"}));
    through(server6(2), FROM_SERVER);
    EXPECT_TRUE(printed("[DHCPSNOOP] Broadcast packet to client.\r\n"));
    EXPECT_TRUE(printed("[DHCPSNOOP] Vlan 10 is disable!\r\n"));
}

// A frame of one version on the other's socket: the version nibble chose the parser, the socket the path.
TEST_F(Path6, TheWrongSocket)
{
    const Bytes v4 = client_frame(1).bytes(), v6 = hex_bytes(REQUEST);
    receive(v4, {.etherType = 0x86DD});
    receive(server_frame(5).bytes(), {.port = 2, .etherType = 0x86DD});
    receive(v6, {.etherType = 0x0800});
    receive(hex_bytes(REPLY_18_37), {.port = 2, .etherType = 0x0800});
    EXPECT_EQ(count_bindings(), 0u);
    dhcp6snoop_client_packet_recv(nullptr);
    dhcp6snoop_server_packet_recv(nullptr);
}

} // namespace
