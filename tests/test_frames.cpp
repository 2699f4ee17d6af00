// Frames on their way from a port to the loop: real devices, the classifier in place, and the daemon's own packet sockets.
// Whatever comes is the frame as it was on the wire, once, with its true port and VLANs.
#include "guard.h"
#include "model.h"
#include "netns_test.h"
#include "platform.h"
#include "wire.h"

using namespace platform_linux;

static std::map<uint32_t, Port> modelPorts; // the model of these tests

const Port *platform_linux::model_port(uint32_t ifIndex)
{
    return modelPorts.count(ifIndex) == 0 ? nullptr : &modelPorts.at(ifIndex);
}

namespace
{
Bytes discover(const std::vector<Tag> &tags) { return Frame{.tags = tags}.bytes(); }
Bytes solicit(const std::vector<Tag> &tags) { return Frame6{.tags = tags}.bytes(); }

// The checksum is left to the device: in the field is the sum over addresses, protocol and length (RFC 768, RFC 8200 8.1).
Bytes unfinished(Bytes frame, size_t udp, bool v6)
{
    const auto at = frame.begin() + static_cast<ptrdiff_t>(udp);
    const Bytes pseudo = Bytes(at - (v6 ? 32 : 8), at) + be16(17) + be16(static_cast<uint32_t>(frame.size() - udp));
    wire_put16(frame.data() + udp + 6, static_cast<uint16_t>(~internet_checksum(pseudo)));
    return frame;
}

class Frames : public GuardedBridge
{
  protected:
    void SetUp() override
    {
        GuardedBridge::SetUp();
        if (IsSkipped())
            return;
        v4_ = open(ETH_P_IP);
        v6_ = open(ETH_P_IPV6);
        port_ = if_nametoindex("p1");
        set_up("");
    }

    static Fd open(uint16_t protocol)
    {
        Fd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(protocol)));
        EXPECT_EQ(platform_packet_info_enable(sock.get()), 0) << strerror(errno);
        return sock;
    }

    // The port's VLANs: native 7, 10 and 20; then one word: "trap", "vlan" (10 has a trap), "blocked", "member", "routed", "none".
    void set_up(const std::string &word)
    {
        Port port = {};
        port.ifIndex = port_;
        port.stp = word == "blocked" ? StpState::blocking : StpState::forwarding;
        port.aggregate = word == "member" ? 99 : 0;
        port.routed = word == "routed";
        port.tpid = ETH_P_8021Q;
        if (!port.routed)
            port.members.set(port.nativeVid = 7).set(10).set(20);
        modelPorts = {{port_, port}};
        EXPECT_EQ(guard_port_add(port_, port.nativeVid, port.routed ? PortVlans(1) : port.members), 0);
        for (const int family : {4, 6}) {
            guard_trap_port(port_, family, !word.empty() && word != "vlan");
            guard_trap_vlan(10, family, word == "vlan");
        }
        if (word == "none")
            modelPorts.clear();
    }

    // The loop's way: one message header for both sockets, set up once and never reset. Empty: nothing, in silence.
    Bytes receive(const Fd &sock, int milliseconds)
    {
        pollfd wait = {sock.get(), POLLIN, 0};
        poll(&wait, 1, milliseconds);
        memset(buffer_, 0xEE, sizeof buffer_);
        errno = 0;
        const ssize_t length = platform_frame_recv(sock.get(), &message_);
        EXPECT_TRUE(length > 0 || errno == EAGAIN) << strerror(errno);
        return Bytes(buffer_, buffer_ + std::max<ssize_t>(length, 0));
    }

    // "7/0/14": VLANs and length of the layer-2 header from the packet information, then whatever differs from `sent`.
    std::string came(const Fd &sock, const Bytes &sent, int milliseconds = 20)
    {
        const Bytes got = receive(sock, milliseconds);
        if (got.empty())
            return "";
        const cmsghdr *c = CMSG_FIRSTHDR(&message_);
        const uint8_t *info = CMSG_DATA(c);
        const bool right = c->cmsg_level == SOL_PACKET && c->cmsg_len == CMSG_LEN(25) && wire_get32(info) == port_;
        std::string text = right && source_.sll_ifindex == static_cast<int>(port_) ? "" : "wrong information ";
        text += std::to_string(wire_get16(info + 20)) + "/" + std::to_string(wire_get16(info + 22)) + "/" + std::to_string(info[24]);
        for (size_t i = 0; i < std::max(got.size(), sent.size()); i++)
            if (i >= got.size() || i >= sent.size() || got[i] != sent[i])
                text += " " + std::to_string(i) + ":" + (i < got.size() ? hex({got[i]}) : "missing");
        return text;
    }

    uint32_t port_ = 0;
    Fd v4_, v6_;
    alignas(8) uint8_t buffer_[2048];
    alignas(cmsghdr) uint8_t control_[128] = {0xEE, 0xEE};
    sockaddr_ll source_ = {};
    iovec vector_ = {buffer_, sizeof buffer_};
    msghdr message_ = {&source_, sizeof source_, &vector_, 1, control_, sizeof control_, 0};
};

