// The changes that the daemon offers to its platform before it makes them: settings, bindings, records of the
// peer unit. All are accepted; some the daemon then refuses for want of room, which is counted here.
#include <cerrno>

#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_user.h"
#include "guard.h"
#include "list.h"
#include "management.h"
#include "model.h"
#include "platform.h"
#include "port_limits.h"
#include "redundancy.h"
#include "refusals.h"

using namespace platform_linux;

// Settings need no more than the daemon's own state.
int32_t qorHwScalarSync(void *, uint32_t code, void *data, uint32_t)
{
    // Rules that the bindings do not take over belong to bindings that were deleted on a standby.
    if (code == QOR_SYNC_GLOBAL + GLOBAL_HW_NOTIFY && redundancy_takeover_begins())
        bindings_hold_all();
    if (code != QOR_SYNC_GLOBAL + GLOBAL_SYNC_PACKET)
        return 0;
    return data != nullptr ? redundancy_sync(*static_cast<const QorBuffer *>(data)) : EINVAL;
}

int32_t qorHwIfSync(uint32_t ifIndex, uint32_t code, void *value, uint32_t)
{
    const auto *on = static_cast<const uint32_t *>(value);
    const uint32_t setting = code - QOR_SYNC_IF;
    if (setting == IF_ENABLE || setting == IF_TRUST || setting == IF_VERSION)
        port_limits_doubt();
    if (code == QOR_SYNC_IF + IF_ENABLE && on != nullptr && *on == 1 && list_empty(&gDhcpsnoop.ifFreeList) &&
        dhcpsnoop_if_lookup(ifIndex) == nullptr) {
        const Port *port = model_port(ifIndex);
        refusal_count(Refused::interfacesFull, port != nullptr ? port->name : "");
    }
    return 0;
}

int32_t qorHwDhcpSnoopUserSync(const void *key, uint32_t code, void *value, uint32_t)
{
    const auto *action = static_cast<const uint32_t *>(value);
    if (code == QOR_SYNC_USER + USER_ACTION && action != nullptr &&
        (*action == USER_ACTION_CREATE || *action == USER_ACTION_CREATE_ALSO) &&
        list_empty(&gDhcpsnoop.userFreeList) &&
        dhcpsnoop_user_lookup(static_cast<const DhcpsnoopUserKey *>(key)) == nullptr)
        refusal_count(Refused::bindingsFull, "");
    redundancy_binding_changed();
    return 0;
}
