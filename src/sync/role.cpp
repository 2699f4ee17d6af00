// The running role of this control unit, as the platform has it now. The stored role only serves to report
// changes.
#include "dhcpsnoop_sync.h"

#include "debug.h"

static const char *role_word(uint8_t role)
{
    static constexpr const char *words[] = {"None", "Master", "Slave"};
    return role < sizeof words / sizeof words[0] ? words[role] : words[DHCPSNOOP_ROLE_NONE];
}

uint32_t dhcpsnoop_running_role_get(void)
{
    DhcpsnoopRole role = DHCPSNOOP_ROLE_MASTER;
    if (qorHwScalarGet(0, QOR_HW_NOT_MASTER, nullptr) != 0)
        role = qorHwScalarGet(0, QOR_HW_NOT_SLAVE, nullptr) != 0 ? DHCPSNOOP_ROLE_NONE : DHCPSNOOP_ROLE_SLAVE;

    if (role != gDhcpsnoop.runningRole) {
        DEBUG_EVENT("[DHCPSNOOP] running role of the dhcpsnoop changed from %s to %s.\r\n",
                    role_word(gDhcpsnoop.runningRole), role_word(role));
        gDhcpsnoop.runningRole = role;
    }
    return role;
}
