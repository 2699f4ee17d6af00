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

constexpr Choice FAMILIES[] = {
    {"4",    0                           },
    {"6",    GUARD_FAMILY_6 | GUARD_NOT_4},
    {"both", GUARD_FAMILY_6              }
};
constexpr uint8_t FAMILY_BITS = GUARD_FAMILY_6 | GUARD_NOT_4;
constexpr char FAMILY[] = "family";

// Takes "family WORD" off the end.
uint8_t parse_family(std::span<const std::string> &words)
{
    if (words.empty() || (words.back() != FAMILY && (words.size() < 2 || words[words.size() - 2] != FAMILY)))
        return 0;
    for (const Choice &family : FAMILIES) {
        if (words.size() > 2 && words.back() == family.word) {
            words = words.first(words.size() - 2);
            return static_cast<uint8_t>(family.value);
        }
    }
    throw UsageError("which family? (4, 6 or both, behind the check items)");
}

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
    const uint8_t families = parse_family(words), items = parse_items(words);
    if (families != 0 && (items & GUARD_CHECK_ALL) == 0)
        throw UsageError("a family goes with check items");
    const bool arp = (families & GUARD_NOT_4) == 0;
    return {static_cast<uint8_t>(items | families), arp ? items : uint8_t{0}};
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

const char *family_word(uint8_t items)
{
    for (const Choice &family : FAMILIES)
        if ((items & FAMILY_BITS) == family.value)
            return family.word;
    return FAMILIES[0].word;
}

bool has_family(uint8_t items) { return (items & FAMILY_BITS) != 0; }

std::vector<std::string> guard_words(uint8_t items)
{
    std::vector<std::string> words = items == 0 ? std::vector<std::string>{"off"} : item_words(items);
    if (has_family(items))
        words.insert(words.end(), {FAMILY, family_word(items)});
    return words;
}

} // namespace platform_linux
