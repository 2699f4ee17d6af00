// Tests that need the kernel: each runs in a network namespace and a mount namespace of its own, which go
// away with the process, and skips with the reason where it may not have them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "frame.h"

inline Frame discover() { return client_frame(1); }

class NetnsTest : public ::testing::Test
{
  protected:
    void SetUp() override;

    // A shell command; what it prints, errors too. A command that fails fails the test.
    std::string run(const std::string &command);
    // A pair of connected Ethernet devices, both up, without IPv6 of their own.
    void veth(const std::string &one, const std::string &other);
    // Bridge br0 with the ports p1 and p2, whose other ends are c1 and c2. Jumbo frames pass.
    void bridge_of_two();
    uint32_t index(const std::string &device);
    void sysctl(const std::string &path, const std::string &value);
};

// A raw socket on one device: sends frames as they stand and collects those that arrive there.
class Wire
{
  public:
    explicit Wire(const std::string &device);
    ~Wire();
    Wire(const Wire &) = delete;
    Wire &operator=(const Wire &) = delete;

    void send(const Bytes &frame);
    // The checksum at `start` + `offset` is left to the device that sends, as a virtual machine's driver
    // does.
    void send_unfinished(const Bytes &frame, size_t start, size_t offset);
    // The next frame that came in, or none for a tenth of a second. The kernel took out its outermost tag.
    std::optional<Bytes> receive();

  private:
    int sock_;
};
