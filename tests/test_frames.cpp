// Frames on their way from a port to the loop: real devices, the classifier in place, and the daemon's own
// packet sockets. What must come is the frame as it was on the wire, once, with its true port and VLANs; what
// must not come is everything that the switch would not have handed over.
#include "netns_test.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <unistd.h>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "classifier.h"
#include "model.h"
#include "platform.h"
#include "wire.h"

using namespace platform_linux;

// The model of these tests.
static std::map<uint32_t, Port> modelPorts;

const Port *platform_linux::model_port(uint32_t ifIndex)
{
    const auto found = modelPorts.find(ifIndex);
    return found == modelPorts.end() ? nullptr : &found->second;
}

namespace
{

// The loop's way of receiving: one message header for both sockets, set up once and never reset.
class Loop
{
  public:
    Loop() { std::memset(control_, 0xEE, sizeof control_); }

    // Waits for the socket as the loop's select does, but not for ever.
    ssize_t receive(int sock, int milliseconds = 1000)
    {
        pollfd wait = {sock, POLLIN, 0};
        poll(&wait, 1, milliseconds);
        std::memset(buffer_, 0xEE, sizeof buffer_);
        return platform_frame_recv(sock, &message_);
    }

    Bytes frame(ssize_t length) const { return Bytes(buffer_, buffer_ + length); }
    int source() const { return source_.sll_ifindex; }

    // The 25 bytes of the first control message of level SOL_PACKET; empty when there is none.
    Bytes info() const
    {
        for (cmsghdr *c = CMSG_FIRSTHDR(&message_); c != nullptr; c = CMSG_NXTHDR(const_cast<msghdr *>(&message_), c))
            if (c->cmsg_level == SOL_PACKET)
                return c->cmsg_len == CMSG_LEN(25) ? Bytes(CMSG_DATA(c), CMSG_DATA(c) + 25) : Bytes();
        return Bytes();
    }

  private:
    alignas(8) uint8_t buffer_[2048];
    alignas(cmsghdr) uint8_t control_[128];
    sockaddr_ll source_ = {};
    iovec vector_ = {buffer_, sizeof buffer_};
    msghdr message_ = {&source_, sizeof source_, &vector_, 1, control_, sizeof control_, 0};
};

Bytes info(uint32_t port, uint32_t outer, uint32_t inner, uint8_t headerLength)
{
    return be32(port) + repeated(0, 16) + be16(outer) + be16(inner) + Bytes{headerLength};
}

// What a UDP checksum is over beside the datagram: addresses, protocol, length (RFC 768; RFC 8200 8.1 adds up to the same).
Bytes pseudo_header(const Bytes &frame, size_t udp, bool v6 = false)
{
    const auto at = frame.begin() + static_cast<ptrdiff_t>(udp);
    return Bytes(at - (v6 ? 32 : 8), at) + be16(17) + be16(static_cast<uint32_t>(frame.size() - udp));
}

uint16_t udp_sum(const Bytes &frame) { return internet_checksum(pseudo_header(frame, 34) + Bytes(frame.begin() + 34, frame.end())); }

// The checksum left to the device: its field has the pseudo-header's sum.
Bytes unfinished(Bytes frame, size_t udp, bool v6 = false)
{
    wire_put16(frame.data() + udp + 6, static_cast<uint16_t>(~internet_checksum(pseudo_header(frame, udp, v6))));
    return frame;
}

// A SOLICIT (RFC 8415) from fe80::1; its checksum is scapy's.
Bytes solicit(std::vector<Tag> tags)
{
    Bytes bytes = hex_bytes("33 33 00 01 00 02 02 c1 00 00 00 01");
    for (const Tag &tag : tags)
        bytes = bytes + be16(tag.tpid) + be16(tag.tci);
    return bytes + hex_bytes("86 dd 60 00 00 00 00 0c 11 01 fe800000000000000000000000000001"
                             "ff020000000000000000000000010002 02 22 02 23 00 0c c8 a1 01 12 34 56");
}

class Frames : public NetnsTest
{
  protected:
    void SetUp() override
    {
        NetnsTest::SetUp();
        if (IsSkipped())
            return;
        bridge_of_two();
        port_ = index("p1");
        std::string why, note;
        if (!guard_open(8, why, note))
            GTEST_SKIP() << "needs eBPF: " << why;
        modelPorts.clear();
        Port port = {};
        port.ifIndex = port_;
        port.stp = StpState::forwarding;
        port.up = true;
        port.nativeVid = 7;
        port.tpid = ETH_P_8021Q;
        port.members.set(7).set(10).set(20);
        modelPorts[port_] = port;
        ASSERT_EQ(guard_port_add(port_, 7, port.members), 0);
        v4_ = open(ETH_P_IP);
        v6_ = open(ETH_P_IPV6);
    }

