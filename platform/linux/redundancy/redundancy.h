// The peer unit and the journal, as the daemon's thread meets them: what it is told of its role, and where
// its records go. All of it returns at once. The work is done in a thread of its own (unit_thread.h).
#pragma once

#include <cstdint>

#include "netlink.h"
#include "platform.h"

namespace platform_linux
{

// Reads the redundancy file and the journal, and starts the thread. False when the daemon must not run; why
// is reported. The model is loaded by then.
bool redundancy_start();

// What the daemon is told of its role now. That of the configuration while the thread does not run.
DhcpsnoopRole redundancy_role();

// A packet of records that the daemon hands over for the peer. 0, or ENOTCONN when nobody wants it.
int32_t redundancy_sync(const QorBuffer &packet);

// Management changed a binding, of which the daemon makes no record: a full copy brings it.
void redundancy_binding_changed();

// How the daemon's bindings reach the data plane while a change of role is under way.
enum class Enforcement : uint8_t {
    normal,
    refuseAdds, // nothing is installed any more
    clearMarks, // nor taken out: only the daemon's marks go
};

// A binding is to be added or deleted: true when the data plane is not to be asked, and `result` is the
// answer.
bool redundancy_decides(const QorIfRequest &request, int32_t &result);

// A change of role is under way: what the daemon withdraws or means to install now is in the data plane, as
// it is to be, at its end only. The event socket becomes readable then.
bool redundancy_role_changes();

// The daemon withdraws or installs all its bindings, by its setting; told before it begins.
void redundancy_hw_notify();

// The daemon's event socket is there; and it is about to be read: may put an event in front of `events`.
void redundancy_event_socket(int sock);
void redundancy_events(DaemonEvents &events);

} // namespace platform_linux
