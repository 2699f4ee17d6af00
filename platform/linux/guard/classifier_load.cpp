// Loads guard.bpf.c with the maps of an earlier run, in a start of the daemon.
#include "classifier_load.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "fd.h"
#include "guard_filter.h"
#include "guard_object.h"
#include "guard_pins.h"
#include "guard_rules.h"
#include "map_keys.h"
#include "rate_limit.h"

namespace platform_linux
{
namespace
{

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

// False, with the reason.
bool refused(std::string &why, const char *what, int error)
{
    why = std::string(what) + ": " + strerror(error);
    if (error == EPERM)
        why += " (it takes CAP_BPF, CAP_NET_ADMIN and CAP_NET_RAW in the initial user namespace)";
    else if (libbpfSaid[0] != '\0')
        why += std::string(" (") + libbpfSaid + ")";
    errno = error;
    return false;
}

// Trapped frames take their way through it.
int loopback_up()
{
    const Fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = {};
    if (!sock || if_indextoname(GUARD_LOOPBACK, request.ifr_name) == nullptr ||
        ioctl(sock.get(), SIOCGIFFLAGS, &request) != 0)
        return errno;
    if (request.ifr_flags & IFF_UP)
        return 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    return ioctl(sock.get(), SIOCSIFFLAGS, &request) != 0 ? errno : 0;
}

guard_state state_read(const ClassifierObject &loaded)
{
    const uint32_t zero = 0;
    guard_state state = {};
    bpf_map_lookup_elem(loaded.state, &zero, &state);
    return state;
}

// A trap of an earlier run goes on for a while, until this run's configuration has set it again. Neither
// letting it go at once would do (every restart opens a gap for rogue servers) nor keeping it for good (a
// daemon without configuration would cut off DHCP). The kernel looks at the clock, so it ends even if this
// run hangs. Gives the number of ports and VLANs concerned.
uint32_t inherit_traps(const ClassifierObject &loaded, uint64_t netnsCookie)
{
    const uint32_t zero = 0;
    guard_state state = state_read(loaded);
    const uint64_t now = guard_clock();
    const bool stillInherited = now < state.inherited_until;
    state.inherited_until = now + uint64_t{GUARD_INHERIT_SECONDS} * 1000000000u;
    state.netns_cookie = netnsCookie;
    bpf_map_update_elem(loaded.state, &zero, &state, BPF_ANY);

    uint32_t count = 0;
    const auto inherit = [&count, stillInherited](uint8_t &trap, uint8_t &inherited) {
        inherited = static_cast<uint8_t>((stillInherited ? inherited : 0) | trap);
        trap = 0;
        count += inherited != 0;
    };
    for (const uint32_t ifIndex : map_keys<uint32_t>(loaded.ports)) {
        guard_port port = {};
        bpf_map_lookup_elem(loaded.ports, &ifIndex, &port);
        inherit(port.trap, port.inherited);
        bpf_map_update_elem(loaded.ports, &ifIndex, &port, BPF_EXIST);
    }
    uint32_t vid = 0;
    for (guard_vlan &vlan : array_values<guard_vlan>(loaded.vlans, GUARD_VLANS)) {
        if ((vlan.trap | vlan.inherited) != 0) {
            inherit(vlan.trap, vlan.inherited);
            bpf_map_update_elem(loaded.vlans, &vid, &vlan, BPF_EXIST);
        }
        vid++;
    }
    return count;
}

void inherit_protection(const ClassifierObject &loaded)
{
    uint64_t until = 0;
    const uint64_t end = guard_clock() + uint64_t{GUARD_INHERIT_SECONDS} * 1000000000u;
    if (bpf_map_lookup_elem(loaded.own, &GUARD_PROTECTION, &until) == 0 && until > end)
        bpf_map_update_elem(loaded.own, &GUARD_PROTECTION, &end, BPF_EXIST);
}

// A map keeps its size: what is in one that is too small moves into a larger one. `old` is the small one
// then, its pin gone, else none.
struct Growing {
    const char *name;
    size_t keySize, valueSize;
};
constexpr Growing RULES = {"guard_rules", sizeof(guard_rule_key), sizeof(guard_rule)};
constexpr Growing KNOWN = {"guard_known", sizeof(guard_known_key), sizeof(guard_known)};

uint32_t room_in(const Growing &map, const std::string &pins, uint32_t wanted, Fd &old)
{
    const std::string path = pins + "/" + map.name;
    bpf_map_info info = {};
    uint32_t length = sizeof info;
    old.reset(pins.empty() ? -1 : bpf_obj_get(path.c_str()));
    if (old && bpf_obj_get_info_by_fd(old.get(), &info, &length) == 0 && info.max_entries < wanted &&
        info.key_size == map.keySize && info.value_size == map.valueSize) {
        unlink(path.c_str());
        return wanted;
    }
    old.reset();
    return std::max(wanted, info.max_entries);
}

// Opens and loads the classifier with the maps pinned in `pins` ("": not pinned). An errno value, 0 = loaded.
int load(const std::string &pins, uint32_t rules, ClassifierObject &loaded)
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
    Fd old, oldKnown; // known clients are soon known again
    const auto make_room = [&](const Growing &map, uint32_t wanted, Fd &small) {
        bpf_map__set_max_entries(bpf_object__find_map_by_name(object, map.name),
                                 room_in(map, pins, wanted, small));
    };
    make_room(RULES, rules, old);
    make_room(KNOWN, rules, oldKnown); // a binding has up to two rules
    const int error = -bpf_object__load(object);
    if (error != 0) {
        if (old)
            bpf_obj_pin(old.get(), (pins + "/" + RULES.name).c_str());
        bpf_object__close(object);
        return error;
    }
    loaded.object = object;
    loaded.program = bpf_program__fd(bpf_object__find_program_by_name(object, GUARD_PROGRAM));
    const auto map = [object](const char *name) { return bpf_object__find_map_fd_by_name(object, name); };
    loaded.ports = map("guard_ports");
    loaded.vlans = map("guard_vlans");
    loaded.state = map("guard_state");
    loaded.portItems = map("guard_port_items");
    loaded.vlanItems = map("guard_vlan_items");
    loaded.rules = map("guard_rules");
    loaded.refused = map("guard_refused");
    loaded.own = map("guard_own");
    loaded.sockets = map("guard_sockets");
    loaded.rates = map("guard_rates");
    rates_open({loaded.rates, map("guard_rate_sum"), map("guard_known")});
    loaded.out = bpf_program__fd(bpf_object__find_program_by_name(object, GUARD_OUT_PROGRAM));
    loaded.host = bpf_program__fd(bpf_object__find_program_by_name(object, GUARD_HOST_PROGRAM));
    if (old)
        guard_rules_copy(old.get(), loaded.rules);
    return 0;
}

// The directory of the pinned maps.
struct Pins {
    std::string directory; // "" = the maps are not pinned
    std::string absent;    // why
};

// Maps of another shape, or of a namespace whose number was given to this one.
bool are_stale(int loadError, const ClassifierObject &loaded, const Namespace &own)
{
    const uint64_t cookie = loadError == 0 ? state_read(loaded).netns_cookie : 0;
    return loadError == EINVAL || (cookie != 0 && cookie != own.cookie);
}

// Empties the directory, or does without it.
void replace_stale(Pins &pins, ClassifierObject &loaded, const Namespace &own)
{
    classifier_unload(loaded);
    const int kept = pins_remove(pins.directory);
    pins.directory = kept == 0 ? pins_directory(own, pins.absent) : "";
    pins_claim_again();
    if (kept != 0)
        pins.absent = std::string("stale maps cannot be removed: ") + strerror(kept);
}

std::string note_of(uint32_t traps, uint32_t rules, const Pins &pins)
{
    std::string note;
    if (traps != 0)
        note = "traps of an earlier run on " + std::to_string(traps) + " ports and VLANs hold for " +
               std::to_string(GUARD_INHERIT_SECONDS) + " s unless they are set again";
    if (rules != 0)
        note += std::string(note.empty() ? "" : "; ") + std::to_string(rules) +
                " binding rules of an earlier run count for " +
                std::to_string(GUARD_INHERIT_RULES_SECONDS / 3600) + " h unless something else is learned";
    if (note.empty() && pins.directory.empty())
        note =
            pins.absent +
            "; after a restart of the daemon DHCP passes and nothing is guarded until it is configured again";
    return note;
}

} // namespace

