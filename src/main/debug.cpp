// Texts that several modules print: addresses, type words, hexadecimal dumps.
#include "debug.h"

#include <arpa/inet.h>
#include <cstdio>

#include "wire.h"

void debug_dump(const uint8_t *bytes, uint32_t count)
{
    if (!debug_dump_on())
        return;
    for (uint32_t i = 0; i < count; i++) {
        if (i % 16 == 0)
            std::printf("\n\r");
        std::printf("%02x  ", bytes[i]);
    }
}

MacText mac_text(const uint8_t mac[6])
{
    static constexpr uint8_t none[6] = {};
    if (mac == nullptr)
        mac = none;

    MacText out;
    std::snprintf(out.text, sizeof out.text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
    return out;
}

AddressText address_text(const DhcpsnoopUserKey &key)
{
    AddressText out = {};
    inet_ntop(key.ipType == DHCPSNOOP_IPV4 ? AF_INET : AF_INET6, key.ipAddr, out.text, sizeof out.text);
    return out;
}

AddressText ipv4_text(const uint8_t address[4])
{
    AddressText out = {};
    inet_ntop(AF_INET, address, out.text, sizeof out.text);
    return out;
}

AddressText ipv4_text(uint32_t address)
{
    uint8_t bytes[4];
    wire_put32(bytes, address);
    return ipv4_text(bytes);
}

const char *user_type_word(uint8_t userType)
{
    switch (userType) {
    case DHCPSNOOP_USER_DYNAMIC:
        return "dynamic";
    case DHCPSNOOP_USER_STATIC:
        return "static";
    default:
        return "other";
    }
}

IfText if_name(uint32_t ifIndex)
{
    IfText name = {};
    qorIfUnit2Name(ifIndex, name.text, sizeof name.text - 1);
    name.text[sizeof name.text - 1] = '\0';
    return name;
}

IfText if_description(uint32_t ifIndex)
{
    IfText description = {};
    nmGetIfPartDescr(ifIndex, description.text, sizeof description.text - 1);
    description.text[sizeof description.text - 1] = '\0';
    return description;
}
