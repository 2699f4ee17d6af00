#include "links.h"

#include <arpa/inet.h>
#include <array>
#include <cstddef>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <string_view>
#include <utility>

#include "platform_numbers.h"
#include "protocol.h"

namespace platform_linux
{
namespace
{
constexpr size_t ATTRIBUTE_COUNT = IFLA_BR_VLAN_DEFAULT_PVID + 1; // the highest that is read, of any nest

// The attributes of a message or of a nest by number, null where absent. Of one that is there twice, the
// last.
struct Attributes {
    std::array<const nlattr *, ATTRIBUTE_COUNT> at{};

    explicit Attributes(const nlmsghdr &message) { mnl_attr_parse(&message, sizeof(ifinfomsg), store, this); }
    explicit Attributes(const nlattr *nest)
    {
        if (nest != nullptr)
            mnl_attr_parse_nested(nest, store, this);
    }

    static int store(const nlattr *attribute, void *self)
    {
        const uint16_t type = mnl_attr_get_type(attribute);
        if (type < ATTRIBUTE_COUNT)
            static_cast<Attributes *>(self)->at[type] = attribute;
        return MNL_CB_OK;
    }

    // Absent or shorter than its type: 0 or empty.
    uint8_t get8(size_t type) const { return fits(type, 1) ? mnl_attr_get_u8(at[type]) : uint8_t{0}; }
    uint16_t get16(size_t type) const { return fits(type, 2) ? mnl_attr_get_u16(at[type]) : uint16_t{0}; }
    uint32_t get32(size_t type) const { return fits(type, 4) ? mnl_attr_get_u32(at[type]) : 0; }
    std::string_view text(size_t type) const
    {
        if (at[type] == nullptr || mnl_attr_validate(at[type], MNL_TYPE_NUL_STRING) < 0)
            return {};
        return mnl_attr_get_str(at[type]);
    }

