#include "hosts.h"

#include <algorithm>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include "kernel_dump.h"

namespace platform_linux
{
namespace
{
constexpr uint32_t LATELY = 5 * 60; // seconds; a bridge forgets a host after as many
constexpr uint8_t FAMILIES[] = {AF_BRIDGE, AF_INET, AF_INET6};
constexpr uint16_t NOT_SEEN = NUD_INCOMPLETE | NUD_FAILED | NUD_NOARP;

struct Neighbour {
    uint32_t ifIndex;
    std::array<uint8_t, 6> mac;
    HostAddress address;
};

struct Seen {
    std::vector<SeenHost> &hosts;
    std::vector<Neighbour> neighbours;
};

template <size_t SIZE> std::array<uint8_t, SIZE> bytes_of(const nlattr *attribute)
{
    std::array<uint8_t, SIZE> bytes = {};
    memcpy(bytes.data(), mnl_attr_get_payload(attribute),
           std::min<size_t>(SIZE, mnl_attr_get_payload_len(attribute)));
    return bytes;
}

// Confirmed by the host, or learned.
bool is_recent(const nlattr *attribute)
{
    nda_cacheinfo info = {};
    if (attribute == nullptr || mnl_attr_get_payload_len(attribute) < sizeof info)
        return true;
    memcpy(&info, mnl_attr_get_payload(attribute), sizeof info);
    return std::min(info.ndm_confirmed, info.ndm_updated) / static_cast<uint32_t>(sysconf(_SC_CLK_TCK)) <=
           LATELY;
}

int take(const nlmsghdr *message, void *to)
{
    auto &seen = *static_cast<Seen *>(to);
    const nlattr *at[NDA_MAX + 1] = {};
    const auto store = [](const nlattr *attribute, void *table) {
        if (mnl_attr_get_type(attribute) <= NDA_MAX)
            static_cast<const nlattr **>(table)[mnl_attr_get_type(attribute)] = attribute;
        return MNL_CB_OK;
    };
    if (mnl_nlmsg_get_payload_len(message) < sizeof(ndmsg))
        return MNL_CB_OK;
    mnl_attr_parse(message, sizeof(ndmsg), store, static_cast<void *>(at));
    const auto &entry = *static_cast<const ndmsg *>(mnl_nlmsg_get_payload(message));
    if (at[NDA_LLADDR] == nullptr || mnl_attr_get_payload_len(at[NDA_LLADDR]) != 6)
        return MNL_CB_OK;
    const auto mac = bytes_of<6>(at[NDA_LLADDR]);
    const auto ifIndex = static_cast<uint32_t>(entry.ndm_ifindex);
    if (entry.ndm_family == AF_BRIDGE) { // permanent entries are the bridge's own addresses
        if (at[NDA_MASTER] != nullptr && (entry.ndm_state & NUD_PERMANENT) == 0 && (mac[0] & 1) == 0)
            seen.hosts.push_back(
                {ifIndex, at[NDA_VLAN] != nullptr ? mnl_attr_get_u16(at[NDA_VLAN]) : uint16_t{0}, mac, {}});
    } else if (at[NDA_DST] != nullptr && (entry.ndm_state & NOT_SEEN) == 0 && is_recent(at[NDA_CACHEINFO])) {
        const HostAddress address = {entry.ndm_family == AF_INET6, bytes_of<16>(at[NDA_DST])};
        const bool linkLocal =
            address.v6 && address.bytes[0] == 0xFE && (address.bytes[1] & 0xC0) == 0x80; // RFC 4291 2.5.6
        if (!linkLocal)
            seen.neighbours.push_back({ifIndex, mac, address});
    }
    return MNL_CB_OK;
}

} // namespace

bool hosts_seen(std::vector<SeenHost> &hosts)
{
    Seen seen = {hosts, {}};
    for (const uint8_t family : FAMILIES) {
        ndmsg neighbour = {};
        neighbour.ndm_family = family;
        if (!kernel_dump(NETLINK_ROUTE, RTM_GETNEIGH, &neighbour, sizeof neighbour, take, &seen))
            return false;
    }
    for (const Neighbour &neighbour : seen.neighbours) {
        bool known = false;
        for (SeenHost &host : hosts)
            if (host.mac == neighbour.mac) {
                known = true;
                host.addresses.push_back(neighbour.address);
            }
        if (!known)
            hosts.push_back({neighbour.ifIndex, 0, neighbour.mac, {neighbour.address}});
    }
    return true;
}

} // namespace platform_linux
