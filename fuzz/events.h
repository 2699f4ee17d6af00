// A datagram of platform events out of an input's bytes.
#pragma once

#include "frame.h"
#include "input.h"

// Some messages of the right form, unless they say otherwise.
Bytes events_take(Input &input);