bool classifier_load(uint32_t rules, ClassifierObject &loaded, std::string &why, std::string &note)
{
    libbpf_set_print(keep_first_warning);
    libbpfSaid[0] = '\0';
    const int loopback = loopback_up();
    if (loopback != 0)
        return refused(why, "the loopback device is down and does not come up", loopback);
    Namespace own;
    if (!namespace_own(own))
        return refused(why, "the network namespace has no name (is /proc there?)", errno);
    if (const int processors = libbpf_num_possible_cpus(); processors < 0)
        return refused(why, "nobody tells how many processors there may be (is /sys there?)", -processors);
    Pins pins;
    pins.directory = pins_directory(own, pins.absent);
    int error = load(pins.directory, rules, loaded);
    if (!pins.directory.empty() && are_stale(error, loaded, own)) {
        replace_stale(pins, loaded, own);
        error = load(pins.directory, rules, loaded);
    }
    if (error != 0)
        return refused(why, "bpf(2)", error);
    const uint32_t traps = inherit_traps(loaded, own.cookie);
    inherit_protection(loaded);
    note = note_of(traps, guard_rules_open(loaded.rules, loaded.state), pins);
    return true;
}

void classifier_unload(ClassifierObject &loaded)
{
    guard_rules_close();
    rates_close();
    if (loaded.object != nullptr)
        bpf_object__close(loaded.object);
    loaded = ClassifierObject();
}

} // namespace platform_linux
