// The daemon's own events for other programs: a local sequenced-packet socket, root's alone, on which every
// subscriber gets each record as one packet from the moment it is connected. Nobody can hold the daemon up:
// what a subscriber does not read in time it loses, and is told how much.
#pragma once

#include <cstddef>

#include "event_record.h"

namespace platform_linux
{

constexpr size_t SUBSCRIBERS_MAX = 16; // a connection beyond them is closed at once

// Makes the socket in place of one that an earlier run left, and its directory. 0 or an errno value; the
// platform then works without subscribers.
int subscribers_open(const char *path);
void subscribers_close();

// To everyone who is connected. Never waits, allocates nothing. 0, or ENOTCONN when there is no socket.
int subscribers_publish(const EventRecord &record);

} // namespace platform_linux
