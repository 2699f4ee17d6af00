// Descriptor 0, through which the daemon relays.
#pragma once

namespace platform_linux
{

// Descriptor 0 is a UDP socket bound to port 67 that receives nothing while a relay server is configured, so
// that a DHCP server on this machine has the port otherwise. Looks, at most every few milliseconds, whether
// that has changed. A port that somebody else has is reported once a minute and tried again every second;
// relayed requests report a send error until then. Called in every pass of the daemon's loop.
void relay_socket_follow();

} // namespace platform_linux
