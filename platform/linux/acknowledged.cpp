#include "acknowledged.h"

#include <cstring>

#include "dhcpsnoop_user.h"

namespace platform_linux
{

bool is_only_asked_for(const QorUserRecord &record)
{
    if (record.addrKind == 0)
        return false;
    DhcpsnoopUserKey key = {record.ipType, {}, {}};
    memcpy(key.ipAddr, record.addr, sizeof key.ipAddr);
    const DhcpsnoopUser *user = dhcpsnoop_user_lookup(&key);
    if (user == nullptr || user->userType != DHCPSNOOP_USER_DYNAMIC ||
        user->bindState != DHCPSNOOP_BIND_REQUESTED)
        return false;
    // Management binds by all check items, and sets them in the entry before it asks. Every other caller sets
    // them after the rule is installed.
    const uint8_t items =
        (record.ruleFlags & DHCPSNOOP_HW_IPSG) != 0 ? user->ipsgCheckItems : user->daiCheckItems;
    return (items & DHCPSNOOP_CHECK_ALL) != DHCPSNOOP_CHECK_ALL;
}

} // namespace platform_linux
