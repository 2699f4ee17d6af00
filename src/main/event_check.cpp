// Changes of the check items of IP source guard and ARP inspection, ARP inspection's start and stop, and the
// request to announce users again. A refusal by the hardware leaves a binding's marks as they were; the next
// event tries again.
#include "dhcpsnoop_event.h"

#include "debug.h"
#include "dhcpsnoop_user.h"
#include "event_handlers.h"
#include "list.h"

static constexpr uint32_t BODY_WORD = 16, BODY_ITEMS = 20; // in the message
static constexpr int32_t CHECK_LEN = 5;                    // interface index, check items
static constexpr uint32_t VLAN_LEN = 4;

static constexpr uint32_t INSTALL = 1, WITHDRAW = 0;

static bool installed(const DhcpsnoopUser *user, const DhcpsnoopFeature &feature)
{
    return (user->hwFlags & feature.installed) != 0;
}

static void withdraw(DhcpsnoopUser *user, const DhcpsnoopFeature &feature)
{
    if (dhcpsnoop_user_state_notify(user, WITHDRAW, &(user->*feature.checkItems), feature.kind) != 0)
        return;
    user->*feature.checkItems = 0;
    user->*feature.source = 0;
    user->hwFlags &= static_cast<uint8_t>(~feature.installed);
}

static void install(DhcpsnoopUser *user, const DhcpsnoopFeature &feature, uint8_t items, uint8_t source)
{
    if (dhcpsnoop_user_state_notify(user, INSTALL, &items, feature.kind) != 0)
        return;
    user->*feature.checkItems = items;
    user->*feature.source = source;
    user->hwFlags |= feature.installed;
}

// A change of check items.
struct Change {
    bool vlanScope;
    uint32_t ifIndex, vid;
    uint8_t items;
    bool withdrawOnly; // no item is checked any more
};

static bool in_scope(const DhcpsnoopUser *user, const Change &change)
{
    return change.vlanScope ? user->vid == change.vid : user->ifIndex == change.ifIndex;
}

// A port's setting replaces a VLAN's; a VLAN's setting never touches a rule that a port's setting installed.
static bool to_withdraw(uint8_t source, const Change &change)
{
    if (change.vlanScope)
        return source == DHCPSNOOP_SOURCE_VLAN;
    return source == DHCPSNOOP_SOURCE_PORT || (source == DHCPSNOOP_SOURCE_VLAN && !change.withdrawOnly);
}

static void user_follow(DhcpsnoopUser *user, const DhcpsnoopFeature &feature, const Change &change)
{
    if (user->userType != DHCPSNOOP_USER_DYNAMIC || user->bindState != DHCPSNOOP_BIND_BOUND ||
        !in_scope(user, change))
        return;
    if (installed(user, feature) && to_withdraw(user->*feature.source, change))
        withdraw(user, feature);
    if (!change.withdrawOnly && !installed(user, feature) && user->*feature.source == 0)
        install(user, feature, change.items,
                change.vlanScope ? DHCPSNOOP_SOURCE_VLAN : DHCPSNOOP_SOURCE_PORT);
}

static Change change_take(const uint8_t *message)
{
    Change change = {};
    change.ifIndex = event_get32(message + BODY_WORD);
    change.items = message[BODY_ITEMS];
    DEBUG_EVENT("[DHCPSNOOP] Interface index is %d, check item is 0x%0x.\r\n", change.ifIndex, change.items);

    change.vlanScope = qorIfGetApi(change.ifIndex, QOR_IF_VLAN, &change.vid) == 0;
    if (change.vlanScope)
        DEBUG_EVENT("[DHCPSNOOP] Check all user-bind entries on vlan %d.\r\n", change.vid);
    else
        DEBUG_EVENT("[DHCPSNOOP] Check all user-bind entries on interface %d.\r\n", change.ifIndex);
    change.withdrawOnly = (change.items & DHCPSNOOP_CHECK_ALL) == 0;
    return change;
}

static void change_apply(const Change &change, const DhcpsnoopFeature &feature)
{
    if (change.withdrawOnly)
        DEBUG_EVENT("[DHCPSNOOP] Delete user-bind entries on hardware.\r\n");
    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash))
        user_follow(user, feature, change);
}

void dhcpsnoop_ipsgchangeitem_process(uint8_t *message, int32_t length)
{
    if (event_payload_length(message, length) < CHECK_LEN)
        return;
    const Change change = change_take(message);
    DEBUG_EVENT("[DHCPSNOOP] RTM_IPSG_CHANGEDCHECKITEM p_param->item = %d\n\r", change.items);
    change_apply(change, DHCPSNOOP_FEATURE_IPSG);
}

void dhcpsnoop_daichangeitem_process(uint8_t *message, int32_t length)
{
    if (event_payload_length(message, length) < CHECK_LEN)
        return;
    const Change change = change_take(message);
    DEBUG_EVENT("[DHCPSNOOP] RTM_ANTIARP_DAICHANGEDCHECKITEM p_param->item = %d\n\r", change.items);
    change_apply(change, DHCPSNOOP_FEATURE_DAI);
}

void event_ipsg_change(const Event &event)
{
    dhcpsnoop_ipsgchangeitem_process(event.message, event_payload_length(event));
}

void event_dai_change(const Event &event)
{
    DEBUG_EVENT("[DHCPSNOOP] Receive RTM_ANTIARP_DAICHANGEDCHECKITEM message.\r\n");
    dhcpsnoop_daichangeitem_process(event.message, event_payload_length(event));
}

void event_dai_start(const Event &event)
{
    DEBUG_EVENT("[DHCPSNOOP] Receive RTM_SYSTEM_DAISTART message.\r\n");
    if (event_payload_length(event) < CHECK_LEN)
        return;
    const uint32_t ifIndex = event_get32(event.message + BODY_WORD);
    const uint8_t items = event.message[BODY_ITEMS];

    gDhcpsnoop.daiStarted = 1;
    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (user->ifIndex != ifIndex || installed(user, DHCPSNOOP_FEATURE_DAI))
            continue;
        if (user->userType == DHCPSNOOP_USER_DYNAMIC)
            install(user, DHCPSNOOP_FEATURE_DAI, items, DHCPSNOOP_SOURCE_PORT);
        else if (user->userType == DHCPSNOOP_USER_STATIC &&
                 dhcpsnoop_user_state_notify(user, INSTALL, &user->daiCheckItems,
                                             DHCPSNOOP_FEATURE_DAI.kind) == 0)
            user->hwFlags |= DHCPSNOOP_FEATURE_DAI.installed;
    }
}

void event_dai_stop(const Event &)
{
    DEBUG_EVENT("[DHCPSNOOP] Receive RTM_SYSTEM_DAISTOP message.\r\n");
    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (installed(user, DHCPSNOOP_FEATURE_DAI))
            withdraw(user, DHCPSNOOP_FEATURE_DAI);
    }
    gDhcpsnoop.daiStarted = 0;
}

void event_users_update(const Event &event)
{
    if (event.length < EVENT_HEADER_LEN + VLAN_LEN)
        return;
    const uint32_t vid = event_get32(event.message + BODY_WORD);
    DEBUG_EVENT("[DHCPSNOOP] Receive RTM_DHCPSNOOP_UPDATEDHCPSNOOPUSER message. Vlan is %d.\r\n", vid);
    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (user->userType == DHCPSNOOP_USER_DYNAMIC && user->key.ipType == DHCPSNOOP_IPV4 &&
            user->vid == vid && user->gateway != 0)
            dhcpsnoop_user_notifier(user, 1);
    }
}
