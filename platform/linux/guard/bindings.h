// The daemon's bindings as rules of the guard, for trap.cpp; the calls for others stand in guard.h.
// bindings.cpp knows the model (model.h) and drives classifier.h, behind which a recorder stands in tests.
#pragma once

#include <cstdint>

#include "model.h"

namespace platform_linux
{

constexpr uint32_t RULES_OF_A_BINDING = 2; // IP source guard and ARP inspection

// Once, after the guard is open and the model is loaded: makes room for the rules of so many bindings.
void bindings_start(uint32_t bindings);

// Installs the rules of a port that is back. They follow the model by themselves, but are to be there before
// the port is guarded again.
void bindings_resume(const Port &port);

} // namespace platform_linux
