// What must hold after every input, whatever it did.
#pragma once

#include <cstddef>
#include <cstdint>

// The daemon's tables: every node on exactly one list and linked both ways, pools conserved, interfaces
// ascending, keys unique, lengths within their texts. With `counts`, also that the user count of every
// interface is the number of dynamic bindings there are for it.
void invariants_check(bool counts);

// One frame as it left. `whole`: lengths and checksums of its IPv4 and UDP headers must be true.
void invariants_check_frame(const uint8_t *frame, size_t count, bool whole);
