// Loads guard.bpf.c, attaches it to ports and writes its maps (guard.h), all through libbpf and one netlink
// dump of a device's filters. Everything has a fixed name, handle, priority and path, so that the next run
// finds it. Calls take the kernel 0.2 to 200 microseconds and are made when ports or settings change, never
// per frame.
#include "guard.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <vector>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <libmnl/libmnl.h>
#include <linux/magic.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>

#include "guard_maps.h"
#include "guard_object.h"
#include "trap.h"

namespace platform_linux
{
namespace
{

// Where the classifier stands on a port. Priority 1 is the first that the kernel asks: a filter of somebody
// else in front of it could accept DHCP frames past it.
constexpr uint32_t FILTER_HANDLE = 0xD4CF, FILTER_PRIORITY = 1;
constexpr char PROGRAM[] = "dhcpsnoop_guard"; // in the kernel too; the filter's name begins with it

// A bpffs of our own: `ip netns exec` mounts a new /sys, which hides the usual one.
constexpr char RUN_DIR[] = "/run/dhcpsnoop", PIN_ROOT[] = "/run/dhcpsnoop/bpf";

constexpr uint16_t VLAN_MAX = 4094;

struct Guard {
    bpf_object *object = nullptr; // null: closed, or no eBPF here
    int program = -1, ports = -1, vlans = -1, state = -1;
    std::set<uint32_t> added; // ports on which the classifier stands
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

// The network namespace by its two names: the inode's number is used again when the namespace is gone, so
// that what is left behind by namespaces stays bounded; the cookie is not, so that nobody takes it for his
// own.
struct Namespace {
    uint64_t inode = 0, cookie = 0;
};

bool own_namespace(Namespace &own)
{
    struct stat inode;
    const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    socklen_t length = sizeof own.cookie;
    const bool known = sock >= 0 &&
                       getsockopt(sock, SOL_SOCKET, SO_NETNS_COOKIE, &own.cookie, &length) == 0 &&
                       stat("/proc/self/ns/net", &inode) == 0;
    const int error = errno;
    if (sock >= 0)
        close(sock);
    if (known)
        own.inode = inode.st_ino;
    errno = error;
    return known;
}

bool is_bpffs(const char *path)
{
    struct statfs found;
    return statfs(path, &found) == 0 && static_cast<uint32_t>(found.f_type) == BPF_FS_MAGIC;
}

// The directory of this network namespace's maps, "" with the reason when there can be none.
std::string pin_directory(const Namespace &own, std::string &why)
{
    mkdir(RUN_DIR, 0755);
    mkdir(PIN_ROOT, 0700);
    if (!is_bpffs(PIN_ROOT) &&
        mount("bpf", PIN_ROOT, "bpf", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0700") != 0) {
        why = std::string("no bpffs at ") + PIN_ROOT + " and none can be mounted: " + strerror(errno);
        return "";
    }
    const std::string path =
        std::string(PIN_ROOT) + "/" + std::to_string(own.inode) + "-" + std::to_string(GUARD_LAYOUT);
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        why = path + ": " + strerror(errno);
        return "";
    }
    return path;
}

// This namespace's, of every layout there ever was.
std::vector<std::string> pinned_directories()
{
    std::vector<std::string> found;
    Namespace own;
    DIR *root = is_bpffs(PIN_ROOT) && own_namespace(own) ? opendir(PIN_ROOT) : nullptr;
    const std::string prefix = std::to_string(own.inode) + "-";
    for (const dirent *entry; root != nullptr && (entry = readdir(root)) != nullptr;) {
        if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0)
            found.push_back(std::string(PIN_ROOT) + "/" + entry->d_name);
    }
    if (root != nullptr)
        closedir(root);
    return found;
}

int remove_directory(const std::string &path)
{
    DIR *directory = opendir(path.c_str());
    if (directory == nullptr)
        return errno;
    for (const dirent *entry; (entry = readdir(directory)) != nullptr;) {
        if (entry->d_name[0] != '.')
            unlinkat(dirfd(directory), entry->d_name, 0);
    }
    closedir(directory);
    return rmdir(path.c_str()) == 0 ? 0 : errno;
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

uint64_t boottime()
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

// What an earlier run trapped goes on for a while, until this run's configuration has set it again. Neither
// letting it go at once would do (every restart opens a gap for rogue servers) nor keeping it for good (a
// daemon without configuration would cut off DHCP). The kernel looks at the clock, so it ends even if this
// run hangs. Gives the number of ports and VLANs concerned.
uint32_t inherit_traps(guard_state state, uint64_t netnsCookie)
{
    const uint32_t zero = 0;
    const uint64_t now = boottime();
    const bool stillInherited = now < state.inherited_until;
    state.inherited_until = now + uint64_t{GUARD_INHERIT_SECONDS} * 1000000000u;
    state.netns_cookie = netnsCookie;
    bpf_map_update_elem(guard.state, &zero, &state, BPF_ANY);

    uint32_t count = 0, key = 0;
    const auto inherit = [&count, stillInherited](uint8_t &trap, uint8_t &inherited) {
        inherited = static_cast<uint8_t>((stillInherited ? inherited : 0) | trap);
        trap = 0;
        count += inherited != 0;
    };
    for (const uint32_t *previous = nullptr; bpf_map_get_next_key(guard.ports, previous, &key) == 0;
         previous = &key) {
        guard_port port = {};
        if (bpf_map_lookup_elem(guard.ports, &key, &port) != 0)
            continue;
        inherit(port.trap, port.inherited);
        bpf_map_update_elem(guard.ports, &key, &port, BPF_EXIST);
    }
    for (key = 0; key < GUARD_VLANS; key++) {
        guard_vlan vlan = {};
        if (bpf_map_lookup_elem(guard.vlans, &key, &vlan) != 0 || (vlan.trap | vlan.inherited) == 0)
            continue;
        inherit(vlan.trap, vlan.inherited);
        bpf_map_update_elem(guard.vlans, &key, &vlan, BPF_EXIST);
    }
    return count;
}

// The filters at a device's clsact ingress and egress.
struct Filters {
    bool ours = false, others = false;
};

// Give the text of a filter's name attribute (TCA_BPF_NAME inside TCA_OPTIONS) to the pointer behind `data`.
int take_name(const nlattr *option, void *data)
{
    if (mnl_attr_get_type(option) == TCA_BPF_NAME && mnl_attr_validate(option, MNL_TYPE_NUL_STRING) >= 0)
        *static_cast<const char **>(data) = mnl_attr_get_str(option);
    return MNL_CB_OK;
}

int take_options(const nlattr *attribute, void *data)
{
    return mnl_attr_get_type(attribute) == TCA_OPTIONS ? mnl_attr_parse_nested(attribute, take_name, data)
                                                       : MNL_CB_OK;
}

int read_filter(const nlmsghdr *message, void *data)
{
    if (message->nlmsg_type != RTM_NEWTFILTER || mnl_nlmsg_get_payload_len(message) < sizeof(tcmsg))
        return MNL_CB_OK;
    const tcmsg *tc = static_cast<const tcmsg *>(mnl_nlmsg_get_payload(message));
    if (tc->tcm_handle == 0) // the chain's own record, not a filter
        return MNL_CB_OK;
    const char *name = "";
    mnl_attr_parse(message, sizeof *tc, take_options, &name);
    Filters &filters = *static_cast<Filters *>(data);
    const bool ours = tc->tcm_handle == FILTER_HANDLE && strncmp(name, PROGRAM, sizeof PROGRAM - 1) == 0;
    (ours ? filters.ours : filters.others) = true;
    return MNL_CB_OK;
}

bool list_filters(uint32_t ifIndex, Filters &filters)
{
    mnl_socket *netlink = mnl_socket_open(NETLINK_ROUTE);
    if (netlink == nullptr)
        return false;
    bool complete = mnl_socket_bind(netlink, 0, MNL_SOCKET_AUTOPID) == 0;
    alignas(nlmsghdr) char buffer[32768];
    for (const uint32_t parent : {TC_H_MIN_INGRESS, TC_H_MIN_EGRESS}) {
        nlmsghdr *request = mnl_nlmsg_put_header(buffer);
        request->nlmsg_type = RTM_GETTFILTER;
        request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        request->nlmsg_seq = parent;
        tcmsg *tc = static_cast<tcmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(tcmsg)));
        tc->tcm_ifindex = static_cast<int>(ifIndex);
        tc->tcm_parent = TC_H_MAKE(TC_H_CLSACT, parent);
        complete = complete && mnl_socket_sendto(netlink, request, request->nlmsg_len) > 0;
        for (int more = MNL_CB_OK; complete && more > MNL_CB_STOP;) {
            const ssize_t length = mnl_socket_recvfrom(netlink, buffer, sizeof buffer);
            more = length < 0 ? MNL_CB_ERROR
                              : mnl_cb_run(buffer, static_cast<size_t>(length), parent,
                                           mnl_socket_get_portid(netlink), read_filter, &filters);
            complete = more >= 0;
        }
    }
    mnl_socket_close(netlink);
    return complete;
}

bpf_tc_hook hook_of(uint32_t ifIndex, bpf_tc_attach_point point)
{
    bpf_tc_hook hook = {};
    hook.sz = sizeof hook;
    hook.ifindex = static_cast<int>(ifIndex);
    hook.attach_point = point;
    return hook;
}

bpf_tc_opts filter_opts()
{
    bpf_tc_opts opts = {};
    opts.sz = sizeof opts;
    opts.handle = FILTER_HANDLE;
    opts.priority = FILTER_PRIORITY;
    return opts;
}

// The classifier, and the queueing discipline when it was made for it and nobody else uses it now.
int remove_from_device(uint32_t ifIndex, bool qdiscIsOurs)
{
    bpf_tc_hook hook = hook_of(ifIndex, BPF_TC_INGRESS);
    const bpf_tc_opts opts = filter_opts();
    const int error = -bpf_tc_detach(&hook, &opts);
    Filters left;
    if (error == 0 && qdiscIsOurs && list_filters(ifIndex, left) && !left.ours && !left.others) {
        hook.attach_point = static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS);
        return -bpf_tc_hook_destroy(&hook);
    }
    return error;
}

