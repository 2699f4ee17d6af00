#include "switch_conf.h"

#include <charconv>
#include <utility>
#include <vector>

#include "protocol.h"

namespace platform_linux
{
namespace
{
constexpr uint32_t SYSTEM_LAST = 255; // goes into circuit-ids as one byte

using Words = std::vector<std::string>;

// Each of the following gives an empty text, or what is wrong.

std::string take_number(std::string_view word, std::string_view what, uint32_t last, uint32_t &number)
{
    const auto [end, failure] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (failure != std::errc() || end != word.data() + word.size() || number == 0 || number > last)
        return std::string(what) + " " + conf_quoted(word) + " is not a number from 1 to " +
               std::to_string(last);
    return {};
}

std::string take_vlan(std::string_view word, uint16_t &vid)
{
    uint32_t number = 0;
    std::string error = take_number(word, "VLAN", VLAN_ID_MAX, number);
    vid = static_cast<uint16_t>(number);
    return error;
}

// "10,20,100-199"
std::string take_vlan_list(std::string_view list, VlanSet &vlans)
{
    for (size_t begin = 0; begin <= list.size();) {
        const size_t comma = std::min(list.find(',', begin), list.size());
        const std::string_view item = list.substr(begin, comma - begin);
        const size_t dash = item.find('-');
        uint16_t first = 0, last = 0;
        if (std::string error = take_vlan(item.substr(0, dash), first); !error.empty())
            return error;
        last = first;
        if (dash != std::string_view::npos)
            if (std::string error = take_vlan(item.substr(dash + 1), last); !error.empty())
                return error;
        if (last < first)
            return "VLAN range " + conf_quoted(item) + " runs backwards";
        for (uint16_t vid = first; vid <= last; vid++)
            vlans.set(vid);
        begin = comma + 1;
    }
    return {};
}

// What the kernel accepts as a device name.
std::string check_device(std::string_view name, const SwitchConf &conf)
{
    if (name.size() >= IFNAMSIZ)
        return conf_quoted(name) + " is longer than a device name can be (" + std::to_string(IFNAMSIZ - 1) +
               ")";
    if (name == "." || name == ".." || name.find_first_of("/:") != std::string_view::npos)
        return conf_quoted(name) + " is not a device name";
    for (char c : name)
        if (c <= ' ' || c > '~')
            return conf_quoted(name) + " is not a device name";
    if (conf.ports.contains(name))
        return conf_quoted(name) + " is a port already";
    if (conf.vlanInterfaces.contains(name))
        return conf_quoted(name) + " is a VLAN's interface already";
    return {};
}

std::string take_port(const Words &words, SwitchConf &conf)
{
    constexpr const char *USAGE =
        "expected: port NAME access VLAN, or port NAME trunk VLANS [native VLAN], or "
        "port NAME routed";
    if (words.size() < 3)
        return USAGE;
    if (std::string error = check_device(words[1], conf); !error.empty())
        return error;
    ConfPort port{};
    port.number = static_cast<uint32_t>(conf.ports.size() + 1);
    if (words[2] == "routed" && words.size() == 3) {
        port.routed = true;
    } else if (words[2] == "access" && words.size() == 4) {
        if (std::string error = take_vlan(words[3], port.nativeVid); !error.empty())
            return error;
    } else if (words[2] == "trunk" && (words.size() == 4 || (words.size() == 6 && words[4] == "native"))) {
        if (std::string error = take_vlan_list(words[3], port.tagged); !error.empty())
            return error;
        if (words.size() == 6)
            if (std::string error = take_vlan(words[5], port.nativeVid); !error.empty())
                return error;
        if (port.tagged[port.nativeVid])
            return "VLAN " + std::to_string(port.nativeVid) +
                   " is native and in the list: the list is of tagged VLANs only";
    } else {
        return USAGE;
    }
    conf.ports.emplace(words[1], port);
    return {};
}

std::string take_vlan_interface(const Words &words, SwitchConf &conf)
{
    if (words.size() != 4 || words[2] != "interface")
        return "expected: vlan VID interface NAME";
    uint16_t vid = 0;
    if (std::string error = take_vlan(words[1], vid); !error.empty())
        return error;
    if (std::string error = check_device(words[3], conf); !error.empty())
        return error;
    for (const auto &[name, other] : conf.vlanInterfaces)
        if (other == vid)
            return "VLAN " + std::to_string(vid) + " has the interface " + conf_quoted(name) + " already";
    conf.vlanInterfaces.emplace(words[3], vid);
    return {};
}

std::string take_role(const Words &words, SwitchConf &conf)
{
    if (words.size() == 2 && words[1] == "none")
        conf.role = DHCPSNOOP_ROLE_NONE;
    else if (words.size() == 2 && words[1] == "master")
        conf.role = DHCPSNOOP_ROLE_MASTER;
    else if (words.size() == 2 && words[1] == "slave")
        conf.role = DHCPSNOOP_ROLE_SLAVE;
    else
        return "expected: role none, role master or role slave";
    return {};
}

} // namespace

ConfReader switch_conf_reader(SwitchConf &conf)
{
    conf = {};
    return {[&conf, systemSeen = false, roleSeen = false](const ConfLine &line) mutable -> std::string {
        const Words &words = line.words;
        if (words[0] == "port")
            return take_port(words, conf);
        if (words[0] == "vlan")
            return take_vlan_interface(words, conf);
        if (words[0] == "system") {
            if (words.size() != 2)
                return "expected: system NUMBER";
            return std::exchange(systemSeen, true)
                       ? "the system number is set already"
                       : take_number(words[1], "system", SYSTEM_LAST, conf.system);
        }
        if (words[0] == "role")
            return std::exchange(roleSeen, true) ? "the role is set already" : take_role(words, conf);
        return conf_quoted(words[0]) + " is none of port, vlan, system and role";
    }};
}

bool switch_conf_parse(std::string_view name, std::string_view text, SwitchConf &conf, std::string &error)
{
    return conf_parse(name, text, switch_conf_reader(conf), error);
}

} // namespace platform_linux
