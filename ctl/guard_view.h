// The guard's settings and counters in words (guard.cpp).
#pragma once

#include <string>

#include "command.h"
#include "guard.h"

constexpr const char *GUARD_REASON_WORDS[] = {"ipv4",    "ipv6", "arp",    "malformed",
                                              "unclear", "vlan", "origin", "rate"};
static_assert(std::size(GUARD_REASON_WORDS) == GUARD_REASONS);

std::string itemsText(uint8_t wanted); // "ip,mac/both", "exempt" or "off"

// False with a note where the guard's maps cannot be read: settings and counters then read as none.
bool openGuard(const Context &context);
