// A management request out of an input's bytes.
#pragma once

#include "input.h"
#include "world.h"

// Of the right form, unless the input says otherwise; then of any.
Bytes request_take(Input &input);
