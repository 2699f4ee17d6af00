// One run of the daemon in the tests' fake world, driven by the bytes of an input. A session begins in one of
// 256 prepared states, byte for byte the same every time, whatever ran before; then records are read from the
// input and played until it ends.
#pragma once

#include "input.h"

// Builds the world and all prepared states. Once, before the first session.
void session_prepare();

void session_begin(uint8_t preset);

// Each takes one record from the input.
void session_frame(Input &input);   // a frame, handed to dhcpsnoop_recv
void session_request(Input &input); // a request, handed to dhcpsnoop_cmd_process
void session_world(Input &input);   // something that the switch answers from now on, or time that passes

void session_end(); // the invariants
