// The words of the guard: check items of IP source guard and ARP inspection.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace platform_linux
{

// Check items as guard.h has them (guard_wanted): 0 is off, GUARD_EXEMPT alone exempts a port.
struct GuardWords {
    uint8_t ip, arp;
    bool operator==(const GuardWords &) const = default;
};

// "ip mac vlan port", "off" or "exempt": both features. Throws UsageError.
GuardWords parse_guard(std::span<const std::string> words);
// ARP inspection alone.
uint8_t parse_items(std::span<const std::string> words);
std::vector<std::string> item_words(uint8_t items); // parse_items reads them back

} // namespace platform_linux