std::vector<uint32_t> device_indexes()
{
    std::vector<uint32_t> indexes;
    struct if_nameindex *devices = if_nameindex();
    for (const struct if_nameindex *device = devices; device != nullptr && device->if_index != 0; device++)
        indexes.push_back(device->if_index);
    if (devices != nullptr)
        if_freenameindex(devices);
    return indexes;
}

void forget_port(uint32_t ifIndex)
{
    guard_port port = {};
    bpf_map_lookup_elem(guard.ports, &ifIndex, &port);
    remove_from_device(ifIndex, port.qdisc_is_ours != 0);
    bpf_map_delete_elem(guard.ports, &ifIndex);
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

// Opens and loads the classifier with the maps pinned in `pins` ("": not pinned). An errno value, 0 = loaded.
int load(const std::string &pins)
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
    const int error = -bpf_object__load(object);
    if (error != 0) {
        bpf_object__close(object);
        return error;
    }
    guard.object = object;
    guard.program = bpf_program__fd(bpf_object__find_program_by_name(object, PROGRAM));
    guard.ports = bpf_object__find_map_fd_by_name(object, "guard_ports");
    guard.vlans = bpf_object__find_map_fd_by_name(object, "guard_vlans");
    guard.state = bpf_object__find_map_fd_by_name(object, "guard_state");
    return 0;
}

} // namespace

