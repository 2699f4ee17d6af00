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

// "ip mac vlan port [family 4|6|both]", "off" or "exempt": both features. ARP inspection is IPv4's. Throws
// UsageError.
GuardWords parse_guard(std::span<const std::string> words);
// ARP inspection alone: no family.
uint8_t parse_items(std::span<const std::string> words);

// Check items, or "exempt"; none for 0.
std::vector<std::string> item_words(uint8_t items);
const char *family_word(uint8_t items); // "4", "6" or "both"
bool has_family(uint8_t items);         // other than IPv4
// Both: parse_guard and parse_items read them back. "off" for 0.
std::vector<std::string> guard_words(uint8_t items);

} // namespace platform_linux
