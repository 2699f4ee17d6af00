// Bindings as management sees them: listed in the order of their keys, read, and the static ones created,
// changed, bound, unbound and deleted. IP source guard bindings are never listed and cannot be bound, unbound
// or deleted here.
#include "nm_common.h"

#include <cstring>
#include <ctime>

#include "debug.h"
#include "dhcpsnoop_user.h"

static constexpr uint32_t INSTALL = 1, WITHDRAW = 0;

// ---- iteration

// The smallest key above `from`; the smallest of all keys when `from` is null.
static int32_t user_find(const DhcpsnoopUserKey *from, DhcpsnoopUserKey *out)
{
    const TableLock lock;
    const DhcpsnoopUser *user = dhcpsnoop_user_next(from);
    while (user != nullptr && user->userType == DHCPSNOOP_USER_IPSG)
        user = dhcpsnoop_user_next(&user->key);
    if (user == nullptr)
        return -1;
    *out = user->key;
    return 0;
}

int32_t dhcpSnoopUserGetFirst(DhcpsnoopUserKey *out) { return out != nullptr ? user_find(nullptr, out) : -1; }

int32_t dhcpSnoopUserGetNext(const DhcpsnoopUserKey *from, DhcpsnoopUserKey *out)
{
    return from != nullptr && out != nullptr ? user_find(from, out) : -1;
}

// ---- binding actions

static uint32_t now(void) { return static_cast<uint32_t>(std::time(nullptr)); }

static void check_all_and_install(DhcpsnoopUser *user, uint8_t *items, uint32_t kind, uint8_t hwFlag)
{
    *items |= DHCPSNOOP_CHECK_ALL;
    if (dhcpsnoop_user_state_notify(user, INSTALL, items, kind) == 0)
        user->hwFlags |= hwFlag;
    else
        *items = static_cast<uint8_t>(*items & ~DHCPSNOOP_CHECK_ALL);
}

static int32_t bind(DhcpsnoopUser *user)
{
    check_all_and_install(user, &user->ipsgCheckItems, DHCPSNOOP_RULE_IPSG, DHCPSNOOP_HW_IPSG);
    check_all_and_install(user, &user->daiCheckItems, DHCPSNOOP_RULE_DAI, DHCPSNOOP_HW_DAI);
    user->leaseStart = now();
    user->bindState = DHCPSNOOP_BIND_BOUND;
    zlog_dispatch_logging(
        QOR_LOG_MODULE, QOR_LOG_LEVEL,
        "[DHCPSNOOP] Add %s dhcpsnoop entry: ip %s, mac %02x:%02x:%02x:%02x:%02x:%02x, interface %s, vlan %d.\r\n",
        user_type_word(user->userType), address_text(user->key).text, user->mac[0], user->mac[1],
        user->mac[2], user->mac[3], user->mac[4], user->mac[5], if_description(user->ifIndex).text,
        user->vid);
    return NM_OK;
}

static int32_t withdraw(DhcpsnoopUser *user, uint8_t *items, uint32_t kind, uint8_t hwFlag)
{
    if ((user->hwFlags & hwFlag) == 0)
        return 0;
    const int32_t rc = dhcpsnoop_user_state_notify(user, WITHDRAW, items, kind);
    if (rc == 0)
        user->hwFlags = static_cast<uint8_t>(user->hwFlags & ~hwFlag);
    return rc;
}

static int32_t unbind(DhcpsnoopUser *user, uint32_t action)
{
    int32_t rc = withdraw(user, &user->ipsgCheckItems, DHCPSNOOP_RULE_IPSG, DHCPSNOOP_HW_IPSG);
    if (rc != 0)
        return rc;
    rc = withdraw(user, &user->daiCheckItems, DHCPSNOOP_RULE_DAI, DHCPSNOOP_HW_DAI);
    if (rc != 0)
        return rc;

    // Only dynamic bindings are counted, and this one is none from now on.
    if (user->userType == DHCPSNOOP_USER_DYNAMIC)
        dhcpsnoop_user_count_down(user);
    user->userType = DHCPSNOOP_USER_STATIC;
    user->leaseTime = DHCPSNOOP_LEASE_FOREVER;
    user->leaseStart = now();
    // The two actions of unbinding are states, too.
    static_assert(USER_ACTION_UNBIND == DHCPSNOOP_BIND_UNBOUND &&
                  USER_ACTION_UNBIND_KEEP == DHCPSNOOP_BIND_CREATED);
    user->bindState = static_cast<uint8_t>(action);
    return NM_OK;
}

static int32_t create(const DhcpsnoopUserKey *key)
{
    DhcpsnoopUser *user = dhcpsnoop_user_table_add(key);
    if (user == nullptr)
        return NM_NO_MEMORY;
    user->userType = DHCPSNOOP_USER_STATIC;
    user->leaseTime = DHCPSNOOP_LEASE_FOREVER;
    user->bindState = DHCPSNOOP_BIND_CREATED;
    return NM_OK;
}

static int32_t existing_act(DhcpsnoopUser *user, uint32_t action)
{
    if (user->userType == DHCPSNOOP_USER_IPSG) {
        DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop user setapi: this is a IPSG binding entry with the same ip!\r\n");
        return NM_EXISTS;
    }
    switch (action) {
    case USER_ACTION_BIND:
        return bind(user);
    case USER_ACTION_UNBIND:
    case USER_ACTION_UNBIND_KEEP:
        return unbind(user, action);
    case USER_ACTION_CREATE:
    case USER_ACTION_CREATE_ALSO:
        return NM_EXISTS;
    case USER_ACTION_DELETE:
        dhcpsnoop_user_delete(user);
        return NM_OK;
    default:
        return NM_BAD_COMMAND;
    }
}