bool guard_open(std::string &why, std::string &note)
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
    if (!own_namespace(own)) {
        why = refusal("the network namespace has no name", errno);
        return false;
    }
    std::string noPins;
    std::string pins = pin_directory(own, noPins);
    int error = load(pins);
    guard_state state = error == 0 ? state_read() : guard_state{};
    const bool foreign = state.netns_cookie != 0 && state.netns_cookie != own.cookie;
    if (!pins.empty() && (foreign || error == EINVAL)) { // EINVAL: maps of another shape
        guard_close();
        const int kept = remove_directory(pins);
        pins = kept == 0 ? pin_directory(own, noPins) : "";
        if (kept != 0)
            noPins = std::string("stale maps cannot be removed: ") + strerror(kept);
        state = {};
        error = load(pins);
    }
    if (error != 0) {
        why = refusal("bpf(2)", error);
        return false;
    }
    const uint32_t inherited = inherit_traps(state, own.cookie);
    if (inherited != 0)
        note = "traps of an earlier run on " + std::to_string(inherited) + " ports and VLANs hold for " +
               std::to_string(GUARD_INHERIT_SECONDS) + " s unless they are set again";
    else if (pins.empty())
        note = noPins + "; after a restart of the daemon DHCP passes until it is configured again";
    return true;
}

