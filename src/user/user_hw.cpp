// Bindings pushed out of the daemon: as IP source guard and ARP inspection rules into the forwarding
// hardware, and as events with the client's gateway to other features. A refusal leaves the entry's installed
// bits as they were; nothing is retried until the next event that comes here.
#include "dhcpsnoop_user.h"

#include <cstring>

#include "debug.h"
#include "dhcpsnoop_notify.h"
#include "dhcpsnoop_sync.h"

static constexpr DhcpsnoopFeature FEATURES[] = {DHCPSNOOP_FEATURE_IPSG,
                                                DHCPSNOOP_FEATURE_DAI}; // in the order served

void dhcpsnoop_user_notifier(const DhcpsnoopUser *user, uint32_t add)
{
    if (user->userType != DHCPSNOOP_USER_DYNAMIC || user->gateway == 0 || user->key.ipType == DHCPSNOOP_IPV6)
        return;

    // Host order but for the addresses.
    struct Body {
        uint8_t mac[6];
        uint16_t vid;
        uint32_t ifIndex;
        uint8_t addr[16];
        uint8_t gateway[16];
        uint8_t zero[2];
        uint8_t family;
        uint8_t reserved;
    } body = {};
    static_assert(sizeof body == 48 && offsetof(Body, gateway) == 28 && offsetof(Body, family) == 46);
    std::memcpy(body.mac, user->mac, sizeof body.mac);
    body.vid = user->vid;
    body.ifIndex = user->ifIndex;
    std::memcpy(body.addr, user->key.ipAddr, 4);
    std::memcpy(body.gateway, &user->gateway, sizeof user->gateway);
    body.family = DHCPSNOOP_IPV4;

    uint8_t bytes[sizeof body];
    std::memcpy(bytes, &body, sizeof bytes);
    dhcpsnoop_notify_send(bytes, add == 1 ? QOR_EVENT_USER_ADDED : QOR_EVENT_USER_DELETED);
    DEBUG_EVENT("[DHCPSNOOP] Notify %s user: port %d ,vid %d ,mac %s ,ip %s, gateway %s.\r\n",
                add != 0 ? "add" : "delete", user->ifIndex, user->vid, mac_text(user->mac).text,
                ipv4_text(user->key.ipAddr).text, ipv4_text(body.gateway).text);
}

static QorUserRecord rule_record(const DhcpsnoopUser *user, uint8_t items, uint32_t kind)
{
    QorUserRecord record = {};
    record.ipType = user->key.ipType;
    record.userAttr = user->userAttr;
    if ((items & DHCPSNOOP_CHECK_MAC) != 0) {
        std::memcpy(record.mac, user->mac, sizeof record.mac);
        record.macValid = QOR_MAC_VALID;
    }
    if ((items & DHCPSNOOP_CHECK_VLAN) != 0) {
        record.vid = user->vid;
        record.origVid = user->origVid;
    }
    if ((items & DHCPSNOOP_CHECK_PORT) != 0)
        record.ifIndex = user->ifIndex;
    if ((items & DHCPSNOOP_CHECK_IP) != 0) {
        const bool ipv4 = user->key.ipType == DHCPSNOOP_IPV4;
        std::memcpy(record.addr, user->key.ipAddr, ipv4 ? 4 : sizeof record.addr);
        record.addrKind = ipv4 ? QOR_ADDRESS_IPV4 : QOR_ADDRESS_IPV6;
    }
    if (kind == DHCPSNOOP_RULE_IPSG) {
        record.ruleFlags = DHCPSNOOP_HW_IPSG;
        record.ipsgHwId = user->ipsgHwId;
    } else if (kind == DHCPSNOOP_RULE_DAI && gDhcpsnoop.daiStarted == 1) {
        record.ruleFlags = DHCPSNOOP_HW_DAI;
        record.daiHwId = user->daiHwId;
    }
    return record;
}

