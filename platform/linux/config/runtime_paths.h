// Where the daemon and its client meet while the daemon runs.
#pragma once

#include <string>

namespace platform_linux
{

// The platform's socket, or the one that the environment names.
const char *platform_socket_path();
// A file or socket beside the platform's socket: "config" takes requests, "candidate" is to be applied,
// "running" is in force, "bindings" hands out all bindings.
std::string config_runtime(const char *what);

} // namespace platform_linux
