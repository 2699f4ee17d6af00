// What of the Linux platform the client handles beside the daemon.
#include <ostream>

#include "command.h"
#include "guard.h"

const bool SNOOPS_BOTH_VERSIONS = true;

// Under a daemon that runs, or hangs, this would open every port to rogue servers.
ExitStatus platformRelease(const Context &context, std::span<const std::string>)
{
    if (isDaemonRunning(context.daemon))
        throw CtlError(EXIT_REFUSED, "platform release: a daemon is running; stop it first");
    std::string report;
    bool clean = platform_linux::trap_release(report);
    (clean ? context.out : context.err) << report;
    return clean ? EXIT_DONE : EXIT_REFUSED;
}
