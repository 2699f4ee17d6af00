#include "overview.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>

#include "guard_view.h"
#include "model_now.h"
#include "running.h"
#include "wanted.h"

using namespace platform_linux;

namespace
{

// Settings and counters of an interface that the daemon is asked for, for each port.
constexpr const char *SETTINGS[] = {"version", "trust", "users", "max-users"};

std::map<std::string, uint32_t> readSettings(const Daemon &daemon, uint32_t ifIndex)
{
    const Target target = interfaceTarget(ifIndex);
    std::map<std::string, uint32_t> values;
    const auto read = [&](const char *name) {
        values[name] = std::get<uint32_t>(getValue(daemon, target, *findSetting(INTERFACE_SCOPE, name)));
    };
    std::for_each(std::begin(SETTINGS), std::end(SETTINGS), read);
    std::for_each(std::begin(DROP_COUNTERS), std::end(DROP_COUNTERS), read);
    return values;
}

// The port's own setting goes before its VLANs'.
uint8_t itemsOf(const Port &port, const std::map<GuardPlace, guard_items> &places, GuardFeature feature)
{
    const bool isVlan = port.kind == PortKind::vlanInterface;
    const auto own = places.find({isVlan, isVlan ? port.vlan : port.ifIndex});
    if (own != places.end() && guard_wanted(own->second, feature) != 0)
        return guard_wanted(own->second, feature);
    for (const auto &[place, items] : places)
        if (place.isVlan && port.members[place.number] && guard_wanted(items, feature) != 0)
            return guard_wanted(items, feature);
    return 0;
}

bool isBefore(const PortView &one, const PortView &other)
{
    const bool isVlan = one.port.kind == PortKind::vlanInterface;
    if (isVlan != (other.port.kind == PortKind::vlanInterface))
        return !isVlan;
    return strverscmp(one.port.name, other.port.name) < 0;
}

std::vector<PortView> readPorts(const Context &context, const std::vector<Binding> &bindings)
{
    const std::vector<uint32_t> snooping = listInterfaces(context.daemon);
    const std::set<uint32_t> snoops(snooping.begin(), snooping.end());
    const bool guarded = openGuard(context);
    const auto places = guarded ? guard_config_all() : std::map<GuardPlace, guard_items>();
    const auto refusals = guarded ? guard_ports_refusals() : std::map<uint32_t, GuardRefusals>();
    std::map<uint32_t, size_t> users;
    for (const Binding &binding : bindings)
        users[binding.ifIndex]++;
    const Ports model = portsNow(runningModel());
    VlanSet vlans; // whose interface snoops
    for (const auto &[ifIndex, port] : model)
        if (port.kind == PortKind::vlanInterface && snoops.contains(ifIndex))
            vlans.set(port.vlan);
    std::vector<PortView> views;
    for (const auto &[ifIndex, port] : model) {
        PortView view = {port};
        std::ranges::copy(shownName(port.name), view.port.name); // of the same length
        view.bridge = shownName(port_id(port, model).bridge);
        view.snoopsByVlan = port.kind != PortKind::vlanInterface && (port.members & vlans).any();
        view.guard = itemsOf(port, places, GuardFeature::ipSourceGuard);
        view.arp = itemsOf(port, places, GuardFeature::arpInspection);
        view.bindings = users[ifIndex];
        if (snoops.contains(ifIndex))
            if (auto settings = ifStillThere([&] { return readSettings(context.daemon, view.port.ifIndex); }))
                view.settings = *std::move(settings);
        if (const auto refused = refusals.find(ifIndex); refused != refusals.end())
            view.refused = refused->second;
        views.push_back(std::move(view));
    }
    std::ranges::sort(views, isBefore);
    return views;
}

std::vector<RefusalCount> readGuardHour(const std::string &facts)
{
    std::vector<RefusalCount> found;
    std::istringstream lines(facts);
    for (std::string line, word; std::getline(lines, line);) {
        std::istringstream words(line);
        size_t reason = 0;
        RefusalCount count = {};
        if (words >> word && word == "guard-hour" && words >> reason >> count.lastHour >> count.place &&
            reason < GUARD_REASONS) {
            count.place = shownName(count.place);
            count.reason = std::string("guard-") + GUARD_REASON_WORDS[reason];
            found.push_back(count);
        }
    }
    return found;
}

} // namespace

std::vector<LearnedServer> readLearned()
try {
    std::vector<LearnedServer> servers;
    std::istringstream lines(demandConfig("facts"));
    for (std::string line, word; std::getline(lines, line);) {
        std::istringstream words(line);
        LearnedServer server = {};
        if (words >> word && word == "server" && words >> server.address >> server.ifIndex >> server.vlan)
            servers.push_back(server);
    }
    return servers;
} catch (const NoDaemon &) {
    return {};
}

uint64_t PortView::dropped() const
{
    uint64_t sum = 0;
    for (const char *counter : DROP_COUNTERS)
        sum += settings.contains(counter) ? settings.at(counter) : 0;
    return sum;
}

Overview readOverview(const Context &context)
{
    Overview all;
    const std::string facts = demandConfig("facts");
    all.daemon = readFacts(facts);
    all.guardHour = readGuardHour(facts);
    all.unit = readUnit();
    const std::vector<WaitingBinding> waiting = readWaiting(); // first: a port that comes back now loses none
    all.bindings = readBindings(context.daemon);
    all.held = all.bindings.size();
    all.waiting = waiting.size();
    addWaiting(waiting, all.bindings);
    all.ports = readPorts(context, all.bindings);
    all.refusals = readRefusals();
    return all;
}