    bool fits(size_t type, size_t size) const
    {
        return at[type] != nullptr && mnl_attr_get_payload_len(at[type]) >= size;
    }
};

LinkKind kind_of(std::string_view name)
{
    if (name == "bridge")
        return LinkKind::bridge;
    if (name == "bond" || name == "team")
        return LinkKind::aggregate;
    return name == "vlan" ? LinkKind::vlan : LinkKind::other;
}

const ifinfomsg &info_of(const nlmsghdr &message)
{
    return *static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(&message));
}

// FNV-1a
uint64_t sum_of(std::string_view text)
{
    uint64_t sum = 0xcbf29ce484222325;
    for (const char c : text)
        sum = (sum ^ static_cast<uint8_t>(c)) * 0x100000001b3;
    return text.empty() ? 0 : sum;
}

// The kernel's state of a port is taken as ours.
static_assert(static_cast<int>(StpState::disabled) == BR_STATE_DISABLED &&
              static_cast<int>(StpState::blocking) == BR_STATE_BLOCKING &&
              static_cast<int>(StpState::forwarding) == BR_STATE_FORWARDING);

// Numbered alike in the bridge family's IFLA_PROTINFO and in IFLA_INFO_SLAVE_DATA.
void read_port_state(const nlattr *nest, BridgePort &port)
{
    const Attributes state(nest);
    if (state.fits(IFLA_BRPORT_STATE, 1) && state.get8(IFLA_BRPORT_STATE) <= BR_STATE_BLOCKING)
        port.stp = static_cast<StpState>(state.get8(IFLA_BRPORT_STATE));
    if (state.fits(IFLA_BRPORT_NO, 2))
        port.number = state.get16(IFLA_BRPORT_NO);
}

void leave_master(Link &link)
{
    link.master = 0;
    link.masterKind = LinkKind::other;
    link.bridgePort = {};
}

struct VlanWalk {
    BridgePort *port;
    uint16_t rangeBegin; // 0 = in no range
};

int read_vlan(const nlattr *attribute, void *walkPtr)
{
    auto *walk = static_cast<VlanWalk *>(walkPtr);
    bridge_vlan_info info;
    if (mnl_attr_get_type(attribute) != IFLA_BRIDGE_VLAN_INFO ||
        mnl_attr_get_payload_len(attribute) < sizeof info)
        return MNL_CB_OK;
    memcpy(&info, mnl_attr_get_payload(attribute), sizeof info);
    if (info.vid == 0 || info.vid > VLAN_ID_MAX)
        return MNL_CB_OK;
    if ((info.flags & BRIDGE_VLAN_INFO_RANGE_BEGIN) != 0) {
        walk->rangeBegin = info.vid;
        return MNL_CB_OK;
    }
    uint16_t first = info.vid;
    if ((info.flags & BRIDGE_VLAN_INFO_RANGE_END) != 0 && walk->rangeBegin != 0)
        first = walk->rangeBegin;
    walk->rangeBegin = 0;
    if (first > info.vid)
        return MNL_CB_OK;
    for (uint16_t vid = first; vid <= info.vid; vid++) {
        walk->port->members.set(vid);
        walk->port->untagged.set(vid, (info.flags & BRIDGE_VLAN_INFO_UNTAGGED) != 0);
    }
    if ((info.flags & BRIDGE_VLAN_INFO_PVID) != 0)
        walk->port->pvid = info.vid;
    return MNL_CB_OK;
}

// RTM_NEWLINK of family AF_UNSPEC. `link` brings the master that was known, which decides whether a port
// stays in its bridge.
void read_link(const Attributes &attributes, uint32_t flags, Link &link)
{
    link.up = (flags & IFF_UP) != 0 && (flags & IFF_LOWER_UP) != 0 && (flags & IFF_DORMANT) == 0;
    attributes.text(IFLA_IFNAME).copy(link.name, sizeof link.name - 1);
    if (attributes.fits(IFLA_ADDRESS, sizeof link.mac) &&
        mnl_attr_get_payload_len(attributes.at[IFLA_ADDRESS]) == sizeof link.mac)
        memcpy(link.mac, mnl_attr_get_payload(attributes.at[IFLA_ADDRESS]), sizeof link.mac);
    link.aliasSum = sum_of(attributes.text(IFLA_IFALIAS));

    const Attributes info(attributes.at[IFLA_LINKINFO]);
    link.kind = kind_of(info.text(IFLA_INFO_KIND));
    if (link.kind == LinkKind::bridge) {
        const Attributes bridge(info.at[IFLA_INFO_DATA]);
        link.vlanFiltering = bridge.get8(IFLA_BR_VLAN_FILTERING) != 0;
        link.vlanProtocol = ntohs(bridge.get16(IFLA_BR_VLAN_PROTOCOL));
        link.defaultPvid = bridge.get16(IFLA_BR_VLAN_DEFAULT_PVID);
    } else if (link.kind == LinkKind::vlan) {
        const Attributes vlan(info.at[IFLA_INFO_DATA]);
        link.vlan = vlan.get16(IFLA_VLAN_ID);
        link.lower = attributes.get32(IFLA_LINK);
    }
    const uint32_t master = attributes.get32(IFLA_MASTER);
    // The slave kind is the kind of the master, told even where the master's own message was lost.
    const LinkKind masterKind = master == 0 ? LinkKind::other : kind_of(info.text(IFLA_INFO_SLAVE_KIND));
    if (master != link.master || masterKind != link.masterKind)
        link.bridgePort = {};
    link.master = master;
    link.masterKind = masterKind;
    if (masterKind == LinkKind::bridge)
        read_port_state(info.at[IFLA_INFO_SLAVE_DATA], link.bridgePort);
}

// The VLANs of a bridge's port, or the bridge's own, all of which the message names.
void read_vlans(const Attributes &attributes, BridgePort &port)
{
    port.pvid = 0;
    port.members.reset();
    port.untagged.reset();
    VlanWalk walk{&port, 0};
    if (attributes.at[IFLA_AF_SPEC] != nullptr)
        mnl_attr_parse_nested(attributes.at[IFLA_AF_SPEC], read_vlan, &walk);
}

// RTM_NEWLINK of family AF_BRIDGE over what was known of the port.
void read_bridge_port(const Attributes &attributes, Link &link)
{
    link.master = attributes.get32(IFLA_MASTER);
    link.masterKind = LinkKind::bridge;
    read_port_state(attributes.at[IFLA_PROTINFO], link.bridgePort);
    read_vlans(attributes, link.bridgePort);
}

void tell(DaemonEvents &events, uint16_t type, uint32_t ifIndex, uint16_t attribute = 0, uint32_t value = 0)
{
    struct {
        nlmsghdr header;
        ifinfomsg info;
        rtattr attribute;
        uint32_t value;
    } message{};
    static_assert(sizeof message == sizeof DaemonEvent{}.bytes);
    const size_t length = attribute != 0 ? sizeof message : offsetof(decltype(message), attribute);
    message.header.nlmsg_len = static_cast<uint32_t>(length);
    message.header.nlmsg_type = type;
    message.info.ifi_index = static_cast<int>(ifIndex);
    message.attribute.rta_len = RTA_LENGTH(sizeof value);
    message.attribute.rta_type = attribute;
    message.value = value;
    DaemonEvent &event = events.emplace_back();
    event.length = static_cast<uint32_t>(length);
    memcpy(event.bytes.data(), &message, length);
}

uint32_t aggregate_of(const Link &link) { return link.masterKind == LinkKind::aggregate ? link.master : 0; }

} // namespace

