// What of the Linux platform the client handles beside the daemon.
#include <ostream>

#include "command.h"
#include "guard.h"
#include "model_now.h"

uint32_t interfaceOfBoth(const Target &target)
{
    const uint32_t number = std::get<uint32_t>(target.index);
    if (&target.scope == &INTERFACE_SCOPE)
        return number;
    for (const auto &[ifIndex, port] : portsNow(runningModel()))
        if (port.vlan == number)
            return ifIndex;
    return 0;
}

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
