// The table of commands, and how a command line finds its row.
#include "command.h"

#include <algorithm>
#include <iostream>
#include <net/if.h>
#include <poll.h>
#include <sstream>
#include <unistd.h>

#include "binding_view.h"
#include "typed.h"

namespace
{

ExitStatus showHelp(const Context &context, std::span<const std::string> arguments);

ExitStatus complete(const Context &context, std::span<const std::string> arguments)
{
    for (const std::string &word : completions({arguments.begin(), arguments.end()}, context.daemon))
        context.out << word << '\n';
    return EXIT_DONE;
}

constexpr char BINDING_FILTERS[] =
    "[ADDRESS] [interface IFS] [vlan VIDS] [mac MAC] [type dynamic|static] [state bound|requested|created|unbound|waiting] [--count]";

constexpr char GUARD_ITEMS_IF[] = "IF [ip] [mac] [vlan] [port] [family 4|6|both] [off] [exempt] [--force]";
constexpr char GUARD_ITEMS_VLAN[] = "VID [ip] [mac] [vlan] [port] [family 4|6|both] [off] [--force]";
constexpr char CHECK_ITEMS_IF[] = "IF [ip] [mac] [vlan] [port] [off] [exempt] [--force]";
constexpr char CHECK_ITEMS_VLAN[] = "VID [ip] [mac] [vlan] [port] [off] [--force]";

constexpr char BINDING_VALUES[] =
    "ADDRESS [mac MAC] [vlan VID] [interface IF] [attribute N] [unbound] [--force]";

// Rows of two lines are aligned by hand.
// clang-format off
constexpr Command COMMANDS[] = {
    {"status", "", showStatus, true,
     "the daemon and the switch at a glance, and what needs attention; also without a command"},
    {"show ports", "", showPorts, true,
     "every port of the switch, whether it snoops or not"},
    {"show interfaces", "", showInterfaces, true,
     "interfaces that snoop"},
    {"show interface", "IF", showInterface, true,
     "all settings and counters of an interface"},
    {"show vlans", "", showVlans, true,
     "VLANs that snoop"},
    {"show servers", "", showServers, true,
     "relay servers of the interfaces, and servers that were heard answering"},
    {"show bindings", BINDING_FILTERS, showBindings, true,
     "bindings: address, MAC, VLAN, port, lease; of a prefix, of ports and VLANs in lists, ranges, patterns"},
    {"show statistics", "", showStatistics, true,
     "dropped messages by interface and reason"},
    {"show refusals", "", showRefusals, true,
     "what was refused for want of room, of a trusted port or by a limit, and the remedy"},
    {"show guard", "[--all]", showGuard, true,
     "IP source guard, ARP inspection and refused packets by port and VLAN; --all: idle ports too"},
    {"show global", "", showGlobal, true,
     "global settings"},
    {"show redundancy", "", showRedundancy, true,
     "role of this unit, link to the peer, journal"},
    {"show config", "[--effective interface IF]", showConfig, true,
     "the running configuration, as the file has it; or where each value of a port comes from"},
    {"interface", "IF SETTING VALUE [SETTING VALUE]...", changeInterface, false,
     "change settings of an interface (see below); of several a wrong one changes none"},
    {"vlan", "VID SETTING VALUE [SETTING VALUE]...", changeVlan, false,
     "change settings of a VLAN (see below)"},
    {"snooping", "on|off", changeSnooping, false,
     "global mark (interfaces snoop by their own setting); off forgets interfaces, bindings, servers"},
    {"server-learning", "on|off", changeServerLearning, false,
     "remember the DHCP servers that answer"},
    {"hardware-notify", "on|off", changeHardwareNotify, false,
     "install bindings in the hardware; a change installs or withdraws all of them"},
    {"enterprise-number", "N", changeEnterpriseNumber, false,
     "IANA private enterprise number put into options 82, 125 and 37"},
    {"protection", "strict|as-asked", changeProtection, false,
     "whether bindings are protected from other hosts' messages"},
    {"binding add", BINDING_VALUES, bindingAdd, false,
     "create a static binding; in force unless unbound; --force: of a VLAN that the port is not in too"},
    {"binding bind", "ADDRESS", bindingBind, false,
     "put a binding in force"},
    {"binding unbind", "ADDRESS", bindingUnbind, false,
     "take a binding out of force; it becomes static"},
    {"binding delete", "ADDRESS", bindingDelete, false,
     "delete a binding"},
    {"guard interface", GUARD_ITEMS_IF, guardInterface, false,
     "IP source guard and ARP inspection on a port: items of a packet that must agree with a binding"},
    {"guard vlan", GUARD_ITEMS_VLAN, guardVlan, false,
     "the same in a VLAN, on ports without a setting of their own"},
    {"arp-inspection interface", CHECK_ITEMS_IF, arpInterface, false,
     "ARP inspection alone on a port: items of an ARP sender that must agree with a binding"},
    {"arp-inspection vlan", CHECK_ITEMS_VLAN, arpVlan, false,
     "the same in a VLAN, on ports without a setting of their own"},
    {"check", "FILE", checkConfig, false,
     "whether a configuration file is right"},
    {"diff", "[FILE]", diffConfig, false,
     "running values that the saved file, or FILE, does not want; status 1 if there are any"},
    {"apply", "FILE [confirm SECONDS]", applyConfig, false,
     "bring the file about, whole or not at all; unless confirmed in time, go back to what was"},
    {"confirm", "", confirmConfig, false,
     "keep what apply brought about"},
    {"save", "", saveConfig, false,
     "write the running configuration to the saved file"},
    {"rollback", "", reloadConfig, false,
     "back to the saved file"},
    {"reload", "", reloadConfig, false,
     "bring the saved file about, after a change"},
    {"metrics", "", showMetrics, true,
     "numbers for a monitoring system, as OpenMetrics text"},
    {"monitor", "[ADDRESS] [interface IFS] [vlan VIDS] [mac MAC] [type dynamic|static]", monitor, true,
     "print bindings as they come, are renewed and go, one line each, until interrupted"},
    {"clear statistics", "", clearStatistics, false,
     "set the drop counters of every interface to 0"},
    {"debug", "trace|dump on|off", changeDebug, false,
     "debug output of the daemon: decisions; frames in hexadecimal"},
    {"role", "master|slave|none", changeRole, false,
     "take over from the peer unit, stand by for it, or work alone; returns when in force"},
    {"platform release", "", platformRelease, false,
     "remove all that an ended daemon left in the kernel"},
    {"complete", "WORD...", complete, false,
     "print the possible next words (for shells)"},
    {"help", "[COMMAND...]", showHelp, false,
     "print this summary, or what a command takes; --help behind a command does the same"},
};
// clang-format on

// Before a command: a refusal is told with the name and code of its result too.
constexpr char VERBOSE[] = "-v";

Words splitWords(const std::string &text, char separator = ' ')
{
    Words words;
    std::istringstream stream(text);
    for (std::string word; std::getline(stream, word, separator);)
        words.push_back(word);
    return words;
}

// The row that the line begins with, and how many of its words are the row's; without a row the words that
// may come at that place.
struct Found {
    const Command *command = nullptr;
    size_t size = 0;
    Words next = {};
};

Found findRow(const Words &line)
{
    std::vector<const Command *> rows;
    for (const Command &command : COMMANDS)
        rows.push_back(&command);
    Found found;
    for (;; found.size++) {
        found.next.clear();
        for (const Command *row : rows)
            if (const Words words = splitWords(row->words);
                words.size() > found.size &&
                std::ranges::find(found.next, words[found.size]) == found.next.end())
                found.next.push_back(words[found.size]);
        if (found.next.empty())
            found.command = rows[0];
        const auto word =
            found.command || found.size == line.size() ? std::nullopt : meant(line[found.size], found.next);
        if (!word)
            return found;
        std::erase_if(rows, [&](const Command *row) { return splitWords(row->words)[found.size] != *word; });
    }
}

// The line does not name a command.
[[noreturn]] void throwUnknown(const Words &line, const Found &found)
{
    if (found.size == line.size())
        throw UsageError("'" + joinQuoted(line) + "' must be followed by one of: " + joinQuoted(found.next));
    throw UsageError("unknown command '" + joinQuoted(line) + "'" + suggestion(line[found.size], found.next) +
                     " (see dhcpsnoopctl help)");
}

Words behind(const Words &line, size_t size)
{
    return {line.begin() + static_cast<ptrdiff_t>(size), line.end()};
}

void printRow(std::ostream &out, const std::string &left, const std::string &help)
{
    constexpr size_t COLUMN = 34;
    out << "  " << left;
    if (left.size() + 2 < COLUMN)
        out << std::string(COLUMN - left.size() - 2, ' ');
    else
        out << '\n' << std::string(COLUMN, ' ');
    out << help << '\n';
}

void printSetting(std::ostream &out, const Setting &setting)
{
    printRow(out, std::string(setting.name) + ' ' + setting.arguments, setting.help);
}

void printSettings(std::ostream &out, const Scope &scope)
{
    for (const Setting &setting : scope.settings)
        if (canBeSet(setting))
            printSetting(out, setting);
}

// Ports of the switch; where they cannot be told, all interfaces.
Words interfaceNames()
{
    Words names = portNames();
    if (!names.empty())
        return names;
    struct if_nameindex *list = if_nameindex();
    for (struct if_nameindex *at = list; at && at->if_index != 0; at++)
        names.push_back(interfaceText(at->if_index));
    if (list)
        if_freenameindex(list);
    return names;
}

// None where the daemon cannot be asked.
Words bindingAddresses(const Daemon &daemon)
try {
    Words addresses;
    for (const Binding &binding : readBindings(daemon))
        addresses.push_back(userKeyText(binding.key));
    return addresses;
} catch (const CtlError &) {
    return {};
}

Words settingNames(const Scope &scope)
{
    Words names;
    for (const Setting &setting : scope.settings)
        if (canBeSet(setting))
            names.push_back(setting.name);
    return names;
}

// A value of the user's, not a word as it stands.
bool isPlace(const std::string &word)
{
    return word.find_first_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ.[]") != std::string::npos;
}

// The words that a place of a row's arguments stands for.
Words placeWords(const std::string &place, const Daemon &daemon)
{
    if (place == "IF" || place == "IFS")
        return interfaceNames();
    if (place == "ADDRESS")
        return bindingAddresses(daemon);
    Words words;
    for (const std::string &word : splitWords(place, '|'))
        if (!word.empty() && !isPlace(word))
            words.push_back(word);
    return words;
}

// What may come at place `at` of arguments such as "ADDRESS [mac MAC] [unbound]": in brackets a key and its
// value follow one another in any order.
Words argumentWords(const std::string &arguments, const Words &given, const Daemon &daemon)
{
    std::string required = arguments.substr(0, arguments.find('['));
    Words places = splitWords(required);
    if (given.size() < places.size())
        return placeWords(places[given.size()], daemon);
    Words keys;
    for (size_t open = required.size(); open < arguments.size(); open = arguments.find('[', open + 1)) {
        Words group = splitWords(arguments.substr(open + 1, arguments.find(']', open) - open - 1));
        bool isLast = given.size() > places.size() && given.back() == group[0];
        if (isLast && group.size() > 1)
            return placeWords(group[1], daemon);
        if (isPlace(group[0])) {
            const Words words = placeWords(group[0], daemon);
            keys.insert(keys.end(), words.begin(), words.end());
        } else if (std::find(given.begin(), given.end(), group[0]) == given.end()) {
            keys.push_back(group[0]);
        }
    }
    return keys;
}

// Behind a text no other setting is offered.
Words settingWords(const Scope &scope, const Words &given, const Daemon &daemon)
{
    if (given.empty())
        return &scope == &INTERFACE_SCOPE ? interfaceNames() : Words{};
    Words more; // of the last value
    for (size_t at = 1; at < given.size();) {
        const Setting *setting = findSetting(scope, given[at++]);
        if (!setting)
            return {};
        const Words value = behind(given, at);
        if (setting->kind == Kind::OptionText)
            return value.empty() ? Words{"template", "text", "hex", "generated", "global", "typed", "raw"}
                                 : Words{};
        const bool isRate = setting->kind == Kind::Rate && !value.empty();
        const size_t size = isRate ? rateSize(value) : setting->kind == Kind::Servers ? 2 : 1;
        if (value.size() < size)
            return argumentWords(setting->arguments, value, daemon);
        at += size;
        if (isRate && at == given.size() && isdigit(value[0][0]) != 0)
            more = argumentWords(setting->arguments, value, daemon);
    }
    const Words names = settingNames(scope);
    more.insert(more.end(), names.begin(), names.end());
    return more;
}

// Whether standard output is a pipe without a reader, as behind "| head".
bool isReaderGone()
{
    pollfd output = {STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLHUP)) != 0;
}

