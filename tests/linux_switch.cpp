#include "linux_switch.h"

#include <cstring>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sstream>

using namespace platform_linux;

namespace
{
// clang-format off
enum Form { NEST, BYTE = 1, SHORT = 2, LONG = 4, TEXT, HEX, VLAN };
const struct { const char *word; uint16_t type; Form form; } ATTRIBUTES[] = {
    {"name", IFLA_IFNAME, TEXT}, {"in", IFLA_MASTER, LONG}, {"below", IFLA_LINK, LONG}, {"mac", IFLA_ADDRESS, HEX}, {"wireless", IFLA_WIRELESS, TEXT}, {"portname", IFLA_PHYS_PORT_NAME, TEXT}, {"names", IFLA_PROP_LIST, NEST},
    {"info", IFLA_LINKINFO, NEST}, {"kind", IFLA_INFO_KIND, TEXT}, {"slave", IFLA_INFO_SLAVE_KIND, TEXT}, {"slavedata", IFLA_INFO_SLAVE_DATA, NEST}, {"data", IFLA_INFO_DATA, NEST}, {"vid", IFLA_VLAN_ID, SHORT}, {"altname", IFLA_ALT_IFNAME, TEXT},
    {"filter", IFLA_BR_VLAN_FILTERING, BYTE}, {"tpid", IFLA_BR_VLAN_PROTOCOL, HEX}, {"default", IFLA_BR_VLAN_DEFAULT_PVID, SHORT}, {"protinfo", IFLA_PROTINFO | NLA_F_NESTED, NEST}, {"state", IFLA_BRPORT_STATE, BYTE}, {"number", IFLA_BRPORT_NO, SHORT},
    {"spec", IFLA_AF_SPEC, NEST}, {"vlan", IFLA_BRIDGE_VLAN_INFO, VLAN},
};
// clang-format on

Bytes raw(uint32_t number, size_t size)
{
    Bytes bytes(size);
    memcpy(bytes.data(), &number, std::min(size, sizeof number));
    return bytes;
}

Bytes attributes(std::istream &words); // up to the end or a "}"

Bytes value_of(Form form, const std::string &text, std::istream &words)
{
    if (form == TEXT || form == HEX)
        return form == HEX ? hex_bytes(text) : text_bytes(text) + Bytes(1);
    if (form == NEST)
        return attributes(words);
    uint32_t flags = 0; // BRIDGE_VLAN_INFO_*
    for (const char letter : text)
        if (const size_t bit = std::string_view("?pube").find(letter); form == VLAN && bit != std::string_view::npos)
            flags |= 1u << bit;
    const auto number = static_cast<uint32_t>(std::stoul(text));
    return form == VLAN ? raw(flags, 2) + raw(number, 2) : raw(number, form);
}

Bytes attributes(std::istream &words)
{
    Bytes bytes;
    for (std::string word; words >> word && word != "}"; bytes.resize((bytes.size() + 3) / 4 * 4))
        for (const auto &[name, type, form] : ATTRIBUTES)
            if (const size_t split = word.find_first_of("={"); word.substr(0, split) == name) {
                const Bytes value = value_of(form, word.substr(split + 1), words);
                bytes = bytes + raw(static_cast<uint32_t>(4 + value.size()), 2) + raw(type, 2) + value;
            }
    return bytes;
}

std::string list(const VlanSet &vlans)
{
    std::string text;
    const auto is_in = [&vlans](size_t vid) { return vid < vlans.size() && vlans[vid]; };
    for (size_t vid = 0; vid < vlans.size(); vid++)
        if (is_in(vid) && !(is_in(vid - 1) && is_in(vid + 1)))
            text += std::string(is_in(vid - 1) ? "-" : ",") + std::to_string(vid);
    return text.substr(text.empty() ? 0 : 1);
}
} // namespace

Bytes link_message(const std::string &text)
{
    std::istringstream words(text);
    std::string kind;
    uint32_t ifIndex = 0;
    words >> kind >> ifIndex;
    const size_t at = text.find("flags=");
    const auto flags = at == std::string::npos ? 0x10003u : static_cast<uint32_t>(std::stoul(text.substr(at + 6), nullptr, 16));
    const Bytes rest = attributes(words);
    const Bytes length = raw(static_cast<uint32_t>(32 + rest.size()), 4);
    const Bytes type = raw(kind == "new" || kind == "port" ? RTM_NEWLINK : RTM_DELLINK, 12);
    const Bytes family = raw(kind == "port" || kind == "left" ? AF_BRIDGE : AF_UNSPEC, 4);
    return length + type + family + raw(ifIndex, 4) + raw(flags, 8) + rest;
}

std::string describe(const Port &port)
{
    constexpr const char *STATES[] = {" disabled", " listening", " learning", " forwarding", " blocking"};
    std::string text = port.name + ("#" + std::to_string(port.number));
    if (port.kind == PortKind::vlanInterface)
        text += " =" + std::to_string(port.vlan);
    else if (!port.routed)
        text += " " + std::to_string(port.nativeVid) + " t" + list(port.members & ~port.untagged) + " u" + list(port.untagged);
    text += std::string(port.routed ? " routed" : "") + (port.kind == PortKind::aggregate ? " aggregate" : port.kind == PortKind::host ? " host"
                                                                                                                                       : "");
    text += port.up ? " up" : " down";
    text += STATES[static_cast<size_t>(port.stp)] + std::string(port.tpid != 0x8100 ? " 88a8" : "");
    return text + (port.aggregate != 0 ? " in " + std::to_string(port.aggregate) : "");
}

std::string describe(const std::map<uint32_t, Port> &ports)
{
    std::string text;
    for (const auto &[ifIndex, port] : ports)
        text += (text.empty() ? "" : "; ") + describe(port);
    return text;
}

std::string describe(const DaemonEvents &events)
{
    const std::map<uint32_t, std::string> attributes = {{0x260008, " joined"}, {0x340008, " + "}, {0x350008, " - "}};
    std::string text;
    for (const DaemonEvent &event : events) {
        uint32_t words[10] = {}; // length, type, …, 4: of the guard's a port and items, 5: of a link its index, …, 8: attribute, its value
        memcpy(words, event.bytes.data(), event.length);
        const std::string type = std::to_string(words[1]), link = std::to_string(words[5]);
        if (type == "16" && event.length == 40 && attributes.count(words[8]) != 0)
            text += link + attributes.at(words[8]) + (words[8] == 0x260008 ? "" : std::to_string(words[9]));
        else if (type == "17" && event.length == 32)
            text += link + " gone";
        else
            text += (words[1] < 100 ? "unknown " : "") + type + (event.length == 16 ? "" : " " + std::to_string(words[4]) + ":" + hex({event.bytes[20]}));
        text += words[0] == event.length ? ", " : " unknown, ";
    }
    return text;
}
