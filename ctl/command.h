// The table of commands, which is also usage and completion, and the functions behind it.
#pragma once

#include <iosfwd>
#include <optional>
#include <span>

#include "connection.h"
#include "setting.h"

// The surroundings of a command. Results go to `out`, diagnosis to `err`.
struct Context {
    const Daemon &daemon;
    bool json; // for commands that show
    std::ostream &out, &err;
    bool terminal = false; // out is one
};

// `arguments` follow the words of the command. Gives the exit status, or throws CtlError.
using Run = ExitStatus (*)(const Context &context, std::span<const std::string> arguments);

// In `arguments` small letters are typed as they stand; capitals (IF, SETTING) are the user's values; parts
// in square brackets are optional.
struct Command {
    const char *words, *arguments;
    Run run;
    bool shows; // takes --json, wherever it stands
    const char *help;
};
std::span<const Command> commands();
// The row that runClient runs for the line, or null.
const Command *findCommand(const Words &line);

// Runs a command line (without the program's name) and reports a failure on `err`.
ExitStatus runClient(const Words &line, const Daemon &daemon, std::ostream &out, std::ostream &err);

void printUsage(std::ostream &out);
// The possible words after `before`, in the order of their tables.
Words completions(const Words &before, const Daemon &daemon);

// show.cpp, binding_view.cpp
ExitStatus showInterfaces(const Context &, std::span<const std::string>);
ExitStatus showInterface(const Context &, std::span<const std::string>);
ExitStatus showVlans(const Context &, std::span<const std::string>);
ExitStatus showServers(const Context &, std::span<const std::string>);
ExitStatus showBindings(const Context &, std::span<const std::string>);
ExitStatus showGlobal(const Context &, std::span<const std::string>);
ExitStatus showStatistics(const Context &, std::span<const std::string>);

// change.cpp
ExitStatus changeInterface(const Context &, std::span<const std::string>);
ExitStatus changeVlan(const Context &, std::span<const std::string>);
ExitStatus changeSnooping(const Context &, std::span<const std::string>);
ExitStatus changeServerLearning(const Context &, std::span<const std::string>);
ExitStatus changeEnterpriseNumber(const Context &, std::span<const std::string>);
ExitStatus changeHardwareNotify(const Context &, std::span<const std::string>);
ExitStatus clearStatistics(const Context &, std::span<const std::string>);
ExitStatus changeDebug(const Context &, std::span<const std::string>);
ExitStatus bindingAdd(const Context &, std::span<const std::string>);
ExitStatus bindingBind(const Context &, std::span<const std::string>);
ExitStatus bindingUnbind(const Context &, std::span<const std::string>);
ExitStatus bindingDelete(const Context &, std::span<const std::string>);

// The ports of the switch; none where they cannot be told (guard.cpp).
Words portNames();
// Throws CtlError where the port is known to be no member of the VLAN (guard.cpp).
void checkVlanOfPort(uint32_t ifIndex, uint32_t vid);

// The limit of a port in force, and the messages beyond it; none for a device that is no port, and where it
// is not known (guard.cpp).
struct PortLimit {
    Rate rate;
    uint64_t dropped;
};
std::optional<PortLimit> readLimit(uint32_t ifIndex);
// Through the daemon's platform (config.cpp).
void changeLimit(const Target &target, const Setting &setting, const Value &value);

// platform.cpp, guard.cpp, monitor.cpp; without the Linux platform no_platform.cpp
// Where "snooping on" of the interface or VLAN means both IP versions: the interface, by index; else 0. The
// daemon begins with IPv4.
uint32_t interfaceOfBoth(const Target &target);
ExitStatus platformRelease(const Context &, std::span<const std::string>);
ExitStatus guardInterface(const Context &, std::span<const std::string>);
ExitStatus guardVlan(const Context &, std::span<const std::string>);
ExitStatus arpInterface(const Context &, std::span<const std::string>);
ExitStatus arpVlan(const Context &, std::span<const std::string>);
ExitStatus showGuard(const Context &, std::span<const std::string>);
ExitStatus monitor(const Context &, std::span<const std::string>);

// status.cpp, ports.cpp, metrics.cpp; without the Linux platform no_platform.cpp
ExitStatus showStatus(const Context &, std::span<const std::string>);
ExitStatus showPorts(const Context &, std::span<const std::string>);
ExitStatus showMetrics(const Context &, std::span<const std::string>);

// config.cpp; without the Linux platform no_platform.cpp
ExitStatus showConfig(const Context &, std::span<const std::string>);
ExitStatus checkConfig(const Context &, std::span<const std::string>);
ExitStatus diffConfig(const Context &, std::span<const std::string>);
ExitStatus applyConfig(const Context &, std::span<const std::string>);
ExitStatus confirmConfig(const Context &, std::span<const std::string>);
ExitStatus reloadConfig(const Context &, std::span<const std::string>);
ExitStatus saveConfig(const Context &, std::span<const std::string>);
ExitStatus changeProtection(const Context &, std::span<const std::string>);

// refusals.cpp, redundancy.cpp
ExitStatus showRefusals(const Context &, std::span<const std::string>);
ExitStatus showRedundancy(const Context &, std::span<const std::string>);
ExitStatus changeRole(const Context &, std::span<const std::string>);

// Words of `debug`, by bit of the debug flags.
constexpr Choice DEBUG_FLAGS[] = {
    {"trace", DHCPSNOOP_DEBUG_INFO},
    {"dump",  DHCPSNOOP_DEBUG_DUMP}
};
