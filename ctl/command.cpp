// The table of commands, and how a command line finds its row.
#include "command.h"

#include <algorithm>
#include <iostream>
#include <net/if.h>
#include <poll.h>
#include <sstream>
#include <unistd.h>

namespace
{

ExitStatus showUsage(const Context &context, std::span<const std::string>)
{
    printUsage(context.out);
    return EXIT_DONE;
}

ExitStatus complete(const Context &context, std::span<const std::string> arguments)
{
    for (const std::string &word : completions({arguments.begin(), arguments.end()}))
        context.out << word << '\n';
    return EXIT_DONE;
}

constexpr char BINDING_FILTERS[] =
    "[interface IF] [vlan VID] [mac MAC] [address ADDRESS] [type dynamic|static] [state STATE]";

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
     "relay servers of the interfaces"},
    {"show bindings", BINDING_FILTERS, showBindings, true,
     "bindings: address, MAC, VLAN, port, lease"},
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
    {"interface", "IF SETTING VALUE", changeInterface, false,
     "change a setting of an interface (see below)"},
    {"vlan", "VID SETTING VALUE", changeVlan, false,
     "change a setting of a VLAN (see below)"},
    {"snooping", "on|off", changeSnooping, false,
     "global mark (interfaces snoop by their own setting); off forgets interfaces, bindings, servers"},
    {"server-learning", "on|off", changeServerLearning, false,
     "remember the DHCP servers that answer"},
    {"hardware-notify", "on|off", changeHardwareNotify, false,
     "install bindings in the hardware; a change installs or withdraws all of them"},
    {"enterprise-number", "N", changeEnterpriseNumber, false,
     "IANA private enterprise number put into options 82, 125 and 37"},
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
    {"monitor", "", monitor, true,
     "print bindings as they come and go, one line each, until interrupted"},
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
    {"help", "", showUsage, false,
     "print this summary"},
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

bool startsWith(const Words &line, const Words &beginning)
{
    return line.size() >= beginning.size() && std::equal(beginning.begin(), beginning.end(), line.begin());
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

void printSettings(std::ostream &out, const Scope &scope)
{
    for (const Setting &setting : scope.settings)
        if (canBeSet(setting))
            printRow(out, std::string(setting.name) + ' ' + setting.arguments, setting.help);
}

Words interfaceNames()
{
    Words names;
    struct if_nameindex *list = if_nameindex();
    for (struct if_nameindex *at = list; at && at->if_index != 0; at++)
        names.push_back(interfaceText(at->if_index));
    if (list)
        if_freenameindex(list);
    return names;
}

Words settingNames(const Scope &scope)
{
    Words names;
    for (const Setting &setting : scope.settings)
        if (canBeSet(setting))
            names.push_back(setting.name);
    return names;
}

// The words that a place of a row's arguments stands for.
Words placeWords(const std::string &place)
{
    if (place == "IF")
        return interfaceNames();
    Words words;
    for (const std::string &word : splitWords(place, '|'))
        if (!word.empty() && word.find_first_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ.[]") == std::string::npos)
            words.push_back(word);
    return words;
}

// What may come at place `at` of arguments such as "ADDRESS [mac MAC] [unbound]": in brackets a key and its
// value follow one another in any order.
Words argumentWords(const std::string &arguments, const Words &given)
{
    std::string required = arguments.substr(0, arguments.find('['));
    Words places = splitWords(required);
    if (given.size() < places.size())
        return placeWords(places[given.size()]);
    Words keys;
    for (size_t open = required.size(); open < arguments.size(); open = arguments.find('[', open + 1)) {
        Words group = splitWords(arguments.substr(open + 1, arguments.find(']', open) - open - 1));
        bool isLast = given.size() > places.size() && given.back() == group[0];
        if (isLast && group.size() > 1)
            return placeWords(group[1]);
        if (std::find(given.begin(), given.end(), group[0]) == given.end())
            keys.push_back(group[0]);
    }
    return keys;
}

Words settingWords(const Scope &scope, const Words &given)
{
    if (given.empty())
        return &scope == &INTERFACE_SCOPE ? interfaceNames() : Words{};
    if (given.size() == 1)
        return settingNames(scope);
    const Setting *setting = findSetting(scope, given[1]);
    if (!setting)
        return {};
    if (setting->kind == Kind::OptionText)
        return given.size() == 2 ? Words{"template", "text", "hex", "generated", "global", "typed", "raw"}
                                 : Words{};
    return argumentWords(setting->arguments, {given.begin() + 2, given.end()});
}

// Whether standard output is a pipe without a reader, as behind "| head".
bool isReaderGone()
{
    pollfd output = {STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLHUP)) != 0;
}

} // namespace

std::span<const Command> commands() { return COMMANDS; }

const Command *findCommand(const Words &line)
{
    const Command *found = nullptr;
    size_t most = 0;
    for (const Command &command : COMMANDS) {
        Words words = splitWords(command.words);
        if (words.size() > most && startsWith(line, words)) {
            found = &command;
            most = words.size();
        }
    }
    return found;
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
    out << "\nEvery show takes --json, and so does monitor. -v tells the name and code of a refusal. DHCPSNOOP_SOCKET names another socket than "
        << DHCPSNOOP_SOCKET_PATH
        << ".\nExit status: 0 done, 1 refused, 2 wrong usage, 3 no daemon that answers.\n";
}

Words completions(const Words &before)
{
    if (!before.empty() && before[0] == VERBOSE)
        return completions({before.begin() + 1, before.end()});
    const Command *command = findCommand(before);
    if (!command) {
        Words next;
        for (const Command &row : COMMANDS) {
            Words words = splitWords(row.words);
            if (words.size() > before.size() && startsWith(words, before) &&
                std::find(next.begin(), next.end(), words[before.size()]) == next.end())
                next.push_back(words[before.size()]);
        }
        return next;
    }
    Words given(before.begin() + static_cast<ptrdiff_t>(splitWords(command->words).size()), before.end());
    if (command->run == changeInterface)
        return settingWords(INTERFACE_SCOPE, given);
    if (command->run == changeVlan)
        return settingWords(VLAN_SCOPE, given);
    Words next = argumentWords(command->arguments, given);
    if (command->shows)
        next.push_back("--json");
    return next;
}

ExitStatus runCommand(const Words &line, Context context)
{
    const Command *command = findCommand(line);
    if (!command)
        throw UsageError("unknown command '" + joinQuoted(line) + "' (see dhcpsnoopctl help)");
    Words arguments(line.begin() + static_cast<ptrdiff_t>(splitWords(command->words).size()), line.end());
    context.json = command->shows && std::erase(arguments, "--json") > 0;
    if (!*command->arguments && !arguments.empty())
        throw UsageError(std::string(command->words) + " takes nothing more, but there is '" + arguments[0] +
                         "'");
    return command->run(context, arguments);
}

ExitStatus runClient(Words line, const Daemon &daemon, std::ostream &out, std::ostream &err)
{
    const bool verbose = !line.empty() && line[0] == VERBOSE;
    if (verbose)
        line.erase(line.begin());
    try {
        if (line.empty())
            line = {"status"};
        const ExitStatus status = runCommand(line, {daemon, false, out, err});
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
        if (verbose && !error.detail().empty())
            err << " [" << error.detail() << ']';
        err << '\n';
        return error.status();
    }
}
