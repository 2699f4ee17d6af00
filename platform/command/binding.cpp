#include "binding.h"

#include <algorithm>

#include "protocol.h"

namespace
{

bool isHostAddress(const UserKey &key)
{
    const auto &ip = key.ipAddr;
    if (key.ipType == DHCPSNOOP_IPV4)
        return ip[0] != 0 && ip[0] != 127 && ip[0] < 224;
    const bool small = std::all_of(ip.begin(), ip.end() - 1, [](uint8_t byte) { return byte == 0; });
    return ip[0] != 0xFF && !(small && ip[15] <= 1);
}

bool isHostMac(const std::array<uint8_t, 6> &mac)
{
    return (mac[0] & 1) == 0 && std::any_of(mac.begin(), mac.end(), [](uint8_t byte) { return byte != 0; });
}

} // namespace

StaticBinding parseBinding(std::span<const std::string> words)
{
    if (words.empty())
        throw UsageError("binding: which address?");
    StaticBinding binding = {parseUserKey(words[0]), {}, 0, "", 0, true};
    if (!isHostAddress(binding.key))
        throw UsageError("binding: no host has the address " + words[0]);
    for (size_t i = 1; i < words.size(); i++) {
        const std::string &name = words[i];
        if (name == "unbound") {
            binding.bound = false;
            continue;
        }
        if (++i == words.size())
            throw UsageError("binding: '" + name + "' lacks its value");
        if (name == "mac")
            binding.mac = parseMac(words[i]);
        else if (name == "vlan")
            binding.vlan = parseRange("vlan", words[i], VLAN_ID_MIN, VLAN_ID_MAX);
        else if (name == "interface")
            binding.interface = words[i];
        else if (name == "attribute")
            binding.attribute = parseRange("attribute", words[i], 0, 65535);
        else
            throw UsageError("binding does not take '" + name + "'");
    }
    if (binding.mac && !isHostMac(*binding.mac))
        throw UsageError("binding: no host has the MAC address " +
                         macText({binding.mac->begin(), binding.mac->end()}));
    if (binding.bound && (!binding.mac || binding.vlan == 0 || binding.interface.empty()))
        throw UsageError("binding: mac, vlan and interface are needed, or unbound");
    return binding;
}

Words bindingWords(const StaticBinding &binding)
{
    Words words = {userKeyText(binding.key)};
    const auto add = [&](const char *name, const std::string &value) {
        words.insert(words.end(), {name, value});
    };
    if (binding.mac)
        add("mac", macText({binding.mac->begin(), binding.mac->end()}));
    if (binding.vlan != 0)
        add("vlan", std::to_string(binding.vlan));
    if (!binding.interface.empty())
        add("interface", binding.interface);
    if (binding.attribute != 0)
        add("attribute", std::to_string(binding.attribute));
    if (!binding.bound)
        words.push_back("unbound");
    return words;
}

bool hasMac(const Binding &binding)
{
    return std::any_of(binding.mac.begin(), binding.mac.end(), [](uint8_t byte) { return byte != 0; });
}

Binding readBinding(const Daemon &daemon, const UserKey &key)
{
    std::string what = "binding " + userKeyText(key);
    auto get = [&](uint32_t cmd) { return daemon.demand({FUNC_USER_GET, cmd, key}, what).word(); };
    Binding binding = {key,
                       get(USER_VLAN),
                       get(USER_INTERFACE),
                       get(USER_ATTR),
                       get(USER_LEASE),
                       get(USER_ELAPSED),
                       get(USER_TYPE),
                       get(USER_ACTION),
                       daemon.demand({FUNC_USER_GET, USER_MAC, key, Bytes(6)}, what).bytes()};
    if (binding.mac.size() != 6)
        throw NoDaemon("malformed reply: a MAC address of " + std::to_string(binding.mac.size()) + " bytes");
    return binding;
}

StaticBinding asStatic(const Binding &binding)
{
    StaticBinding out = {binding.key, {}, binding.vlan, "", binding.attribute, false};
    if (hasMac(binding))
        std::copy(binding.mac.begin(), binding.mac.end(), out.mac.emplace().begin());
    if (binding.ifIndex != 0)
        out.interface = interfaceText(binding.ifIndex);
    const bool whole = out.mac && out.vlan != 0 && !out.interface.empty();
    out.bound = whole && binding.state == DHCPSNOOP_BIND_BOUND;
    return out;
}

void addBinding(const Daemon &daemon, const StaticBinding &binding)
{
    const uint32_t ifIndex = binding.interface.empty() ? 0 : parseInterface(binding.interface);
    const auto set = [&](uint32_t cmd, std::variant<uint32_t, Bytes> value) {
        daemon.demand({FUNC_USER_SET, cmd, binding.key, std::move(value)},
                      "binding " + userKeyText(binding.key));
    };
    set(USER_ACTION, USER_ACTION_CREATE);
    try {
        if (binding.mac)
            set(USER_MAC, Bytes(binding.mac->begin(), binding.mac->end()));
        if (binding.vlan != 0)
            set(USER_VLAN, binding.vlan);
        if (ifIndex != 0)
            set(USER_INTERFACE, ifIndex);
        if (binding.attribute != 0)
            set(USER_ATTR, binding.attribute);
        if (binding.bound)
            set(USER_ACTION, USER_ACTION_BIND);
    } catch (const CtlError &) {
        try {
            deleteBinding(daemon, binding.key);
        } catch (const CtlError &) { // the first failure is the one to tell
        }
        throw;
    }
}

void deleteBinding(const Daemon &daemon, const UserKey &key)
{
    daemon.demand({FUNC_USER_SET, USER_ACTION, key, USER_ACTION_DELETE}, "binding " + userKeyText(key));
}
