// Words of the command line to values and back. What comes from the daemon or the kernel is printed only
// after it was found printable.
#include "text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <net/if.h>

namespace
{

bool isLetter(char c) { return template_is_letter(static_cast<uint8_t>(c)); }

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool isConversion(char letter)
{
    return std::any_of(std::begin(CONVERSIONS), std::end(CONVERSIONS),
                       [=](const Conversion &row) { return row.letter == letter; });
}

bool isPlain(char c)
{
    return isLetter(c) || (c >= '0' && c <= '9') ||
           std::string_view("-_./:@%+=,").find(c) != std::string::npos;
}

} // namespace

std::optional<uint32_t> parseNumber(const std::string &word)
{
    bool hex = word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
    const char *begin = word.data() + (hex ? 2 : 0), *end = word.data() + word.size();
    uint32_t value = 0;
    auto [stop, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
    if (error != std::errc{} || stop != end)
        return std::nullopt;
    return value;
}

uint32_t parseRange(const std::string &what, const std::string &word, uint32_t least, uint32_t most)
{
    std::optional<uint32_t> value = parseNumber(word);
    if (!value || *value < least || *value > most)
        throw UsageError(what + " must be a number from " + std::to_string(least) + " to " +
                         std::to_string(most) + ", not '" + word + "'");
    return *value;
}

uint32_t parseIpv4(const std::string &word)
{
    in_addr address;
    if (inet_pton(AF_INET, word.c_str(), &address) != 1)
        throw UsageError("'" + word + "' is not an IPv4 address");
    return ntohl(address.s_addr);
}

std::string ipv4Text(uint32_t address)
{
    in_addr network = {htonl(address)};
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &network, text, sizeof(text));
}

UserKey parseUserKey(const std::string &word)
{
    UserKey key;
    if (inet_pton(AF_INET, word.c_str(), key.ipAddr.data()) == 1) {
        key.ipType = DHCPSNOOP_IPV4;
        return key;
    }
    key = {};
    if (inet_pton(AF_INET6, word.c_str(), key.ipAddr.data()) != 1)
        throw UsageError("'" + word + "' is not an IPv4 or IPv6 address");
    key.ipType = DHCPSNOOP_IPV6;
    return key;
}

std::string userKeyText(const UserKey &key)
{
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(key.ipType == DHCPSNOOP_IPV4 ? AF_INET : AF_INET6, key.ipAddr.data(), text,
                     sizeof(text));
}

std::array<uint8_t, 6> parseMac(const std::string &word)
{
    const size_t group = word.size() == 14 ? 4 : 2; // 0200.0000.0001
    bool good = word.size() == 17 || word.size() == 14;
    std::string digits;
    for (size_t i = 0; i < word.size(); i++)
        if (i % (group + 1) != group)
            digits += word[i];
        else
            good = good && (group == 4 ? word[i] == '.' : word[i] == ':' || word[i] == '-');
    std::array<uint8_t, 6> mac = {};
    for (size_t i = 0; good && i < mac.size(); i++) {
        const int high = hexDigit(digits[2 * i]), low = hexDigit(digits[2 * i + 1]);
        good = high >= 0 && low >= 0;
        mac[i] = static_cast<uint8_t>(high * 16 + low);
    }
    if (!good)
        throw UsageError("'" + word + "' is not a MAC address (02:00:00:00:00:01, 0200.0000.0001)");
    return mac;
}

std::string macText(const Bytes &mac)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (uint8_t byte : mac) {
        text += text.empty() ? "" : ":";
        text += {DIGITS[byte >> 4], DIGITS[byte & 15]};
    }
    return text;
}

uint32_t parseInterface(const std::string &word)
{
    uint32_t index = if_nametoindex(word.c_str());
    if (index != 0)
        return index;
    std::optional<uint32_t> number = parseNumber(word);
    if (!number || *number == 0)
        throw NoInterface("there is no interface '" + word +
                          "' here (give a name in this network namespace, or an index)");
    return *number;
}

std::string interfaceText(uint32_t ifIndex)
{
    char name[IF_NAMESIZE];
    if (!if_indextoname(ifIndex, name) || !std::all_of(name, name + std::strlen(name), isPlain))
        return std::to_string(ifIndex);
    return name;
}

Bytes parseHex(const std::string &word)
{
    Bytes bytes;
    for (size_t i = 0; i < word.size();) {
        int high = hexDigit(word[i]), low = i + 1 < word.size() ? hexDigit(word[i + 1]) : -1;
        if (high < 0 || low < 0)
            throw UsageError("'" + word + "' is not a row of hexadecimal bytes (0a:1b or 0a1b)");
        bytes.push_back(static_cast<uint8_t>(high * 16 + low));
        i += 2;
        if (i + 1 < word.size() && (word[i] == ':' || word[i] == '-'))
            i++;
    }
    return bytes;
}

std::string hexText(const Bytes &bytes)
{
    std::string text;
    char pair[3];
    for (uint8_t byte : bytes) {
        std::snprintf(pair, sizeof(pair), "%02x", byte);
        text += pair;
    }
    return text;
}

bool isPrintable(const Bytes &bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte >= 0x20 && byte < 0x7F; });
}

std::optional<std::string> templateFault(std::string_view text)
{
    Bytes terminated(text.begin(), text.end());
    terminated.push_back(0);
    const int64_t fault = template_fault(terminated.data(), static_cast<uint32_t>(terminated.size()));
    if (fault < 0)
        return std::nullopt;
    const std::string_view from = text.substr(static_cast<size_t>(fault));
    if (from.size() == 1)
        return "'%' is its last character; a letter must follow";
    return "after '" + std::string(from.substr(0, 2)) + "' must come one of '" + TEMPLATE_DELIMITERS +
           "' or the end, not '" + from[2] + "'";
}

std::string templateUnknown(std::string_view text)
{
    std::string unknown;
    for (size_t pos = 0; pos + 1 < text.size(); pos++)
        if (text[pos] == '%' && isLetter(text[pos + 1]) && !isConversion(text[pos + 1]))
            unknown += std::string(unknown.empty() ? "" : " ") + '%' + text[pos + 1];
    return unknown;
}

std::string quoted(const std::string &word)
{
    if (!word.empty() && std::all_of(word.begin(), word.end(), isPlain))
        return word;
    std::string out = "'";
    for (char c : word)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string joinQuoted(const Words &words)
{
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + quoted(word);
    return line;
}
