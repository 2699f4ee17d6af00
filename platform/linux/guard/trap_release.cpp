// Takes everything out of the kernel again (guard.h), with or without a daemon's pinned maps at hand.
#include "guard.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "fd.h"
#include "guard_filter.h"
#include "guard_pins.h"

namespace platform_linux
{

bool trap_release(std::string &report)
{
    bool complete = true;
    const auto say = [&report, &complete](const std::string &what, int error) {
        report += error == 0 ? what + " removed\n" : what + " not removed: " + strerror(error) + "\n";
        complete = complete && error == 0;
    };
    libbpf_set_print(nullptr);
    const std::vector<std::string> directories = pins_all();
    Fd ports;
    for (const std::string &directory : directories) {
        if (!ports)
            ports.reset(bpf_obj_get((directory + "/guard_ports").c_str()));
    }
    for (const uint32_t ifIndex : device_indexes()) {
        char name[IF_NAMESIZE] = "";
        Filters filters;
        guard_port port = {};
        if (if_indextoname(ifIndex, name) == nullptr)
            continue;
        if (!filter_list(ifIndex, filters)) {
            say(std::string(name) + ": classifier", errno);
            continue;
        }
        if (!filters.isOurs())
            continue;
        if (ports)
            bpf_map_lookup_elem(ports.get(), &ifIndex, &port);
        say(std::string(name) + ": classifier", filter_detach(ifIndex, port.qdisc_is_ours != 0));
    }
    for (const std::string &directory : directories)
        say(directory, pins_remove(directory));
    return complete;
}

} // namespace platform_linux
