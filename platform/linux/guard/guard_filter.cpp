// clsact and its filters (guard_filter.h), through libbpf and one netlink dump.
#include "guard_filter.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>

#include <bpf/libbpf.h>
#include <libmnl/libmnl.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>

namespace platform_linux
{
namespace
{

// Priority 1 is the first that the kernel asks: a filter of somebody else in front of it could accept DHCP
// frames past it.
constexpr uint32_t FILTER_HANDLE = 0xD4CF, FILTER_PRIORITY = 1;

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
    const bool handle = tc->tcm_handle == FILTER_HANDLE;
    if (handle && strncmp(name, GUARD_PROGRAM, sizeof GUARD_PROGRAM - 1) == 0)
        filters.ours = true;
    else if (handle && strncmp(name, GUARD_OUT_PROGRAM, sizeof GUARD_OUT_PROGRAM - 1) == 0)
        filters.oursOut = true;
    else if (handle && strncmp(name, GUARD_HOST_PROGRAM, sizeof GUARD_HOST_PROGRAM - 1) == 0)
        filters.oursHost = true;
    else
        filters.others = true;
    return MNL_CB_OK;
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

} // namespace

bool filter_list(uint32_t ifIndex, Filters &filters)
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

int filter_attach(uint32_t ifIndex, Direction direction, int program, bool &qdiscMade)
{
    bpf_tc_hook hook = hook_of(ifIndex, direction == Direction::ingress ? BPF_TC_INGRESS : BPF_TC_EGRESS);
    const int error = -bpf_tc_hook_create(&hook);
    if (error != 0 && error != EEXIST)
        return error;
    qdiscMade = qdiscMade || error == 0;
    bpf_tc_opts opts = filter_opts();
    opts.prog_fd = program;
    opts.flags = BPF_TC_F_REPLACE;
    return -bpf_tc_attach(&hook, &opts);
}

int filter_detach_out(uint32_t ifIndex)
{
    const bpf_tc_hook hook = hook_of(ifIndex, BPF_TC_EGRESS);
    const bpf_tc_opts opts = filter_opts();
    return -bpf_tc_detach(&hook, &opts);
}

int filter_detach(uint32_t ifIndex, bool qdiscIsOurs)
{
    bpf_tc_hook hook = hook_of(ifIndex, BPF_TC_INGRESS);
    const bpf_tc_opts opts = filter_opts();
    Filters here, left;
    int error = filter_list(ifIndex, here) ? 0 : errno;
    if (here.ours)
        error = -bpf_tc_detach(&hook, &opts);
    if ((here.oursOut || here.oursHost) && error == 0)
        error = filter_detach_out(ifIndex);
    if (error == 0 && qdiscIsOurs && filter_list(ifIndex, left) && !left.isOurs() && !left.others) {
        hook.attach_point = static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS);
        return -bpf_tc_hook_destroy(&hook);
    }
    return error;
}

uint32_t filter_taken_off(const nlmsghdr &message)
{
    if ((message.nlmsg_type != RTM_DELTFILTER && message.nlmsg_type != RTM_DELQDISC) ||
        mnl_nlmsg_get_payload_len(&message) < sizeof(tcmsg))
        return 0;
    const tcmsg *tc = static_cast<const tcmsg *>(mnl_nlmsg_get_payload(&message));
    const bool another = message.nlmsg_type == RTM_DELTFILTER && tc->tcm_handle != 0 &&
                         tc->tcm_handle != FILTER_HANDLE; // 0 = all of a priority
    return TC_H_MAJ(tc->tcm_parent) != TC_H_MAJ(TC_H_CLSACT) || tc->tcm_ifindex <= 0 || another
               ? 0
               : static_cast<uint32_t>(tc->tcm_ifindex);
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

} // namespace platform_linux
