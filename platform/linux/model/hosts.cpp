#include "hosts.h"

#include <algorithm>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <sys/time.h>
#include <unistd.h>

namespace platform_linux
{
namespace
{
constexpr size_t DATAGRAM_MAX = 32768;
constexpr timeval TIMEOUT = {2, 0};
constexpr uint32_t LATELY = 5 * 60; // seconds; a bridge forgets a host after as many
constexpr uint8_t FAMILIES[] = {AF_BRIDGE, AF_INET, AF_INET6};
constexpr uint16_t NOT_SEEN = NUD_INCOMPLETE | NUD_FAILED | NUD_NOARP;

struct SocketCloser {
    void operator()(mnl_socket *sock) const { mnl_socket_close(sock); }
};

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

bool dump(mnl_socket *sock, uint8_t family, Seen &seen)
{
    struct {
        nlmsghdr header;
        ndmsg neighbour;
    } request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETNEIGH;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.neighbour.ndm_family = family;
    if (mnl_socket_sendto(sock, &request, sizeof request) < 0)
        return false;
    alignas(nlmsghdr) static std::array<char, DATAGRAM_MAX> datagram;
    for (int more = MNL_CB_OK; more > MNL_CB_STOP;) {
        const ssize_t length = mnl_socket_recvfrom(sock, datagram.data(), datagram.size());
        if (length < 0)
            return false;
        more = mnl_cb_run(datagram.data(), static_cast<size_t>(length), 0, 0, take, &seen);
        if (more < 0)
            return false;
    }
    return true;
}

} // namespace

bool hosts_seen(std::vector<SeenHost> &hosts)
{
    Seen seen = {hosts, {}};
    const std::unique_ptr<mnl_socket, SocketCloser> sock(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (!sock || mnl_socket_bind(sock.get(), 0, MNL_SOCKET_AUTOPID) < 0 ||
        setsockopt(mnl_socket_get_fd(sock.get()), SOL_SOCKET, SO_RCVTIMEO, &TIMEOUT, sizeof TIMEOUT) < 0)
        return false;
    for (const uint8_t family : FAMILIES)
        if (!dump(sock.get(), family, seen))
            return false;
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
