// The kernel's link messages (rtnetlink) in; the devices of this network namespace and what the daemon is to
// be told of them out. A pure translation: it neither reads nor writes a socket. A stock kernel's messages
// never go on to the daemon, whose attribute numbers mean other things: it gets messages built here.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <linux/netlink.h>
#include <map>
#include <net/if.h>
#include <set>
#include <span>

#include "model.h"

namespace platform_linux
{

enum class LinkKind : uint8_t { other, bridge, aggregate, vlan };

// One device as the kernel last described it.
struct Link {
    uint32_t ifIndex;
    char name[IFNAMSIZ];
    uint8_t mac[6]; // zero when its address is no Ethernet address
    bool up;        // switched on, with carrier, not dormant
    LinkKind kind;
    uint32_t master; // the bridge, bond or team it is in; 0 = none
    LinkKind masterKind;
    uint32_t lower;            // a VLAN device: what it stands on
    uint16_t vlan;             // a VLAN device: its VLAN
    bool vlanFiltering;        // a bridge
    uint16_t vlanProtocol;     // a bridge: TPID
    uint16_t defaultPvid;      // a bridge
    StpState stp;              // in a bridge
    uint16_t bridgePort;       // in a bridge: its port number there
    uint16_t pvid;             // in a bridge: VLAN of its untagged frames; 0 = none
    VlanSet members, untagged; // in a bridge

    bool operator==(const Link &) const = default;
};

// A message for the daemon, in the switch's numbering, host byte order.
struct DaemonEvent {
    std::array<uint8_t, 40> bytes;
    uint32_t length;
};
using DaemonEvents = std::deque<DaemonEvent>;

// The first netlink message of `rest`, which is aligned to 4 bytes and is left with what follows it; null
// when there is no whole message left. libmnl's own walk takes a length above 2 GiB for a short one.
const nlmsghdr *next_message(std::span<const uint8_t> &rest);

class LinkTable
{
  public:
    // Takes one datagram, aligned to 4 bytes, of any content, and appends what the daemon is to be told.
    // False when the picture may no longer be right and a dump of all links is needed.
    bool feed(std::span<const uint8_t> datagram, DaemonEvents &events);

    // Around a dump that is fed in between: devices that a complete one does not name are gone.
    void dump_begin();
    void dump_end(bool complete, DaemonEvents &events);

    const std::map<uint32_t, Link> &links() const { return links_; }

    // Devices that changed, came or went since the last call.
    std::set<uint32_t> take_changed();

  private:
    void update(const Link &link, DaemonEvents &events);
    void remove(uint32_t ifIndex, DaemonEvents &events);

    std::map<uint32_t, Link> links_;
    std::set<uint32_t> changed_;
    std::set<uint32_t> unseen_; // during a dump: devices it has not named yet
};

} // namespace platform_linux