int32_t dhcpsnoop_user_state_notify(DhcpsnoopUser *user, uint32_t add, uint8_t *items, uint32_t kind)
{
    // A standby unit programs no hardware, but marks its entries as the master does.
    if (dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_SLAVE)
        return 0;

    QorUserRecord record = rule_record(user, *items, kind);
    QorIfRequest request = {
        add == 1 ? QOR_USER_ADD : QOR_USER_DELETE, &record, {0, 0}
    };
    const int32_t result = qorIfSetApi(user->ifIndex, QOR_IF_BINDING, &request);

    // Kept: the identifiers are taken over from a failed add too.
    if (add == 1 && kind == DHCPSNOOP_RULE_IPSG)
        user->ipsgHwId = record.ipsgHwId;
    if (add == 1 && kind == DHCPSNOOP_RULE_DAI)
        user->daiHwId = record.daiHwId;

    // Kept: the rule flags are printed as the check items.
    DEBUG_EVENT("[DHCPSNOOP] %s user in hwapi: port %d ,vid %d ,mac %s ,ip %s, checkitem 0x%0x.\r\n",
                add != 0 ? "Add" : "Delete", user->ifIndex, user->vid, mac_text(user->mac).text,
                address_text(user->key).text, record.ruleFlags);
    if (result != 0)
        DEBUG_EVENT("[DHCPSNOOP] %s user info in hwapi failed!\r\n", add != 0 ? "Add" : "Delete");
    return result;
}

// Whether the feature is on for the interface, and the fields that it checks there.
static bool feature_enabled(DhcpsnoopIfHook hook, uint32_t ifIndex, uint8_t *items)
{
    uint32_t enabled = 0;
    if (hook(ifIndex, QOR_HOOK_ENABLED, &enabled) != 0 || enabled != 1)
        return false;
    uint8_t reply[8] = {}; // the answer is one byte; a hook that writes a word does no harm
    hook(ifIndex, QOR_HOOK_CHECK_ITEMS, reply);
    *items = reply[0];
    return true;
}

// The port's setting rules over that of its VLAN.
static void install(DhcpsnoopUser *user, const DhcpsnoopFeature &feature)
{
    const DhcpsnoopIfHook hook = gDhcpsnoop.*feature.hook;
    if (hook == nullptr)
        return;
    uint8_t items = 0;
    uint8_t from = DHCPSNOOP_SOURCE_PORT;
    if (!feature_enabled(hook, user->ifIndex, &items)) {
        const uint32_t request[7] = {1, 1, 1, 1, user->vid, QOR_UNIT_VLAN_INTERFACE, 0};
        uint32_t vlanIfIndex = 0;
        if (qorIndexTrans(request, QOR_TRANS_INDEX, &vlanIfIndex) != 0 ||
            !feature_enabled(hook, vlanIfIndex, &items))
            return;
        from = DHCPSNOOP_SOURCE_VLAN;
    }

    // An installed rule stays as it is, with its earlier check items.
    if ((user->hwFlags & feature.installed) != 0)
        return;
    if (dhcpsnoop_user_state_notify(user, 1, &items, feature.kind) != 0)
        return;
    user->hwFlags |= feature.installed;
    user->*feature.source = from;
    user->*feature.checkItems = items;
}

static void withdraw(DhcpsnoopUser *user, const DhcpsnoopFeature &feature)
{
    if ((user->hwFlags & feature.installed) == 0)
        return;
    if (dhcpsnoop_user_state_notify(user, 0, &(user->*feature.checkItems), feature.kind) != 0)
        return;
    user->*feature.checkItems = 0;
    user->*feature.source = 0;
    user->hwFlags &= static_cast<uint8_t>(~feature.installed);
}

void dhcpsnoop_user_update_hw(DhcpsnoopUser *user, uint32_t add)
{
    for (const DhcpsnoopFeature &feature : FEATURES) {
        if (add != 0)
            install(user, feature);
        else
            withdraw(user, feature);
    }
}
