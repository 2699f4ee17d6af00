// IP source guard and ARP inspection. The settings are written into the kernel's maps and announced to the
// daemon. A daemon that starts later reads them there.
#include <array>
#include <chrono>
#include <cstring>
#include <net/if.h>
#include <nlohmann/json.hpp>
#include <ostream>
#include <thread>

#include "binding_view.h"
#include "command.h"
#include "cut_off.h"
#include "guard_view.h"
#include "guard_words.h"
#include "model_now.h"
#include "protocol.h"
#include "table.h"
#include "wanted.h"

using namespace platform_linux;

namespace
{

// Longer than the daemon waits for a client that stalls.
constexpr std::chrono::seconds PATIENCE(15);
constexpr std::chrono::milliseconds LOOK_AGAIN(2);

const char *commandWord(GuardFeature feature)
{
    return feature == GuardFeature::ipSourceGuard ? "guard" : "arp-inspection";
}

Words placeWords(const GuardPlace &place)
{
    if (place.isVlan)
        return {"vlan", std::to_string(place.number)};
    return {"interface", interfaceText(place.number)};
}

void openConfig(const std::string &what)
{
    std::string why;
    if (!guard_config_open(why))
        throw CtlError(EXIT_REFUSED, what + ": " + why);
}

void checkPlace(const Context &context, const GuardPlace &place, const std::string &what, bool daemonRuns)
{
    if (!place.isVlan && !guard_ports_refusals().contains(place.number))
        throw CtlError(EXIT_REFUSED, what + ": no port of the switch (see dhcpsnoopctl show guard --all)");
    // Only a part of the reply tells whether the daemon can name the VLAN.
    if (place.isVlan && daemonRuns &&
        context.daemon.ask({FUNC_VLAN_GET, VLAN_ENABLE, place.number}).result() == NM_END)
        throw CtlError(EXIT_REFUSED, what + ": the VLAN has no interface in the switch model, by which the "
                                            "daemon could be told of it");
}

// When ARP inspection stops, the daemon forgets the check items of its static bindings for it. Binding them
// again before inspection starts installs them by all items.
void bindStatics(const Daemon &daemon)
{
    for (const Binding &binding : readStatics(daemon))
        if (binding.state == DHCPSNOOP_BIND_BOUND)
            daemon.ask({FUNC_USER_SET, USER_ACTION, binding.key,
                        USER_ACTION_BIND}); // a refusal means that it went meanwhile
}

// Writes until the value stays: the daemon may have written in between, to put another setting in force.
void switchGuard(const GuardPlace &place, GuardFeature feature, uint8_t wanted, const std::string &what,
                 bool daemonRuns)
{
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    bool announced = false;
    for (;;) {
        guard_items items = guard_config_get(place);
        const bool pending = guard_pending(items, feature);
        if (guard_wanted(items, feature) != wanted || (pending && !announced)) {
            guard_switch(items, feature, wanted);
            int error = guard_config_set(place, items);
            error = error == 0 ? guard_config_announce(place, feature, wanted) : error;
            if (error != 0)
                throw CtlError(EXIT_REFUSED, what + ": " + std::strerror(error));
            announced = true;
        } else if (!pending || !daemonRuns) {
            return;
        }
        if (std::chrono::steady_clock::now() > end)
            throw CtlError(EXIT_REFUSED, what + ": not in force yet, the daemon has not taken it in (its "
                                                "log may say why)");
        std::this_thread::sleep_for(LOOK_AGAIN);
    }
}

// The ports where it would stand: the port, or those of the VLAN that have no setting of their own.
std::vector<GuardPlan> plans(const Ports &ports, const GuardPlace &place, const GuardWords &guard)
{
    std::vector<GuardPlan> found;
    for (const auto &[ifIndex, port] : ports) {
        const guard_items own = place.isVlan ? guard_config_get({false, ifIndex}) : guard_items{};
        const auto unless = [&own](GuardFeature feature, uint8_t items) {
            return guard_wanted(own, feature) != 0 ? uint8_t{0} : items;
        };
        if (place.isVlan ? port.vlan == 0 && port.aggregate == 0 && port.members[place.number]
                         : ifIndex == place.number)
            found.push_back({
                port,
                static_cast<uint16_t>(place.isVlan ? place.number : 0),
                {unless(GuardFeature::ipSourceGuard, guard.ip),
                                                             unless(GuardFeature::arpInspection, guard.arp)}
            });
    }
    return found;
}

void refuseCutOff(const Context &context, const GuardPlace &place, const GuardWords &guard)
{
    const guard_items now = guard_config_get(place);
    if (guard == GuardWords{guard_wanted(now, GuardFeature::ipSourceGuard),
                            guard_wanted(now, GuardFeature::arpInspection)})
        return;
    const Ports ports = portsNow(runningModel());
    CutOff cutOff(context.daemon, true);
    std::string lines;
    for (const GuardPlan &plan : plans(ports, place, guard))
        for (const std::string &warning :
             cutOff.warnings(plan, runningSnooping(context.daemon, ports, plan.port)))
            lines += (lines.empty() ? "" : "\n") + warning + ", or --force";
    if (!lines.empty())
        throw CtlError(EXIT_REFUSED, lines);
}

// IP source guard brings ARP inspection along, ARP inspection comes alone.
ExitStatus change(const Context &context, GuardFeature feature, const GuardPlace &place,
                  std::span<const std::string> words)
{
    const bool both = feature == GuardFeature::ipSourceGuard;
    Words said(words.begin(), words.end());
    const bool force = std::erase(said, "--force") > 0;
    const auto [wanted, arp] = both ? parse_guard(said) : GuardWords{parse_items(said), parse_items(said)};
    if (place.isVlan && wanted == GUARD_EXEMPT)
        throw UsageError("only a port can be exempt, not a VLAN");
    Words name = placeWords(place);
    name.insert(name.begin(), commandWord(feature));
    const std::string what = joinQuoted(name);
    const bool daemonRuns = isDaemonRunning(context.daemon);
    openConfig(what);
    if (wanted != 0)
        checkPlace(context, place, what, daemonRuns);
    if (daemonRuns && !force)
        refuseCutOff(context, place, {both ? wanted : uint8_t{0}, arp});
    if (wanted != 0 && !daemonRuns)
        context.err << "dhcpsnoopctl: note: no daemon listens; it comes into force when one runs\n";
    if ((arp & GUARD_CHECK_ALL) != 0 && daemonRuns && !guard_is_inspecting())
        bindStatics(context.daemon);
    if (both)
        switchGuard(place, feature, wanted, what, daemonRuns);
    switchGuard(place, GuardFeature::arpInspection, arp, what, daemonRuns);
    return EXIT_DONE;
}

ExitStatus changeInterfaceGuard(const Context &context, GuardFeature feature,
                                std::span<const std::string> arguments)
{
    if (arguments.empty())
        throw UsageError("which interface?");
    return change(context, feature, {false, parseInterface(arguments[0])}, arguments.subspan(1));
}

ExitStatus changeVlanGuard(const Context &context, GuardFeature feature,
                           std::span<const std::string> arguments)
{
    if (arguments.empty())
        throw UsageError("which VLAN?");
    return change(context, feature, {true, parseRange("VLAN", arguments[0], VLAN_ID_MIN, VLAN_ID_MAX)},
                  arguments.subspan(1));
}

// "ipv4 12, arp 3" in lines that leave room for the other columns on 80; one empty line for none.
Words refusedTexts(const GuardRefusals &refused)
{
    constexpr size_t ROOM = 22;
    Words lines(1);
    for (size_t reason = 0; reason < GUARD_REASONS; reason++) {
        if (refused[reason] == 0)
            continue;
        const std::string text =
            std::string(GUARD_REASON_WORDS[reason]) + ' ' + std::to_string(refused[reason]);
        if (lines.back().empty())
            lines.back() = text;
        else if (lines.back().size() + 2 + text.size() <= ROOM)
            lines.back() += ", " + text;
        else
            lines.push_back(text);
    }
    return lines;
}

// A place takes as many rows as it needs; all but the first are blank on the left.
void addRows(std::vector<Words> &rows, const GuardPlace &place, const guard_items &items,
             const GuardRefusals &refused)
{
    const std::string name =
        place.isVlan ? "vlan " + std::to_string(place.number) : interfaceText(place.number);
    const Words reasons = refusedTexts(refused);
    rows.push_back({name, itemsText(guard_wanted(items, GuardFeature::ipSourceGuard)),
                    itemsText(guard_wanted(items, GuardFeature::arpInspection)), reasons[0]});
    const auto pending = [&items](GuardFeature feature) {
        return guard_pending(items, feature) ? "(pending)" : " ";
    };
    const std::string ip = pending(GuardFeature::ipSourceGuard), arp = pending(GuardFeature::arpInspection);
    for (size_t line = 1; line < reasons.size() || (line == 1 && ip + arp != "  "); line++)
        rows.push_back(
            {" ", line == 1 ? ip : " ", line == 1 ? arp : " ", line < reasons.size() ? reasons[line] : " "});
}

bool isThere(uint32_t ifIndex)
{
    char name[IF_NAMESIZE];
    return if_indextoname(ifIndex, name) != nullptr;
}

// The items in force, and the pending items if any.
void addItems(Json &json, const guard_items &items)
{
    const std::tuple<const char *, uint8_t, GuardFeature> features[] = {
        {"ip",  items.ip,  GuardFeature::ipSourceGuard},
        {"arp", items.arp, GuardFeature::arpInspection}
    };
    for (const auto &[key, inForce, feature] : features) {
        json[key] = item_words(inForce);
        json[std::string(key) + "-pending"] =
            guard_pending(items, feature) ? Json(item_words(guard_wanted(items, feature))) : Json(nullptr);
    }
    const uint8_t wanted = guard_wanted(items, GuardFeature::ipSourceGuard);
    json["family"] = (wanted & GUARD_CHECK_ALL) != 0 ? Json(family_word(wanted)) : Json(nullptr);
}

} // namespace

