// What the tests of the Linux platform's switch model share: link messages made or recorded, and the model as
// text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "switch_model.h"

namespace linux_test
{

using Bytes = std::vector<uint8_t>;

// A link message in the kernel's layout, attribute by attribute (rtnetlink(7)).
class LinkMessage
{
  public:
    LinkMessage(uint16_t type, uint8_t family, uint32_t ifIndex, uint32_t flags = 0);

    LinkMessage &attribute(uint16_t type, const void *value, size_t size);
    LinkMessage &number(uint16_t type, uint32_t value) { return attribute(type, &value, sizeof value); }
    LinkMessage &text(uint16_t type, const char *value);
    LinkMessage &begin(uint16_t type); // an attribute of attributes
    LinkMessage &end();

    const Bytes &bytes() const { return bytes_; }

  private:
    void pad();
    void seal();

    Bytes bytes_;
    std::vector<size_t> open_;
};

struct Recorded {
    std::string command; // "dump": the messages are those of a dump
    std::vector<Bytes> messages;
};

// A recording in tests/data.
std::vector<Recorded> read_recording(const char *name);

// "swp1: native 10, tagged 20-29,100, untagged 10, up, forwarding", one line a port.
std::string describe(const std::map<uint32_t, platform_linux::Port> &ports);

// What the daemon is told: "port 7 joined", "aggregate 9 + 7", "aggregate 9 - 7", "7 gone", one after the
// other.
std::string describe(const platform_linux::DaemonEvents &events);

// What the platform asked of the trap since the last call: "305 3 v4 on" and so on, from the recorder that
// stands in for it.
std::string take_traps();

} // namespace linux_test
