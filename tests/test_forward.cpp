// The senders: which ports get a frame, how it is tagged for each, and what happens when a port refuses.
#include <arpa/inet.h>
#include <linux/if_packet.h>

#include "event_message.h"
#include "scene.h"

namespace
{

// The five raw senders. Each is called for a frame that came in on port 1 in VLAN 10; towards clients it is to leave in VLAN 30.
const struct Sender {
    void (*send)(const DhcpsnoopPktInfo *info, uint32_t vid);
    const char *said, *asked;       // for a frame of 286 bytes that leaves port 2 with a tag
    const char *failed6, *failed4; // without "[DHCPSNOOP] " and line end, as `said`
} SENDERS[] = {
    // clang-format off
    {[](const DhcpsnoopPktInfo *info, uint32_t) { dhcpsnoop_send_to_server(info); }, "Send message to server, len is 286 buflen is 290.",
     "sysIFGet 2 255 vid 10, qorIfGetApi 2 45, sysIFGet 2 258 vid 10, ", "Send v6 message to server failed!", "Send message to server failed!"},
    {[](const DhcpsnoopPktInfo *info, uint32_t) { dhcpsnoop_npt_send_to_server(info); }, "Npt send message to server, len is 286 buflen is 290.",
     "sysIFGet 2 255 vid 10, qorIfGetApi 2 45, sysIFGet 2 258 vid 10, ", "Npt send v6 message to server failed!", "Npt send message to server failed!"},
    {[](const DhcpsnoopPktInfo *info, uint32_t vid) { dhcpsnoop_send_to_client(info, dhcpsnoop_if_lookup(2), vid); }, "Send message to client, len is 286 buflen is 290.",
     "sysIFGet 2 255 vid 30, qorIfGetApi 2 45, sysIFGet 2 258 vid 30, ", "Send v6 message to client failed!", "Send message to client failed!"},
    {dhcpsnoop_broadcast_forwarding, "Send broadcast message, len is 286.",
     "sysIFGet 2 255 vid 30, qorIfGetApi 2 45, sysIFGet 2 258 vid 30, ", "Send v6 broadcast message failed!", "Send broadcast message failed!"},
    {dhcpsnoop_npt_send_to_client, "Npt send message to client(port 2), len is 286 buflen is 290.",
     "qorVlanGetApi 30 5410 256, qorIfGetApi 2 45, sysIFGet 2 258 vid 30, ", "Npt send v6 message to client failed, dest port = 2!", "Npt send message to client failed, dest port = 2!"},
    // clang-format on
};
const Sender &TO_SERVER = SENDERS[0], &NPT_TO_SERVER = SENDERS[1], &TO_CLIENT = SENDERS[2], &BROADCAST = SENDERS[3], &NPT_TO_CLIENT = SENDERS[4];

using Tags = std::vector<Tag>;

// Port 2, trusted and snooped, has VLANs 10, 30 and 4094 with tags, and is a member of VLANs 30 and 4094, if `words` do not say otherwise.
void set_up(const std::string &words = "")
{
    const auto has = [&words](const char *word) { return words.find(word) != std::string::npos; };
    world.reset();
    world.access(1, 10);
    WorldPort &port = world.trunk(2, {10, 30, 4094});
    if (has("untagged"))
        port.untagged = port.vlans;
    port.tpid = has("9100") ? 0x9100 : has("88a8") ? 0x88A8 : has("8100") ? 0x8100 : 0;
    port.workMode = has("routed");
    port.isVlanIf = has("vlan-if");
    if (has("outside"))
        port.vlans = {20};
    if (has("answers"))
        port.answer255 = has("answers -1") ? -1 : 2;
    for (const uint32_t vid : {30u, 4094u})
        world.members(vid, {2});
    snoop(1, DHCPSNOOP_IF_TRUSTED);
    DhcpsnoopIf *ifp = snoop(2, has("untrusted") ? 0 : DHCPSNOOP_IF_TRUSTED);
    if (has("unused"))
        ifp->flags &= ~DHCPSNOOP_IF_IN_USE;
    debug(1);
}

const Tag IN10 = {0x8100, 0x600A}, INNER = {0x8100, 5};

const struct {
    const char *claim, *before;
    Tags tags; // of the frame that came in
    // What leaves port 2 by each sender: "none", or TPID and tag of each tag.
    const char *toServer, *nptToServer, *toClient, *broadcast, *nptToClient;
} ROWS[] = {
    // clang-format off
    {"untagged to untagged", "untagged", {}, "", "", "", "", ""},
    {"tagged to untagged", "untagged", {IN10}, "", "", "", "", ""},
    {"untagged to tagged", "", {}, " 8100.000a", " 8100.000a", " 8100.001e", " 8100.001e", " 8100.001e"},
    {"a tag that is kept keeps its priority, unless flooding into another VLAN replaces the whole field", "", {IN10}, " 8100.600a", " 8100.600a", " 8100.600a", " 8100.001e", " 8100.001e"},
    {"the whole VLAN", "4094", {}, " 8100.0ffe", " 8100.0ffe", " 8100.0ffe", " 8100.0ffe", " 8100.0ffe"},
    {"the whole VLAN is kept", "4094", {{0x8100, 0xEFFE}}, " 8100.effe", " 8100.effe", " 8100.effe", " 8100.effe", " 8100.effe"},
    {"tagged to a routed port that sends tagged: its mode plays no part where the port is asked in any case", "routed", {IN10}, "", " 8100.600a", "", " 8100.001e", " 8100.001e"},
    {"untagged to a routed port that sends tagged", "routed", {}, "", " 8100.000a", "", " 8100.001e", " 8100.001e"},
    {"the port's own TPID", "9100", {}, " 9100.000a", " 9100.000a", " 9100.001e", " 9100.001e", " 9100.001e"},
    {"another TPID is no tag for the port", "88a8", {IN10}, " 88a8.000a 8100.600a", " 88a8.000a 8100.600a", " 88a8.001e 8100.600a", " 88a8.001e 8100.600a", " 88a8.001e 8100.600a"},
    {"and is not removed", "88a8 untagged", {IN10}, " 8100.600a", " 8100.600a", " 8100.600a", " 8100.600a", " 8100.600a"},
    {"only the outer of two tags is removed", "8100 untagged", {IN10, INNER}, " 8100.0005", " 8100.0005", " 8100.0005", " 8100.0005", " 8100.0005"},
    {"only the outer of two tags is renumbered", "", {IN10, INNER}, " 8100.600a 8100.0005", " 8100.600a 8100.0005", " 8100.600a 8100.0005", " 8100.001e 8100.0005", " 8100.001e 8100.0005"},
    {"an untrusted port is for clients only", "untrusted", {}, "none", "none", " 8100.001e", " 8100.001e", " 8100.001e"},
    {"a port that is not in use", "unused", {}, "none", "none", " 8100.001e", "none", " 8100.001e"},
    {"a port outside the VLAN", "outside", {}, "none", "none", " 8100.001e", "none", " 8100.001e"},
    {"refused with -1", "answers -1", {}, "none", "none", "none", "none", " 8100.001e"},
    {"Kept: only -1 stops a unicast", "answers 2", {}, "none", "none", " 8100.001e", "none", " 8100.001e"},
    {"a routed port is asked by one sender only", "routed answers -1", {}, "", "none", "", " 8100.001e", " 8100.001e"},
    {"a VLAN interface", "vlan-if", {}, " 8100.000a", "none", " 8100.001e", "none", " 8100.001e"},
    // clang-format on
};

using Forward = Daemon;

TEST_F(Forward, WhoGetsItWithWhichTags)
{
    for (const auto &row : ROWS) {
        const char *const expected[] = {row.toServer, row.nptToServer, row.toClient, row.broadcast, row.nptToClient};
        for (size_t i = 0; i < std::size(SENDERS); i++) {
            SCOPED_TRACE(std::string(row.claim) + ", " + SENDERS[i].said);
            set_up(row.before);
            const uint16_t vid = strstr(row.before, "4094") != nullptr ? 4094 : 10;
            Frame frame = {.tags = row.tags};
            const Parsed parsed(frame, {.outer = vid});
            SENDERS[i].send(&parsed.info, vid == 10 ? 30 : vid);
            std::string tags = world.all(Did::Frame).empty() ? "none" : "";
            frame.tags.clear();
            for (const WorldEntry *sent : world.all(Did::Frame)) {
                const auto at = [&](size_t offset) { return static_cast<uint16_t>(sent->data[offset] << 8 | sent->data[offset + 1]); };
                for (size_t tag = 12; at(tag) != 0x0800 && tag < 24; tag += 4) {
                    tags += world_format(" %04x.%04x", at(tag), at(tag + 2));
                    frame.tags.push_back({at(tag), at(tag + 2)});
                }
                EXPECT_EQ(dump(sent->data), dump(frame.bytes()));
            }
            EXPECT_EQ(tags, expected[i]);
            // Kept: the flood into a VLAN without VLAN interface does not name the TPID.
            EXPECT_EQ(printed(world_format("[DHCPSNOOP] TPID of this interface is 0x%0x.\r\n", world.ports[2].tpid)), tags != "none" && &SENDERS[i] != &BROADCAST);
        }
    }
}

TEST_F(Forward, EveryPortInOrderButTheOneItCameFrom)
{
    for (const uint32_t ifIndex : {1u, 2u, 3u, 4u})
        world.access(ifIndex, 10);
    world.vlan_interface(110, 10).vlans = {10};
    for (const uint32_t ifIndex : {1u, 2u, 3u, 4u, 110u})
        snoop(ifIndex, DHCPSNOOP_IF_TRUSTED);
    const struct {
        const char *claim;
        const Sender &sender;
        uint32_t inIf;
        const char *sent;
        std::optional<Bytes> members = host32(4) + host32(1) + host32(9) + host32(2);
    } rows[] = {
        // clang-format off
        {"not the interface it is attributed to; a trusted VLAN interface is an egress too", TO_SERVER, 2, "1 286, 3 286, 4 286, 110 290"},
        {"not the member port it came in on, and no VLAN interface", NPT_TO_SERVER, 110, "1 286, 3 286, 4 286"},
        {"not the interface it is attributed to, and no VLAN interface", BROADCAST, 2, "1 286, 3 286, 4 286"},
        {"Kept: every member in the list's order, the port it came in on and ports without snooping among them", NPT_TO_CLIENT, 2, "4 286, 1 286, 9 290, 2 286"},
        {"no list", NPT_TO_CLIENT, 2, "", std::nullopt},
        {"an empty list", NPT_TO_CLIENT, 2, "", Bytes{}},
        {"bytes that are no whole index", NPT_TO_CLIENT, 2, "2 286", host32(2) + Bytes(3, 2)},
        {"a full list", NPT_TO_CLIENT, 2, nullptr, Bytes(256, 1)},
        {"a platform that claims more than the room", NPT_TO_CLIENT, 2, nullptr, Bytes(400, 1)},
        // clang-format on
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.vlanMembers.clear();
        if (row.members)
            world.vlanMembers[10] = *row.members;
        world.clear();
        debug(1);
        const Parsed parsed(Frame{}, {.port = 2, .inIf = row.inIf});
        row.sender.send(&parsed.info, 10);
        EXPECT_EQ(row.sent == nullptr ? std::to_string(world.all(Did::Frame).size()) : sent_summary(), row.sent == nullptr ? "64" : row.sent);
        EXPECT_EQ(printed("[DHCPSNOOP] No member in vlan 10.\r\n"), !row.members);
    }
}

TEST_F(Forward, AddressSocketAndFailure)
{
    for (const Sender &sender : SENDERS) {
        for (const bool ipv6 : {false, true}) {
            SCOPED_TRACE(std::string(sender.said) + (ipv6 ? ", IPv6" : ""));
            set_up();
            const Parsed parsed(Frame{.dst = MAC_CLIENT2}, {.etherType = ipv6 ? 0x86DD : 0x0800});
            world.clear();
            sender.send(&parsed.info, 30);
            std::string asked;
            for (const std::string &question : world.asked)
                asked += question + ", ";
            EXPECT_EQ(asked, sender.asked);
            ASSERT_EQ(sent_summary(), "2 290");
            const WorldEntry &frame = *world.all(Did::Frame)[0];
            EXPECT_EQ(frame.socket, ipv6 ? gDhcpsnoop.data6Sock : gDhcpsnoop.dataSock);
            struct sockaddr_ll ll = {};
            ASSERT_EQ(frame.address.size(), 20u);
            memcpy(&ll, frame.address.data(), sizeof ll);
            EXPECT_EQ(world_format("%u IPv%d %d %u %u ", ll.sll_family, ll.sll_protocol == htons(0x86DD) ? 6 : ll.sll_protocol == htons(0x0800) ? 4 : 0, ll.sll_ifindex, ll.sll_pkttype, ll.sll_halen) + world_hex(ll.sll_addr, 8),
                      ipv6 ? "17 IPv6 2 2 6 02 c1 00 00 00 02 00 00" : "17 IPv4 2 2 6 02 c1 00 00 00 02 00 00");
            EXPECT_EQ(unsaid(std::string(sender.said) + "|!" + sender.failed4 + "|!" + sender.failed6), "");

            world.members(30, {2, 2});
            world.refuse("frame 2", -1, 1);
            sender.send(&parsed.info, 30); // a walk goes on behind a failure
            EXPECT_EQ(sent_summary(), &sender == &NPT_TO_CLIENT ? "2 290, 2 290, 2 290" : "2 290, 2 290");
            EXPECT_EQ(unsaid(ipv6 ? std::string("!") + sender.failed4 + "|" + sender.failed6 : sender.failed4 + std::string("|!") + sender.failed6), "");
        }
        world.members(30, {2});
        for (const auto &[frameLen, sent] : std::map<uint32_t, const char *>{{2048, "2 2052"}, {2049, ""}, {0xFFFFFFFF, ""}, {16, "2 20"}, {15, ""}, {0, ""}}) {
            Parsed parsed(Frame{});
            parsed.info.frameLen = frameLen;
            world.clear();
            sender.send(&parsed.info, 30);
            EXPECT_EQ(sent_summary(), sent) << sender.said << frameLen;
        }
        sender.send(nullptr, 10);
    }
    const Parsed parsed(Frame{});
    dhcpsnoop_send_to_client(&parsed.info, nullptr, 10);
}

TEST_F(Forward, RelayedByUdp)
{
    set_up();
    const Frame frame = client_frame(DISCOVER);
    const Parsed parsed(frame);
    dhcpsnoop_udp_socket_send(&parsed.info, ip4(10, 0, 0, 1), ip4(192, 168, 200, 254));
    gDhcpsnoop.udpSock = 950;
    world.refuse("relay");
    dhcpsnoop_udp_socket_send(&parsed.info, 1, 2);
    dhcpsnoop_udp_socket_send(nullptr, 1, 2);
    EXPECT_EQ(outcome(), "relay 10.0.0.1 192.168.200.254:67 244, relay 0.0.0.1 0.0.0.2:67 244"); // packet information in order
    EXPECT_EQ(unsaid("Send message from 10.0.0.1 to 192.168.200.254, length 244.|Send message ERROR, no 0x1."), "");
    const auto relays = world.all(Did::Relay);
    EXPECT_EQ(hex(relays.at(0)->data), hex(frame.message()));
    EXPECT_TRUE(relays.at(0)->socket == 0 && relays.at(1)->socket == 950); // Kept: through descriptor 0
}

} // namespace