std::string itemsText(uint8_t wanted)
{
    std::string text;
    for (const std::string &word : item_words(wanted))
        text += (text.empty() ? "" : ",") + word;
    if (has_family(wanted))
        text += std::string("/") + family_word(wanted);
    return text.empty() ? "off" : text;
}

bool openGuard(const Context &context)
{
    std::string why;
    const bool open = guard_config_open(why);
    if (!open)
        context.err << "dhcpsnoopctl: note: without the guard's settings: " << why << '\n';
    return open;
}

ExitStatus guardInterface(const Context &context, std::span<const std::string> arguments)
{
    return changeInterfaceGuard(context, GuardFeature::ipSourceGuard, arguments);
}

ExitStatus guardVlan(const Context &context, std::span<const std::string> arguments)
{
    return changeVlanGuard(context, GuardFeature::ipSourceGuard, arguments);
}

ExitStatus arpInterface(const Context &context, std::span<const std::string> arguments)
{
    return changeInterfaceGuard(context, GuardFeature::arpInspection, arguments);
}

ExitStatus arpVlan(const Context &context, std::span<const std::string> arguments)
{
    return changeVlanGuard(context, GuardFeature::arpInspection, arguments);
}

Words portNames()
{
    Words names;
    for (const auto &[ifIndex, port] : portsNow(runningModel()))
        names.push_back(interfaceText(ifIndex)); // the index where the name cannot be typed
    return names;
}

