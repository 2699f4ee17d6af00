#include "binding_view.h"

#include <algorithm>
#include <functional>

#include "protocol.h"

namespace
{

constexpr Choice USER_TYPES[] = {
    {"dynamic",         DHCPSNOOP_USER_DYNAMIC},
    {"static",          DHCPSNOOP_USER_STATIC },
    {"ip-source-guard", DHCPSNOOP_USER_IPSG   }
};
constexpr Choice USER_STATES[] = {
    {"bound",     DHCPSNOOP_BIND_BOUND    },
    {"unbound",   DHCPSNOOP_BIND_UNBOUND  },
    {"created",   DHCPSNOOP_BIND_CREATED  },
    {"requested", DHCPSNOOP_BIND_REQUESTED}
};

std::string wordOf(std::span<const Choice> choices, uint32_t value)
{
    for (const Choice &choice : choices)
        if (choice.value == value)
            return choice.word;
    return std::to_string(value);
}

uint32_t valueOf(const std::string &what, std::span<const Choice> choices, const std::string &word)
{
    std::string words;
    for (const Choice &choice : choices) {
        if (word == choice.word)
            return choice.value;
        words += std::string(words.empty() ? "" : ", ") + choice.word;
    }
    throw UsageError(what + " must be one of " + words + ", not '" + word + "'");
}

struct Binding {
    UserKey key;
    uint32_t vlan, ifIndex, attribute, lease, elapsed, type, state;
    Bytes mac;
};

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

using BindingFilter = std::function<bool(const Binding &)>;

// All wanted bindings, or only that of one address. Each step of a list costs the daemon a walk over all
// bindings.
std::vector<Binding> readBindings(const Daemon &daemon, const BindingFilter &wanted,
                                  const std::optional<UserKey> &only = std::nullopt)
{
    std::vector<Binding> bindings;
    auto next = [&](const std::optional<UserKey> &last) {
        return only ? std::nullopt : nextUser(daemon, last);
    };
    for (std::optional<UserKey> key = only ? only : next({}); key; key = next(key))
        if (auto binding = ifStillThere([&] { return readBinding(daemon, *key); });
            binding && wanted(*binding))
            bindings.push_back(std::move(*binding));
    return bindings;
}

// The static bindings. The type is asked for first, because a switch has few of them among thousands.
std::vector<Binding> readStatics(const Daemon &daemon)
{
    std::vector<Binding> statics;
    for (std::optional<UserKey> key = nextUser(daemon, {}); key; key = nextUser(daemon, key)) {
        const Request type = {FUNC_USER_GET, USER_TYPE, *key};
        const std::string what = "binding " + userKeyText(*key);
        if (ifStillThere([&] { return daemon.demand(type, what).word(); }) != DHCPSNOOP_USER_STATIC)
            continue;
        if (auto binding = ifStillThere([&] { return readBinding(daemon, *key); });
            binding && binding->type == DHCPSNOOP_USER_STATIC)
            statics.push_back(std::move(*binding));
    }
    return statics;
}

bool hasMac(const Binding &binding)
{
    return std::any_of(binding.mac.begin(), binding.mac.end(), [](uint8_t byte) { return byte != 0; });
}

std::string leaseText(uint32_t seconds)
{
    return seconds == DHCPSNOOP_LEASE_FOREVER ? "forever" : std::to_string(seconds);
}

uint32_t leaseLeft(const Binding &binding)
{
    if (binding.lease == DHCPSNOOP_LEASE_FOREVER)
        return DHCPSNOOP_LEASE_FOREVER;
    return binding.lease - std::min(binding.elapsed, binding.lease);
}

Json bindingJson(const Binding &binding)
{
    Json out = {
        {"address",   userKeyText(binding.key)},
        {"mac",       nullptr                 },
        {"vlan",      nullptr                 },
        {"interface", nullptr                 },
        {"index",     nullptr                 }
    };
    if (hasMac(binding))
        out["mac"] = macText(binding.mac);
    if (binding.vlan != 0)
        out["vlan"] = binding.vlan;
    if (binding.ifIndex != 0) {
        out["interface"] = interfaceText(binding.ifIndex);
        out["index"] = binding.ifIndex;
    }
    out["type"] = wordOf(USER_TYPES, binding.type);
    out["state"] = wordOf(USER_STATES, binding.state);
    out["lease"] = nullptr; // never ends
    out["left"] = nullptr;
    if (binding.lease != DHCPSNOOP_LEASE_FOREVER) {
        out["lease"] = binding.lease;
        out["left"] = leaseLeft(binding);
    }
    out["elapsed"] = binding.elapsed;
    out["attribute"] = binding.attribute;
    return out;
}

BindingFilter parseFilter(const std::string &name, const std::string &word)
{
    if (name == "interface" || name == "port")
        return [index = parseInterface(word)](const Binding &b) { return b.ifIndex == index; };
    if (name == "vlan")
        return [vlan = parseRange("vlan", word, VLAN_ID_MIN, VLAN_ID_MAX)](const Binding &b) {
            return b.vlan == vlan;
        };
    if (name == "mac")
        return [mac = parseMac(word)](const Binding &b) {
            return std::equal(mac.begin(), mac.end(), b.mac.begin(), b.mac.end());
        };
    if (name == "type")
        return [type = valueOf("type", USER_TYPES, word)](const Binding &b) { return b.type == type; };
    if (name == "state")
        return [state = valueOf("state", USER_STATES, word)](const Binding &b) { return b.state == state; };
    throw UsageError("bindings cannot be chosen by '" + name + "'");
}

// "binding add" puts only a complete binding in force. An incomplete binding in force takes a "binding bind"
// as well.
void bindingCommands(const Binding &binding, std::vector<Words> &lines)
{
    const bool bound = binding.state == DHCPSNOOP_BIND_BOUND;
    const bool whole = hasMac(binding) && binding.vlan != 0 && binding.ifIndex != 0;
    Words line = {"binding", "add", userKeyText(binding.key)};
    auto add = [&](const char *key, const std::string &word) { line.insert(line.end(), {key, word}); };
    if (hasMac(binding))
        add("mac", macText(binding.mac));
    if (binding.vlan != 0)
        add("vlan", std::to_string(binding.vlan));
    if (binding.ifIndex != 0)
        add("interface", interfaceText(binding.ifIndex));
    if (binding.attribute != 0)
        add("attribute", std::to_string(binding.attribute));
    if (!bound || !whole)
        line.push_back("unbound");
    lines.push_back(line);
    if (bound && !whole)
        lines.push_back({"binding", "bind", userKeyText(binding.key)});
}

} // namespace

