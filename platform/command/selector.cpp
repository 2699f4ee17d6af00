#include "selector.h"

#include <algorithm>
#include <charconv>
#include <fnmatch.h>
#include <net/if.h>
#include <optional>

#include "text.h"

namespace
{

std::optional<uint32_t> whole_number(const std::string &text)
{
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool plain =
        error == std::errc() && end == text.data() + text.size() && (text.size() == 1 || text[0] != '0');
    return plain ? std::optional(number) : std::nullopt;
}

size_t digits_at(const std::string &text) { return text.find_last_not_of("0123456789") + 1; }

[[noreturn]] void no_name(const std::string &part, const std::string &text)
{
    throw UsageError("'" + part + "' in '" + text + "' is not the name of a device");
}

} // namespace

Selector::Selector(const std::string &text) : text_(text)
{
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(',', begin), text.size());
        const std::string part = text.substr(begin, end - begin);
        begin = end + 1;
        const size_t dash = part.rfind('-');
        if (part.empty() || part == "." || part == ".." || part.find_first_of("/: ") != std::string::npos)
            no_name(part, text);
        if (part.find_first_of("*?[") != std::string::npos) {
            parts_.push_back({part, 0, 0, Rank::pattern});
            continue;
        }
        if (part.size() >= IFNAMSIZ && dash == std::string::npos)
            throw UsageError("'" + part + "' is longer than a device name can be (" +
                             std::to_string(IFNAMSIZ - 1) + ")");
        parts_.push_back({part, 0, 0, Rank::list});
        if (dash == std::string::npos)
            continue;
        // "swp1-22"; a device may also have that name itself.
        const std::string from = part.substr(0, dash);
        const auto first = whole_number(from.substr(digits_at(from))),
                   last = whole_number(part.substr(dash + 1));
        if (!first || !last || digits_at(from) == 0)
            continue;
        if (*last < *first)
            throw UsageError("the range '" + part + "' runs backwards");
        parts_.push_back({from.substr(0, digits_at(from)), *first, *last, Rank::range});
    }
    if (parts_.size() == 1 && parts_[0].rank == Rank::list)
        parts_[0].rank = Rank::name;
}

Rank Selector::match(const std::string &name) const
{
    Rank found = Rank::none;
    for (const Part &part : parts_) {
        bool matches = part.name == name;
        if (part.rank == Rank::pattern)
            matches = fnmatch(part.name.c_str(), name.c_str(), 0) == 0;
        if (part.rank == Rank::range) {
            const size_t at = digits_at(name);
            const auto number = whole_number(name.substr(at));
            matches =
                number && part.name == name.substr(0, at) && *number >= part.first && *number <= part.last;
        }
        if (matches)
            found = std::max(found, part.rank);
    }
    return found;
}

std::string Selector::single() const
{
    return parts_.size() == 1 && parts_[0].rank == Rank::name ? parts_[0].name : "";
}
