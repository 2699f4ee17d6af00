// The desired state on the daemon's side: read at the start and on demand, brought about by management
// requests to the daemon in its own thread, between two events, and again for each port that appears or gets
// another name.
//
//            start, reload, apply                 port appears, renamed
//   file ─────────────────────────► Config ◄───────────────────────── switch model
//                                     │ reconcile
//                                     ▼
//                     requests to the daemon, the guard's maps
//
// A daemon without the file does as it is told by command, and nothing is made undone.
#pragma once

#include <cstdint>
#include <string>

#include "redundancy_conf.h"
#include "request.h"
#include "switch_conf.h"

namespace platform_linux
{

// What other rooms need of the file at the start.
struct ConfigStart {
    uint16_t bindings, interfaces; // room
    SwitchConf model;
    RedundancyConf redundancy;
};

// Reads the file of that directory (empty: config_path), in place of a wrong one the last good one. False,
// reported, for a wrong one without a last good one, and for a named directory that is not there: the daemon
// must not run. Called once, before any thread is there.
bool config_start(const std::string &directory, ConfigStart &start);

// The daemon is about to read events from this socket, and can be asked: the configuration is brought about
// from now on. Signals and requests are taken by a thread of its own: SIGHUP loads the file, SIGTERM and
// SIGINT end the process. `facts` gives more lines for the client's question about the daemon.
void config_begin(int socket, Exchange exchange, std::string (*facts)());

// Does a part of what is to be done, on the daemon's thread, when it has handled all events. True when the
// guard's configuration has changed.
bool config_work();
// Whether there is more to do.
bool config_pending();

} // namespace platform_linux
