#include "switch_conf.h"

#include <charconv>
#include <vector>

namespace platform_linux
{
namespace
{
constexpr uint32_t VLAN_LAST = 4094;
constexpr uint32_t SYSTEM_LAST = 255; // goes into circuit-ids as one byte
constexpr std::string_view BLANKS = " \t\r";

using Words = std::vector<std::string_view>;

std::string quoted(std::string_view word)
{
    std::string text = "'";
    for (char c : word)
        text += c >= ' ' && c <= '~' ? c : '?';
    return text + "'";
}

Words split(std::string_view line)
{
    Words words;
    line = line.substr(0, line.find('#'));
    for (size_t begin = line.find_first_not_of(BLANKS); begin != std::string_view::npos;) {
        const size_t end = line.find_first_of(BLANKS, begin);
        words.push_back(line.substr(begin, end == std::string_view::npos ? end : end - begin));
        begin = line.find_first_not_of(BLANKS, end);
    }
    return words;
}

// Each of the following gives an empty text, or what is wrong.

std::string take_number(std::string_view word, std::string_view what, uint32_t last, uint32_t &number)
{
    const auto [end, failure] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (failure != std::errc() || end != word.data() + word.size() || number == 0 || number > last)
        return std::string(what) + " " + quoted(word) + " is not a number from 1 to " + std::to_string(last);
    return {};
}

std::string take_vlan(std::string_view word, uint16_t &vid)
{
    uint32_t number = 0;
    std::string error = take_number(word, "VLAN", VLAN_LAST, number);
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
            return "VLAN range " + quoted(item) + " runs backwards";
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
        return quoted(name) + " is longer than a device name can be (" + std::to_string(IFNAMSIZ - 1) + ")";
    if (name == "." || name == ".." || name.find_first_of("/:") != std::string_view::npos)
        return quoted(name) + " is not a device name";
    for (char c : name)
        if (c <= ' ' || c > '~')
            return quoted(name) + " is not a device name";
    if (conf.ports.contains(name))
        return quoted(name) + " is a port already";
    if (conf.vlanInterfaces.contains(name))
        return quoted(name) + " is a VLAN's interface already";
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
        return "expected: vlan VLAN interface NAME";
    uint16_t vid = 0;
    if (std::string error = take_vlan(words[1], vid); !error.empty())
        return error;
    if (std::string error = check_device(words[3], conf); !error.empty())
        return error;
    for (const auto &[name, other] : conf.vlanInterfaces)
        if (other == vid)
            return "VLAN " + std::to_string(vid) + " has the interface " + quoted(name) + " already";
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

bool switch_conf_parse(std::string_view name, std::string_view text, SwitchConf &conf, std::string &error)
{
    conf = {};
    bool systemSeen = false, roleSeen = false;
    uint32_t line = 0;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const Words words = split(text.substr(begin, end - begin));
        begin = end + 1;
        line++;
        if (words.empty())
            continue;
        std::string wrong;
        if (words[0] == "port") {
            wrong = take_port(words, conf);
        } else if (words[0] == "vlan") {
            wrong = take_vlan_interface(words, conf);
        } else if (words[0] == "system") {
            if (words.size() != 2)
                wrong = "expected: system NUMBER";
            else
                wrong = systemSeen ? "the system number is set already"
                                   : take_number(words[1], "system", SYSTEM_LAST, conf.system);
            systemSeen = true;
        } else if (words[0] == "role") {
            wrong = roleSeen ? "the role is set already" : take_role(words, conf);
            roleSeen = true;
        } else {
            wrong = quoted(words[0]) + " is none of port, vlan, system and role";
        }
        if (!wrong.empty()) {
            error = std::string(name) + ":" + std::to_string(line) + ": " + wrong;
            return false;
        }
    }
    return true;
}

ConfFile switch_conf_read(const char *path, SwitchConf &conf, std::string &error)
{
    std::string text;
    const ConfFile file = conf_file_read(path, text, error);
    if (file != ConfFile::read)
        return file;
    return switch_conf_parse(path, text, conf, error) ? ConfFile::read : ConfFile::wrong;
}

} // namespace platform_linux