void guard_close()
{
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
        if (!list_filters(ifIndex, filters) || !filters.ours)
            port = {};
    }
    port.native = nativeVid;
    bpf_tc_hook hook = hook_of(ifIndex, BPF_TC_INGRESS);
    int error = -bpf_tc_hook_create(&hook);
    if (error == 0)
        port.qdisc_is_ours = 1;
    if (error == 0 || error == EEXIST)
        error = -bpf_map_update_elem(guard.ports, &ifIndex, &port, BPF_ANY);
    if (error == 0) {
        bpf_tc_opts opts = filter_opts();
        opts.prog_fd = guard.program;
        opts.flags = BPF_TC_F_REPLACE;
        error = -bpf_tc_attach(&hook, &opts);
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
        if (guard.added.count(ifIndex) == 0 && list_filters(ifIndex, filters) && filters.ours)
            forget_port(ifIndex);
    }
    // What is left in the map belongs to devices that are gone.
    std::vector<uint32_t> stale;
    uint32_t key = 0;
    for (const uint32_t *previous = nullptr; bpf_map_get_next_key(guard.ports, previous, &key) == 0;
         previous = &key) {
        if (guard.added.count(key) == 0)
            stale.push_back(key);
    }
    for (const uint32_t ifIndex : stale)
        bpf_map_delete_elem(guard.ports, &ifIndex);
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

bool trap_release(std::string &report)
{
    bool complete = true;
    const auto say = [&report, &complete](const std::string &what, int error) {
        report += error == 0 ? what + " removed\n" : what + " not removed: " + strerror(error) + "\n";
        complete = complete && error == 0;
    };
    libbpf_set_print(keep_first_warning);
    const std::vector<std::string> directories = pinned_directories();
    int ports = -1;
    for (const std::string &directory : directories) {
        if (ports < 0)
            ports = bpf_obj_get((directory + "/guard_ports").c_str());
    }
    for (const uint32_t ifIndex : device_indexes()) {
        char name[IF_NAMESIZE] = "";
        Filters filters;
        guard_port port = {};
        if (if_indextoname(ifIndex, name) == nullptr)
            continue;
        if (!list_filters(ifIndex, filters)) {
            say(std::string(name) + ": classifier", errno);
            continue;
        }
        if (!filters.ours)
            continue;
        if (ports >= 0)
            bpf_map_lookup_elem(ports, &ifIndex, &port);
        say(std::string(name) + ": classifier", remove_from_device(ifIndex, port.qdisc_is_ours != 0));
    }
    if (ports >= 0)
        close(ports);
    for (const std::string &directory : directories)
        say(directory, remove_directory(directory));
    return complete;
}

} // namespace platform_linux