// ---- set

struct Change {
    const DhcpsnoopUserKey *key;
    uint32_t cmd;
    void *value;
    uint32_t mode;
};

static bool accepted(const Change &change, uint32_t mode)
{
    return qorHwDhcpSnoopUserSync(change.key, QOR_SYNC_USER + change.cmd, change.value, mode) == 0;
}

static int32_t action_set(const Change &change, DhcpsnoopUser *user)
{
    const uint32_t *action = value_number(change.value);
    if (action == nullptr)
        return NM_BAD_COMMAND;
    if (!accepted(change, change.mode))
        return NM_HW_REFUSED;
    if (user != nullptr)
        return existing_act(user, *action);
    const bool creates = *action == USER_ACTION_CREATE || *action == USER_ACTION_CREATE_ALSO;
    return creates ? create(change.key) : NM_NO_ENTRY;
}

static int32_t mac_set(const Change &change, DhcpsnoopUser *user)
{
    const QorBuffer *mac = value_bytes(change.value);
    if (mac == nullptr)
        return NM_BAD_COMMAND;
    if (!accepted(change, change.mode | QOR_SYNC_BUFFER))
        return NM_HW_REFUSED;
    // Kept: tested only now, when the hardware has been told already.
    if (mac->length < sizeof user->mac)
        return NM_BAD_LENGTH;
    dhcpsnoop_user_mac_set(user, static_cast<const uint8_t *>(mac->data));
    user->macMark = DHCPSNOOP_MAC_MARK;
    return NM_OK;
}

static int32_t number_set(const Change &change, DhcpsnoopUser *user)
{
    const uint32_t *number = value_number(change.value);
    if (number == nullptr)
        return NM_BAD_COMMAND;
    if (!accepted(change, change.mode))
        return NM_HW_REFUSED;
    switch (change.cmd) {
    case USER_VLAN:
        user->vid = user->origVid = static_cast<uint16_t>(*number);
        break;
    case USER_INTERFACE:
        dhcpsnoop_user_port_set(user, *number);
        break;
    case USER_ATTR:
        user->userAttr = static_cast<uint16_t>(*number);
        break;
    }
    return NM_OK;
}

static int32_t attribute_set(const Change &change)
{
    DhcpsnoopUser *user = dhcpsnoop_user_lookup(change.key);
    if (change.cmd == USER_ACTION)
        return action_set(change, user);
    if (user == nullptr)
        return NM_NO_ENTRY;
    if (user->bindState == DHCPSNOOP_BIND_BOUND)
        return NM_BOUND;
    switch (change.cmd) {
    case USER_VLAN:
    case USER_INTERFACE:
    case USER_ATTR:
        return number_set(change, user);
    case USER_MAC:
        return mac_set(change, user);
    default:
        return NM_BAD_COMMAND;
    }
}

static int32_t _dhcpSnoopUserSetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value, uint32_t mode)
{
    if (key == nullptr)
        return NM_NULL_KEY;
    const TableLock lock;
    return attribute_set({key, cmd, value, mode});
}

int32_t dhcpSnoopUserSetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value)
{
    return _dhcpSnoopUserSetApi(key, cmd, value, QOR_SYNC_SET);
}

int32_t dhcpSnoopUserSyncApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value)
{
    return _dhcpSnoopUserSetApi(key, cmd, value, QOR_SYNC_PEER);
}

// ---- get

static int32_t mac_get(const DhcpsnoopUser *user, void *value)
{
    QorBuffer *mac = value_bytes(value);
    if (mac == nullptr)
        return NM_BAD_COMMAND;
    if (mac->length < sizeof user->mac)
        return NM_BAD_LENGTH;
    std::memcpy(mac->data, user->mac, sizeof user->mac);
    mac->length = sizeof user->mac;
    return NM_OK;
}

// A dynamic binding that outlived its lease, until the next scan removes it, shows its lease.
static uint32_t elapsed(const DhcpsnoopUser *user)
{
    const uint32_t seconds = now() - user->leaseStart;
    return user->userType == DHCPSNOOP_USER_DYNAMIC && seconds > user->leaseTime ? user->leaseTime : seconds;
}

int32_t dhcpSnoopUserGetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value)
{
    if (key == nullptr)
        return NM_NULL_KEY;
    const TableLock lock;
    const DhcpsnoopUser *user = dhcpsnoop_user_lookup(key);
    if (user == nullptr)
        return NM_NO_ENTRY;
    switch (cmd) {
    case USER_VLAN:
        return value_put(value, user->vid);
    case USER_INTERFACE:
        return value_put(value, user->ifIndex);
    case USER_ATTR:
        return value_put(value, user->userAttr);
    case USER_MAC:
        return mac_get(user, value);
    case USER_LEASE:
        return value_put(value, user->leaseTime);
    case USER_ELAPSED:
        return value_put(value, elapsed(user));
    case USER_TYPE:
        return value_put(value, user->userType);
    case USER_ACTION:
        return value_put(value, user->bindState);
    default:
        return NM_BAD_COMMAND;
    }
}