// clang-format off
const struct { const char *claim, *before; std::vector<Tag> tags; const char *outcome; } ROWS[] = {
    {"untagged, its native VLAN", "trap", {}, "7/0/14"},
    {"a priority tag, which gets the native VLAN's id", "trap", {{0x8100, 0xE000}}, "7/0/18 15:07"},
    {"a priority tag that no port of the switch knows", "trap", {{0x88A8, 0xE000}}, "7/0/18"},
    {"old S-tag, which stays in the frame", "trap", {{0x9100, 10}}, "10/0/18"},
    {"S-tag and C-tag", "trap", {{0x88A8, 10}, {0x8100, 0xF014}}, "10/20/22"},
    {"priority tag and C-tag", "trap", {{0x8100, 0x2000}, {0x8100, 20}}, "7/20/22 15:07"},
    {"three tags", "trap", {{0x88A8, 10}, {0x88A8, 20}, {0x8100, 30}}, "10/20/26"},
    {"without a trap nothing is told", "", {}, "forwarded"},
    {"the trap of a VLAN goes by the outermost tag", "vlan", {{0x8100, 10}}, "10/0/18"},
    {"", "vlan", {{0x88A8, 10}, {0x8100, 20}}, "10/20/22"},
    {"a VLAN that the port has not", "trap", {{0x8100, 30}}, ""},
    {"a port that does not receive", "blocked", {}, ""},
    {"a member of an aggregate", "member", {}, ""},
    {"no port of the switch", "none", {}, ""},
    {"a routed port has no VLANs", "routed", {}, "0/0/14"},
    {"", "routed", {{0x8100, 0xE000}}, "0/0/18"},
    {"nor takes in others'", "routed", {{0x8100, 10}}, ""},
};
// clang-format on

TEST_F(Frames, ComeAsTheyWereOnTheWire)
{
    Wire from("c1"), to("c2");
    for (const auto &row : ROWS) {
        set_up(row.before);
        for (const bool v6 : {false, true})
            for (const bool offload : {false, true}) {
                const Bytes whole = v6 ? solicit(row.tags) : discover(row.tags);
                const size_t udp = 14 + 4 * row.tags.size() + (v6 ? 40 : 20);
                from.send(offload ? unfinished(whole, udp, v6) : whole, offload ? udp : 0);
                const bool comes = isdigit(static_cast<unsigned char>(*row.outcome)) != 0;
                std::string outcome = came(v6 ? v6_ : v4_, whole, comes ? 1000 : 20);
                outcome += came(v4_, {}, 0);
                outcome += came(v6_, {}, 0);
                if (!comes && !to.receive().empty())
                    outcome += "forwarded";
                EXPECT_EQ(outcome, row.outcome) << row.claim << (v6 ? ", IPv6" : "") << (offload ? ", offload" : "");
            }
    }
    EXPECT_TRUE(to.receive().empty()) << "forwarded as well";
}

TEST_F(Frames, OfAnyLengthLeaveTheNextOneWhole)
{
    set_up("trap");
    Wire from("c1");
    // length (37 cuts the ports: no DHCP), comes
    for (const auto &[length, comes] : {std::pair{38, true}, {2048, true}, {2049, false}, {9000, false}, {37, false}, {23, false}, {14, false}}) {
        Bytes sent = discover({});
        sent.resize(static_cast<size_t>(length), 0xAA);
        from.send(sent);
        EXPECT_EQ(came(v4_, sent, comes ? 1000 : 20), comes ? "7/0/14" : "") << length;
        from.send(discover({}));
        EXPECT_EQ(came(v4_, discover({}), 1000), "7/0/14");
    }
}

// A checksum that comes out as zero is sent as all ones, because zero says that there is none (RFC 768). A datagram whose
// own lengths lie keeps its field, whatever the device left to do.
TEST_F(Frames, GetTheChecksumThatTheDeviceLeftOut)
{
    set_up("trap");
    Wire from("c1");
    Frame frame;
    frame.xid = 0x3903CCC3; // with which the sum is zero
    ASSERT_EQ(wire_get16(frame.bytes().data() + 40), 0xFFFF);
    from.send(unfinished(frame.bytes(), 34, false), 34);
    EXPECT_EQ(came(v4_, frame.bytes(), 1000), "7/0/14");
    frame.udpChecksum = 0x1234;
    for (const uint16_t length : {uint16_t{0}, uint16_t{7}, uint16_t{400}, uint16_t{65535}}) {
        frame.udpLen = length;
        from.send(frame.bytes(), 34);
        EXPECT_EQ(came(v4_, frame.bytes(), 1000), "7/0/14") << length;
    }
}