std::optional<PortLimit> readLimit(uint32_t ifIndex)
{
    std::string unused;
    const auto rate = guard_config_open(unused) ? guard_rate_get(ifIndex) : std::nullopt;
    if (!rate)
        return std::nullopt;
    return PortLimit{rate_value(*rate), guard_port_refusals(ifIndex)[GUARD_REFUSED_RATE]};
}

void checkVlanOfPort(uint32_t ifIndex, uint32_t vid)
{
    std::string why; // without maps nothing is known, and nothing refused
    if (guard_config_open(why) && !guard_port_may_use(ifIndex, vid))
        throw CtlError(EXIT_REFUSED, "binding: " + interfaceText(ifIndex) + " is no member of VLAN " +
                                         std::to_string(vid) + " (--force adds it all the same)");
}

// JSON has every port, the table only the ports with a setting or refused frames, or all.
ExitStatus showGuard(const Context &context, std::span<const std::string> arguments)
{
    const bool all = arguments.size() == 1 && arguments[0] == "--all";
    if (!arguments.empty() && !all)
        throw UsageError("show guard takes: [--all]");
    openConfig("show guard");
    std::map<GuardPlace, guard_items> places = guard_config_all();
    std::map<uint32_t, GuardRefusals> refusals = guard_ports_refusals();
    for (const auto &[ifIndex, refused] : refusals)
        places.try_emplace({false, ifIndex});

    Json interfaces = Json::array(), vlans = Json::array();
    std::vector<Words> rows = {
        {"PLACE", "IP-SOURCE-GUARD", "ARP-INSPECTION", "REFUSED"}
    };
    for (const auto &[place, items] : places) {
        if (!place.isVlan &&
            !isThere(place.number)) // the settings of a port that has gone; it will not come back
            continue;
        GuardRefusals refused = {};
        Json json;
        if (place.isVlan) {
            json["vlan"] = place.number;
            addItems(json, items);
            vlans.push_back(json);
        } else {
            json["interface"] = interfaceText(place.number);
            json["index"] = place.number;
            addItems(json, items);
            refused = refusals[place.number];
            for (size_t reason = 0; reason < GUARD_REASONS; reason++)
                json["refused"][GUARD_REASON_WORDS[reason]] = refused[reason];
            interfaces.push_back(json);
        }
        const bool hasSetting = (guard_wanted(items, GuardFeature::ipSourceGuard) |
                                 guard_wanted(items, GuardFeature::arpInspection)) != 0;
        if (all || hasSetting || refused != GuardRefusals{})
            addRows(rows, place, items, refused);
    }
    return print(context,
                 Json{
                     {"interfaces", interfaces},
                     {"vlans",      vlans     }
    },
                 rows, "no settings and no refused packets (--all shows every port)");
}
