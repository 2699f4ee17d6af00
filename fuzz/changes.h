// What a switch may do to its daemon, out of an input's bytes.
#pragma once

#include "input.h"

// Time passes, or the world or the daemon's plain switches change. True when the switch refuses calls from
// now on.
bool change_take(Input &input);
