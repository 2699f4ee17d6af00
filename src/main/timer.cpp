// The lease scan: at most once a minute, dynamic bindings whose lease has run out and clients that waited too
// long for a reply are removed. Static and IP source guard bindings never expire.
#include "dhcpsnoop_timer.h"

#include <ctime>

#include "debug.h"
#include "dhcpsnoop_user.h"
#include "list.h"

static constexpr uint32_t SCAN_PERIOD = 60;

static time_t prev_time; // of the last scan

static bool elapsed(time_t now, uint32_t since, uint32_t seconds)
{
    return difftime(now, static_cast<time_t>(since)) >= seconds;
}

void dhcpsnoop_user_timer_check(void)
{
    const time_t now = time(nullptr);
    // A clock that was set back makes a large number here: the scan runs and takes up the new time.
    if (static_cast<uint32_t>(static_cast<int64_t>(difftime(now, prev_time))) < SCAN_PERIOD)
        return;
    DEBUG_EVENT("[DHCPSNOOP] Timeout, check the user binding table!\r\n");
    prev_time = now;

    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (user->userType != DHCPSNOOP_USER_DYNAMIC || !elapsed(now, user->leaseStart, user->leaseTime))
            continue;
        DEBUG_EVENT("[DHCPSNOOP] User time out, mac:%s.\r\n", mac_text(user->mac).text);
        dhcpsnoop_user_delete(user);
    }
    for (DhcpsnoopMacUser *macUser : hash_each<DhcpsnoopMacUser>(gDhcpsnoop.macUserHash)) {
        if (elapsed(now, macUser->seenTime, macUser->ageTime))
            dhcpsnoop_mac_user_delete(macUser);
    }
}
