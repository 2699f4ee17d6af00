#include "binding_view.h"

#include <algorithm>
#include <ostream>

namespace
{

uint32_t leaseLeft(const Binding &binding)
{
    if (binding.lease == DHCPSNOOP_LEASE_FOREVER)
        return DHCPSNOOP_LEASE_FOREVER;
    return binding.lease - std::min(binding.elapsed, binding.lease);
}

const std::string &portOf(const Binding &binding, const AwayPorts &away, PortNames &names)
{
    return binding.state == STATE_WAITING ? away.at(userKeyText(binding.key)) : names.of(binding.ifIndex);
}

Json bindingJson(const Binding &binding, const std::string &port)
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
    if (!port.empty())
        out["interface"] = port;
    if (binding.ifIndex != 0)
        out["index"] = binding.ifIndex;
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

// "312 bindings: 300 IPv4, 12 IPv6; 290 dynamic, 22 static; 2 not bound".
std::string totalsText(const std::vector<Binding> &bindings)
{
    const auto count = [&](auto wanted) { return std::to_string(std::ranges::count_if(bindings, wanted)); };
    return std::to_string(bindings.size()) + (bindings.size() == 1 ? " binding: " : " bindings: ") +
           count([](const Binding &b) { return b.key.ipType == DHCPSNOOP_IPV4; }) + " IPv4, " +
           count([](const Binding &b) { return b.key.ipType == DHCPSNOOP_IPV6; }) + " IPv6; " +
           count([](const Binding &b) { return b.type == DHCPSNOOP_USER_DYNAMIC; }) + " dynamic, " +
           count([](const Binding &b) { return b.type == DHCPSNOOP_USER_STATIC; }) + " static; " +
           count([](const Binding &b) { return b.state != DHCPSNOOP_BIND_BOUND; }) + " not bound";
}

ExitStatus printCount(const Context &context, size_t count)
{
    if (context.json)
        printJson(context, Json{
                               {"count", count}
        });
    else
        context.out << count << '\n';
    return EXIT_DONE;
}

} // namespace

AwayPorts addWaiting(const std::vector<WaitingBinding> &waiting, std::vector<Binding> &bindings)
{
    if (waiting.empty())
        return {};
    AwayPorts ports;
    for (const WaitingBinding &other : waiting)
        ports.emplace(userKeyText(other.binding.key), other.interface);
    std::erase_if(bindings, [&](const Binding &binding) { return ports.contains(userKeyText(binding.key)); });
    for (const WaitingBinding &other : waiting) {
        bindings.push_back(other.binding);
        bindings.back().state = STATE_WAITING;
    }
    return ports;
}

std::string wordOf(std::span<const Choice> choices, uint32_t value)
{
    for (const Choice &choice : choices)
        if (choice.value == value)
            return choice.word;
    return std::to_string(value);
}

std::string leaseText(uint32_t seconds)
{
    if (seconds == DHCPSNOOP_LEASE_FOREVER)
        return "forever";
    constexpr std::pair<uint32_t, char> UNITS[] = {
        {86400, 'd'},
        {3600,  'h'},
        {60,    'm'},
        {1,     's'}
    };
    const auto *unit = UNITS;
    while (seconds < unit->first && unit->first > 1)
        unit++;
    std::string text = std::to_string(seconds / unit->first) + unit->second;
    const uint32_t rest = seconds % unit->first;
    if (unit->first > 1 && rest >= unit[1].first)
        text += std::to_string(rest / unit[1].first) + unit[1].second;
    return text;
}

std::vector<Binding> readBindings(const Daemon &daemon, const BindingFilter &wanted)
{
    if (auto all = readSnapshot(wanted))
        return *std::move(all);
    std::vector<Binding> bindings;
    for (auto key = nextUser(daemon, {}); key; key = nextUser(daemon, key))
        if (auto binding = ifStillThere([&] { return readBinding(daemon, *key); }))
            bindings.push_back(*std::move(binding));
    return bindings;
}

std::vector<Binding> readStatics(const Daemon &daemon)
{
    std::vector<Binding> statics = readBindings(daemon);
    std::erase_if(statics, [](const Binding &binding) { return binding.type != DHCPSNOOP_USER_STATIC; });
    return statics;
}

ExitStatus showBindings(const Context &context, std::span<const std::string> arguments)
{
    Words words(arguments.begin(), arguments.end());
    const bool onlyCounts = std::erase(words, "--count") > 0;
    const BindingFilter wanted(words);
    const std::vector<WaitingBinding> waiting = readWaiting(); // first: a port that comes back now loses none
    for (const std::string &name : wanted.names())
        if (std::ranges::find(waiting, name, &WaitingBinding::interface) == waiting.end())
            parseInterface(name); // throws where there is none
    std::vector<Binding> bindings;
    if (onlyCounts && waiting.empty() && !wanted.address())
        if (const auto count = countSnapshot(wanted))
            return printCount(context, *count);
    if (!wanted.address())
        bindings = readBindings(context.daemon, wanted);
    else if (auto binding = ifStillThere([&] { return readBinding(context.daemon, *wanted.address()); }))
        bindings.push_back(*std::move(binding));
    const AwayPorts away = addWaiting(waiting, bindings);
    PortNames names;
    std::erase_if(bindings,
                  [&](const Binding &binding) { return !wanted(binding, portOf(binding, away, names)); });
    if (onlyCounts)
        return printCount(context, bindings.size());
    Json list = Json::array();
    std::vector<Words> rows = {
        {"ADDRESS", "MAC", "VLAN", "INTERFACE", "TYPE", "STATE", "LEASE", "LEFT"}
    };
    for (const Binding &binding : bindings) {
        const std::string port = portOf(binding, away, names);
        if (context.json)
            list.push_back(bindingJson(binding, port));
        else
            rows.push_back({userKeyText(binding.key), hasMac(binding) ? macText(binding.mac) : "",
                            binding.vlan ? std::to_string(binding.vlan) : "", port,
                            wordOf(USER_TYPES, binding.type), wordOf(USER_STATES, binding.state),
                            leaseText(binding.lease), leaseText(leaseLeft(binding))});
    }
    const ExitStatus status = print(context, list, rows, "no bindings");
    if (context.terminal && !context.json && !bindings.empty())
        context.out << '\n' << totalsText(bindings) << '\n';
    return status;
}
