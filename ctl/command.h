// The client's commands as one table, which is also its usage and its completion, and the functions behind
// it.
#pragma once

#include <iosfwd>
#include <span>

#include "setting.h"

// What a command works with. Results go to `out`, everything else to `err`.
struct Context {
    const Daemon &daemon;
    bool json; // wanted of a command that shows
    std::ostream &out, &err;
};

// `arguments` follow the words of the command. Gives the exit status, or throws CtlError.
using Run = ExitStatus (*)(const Context &context, std::span<const std::string> arguments);

// Small letters and words between bars in `arguments` are typed as they stand; IF, SETTING, VALUE and other
// capitals are what the user puts in; square brackets may be left out.
struct Command {
    const char *words, *arguments;
    Run run;
    bool shows; // takes --json
    const char *help;
};
std::span<const Command> commands();

// Runs one command line (without the program's name) and says on `err` why it failed.
ExitStatus runClient(const Words &line, const Daemon &daemon, std::ostream &out, std::ostream &err);

// The same with what is wrong thrown, as CtlError.
ExitStatus runCommand(const Words &line, Context context);

// Whether the line is one that a file may have: a command that makes a setting or a binding.
bool mayBeLoaded(const Words &line);

void printUsage(std::ostream &out);
// The words that may come after `before`, sorted by nothing but their tables.
Words completions(const Words &before);

// show.cpp, binding_view.cpp, show_config.cpp
ExitStatus showInterfaces(const Context &, std::span<const std::string>);
ExitStatus showInterface(const Context &, std::span<const std::string>);
ExitStatus showVlans(const Context &, std::span<const std::string>);
ExitStatus showServers(const Context &, std::span<const std::string>);
ExitStatus showBindings(const Context &, std::span<const std::string>);
ExitStatus showGlobal(const Context &, std::span<const std::string>);
ExitStatus showStatistics(const Context &, std::span<const std::string>);
ExitStatus showConfig(const Context &, std::span<const std::string>);

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

// load.cpp
ExitStatus load(const Context &, std::span<const std::string>);

// platform.cpp, guard.cpp, monitor.cpp; without the Linux platform no_platform.cpp
ExitStatus platformRelease(const Context &, std::span<const std::string>);
ExitStatus guardInterface(const Context &, std::span<const std::string>);
ExitStatus guardVlan(const Context &, std::span<const std::string>);
ExitStatus arpInterface(const Context &, std::span<const std::string>);
ExitStatus arpVlan(const Context &, std::span<const std::string>);
ExitStatus showGuard(const Context &, std::span<const std::string>);
ExitStatus monitor(const Context &, std::span<const std::string>);
// The commands that make what is configured of the guard; a note when that cannot be read.
void guardCommands(const Context &context, std::vector<Words> &lines);

// redundancy.cpp
ExitStatus showRedundancy(const Context &, std::span<const std::string>);
ExitStatus changeRole(const Context &, std::span<const std::string>);

// What `debug` switches, by bit of the debug flags.
constexpr Choice DEBUG_FLAGS[] = {
    {"trace", 0x01},
    {"dump",  0x02}
};
