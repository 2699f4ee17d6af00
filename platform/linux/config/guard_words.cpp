#include "guard_words.h"

#include "guard.h"
#include "setting.h"

namespace platform_linux
{
namespace
{

constexpr Choice CHECK_ITEMS[] = {
    {"ip",   GUARD_CHECK_ADDRESS},
    {"mac",  GUARD_CHECK_MAC    },
    {"vlan", GUARD_CHECK_VLAN   },
    {"port", GUARD_CHECK_PORT   }
};

} // namespace

uint8_t parse_items(std::span<const std::string> words)
{
    if (words.size() == 1 && words[0] == "off")
        return 0;
    if (words.size() == 1 && words[0] == "exempt")
        return GUARD_EXEMPT;
    uint32_t items = 0;
    for (const std::string &word : words) {
        const Choice *found = nullptr;
        for (const Choice &item : CHECK_ITEMS)
            found = word == item.word ? &item : found;
        if (found == nullptr)
            throw UsageError("'" + word + "' is no check item (ip, mac, vlan, port; or off or exempt alone)");
        items |= found->value;
    }
    if (items == 0)
        throw UsageError("which check items? (ip, mac, vlan, port; or off)");
    return static_cast<uint8_t>(items);
}

GuardWords parse_guard(std::span<const std::string> words)
{
    const uint8_t items = parse_items(words);
    return {items, items};
}

std::vector<std::string> item_words(uint8_t items)
{
    std::vector<std::string> words;
    if (items == GUARD_EXEMPT)
        words.emplace_back("exempt");
    for (const Choice &item : CHECK_ITEMS)
        if ((items & item.value) != 0)
            words.emplace_back(item.word);
    return words;
}

} // namespace platform_linux