// A row of the table by itself, the rows that begin with the words, or a setting.
ExitStatus showHelp(const Context &context, std::span<const std::string> arguments)
{
    if (arguments.empty()) {
        printUsage(context.out);
        return EXIT_DONE;
    }
    const Words line(arguments.begin(), arguments.end());
    const Found found = findRow(line);
    if (!found.command && found.size != line.size())
        throwUnknown(line, found);
    const Words settings = behind(line, found.size);
    for (const Command &command : COMMANDS) {
        Words words = splitWords(command.words);
        words.resize(std::min(words.size(), found.size));
        bool shown = found.command ? &command == found.command : words.size() == found.size;
        for (size_t i = 0; i < found.size; i++)
            shown = shown && words[i].starts_with(line[i]);
        if (shown)
            context.out << "dhcpsnoopctl " << command.words << (*command.arguments ? " " : "")
                        << command.arguments << (command.shows ? " [--json]" : "") << "\n    " << command.help
                        << '\n';
    }
    const Scope *scope = !found.command                          ? nullptr
                         : found.command->run == changeInterface ? &INTERFACE_SCOPE
                         : found.command->run == changeVlan      ? &VLAN_SCOPE
                                                                 : nullptr;
    if (scope && (settings.empty() || !findSetting(*scope, settings.back())))
        printSettings(context.out, *scope);
    else if (scope)
        printSetting(context.out, *findSetting(*scope, settings.back()));
    return EXIT_DONE;
}

