// The classifier at a device's clsact ingress, and other programs at its egress. Each stands at a fixed
// handle and priority under a fixed name, so that it is found again and replaced, never doubled. Results are
// 0 or an errno value.
#pragma once

#include <cstdint>
#include <vector>

#include <linux/netlink.h>

namespace platform_linux
{

// The programs' names in the kernel; the filters' begin with them.
constexpr char GUARD_PROGRAM[] = "dhcpsnoop_guard", GUARD_OUT_PROGRAM[] = "dhcpsnoop_out",
               GUARD_HOST_PROGRAM[] = "dhcpsnoop_host";

enum class Direction : uint8_t { ingress, egress };

// What stands at a device's clsact ingress and egress.
struct Filters {
    bool ours = false, oursOut = false, oursHost = false, others = false;
    bool isOurs() const { return ours || oursOut || oursHost; }
};

bool filter_list(uint32_t ifIndex, Filters &filters); // false when the kernel did not give all

// Attaches the program, in place of an earlier run's. `qdiscMade` becomes true when the queueing discipline
// had to be made for it.
int filter_attach(uint32_t ifIndex, Direction direction, int program, bool &qdiscMade);

// Detaches the program at the egress alone.
int filter_detach_out(uint32_t ifIndex);

// Detaches all of ours, and removes the queueing discipline when that is ours and nobody else uses it now.
int filter_detach(uint32_t ifIndex, bool qdiscIsOurs);

// The device whose clsact ingress or egress has lost a filter or all, by a message of the kernel's that may
// say so: RTM_DELTFILTER, RTM_DELQDISC. Else 0.
uint32_t filter_taken_off(const nlmsghdr &message);

std::vector<uint32_t> device_indexes(); // of this network namespace

} // namespace platform_linux
