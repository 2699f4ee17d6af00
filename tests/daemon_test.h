// What the unit tests share: a fixture with a fresh world and a started daemon, ways to hand it frames, and
// comparers. After every test the daemon's lists and pools must be whole.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame.h"
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

// How a frame came in: what the packet information says of it.
struct Arrival {
    uint32_t port = 1;
    uint16_t outer = 10;
    uint16_t inner = 0;
    std::optional<uint16_t> l2 = {};        // else the frame's own
    std::optional<uint16_t> etherType = {}; // else by the socket: the frame's own
    std::optional<uint32_t> inIf = {};      // else the interface of `port`, else of the VLAN
};

// Everything printed while it lives.
template <void (*CAPTURE)(), std::string (*CAPTURED)()>
class Capture
{
  public:
    Capture() { CAPTURE(); }
    ~Capture() { text(); }
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    const std::string &text()
    {
        fflush(stdout);
        if (!text_)
            text_ = CAPTURED();
        return *text_;
    }

  private:
    std::optional<std::string> text_;
};
using Printed = Capture<testing::internal::CaptureStdout, testing::internal::GetCapturedStdout>;
using PrintedError = Capture<testing::internal::CaptureStderr, testing::internal::GetCapturedStderr>;

class Daemon : public testing::Test
{
  protected:
    void SetUp() override { world.reset(); }
    void TearDown() override { EXPECT_EQ(world_check_tables(), ""); }
};

// Port 1 in VLAN 10 is snooped, and the traces are on.
class DaemonOnPort1 : public Daemon
{
  protected:
    void SetUp() override;
};

// Switches snooping on for an interface of the world; `flags` (DHCPSNOOP_IF_…) are added. Its traces in the
// journal are cleared.
DhcpsnoopIf *snoop(uint32_t ifIndex, uint32_t flags = 0);

DhcpsnoopRxPkt rx_packet(const Bytes &frame, const Arrival &arrival = {});

// The frame goes through dhcpsnoop_recv.
void receive(const Bytes &frame, const Arrival &arrival = {});
template <class AnyFrame>
void receive(const AnyFrame &frame, const Arrival &arrival = {}) { receive(frame.bytes(), arrival); }

// A frame parsed and kept, for calling a function below dhcpsnoop_recv. The frame buffer is the record's.
struct Parsed {
    template <class AnyFrame>
    explicit Parsed(const AnyFrame &frame, const Arrival &arrival = {}) : Parsed(frame.bytes(), arrival) {}
    explicit Parsed(const Bytes &frame, const Arrival &arrival = {});
    Parsed(const Parsed &) = delete;
    Parsed &operator=(const Parsed &) = delete;
    // The frame as it stands, `frameLen` bytes.
    Bytes bytes() const { return Bytes(info.frame, info.frame + info.frameLen); }

    DhcpsnoopRxPkt rx;
    DhcpsnoopPktInfo info;
    int32_t result;
};

// "2 342, 3 346": egress port and length of each frame, in order.
std::string sent_summary();
// The only frame sent; a failure when there is not exactly one.
Bytes sent_frame();

inline void debug(int flags) { gDhcpsnoop.debugFlags = static_cast<uint8_t>(flags); }

// Debug texts printed so far.
inline Lines debug_texts() { return world.texts(Did::Debug); }
bool printed(const std::string &text);
// All of them, without "[DHCPSNOOP] " and line end: "Parse packet error, stop process!|Process pkt end.". A text that is
// framed in another way stands whole in braces.
std::string said();

DhcpsnoopUserKey key4(uint32_t address);
DhcpsnoopUserKey key6(const char *address);
DhcpsnoopUser *binding(uint32_t address); // null when there is none
DhcpsnoopUser *binding(const char *address);
size_t count_bindings();
size_t count_waiting(); // MAC users

// A dynamic binding made directly in the table, and counted.
DhcpsnoopUser *make_binding(const DhcpsnoopUserKey &key, const Mac &mac, uint32_t ifIndex, uint16_t vid);
DhcpsnoopUser *make_binding(uint32_t address, const Mac &mac, uint32_t ifIndex, uint16_t vid);

void set_flag_field(DhcpsnoopIf *ifp, DhcpsnoopFlagField field, uint32_t value);