struct Line {
    bool json;
    const Command *command;
    Words arguments;
};

Line parseLine(Words line)
{
    if (!line.empty() && line[0] == VERBOSE)
        line.erase(line.begin());
    if (!line.empty() && line.back() == "--help") {
        line.pop_back();
        line.insert(line.begin(), "help");
    }
    Words plain = line;
    const bool json = std::erase(plain, "--json") > 0;
    if (plain.empty())
        plain = {"status"};
    Found found = findRow(plain);
    if (!found.command || !found.command->shows) {
        plain = line; // a text may be that word
        found = json ? findRow(plain) : found;
    }
    if (!found.command)
        throwUnknown(plain, found);
    constexpr Run TAKE_WORDS[] = {changeInterface, changeVlan, showHelp, complete}; // any
    if (json && !found.command->shows &&
        std::ranges::find(TAKE_WORDS, found.command->run) == std::end(TAKE_WORDS))
        throw UsageError(std::string(found.command->words) + " takes no --json");
    const Words arguments = behind(plain, found.size);
    if (!*found.command->arguments && !arguments.empty())
        throw UsageError(std::string(found.command->words) + " takes nothing more, but there is '" +
                         arguments[0] + "'");
    return {json && found.command->shows, found.command, arguments};
}

} // namespace