// Members of an aggregate do not receive for themselves: the frame passes once more on the aggregate.
TEST_F(Frames, OfAnAggregateComeFromIt)
{
    if (system("ip link add bond0 type bond mode balance-rr 2>/dev/null") != 0)
        GTEST_SKIP() << "needs a kernel with bonding";
    guard_port_remove(port_, 0);
    run("ip link set p1 down && ip link set p1 master bond0 && ip link set bond0 up && ip link set p1 up");
    set_up("member");
    guard_port_remove(port_, 0);
    const Port member = modelPorts[port_];
    port_ = if_nametoindex("bond0");
    set_up("trap");
    modelPorts[member.ifIndex] = member;
    Wire from("c1");
    const Bytes sent = discover({{0x8100, 10}});
    from.send(sent);
    EXPECT_EQ(came(v4_, sent, 1000), "10/0/18");
    EXPECT_EQ(came(v4_, sent), "");
}

// What this machine sends through a bridge comes as from a port; what the daemon sends there is for this machine, and comes back to
// nobody. The bridge gets neither.
TEST_F(Frames, OfThisMachine)
{
    guard_port_host(port_ = if_nametoindex("br0"), true);
    set_up("trap");
    Wire machine("br0"), client("c1");
    Frame other;
    other.dstPort = 53, other.srcPort = 5353;
    for (const auto &[sent, outcome] : {std::pair{discover({}), "7/0/14"}, {discover({{0x8100, 10}}), "10/0/18"}, {other.bytes(), ""}}) {
        machine.send(sent);
        EXPECT_EQ(came(v4_, sent, *outcome ? 1000 : 20), outcome);
    }
    EXPECT_EQ(client.receive(), other.bytes());
    const auto send = [this](const Fd &sock, const Bytes &sent) {
        sockaddr_ll to = {};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(port_);
        EXPECT_EQ(sendto(sock.get(), sent.data(), sent.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to), static_cast<ssize_t>(sent.size()));
    };
    for (const auto &[sock, sent] : {std::pair{&v4_, discover({})}, {&v6_, solicit({})}}) {
        send(*sock, sent);
        EXPECT_EQ(machine.receive(), sent);
        EXPECT_EQ(came(*sock, sent), "");
    }
    EXPECT_TRUE(client.receive().empty());
    trap_own_socket(GUARD_SOCKET_RELAY, v6_.get()); // and no packet socket any more
    trap_own_socket(GUARD_SOCKET_V6, v4_.get());
    send(v6_, discover({}));
    EXPECT_EQ(client.receive(), discover({})) << "relayed by the daemon";
}

// What the daemon sends never comes back; what a socket took before it was the trap's is gone; root may put anything on the
// loopback device; a header without room for the packet information is refused before anything is written.
TEST_F(Frames, AreNothingElse)
{
    const Fd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP))), arp(socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ARP)));
    Wire client("c1"), loopback("lo");
    const Bytes sent = discover({});
    client.send(sent);
    uint8_t byte;
    ASSERT_GT(recv(sock.get(), &byte, 1, MSG_PEEK), 0);
    int size = 0;
    socklen_t length = sizeof size;
    EXPECT_TRUE(platform_packet_info_enable(sock.get()) == 0 && recv(sock.get(), &byte, 1, MSG_DONTWAIT) < 0);
    EXPECT_TRUE(getsockopt(sock.get(), SOL_SOCKET, SO_RCVBUF, &size, &length) == 0 && size >= 4 << 20) << size;
    EXPECT_TRUE(platform_packet_info_enable(arp.get()) == -1 && errno == EINVAL);

    set_up("trap");
    const sockaddr_ll to = {AF_PACKET, htons(ETH_P_IP), static_cast<int>(port_), 0, 0, 6, {}};
    EXPECT_GT(sendto(v4_.get(), sent.data(), sent.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
    EXPECT_EQ(hex(client.receive()), hex(sent));
    Bytes port(6);
    memcpy(port.data() + 2, &port_, 4);
    for (const Bytes &made : {Bytes(), Bytes(6) + sent, Bytes(6, 0xFF) + sent, Bytes(3000, 0xFF), port, port + Bytes(1), port + Bytes(13), port + Bytes(12) + hex_bytes("8100"), port + Bytes(12) + hex_bytes("810000"), port + Bytes(12) + hex_bytes("8100000a88a8"), port + Bytes(12) + hex_bytes("8100000a88a8001481")})
        loopback.send(Bytes(12, 0) + be16(0x88B5) + made);
    for (int i = 0; i < 12; i++)
        EXPECT_EQ(came(v4_, {}), "");
    message_.msg_controllen = 8;
    EXPECT_TRUE(platform_frame_recv(v4_.get(), &message_) == -1 && errno == EINVAL);
}

} // namespace
