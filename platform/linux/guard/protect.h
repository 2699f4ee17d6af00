// Protected bridges, for trap.cpp; the calls for others stand in guard.h. protect.cpp knows the model
// (model.h) and drives classifier.h, behind which a recorder stands in tests.
#pragma once

#include "model.h"

namespace platform_linux
{

// Once, after the guard is open and the model is loaded.
void protect_start();

// A port that receives itself is there or has changed: before the classifier is told of it.
void protect_port(const Port &port);

// It is no port any more.
void protect_port_gone(uint32_t ifIndex);

// While it is on, addresses of this host that come are told to the classifier at its end, all at once.
void protect_put_off(bool on);

} // namespace platform_linux
