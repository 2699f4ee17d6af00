// A packet from the peer unit out of an input's bytes.
#pragma once

#include "frame.h"
#include "input.h"

// Some records of bindings and servers of the right form, unless they say otherwise.
Bytes packet_take(Input &input);
