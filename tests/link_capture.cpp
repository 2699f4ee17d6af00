// Records the kernel's link messages as hexadecimal text, for the fixtures in data/: each line of standard
// input is a shell command, or "dump" for a dump of the links and one of the bridge ports. With an argument
// it leaves out the attributes that nobody here reads. Changes what the commands change: for a network
// namespace or a virtual machine.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
bool slim = false;
alignas(nlmsghdr) std::array<uint8_t, 65536> datagram;

// The switch model reads these, and those that read like the switch's own; the rest is most of the bytes.
bool wanted(const ifinfomsg *info, const nlattr *attribute)
{
    switch (mnl_attr_get_type(attribute)) {
    case IFLA_IFNAME:
    case IFLA_ADDRESS:
    case IFLA_LINK:
    case IFLA_MASTER:
    case IFLA_LINKINFO:
    case IFLA_PROTINFO:
    case IFLA_PHYS_PORT_NAME:
    case IFLA_PROP_LIST:
    case IFLA_ALT_IFNAME:
        return true;
    case IFLA_AF_SPEC:
        return info->ifi_family == AF_BRIDGE;
    default:
        return false;
    }
}

struct Kept {
    const ifinfomsg *info;
    std::string bytes;
};

int keep(const nlattr *attribute, void *kept)
{
    const void *value = attribute;
    auto *to = static_cast<Kept *>(kept);
    if (!slim || wanted(to->info, attribute))
        to->bytes.append(static_cast<const char *>(value), MNL_ALIGN(attribute->nla_len));
    return MNL_CB_OK;
}

int print_message(const nlmsghdr *message, void *)
{
    if (message->nlmsg_type != RTM_NEWLINK && message->nlmsg_type != RTM_DELLINK)
        return MNL_CB_OK;
    const void *start = message;
    Kept kept{static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(message)),
              std::string(static_cast<const char *>(start), sizeof(nlmsghdr) + sizeof(ifinfomsg))};
    mnl_attr_parse(message, sizeof(ifinfomsg), keep, &kept);
    const auto length = static_cast<uint32_t>(kept.bytes.size());
    memcpy(kept.bytes.data(), &length, sizeof length);
    for (char byte : kept.bytes)
        printf("%02x", static_cast<unsigned char>(byte));
    printf("\n");
    return MNL_CB_OK;
}

// Prints what comes for `wait` milliseconds, of a dump no more than until its end.
void drain(int sock, int wait)
{
    pollfd p{sock, POLLIN, 0};
    while (poll(&p, 1, wait) > 0) {
        const ssize_t length = recv(sock, datagram.data(), datagram.size(), 0);
        if (length < 0 || mnl_cb_run(datagram.data(), static_cast<size_t>(length), 0, 0, print_message, nullptr) <= 0)
            return;
    }
}

void dump(int sock, uint8_t family)
{
    std::array<char, 64> buffer{};
    nlmsghdr *request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = RTM_GETLINK;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    auto *info = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
    info->ifi_family = family;
    mnl_attr_put_u32(request, IFLA_EXT_MASK, family == AF_BRIDGE ? RTEXT_FILTER_BRVLAN_COMPRESSED : 0);
    if (send(sock, request, request->nlmsg_len, 0) < 0)
        perror("dump");
    drain(sock, 2000);
}
} // namespace

int main(int argc, char **)
{
    slim = argc > 1;
    const int sock = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    const int group = RTNLGRP_LINK, size = 4 << 20;
    sockaddr_nl self{};
    self.nl_family = AF_NETLINK;
    if (bind(sock, reinterpret_cast<sockaddr *>(&self), sizeof self) < 0) // unbound, it hears no multicast
        perror("bind");
    setsockopt(sock, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
    setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    const int control = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    char line[512];
    setvbuf(stdout, nullptr, _IOLBF, 0);
    while (fgets(line, sizeof line, stdin)) {
        line[strcspn(line, "\n")] = 0;
        printf("# %s\n", line);
        if (strcmp(line, "dump") == 0) {
            dump(control, AF_UNSPEC);
            dump(control, AF_BRIDGE);
        } else if (system(line) != 0)
            printf("! failed\n");
        drain(sock, 150);
    }
}
