#include "netlink.h"

#include <algorithm>

namespace platform_linux
{

const nlmsghdr *next_message(std::span<const uint8_t> &rest)
{
    if (rest.size() < sizeof(nlmsghdr))
        return nullptr;
    const void *first = rest.data();
    const auto *message = static_cast<const nlmsghdr *>(first);
    if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > rest.size())
        return nullptr;
    rest = rest.subspan(std::min<size_t>(NLMSG_ALIGN(size_t{message->nlmsg_len}), rest.size()));
    return message;
}

} // namespace platform_linux
