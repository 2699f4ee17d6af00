// Netlink messages: the walk over a datagram of the kernel, and messages for the daemon.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <linux/netlink.h>
#include <span>

namespace platform_linux
{

// A message for the daemon, in the switch's numbering, host byte order.
struct DaemonEvent {
    std::array<uint8_t, 40> bytes;
    uint32_t length;
};
using DaemonEvents = std::deque<DaemonEvent>;

// Takes the first netlink message off `rest`, which is aligned to 4 bytes; null when no whole message is
// left. libmnl's own walk takes a length above 2 GiB for a short one.
const nlmsghdr *next_message(std::span<const uint8_t> &rest);

} // namespace platform_linux
