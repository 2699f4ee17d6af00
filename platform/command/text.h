// Words of the command line to values and back: numbers, addresses, interfaces, option texts. A wrong word is
// a UsageError that names the expected form.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "option_template.h"
#include "request.h"

using Words = std::vector<std::string>;

// Decimal, or hexadecimal after "0x". Null for any other word.
std::optional<uint32_t> parseNumber(const std::string &word);
uint32_t parseRange(const std::string &what, const std::string &word, uint32_t least, uint32_t most);

uint32_t parseIpv4(const std::string &word); // numeric
std::string ipv4Text(uint32_t address);
UserKey parseUserKey(const std::string &word); // an IPv4 or IPv6 address
std::string userKeyText(const UserKey &key);
std::array<uint8_t, 6> parseMac(const std::string &word);
std::string macText(const Bytes &mac);

// A port's name in this network namespace, or its index, which need not exist. Throws NoInterface.
uint32_t parseInterface(const std::string &word);
std::string interfaceText(uint32_t ifIndex); // the name if it can be typed, else the index

Bytes parseHex(const std::string &word); // two digits a byte, ':' or '-' between bytes allowed
std::string hexText(const Bytes &bytes);
bool isPrintable(const Bytes &bytes); // printable ASCII only

// What a '%' and a letter stand for in a template; every other letter expands to "0".
struct Conversion {
    char letter;
    const char *help;
};
constexpr Conversion CONVERSIONS[] = {
    {LETTER_HOST_NAME,        "host name of the switch"                    },
    {LETTER_DESCRIPTION,      "description of the machine"                 },
    {LETTER_PORT_NAME,        "name of the port"                           },
    {LETTER_INTERFACE_NUMBER, "number of the interface that snoops"        },
    {LETTER_PORT_NUMBER,      "number of the port"                         },
    {LETTER_SLOT,             "slot of the port"                           },
    {LETTER_CARD_PORT,        "number of the port on its card"             },
    {LETTER_SERVICE_VLAN,     "outer (service) VLAN of the request"        },
    {LETTER_CUSTOMER_VLAN,    "inner (customer) VLAN of the request"       },
    {LETTER_ZERO,             "0"                                          },
    {LETTER_MAC,              "the interface's MAC address, 6 binary bytes"},
};

// The error in an option text template; empty when it is right. After a conversion ('%' and a letter) must
// come a delimiter or the end, and '%' may not be the last character.
std::optional<std::string> templateFault(std::string_view text);
// The conversions in it without a meaning.
std::string templateUnknown(std::string_view text);

// The word as a shell reads it back.
std::string quoted(const std::string &word);
std::string joinQuoted(const Words &words);
