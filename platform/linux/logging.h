// The daemon's own texts: to standard output, standard error and the system log.
#pragma once

namespace platform_linux
{

// From now on neither the standard streams (printf, perror, NM_DEBUG_OUTPUT) nor the system log are waited
// for.
void logging_start();

} // namespace platform_linux
