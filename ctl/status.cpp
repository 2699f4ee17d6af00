// The daemon and the switch at a glance: 24 lines of 80 columns at most.
#include <algorithm>
#include <ctime>
#include <numeric>
#include <ostream>
#include <set>

#include "guard_view.h"
#include "overview.h"
#include "protocol.h"
#include "running.h"

using namespace platform_linux;

namespace
{

constexpr size_t COLUMNS = 80, LINES = 24;
constexpr uint64_t NEARLY_FULL = 90; // per cent

// ---- Counts

// Numbers by word, in this order.
using Tally = std::vector<std::pair<const char *, uint64_t>>;

bool isPhysical(const PortView &view) { return view.port.kind != PortKind::vlanInterface; }

Tally countPorts(const std::vector<PortView> &ports)
{
    Tally counts;
    const auto add = [&](const char *word, bool (*wanted)(const PortView &)) {
        const auto is = [wanted](const PortView &view) { return isPhysical(view) && wanted(view); };
        counts.emplace_back(word, std::ranges::count_if(ports, is));
    };
    add("seen", isPhysical);
    add("snooped", [](const PortView &view) { return view.snoops(); });
    add("trusted", [](const PortView &view) { return view.has("trust"); });
    add("guarded", [](const PortView &view) { return view.isGuarded(); });
    return counts;
}

Tally tally(const Overview &all, uint32_t (*property)(const Binding &), std::span<const Choice> words)
{
    Tally found;
    for (const auto &[word, value] : words) {
        const auto is = [&, wanted = value](const Binding &binding) { return property(binding) == wanted; };
        found.emplace_back(word, static_cast<uint64_t>(std::ranges::count_if(all.bindings, is)));
    }
    return found;
}

constexpr Choice FAMILIES[] = {
    {"ipv4", DHCPSNOOP_IPV4},
    {"ipv6", DHCPSNOOP_IPV6}
};

struct BindingCounts {
    Tally families, types, states;
};

BindingCounts countBindings(const Overview &all)
{
    constexpr auto family = [](const Binding &binding) -> uint32_t { return binding.key.ipType; };
    constexpr auto type = [](const Binding &binding) { return binding.type; };
    constexpr auto state = [](const Binding &binding) { return binding.state; };
    return {tally(all, family, FAMILIES), tally(all, type, USER_TYPES), tally(all, state, USER_STATES)};
}

std::string tallyText(const Tally &counts, bool zeros = false)
{
    std::string text;
    for (const auto &[word, count] : counts)
        if (zeros || count != 0)
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + word;
    return text;
}

Json tallyJson(const Tally &counts)
{
    Json json;
    for (const auto &[word, count] : counts)
        json[word] = count;
    return json;
}

// ---- Texts

std::string plural(uint64_t count, const std::string &noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// "swp1", "swp1 and swp2", "swp1, swp2 and 3 more".
std::string namesText(const Words &names)
{
    constexpr size_t NAMED = 2;
    if (names.size() > NAMED)
        return names[0] + ", " + names[1] + " and " + std::to_string(names.size() - NAMED) + " more";
    return names.size() == NAMED ? names[0] + " and " + names[1] : names[0];
}

std::string cut(const std::string &line)
{
    return line.size() <= COLUMNS ? line : line.substr(0, COLUMNS - 3) + "...";
}

// What was refused in the last hour, most first.
std::vector<RefusalCount> lastHour(const Overview &all)
{
    std::vector<RefusalCount> found = all.refusals;
    found.insert(found.end(), all.guardHour.begin(), all.guardHour.end());
    std::erase_if(found, [](const RefusalCount &count) { return count.lastHour == 0; });
    std::ranges::stable_sort(found, std::greater(), &RefusalCount::lastHour);
    return found;
}

// Since the counters were set to 0, by reason.
Tally dropped(const Overview &all)
{
    Tally found;
    for (const char *counter : DROP_COUNTERS) {
        found.emplace_back(counter, 0);
        for (const PortView &view : all.ports)
            found.back().second += view.has(counter) ? view.settings.at(counter) : 0;
    }
    return found;
}

Tally refusedByGuard(const Overview &all)
{
    Tally found;
    for (size_t reason = 0; reason < GUARD_REASONS; reason++) {
        found.emplace_back(GUARD_REASON_WORDS[reason], 0);
        for (const PortView &view : all.ports)
            found.back().second += view.refused[reason];
    }
    return found;
}

Words namesOf(const std::vector<PortView> &ports, const std::function<bool(const PortView &)> &wanted)
{
    Words names;
    for (const PortView &view : ports)
        if (wanted(view))
            names.push_back(view.port.name);
    return names;
}

// ---- What needs attention, the worst first

Words portsAttention(const Overview &all)
{
    Words lines;
    const Tally counts = countPorts(all.ports);
    const auto none = [&counts](size_t which) { return counts[which].second == 0; };
    if (none(0))
        lines.push_back("no port: there is no bridge with ports");
    else if (none(1))
        lines.push_back("nothing is protected: no port snoops (bridge BRIDGE uplink IF)");
    else if (none(2))
        lines.push_back("no trusted port: clients get no answer (interface IF trust on)");
    Words rogues;
    for (const RefusalCount &count : lastHour(all))
        if (count.reason == "untrusted-server")
            rogues.push_back(count.place);
    if (!rogues.empty())
        lines.push_back("a DHCP server without trust answers at " + namesText(rogues) + ": find it");
    return lines;
}

Words configAttention(const Overview &all, const SavedFile &saved)
{
    Words lines;
    if (!saved.fault.empty())
        lines.push_back("the file is wrong, an earlier one is in force: " + saved.fault);
    if (all.daemon.contains("unconfirmed"))
        lines.push_back("an applied configuration waits for 'dhcpsnoopctl confirm'");
    return lines;
}

Words roomAttention(const Overview &all)
{
    Words lines;
    const auto nearlyFull = [&](uint64_t used, const char *table) {
        if (const uint64_t room = number(all.daemon, table); used * 100 >= room * NEARLY_FULL)
            lines.push_back("the table of " + std::string(table) + " is nearly full: " +
                            std::to_string(used) + " of " + std::to_string(room) + " (" + table + " N)");
    };
    nearlyFull(all.held, "bindings");
    nearlyFull(namesOf(all.ports, [](const PortView &view) { return !view.settings.empty(); }).size(),
               "interfaces");
    if (const Words full = namesOf(all.ports,
                                   [](const PortView &view) {
                                       return view.has("users") &&
                                              view.settings.at("users") >= view.settings.at("max-users");
                                   });
        !full.empty())
        lines.push_back("as many bindings as it may have: " + namesText(full) + " (max-users)");
    if (all.waiting != 0)
        lines.push_back(plural(all.waiting, "binding") + " waiting for a port that is away");
    if (const uint64_t lost = number(all.daemon, "frames-lost"))
        lines.push_back(plural(lost, "DHCP frame") + " lost in bursts that were too fast");
    return lines;
}

Words unitAttention(const Facts &unit)
{
    Words lines;
    const auto is = [&](const char *name, const char *value) {
        return unit.contains(name) && unit.at(name) == value;
    };
    if (is("link", "down"))
        lines.push_back("the peer unit is not reached" +
                        (unit.contains("trouble") ? ": " + unit.at("trouble") : ""));
    if (is("journal-state", "failed"))
        lines.push_back("the journal cannot be written: bindings are lost at a restart");
    return lines;
}

Words attention(const Overview &all, const SavedFile &saved)
{
    Words lines;
    for (const Words &more :
         {portsAttention(all), configAttention(all, saved), roomAttention(all), unitAttention(all.unit)})
        lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

// ---- The whole

std::string sinceText(uint64_t uptime)
{
    const time_t since = time(nullptr) - static_cast<time_t>(uptime);
    tm local = {};
    char text[32];
    strftime(text, sizeof(text), "%F %T", localtime_r(&since, &local));
    return text;
}

std::string unitText(const Facts &unit)
{
    std::string text = unit.at("role");
    if (unit.contains("peer"))
        text += ", peer " + unit.at("peer") + " " + unit.at("link") +
                (unit.contains("peer-role") ? ", " + unit.at("peer-role") : "");
    return text + (unit.contains("journal") ? ", journal " + unit.at("journal-state") : ", no journal");
}

std::string configText(const SavedFile &saved)
{
    if (!saved.fault.empty())
        return saved.name;
    if (saved.differences != 0)
        return saved.name + ", " + plural(saved.differences, "change") + " not saved (diff)";
    return saved.name + (saved.isThere ? ", all saved" : " is not there");
}

void printStatus(const Context &context, const Overview &all, const SavedFile &saved)
{
    const BindingCounts bindings = countBindings(all);
    Words lines;
    const auto line = [&](const std::string &name, const std::string &text) {
        lines.push_back(cut(name + std::string(10 - name.size(), ' ') + text));
    };
    const uint64_t uptime = number(all.daemon, "uptime");
    line("daemon", all.daemon.at("version") + ", up since " + sinceText(uptime) + " (" +
                       leaseText(static_cast<uint32_t>(uptime)) + ")");
    line("ports", tallyText(countPorts(all.ports), true));
    line("bindings", std::to_string(all.held) + " of " + all.daemon.at("bindings") + " possible");
    for (const Tally &counts : {bindings.families, bindings.types, bindings.states})
        if (const std::string text = tallyText(counts); !text.empty())
            line("", text);
    if (const std::string text = tallyText(dropped(all)); !text.empty())
        line("dropped", text);
    if (const std::string text = tallyText(refusedByGuard(all)); !text.empty())
        line("refused", text + " by the guard");
    line("role", unitText(all.unit));
    line("file", configText(saved));

    constexpr size_t HOUR_LINES = 5;
    const std::vector<RefusalCount> hour = lastHour(all);
    line("last hour",
         hour.empty() ? "nothing refused" : "refused (remedies: show refusals; of the guard: show guard):");
    for (size_t i = 0; i < std::min(hour.size(), HOUR_LINES); i++)
        line("", std::to_string(hour[i].lastHour) + " " + hour[i].reason +
                     (hour[i].place == "-" ? "" : " at " + hour[i].place));
    const Words worries = attention(all, saved);
    if (!worries.empty())
        lines.insert(lines.end(), {"", emphasized(context, "needs attention:")});
    const size_t room = LINES - lines.size(), fit = worries.size() <= room ? worries.size() : room - 1;
    for (size_t i = 0; i < fit; i++)
        lines.push_back(emphasized(context, cut("  " + worries[i])));
    if (fit < worries.size())
        lines.push_back("  and " + std::to_string(worries.size() - fit) + " more (--json)");
    for (const std::string &text : lines)
        context.out << text << '\n';
}

Json statusJson(const Overview &all, const SavedFile &saved)
{
    const BindingCounts bindings = countBindings(all);
    Json json;
    json["version"] = all.daemon.at("version");
    json["uptime"] = number(all.daemon, "uptime");
    json["ports"] = tallyJson(countPorts(all.ports));
    json["bindings"]["held"] = all.held;
    json["bindings"]["possible"] = number(all.daemon, "bindings");
    json["bindings"]["family"] = tallyJson(bindings.families);
    json["bindings"]["type"] = tallyJson(bindings.types);
    json["bindings"]["state"] = tallyJson(bindings.states);
    json["dropped"] = tallyJson(dropped(all));
    json["refused-by-guard"] = tallyJson(refusedByGuard(all));
    json["refused-last-hour"] = Json::array();
    for (const RefusalCount &count : lastHour(all)) {
        Json row;
        row["reason"] = count.reason;
        row["interface"] = count.place;
        row["count"] = count.lastHour;
        json["refused-last-hour"].push_back(row);
    }
    json["redundancy"] = all.unit;
    json["file"] = saved.name;
    json["not-saved"] = saved.fault.empty() ? Json(saved.differences) : Json(nullptr);
    json["attention"] = attention(all, saved);
    return json;
}

} // namespace

ExitStatus showStatus(const Context &context, std::span<const std::string>)
{
    const Overview all = readOverview(context);
    const SavedFile saved = compareSaved(context);
    if (context.json)
        printJson(context, statusJson(all, saved));
    else
        printStatus(context, all, saved);
    return EXIT_DONE;
}
