// The start of the Linux platform, before the daemon opens anything.
#pragma once

#include <string>

namespace platform_linux
{

// 0, or the exit status when the daemon must not run: EX_CONFIG (sysexits.h) for a wrong file, which another
// attempt would not mend, else EXIT_FAILURE. The reason is on standard error and in the system log. Called by
// the daemon's first platform call of start-up.
int platform_linux_start();

// Before the start: keeps the second argument, the number of bindings. Ends the process after `--help` and
// `--version`, and for any other option with EX_USAGE. The only call that gets the arguments is
// qorCatchSegFault.
void arguments_take(int argc, char **argv);

// The capabilities that the daemon needs and does not have, as "CAP_NET_RAW (packet sockets), …"; empty when
// it has all.
std::string missing_capabilities();

} // namespace platform_linux
