// The senders: which ports get a frame, how it is tagged for each, and what happens when a port refuses.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <regex>

#include "event_message.h"
#include "scene.h"

namespace
{

// The raw senders. Each is called for a frame that came in on port 1 in VLAN 10; towards clients it is to leave in VLAN 30.
using Sender = void (*)(const DhcpsnoopPktInfo *info, uint32_t vid);
constexpr Sender TO_SERVER = [](const DhcpsnoopPktInfo *info, uint32_t) { dhcpsnoop_send_to_server(info); };
constexpr Sender NPT_TO_SERVER = [](const DhcpsnoopPktInfo *info, uint32_t) { dhcpsnoop_npt_send_to_server(info); };
constexpr Sender TO_CLIENT = [](const DhcpsnoopPktInfo *info, uint32_t vid) { dhcpsnoop_send_to_client(info, dhcpsnoop_if_lookup(2), vid); };
constexpr Sender BROADCAST = dhcpsnoop_broadcast_forwarding, NPT_TO_CLIENT = dhcpsnoop_npt_send_to_client;
constexpr Sender SENDERS[] = {TO_SERVER, NPT_TO_SERVER, TO_CLIENT, BROADCAST, NPT_TO_CLIENT};

using Tags = std::vector<Tag>;

// Port 2, trusted and snooped, has VLANs 10, 30 and 4094 with tags, and is a member of the last two, but for the change.
using Change = void (*)(WorldPort &port);
constexpr Change AS_IT_IS = [](WorldPort &) {}, ROUTED = [](WorldPort &port) { port.workMode = 1; };
constexpr Change UNTAGGED = [](WorldPort &port) { port.untagged = port.vlans; };

void set_up(Change change = AS_IT_IS, uint32_t without = 0)
{
    world.reset();
    world.access(1, 10);
    change(world.trunk(2, {10, 30, 4094}));
    world.members(30, {2});
    world.members(4094, {2});
    snoop(1, DHCPSNOOP_IF_TRUSTED);
    snoop(2, DHCPSNOOP_IF_TRUSTED)->flags &= ~without;
    debug(1);
}

// What leaves port 2 by each sender: "none", "bare", or TPID and word of each tag.
std::string tagged(Change change, const Tags &tags, uint32_t without = 0, uint16_t vid = 10)
{
    std::string text;
    for (const Sender send : SENDERS) {
        set_up(change, without);
        Frame frame = {.tags = tags};
        const Parsed parsed(frame, {.outer = vid});
        send(&parsed.info, vid == 10 ? 30 : vid);
        std::string found = world.all(Did::Frame).empty() ? "none " : "";
        frame.tags.clear();
        for (const WorldEntry *sent : world.all(Did::Frame)) {
            const auto at = [&](size_t offset) { return static_cast<uint16_t>(sent->data[offset] << 8 | sent->data[offset + 1]); };
            for (size_t tag = 12; at(tag) != 0x0800 && tag < 24; tag += 4) {
                found += world_format("%04x.%04x ", at(tag), at(tag + 2));
                frame.tags.push_back({at(tag), at(tag + 2)});
            }
            EXPECT_EQ(dump(sent->data), dump(frame));
        }
        // Kept: the flood into a VLAN without VLAN interface does not name the TPID.
        EXPECT_EQ(unsaid(world_format("TPID of this interface is 0x%0x.", world.ports[2].tpid)).empty(), found != "none " && send != BROADCAST);
        for (const std::string &said : world.texts(Did::Debug))
            EXPECT_EQ(said.find("failed"), std::string::npos);
        text += (found.empty() ? "bare " : found) + "| ";
    }
    return text;
}

const Tag IN10 = {0x8100, 0x600A}, INNER = {0x8100, 5};
using Forward = Daemon;

TEST_F(Forward, WhoGetsItWithWhichTags)
{
    check({
        {"a tag that is kept keeps its priority, unless flooding into another VLAN replaces the whole field", tagged(AS_IT_IS, {IN10}), "8100.600a | 8100.600a | 8100.600a | 8100.001e | 8100.001e | "},
        {"tagged to a routed port that sends tagged: its mode plays no part where the port is asked in any case", tagged(ROUTED, {IN10}), "bare | 8100.600a | bare | 8100.001e | 8100.001e | "},
        {"the port's own TPID", tagged([](WorldPort &port) { port.tpid = 0x9100; }, {}), "9100.000a | 9100.000a | 9100.001e | 9100.001e | 9100.001e | "},
        {"another TPID is no tag for the port", tagged([](WorldPort &port) { port.tpid = 0x88A8; }, {IN10}), "88a8.000a 8100.600a | 88a8.000a 8100.600a | 88a8.001e 8100.600a | 88a8.001e 8100.600a | 88a8.001e 8100.600a | "},
        {"only the outer of two tags is removed", tagged([](WorldPort &port) { UNTAGGED(port), port.tpid = 0x8100; }, {IN10, INNER}), "8100.0005 | 8100.0005 | 8100.0005 | 8100.0005 | 8100.0005 | "},
        {"an untrusted port is for clients only", tagged(AS_IT_IS, {}, DHCPSNOOP_IF_TRUSTED), "none | none | 8100.001e | 8100.001e | 8100.001e | "},
        {"a port outside the VLAN", tagged([](WorldPort &port) { port.vlans = {20}; }, {}), "none | none | 8100.001e | none | 8100.001e | "},
        {"refused with -1", tagged([](WorldPort &) { world.refuse("sysIFGet 2 255", -1); }, {}), "none | none | none | none | 8100.001e | "},
        {"Kept: only -1 stops a unicast", tagged([](WorldPort &) { world.refuse("sysIFGet 2 255", 2); }, {}), "none | none | 8100.001e | none | 8100.001e | "},
        {"a routed port is asked by one sender only", tagged([](WorldPort &port) { ROUTED(port), world.refuse("sysIFGet 2 255"); }, {}), "bare | none | bare | 8100.001e | 8100.001e | "},
    });
}

// The ports that get a frame of port 2, for the member list of VLAN 10.
std::string ports(Sender send, uint32_t inIf, const std::optional<Bytes> &members = host32(4) + host32(1) + host32(9) + host32(2))
{
    world.vlanMembers.clear();
    if (members)
        world.vlanMembers[10] = *members;
    world.clear();
    debug(1);
    const Parsed parsed(Frame{}, {.port = 2, .inIf = inIf});
    send(&parsed.info, 10);
    EXPECT_EQ(unsaid("No member in vlan 10.").empty(), !members);
    return world.all(Did::Frame).size() > 9 ? std::to_string(world.all(Did::Frame).size()) + " frames" : sent_summary();
}

TEST_F(Forward, EveryPortInOrderButTheOneItCameFrom)
{
    world.reset();
    world.vlan_interface(110, 10).vlans = {10};
    for (const uint32_t ifIndex : {1u, 2u, 3u, 4u, 110u}) {
        if (ifIndex != 110)
            world.access(ifIndex, 10);
        snoop(ifIndex, DHCPSNOOP_IF_TRUSTED);
    }
    check({
        {"not the interface it is attributed to; a trusted VLAN interface is an egress too", ports(TO_SERVER, 2), "1 286, 3 286, 4 286, 110 290"},
        {"not the member port it came in on, and no VLAN interface", ports(NPT_TO_SERVER, 110), "1 286, 3 286, 4 286"},
        {"not the interface it is attributed to, and no VLAN interface", ports(BROADCAST, 2), "1 286, 3 286, 4 286"},
        {"Kept: every member in the list's order, the port it came in on and ports without snooping among them", ports(NPT_TO_CLIENT, 2), "4 286, 1 286, 9 290, 2 286"},
        {"bytes that are no whole index", ports(NPT_TO_CLIENT, 2, host32(2) + Bytes(3, 2)), "2 286"},
        {"a platform that claims more than the room", ports(NPT_TO_CLIENT, 2, Bytes(400, 1)), "64 frames"},
    });
}

// A frame to port 2 that the kernel refuses: questions, socket and address, texts.
std::string refused(Sender send, bool ipv6)
{
    set_up();
    const Parsed parsed(Frame{.dst = MAC_CLIENT2}, {.etherType = ipv6 ? 0x86DD : 0x0800});
    world.members(30, {2, 1}); // a walk goes on behind a failure
    world.clear();
    world.refuse("frame 2");
    send(&parsed.info, 30);
    std::string text;
    for (const std::string &question : world.questions(""))
        text += question + ", ";
    const WorldEntry &frame = *world.all(Did::Frame).at(0);
    struct sockaddr_ll ll = {};
    memcpy(&ll, frame.address.data(), sizeof ll);
    EXPECT_EQ(world_format("%zu %u %d %u %u ", frame.address.size(), ll.sll_family, ll.sll_ifindex, ll.sll_pkttype, ll.sll_halen) + world_hex(ll.sll_addr, 8), "20 17 2 2 6 02 c1 00 00 00 02 00 00");
    EXPECT_TRUE(ntohs(ll.sll_protocol) == (ipv6 ? 0x86DD : 0x0800) && frame.socket == (ipv6 ? gDhcpsnoop.data6Sock : gDhcpsnoop.dataSock));
    for (const std::string &said : world.texts(Did::Debug))
        text += said.substr(12, said.size() - 14) + " ";
    return text + sent_summary();
}

TEST_F(Forward, AddressSocketAndFailure)
{
    const std::string asked10 = "sysIFGet 2 255 vid 10, qorIfGetApi 2 45, sysIFGet 2 258 vid 10, ", asked30 = "sysIFGet 2 255 vid 30, qorIfGetApi 2 45, sysIFGet 2 258 vid 30, ", tpid = "TPID of this interface is 0x0. ";
    const std::string walk = "qorVlanGetApi 30 5410 256, qorIfGetApi 2 45, sysIFGet 2 258 vid 30, qorIfGetApi 1 45, sysIFGet 1 258 vid 30, ", second = "TPID of this interface is 0x0. Npt send message to client(port 1), len is 286 buflen is 290. 2 290, 1 290";
    const std::tuple<Sender, std::string> rows[] = {
        {TO_SERVER, asked10 + tpid + "Send message to server, len is 286 buflen is 290. Send message to server failed! 2 290"},
        {NPT_TO_SERVER, asked10 + tpid + "Npt send message to server, len is 286 buflen is 290. Npt send message to server failed! 2 290"},
        {TO_CLIENT, asked30 + tpid + "Send message to client, len is 286 buflen is 290. Send message to client failed! 2 290"},
        {BROADCAST, asked30 + "Send broadcast message, len is 286. Send broadcast message failed! 2 290"},
        {NPT_TO_CLIENT, walk + tpid + "Npt send message to client(port 2), len is 286 buflen is 290. Npt send message to client failed, dest port = 2! " + second},
    };
    for (const auto &[send, right] : rows) {
        EXPECT_EQ(refused(send, false), right);
        EXPECT_EQ(refused(send, true), std::regex_replace(right, std::regex("end ([a-z ]* failed)"), "end v6 $1"));
    }
    set_up();
    Parsed parsed(Frame{});
    for (const Sender send : SENDERS) {
        for (const auto &[frameLen, sent] : std::map<uint32_t, const char *>{{2048, "2 2052"}, {2049, ""}, {0xFFFFFFFF, ""}, {16, "2 20"}, {15, ""}, {0, ""}}) {
            parsed.info.frameLen = frameLen;
            world.clear();
            send(&parsed.info, 30);
            EXPECT_EQ(sent_summary(), sent) << frameLen;
        }
    }
}

} // namespace
