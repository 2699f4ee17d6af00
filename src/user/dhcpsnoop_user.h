// The binding table (who holds which address), its propagation to hardware and other features, and the
// MAC-user table.
#pragma once

#include "platform.h"

// Makes what finds the entries of a pool of that size, and gives it back. -1 when memory is exhausted.
int32_t dhcpsnoop_user_index_init(uint16_t count);
void dhcpsnoop_user_index_free(void);

DhcpsnoopUserKey dhcpsnoop_user_key(uint8_t ipType, const uint8_t *address); // 4 or 16 bytes
uint32_t dhcpsnoop_user_hash_key(const DhcpsnoopUserKey *key);               // bucket
DhcpsnoopUser *dhcpsnoop_user_lookup(const DhcpsnoopUserKey *key);           // null key: null
DhcpsnoopUser *dhcpsnoop_user_lookup_dynamic(const uint8_t mac[6]);          // null: null
// The binding with the smallest key above `from`, compared as bytes; with the smallest of all when it is
// null.
DhcpsnoopUser *dhcpsnoop_user_next(const DhcpsnoopUserKey *from);
DhcpsnoopUser *
dhcpsnoop_user_table_add(const DhcpsnoopUserKey *key); // zeroed but for the key; null: no key, no node

// The only ways to write a binding's MAC address and port, because both are indexed.
void dhcpsnoop_user_mac_set(DhcpsnoopUser *user, const uint8_t mac[6]);
void dhcpsnoop_user_port_set(DhcpsnoopUser *user, uint32_t ifIndex);

// Learns from a client's request. `existing` is what the key's lookup found; it may be deleted. 0 when done
// or nothing to do, -1 when a limit is reached or no node is free.
int32_t dhcpsnoop_user_add(const DhcpsnoopUserKey *key, DhcpsnoopUser *existing,
                           const DhcpsnoopPktInfo *info);

// Binds on a server's acknowledgement; never creates. Null when there is no dynamic entry of the address. The
// two buffers go to the auto-provisioning hook.
DhcpsnoopUser *dhcpsnoop_user_update(const DhcpsnoopPktInfo *info, QorBuffer *option125, QorBuffer *bootFile);
void dhcpsnoop_user_delete(DhcpsnoopUser *user); // null is ignored

// One dynamic binding less on its port and its VLAN's interface, where these snoop.
void dhcpsnoop_user_count_down(const DhcpsnoopUser *user);

// 0 when some entry matches, else -1. Takes the lock itself.
extern "C" int32_t dhcpsnoop_user_get(const DhcpsnoopUserQuery *query);

// A feature that enforces bindings: its rule kind, its bit of hwFlags, its hook, and the members that keep
// whose check items are in force and which.
struct DhcpsnoopFeature {
    uint32_t kind;
    uint8_t installed;
    DhcpsnoopIfHook DhcpsnoopGlobal::*hook;
    uint8_t DhcpsnoopUser::*source;
    uint8_t DhcpsnoopUser::*checkItems;
};
constexpr DhcpsnoopFeature DHCPSNOOP_FEATURE_IPSG = {DHCPSNOOP_RULE_IPSG, DHCPSNOOP_HW_IPSG,
                                                     &DhcpsnoopGlobal::ipsgIfGet, &DhcpsnoopUser::ipsgSource,
                                                     &DhcpsnoopUser::ipsgCheckItems};
constexpr DhcpsnoopFeature DHCPSNOOP_FEATURE_DAI = {DHCPSNOOP_RULE_DAI, DHCPSNOOP_HW_DAI,
                                                    &DhcpsnoopGlobal::antiArpIfGet, &DhcpsnoopUser::daiSource,
                                                    &DhcpsnoopUser::daiCheckItems};

// Propagation. Operate codes: 0 withdraw, 1 install, 2 withdraw and delete.
void dhcpsnoop_user_notifier(const DhcpsnoopUser *user, uint32_t add);
int32_t dhcpsnoop_user_state_notify(DhcpsnoopUser *user, uint32_t add, uint8_t *items, uint32_t kind);
void dhcpsnoop_user_update_hw(DhcpsnoopUser *user, uint32_t add);
void dhcpsnoop_user_process_on_interface(DhcpsnoopIf *ifp, uint32_t ipTypes, uint32_t userTypes,
                                         uint32_t operate);
void dhcpsnoop_user_process_on_trunk(uint32_t trunkIfIndex, uint32_t portIfIndex, uint32_t operate);

// Where a client is: its port and VLAN. A frame on a VLAN interface came in on a member port; on any other
// interface the VLAN is the frame's own.
struct DhcpsnoopClientPlace {
    uint32_t ifIndex;
    uint16_t vid;
};
DhcpsnoopClientPlace dhcpsnoop_client_place(const DhcpsnoopPktInfo *info); // info->ifp is not null
bool dhcpsnoop_user_is_at(const DhcpsnoopUser *user, const uint8_t *mac, DhcpsnoopClientPlace place);

uint32_t dhcpsnoop_mac_user_hash(const uint8_t mac[6]);
DhcpsnoopMacUser *dhcpsnoop_mac_user_add(const DhcpsnoopPktInfo *info); // does not look for duplicates
DhcpsnoopMacUser *dhcpsnoop_mac_user_lookup(const uint8_t mac[6]);      // null: null
void dhcpsnoop_mac_user_delete(DhcpsnoopMacUser *macUser);              // null is ignored