    void TearDown() override
    {
        close(v4_);
        close(v6_);
        guard_close();
    }

    static int open(uint16_t protocol)
    {
        const int sock = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(protocol));
        EXPECT_EQ(platform_packet_info_enable(sock), 0) << strerror(errno);
        return sock;
    }

    void trap(bool on)
    {
        ASSERT_EQ(guard_trap_port(port_, 4, on), 0);
        ASSERT_EQ(guard_trap_port(port_, 6, on), 0);
    }

    void expect_nothing(int sock)
    {
        errno = 0;
        EXPECT_EQ(loop_.receive(sock, 20), -1);
        EXPECT_EQ(errno, EAGAIN);
    }

    uint32_t port_ = 0;
    int v4_ = -1, v6_ = -1;
    Loop loop_;
};

TEST_F(Frames, ComeAsTheyWereOnTheWire)
{
    // claim, tags, outer, inner, first tag control field (expected)
    const std::tuple<const char *, std::vector<Tag>, uint16_t, uint16_t, uint16_t> rows[] = {
        {"untagged, its native VLAN", {}, 7, 0, 0},
        {"priority tag, which gets the native VLAN's id", {{0x8100, 0xE000}}, 7, 0, 0xE007},
        {"a priority tag that no port of the switch knows", {{0x88A8, 0xE000}}, 7, 0, 0xE000},
        {"802.1Q", {{0x8100, 0x600A}}, 10, 0, 0x600A},
        {"S-tag", {{0x88A8, 0x100A}}, 10, 0, 0x100A},
        {"old S-tag, which stays in the frame", {{0x9100, 10}}, 10, 0, 10},
        {"S-tag and C-tag", {{0x88A8, 10}, {0x8100, 0xF014}}, 10, 20, 10},
        {"two C-tags", {{0x8100, 20}, {0x8100, 10}}, 20, 10, 20},
        {"old S-tag and C-tag", {{0x9100, 10}, {0x8100, 300}}, 10, 300, 10},
        {"priority tag and C-tag", {{0x8100, 0x2000}, {0x8100, 20}}, 7, 20, 0x2007},
        {"three tags", {{0x88A8, 10}, {0x88A8, 20}, {0x8100, 30}}, 10, 20, 10},
    };
    trap(true);
    Wire from("c1"), to("c2");
    for (const auto &[claim, tags, outer, inner, tci] : rows) {
        SCOPED_TRACE(claim);
        Frame frame = discover();
        frame.tags = tags;
        const Bytes expectedInfo = info(port_, outer, inner, static_cast<uint8_t>(14 + 4 * tags.size()));
        for (const bool v6 : {false, true}) {
            const Bytes whole = v6 ? solicit(tags) : frame.bytes();
            Bytes expected = whole;
            if (!tags.empty())
                wire_put16(expected.data() + 14, tci);
            const size_t udp = 14 + 4 * tags.size() + (v6 ? 40 : 20);
            for (const bool offload : {false, true}) {
                SCOPED_TRACE(std::string(v6 ? "IPv6" : "IPv4") + (offload ? ", offload" : ""));
                if (offload)
                    from.send_unfinished(unfinished(whole, udp, v6), udp, 6);
                else
                    from.send(whole);
                const ssize_t length = loop_.receive(v6 ? v6_ : v4_);
                ASSERT_EQ(length, static_cast<ssize_t>(whole.size()));
                EXPECT_EQ(hex(loop_.frame(length)), hex(expected));
                EXPECT_EQ(hex(loop_.info()), hex(expectedInfo));
                EXPECT_EQ(loop_.source(), static_cast<int>(port_));
                expect_nothing(v4_);
                expect_nothing(v6_);
            }
        }
    }
    EXPECT_FALSE(to.receive().has_value()) << "forwarded as well";
}

TEST_F(Frames, AreForwardedWithoutTrapAndNotTold)
{
    Wire from("c1"), to("c2");
    for (const Bytes &frame : {discover().bytes(), solicit({}), solicit({{0x8100, 10}})}) {
        from.send(frame);
        EXPECT_TRUE(to.receive().has_value());
        expect_nothing(v4_);
        expect_nothing(v6_);
    }
}

