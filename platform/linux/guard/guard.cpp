// Loads guard.bpf.c, keeps it on the ports and writes its maps (guard.h). Calls take the kernel 4 to 300
// microseconds and are made when ports or settings change, never per frame.
#include "guard.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "guard_bindings.h"
#include "guard_filter.h"
#include "guard_maps.h"
#include "guard_object.h"
#include "guard_pins.h"

namespace platform_linux
{
namespace
{

constexpr uint16_t VLAN_MAX = 4094;

struct Guard {
    bpf_object *object = nullptr; // null: closed, or no eBPF here
    int program = -1, ports = -1, vlans = -1, state = -1, portItems = -1, bindings = -1, refused = -1;
    std::set<uint32_t> added;  // ports on which the classifier stands
    std::set<uint32_t> parted; // devices that were ports and are still there
} guard;

char libbpfSaid[256]; // the first complaint since it was last cleared

__attribute__((format(printf, 2, 0))) int keep_first_warning(libbpf_print_level level, const char *format,
                                                             va_list args)
{
    if (level == LIBBPF_WARN && libbpfSaid[0] == '\0') {
        vsnprintf(libbpfSaid, sizeof libbpfSaid, format, args);
        libbpfSaid[strcspn(libbpfSaid, "\n")] = '\0';
    }
    return 0;
}

std::string refusal(const char *what, int error)
{
    std::string text = std::string(what) + ": " + strerror(error);
    if (error == EPERM)
        text += " (it takes CAP_BPF, CAP_NET_ADMIN and CAP_NET_RAW in the initial user namespace)";
    else if (libbpfSaid[0] != '\0')
        text += std::string(" (") + libbpfSaid + ")";
    return text;
}

// Trapped frames take their way through it.
int loopback_up()
{
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0)
        return errno;
    ifreq request = {};
    int error = 0;
    if (if_indextoname(GUARD_LOOPBACK, request.ifr_name) == nullptr ||
        ioctl(sock, SIOCGIFFLAGS, &request) != 0)
        error = errno;
    else if (!(request.ifr_flags & IFF_UP)) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
        error = ioctl(sock, SIOCSIFFLAGS, &request) != 0 ? errno : 0;
    }
    close(sock);
    return error;
}

guard_state state_read()
{
    const uint32_t zero = 0;
    guard_state state = {};
    bpf_map_lookup_elem(guard.state, &zero, &state);
    return state;
}

// All at once: an entry that is written moves within the map, and a walk that writes could meet it again for
// ever.
std::vector<uint32_t> device_keys(int map)
{
    std::vector<uint32_t> keys;
    uint32_t key = 0;
    for (const uint32_t *previous = nullptr; bpf_map_get_next_key(map, previous, &key) == 0; previous = &key)
        keys.push_back(key);
    return keys;
}

// What an earlier run trapped goes on for a while, until this run's configuration has set it again. Neither
// letting it go at once would do (every restart opens a gap for rogue servers) nor keeping it for good (a
// daemon without configuration would cut off DHCP). The kernel looks at the clock, so it ends even if this
// run hangs. Gives the number of ports and VLANs concerned.
uint32_t inherit_traps(guard_state state, uint64_t netnsCookie)
{
    const uint32_t zero = 0;
    const uint64_t now = guard_clock();
    const bool stillInherited = now < state.inherited_until;
    state.inherited_until = now + uint64_t{GUARD_INHERIT_SECONDS} * 1000000000u;
    state.netns_cookie = netnsCookie;
    bpf_map_update_elem(guard.state, &zero, &state, BPF_ANY);

    uint32_t count = 0;
    const auto inherit = [&count, stillInherited](uint8_t &trap, uint8_t &inherited) {
        inherited = static_cast<uint8_t>((stillInherited ? inherited : 0) | trap);
        trap = 0;
        count += inherited != 0;
    };
    for (const uint32_t ifIndex : device_keys(guard.ports)) {
        guard_port port = {};
        bpf_map_lookup_elem(guard.ports, &ifIndex, &port);
        inherit(port.trap, port.inherited);
        bpf_map_update_elem(guard.ports, &ifIndex, &port, BPF_EXIST);
    }
    for (uint32_t key = 0; key < GUARD_VLANS; key++) {
        guard_vlan vlan = {};
        if (bpf_map_lookup_elem(guard.vlans, &key, &vlan) != 0 || (vlan.trap | vlan.inherited) == 0)
            continue;
        inherit(vlan.trap, vlan.inherited);
        bpf_map_update_elem(guard.vlans, &key, &vlan, BPF_EXIST);
    }
    return count;
}

// What belongs to the device for as long as it exists.
void forget_device(uint32_t ifIndex)
{
    bpf_map_delete_elem(guard.portItems, &ifIndex);
    guard.parted.erase(ifIndex);
}

