#include "config.h"

#include <algorithm>
#include <cstdlib>
#include <set>

#include "protection.h"
#include "protocol.h"

namespace platform_linux
{
namespace
{

using Rest = std::span<const std::string>;

// Each of the following takes a line; a wrong one is thrown as UsageError.

HostRole host_role(const std::string &word)
{
    for (const auto &[role, name] : HOST_ROLES)
        if (word == name)
            return role;
    throw UsageError("the host is server, client or relay, not '" + word + "'");
}

void take_bridge(uint32_t line, Rest words, Config &config)
{
    constexpr const char *EXPECTED = "expected: bridge NAME [uplink PORTS] [host server|client|relay ...] "
                                     "[guard ITEMS [family 4|6|both]]";
    if (words.empty())
        throw UsageError(EXPECTED);
    BridgeLine bridge = {line, Selector(words[0]).single(), {}, 0, {}};
    if (bridge.bridge.empty())
        throw UsageError("bridge takes one name, not '" + words[0] + "'");
    words = words.subspan(1);
    if (!words.empty() && words[0] == "uplink") {
        if (words.size() < 2)
            throw UsageError(EXPECTED);
        bridge.uplink = Selector(words[1]);
        words = words.subspan(2);
    }
    if (!words.empty() && words[0] == "host") {
        for (words = words.subspan(1); !words.empty() && words[0] != "guard"; words = words.subspan(1))
            bridge.host = static_cast<uint8_t>(bridge.host | host_role(words[0]));
        if (bridge.host == 0)
            throw UsageError(EXPECTED);
        config.model.hosts.insert(bridge.bridge);
    }
    if (!words.empty() && words[0] == "guard") {
        bridge.guard = parse_guard(words.subspan(1));
        if (bridge.guard->ip == GUARD_EXEMPT)
            throw UsageError("only ports can be exempt, not a bridge");
    } else if (!words.empty()) {
        throw UsageError(EXPECTED);
    }
    config.bridges.push_back(bridge);
}

const Setting &setting_of(const Scope &scope, const std::string &word, const char *whose)
{
    const Setting *setting = findSetting(scope, word);
    if (setting == nullptr || !canBeSet(*setting) || setting->kind == Kind::Clear)
        throw UsageError("there is no setting '" + word + "' of " + whose);
    return *setting;
}

void take_interface(uint32_t line, Rest words, Config &config)
{
    if (words.size() < 3)
        throw UsageError("expected: interface PORTS SETTING VALUE");
    PortLine port = {line, Selector(words[0]), &setting_of(INTERFACE_SCOPE, words[1], "an interface")};
    Rest values = words.subspan(2);
    if (port.setting->kind != Kind::Servers) {
        port.value = parseValue(*port.setting, values);
    } else {
        if (values.size() == 2 && values[1] == "add")
            values = values.first(1);
        if (values.size() != 1)
            throw UsageError("expected: interface PORTS relay-server ADDRESS|none");
        port.server = values[0] == "none" ? 0 : parseIpv4(values[0]);
        if (port.server == 0u && values[0] != "none")
            throw UsageError("0.0.0.0 is no server");
    }
    config.ports.push_back(port);
}

uint16_t vlan_id(const std::string &word)
{
    return static_cast<uint16_t>(parseRange("VLAN", word, VLAN_ID_MIN, VLAN_ID_MAX));
}

void take_vlan(uint32_t line, Rest words, Config &config)
{
    if (words.size() < 3)
        throw UsageError("expected: vlan VID SETTING VALUE, or vlan VID interface NAME");
    VlanLine vlan = {line, vlan_id(words[0]), &setting_of(VLAN_SCOPE, words[1], "a VLAN")};
    vlan.value = parseValue(*vlan.setting, words.subspan(2));
    config.vlans.push_back(vlan);
}

// "guard" sets both features, "arp-inspection" one.
void take_guard(uint32_t line, Rest words, bool arpOnly, Config &config)
{
    if (words.size() < 3 || (words[0] != "interface" && words[0] != "vlan"))
        throw UsageError(std::string("expected: ") + (arpOnly ? "arp-inspection" : "guard") +
                         " interface PORTS ITEMS, or vlan VID ITEMS");
    std::optional<GuardWords> guard;
    std::optional<uint8_t> arp;
    if (arpOnly)
        arp = parse_items(words.subspan(2));
    else
        guard = parse_guard(words.subspan(2));
    if (words[0] == "interface") {
        config.ports.push_back({line, Selector(words[1]), nullptr, {}, {}, guard, arp});
        return;
    }
    if (arp == GUARD_EXEMPT || (guard && guard->ip == GUARD_EXEMPT))
        throw UsageError("only ports can be exempt, not a VLAN");
    config.vlans.push_back({line, vlan_id(words[1]), nullptr, {}, guard, arp});
}

void take_binding(uint32_t line, Rest words, Config &config)
{
    if (!words.empty() && words[0] == "add")
        words = words.subspan(1);
    const StaticBinding binding = parseBinding(words);
    if (const auto [other, isNew] = config.lineOfBinding.try_emplace(binding.key, line); !isNew)
        throw UsageError("line " + std::to_string(other->second) + " binds that address already");
    config.bindingLines.push_back({line, binding});
}

uint16_t take_room(const std::string &what, Rest words)
{
    if (words.size() != 1)
        throw UsageError("expected: " + what + " NUMBER");
    return static_cast<uint16_t>(parseRange(what, words[0], 1, ROOM_MAX));
}

void take_protection(uint32_t line, Rest words, Config &config)
{
    const auto is = [&words](bool isStrict) {
        return words.size() == 1 && words[0] == protection_word(isStrict);
    };
    if (!is(true) && !is(false))
        throw UsageError("expected: protection strict|as-asked");
    config.protectionIsStrict = is(true);
    config.protectionLine = line;
}

constexpr const char *MODEL_WORDS[] = {"port", "system", "role"};
constexpr const char *REDUNDANCY_WORDS[] = {"listen",    "connect", "certificate", "key",
                                            "authority", "peer",    "journal"};

bool is_one_of(std::span<const char *const> words, const std::string &word)
{
    return std::ranges::find(words, word) != words.end();
}

void take_line(const ConfLine &conf, Config &config)
{
    const std::string &word = conf.words[0];
    const Rest rest = Rest(conf.words).subspan(1);
    if (word == "bridge")
        take_bridge(conf.number, rest, config);
    else if (word == "interface")
        take_interface(conf.number, rest, config);
    else if (word == "vlan")
        take_vlan(conf.number, rest, config);
    else if (word == "guard" || word == "arp-inspection")
        take_guard(conf.number, rest, word == "arp-inspection", config);
    else if (word == "binding")
        take_binding(conf.number, rest, config);
    else if (word == "bindings")
        config.bindings = take_room(word, rest);
    else if (word == "interfaces")
        config.interfaces = take_room(word, rest);
    else if (word == "protection")
        take_protection(conf.number, rest, config);
    else if (const Setting *setting = findSetting(GLOBAL_SCOPE, word);
             setting != nullptr && canBeSet(*setting) && setting->kind != Kind::Clear)
        config.globals.push_back({conf.number, setting, parseValue(*setting, rest)});
    else
        throw UsageError(conf_quoted(word) +
                         " begins no line of the configuration (bridge, interface, vlan, guard, "
                         "arp-inspection, binding, bindings, interfaces, server-learning, …)");
}

} // namespace

uint8_t Config::host_roles(const std::string &bridge) const
{
    uint8_t roles = 0;
    for (const BridgeLine &line : bridges)
        if (line.bridge == bridge)
            roles = static_cast<uint8_t>(roles | line.host);
    return roles;
}

bool Config::protects(const std::string &bridge) const
{
    return std::ranges::find(bridges, bridge, &BridgeLine::bridge) != bridges.end();
}

bool config_parse(std::string_view name, std::string_view text, Config &config, std::string &error)
{
    config = {};
    config.name = name;
    const ConfReader model = switch_conf_reader(config.model),
                     redundancy = redundancy_conf_reader(config.redundancy);
    const auto line = [&](const ConfLine &conf) -> std::string {
        const std::string &word = conf.words[0];
        if (is_one_of(MODEL_WORDS, word) ||
            (word == "vlan" && conf.words.size() > 2 && conf.words[2] == "interface"))
            return model.line(conf);
        if (is_one_of(REDUNDANCY_WORDS, word))
            return redundancy.line(conf);
        try {
            take_line(conf, config);
        } catch (const CtlError &wrong) {
            return wrong.what();
        }
        return {};
    };
    return conf_parse(name, text, {line, redundancy.end}, error);
}

std::string config_path(const std::string &directory)
{
    const char *named = getenv(CONFIG_DIRECTORY_ENV);
    const std::string where = !directory.empty()                ? directory
                              : named != nullptr && *named != 0 ? named
                                                                : CONFIG_DIRECTORY;
    return where + "/" + CONFIG_NAME;
}

const char *platform_socket_path()
{
    const char *named = getenv(DHCPSNOOP_PLATFORM_SOCKET_ENV);
    return named != nullptr && *named != 0 ? named : DHCPSNOOP_PLATFORM_SOCKET_PATH;
}

std::string config_runtime(const char *what) { return std::string(platform_socket_path()) + "." + what; }

} // namespace platform_linux
