// Snooping on an interface. Its entries are found in dhcpsnoop_if_table.h.
#pragma once

#include "dhcpsnoop.h"

// 0, 12 when no entry is free, or the error of the hardware trap.
uint32_t dhcpsnoop_if_enable(uint32_t ifIndex);
uint32_t dhcpsnoop_if_disable(DhcpsnoopIf *ifp); // always 0; null is ignored

// Version is DHCPSNOOP_IPV4, DHCPSNOOP_IPV6 or both. Always 0, and always clears the trust.
uint32_t dhcpsnoop_if_version_set(DhcpsnoopIf *ifp, uint32_t version);

// Has the hardware trap (state 1) or stop trapping (any other) the DHCP of these versions. 0 or the
// platform's error.
int32_t dhcpsnoop_if_state_notify(uint32_t ifIndex, uint32_t version, uint32_t state);