// The trap of a VLAN goes by the outermost tag, also when the kernel has taken that out of the frame.
TEST_F(Frames, OfATrappedVlanComeAndOthersDoNot)
{
    ASSERT_EQ(guard_trap_vlan(10, 4, true), 0);
    Wire from("c1"), to("c2");
    const std::vector<Tag> come[] = {{{0x8100, 10}}, {{0x88A8, 10}, {0x8100, 20}}, {{0x9100, 10}}};
    const std::vector<Tag> pass[] = {{}, {{0x8100, 20}}, {{0x88A8, 20}, {0x8100, 10}}, {{0x8100, 0xE000}}};
    Frame frame = discover();
    for (const auto &tags : come) {
        frame.tags = tags;
        from.send(frame.bytes());
        EXPECT_GT(loop_.receive(v4_), 0) << hex(frame.bytes()).substr(0, 70);
        EXPECT_FALSE(to.receive().has_value());
    }
    for (const auto &tags : pass) {
        frame.tags = tags;
        from.send(frame.bytes());
        expect_nothing(v4_);
        EXPECT_TRUE(to.receive().has_value()) << hex(frame.bytes()).substr(0, 70);
    }
}

TEST_F(Frames, OfPortsAndVlansThatDoNotReceiveAreDropped)
{
    trap(true);
    Wire from("c1");
    Frame foreign = discover();
    foreign.tags = {{0x8100, 30}};
    from.send(foreign.bytes());
    expect_nothing(v4_);
    // stp, aggregate, comes
    const std::tuple<StpState, uint32_t, bool> rows[] = {{StpState::blocking, 0, false}, {StpState::forwarding, 99, false}, {StpState::forwarding, 0, true}};
    for (const auto &[stp, aggregate, comes] : rows) {
        modelPorts[port_].stp = stp;
        modelPorts[port_].aggregate = aggregate;
        from.send(discover().bytes());
        EXPECT_EQ(loop_.receive(v4_, comes ? 1000 : 20) > 0, comes);
    }
    modelPorts.clear();
    from.send(discover().bytes());
    expect_nothing(v4_);
}

// A routed port has no VLANs at all.
TEST_F(Frames, OfARoutedPortHaveNoVlan)
{
    Port &port = modelPorts[port_];
    port.routed = true;
    port.nativeVid = 0;
    port.members.reset();
    ASSERT_EQ(guard_port_add(port_, 0, PortVlans(1)), 0);
    trap(true);
    Wire from("c1");
    // claim, tags, comes
    const std::tuple<const char *, std::vector<Tag>, bool> rows[] = {
        {"untagged", {}, true},
        {"priority tag", {{0x8100, 0xE000}}, true},
        {"in a VLAN that others have", {{0x8100, 10}}, false},
    };
    Frame frame = discover();
    for (const auto &[claim, tags, comes] : rows) {
        SCOPED_TRACE(claim);
        frame.tags = tags;
        from.send(frame.bytes());
        if (!comes) {
            expect_nothing(v4_);
            continue;
        }
        ASSERT_GT(loop_.receive(v4_), 0);
        EXPECT_EQ(hex(loop_.info()), hex(info(port_, 0, 0, static_cast<uint8_t>(14 + 4 * tags.size()))));
    }
}

TEST_F(Frames, OfAnyLengthLeaveTheNextOneWhole)
{
    trap(true);
    Wire from("c1");
    const Bytes whole = discover().bytes();
    const auto of_length = [](size_t length, bool tagged) {
        Frame frame = discover();
        if (tagged)
            frame.tags = {{0x8100, 10}};
        frame.padding = repeated(0xAA, length - frame.bytes().size());
        return frame.bytes();
    };
    // claim, frame, comes
    const std::tuple<const char *, Bytes, bool> rows[] = {
        {"ports and nothing else", Bytes(whole.begin(), whole.begin() + 38), true},
        {"the longest", of_length(2048, false), true},
        {"the longest, tagged", of_length(2048, true), true},
        {"one byte too long", of_length(2049, false), false},
        {"too long with its tag", of_length(2049, true), false},
        {"jumbo", of_length(9000, false), false},
        {"cut in the ports: no DHCP", Bytes(whole.begin(), whole.begin() + 37), false},
        {"cut in the IP header", Bytes(whole.begin(), whole.begin() + 23), false},
        {"an Ethernet header alone", Bytes(whole.begin(), whole.begin() + 14), false},
    };
    for (const auto &[claim, frame, comes] : rows) {
        SCOPED_TRACE(claim);
        from.send(frame);
        const ssize_t length = loop_.receive(v4_, comes ? 1000 : 20);
        if (comes) {
            ASSERT_EQ(length, static_cast<ssize_t>(frame.size()));
            EXPECT_EQ(hex(loop_.frame(length)), hex(frame));
        } else {
            EXPECT_EQ(length, -1);
            EXPECT_EQ(errno, EAGAIN);
        }
        from.send(whole);
        ASSERT_EQ(loop_.receive(v4_), static_cast<ssize_t>(whole.size()));
        EXPECT_EQ(hex(loop_.info()), hex(info(port_, 7, 0, 14)));
    }
}

