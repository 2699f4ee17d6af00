// Tests that need the kernel: each runs in a network namespace and a mount namespace of its own, which go
// away with the process, and skips with the reason where it may not have them.
#pragma once

#include <cstring>
#include <functional>
#include <string>
#include <unistd.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>

#include "classifier.h"
#include "fd.h"
#include "frame.h"

class NetnsTest : public ::testing::Test
{
  protected:
    void SetUp() override;

    // A shell command; what it prints, errors too. A command that fails fails the test.
    std::string run(const std::string &command);
};

// With an open guard and a bridge br0 with the ports p1 and p2, whose other ends are c1 and c2. Jumbo frames pass.
class GuardedBridge : public NetnsTest
{
  protected:
    void SetUp() override;
    void TearDown() override { platform_linux::guard_close(); }
};

// In a process of its own, whose standard error nobody reads before it ends: what it printed there, and "signal 11" or
// "status 99", which is the end of `body`.
std::string in_child(const std::function<void()> &body);

// A raw socket on one device: sends frames as they stand and collects those that arrive there.
class Wire
{
  public:
    explicit Wire(const std::string &device);

    // `unfinished`: the checksum of the UDP header there is left to the device that sends, as a virtual machine's driver does.
    void send(const Bytes &frame, size_t unfinished = 0);
    // The next frame that came in, or nothing for a tenth of a second. The kernel took out its outermost tag.
    Bytes receive();

  private:
    platform_linux::Fd sock_;
};
