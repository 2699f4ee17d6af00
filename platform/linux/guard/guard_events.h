// The guard's configuration as events for the daemon: check items that changed on a port or VLAN, ARP
// inspection started and stopped. The messages are made of the configuration and of nothing else, whoever
// announces that it has changed. The state that the daemon was told last is remembered, so that a start, a
// lost announcement or a port that comes late need no case of their own.
#pragma once

#include <map>

#include "model.h"
#include "netlink.h"

namespace platform_linux
{

// Check items that are to stand at an interface; a VLAN by its VLAN interface.
struct GuardedInterface {
    uint8_t ip, arp;
    uint16_t vlan; // 0 = a port
    bool operator==(const GuardedInterface &) const = default;
};
using GuardedInterfaces = std::map<uint32_t, GuardedInterface>; // by index

// An event of the switch about the check items of an interface.
struct CheckItemsEvent {
    nlmsghdr header;
    uint32_t ifIndex;
    uint8_t items;
    uint8_t reserved[3];
};
inline CheckItemsEvent check_items_event(uint16_t type, uint32_t ifIndex, uint8_t items)
{
    return {
        {sizeof(CheckItemsEvent), type, 0, 0, 0},
        ifIndex, items, {                     }
    };
}

class GuardEvents
{
  public:
    // Appends what the daemon must be told to come from what it was told last to `wanted`. `ports` are those
    // that there are: of others the daemon knows already that they have gone.
    void follow(const GuardedInterfaces &wanted, const std::map<uint32_t, Port> &ports, DaemonEvents &events);

    // ARP inspection stands somewhere.
    bool inspects() const;
    const GuardedInterfaces &told() const { return told_; }

  private:
    void follow_ip(const GuardedInterfaces &wanted, const std::map<uint32_t, Port> &ports,
                   DaemonEvents &events) const;
    void follow_arp(const GuardedInterfaces &wanted, const std::map<uint32_t, Port> &ports,
                    DaemonEvents &events) const;

    GuardedInterfaces told_;
};

} // namespace platform_linux