void forget_port(uint32_t ifIndex)
{
    guard_port port = {};
    char name[IF_NAMESIZE];
    bpf_map_lookup_elem(guard.ports, &ifIndex, &port);
    filter_detach(ifIndex, port.qdisc_is_ours != 0);
    bpf_map_delete_elem(guard.ports, &ifIndex);
    bpf_map_delete_elem(guard.refused, &ifIndex);
    if (if_indextoname(ifIndex, name) != nullptr)
        guard.parted.insert(ifIndex);
    else
        forget_device(ifIndex);
}

int count_from_zero(uint32_t ifIndex)
{
    const std::vector<guard_refused> zero(static_cast<size_t>(libbpf_num_possible_cpus()));
    const int error = -bpf_map_update_elem(guard.refused, &ifIndex, zero.data(), BPF_NOEXIST);
    return error == EEXIST ? 0 : error;
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

// A map keeps its size: the bindings of one that is too small move into a larger one. `old` is the small one
// then, its pin gone, else -1.
uint32_t room_for_bindings(const std::string &pins, uint32_t wanted, int &old)
{
    const std::string path = pins + "/guard_bindings";
    bpf_map_info info = {};
    uint32_t length = sizeof info;
    old = pins.empty() ? -1 : bpf_obj_get(path.c_str());
    if (old >= 0 && bpf_obj_get_info_by_fd(old, &info, &length) == 0 && info.max_entries < wanted &&
        info.key_size == sizeof(guard_binding_key) && info.value_size == sizeof(guard_binding)) {
        unlink(path.c_str());
        return wanted;
    }
    if (old >= 0)
        close(old);
    old = -1;
    return std::max(wanted, info.max_entries);
}

// Opens and loads the classifier with the maps pinned in `pins` ("": not pinned). An errno value, 0 = loaded.
int load(const std::string &pins, uint32_t bindings)
{
    bpf_object_open_opts opts = {};
    opts.sz = sizeof opts;
    opts.object_name = "dhcpsnoop";
    opts.pin_root_path = pins.empty() ? nullptr : pins.c_str();
    bpf_object *object = bpf_object__open_mem(guard_object_begin, guard_object_size(), &opts);
    if (object == nullptr)
        return errno;
    if (pins.empty()) {
        bpf_map *map;
        bpf_object__for_each_map(map, object) bpf_map__set_pin_path(map, nullptr);
    }
    int old = -1;
    bpf_map__set_max_entries(bpf_object__find_map_by_name(object, "guard_bindings"),
                             room_for_bindings(pins, bindings, old));
    const int error = -bpf_object__load(object);
    if (error != 0) {
        if (old >= 0) {
            bpf_obj_pin(old, (pins + "/guard_bindings").c_str());
            close(old);
        }
        bpf_object__close(object);
        return error;
    }
    guard.object = object;
    guard.program = bpf_program__fd(bpf_object__find_program_by_name(object, GUARD_PROGRAM));
    guard.ports = bpf_object__find_map_fd_by_name(object, "guard_ports");
    guard.vlans = bpf_object__find_map_fd_by_name(object, "guard_vlans");
    guard.state = bpf_object__find_map_fd_by_name(object, "guard_state");
    guard.portItems = bpf_object__find_map_fd_by_name(object, "guard_port_items");
    guard.bindings = bpf_object__find_map_fd_by_name(object, "guard_bindings");
    guard.refused = bpf_object__find_map_fd_by_name(object, "guard_refused");
    if (old >= 0) {
        guard_bindings_copy(old, guard.bindings);
        close(old);
    }
    return 0;
}

} // namespace

bool guard_claim() { return pins_claim(); }

