// The world and the daemon's states that sessions begin in, and copies of the daemon's whole memory.
#pragma once

#include <cstdint>
#include <vector>

#include "dhcpsnoop.h"

// The state record and the three pools, as bytes.
using Memory = std::vector<uint8_t>;

Memory memory_save();
void memory_restore(const Memory &memory);
// Whether the record and every entry that is on a table are as they were then. What stands in free entries
// does not matter.
bool memory_tables_equal(const Memory &before);

// A switch of six snooping ports, two that do not snoop and two VLAN interfaces, with a daemon just started.
void prepare_world();

// Brings the started daemon into one of 256 states: interfaces, bindings of every kind, waiting clients, and
// by the bits of `preset`
//   0-2  how option 82 and DHCPv6's options 18 and 37 are built: off, typed, raw, typed text, raw text,
//        template, the global template, odd modes
//   3-4  what becomes of a client's own option 82
//   5    sub-option 9
//   6    relaying interfaces
//   7    everything that guards: checks, limits, hooks, learning, the master's role, and the trace
void prepare_daemon(uint8_t preset);
DhcpsnoopRole prepared_role(uint8_t preset); // the world's, while that state is prepared and used

// The entry of that interface in the table; null when it has none.
DhcpsnoopIf *interface_entry(uint32_t ifIndex);
