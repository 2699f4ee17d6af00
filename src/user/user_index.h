// Finds bindings and waiting clients without walking their chains: by key, by MAC address, and the next one
// in the order of keys. The chains remain the tables; what is found here is what a walk along them finds
// first.
#pragma once

#include "dhcpsnoop.h"

struct UserIndex;
extern UserIndex *gUserIndex; // one block, made once beside the pool; null before that

// Entries of the pool, when they join and before they leave their chain. A binding that is not there is
// ignored.
void user_index_add(DhcpsnoopUser *user);
void user_index_remove(DhcpsnoopUser *user);
void user_index_add(DhcpsnoopMacUser *macUser);
void user_index_remove(DhcpsnoopMacUser *macUser);

uint32_t user_index_free(void);                // entries that the pool has left
uint32_t user_index_on_port(uint32_t ifIndex); // bindings, perhaps with those of ports that share its count

DhcpsnoopUser *user_index_find(const DhcpsnoopUserKey *key);
DhcpsnoopMacUser *user_index_find_waiting(const uint8_t mac[6]);

// The bindings of a MAC address, in no order: the first, and the one behind `user` or null.
DhcpsnoopUser *user_index_mac_first(const uint8_t mac[6]);
DhcpsnoopUser *user_index_mac_next(const DhcpsnoopUser *user, const DhcpsnoopUser *first);
