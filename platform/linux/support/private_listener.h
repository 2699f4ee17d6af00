// The listening end of a local socket that only root may connect to.
#pragma once

#include "fd.h"

namespace platform_linux
{

// A socket of sequenced packets at `path`, which does not block, in place of one that an earlier run left.
// Its directory is made when it is missing. Owns nothing, with errno, when that fails; another file at `path`
// stays.
Fd private_listener(const char *path, int backlog);

} // namespace platform_linux