void LinkTable::update(const Link &link, DaemonEvents &events)
{
    unseen_.erase(link.ifIndex);
    Link &known = links_.try_emplace(link.ifIndex).first->second;
    if (known == link)
        return;
    const uint32_t left = aggregate_of(known), joined = aggregate_of(link);
    known = link;
    changed_.insert(link.ifIndex);
    if (left == joined)
        return;
    if (left != 0)
        tell(events, QOR_EVENT_NEW_LINK, left, QOR_LINK_PORT_REMOVED, link.ifIndex);
    if (joined != 0) {
        tell(events, QOR_EVENT_NEW_LINK, link.ifIndex, QOR_LINK_JOINS_AGGREGATE, joined);
        tell(events, QOR_EVENT_NEW_LINK, joined, QOR_LINK_PORT_ADDED, link.ifIndex);
    }
}

void LinkTable::remove(uint32_t ifIndex, DaemonEvents &events)
{
    unseen_.erase(ifIndex);
    const auto it = links_.find(ifIndex);
    if (it == links_.end())
        return;
    if (const uint32_t left = aggregate_of(it->second); left != 0)
        tell(events, QOR_EVENT_NEW_LINK, left, QOR_LINK_PORT_REMOVED, ifIndex);
    tell(events, QOR_EVENT_DEL_LINK, ifIndex);
    links_.erase(it);
    changed_.insert(ifIndex);
}

// RTM_NEWLINK of family AF_UNSPEC.
bool LinkTable::take_link(uint32_t ifIndex, const nlmsghdr &message, DaemonEvents &events)
{
    const Attributes attributes(message);
    // A wireless event is a link message with no attribute but its own: the missing master says nothing.
    if (attributes.text(IFLA_IFNAME).empty())
        return true;
    Link link{};
    link.ifIndex = ifIndex;
    const auto known = links_.find(ifIndex);
    if (known != links_.end()) {
        link.master = known->second.master;
        link.masterKind = known->second.masterKind;
        link.bridgePort = known->second.bridgePort;
    }
    read_link(attributes, info_of(message).ifi_flags, link);
    // A changed default VLAN moves ports, and no message says which. Nor does one tell the first VLANs of a
    // bridge itself.
    const bool moved = link.kind == LinkKind::bridge &&
                       (known == links_.end() ? link.vlanFiltering
                                              : link.vlanFiltering != known->second.vlanFiltering ||
                                                    link.defaultPvid != known->second.defaultPvid);
    update(link, events);
    return !moved;
}

// RTM_NEWLINK or RTM_DELLINK of family AF_BRIDGE: the port is in a bridge, or left it and lives on; or a
// bridge's own VLANs.
bool LinkTable::take_bridge_port(uint32_t ifIndex, const nlmsghdr &message, DaemonEvents &events)
{
    const Attributes attributes(message);
    // A bridge itself names itself; a network card with a switch in it names nobody.
    const uint32_t master = attributes.get32(IFLA_MASTER);
    const bool left = message.nlmsg_type == RTM_DELLINK, isItself = master == ifIndex;
    if (master == 0 || (isItself && left))
        return true;
    const auto known = links_.find(ifIndex);
    if (known == links_.end())
        return left || isItself;
    Link link = known->second;
    if (isItself && link.kind == LinkKind::bridge)
        read_vlans(attributes, link.bridgePort);
    else if (!left && !isItself)
        read_bridge_port(attributes, link);
    else if (left && link.masterKind == LinkKind::bridge)
        leave_master(link);
    update(link, events);
    return true;
}

bool LinkTable::take(const nlmsghdr &message, DaemonEvents &events)
{
    const bool there = message.nlmsg_type == RTM_NEWLINK;
    // Link messages are a multiple of 4 long; libmnl's walk relies on it.
    if ((!there && message.nlmsg_type != RTM_DELLINK) ||
        message.nlmsg_len < sizeof(nlmsghdr) + sizeof(ifinfomsg) || message.nlmsg_len % NLMSG_ALIGNTO != 0 ||
        info_of(message).ifi_index <= 0)
        return true;
    const auto ifIndex = static_cast<uint32_t>(info_of(message).ifi_index);
    switch (info_of(message).ifi_family) {
    case AF_UNSPEC:
        if (there)
            return take_link(ifIndex, message, events);
        remove(ifIndex, events);
        return true;
    case AF_BRIDGE:
        return take_bridge_port(ifIndex, message, events);
    default:
        return true;
    }
}

bool LinkTable::feed(std::span<const uint8_t> datagram, DaemonEvents &events)
{
    bool complete = true;
    while (const nlmsghdr *message = next_message(datagram))
        complete = take(*message, events) && complete;
    return complete;
}

void LinkTable::dump_begin()
{
    unseen_.clear();
    for (const auto &[ifIndex, link] : links_)
        unseen_.insert(ifIndex);
}

void LinkTable::dump_end(bool complete, DaemonEvents &events)
{
    if (!complete)
        unseen_.clear();
    while (!unseen_.empty())
        remove(*unseen_.begin(), events);
}

std::set<uint32_t> LinkTable::take_changed() { return std::exchange(changed_, {}); }

} // namespace platform_linux
