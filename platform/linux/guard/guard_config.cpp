// The guard's configuration in the pinned maps (guard.h). The bytes of both features are written together, so
// that a client that is overtaken by the daemon, or by another client, must look at the element once more.
#include "guard.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <vector>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "fd.h"
#include "guard_events.h"
#include "guard_pins.h"
#include "map_keys.h"
#include "platform_numbers.h"

namespace platform_linux
{
namespace
{

// Check items go from the maps to the daemon and back as they are.
static_assert(GUARD_CHECK_ADDRESS == DHCPSNOOP_CHECK_IP && GUARD_CHECK_MAC == DHCPSNOOP_CHECK_MAC &&
              GUARD_CHECK_VLAN == DHCPSNOOP_CHECK_VLAN && GUARD_CHECK_PORT == DHCPSNOOP_CHECK_PORT &&
              GUARD_CHECK_ALL == DHCPSNOOP_CHECK_ALL);

struct Maps {
    std::string directory;
    Fd ports, portItems, vlanItems, refused;
    bool open() const { return ports && portItems && vlanItems && refused; }
} maps;

Fd map_open(const std::string &directory, const char *name)
{
    return Fd(bpf_obj_get((directory + "/" + name).c_str()));
}

// The inode number is that of a namespace that is gone, perhaps.
bool is_of(const std::string &directory, const Namespace &own)
{
    const uint32_t zero = 0;
    guard_state state = {};
    const Fd map = map_open(directory, "guard_state");
    const bool read = map && bpf_map_lookup_elem(map.get(), &zero, &state) == 0;
    if (read && state.netns_cookie != own.cookie)
        errno = ENOENT;
    return read && state.netns_cookie == own.cookie;
}

bool any(const guard_items &items)
{
    return (items.ip | items.arp | items.ip_pending | items.arp_pending) != 0;
}

struct Bytes {
    uint8_t guard_items::*inForce, guard_items::*pending;
};

Bytes bytes_of(GuardFeature feature)
{
    if (feature == GuardFeature::ipSourceGuard)
        return {&guard_items::ip, &guard_items::ip_pending};
    return {&guard_items::arp, &guard_items::arp_pending};
}

struct SocketCloser {
    void operator()(mnl_socket *sock) const { mnl_socket_close(sock); }
};

} // namespace

bool guard_config_open(std::string &why)
{
    if (maps.open())
        return true;
    Namespace own;
    std::string found;
    int error = ENOENT;
    if (!namespace_own(own)) {
        error = errno;
    } else {
        for (const std::string &directory : pins_all()) {
            if (!directory.ends_with("-" + std::to_string(GUARD_LAYOUT)))
                continue;
            if (is_of(directory, own))
                found = directory;
            else
                error = errno;
        }
    }
    if (!found.empty()) {
        maps = {found, map_open(found, "guard_ports"), map_open(found, "guard_port_items"),
                map_open(found, "guard_vlan_items"), map_open(found, "guard_refused")};
        if (maps.open())
            return true;
        error = errno;
        guard_config_close();
    }
    why = error == ENOENT ? "no daemon of this network namespace has left a guard in the kernel"
                          : std::string("the guard's maps cannot be opened: ") + strerror(error);
    return false;
}

void guard_config_close() { maps = Maps(); }

Fd guard_config_map(const char *name)
{
    std::string why;
    return guard_config_open(why) ? map_open(maps.directory, name) : Fd();
}

guard_items guard_config_get(const GuardPlace &place)
{
    guard_items items = {};
    if (bpf_map_lookup_elem((place.isVlan ? maps.vlanItems : maps.portItems).get(), &place.number, &items) !=
        0)
        items = {};
    return items;
}

std::map<GuardPlace, guard_items> guard_config_all()
{
    std::map<GuardPlace, guard_items> all;
    if (!maps.open())
        return all;
    const auto take = [&all](const GuardPlace &place) {
        const guard_items items = guard_config_get(place);
        if (any(items))
            all[place] = items;
    };
    for (const uint32_t ifIndex : map_keys<uint32_t>(maps.portItems.get()))
        take({false, ifIndex});
    for (uint32_t vid = 1; vid < GUARD_VLANS; vid++)
        take({true, vid});
    return all;
}

int guard_config_set(const GuardPlace &place, const guard_items &items)
{
    if (!maps.open())
        return EOPNOTSUPP;
    if (place.isVlan)
        return -bpf_map_update_elem(maps.vlanItems.get(), &place.number, &items, BPF_ANY);
    if (any(items))
        return -bpf_map_update_elem(maps.portItems.get(), &place.number, &items, BPF_ANY);
    const int error = -bpf_map_delete_elem(maps.portItems.get(), &place.number);
    return error == ENOENT ? 0 : error;
}

uint8_t guard_wanted(const guard_items &items, GuardFeature feature)
{
    const Bytes bytes = bytes_of(feature);
    const uint8_t wanted = guard_pending(items, feature) ? items.*bytes.pending : items.*bytes.inForce;
    return wanted & (GUARD_CHECK_ALL | GUARD_EXEMPT | GUARD_FAMILY_6 | GUARD_NOT_4);
}

bool guard_pending(const guard_items &items, GuardFeature feature)
{
    return (items.*bytes_of(feature).pending & GUARD_CHECK_ALL) != 0;
}

bool guard_is_inspecting()
{
    const std::map<GuardPlace, guard_items> all = guard_config_all();
    return std::ranges::any_of(
        all, [](const auto &entry) { return guard_checked(entry.second, GuardFeature::arpInspection) != 0; });
}

// Other items where the guard stands already are pending too: those in force go on until then.
void guard_switch(guard_items &items, GuardFeature feature, uint8_t wanted)
{
    const Bytes bytes = bytes_of(feature);
    const bool checks = (wanted & GUARD_CHECK_ALL) != 0;
    items.*bytes.pending = checks ? wanted : uint8_t{0};
    if (!checks)
        items.*bytes.inForce = wanted;
}

void guard_settle(guard_items &items, GuardFeature feature)
{
    const Bytes bytes = bytes_of(feature);
    if (guard_pending(items, feature))
        items.*bytes.inForce = items.*bytes.pending;
    items.*bytes.pending = 0;
}

GuardRefusals guard_port_refusals(uint32_t ifIndex)
{
    GuardRefusals sum = {};
    const int processors = libbpf_num_possible_cpus(); // negative without /sys; the kernel writes for each
    std::vector<guard_refused> each(static_cast<size_t>(std::max(processors, 1)));
    if (processors < 0 || !maps.open() || bpf_map_lookup_elem(maps.refused.get(), &ifIndex, each.data()) != 0)
        return sum;
    for (const guard_refused &one : each)
        for (size_t reason = 0; reason < sum.size(); reason++)
            sum[reason] += one.frames[reason];
    return sum;
}

std::map<uint32_t, GuardRefusals> guard_ports_refusals()
{
    std::map<uint32_t, GuardRefusals> ports;
    if (!maps.open())
        return ports;
    for (const uint32_t ifIndex : map_keys<uint32_t>(maps.ports.get())) {
        guard_port port = {};
        if (bpf_map_lookup_elem(maps.ports.get(), &ifIndex, &port) != 0 || port.left_until != 0)
            continue;
        ports[ifIndex] = guard_port_refusals(ifIndex);
    }
    return ports;
}

bool guard_port_may_use(uint32_t ifIndex, uint32_t vid)
{
    guard_port port = {};
    if (!maps.open() || vid >= GUARD_VLANS || bpf_map_lookup_elem(maps.ports.get(), &ifIndex, &port) != 0 ||
        port.left_until != 0)
        return true;
    return (port.members[0] & 1) != 0 || (port.members[vid / 64] >> vid % 64 & 1) != 0;
}

int guard_config_announce(const GuardPlace &place, GuardFeature feature, uint8_t wanted)
{
    const CheckItemsEvent message =
        check_items_event(feature == GuardFeature::ipSourceGuard ? QOR_EVENT_IPSG_ITEMS : QOR_EVENT_DAI_ITEMS,
                          place.isVlan ? 0 : place.number, wanted);
    sockaddr_nl group = {};
    group.nl_family = AF_NETLINK;
    group.nl_groups = 1u << (QOR_GROUP_CHECK_ITEMS - 1);
    const std::unique_ptr<mnl_socket, SocketCloser> sock(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (!sock)
        return errno;
    const ssize_t sent = sendto(mnl_socket_get_fd(sock.get()), &message, sizeof message, 0,
                                reinterpret_cast<const sockaddr *>(&group), sizeof group);
    return sent < 0 ? errno : 0;
}

} // namespace platform_linux
