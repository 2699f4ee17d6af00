// The daemon's numbers in the text format of OpenMetrics 1.0. Only gauges and counters: readers of the older
// text format take them too.
#include <ostream>

#include "guard_view.h"
#include "overview.h"

using namespace platform_linux;

namespace
{

using Labels = std::vector<std::pair<const char *, std::string>>;

struct Sample {
    Labels labels;
    uint64_t value;
};

struct Family {
    const char *name, *help;
    bool counts; // a counter, whose samples end in _total; else a gauge
    std::vector<Sample> samples = {};
};

std::string escaped(const std::string &text)
{
    std::string out;
    for (const char c : text)
        out += c == '\n' ? "\\n" : c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    return out;
}

std::string labelText(const Labels &labels)
{
    std::string text;
    for (const auto &[name, value] : labels)
        text += (text.empty() ? "{" : ",") + std::string(name) + "=\"" + escaped(value) + "\"";
    return text.empty() ? text : text + "}";
}

Family bindingsFamily(const Overview &all)
{
    std::map<std::tuple<std::string, std::string, std::string>, uint64_t> counts;
    for (const Binding &binding : all.bindings)
        counts[{binding.key.ipType == DHCPSNOOP_IPV4 ? "ipv4" : "ipv6", wordOf(USER_TYPES, binding.type),
                wordOf(USER_STATES, binding.state)}]++;
    Family family = {"dhcpsnoop_bindings", "Bindings by family, type and state.", false};
    for (const auto &[key, count] : counts) {
        const auto &[ip, type, state] = key;
        family.samples.push_back({
            {{"family", ip}, {"type", type}, {"state", state}},
            count
        });
    }
    return family;
}

void addPorts(std::vector<Family> &families, const std::vector<PortView> &ports)
{
    Family bindings = {"dhcpsnoop_port_bindings", "Bindings at a port.", false},
           snooping = {"dhcpsnoop_port_snooping", "Whether a port snoops.", false},
           trusted = {"dhcpsnoop_port_trusted", "Whether servers may answer from a port.", false},
           guarded = {"dhcpsnoop_port_guarded", "Whether a port checks sources.", false},
           dropped = {"dhcpsnoop_dropped_messages", "Messages that the daemon dropped.", true},
           refused = {"dhcpsnoop_guard_refused_packets", "Packets that the guard refused.", true};
    for (const PortView &view : ports) {
        const Labels port = {
            {"interface", view.port.name}
        };
        const auto reason = [&](const char *word) {
            return Labels{
                port[0], {"reason", word}
            };
        };
        bindings.samples.push_back({port, view.bindings});
        snooping.samples.push_back({port, view.snoops() ? 1u : 0u});
        trusted.samples.push_back({port, view.has("trust") ? 1u : 0u});
        guarded.samples.push_back({port, view.isGuarded() ? 1u : 0u});
        for (const char *counter : DROP_COUNTERS)
            if (!view.settings.empty())
                dropped.samples.push_back(
                    {reason(counter + sizeof("dropped-") - 1), view.settings.at(counter)});
        for (size_t i = 0; i < GUARD_REASONS; i++)
            refused.samples.push_back({reason(GUARD_REASON_WORDS[i]), view.refused[i]});
    }
    for (Family *family : {&bindings, &snooping, &trusted, &guarded, &dropped, &refused})
        families.push_back(std::move(*family));
}

void addUnit(std::vector<Family> &families, const Facts &unit)
{
    Family role = {"dhcpsnoop_role", "1 for the role of this unit.", false};
    for (const char *word : {"none", "master", "slave"})
        role.samples.push_back({{{"role", word}}, unit.at("role") == word ? 1u : 0u});
    families.push_back(role);
    if (unit.contains("link")) {
        families.push_back({"dhcpsnoop_peer_up",
                            "Whether the peer unit is reached.",
                            false,
                            {{{}, unit.at("link") == "up" ? 1u : 0u}}});
        Family records = {"dhcpsnoop_peer_records", "Records exchanged with the peer unit.", true};
        for (const char *word : {"sent", "received", "dropped"})
            records.samples.push_back({{{"direction", word}}, number(unit, word)});
        families.push_back(records);
    }
    if (!unit.contains("journal"))
        return;
    families.push_back({"dhcpsnoop_journal_failed",
                        "Whether the journal cannot be written.",
                        false,
                        {{{}, unit.at("journal-state") == "failed" ? 1u : 0u}}});
    families.push_back({"dhcpsnoop_journal_age_seconds",
                        "Time since the journal was rewritten.",
                        false,
                        {{{}, number(unit, "journal-age")}}});
    families.push_back({"dhcpsnoop_journal_size_bytes",
                        "Size of the journal.",
                        false,
                        {{{}, number(unit, "journal-size")}}});
}

std::vector<Family> readFamilies(const Context &context)
{
    const Overview all = readOverview(context);
    std::vector<Family> families;
    const auto one = [&](const char *name, const char *help, bool counts, const char *fact) {
        families.push_back({name, help, counts, {{{}, number(all.daemon, fact)}}});
    };
    families.push_back({"dhcpsnoop_daemon_version",
                        "1 for the daemon's version.",
                        false,
                        {{{{"version", all.daemon.at("version")}}, 1}}});
    one("dhcpsnoop_uptime_seconds", "Time since the daemon's start.", false, "uptime");
    one("dhcpsnoop_bindings_possible", "Room for bindings.", false, "bindings");
    one("dhcpsnoop_interfaces_possible", "Room for interfaces that snoop.", false, "interfaces");
    one("dhcpsnoop_frames", "DHCP frames that ports handed to the daemon, with those lost.", true, "frames");
    one("dhcpsnoop_frames_lost", "DHCP frames lost because the daemon's queue was full.", true,
        "frames-lost");
    families.push_back(bindingsFamily(all));
    addPorts(families, all.ports);
    Family refusals = {"dhcpsnoop_refusals",
                       "Messages, bindings and settings refused for want of room or of a port.", true};
    for (const RefusalCount &count : all.refusals)
        refusals.samples.push_back({
            {{"reason", count.reason}, {"place", count.place}},
            count.total
        });
    families.push_back(refusals);
    addUnit(families, all.unit);
    return families;
}

Json familyJson(const Family &family)
{
    Json list = Json::array();
    for (const auto &[labels, value] : family.samples) {
        Json row;
        for (const auto &[name, text] : labels)
            row[name] = text;
        row["value"] = value;
        list.push_back(row);
    }
    return list;
}

void printFamily(std::ostream &out, const Family &family)
{
    out << "# TYPE " << family.name << (family.counts ? " counter" : " gauge") << "\n# HELP " << family.name
        << ' ' << family.help << '\n';
    for (const auto &[labels, value] : family.samples)
        out << family.name << (family.counts ? "_total" : "") << labelText(labels) << ' ' << value << '\n';
}

} // namespace

ExitStatus showMetrics(const Context &context, std::span<const std::string>)
{
    Json json;
    for (const Family &family : readFamilies(context)) {
        if (context.json)
            json[family.name] = familyJson(family);
        else if (!family.samples.empty())
            printFamily(context.out, family);
    }
    if (context.json)
        printJson(context, json);
    else
        context.out << "# EOF\n";
    return EXIT_DONE;
}
