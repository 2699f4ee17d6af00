// Waking the daemon's thread through its event socket.
#pragma once

namespace platform_linux
{

// Makes the daemon's event socket readable, from any thread. False when it has no room.
bool wake_event_socket(int sock);

} // namespace platform_linux
