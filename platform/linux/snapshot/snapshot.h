// Lists the daemon's bindings for clients: its own thread writes them down between two events, without a
// lock, and a thread of this room serves the socket. snapshot_record.h says what a client gets.
#pragma once

#include <string>

namespace platform_linux
{

// Serves the socket at `path` from now on. `eventSocket` wakes the daemon's thread, whose pools are made.
void snapshot_start(const std::string &path, int eventSocket);

// On the daemon's thread. Allocates nothing; does nothing unless somebody asked.
void snapshot_take();

} // namespace platform_linux
