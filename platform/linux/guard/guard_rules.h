// The rules in the kernel (maps guard_rules and guard_state), for classifier.cpp. The calls that add and
// remove them are declared in classifier.h. Results are 0 or an errno value.
#pragma once

#include <cstdint>

#include "clock.h"
#include "guard_maps.h"

namespace platform_linux
{

// How long a trap of an earlier run holds that this run has not set again.
constexpr uint32_t GUARD_INHERIT_SECONDS = 60;

// How long a rule of an earlier run counts that this run has not installed again: half a lease of two
// days, when a client renews.
constexpr uint32_t GUARD_INHERIT_RULES_SECONDS = 24 * 60 * 60;

// Lets packets that agree with `key` pass, once more: so many adds, so many removes. A rule that an earlier
// run installed for the same address, or the same MAC on another port, ends. EINVAL for a key without check
// items, ENOSPC when there is no room. Takes effect with the next frame.
int guard_rule_add(const guard_rule_key &key);

// ENOENT when this run has not added it.
int guard_rule_remove(const guard_rule_key &key);

// Takes over the rules in the maps as those of an earlier run, and gives their number. Rules of the run that
// just ended count until GUARD_INHERIT_RULES_SECONDS from now; older ones keep their time, and go when it is
// over. Both descriptors stay the caller's and are used until the close.
uint32_t guard_rules_open(int map, int state);

void guard_rules_close();

// Copies every rule of one map into another, which has the room.
int guard_rules_copy(int from, int to);

// Nanoseconds of the kernel's CLOCK_BOOTTIME, as the times in the maps.
inline uint64_t guard_clock() { return static_cast<uint64_t>(kernel_boot_time()); }

} // namespace platform_linux
