// The senders: which ports get a frame, how it is tagged for each, and what happens when a port refuses.
#include "daemon_test.h"

#include <linux/if_packet.h>

namespace
{

using Forward = Daemon;

// The five raw senders. Each is called for a frame that came in on port 1 in VLAN 10; towards clients it is
// to leave in VLAN `vid`.
struct Sender {
    const char *name;
    void (*send)(const DhcpsnoopPktInfo *info, uint32_t vid);
    const char *text;   // before "len is …"
    const char *failed; // "%s" is "v6 " or empty
};

const Sender TO_SERVER = {
    "send_to_server", [](const DhcpsnoopPktInfo *info, uint32_t) { dhcpsnoop_send_to_server(info); },
    "Send message to server, len is 286 buflen is 290.", "Send %smessage to server failed!"};
const Sender NPT_TO_SERVER = {
    "npt_send_to_server", [](const DhcpsnoopPktInfo *info, uint32_t) { dhcpsnoop_npt_send_to_server(info); },
    "Npt send message to server, len is 286 buflen is 290.", "Npt send %smessage to server failed!"};
const Sender TO_CLIENT = {"send_to_client",
                          [](const DhcpsnoopPktInfo *info, uint32_t vid) { dhcpsnoop_send_to_client(info, dhcpsnoop_if_lookup(2), vid); },
                          "Send message to client, len is 286 buflen is 290.",
                          "Send %smessage to client failed!"};
const Sender BROADCAST = {"broadcast_forwarding", dhcpsnoop_broadcast_forwarding,
                          "Send broadcast message, len is 286.", "Send %sbroadcast message failed!"};
const Sender NPT_TO_CLIENT = {"npt_send_to_client", dhcpsnoop_npt_send_to_client,
                              "Npt send message to client(port 2), len is 286 buflen is 290.",
                              "Npt send %smessage to client failed, dest port = 2!"};
const Sender *const SENDERS[] = {&TO_SERVER, &NPT_TO_SERVER, &TO_CLIENT, &BROADCAST, &NPT_TO_CLIENT};

using Tags = std::vector<Tag>;

TEST_F(Forward, TagsAsThePortWantsThem)
{
    const Tag in10 = {0x8100, 0x600A}, new10 = {0x8100, 10}, new30 = {0x8100, 30};
    const Tag inner = {0x8100, 5};
    const struct {
        const char *claim;
        Tags frame;
        bool routed, untagged;
        uint32_t tpid;
        // What leaves by each sender; towards clients in VLAN 30.
        Tags toServer, nptToServer, toClient, broadcast, nptToClient;
    } rows[] = {
        {"untagged to untagged", {}, false, true, 0, {}, {}, {}, {}, {}},
        {"tagged to untagged", {in10}, false, true, 0, {}, {}, {}, {}, {}},
        {"untagged to tagged", {}, false, false, 0, {new10}, {new10}, {new30}, {new30}, {new30}},
        // A tag that is kept keeps its priority, unless flooding into another VLAN replaces the whole field.
        {"tagged to tagged", {in10}, false, false, 0, {in10}, {in10}, {in10}, {new30}, {new30}},
        // Router mode plays no part where the port is asked in any case.
        {"tagged to a routed port that sends tagged", {in10}, true, false, 0, {}, {in10}, {}, {new30}, {new30}},
        {"untagged to a routed port that sends tagged", {}, true, false, 0, {}, {new10}, {}, {new30}, {new30}},
        {"the port's own TPID", {}, false, false, 0x9100, {{0x9100, 10}}, {{0x9100, 10}}, {{0x9100, 30}}, {{0x9100, 30}}, {{0x9100, 30}}},
        {"another TPID is no tag for the port", {in10}, false, false, 0x88A8, {{0x88A8, 10}, in10}, {{0x88A8, 10}, in10}, {{0x88A8, 30}, in10}, {{0x88A8, 30}, in10}, {{0x88A8, 30}, in10}},
        {"and is not removed", {in10}, false, true, 0x88A8, {in10}, {in10}, {in10}, {in10}, {in10}},
        {"only the outer of two tags is removed", {in10, inner}, false, true, 0x8100, {inner}, {inner}, {inner}, {inner}, {inner}},
        {"only the outer of two tags is renumbered", {in10, inner}, false, false, 0, {in10, inner}, {in10, inner}, {in10, inner}, {new30, inner}, {new30, inner}},
    };
    for (const auto &row : rows) {
        const Tags *expected[] = {&row.toServer, &row.nptToServer, &row.toClient, &row.broadcast, &row.nptToClient};
        for (size_t i = 0; i < std::size(SENDERS); i++) {
            SCOPED_TRACE(std::string(row.claim) + ", " + SENDERS[i]->name);
            SetUp();
            WorldPort &port = world.trunk(2, {10, 30});
            if (row.untagged)
                port.untagged = {10, 30};
            port.tpid = row.tpid;
            port.workMode = row.routed ? 1 : 0;
            world.access(1, 10);
            world.members(30, {2});
            snoop(1);
            snoop(2, DHCPSNOOP_IF_TRUSTED);
            Frame frame = {.tags = row.frame};
            const Parsed parsed(frame);
            debug(1);
            SENDERS[i]->send(&parsed.info, 30);
            frame.tags = *expected[i];
            EXPECT_EQ(dump(sent_frame()), dump(frame.bytes()));
            // The flood into a VLAN without VLAN interface does not name the TPID.
            EXPECT_EQ(printed(world_format("[DHCPSNOOP] TPID of this interface is 0x%0x.\r\n", row.tpid)), SENDERS[i] != &BROADCAST);
        }
    }
}

TEST_F(Forward, TagCarriesTheWholeVlanAndKeepsItsPriority)
{
    world.access(1, 10);
    world.trunk(2, {4094});
    world.members(4094, {2});
    snoop(1);
    snoop(2, DHCPSNOOP_IF_TRUSTED);
    for (const Sender *sender : SENDERS) {
        for (const auto &[before, after] : {std::pair<Tags, Tags>{{}, {{0x8100, 4094}}}, {{{0x8100, 0xEFFE}}, {{0x8100, 0xEFFE}}}}) {
            world.clear();
            const Parsed parsed(Frame{.tags = before}, {.outer = 4094});
            sender->send(&parsed.info, 4094);
            EXPECT_EQ(dump(sent_frame()), dump(Frame{.tags = after}.bytes())) << sender->name;
        }
    }
}

TEST_F(Forward, WhoGetsIt)
{
    // Port 1 is where the frame came in, attributed to it or to the VLAN interface of VLAN 10.
    constexpr uint32_t T = DHCPSNOOP_IF_TRUSTED;
    // claim, change, flags, disabled, toServer, nptToServer, toClient, broadcast
    const std::tuple<const char *, void (*)(WorldPort &), uint32_t, bool, bool, bool, bool, bool> rows[] = {
        {"a trusted port of the VLAN", [](WorldPort &) {}, T, false, true, true, true, true},
        {"an untrusted port is for clients only", [](WorldPort &) {}, 0, false, false, false, true, true},
        {"a port that is not in use", [](WorldPort &) {}, T, true, false, false, true, false},
        {"a port outside the VLAN", [](WorldPort &port) { port.vlans = {20}; }, T, false, false, false, true, false},
        {"refused with -1", [](WorldPort &port) { port.answer255 = -1; }, T, false, false, false, false, false},
        // Kept: only -1 stops a unicast.
        {"refused with 2", [](WorldPort &port) { port.answer255 = 2; }, T, false, false, false, true, false},
        {"a routed port is asked by one sender only", [](WorldPort &port) { port.workMode = 1, port.answer255 = -1; }, T, false, true, false, true, true},
        {"a VLAN interface", [](WorldPort &port) { port.isVlanIf = true, port.vid = 20; }, T, false, true, false, true, false},
    };
    for (const auto &[claim, change, flags, disabled, toServer, nptToServer, toClient, broadcast] : rows) {
        const bool expected[] = {toServer, nptToServer, toClient, broadcast};
        for (size_t i = 0; i < std::size(expected); i++) {
            SCOPED_TRACE(std::string(claim) + ", " + SENDERS[i]->name);
            SetUp();
            world.access(1, 10);
            change(world.access(2, 10));
            snoop(1, DHCPSNOOP_IF_TRUSTED);
            DhcpsnoopIf *ifp = snoop(2, flags);
            if (disabled)
                ifp->flags &= ~DHCPSNOOP_IF_IN_USE;
            const Parsed parsed(Frame{});
            SENDERS[i]->send(&parsed.info, 10);
            EXPECT_EQ(sent_summary(), expected[i] ? "2 286" : "");
        }
    }
}

TEST_F(Forward, EveryPortInOrderButTheOneItCameFrom)
{
    for (const uint32_t ifIndex : {1u, 2u, 3u, 4u})
        world.access(ifIndex, 10);
    world.vlan_interface(110, 10).vlans = {10};
    world.members(10, {4, 1, 9, 2});
    for (const uint32_t ifIndex : {1u, 2u, 3u, 4u, 110u})
        snoop(ifIndex, DHCPSNOOP_IF_TRUSTED);
    const struct {
        const char *claim;
        const Sender &sender;
        uint32_t inIf;
        const char *sent;
    } rows[] = {
        {"not the interface it is attributed to; a trusted VLAN interface is an egress too", TO_SERVER, 2, "1 286, 3 286, 4 286, 110 290"},
        {"not the member port it came in on, and no VLAN interface", NPT_TO_SERVER, 110, "1 286, 3 286, 4 286"},
        {"not the interface it is attributed to, and no VLAN interface", BROADCAST, 2, "1 286, 3 286, 4 286"},
        // Kept: every member gets the frame, the port it came in on and ports without snooping among them.
        {"every member in the list's order", NPT_TO_CLIENT, 2, "4 286, 1 286, 9 290, 2 286"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.clear();
        const Parsed parsed(Frame{}, {.port = 2, .inIf = row.inIf});
        row.sender.send(&parsed.info, 10);
        EXPECT_EQ(sent_summary(), row.sent);
    }
}

TEST_F(Forward, ThePlatformIsAskedForTheVlanInWhichTheFrameLeaves)
{
    world.access(1, 10);
    world.trunk(2, {10, 30});
    world.members(30, {2});
    snoop(1);
    snoop(2, DHCPSNOOP_IF_TRUSTED);
    const Lines all10 = {"sysIFGet 2 255 vid 10", "qorIfGetApi 2 45", "sysIFGet 2 258 vid 10"};
    const Lines all30 = {"sysIFGet 2 255 vid 30", "qorIfGetApi 2 45", "sysIFGet 2 258 vid 30"};
    const struct {
        const Sender &sender;
        Lines asked;
    } rows[] = {
        {TO_SERVER, all10},
        {NPT_TO_SERVER, all10},
        {TO_CLIENT, all30},
        {BROADCAST, all30},
        {NPT_TO_CLIENT, {"qorVlanGetApi 30 5410 256", "qorIfGetApi 2 45", "sysIFGet 2 258 vid 30"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sender.name);
        world.clear();
        const Parsed parsed(Frame{});
        row.sender.send(&parsed.info, 30);
        EXPECT_EQ(world.asked, row.asked);
    }
}

TEST_F(Forward, AddressSocketAndFailure)
{
    world.access(1, 10);
    world.trunk(2, {10});
    world.members(10, {2, 2});
    snoop(1);
    snoop(2, DHCPSNOOP_IF_TRUSTED);
    for (const Sender *sender : SENDERS) {
        for (const bool ipv6 : {false, true}) {
            SCOPED_TRACE(std::string(sender->name) + (ipv6 ? ", IPv6" : ""));
            world.clear();
            debug(1);
            world.refuse("frame 2", -1, 1);
            const Parsed parsed(Frame{.dst = MAC_CLIENT2}, {.etherType = ipv6 ? 0x86DD : 0x0800});
            sender->send(&parsed.info, 10);
            const auto frames = world.all(Did::Frame);
            ASSERT_EQ(frames.size(), sender == &NPT_TO_CLIENT ? 2u : 1u); // the walk goes on behind a failure
            EXPECT_EQ(frames[0]->socket, ipv6 ? gDhcpsnoop.data6Sock : gDhcpsnoop.dataSock);
            struct sockaddr_ll ll = {};
            ASSERT_EQ(frames[0]->address.size(), 20u);
            memcpy(&ll, frames[0]->address.data(), sizeof ll);
            EXPECT_EQ(hex(Bytes(frames[0]->address.begin() + 2, frames[0]->address.begin() + 4)), ipv6 ? "86 dd" : "08 00");
            EXPECT_TRUE(ll.sll_family == AF_PACKET && ll.sll_ifindex == 2 && ll.sll_pkttype == 2 && ll.sll_halen == 6);
            EXPECT_EQ(world_hex(ll.sll_addr, 8), "02 c1 00 00 00 02 00 00");
            EXPECT_TRUE(printed(std::string("[DHCPSNOOP] ") + sender->text + "\r\n"));
            const std::string format = std::string("[DHCPSNOOP] ") + sender->failed + "\r\n";
            const size_t at = format.find("%s");
            EXPECT_TRUE(printed(std::string(format).replace(at, 2, ipv6 ? "v6 " : "")));
            EXPECT_FALSE(printed(std::string(format).replace(at, 2, ipv6 ? "" : "v6 ")));
        }
    }
}

TEST_F(Forward, LengthLimits)
{
    world.access(1, 10);
    world.trunk(2, {10});
    world.members(10, {2});
    snoop(1);
    snoop(2, DHCPSNOOP_IF_TRUSTED);
    for (const Sender *sender : SENDERS) {
        SCOPED_TRACE(sender->name);
        const struct {
            uint32_t frameLen;
            const char *sent;
        } rows[] = {{2048, "2 2052"}, {2049, ""}, {0xFFFFFFFF, ""}, {16, "2 20"}, {15, ""}, {0, ""}};
        for (const auto &row : rows) {
            SCOPED_TRACE(row.frameLen);
            world.clear();
            Parsed parsed(Frame{});
            parsed.info.frameLen = row.frameLen;
            sender->send(&parsed.info, 10);
            EXPECT_EQ(sent_summary(), row.sent);
        }
        sender->send(nullptr, 10);
    }
    world.clear();
    const Parsed parsed(Frame{});
    dhcpsnoop_send_to_client(&parsed.info, nullptr, 10);
    EXPECT_EQ(sent_summary(), "");
}

TEST_F(Forward, MemberLists)
{
    world.access(1, 10);
    snoop(1);
    // claim, bytes, sent, text
    const std::tuple<const char *, std::optional<size_t>, size_t, bool> rows[] = {
        {"no answer", std::nullopt, 0, true},
        {"an empty list", 0, 0, false},
        {"one member", 4, 1, false},
        {"bytes that are no whole index", 7, 1, false},
        {"a full list", 256, 64, false},
        {"a platform that claims more than the room", 400, 64, false},
    };
    for (const auto &[claim, bytes, sent, text] : rows) {
        SCOPED_TRACE(claim);
        world.clear();
        world.vlanMembers.clear();
        if (bytes)
            world.vlanMembers[10] = Bytes(*bytes, 1);
        debug(1);
        const Parsed parsed(Frame{});
        world.clear();
        dhcpsnoop_npt_send_to_client(&parsed.info, 10);
        EXPECT_EQ(world.all(Did::Frame).size(), sent);
        EXPECT_EQ(printed("[DHCPSNOOP] No member in vlan 10.\r\n"), text);
    }
}

TEST_F(Forward, RelayedByUdp)
{
    world.access(1, 10);
    snoop(1);
    const Frame frame = client_frame(1);
    const Parsed parsed(frame);
    debug(1);
    world.clear();
    dhcpsnoop_udp_socket_send(&parsed.info, ip4(10, 0, 0, 1), ip4(192, 168, 200, 254));
    // Kept: through descriptor 0.
    const auto relays = world.all(Did::Relay);
    ASSERT_EQ(relays.size(), 1u);
    EXPECT_EQ(relays[0]->text, "relay 10.0.0.1 192.168.200.254:67 244"); // packet information in order
    EXPECT_EQ(relays[0]->socket, 0);
    EXPECT_EQ(hex(relays[0]->data), hex(frame.message()));
    EXPECT_EQ(debug_texts(), Lines{"[DHCPSNOOP] Send message from 10.0.0.1 to 192.168.200.254, length 244.\r\n"});

    gDhcpsnoop.udpSock = 950;
    world.refuse("relay");
    dhcpsnoop_udp_socket_send(&parsed.info, 1, 2);
    EXPECT_EQ(world.all(Did::Relay)[1]->socket, 950);
    EXPECT_TRUE(printed("[DHCPSNOOP] Send message ERROR, no 0x1.\r\n"));
    dhcpsnoop_udp_socket_send(nullptr, 1, 2);
}

} // namespace
