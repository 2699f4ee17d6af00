// The table of interfaces with snooping switched on.
#pragma once

#include "dhcpsnoop.h"

// Counts the changes of the table and of its entries' settings, for what is made of them and kept.
extern uint32_t gIfChanges;

DhcpsnoopIf *dhcpsnoop_if_lookup(uint32_t ifIndex);
DhcpsnoopIf *dhcpsnoop_if_lookup_by_vid(uint32_t vid); // the VLAN interface of that VLAN (low 16 bits)
DhcpsnoopIf *dhcpsnoop_if_add(uint32_t ifIndex);       // zeroed and in its place; null when none is free
void dhcpsnoop_if_delete(DhcpsnoopIf *ifp);            // null is ignored
