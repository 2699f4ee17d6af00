// What the core's unit tests share: ways to hand frames to a daemon in the fake world; small worlds made of words, messages
// of few fields, and one line for everything that was sent, called, held, learned and counted, compared whole.
#pragma once

#include <gtest/gtest.h>

#include <span>

#include "world.h"

#include "dhcpsnoop_cmd.h"
#include "dhcpsnoop_event.h"
#include "dhcpsnoop_if.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_loop.h"
#include "dhcpsnoop_msg.h"
#include "dhcpsnoop_notify.h"
#include "dhcpsnoop_server.h"
#include "dhcpsnoop_start.h"
#include "dhcpsnoop_state.h"
#include "dhcpsnoop_timer.h"
#include "dhcpsnoop_user.h"
#include "list.h"

using Lines = std::vector<std::string>;

constexpr uint32_t HOST = ip4(10, 0, 0, 50), SERVER = ip4(10, 0, 0, 1), RELAY = ip4(10, 0, 0, 254);
constexpr uint8_t DISCOVER = 1, OFFER = 2, REQUEST = 3, DECLINE = 4, ACK = 5, NAK = 6, RELEASE = 7, INFORM = 8;

// A word of a scene and its effect on the world or the daemon.
struct Word {
    const char *word;
    void (*effect)();
};

// A new daemon with ports 1 and 3 in VLAN 10, VLAN interface 110 of it, and trunk 2 (native VLAN 10, also 20). Ports 1 and
// 2 (trusted, the servers') are snooped. Then the effects of the words, one after the other, from `own` or from the table in
// scene.cpp; an unknown word is a failure. The journal is empty afterwards, the traces are on.
void prepare(const std::string &words, std::span<const Word> own = {});

// The world of prepare("") with a started daemon. After every test the daemon's lists and pools must be whole.
class Daemon : public testing::Test
{
  protected:
    void SetUp() override { prepare(""); }
    void TearDown() override { EXPECT_EQ(world_check_tables(), ""); }
};

// Everything printed while it lives.
template <void (*CAPTURE)(), std::string (*CAPTURED)()>
struct Capture {
    Capture() { CAPTURE(); }
    ~Capture() { text(); }
    const std::string &text()
    {
        if (!captured)
            captured = CAPTURED();
        return *captured;
    }
    std::optional<std::string> captured = {};
};
using Printed = Capture<testing::internal::CaptureStdout, testing::internal::GetCapturedStdout>;
using PrintedError = Capture<testing::internal::CaptureStderr, testing::internal::GetCapturedStderr>;

inline void debug(int flags) { gDhcpsnoop.debugFlags = static_cast<uint8_t>(flags); }
void set_flag_field(DhcpsnoopIf *ifp, DhcpsnoopFlagField field, uint32_t value);

// Switches snooping on for an interface of the world; `flags` (DHCPSNOOP_IF_…) are added. Its traces in the
// journal are cleared.
DhcpsnoopIf *snoop(uint32_t ifIndex, uint32_t flags = 0);

// A binding's key: an IPv4 address in host order, or the text of an IPv6 address.
struct Key : DhcpsnoopUserKey {
    Key(const DhcpsnoopUserKey &key) : DhcpsnoopUserKey(key) {}
    Key(uint32_t address);
    Key(const char *address);
};
DhcpsnoopUser *binding(const Key &key); // null when there is none
// A dynamic binding made directly in the table, and counted.
DhcpsnoopUser *make_binding(const Key &key, const Mac &mac, uint32_t ifIndex, uint16_t vid);

// How a frame came in: what the packet information says of it.
struct Arrival {
    uint32_t port = 1;
    uint16_t outer = 10, inner = 0;         // VLANs
    std::optional<uint16_t> l2 = {};        // else the frame's own
    std::optional<uint16_t> etherType = {}; // else by the socket: the frame's own
    std::optional<uint32_t> inIf = {};      // else the interface of `port`, else of the VLAN
};

