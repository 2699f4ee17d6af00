#include "reconcile.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>

#include "listing.h"

namespace platform_linux
{
namespace
{

Words line_of(const Words &target, const char *name, const Words &values)
{
    Words line = target;
    line.emplace_back(name);
    line.insert(line.end(), values.begin(), values.end());
    return line;
}

// Notes a difference, and makes it go by `change`, whose refusal is kept.
template <class Change> void note(Differences &found, Difference difference, Make make, Change change)
{
    if (make == Make::yes) {
        try {
            change();
        } catch (const Refusal &error) {
            difference.error = error.what();
            difference.noRoom = error.code == NM_NO_MEMORY;
        } catch (const CtlError &error) {
            difference.error = error.what();
        }
    }
    found.push_back(std::move(difference));
}

uint32_t running_switch(const Daemon &daemon, const Target &target, const Setting &setting)
{
    Reply reply = daemon.ask({target.scope.get, setting.cmd, target.index});
    return reply.result() == NM_OK ? reply.word() : 0;
}

void reconcile_setting(Differences &found, const Daemon &daemon, const Target &target, const Words &words,
                       const Setting &setting, const Wanted<Value> &wanted, Make make)
{
    const Value running = getValue(daemon, target, setting);
    if (running == wanted.value)
        return;
    note(found,
         {line_of(words, setting.name, valueWords(setting, running)),
          joinQuoted(valueWords(setting, wanted.value)), wanted.source, ""},
         make, [&] { setValue(daemon, target, setting, wanted.value); });
}

void reconcile_servers(Differences &found, const Daemon &daemon, const Target &target,
                       const Wanted<std::set<uint32_t>> &wanted, Make make)
{
    const Setting &setting = *findSetting(INTERFACE_SCOPE, "relay-server");
    const uint32_t ifIndex = std::get<uint32_t>(target.index);
    std::set<uint32_t> running;
    for (const ServerKey &key : listServersIfKnown(daemon).value_or(std::vector<ServerKey>{}))
        if (key.ifIndex == ifIndex)
            running.insert(key.address);
    if (running == wanted.value)
        return;
    const auto words = [](const std::set<uint32_t> &servers) {
        Words list;
        for (const uint32_t server : servers)
            list.push_back(ipv4Text(server));
        return list.empty() ? Words{"none"} : list;
    };
    note(found,
         {line_of(target.words(), setting.name, words(running)), joinQuoted(words(wanted.value)),
          wanted.source, ""},
         make, [&] {
             for (const uint32_t server : running)
                 if (!wanted.value.contains(server))
                     demandOn(daemon, target, setting, serverRequest({ifIndex, server}, false));
             for (const uint32_t server : wanted.value)
                 if (!running.contains(server))
                     demandOn(daemon, target, setting, serverRequest({ifIndex, server}, true));
         });
}

// A device that is no port has no limit.
void reconcile_rate(Differences &found, const Target &target, const Wanted<Value> &wanted, Make make)
{
    const Setting &setting = *findSetting(INTERFACE_SCOPE, "dhcp-rate");
    const uint32_t ifIndex = std::get<uint32_t>(target.index);
    const std::optional<GuardRate> running = guard_rate_get(ifIndex);
    if (!running || Value(rate_value(*running)) == wanted.value)
        return;
    note(found,
         {line_of(target.words(), setting.name, valueWords(setting, rate_value(*running))),
          joinQuoted(shownWords(setting, wanted.value)), wanted.source, ""},
         make, [&] { rate_set(ifIndex, std::get<Rate>(wanted.value)); });
}

void reconcile_guard(Differences &found, const GuardPlace &place, const Words &target, GuardFeature feature,
                     const Wanted<uint8_t> &wanted, Make make, bool isNew)
{
    const char *word = feature == GuardFeature::ipSourceGuard ? "guard" : "arp-inspection";
    guard_items items = guard_config_get(place);
    const uint8_t running = guard_wanted(items, feature);
    if (running == wanted.value)
        return;
    Words line = {word};
    line.insert(line.end(), target.begin(), target.end());
    const Words runningWords = guard_words(running);
    line.insert(line.end(), runningWords.begin(), runningWords.end());
    note(found, {line, joinQuoted(guard_words(wanted.value)), wanted.source, ""}, make, [&] {
        guard_switch(items, feature, wanted.value);
        if (isNew)
            guard_settle(items, feature);
        if (const int error = guard_config_set(place, items); error != 0)
            throw CtlError(EXIT_REFUSED, std::string(word) + ": " + strerror(error));
    });
}

std::optional<StaticBinding> running_binding(const Daemon &daemon, const UserKey &key)
{
    const auto binding = ifStillThere([&] { return readBinding(daemon, key); });
    return binding && binding->type == DHCPSNOOP_USER_STATIC ? std::optional(asStatic(*binding))
                                                             : std::nullopt;
}

Words binding_line(const StaticBinding &binding)
{
    Words words = bindingWords(binding);
    words.insert(words.begin(), "binding");
    return words;
}

Difference difference_of(const BindingLine &line, const std::optional<StaticBinding> &now)
{
    const Words running = now ? binding_line(*now) : Words{"binding", userKeyText(line.binding.key), "none"};
    return {
        running, joinQuoted(bindingWords(line.binding)), {Rank::name, line.line},
          ""
    };
}

// Others wait.
bool has_port(const BindingLine &line)
{
    return line.binding.interface.empty() || if_nametoindex(line.binding.interface.c_str()) != 0;
}

void reconcile_binding(Differences &found, const Daemon &daemon, const BindingLine &line, Make make)
{
    const StaticBinding &binding = line.binding;
    const auto now = running_binding(daemon, binding.key);
    if (now == binding)
        return;
    note(found, difference_of(line, now), make, [&] {
        if (ifStillThere([&] { return readBinding(daemon, binding.key); }))
            deleteBinding(daemon, binding.key);
        addBinding(daemon, binding);
    });
}

} // namespace

void rate_set(uint32_t ifIndex, const Rate &rate)
{
    if (const int error = guard_rate_set(ifIndex, {rate.rate, rate.burst, rate.reserved, rate.isDefault});
        error == ENODEV)
        throw CtlError(EXIT_REFUSED, "dhcp-rate: no port of the switch (of a VLAN each port has its own)");
    else if (error != 0)
        throw CtlError(EXIT_REFUSED, std::string("dhcp-rate: ") + strerror(error));
}

Differences reconcile_port(const Config &config, const Daemon &daemon, const PortId &port, Make make,
                           bool isNew)
{
    Differences found;
    const WantedPort wanted = wanted_port(config, port);
    const Target target = {INTERFACE_SCOPE, port.ifIndex, port.name};
    const auto words = [&](const Setting &setting) {
        return port.vlan != 0 && findSetting(VLAN_SCOPE, setting.name) != nullptr
                   ? Words{VLAN_SCOPE.noun, std::to_string(port.vlan)}
                   : target.words();
    };
    const Setting &snooping = *findSetting(INTERFACE_SCOPE, "snooping");
    const bool runs = running_switch(daemon, target, snooping) != 0;
    if (runs != wanted.snoops())
        note(found,
             {line_of(words(snooping), snooping.name, {runs ? "on" : "off"}), runs ? "off" : "on",
              wanted.of(snooping).source, ""},
             make, [&] { setValue(daemon, target, snooping, Value(uint32_t{!runs})); });
    const bool made = make == Make::yes && (found.empty() || found.back().error.empty());
    if (make == Make::no ? runs : wanted.snoops() && (runs || made))
        for (const Setting &setting : INTERFACE_SCOPE.settings) {
            const Setting *needed =
                setting.needs != nullptr ? findSetting(INTERFACE_SCOPE, setting.needs) : nullptr;
            if (&setting == &snooping || !canBeSet(setting) || setting.kind == Kind::Clear ||
                setting.kind == Kind::Rate ||
                (needed != nullptr && running_switch(daemon, target, *needed) == 0))
                continue;
            if (setting.kind == Kind::Servers)
                reconcile_servers(found, daemon, target, wanted.servers, make);
            else
                reconcile_setting(found, daemon, target, words(setting), setting, wanted.of(setting), make);
        }
    if (port.isVlanInterface) // guarded by its VLAN
        return found;
    reconcile_rate(found, target, wanted.of(*findSetting(INTERFACE_SCOPE, "dhcp-rate")), make);
    const GuardPlace place = {false, port.ifIndex};
    reconcile_guard(found, place, target.words(), GuardFeature::ipSourceGuard, wanted.ip, make, isNew);
    reconcile_guard(found, place, target.words(), GuardFeature::arpInspection, wanted.arp, make, isNew);
    return found;
}

Differences reconcile_globals(const Config &config, const Daemon &daemon, Make make)
{
    Differences found;
    for (const Setting &setting : GLOBAL_SCOPE.settings) {
        if (!canBeSet(setting) || setting.kind == Kind::Clear)
            continue;
        Wanted<Value> wanted = {initialValue(setting), {}};
        for (const GlobalLine &line : config.globals)
            if (line.setting == &setting)
                wanted = {
                    line.value, {Rank::name, line.line}
                };
        if (wanted.isSaid() || setting.cmd == GLOBAL_SERVER_LEARN)
            reconcile_setting(found, daemon, globalTarget(), {}, setting, wanted, make);
    }
    return found;
}

Differences reconcile_vlans(const Config &config, Make make)
{
    Differences found;
    std::map<uint32_t, std::pair<Wanted<uint8_t>, Wanted<uint8_t>>> guards;
    for (const VlanLine &line : config.vlans) {
        const Source source = {Rank::name, line.line};
        if (line.guard)
            guards[line.vid] = {
                {line.guard->ip,  source},
                {line.guard->arp, source}
            };
        if (line.arp)
            guards[line.vid].second = {*line.arp, source};
    }
    for (const auto &[place, items] : guard_config_all())
        if (place.isVlan)
            guards.try_emplace(place.number);
    for (const auto &[vid, wanted] : guards) {
        const Words target = {"vlan", std::to_string(vid)};
        reconcile_guard(found, {true, vid}, target, GuardFeature::ipSourceGuard, wanted.first, make, false);
        reconcile_guard(found, {true, vid}, target, GuardFeature::arpInspection, wanted.second, make, false);
    }
    return found;
}

Differences compare_bindings(const Config &config, const std::map<UserKey, StaticBinding> &running)
{
    Differences found;
    for (const BindingLine &line : config.bindingLines) {
        const auto at = running.find(line.binding.key);
        const auto now = at != running.end() ? std::optional(at->second) : std::nullopt;
        if (has_port(line) && now != line.binding)
            found.push_back(difference_of(line, now));
    }
    for (const auto &[key, binding] : running)
        if (!config.lineOfBinding.contains(key))
            found.push_back({binding_line(binding), "none", {}, ""});
    return found;
}

Differences reconcile_bindings(const Config &config, const Config &before, const Daemon &daemon, Make make)
{
    Differences found;
    for (const BindingLine &old : before.bindingLines) {
        if (config.lineOfBinding.contains(old.binding.key) || !running_binding(daemon, old.binding.key))
            continue;
        note(found, {binding_line(old.binding), "none", {}, ""}, make,
             [&] { deleteBinding(daemon, old.binding.key); });
    }
    for (const BindingLine &line : config.bindingLines)
        if (has_port(line))
            reconcile_binding(found, daemon, line, make);
    return found;
}

Differences reconcile_port_bindings(const Config &config, const Daemon &daemon, const PortId &port, Make make)
{
    Differences found;
    for (const BindingLine &line : config.bindingLines)
        if (line.binding.interface == port.name)
            reconcile_binding(found, daemon, line, make);
    return found;
}

} // namespace platform_linux
