// Which bindings the guard takes. A client that asks for an address gets a binding of 60 seconds in the
// daemon before any server has answered: installed, it would open the guard to whoever asks.
#pragma once

#include "platform.h"

namespace platform_linux
{

// The record, which the daemon is about to install, is of a dynamic binding that no server has acknowledged
// and management does not bind, and it checks the address. False for a record without an address: its binding
// cannot be told.
bool is_only_asked_for(const QorUserRecord &record);

} // namespace platform_linux
