#include "acknowledged.h"

#include <cstring>

#include "dhcpsnoop_user.h"
#include "management.h"

namespace platform_linux
{
namespace
{

constexpr uint32_t USER_ATTRIBUTE = 0x8CE8000; // and its number

// What management binds; of type 0 = nothing. The daemon marks it as bound when it is installed.
DhcpsnoopUserKey binds = {};

} // namespace

bool is_only_asked_for(const QorUserRecord &record)
{
    if (record.addrKind == 0)
        return false;
    DhcpsnoopUserKey key = {record.ipType, {}, {}};
    memcpy(key.ipAddr, record.addr, sizeof key.ipAddr);
    if (memcmp(&key, &binds, sizeof key) == 0) {
        if ((record.ruleFlags & DHCPSNOOP_HW_IPSG) == 0) // the second, and last
            binds = {};
        return false;
    }
    const DhcpsnoopUser *user = dhcpsnoop_user_lookup(&key);
    return user != nullptr && user->userType == DHCPSNOOP_USER_DYNAMIC &&
           user->bindState == DHCPSNOOP_BIND_REQUESTED;
}

void management_acts(const DhcpsnoopUserKey &key, uint32_t code, const uint32_t *action)
{
    const bool bind =
        code == USER_ATTRIBUTE + USER_ACTION && action != nullptr && *action == USER_ACTION_BIND;
    binds = bind ? key : DhcpsnoopUserKey{};
}

} // namespace platform_linux
