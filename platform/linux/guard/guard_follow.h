// When the daemon is told of the guard's configuration, and when what was pending comes into force. For
// events.cpp, which knows when the daemon has handled what it was given.
#pragma once

#include "netlink.h"

namespace platform_linux
{

// The daemon's own configuration: reads it, and appends to `events`. Bindings that the daemon withdraws in
// handling them stay in force until it has handled them all.
void guard_follow(DaemonEvents &events);

// All that was appended has been handled by the daemon, its bindings are installed: what was pending comes
// into force. Does nothing when nothing was. Not to be called while a change of role is under way.
void guard_follow_handled();
// Whether that is due.
bool guard_follow_pending();

} // namespace platform_linux