DhcpsnoopRxPkt rx_packet(const Bytes &frame, const Arrival &arrival = {});

// The frame goes through dhcpsnoop_recv.
void receive(const Bytes &frame, const Arrival &arrival = {});

// A frame parsed and kept, for calling a function below dhcpsnoop_recv. The frame buffer is the record's.
struct Parsed {
    explicit Parsed(const Bytes &frame, const Arrival &arrival = {});
    Parsed(const Parsed &) = delete;
    Parsed &operator=(const Parsed &) = delete;
    // The frame as it stands, `frameLen` bytes.
    Bytes bytes() const { return Bytes(info.frame, info.frame + info.frameLen); }

    DhcpsnoopRxPkt rx;
    DhcpsnoopPktInfo info;
    int32_t result;
};

constexpr const char *THEN = "then"; // instead of words: the row goes on from the row before it

// "2 292, hw +1 .50 f0/80 | .50 bound 1/10 | waits 1 | server .1 2/10 | 1 drops mac 1": frames (port, length), relayed
// datagrams, and calls of the platform, in this order; then bindings, waiting clients, servers and drop counters.
std::string outcome();

// "2 342, 3 346": egress port and length of each frame, in order.
std::string sent_summary();
// The only frame sent; a failure when there is not exactly one.
Bytes sent_frame();

// A call that adds or deletes a rule, as "hw +1 .50 f0/80": add (-: delete), port, address, check items that the record carries,
// rule flags.
std::string rule(const WorldEntry &call);
// The calls that change something, rules so written.
std::string calls_summary();

// Every binding: last octet (":1f", two octets, of IPv6), type when not dynamic, state, port/VLAN. Further fields only when they are
// unusual: /original VLAN, lease other than 3600 (bound) or 60 (asked) as "600s", start as "-5s ago", MAC other than
// MAC_CLIENT as "of 02", "hw" flags, "by" the server.
std::string held();

// The debug texts, without "[DHCPSNOOP] " and line end: "Parse packet error, stop process!|Process pkt end.". A text that is
// framed in another way stands whole in braces.
std::string said();
// The first of the texts, separated by '|', that was not printed, or with '!' in front, was.
std::string unsaid(const std::string &texts);

// An IPv4 message; by default client 1 asks for HOST on port 1. OFFER, ACK and NAK come from SERVER on port 2 and give it.
struct Message {
    uint8_t type = REQUEST; // 0: none is sent, time passes
    uint32_t ciaddr = 0, srcIp = 0, giaddr = 0;
    Mac chaddr = MAC_CLIENT; // and the frame's source, if that is not forged
    bool forged = false;
    uint32_t address = HOST; // option 50 of a client, yiaddr of a server; 0: none
    Bytes more = {};         // further options
    std::optional<Arrival> arrival = {};
    uint32_t after = 0;                     // seconds that pass first
    uint16_t flags = 0;                     // of BOOTP
    uint32_t server = SERVER, lease = 3600; // options 54 (0: none) and 51 of a server's message

    Frame frame() const;
    void receive() const;
};

struct Row {
    const char *claim, *before; // words of prepare(), or THEN
    Message message;
    const char *outcome, *said = "";
    std::optional<Bytes> becomes = {}; // instead of the message's `more`, as sent
    const char *undone = "";           // of the relaying of a reply: to the "client" or by "broadcast"
};
// Plays each row; what leaves untagged or to a server is compared byte for byte. Lists, pools and user counts are right after each row.
void check_rows(std::span<const Row> rows, std::span<const Word> own = {});

// Text of several cases, " / " between them; of cases that are all alike, the one text.
std::string series(const Lines &cases);
std::string joined(const Lines &lines, const char *between = ", ");

// Rows of a function: what it gave, and what is right.
struct Case {
    const char *claim;
    std::string got, right;
};
void check(const std::vector<Case> &cases);
