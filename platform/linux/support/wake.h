// Waking the daemon's thread through its event socket.
#pragma once

namespace platform_linux
{

// Makes the daemon's event socket readable, from any thread. False when it has no room.
bool wake_event_socket(int sock);

// The same in a second or so: what the daemon's thread could not do now is tried again then.
void wake_event_socket_later(int sock);

// For the thread that looks once a second.
void wake_those_who_wait();

} // namespace platform_linux