// RFC 768: a sum of zero is sent as all ones, because zero says that there is none.
TEST_F(Frames, WhoseChecksumIsZeroSayAllOnes)
{
    trap(true);
    Wire from("c1");
    Frame frame = discover();
    frame.udpChecksum = 0;
    frame.options = frame.options + Bytes(2);
    const Bytes base = frame.bytes();
    ASSERT_EQ((base.size() - 42) % 2, 0u) << "the word stands at an even place";
    // The word in the options that brings the sum of pseudo-header and datagram to all ones.
    frame.options.resize(frame.options.size() - 2);
    frame.options = frame.options + be16(udp_sum(base));
    from.send_unfinished(unfinished(frame.bytes(), 34), 34, 6);
    const ssize_t length = loop_.receive(v4_);
    ASSERT_GT(length, 42);
    EXPECT_EQ(wire_get16(loop_.frame(length).data() + 40), 0xFFFF);
}

// Members of an aggregate do not receive for themselves: the frame passes once more on the aggregate.
TEST_F(Frames, OfAnAggregateComeFromIt)
{
    if (system("ip link add bond0 type bond mode balance-rr 2>/dev/null") != 0)
        GTEST_SKIP() << "needs a kernel with bonding";
    guard_port_remove(port_);
    run("ip link set p1 down && ip link set p1 master bond0 && ip link set bond0 up && ip link set p1 up");
    Port bond = modelPorts[port_];
    modelPorts[port_].aggregate = bond.ifIndex = index("bond0");
    modelPorts[bond.ifIndex] = bond;
    ASSERT_EQ(guard_port_add(bond.ifIndex, 7, bond.members), 0);
    ASSERT_EQ(guard_trap_port(bond.ifIndex, 4, true), 0);
    Wire from("c1");
    Frame frame = discover();
    frame.tags = {{0x8100, 10}};
    from.send(frame.bytes());
    const ssize_t length = loop_.receive(v4_);
    ASSERT_EQ(length, static_cast<ssize_t>(frame.bytes().size()));
    EXPECT_EQ(hex(loop_.frame(length)), hex(frame.bytes()));
    EXPECT_EQ(hex(loop_.info()), hex(info(bond.ifIndex, 10, 0, 18)));
    expect_nothing(v4_);
}

// Frames of every kind of damage: what comes is what was sent, whole, and nothing else is touched.
TEST_F(Frames, OfRandomBytesComeWholeOrNotAtAll)
{
    trap(true);
    Wire from("c1");
    std::mt19937 random(20); // always the same ones
    const auto below = [&random](size_t limit) { return static_cast<size_t>(random() % limit); };
    std::set<Bytes> sent; // a frame may come late
    uint32_t came = 0;
    const auto take = [this, &sent, &came](int milliseconds) {
        for (const int sock : {v4_, v6_})
            for (ssize_t length; (length = loop_.receive(sock, milliseconds)) >= 0; came++)
                ASSERT_EQ(sent.count(loop_.frame(length)), 1u) << hex(loop_.frame(length));
    };
    for (uint32_t i = 0; i < 2000; i++) {
        std::vector<Tag> tags(below(4), Tag{0x8100, 10});
        Frame frame = discover();
        frame.tags = tags;
        const bool v6 = below(2) != 0;
        Bytes bytes = v6 ? solicit(tags) : frame.bytes();
        const size_t layer3 = 14 + 4 * tags.size();
        for (size_t flips = below(4); flips > 0; flips--)
            bytes[14 + below(layer3 + 48 - 14)] = static_cast<uint8_t>(below(256));
        if (below(4) == 0)
            bytes.resize(std::max<size_t>(layer3 + 1, below(bytes.size())));
        sent.insert(bytes);
        from.send(bytes);
        take(0);
    }
    take(100);
    EXPECT_GT(came, 500u);
}

