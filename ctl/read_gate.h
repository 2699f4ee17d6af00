// Members of the group dhcpsnoop may read: systemd starts the client as root behind a socket that the group
// can open, and that client runs commands that only show.
#pragma once

#include <iosfwd>
#include <optional>

#include "command.h"

// The socket of dhcpsnoop-read.socket.
constexpr const char *READ_GATE_PATH = "/run/dhcpsnoop-read";

// Asks for a command line there and copies its results. Nothing when the line does more than show, or the
// socket cannot be opened. Throws NoDaemon when the answer is broken off.
std::optional<int> readThroughGate(const Words &line, std::ostream &out, std::ostream &err);

// Answers one such line on a connection. Waits a second for it at most.
ExitStatus serveReader(int connection, const Daemon &daemon);
