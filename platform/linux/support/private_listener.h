// The listening ends of local sockets that only root may connect to.
#pragma once

#include <sys/socket.h>

#include "fd.h"

namespace platform_linux
{

// A socket of sequenced packets, or a stream, at `path`, which does not block, in place of one that an
// earlier run of the same user left. Its directory is made when it is missing. Owns nothing, with errno, when
// that fails. Anything else at `path`, or another user's, stays: EADDRINUSE.
Fd private_listener(const char *path, int backlog, int type = SOCK_SEQPACKET);

// Removes the files of all of them that are still theirs. For the process's end, from any thread.
void private_listeners_unlink();

} // namespace platform_linux
