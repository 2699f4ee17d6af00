#include "binding_filter.h"

#include <algorithm>
#include <bitset>
#include <fnmatch.h>
#include <sstream>

#include "protocol.h"
#include "typed.h"

namespace
{

constexpr size_t PATTERN_MAX = 64; // matching takes long where there are many stars

const Words KEYS = {"interface", "port", "vlan", "mac", "address", "type", "state"};

uint32_t valueOf(const std::string &what, std::span<const Choice> choices, const std::string &word)
{
    Words words;
    for (const Choice &choice : choices)
        words.emplace_back(choice.word);
    if (const auto chosen = meant(word, words))
        return std::ranges::find(choices, *chosen, &Choice::word)->value;
    std::string all;
    for (const std::string &other : words)
        all += (all.empty() ? "" : ", ") + other;
    throw UsageError(what + " must be one of " + all + ", not '" + word + "'");
}

// "10,20-29".
std::bitset<VLAN_ID_MAX + 1> parseVlans(const std::string &word)
{
    std::bitset<VLAN_ID_MAX + 1> vlans;
    std::istringstream parts(word + ",");
    for (std::string part; std::getline(parts, part, ',');) {
        const size_t dash = part.find('-');
        const uint32_t first = parseRange("vlan", part.substr(0, dash), VLAN_ID_MIN, VLAN_ID_MAX);
        const uint32_t last =
            dash == std::string::npos ? first : parseRange("vlan", part.substr(dash + 1), first, VLAN_ID_MAX);
        for (uint32_t vid = first; vid <= last; vid++)
            vlans.set(vid);
    }
    return vlans;
}

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

// "0200.0000.*" as "02:00:00:00*".
std::string dottedPattern(const std::string &word)
{
    std::string pattern;
    size_t digits = 0; // behind the last star
    for (const char c : word) {
        if (c == '.')
            continue;
        if (c != '*' && digits > 0 && digits % 2 == 0)
            pattern += ':';
        digits = c == '*' ? 0 : digits + 1;
        pattern += lower(c);
    }
    return pattern;
}

// A pattern (glob(7)) is compared with the address as it is shown.
std::string macPattern(const std::string &word)
{
    if (word.find_first_of("*?[") == std::string::npos) {
        const auto mac = parseMac(word);
        return macText({mac.begin(), mac.end()});
    }
    if (word.size() > PATTERN_MAX)
        throw UsageError("a pattern of MAC addresses has at most " + std::to_string(PATTERN_MAX) +
                         " characters, not " + std::to_string(word.size()));
    const bool hasRange = word.find('[') != std::string::npos; // in which a dash is no separator
    if (!hasRange && word.find('.') != std::string::npos)
        return dottedPattern(word);
    std::string pattern;
    for (const char c : word)
        pattern += c == '-' && !hasRange ? ':' : lower(c);
    return pattern;
}

bool agree(const UserKey &one, const UserKey &other, uint32_t bits)
{
    const auto bit = [](const UserKey &key, uint32_t at) { return key.ipAddr[at / 8] >> (7 - at % 8) & 1; };
    for (uint32_t at = 0; at < bits; at++)
        if (bit(one, at) != bit(other, at))
            return false;
    return one.ipType == other.ipType;
}

} // namespace

// An address, or a prefix of addresses.
bool BindingFilter::takeAddress(const std::string &word)
{
    const size_t slash = word.find('/');
    UserKey key;
    try {
        key = parseUserKey(word.substr(0, slash));
    } catch (const UsageError &) {
        return false;
    }
    if (slash == std::string::npos) {
        if (address_ && *address_ != key)
            throw UsageError("a binding has one address, and there are two: " + userKeyText(*address_) +
                             " and " + word);
        address_ = key;
        parts_.emplace_back(
            [key](const Binding &binding, const std::string &) { return binding.key == key; });
        return true;
    }
    const uint32_t bits =
        parseRange("prefix length", word.substr(slash + 1), 0, key.ipType == DHCPSNOOP_IPV4 ? 32 : 128);
    parts_.emplace_back(
        [key, bits](const Binding &binding, const std::string &) { return agree(binding.key, key, bits); });
    return true;
}

// A name, list, range or pattern, or an index.
BindingFilter::Part BindingFilter::parsePorts(const std::string &value)
{
    const Selector ports(value);
    const auto index = parseNumber(value);
    if (!index && !ports.single().empty())
        names_.push_back(value);
    return [ports, index](const Binding &binding, const std::string &port) {
        return ports.match(port) != Rank::none || (index && binding.ifIndex == *index);
    };
}

BindingFilter::Part BindingFilter::parse(const std::string &key, const std::string &value)
{
    if (key == "interface" || key == "port")
        return parsePorts(value);
    if (key == "vlan")
        return [vlans = parseVlans(value)](const Binding &b, const std::string &) {
            return b.vlan < vlans.size() && vlans[b.vlan];
        };
    if (key == "mac")
        return [pattern = macPattern(value)](const Binding &b, const std::string &) {
            return hasMac(b) && fnmatch(pattern.c_str(), macText(b.mac).c_str(), 0) == 0;
        };
    if (key == "type")
        return [type = valueOf(key, USER_TYPES, value)](const Binding &b, const std::string &) {
            return b.type == type;
        };
    return [state = valueOf(key, USER_STATES, value)](const Binding &b, const std::string &) {
        return b.state == state;
    };
}

BindingFilter::BindingFilter(std::span<const std::string> words) : words_(words.begin(), words.end())
{
    for (size_t i = 0; i < words.size(); i++) {
        if (takeAddress(words[i]))
            continue;
        const auto key = meant(words[i], KEYS);
        if (!key)
            throw UsageError(
                "bindings cannot be chosen by '" + words[i] + "'" + suggestion(words[i], KEYS) +
                " (say an address or prefix; or interface, vlan, mac, type or state, and its value)");
        if (++i == words.size())
            throw UsageError("'" + words[i - 1] + "' lacks its value");
        if (*key != "address")
            parts_.push_back(parse(*key, words[i]));
        else if (!takeAddress(words[i]))
            throw UsageError("'" + words[i] + "' is not an IPv4 or IPv6 address, nor a prefix");
    }
}

bool BindingFilter::operator()(const Binding &binding, const std::string &port) const
{
    return std::ranges::all_of(parts_, [&](const Part &part) { return part(binding, port); });
}

const std::string &PortNames::of(uint32_t ifIndex)
{
    std::string &name = names_[ifIndex];
    if (name.empty() && ifIndex != 0)
        name = interfaceText(ifIndex);
    return name;
}
