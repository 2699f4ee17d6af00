// Keeps the classifier on the ports and writes its maps (classifier.h; classifier_load.h loads it). Calls
// take the kernel 4 to 300 microseconds and are made when ports or settings change, never per frame.
#include "classifier.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <optional>
#include <set>
#include <sys/socket.h>
#include <vector>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "classifier_load.h"
#include "guard_filter.h"
#include "guard_maps.h"
#include "guard_pins.h"
#include "guard_rules.h"
#include "map_keys.h"
#include "protocol.h"
#include "rate_limit.h"

namespace platform_linux
{
namespace
{

constexpr uint64_t NEVER_A_PORT = 1;   // a guard_port's left_until, long ago
constexpr uint64_t NEVER = UINT64_MAX; // its since

struct Guard : ClassifierObject {
    std::set<uint32_t>
        known; // ports, with entries in the maps; the classifier stands on them but for failures
    std::set<uint32_t> parted;   // devices that were ports in this run and are still there
    std::set<uint32_t> standing; // devices that the classifier was attached to in this run
    std::set<uint32_t> doubted;  // those of them that it may have been taken off since
    std::set<uint32_t> gated;    // ports that have the egress program too
    std::set<uint32_t> hosts;    // bridges whose machine is a port: they have the host program alone
    std::set<uint32_t> held;     // ports without a say for their frames
    std::set<uint32_t> apart;    // ports of no protected bridge
    bool putsOff = false;        // what is to be attached is doubted, for guard_mend
} guard;

struct Vlans {
    std::vector<guard_vlan> traps = array_values<guard_vlan>(guard.vlans, GUARD_VLANS);
    std::vector<guard_items> items = array_values<guard_items>(guard.vlanItems, GUARD_VLANS);
};

std::optional<Vlans> sameVlans; // read once for all that come while attaching is put off

// The traps and the check items in force of all the port's VLANs together.
void gather_vlans(guard_port &port, const Vlans &vlans)
{
    bool v4 = false;
    port.vlans = {};
    port.vlan_items = {};
    for (size_t word = 0; word < std::size(port.members); word++) {
        for (uint64_t left = port.members[word]; left != 0; left &= left - 1) {
            const size_t vid = word * 64 + static_cast<size_t>(std::countr_zero(left));
            port.vlans.trap |= vlans.traps[vid].trap;
            port.vlans.inherited |= vlans.traps[vid].inherited;
            port.vlan_items.ip |= vlans.items[vid].ip;
            port.vlan_items.arp |= vlans.items[vid].arp;
            v4 = v4 || (vlans.items[vid].ip != 0 && (vlans.items[vid].ip & GUARD_NOT_4) == 0);
        }
    }
    if (v4)
        port.vlan_items.ip = static_cast<uint8_t>(port.vlan_items.ip & ~GUARD_NOT_4);
}

bool is_there(uint32_t ifIndex)
{
    char name[IF_NAMESIZE];
    return if_indextoname(ifIndex, name) != nullptr;
}

// A device that is no port.
void forget_port(uint32_t ifIndex)
{
    guard_port port = {};
    bpf_map_lookup_elem(guard.ports, &ifIndex, &port);
    filter_detach(ifIndex, port.qdisc_is_ours != 0);
    bpf_map_delete_elem(guard.ports, &ifIndex);
    bpf_map_delete_elem(guard.refused, &ifIndex);
    guard.standing.erase(ifIndex);
    if (is_there(ifIndex))
        guard.parted.insert(ifIndex);
    else
        guard_device_gone(ifIndex);
}

int count_from_zero(uint32_t ifIndex)
{
    const std::vector<guard_refused> zero(static_cast<size_t>(libbpf_num_possible_cpus()));
    const int error = -bpf_map_update_elem(guard.refused, &ifIndex, zero.data(), BPF_NOEXIST);
    return error == EEXIST ? 0 : error;
}

// A port, whose ingress judges its frames from now on. It has no say for them at the egress of others while
// it is held or apart, nor before those that were let go until now have arrived.
void open_port(uint32_t ifIndex, guard_port &port)
{
    uint64_t until = 0;
    if (guard.held.contains(ifIndex) || guard.apart.contains(ifIndex)) {
        port.since = NEVER;
    } else if (port.left_until != 0 || port.since == NEVER) {
        const bool isProtecting = bpf_map_lookup_elem(guard.own, &GUARD_PROTECTION, &until) == 0;
        port.since = isProtecting ? guard_clock() + uint64_t{GUARD_OPEN_MILLISECONDS} * 1000000 : 0;
    }
    port.left_until = 0;
}

// Attaches the classifier to a device whose entry is `port`, where it does not stand. That takes the kernel's
// lock for network settings twice, which others may hold for a second while many ports change; so what may
// be `later` is put off while that is said.
int attach(uint32_t ifIndex, guard_port &port, bool later = false)
{
    if (guard.standing.contains(ifIndex))
        return 0;
    if (guard.known.contains(ifIndex))
        open_port(ifIndex, port);
    // No port until the classifier stands there. An earlier run's may be trapping by its entry.
    guard_port now = {}, shut = port;
    shut.left_until = NEVER_A_PORT;
    const bool judges = bpf_map_lookup_elem(guard.ports, &ifIndex, &now) == 0 && now.left_until == 0;
    int error = judges ? 0 : -bpf_map_update_elem(guard.ports, &ifIndex, &shut, BPF_ANY);
    if (error == 0)
        error = count_from_zero(ifIndex);
    if (error == 0 && later && guard.putsOff && !judges) {
        guard.doubted.insert(ifIndex);
        return 0;
    }
    bool qdiscMade = false;
    const bool isHost = guard.hosts.contains(ifIndex);
    if (error == 0 && (isHost || guard.gated.contains(ifIndex)))
        error = filter_attach(ifIndex, Direction::egress, isHost ? guard.host : guard.out, qdiscMade);
    if (error == 0 && !isHost)
        error = filter_attach(ifIndex, Direction::ingress, guard.program, qdiscMade);
    if (qdiscMade)
        port.qdisc_is_ours = shut.qdisc_is_ours = 1;
    bpf_map_update_elem(guard.ports, &ifIndex, error == 0 ? &port : &shut, BPF_EXIST);
    if (error == 0)
        guard.standing.insert(ifIndex);
    if (error == 0 || is_there(ifIndex))
        return error;
    guard_device_gone(ifIndex);
    return ENODEV;
}

// Writes the entry of a port where it is another than before.
int change_port(uint32_t ifIndex, const guard_port &port, const guard_port &before)
{
    return memcmp(&port, &before, sizeof port) == 0
               ? 0
               : -bpf_map_update_elem(guard.ports, &ifIndex, &port, BPF_EXIST);
}

// Adds the port to those that are held or apart, or takes it out.
void set_say(uint32_t ifIndex, std::set<uint32_t> &ports, bool on)
{
    guard_port port = {};
    if (on)
        ports.insert(ifIndex);
    else
        ports.erase(ifIndex);
    if (!guard.known.contains(ifIndex) || !guard.standing.contains(ifIndex) ||
        bpf_map_lookup_elem(guard.ports, &ifIndex, &port) != 0)
        return;
    const guard_port before = port;
    open_port(ifIndex, port);
    change_port(ifIndex, port, before);
}

uint8_t family_bit(int family)
{
    return family == 4 ? GUARD_TRAP_V4 : family == 6 ? GUARD_TRAP_V6 : uint8_t{0};
}

template <typename Entry> void set_trap(Entry &entry, uint8_t bit, bool on)
{
    entry.trap = static_cast<uint8_t>(on ? entry.trap | bit : entry.trap & ~bit);
    entry.inherited = static_cast<uint8_t>(entry.inherited & ~bit);
}

} // namespace

bool guard_claim() { return pins_claim(); }

bool guard_open(uint32_t rules, std::string &why, std::string &note)
{
    guard_close();
    return classifier_load(rules, guard, why, note);
}

void guard_close()
{
    classifier_unload(guard);
    guard = Guard();
}

int guard_port_add(uint32_t ifIndex, uint16_t nativeVid, const PortVlans &members)
{
    if (guard.object == nullptr)
        return EOPNOTSUPP;
    guard_port port = {};
    if (bpf_map_lookup_elem(guard.ports, &ifIndex, &port) != 0)
        port.left_until = NEVER_A_PORT;
    const bool isNew = !guard.known.contains(ifIndex) && !guard.parted.contains(ifIndex);
    Filters filters;
    // An index that an earlier run left in the maps is the same device only if the filter is still on it.
    if (isNew && filter_list(ifIndex, filters) && filters.oursOut)
        guard.gated.insert(ifIndex);
    const bool isHost = guard.hosts.contains(ifIndex);
    const bool isKnown = !isNew || (isHost ? filters.oursHost : filters.ours);
    if (isHost && filters.ours) // it would trap what the daemon sends to this machine
        filter_detach(ifIndex, false);
    if (!isKnown) {
        port = {};
        bpf_map_delete_elem(guard.refused, &ifIndex);
        bpf_map_delete_elem(guard.portItems, &ifIndex);
    }
    if (const int error = rate_port_add(ifIndex, !isKnown); error != 0)
        return error;
    const guard_port before = port;
    if (!isKnown)
        port.left_until = NEVER_A_PORT;
    port.is_host = isHost ? 1 : 0;
    guard.parted.erase(ifIndex);
    guard.known.insert(ifIndex);
    open_port(ifIndex, port);
    port.native = nativeVid;
    for (size_t vid = 0; vid < members.size(); vid++) {
        const uint64_t bit = uint64_t{1} << vid % 64;
        __u64 &word = port.members[vid / 64];
        word = members[vid] ? word | bit : word & ~bit;
    }
    gather_vlans(port, sameVlans ? *sameVlans : Vlans());
    return guard.standing.contains(ifIndex) ? change_port(ifIndex, port, before)
                                            : attach(ifIndex, port, true);
}

void guard_port_remove(uint32_t ifIndex, uint32_t seconds)
{
    guard_port port = {};
    if (guard.known.erase(ifIndex) == 0)
        return;
    if (!is_there(ifIndex)) {
        guard_device_gone(ifIndex);
        return;
    }
    guard.parted.insert(ifIndex);
    if (bpf_map_lookup_elem(guard.ports, &ifIndex, &port) != 0)
        return;
    port.left_until = guard_clock() + uint64_t{seconds} * 1000000000u;
    bpf_map_update_elem(guard.ports, &ifIndex, &port, BPF_EXIST);
}

void guard_device_gone(uint32_t ifIndex)
{
    for (const int map : {guard.ports, guard.refused, guard.portItems, guard.rates})
        bpf_map_delete_elem(map, &ifIndex);
    for (std::set<uint32_t> *devices : {&guard.known, &guard.parted, &guard.standing, &guard.doubted,
                                        &guard.gated, &guard.hosts, &guard.held, &guard.apart})
        devices->erase(ifIndex);
}

void guard_ports_complete()
{
    uint64_t until = 0;
    if (guard.object == nullptr)
        return;
    // Devices that are no ports stay known to protected bridges: guard_protect comes next.
    const bool isProtecting = bpf_map_lookup_elem(guard.own, &GUARD_PROTECTION, &until) == 0;
    for (const uint32_t ifIndex : device_indexes()) {
        Filters filters;
        if (guard.standing.contains(ifIndex))
            continue;
        const bool isListed = filter_list(ifIndex, filters);
        if (isProtecting && !filters.oursHost)
            guard.parted.insert(ifIndex);
        else if (isListed && filters.isOurs())
            forget_port(ifIndex);
    }
    // The rest belongs to devices that are gone.
    for (const int map : {guard.ports, guard.portItems, guard.rates})
        for (const uint32_t ifIndex : map_keys<uint32_t>(map))
            if (!guard.known.contains(ifIndex) && !guard.parted.contains(ifIndex))
                guard_device_gone(ifIndex);
}

int guard_device_add(uint32_t ifIndex, bool ethernet)
{
    guard_port port = {};
    if (guard.object == nullptr)
        return EOPNOTSUPP;
    if (guard.known.contains(ifIndex))
        return 0;
    if (bpf_map_lookup_elem(guard.ports, &ifIndex, &port) != 0 || port.left_until == 0) {
        port = {};
        port.left_until = NEVER_A_PORT;
        if (const int error = -bpf_map_update_elem(guard.ports, &ifIndex, &port, BPF_ANY); error != 0)
            return error;
    }
    guard.parted.insert(ifIndex);
    return ethernet ? attach(ifIndex, port, true) : 0;
}

int guard_port_protect(uint32_t ifIndex, bool on)
{
    bool qdiscMade = false;
    if (guard.object == nullptr)
        return EOPNOTSUPP;
    if (on == guard.gated.contains(ifIndex))
        return 0;
    if (!on) {
        guard.gated.erase(ifIndex);
        const int error = is_there(ifIndex) ? filter_detach_out(ifIndex) : 0;
        return error == ENOENT ? 0 : error; // it was still to be attached
    }
    guard.gated.insert(ifIndex);
    if (!guard.standing.contains(ifIndex))
        return 0;
    if (!guard.putsOff)
        return filter_attach(ifIndex, Direction::egress, guard.out, qdiscMade);
    guard.doubted.insert(ifIndex);
    return 0;
}

void guard_port_host(uint32_t ifIndex, bool on)
{
    if (guard.object == nullptr)
        return;
    if (on)
        guard.hosts.insert(ifIndex);
    else if (guard.hosts.erase(ifIndex) != 0)
        forget_port(ifIndex);
}

void trap_own_socket(guard_socket which, int sock)
{
    const uint32_t zero = 0;
    guard_sockets sockets = {};
    uint64_t cookie = 0;
    socklen_t length = sizeof cookie;
    if (guard.object == nullptr || getsockopt(sock, SOL_SOCKET, SO_COOKIE, &cookie, &length) != 0)
        return;
    bpf_map_lookup_elem(guard.sockets, &zero, &sockets);
    sockets.cookies[which] = cookie;
    bpf_map_update_elem(guard.sockets, &zero, &sockets, BPF_ANY);
}

bool guard_stands(uint32_t ifIndex)
{
    return guard.known.contains(ifIndex) && guard.standing.contains(ifIndex);
}

void guard_port_hold(uint32_t ifIndex, bool on) { set_say(ifIndex, guard.held, on); }

void guard_port_apart(uint32_t ifIndex, bool on) { set_say(ifIndex, guard.apart, on); }

void guard_protecting(bool on)
{
    const uint64_t forever = UINT64_MAX;
    if (guard.object == nullptr)
        return;
    if (on) {
        bpf_map_update_elem(guard.own, &GUARD_PROTECTION, &forever, BPF_ANY);
        return;
    }
    bpf_map_delete_elem(guard.own, &GUARD_PROTECTION);
    const std::set<uint32_t> devices = guard.parted;
    for (const uint32_t ifIndex : devices)
        forget_port(ifIndex);
}

void guard_own_set(const std::set<MacAddress> &addresses)
{
    if (guard.object == nullptr)
        return;
    std::set<MacAddress> missing = addresses;
    for (const guard_mac &key : map_keys<guard_mac>(guard.own)) {
        MacAddress address;
        memcpy(address.data(), key.mac, address.size());
        if (missing.erase(address) == 0 && memcmp(&key, &GUARD_PROTECTION, sizeof key) != 0)
            bpf_map_delete_elem(guard.own, &key);
    }
    for (const MacAddress &address : missing) {
        guard_mac key = {};
        const uint64_t value = 0;
        memcpy(key.mac, address.data(), address.size());
        bpf_map_update_elem(guard.own, &key, &value, BPF_ANY);
    }
}

int guard_trap_port(uint32_t ifIndex, int family, bool on)
{
    const uint8_t bit = family_bit(family);
    guard_port port = {};
    if (guard.object == nullptr)
        return EOPNOTSUPP;
    if (bit == 0)
        return EINVAL;
    if (!guard.known.contains(ifIndex) && (on || !guard.parted.contains(ifIndex)))
        return ENODEV;
    if (bpf_map_lookup_elem(guard.ports, &ifIndex, &port) != 0)
        return ENODEV;
    if (const int error = on ? attach(ifIndex, port) : 0; error != 0)
        return error;
    const guard_port before = port;
    set_trap(port, bit, on);
    return change_port(ifIndex, port, before);
}

void guard_put_off(bool on)
{
    guard.putsOff = on;
    sameVlans.reset();
    if (on && guard.object != nullptr)
        sameVlans.emplace();
}

void guard_doubt(uint32_t ifIndex)
{
    if (ifIndex == UINT32_MAX)
        guard.doubted.insert(guard.standing.begin(), guard.standing.end());
    else if (guard.standing.contains(ifIndex))
        guard.doubted.insert(ifIndex);
}

bool guard_mend(uint32_t &ifIndex, int &error)
{
    guard_port port = {};
    Filters filters;
    if (guard.doubted.empty())
        return false;
    error = 0;
    const uint32_t doubted = *guard.doubted.begin();
    guard.doubted.erase(doubted);
    const bool listed = filter_list(doubted, filters);
    const bool complete = guard.hosts.contains(doubted)
                              ? filters.oursHost
                              : filters.ours && (filters.oursOut || !guard.gated.contains(doubted));
    const bool stands = complete && guard.standing.contains(doubted);
    ifIndex = 0;
    if (!listed || stands || bpf_map_lookup_elem(guard.ports, &doubted, &port) != 0)
        return true;
    guard.standing.erase(doubted);
    ifIndex = doubted;
    error = attach(doubted, port);
    return true;
}

int guard_trap_vlan(uint16_t vid, int family, bool on)
{
    const uint8_t bit = family_bit(family);
    const uint32_t key = vid;
    guard_vlan vlan = {};
    if (guard.object == nullptr)
        return EOPNOTSUPP;
    if (bit == 0 || vid == 0 || vid > VLAN_ID_MAX)
        return EINVAL;
    bpf_map_lookup_elem(guard.vlans, &key, &vlan);
    set_trap(vlan, bit, on);
    const int error = -bpf_map_update_elem(guard.vlans, &key, &vlan, BPF_EXIST);
    guard_vlans_changed();
    return error;
}

void guard_vlans_changed()
{
    if (guard.object == nullptr)
        return;
    const Vlans vlans;
    for (const uint32_t ifIndex : guard.known) {
        guard_port port = {};
        if (bpf_map_lookup_elem(guard.ports, &ifIndex, &port) != 0)
            continue;
        const guard_port before = port;
        gather_vlans(port, vlans);
        change_port(ifIndex, port, before);
    }
}

} // namespace platform_linux
