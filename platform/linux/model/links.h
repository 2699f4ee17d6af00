// The kernel's link messages (rtnetlink) in; the devices of this network namespace and messages for the
// daemon out. A pure translation: it neither reads nor writes a socket. A stock kernel's messages never go on
// to the daemon, to which their attribute numbers mean other things: it gets messages built here.
#pragma once

#include <cstdint>
#include <map>
#include <net/if.h>
#include <set>
#include <span>

#include "netlink.h"
#include "port.h"

namespace platform_linux
{

enum class LinkKind : uint8_t { other, bridge, aggregate, vlan };

// A device in a bridge; a bridge has VLANs of its own.
struct BridgePort {
    StpState stp;
    uint16_t number;           // among the bridge's ports
    uint16_t pvid;             // VLAN of its untagged frames; 0 = none
    VlanSet members, untagged; // VLANs it belongs to; the VLANs among them that leave untagged

    bool operator==(const BridgePort &) const = default;
};

// One device as the kernel last described it.
struct Link {
    uint32_t ifIndex;
    char name[IFNAMSIZ];
    uint8_t mac[6];    // zero when its address is no Ethernet address
    uint64_t aliasSum; // of its alias (ip link set alias), 0 = none
    bool up;           // switched on, with carrier, not dormant
    LinkKind kind;
    uint32_t master; // the bridge, bond or team it is in; 0 = none
    LinkKind masterKind;
    BridgePort bridgePort; // a bridge's own VLANs; of others zero when they are in no bridge
    uint32_t lower;        // a VLAN device: the device below it
    uint16_t vlan;         // a VLAN device: its VLAN
    bool vlanFiltering;    // a bridge
    uint16_t vlanProtocol; // a bridge: TPID
    uint16_t defaultPvid;  // a bridge

    bool operator==(const Link &) const = default;
};

class LinkTable
{
  public:
    // Takes one datagram, aligned to 4 bytes, of any content, and appends messages for the daemon. False when
    // the table may no longer be right and a dump of all links is needed.
    bool feed(std::span<const uint8_t> datagram, DaemonEvents &events);

    // Around a dump that is fed in between: devices that a complete one does not name are gone.
    void dump_begin();
    void dump_end(bool complete, DaemonEvents &events);

    const std::map<uint32_t, Link> &links() const { return links_; }

    // Devices that changed, came or went since the last call, or that are to be looked at again.
    std::set<uint32_t> take_changed();
    void look_again(uint32_t ifIndex) { changed_.insert(ifIndex); }

  private:
    // One message each. False when a dump of all links is needed.
    bool take(const nlmsghdr &message, DaemonEvents &events);
    bool take_link(uint32_t ifIndex, const nlmsghdr &message, DaemonEvents &events);
    bool take_bridge_port(uint32_t ifIndex, const nlmsghdr &message, DaemonEvents &events);

    void update(const Link &link, DaemonEvents &events);
    void remove(uint32_t ifIndex, DaemonEvents &events);

    std::map<uint32_t, Link> links_;
    std::set<uint32_t> changed_;
    std::set<uint32_t> unseen_; // during a dump: devices it has not named yet
};

} // namespace platform_linux