// A datagram whose own lengths lie about where it ends keeps its checksum field, whatever the device left to
// do.
TEST_F(Frames, WithLyingLengthsAreNotRepaired)
{
    trap(true);
    Wire from("c1");
    for (const uint16_t length : {uint16_t{0}, uint16_t{7}, uint16_t{400}, uint16_t{65535}}) {
        Frame frame = discover();
        frame.udpLen = length;
        frame.udpChecksum = 0x1234;
        from.send_unfinished(frame.bytes(), 34, 6);
        const ssize_t received = loop_.receive(v4_);
        ASSERT_GT(received, 0);
        EXPECT_EQ(hex(loop_.frame(received)), hex(frame.bytes())) << length;
    }
}

// A burst is kept until the daemon comes to it.
TEST_F(Frames, OfABurstAreAllKept)
{
    trap(true);
    Wire from("c1");
    Frame frame = discover();
    for (uint32_t i = 0; i < 3000; i++) {
        frame.xid = i;
        from.send(frame.bytes());
    }
    for (uint32_t i = 0; i < 3000; i++) {
        const ssize_t length = loop_.receive(v4_);
        ASSERT_GT(length, 50) << i;
        EXPECT_EQ(wire_get32(loop_.frame(length).data() + 46), i);
    }
    expect_nothing(v4_);
}

// The daemon sends through the same sockets; what it sends out of a port never comes back to it.
TEST_F(Frames, GoOutThroughTheSameSocket)
{
    trap(true);
    Wire to("c1");
    const Bytes frame = discover().bytes();
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = static_cast<int>(port_);
    address.sll_halen = 6;
    ASSERT_EQ(sendto(v4_, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr *>(&address), sizeof address), static_cast<ssize_t>(frame.size()))
        << strerror(errno);
    const std::optional<Bytes> got = to.receive();
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(hex(*got), hex(frame));
    expect_nothing(v4_);
}

// What the socket took before it was made the trap's is gone; a socket of another family is refused.
TEST_F(Frames, BeginWithTheTrap)
{
    run("ip addr add 192.0.2.1/24 dev c1 && ip addr add 192.0.2.2/24 dev c2");
    const int sock = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP));
    Wire from("c1");
    Frame frame = discover();
    frame.dst = MAC_BROADCAST;
    from.send(frame.bytes()); // the bridge floods it to p2 and so to c2
    uint8_t byte;
    ASSERT_GT(recv(sock, &byte, 1, MSG_PEEK), 0);
    ASSERT_EQ(platform_packet_info_enable(sock), 0);
    pollfd wait = {sock, POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 20), 0);
    int size = 0;
    socklen_t length = sizeof size;
    ASSERT_EQ(getsockopt(sock, SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
    EXPECT_GE(size, 4 << 20);
    close(sock);

    const int arp = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ARP));
    EXPECT_EQ(platform_packet_info_enable(arp), -1);
    EXPECT_EQ(errno, EINVAL);
    close(arp);
}

// Root may put anything on the loopback device.
TEST_F(Frames, MadeUpOnTheLoopbackAreDropped)
{
    Wire loopback("lo");
    const Bytes front = repeated(0, 12) + be16(0x88B5);
    for (const Bytes &rest : {Bytes(), Bytes(6), Bytes(6) + discover().bytes(), repeated(0xFF, 6),
                              repeated(0xFF, 6) + discover().bytes(), repeated(0xFF, 3000)}) {
        loopback.send(front + rest);
        expect_nothing(v4_);
    }
    Bytes port(6);
    memcpy(port.data() + 2, &port_, 4);
    for (const size_t length : {0u, 1u, 12u, 13u}) {
        loopback.send(front + port + Bytes(length));
        expect_nothing(v4_);
    }
    for (const char *tags : {"8100", "810000", "8100000a88a8", "8100000a88a8001481"}) {
        loopback.send(front + port + Bytes(12) + hex_bytes(tags));
        expect_nothing(v4_);
    }
}

// A header without room for the packet information is refused before anything is written.
TEST_F(Frames, NeedRoomForThePacketInformation)
{
    uint8_t buffer[64], control[8] = {};
    iovec vector = {buffer, sizeof buffer};
    msghdr message = {nullptr, 0, &vector, 1, control, sizeof control, 0};
    EXPECT_EQ(platform_frame_recv(v4_, &message), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
