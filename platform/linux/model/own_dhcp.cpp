// Sockets by sock_diag(7), addresses by rtnetlink(7), packet sockets by /proc/net/packet.
#include "own_dhcp.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_ether.h>
#include <linux/inet_diag.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <memory>
#include <netinet/in.h>
#include <set>
#include <vector>

#include "kernel_dump.h"
#include "protocol.h"

namespace platform_linux
{
namespace
{
constexpr uint8_t HOST_PREFIX =
    128; // of an IPv6 address; one without DHCP comes with the prefix of its network

using Address = std::array<uint8_t, 16>; // network order, IPv4 in the first 4

struct OwnAddress {
    uint32_t ifIndex;
    uint8_t family;
    Address address;
    bool isLeased; // it ends some time, and no router gave it
};

struct UdpSocket {
    uint32_t ifIndex; // that it is bound to; 0 = none
    uint8_t family;
    uint16_t port;
    Address address;
};

struct Seen {
    std::vector<OwnAddress> addresses;
    std::vector<UdpSocket> sockets;
    std::set<uint32_t> packetSockets; // devices with one for all frames
    std::set<uint32_t> ipSockets;     // devices with one for IPv4 alone
};

int take_address(const nlmsghdr *message, void *to)
{
    if (mnl_nlmsg_get_payload_len(message) < sizeof(ifaddrmsg))
        return MNL_CB_OK;
    const auto &info = *static_cast<const ifaddrmsg *>(mnl_nlmsg_get_payload(message));
    OwnAddress own = {info.ifa_index, info.ifa_family, {}, (info.ifa_flags & IFA_F_PERMANENT) == 0};
    own.isLeased = own.isLeased && (info.ifa_family == AF_INET || info.ifa_prefixlen == HOST_PREFIX);
    const auto read = [](const nlattr *attribute, void *address) {
        const uint16_t type = mnl_attr_get_type(attribute);
        if (type == IFA_LOCAL || type == IFA_ADDRESS) // both in one message are the same but on a tunnel
            memcpy(static_cast<Address *>(address)->data(), mnl_attr_get_payload(attribute),
                   std::min<size_t>(sizeof(Address), mnl_attr_get_payload_len(attribute)));
        return MNL_CB_OK;
    };
    mnl_attr_parse(message, sizeof info, read, &own.address);
    static_cast<Seen *>(to)->addresses.push_back(own);
    return MNL_CB_OK;
}

int take_socket(const nlmsghdr *message, void *to)
{
    if (mnl_nlmsg_get_payload_len(message) < sizeof(inet_diag_msg))
        return MNL_CB_OK;
    const auto &info = *static_cast<const inet_diag_msg *>(mnl_nlmsg_get_payload(message));
    UdpSocket udp = {info.id.idiag_if, info.idiag_family, ntohs(info.id.idiag_sport), {}};
    memcpy(udp.address.data(), info.id.idiag_src, udp.family == AF_INET ? 4 : udp.address.size());
    static_cast<Seen *>(to)->sockets.push_back(udp);
    return MNL_CB_OK;
}

void read_packet_sockets(Seen &seen)
{
    struct FileCloser {
        void operator()(FILE *file) const { fclose(file); }
    };
    const std::unique_ptr<FILE, FileCloser> file(fopen("/proc/net/packet", "re"));
    std::array<char, 256> line = {};
    while (file && fgets(line.data(), line.size(), file.get()) != nullptr) {
        unsigned protocol = 0, ifIndex = 0;
        if (sscanf(line.data(), "%*s %*s %*s %x %u", &protocol, &ifIndex) != 2)
            continue;
        if (protocol == ETH_P_IP)
            seen.ipSockets.insert(ifIndex);
        else if (protocol == ETH_P_ALL)
            seen.packetSockets.insert(ifIndex);
    }
}

bool look(Seen &seen)
{
    inet_diag_req_v2 sockets = {};
    sockets.sdiag_protocol = IPPROTO_UDP;
    sockets.idiag_states = ~uint32_t{0};
    for (const uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
        ifaddrmsg addresses = {};
        addresses.ifa_family = sockets.sdiag_family = family;
        if (!kernel_dump(NETLINK_ROUTE, RTM_GETADDR, &addresses, sizeof addresses, take_address, &seen))
            return false;
        kernel_dump(NETLINK_SOCK_DIAG, SOCK_DIAG_BY_FAMILY, &sockets, sizeof sockets, take_socket,
                    &seen); // a kernel may have none
    }
    read_packet_sockets(seen);
    return true;
}

bool is_link_local(const Address &address) // RFC 4291 2.5.6
{
    return address[0] == 0xFE && (address[1] & 0xC0) == 0x80;
}

// The devices that a socket is for. One for any is for those with an address of its family; programs that
// look at frames themselves have packet sockets on the devices that they are for.
std::set<uint32_t> devices_of(const UdpSocket &udp, const Seen &seen)
{
    std::set<uint32_t> named, addressed, looking;
    if (udp.ifIndex != 0)
        return {udp.ifIndex};
    for (const OwnAddress &own : seen.addresses) {
        if (own.family != udp.family)
            continue;
        if (own.family == AF_INET || !is_link_local(own.address))
            addressed.insert(own.ifIndex);
        if (own.address == udp.address)
            named.insert(own.ifIndex);
    }
    if (udp.address != Address{})
        return named;
    const bool asks = udp.port == DHCP_CLIENT_PORT;
    if (udp.family == AF_INET)
        for (const uint32_t ifIndex : seen.packetSockets)
            if (asks || addressed.contains(ifIndex))
                looking.insert(ifIndex);
    return asks || !looking.empty() ? looking : addressed;
}

} // namespace

bool own_dhcp(const std::map<uint32_t, Link> &links, bool relays, std::map<uint32_t, OwnDhcp> &found)
{
    Seen seen;
    if (!look(seen))
        return false;
    const auto note = [&](uint32_t ifIndex, std::string OwnDhcp::*what, const std::string &text) {
        auto link = links.find(ifIndex);
        if (link != links.end() && link->second.kind == LinkKind::vlan)
            link = links.find(link->second.lower);
        if (link == links.end() || link->second.kind != LinkKind::bridge)
            return;
        std::string &known = found[link->first].*what;
        known = known.empty() ? text : known;
    };
    for (const UdpSocket &udp : seen.sockets) {
        const bool serves = udp.port == (udp.family == AF_INET ? DHCP_SERVER_PORT : DHCP6_SERVER_PORT);
        const bool asks = udp.port == (udp.family == AF_INET ? DHCP_CLIENT_PORT : DHCP6_CLIENT_PORT);
        const bool isOurs =
            relays && udp.port == DHCP_SERVER_PORT && udp.ifIndex == 0 && udp.address == Address{};
        for (const uint32_t ifIndex :
             (serves || asks) && !isOurs ? devices_of(udp, seen) : std::set<uint32_t>{})
            note(ifIndex, serves ? &OwnDhcp::serves : &OwnDhcp::asks, "UDP port " + std::to_string(udp.port));
    }
    for (const OwnAddress &own : seen.addresses)
        if (own.isLeased)
            note(own.ifIndex, &OwnDhcp::asks, "an address with a lease");
    for (const uint32_t ifIndex : seen.ipSockets)
        note(ifIndex, &OwnDhcp::asks, "a packet socket for IPv4");
    return true;
}

} // namespace platform_linux