void staticCommands(const Daemon &daemon, std::vector<Words> &lines)
{
    for (const Binding &binding : readStatics(daemon))
        bindingCommands(binding, lines);
}

std::vector<UserKey> staticsInForce(const Daemon &daemon)
{
    std::vector<UserKey> keys;
    for (const Binding &binding : readStatics(daemon))
        if (binding.state == DHCPSNOOP_BIND_BOUND)
            keys.push_back(binding.key);
    return keys;
}

bool isThereAlready(const Words &bindingAdd, const Daemon &daemon)
{
    std::vector<Words> lines;
    const auto isStatic = [](const Binding &binding) { return binding.type == DHCPSNOOP_USER_STATIC; };
    if (bindingAdd.size() > 2 && bindingAdd[0] == "binding")
        for (const Binding &binding : readBindings(daemon, isStatic, parseUserKey(bindingAdd[2])))
            bindingCommands(binding, lines);
    return !lines.empty() && lines[0] == bindingAdd;
}

ExitStatus showBindings(const Context &context, std::span<const std::string> arguments)
{
    if (arguments.size() % 2 != 0)
        throw UsageError("show bindings: '" + arguments.back() + "' lacks its value");
    std::vector<BindingFilter> filters;
    std::optional<UserKey> only;
    for (size_t i = 0; i < arguments.size(); i += 2) {
        if (arguments[i] == "address")
            only = parseUserKey(arguments[i + 1]);
        else
            filters.push_back(parseFilter(arguments[i], arguments[i + 1]));
    }
    auto wanted = [&](const Binding &binding) {
        return std::all_of(filters.begin(), filters.end(),
                           [&](const BindingFilter &filter) { return filter(binding); });
    };
    std::vector<Binding> bindings = readBindings(context.daemon, wanted, only);
    Json list = Json::array();
    std::vector<Words> rows = {
        {"ADDRESS", "MAC", "VLAN", "INTERFACE", "TYPE", "STATE", "LEASE", "LEFT"}
    };
    for (const Binding &binding : bindings) {
        list.push_back(bindingJson(binding));
        rows.push_back({userKeyText(binding.key), hasMac(binding) ? macText(binding.mac) : "",
                        binding.vlan ? std::to_string(binding.vlan) : "",
                        binding.ifIndex ? interfaceText(binding.ifIndex) : "",
                        wordOf(USER_TYPES, binding.type), wordOf(USER_STATES, binding.state),
                        leaseText(binding.lease), leaseText(leaseLeft(binding))});
    }
    return print(context, list, rows);
}
