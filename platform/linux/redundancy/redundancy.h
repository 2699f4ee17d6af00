// The redundancy room: the daemon's bindings live on in the journal and in the peer unit, and the daemon gets
// its role. A unit is one of two machines that hold the same bindings. These functions are for the daemon's
// thread and never wait; a thread of the platform does the work (unit_thread.h).
#pragma once

#include <cstdint>

#include "netlink.h"
#include "platform.h"
#include "redundancy_conf.h"

namespace platform_linux
{

// Reads the journal and starts the thread. The model must be loaded. False, with a report, when the daemon
// must not run. The daemon has room for `bindings`, and takes requests at `commandSocket`.
bool redundancy_start(const RedundancyConf &conf, uint32_t bindings, const std::string &commandSocket);

// The daemon's role now. That of the configuration while the thread does not run.
DhcpsnoopRole redundancy_role();

// Takes a packet of the daemon's records. 0, or ENOTCONN while the thread does not run.
int32_t redundancy_sync(const QorBuffer &packet);

// Management changed a binding. The daemon makes no record of it, so a full copy follows.
void redundancy_binding_changed();

// True when the data plane must not get the daemon's request to add or delete a binding; `result` is the
// answer.
bool redundancy_decides(const QorIfRequest &request, int32_t &result);

// A change of role is under way: the data plane need not have the daemon's bindings before its end. The event
// socket becomes readable then.
bool redundancy_role_changes();

// The daemon is about to withdraw or install all its bindings, by its setting. True when the rules in force
// must stay until redundancy_takeover_ends: the daemon only clears its marks.
bool redundancy_takeover_begins();

// True, once, when all bindings are installed again: rules that none of them took over must go.
bool redundancy_takeover_ends();

// The daemon's event socket is open; and it is about to be read: may put an event in front of `events`.
void redundancy_event_socket(int sock);
void redundancy_events(DaemonEvents &events);

} // namespace platform_linux
