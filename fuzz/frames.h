// A frame and its packet information out of an input's bytes.
#pragma once

#include "dhcpsnoop.h"
#include "input.h"

// Fills in everything but `inIf`, which is the entry of the interface given back (0: none). `whole`: the
// frame's headers are true and the packet information says so.
uint32_t frame_take(Input &input, DhcpsnoopRxPkt *rx, bool *whole);