std::span<const Command> commands() { return COMMANDS; }

const Command *findCommand(const Words &line)
try {
    return parseLine(line).command;
} catch (const UsageError &) {
    return nullptr;
}

void printUsage(std::ostream &out)
{
    out << "Usage: dhcpsnoopctl [-v] COMMAND\n\nCommands:\n";
    for (const Command &command : COMMANDS)
        printRow(out, std::string(command.words) + (*command.arguments ? " " : "") + command.arguments,
                 command.help);
    out << "\nSettings of an interface (IF is a name or an index):\n";
    printSettings(out, INTERFACE_SCOPE);
    out << "\nSettings of a VLAN:\n";
    printSettings(out, VLAN_SCOPE);
    out << "\nIn a template stand for a property of the request, its port or the switch:\n";
    for (const Conversion &row : CONVERSIONS)
        printRow(out, std::string("%") + row.letter, row.help);
    out << "\nEvery show takes --json, wherever it stands, and so do status and monitor. A command may be cut short as long as it is clear.\n-v tells the name and code of a refusal. DHCPSNOOP_SOCKET names another socket than "
        << DHCPSNOOP_CONTROL_PATH
        << ".\nExit status: 0 done, 1 refused, 2 wrong usage, 3 no daemon that answers.\n";
}

Words completions(const Words &before, const Daemon &daemon)
try {
    if (!before.empty() && (before[0] == VERBOSE || before[0] == "help"))
        return completions(behind(before, 1), daemon);
    Words plain = before;
    std::erase(plain, "--json");
    const auto &[command, size, next] = findRow(plain);
    if (!command)
        return size == plain.size() ? next : Words{};
    const Words given = behind(plain, size);
    if (command->run == changeInterface)
        return settingWords(INTERFACE_SCOPE, given, daemon);
    if (command->run == changeVlan)
        return settingWords(VLAN_SCOPE, given, daemon);
    Words words = argumentWords(command->arguments, given, daemon);
    if (command->shows)
        words.push_back("--json");
    return words;
} catch (const CtlError &) {
    return {}; // nobody reads a message then
}

ExitStatus runClient(const Words &line, const Daemon &daemon, std::ostream &out, std::ostream &err)
{
    try {
        const auto [json, command, arguments] = parseLine(line);
        const bool terminal = &out == &std::cout && isatty(STDOUT_FILENO) == 1;
        const ExitStatus status = command->run({daemon, json, out, err, terminal}, arguments);
        if (!out.flush()) {
            if (isReaderGone())
                return EXIT_DONE; // it has read as much as it wants
            err << "dhcpsnoopctl: the output could not be written\n";
            return EXIT_REFUSED;
        }
        return status;
    } catch (const CtlError &error) {
        out.flush();
        err << "dhcpsnoopctl: " << error.what();
        if (!line.empty() && line[0] == VERBOSE && !error.detail().empty())
            err << " [" << error.detail() << ']';
        err << '\n';
        return error.status();
    }
}