bool guard_open(uint32_t bindings, std::string &why, std::string &note)
{
    guard_close();
    libbpf_set_print(keep_first_warning);
    libbpfSaid[0] = '\0';
    const int loopback = loopback_up();
    if (loopback != 0) {
        why = refusal("the loopback device is down and does not come up", loopback);
        return false;
    }
    Namespace own;
    if (!namespace_own(own)) {
        why = refusal("the network namespace has no name", errno);
        return false;
    }
    std::string noPins;
    std::string pins = pins_directory(own, noPins);
    int error = load(pins, bindings);
    guard_state state = error == 0 ? state_read() : guard_state{};
    const bool foreign = state.netns_cookie != 0 && state.netns_cookie != own.cookie;
    if (!pins.empty() && (foreign || error == EINVAL)) { // EINVAL: maps of another shape
        guard_close();
        const int kept = pins_remove(pins);
        pins = kept == 0 ? pins_directory(own, noPins) : "";
        pins_claim_again();
        if (kept != 0)
            noPins = std::string("stale maps cannot be removed: ") + strerror(kept);
        state = {};
        error = load(pins, bindings);
    }
    if (error != 0) {
        why = refusal("bpf(2)", error);
        return false;
    }
    const uint32_t traps = inherit_traps(state, own.cookie);
    const uint32_t inherited = guard_bindings_open(guard.bindings, guard.state);
    if (traps != 0)
        note = "traps of an earlier run on " + std::to_string(traps) + " ports and VLANs hold for " +
               std::to_string(GUARD_INHERIT_SECONDS) + " s unless they are set again";
    if (inherited != 0)
        note += std::string(note.empty() ? "" : "; ") + std::to_string(inherited) +
                " binding rules of an earlier run count for " +
                std::to_string(GUARD_INHERIT_BINDINGS_SECONDS / 3600) + " h unless something else is learned";
    if (note.empty() && pins.empty())
        note =
            noPins +
            "; after a restart of the daemon DHCP passes and nothing is guarded until it is configured again";
    return true;
}

void guard_close()
{
    guard_bindings_close();
    if (guard.object != nullptr)
        bpf_object__close(guard.object);
    guard = Guard();
}

int guard_port_add(uint32_t ifIndex, uint16_t nativeVid)
{
    if (guard.object == nullptr)
        return EOPNOTSUPP;
    guard_port port = {};
    bpf_map_lookup_elem(guard.ports, &ifIndex, &port);
    if (guard.added.count(ifIndex) == 0) {
        // An index that an earlier run left in the map is the same device only if the filter is still on it.
        Filters filters;
        if (!filter_list(ifIndex, filters) || !filters.ours) {
            port = {};
            bpf_map_delete_elem(guard.refused, &ifIndex);
            if (guard.parted.erase(ifIndex) == 0)
                forget_device(ifIndex);
        }
    }
    port.native = nativeVid;
    // In the map first: the filter that it replaces may be trapping by it.
    int error = -bpf_map_update_elem(guard.ports, &ifIndex, &port, BPF_ANY);
    if (error == 0)
        error = count_from_zero(ifIndex);
    bool qdiscMade = false;
    if (error == 0)
        error = filter_attach(ifIndex, guard.program, qdiscMade);
    if (qdiscMade) {
        port.qdisc_is_ours = 1;
        bpf_map_update_elem(guard.ports, &ifIndex, &port, BPF_ANY);
    }
    if (error == 0)
        guard.added.insert(ifIndex);
    else
        guard.added.erase(ifIndex);
    return error;
}

void guard_port_remove(uint32_t ifIndex)
{
    if (guard.added.erase(ifIndex) != 0)
        forget_port(ifIndex);
}

void guard_ports_complete()
{
    if (guard.object == nullptr)
        return;
    for (const uint32_t ifIndex : device_indexes()) {
        Filters filters;
        if (guard.added.count(ifIndex) == 0 && filter_list(ifIndex, filters) && filters.ours)
            forget_port(ifIndex);
    }
    // What is left in the map belongs to devices that are gone.
    for (const uint32_t ifIndex : device_keys(guard.ports)) {
        if (guard.added.count(ifIndex) == 0) {
            bpf_map_delete_elem(guard.ports, &ifIndex);
            bpf_map_delete_elem(guard.refused, &ifIndex);
        }
    }
    for (const uint32_t ifIndex : device_keys(guard.portItems)) {
        if (guard.added.count(ifIndex) == 0 && guard.parted.count(ifIndex) == 0)
            forget_device(ifIndex);
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
    if (guard.added.count(ifIndex) == 0 || bpf_map_lookup_elem(guard.ports, &ifIndex, &port) != 0)
        return ENODEV;
    if (on) { // nobody tells when somebody else has detached the classifier
        const int error = guard_port_add(ifIndex, port.native);
        if (error != 0)
            return error;
        bpf_map_lookup_elem(guard.ports, &ifIndex, &port);
    }
    set_trap(port, bit, on);
    return -bpf_map_update_elem(guard.ports, &ifIndex, &port, BPF_EXIST);
}

int guard_trap_vlan(uint16_t vid, int family, bool on)
{
    const uint8_t bit = family_bit(family);
    const uint32_t key = vid;
    guard_vlan vlan = {};
    if (guard.object == nullptr)
        return EOPNOTSUPP;
    if (bit == 0 || vid == 0 || vid > VLAN_MAX)
        return EINVAL;
    bpf_map_lookup_elem(guard.vlans, &key, &vlan);
    set_trap(vlan, bit, on);
    return -bpf_map_update_elem(guard.vlans, &key, &vlan, BPF_EXIST);
}

} // namespace platform_linux
