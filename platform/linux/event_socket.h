// How the switch model gets its first picture of the kernel's devices; afterwards platform_event_recv keeps
// it.
#pragma once

#include "switch_model.h"

namespace platform_linux
{

// Dumps all links and bridge VLANs into the model, telling what changed against what it knew. False, with
// errno, when the kernel does not answer; the model is then as it was but for what the dump brought.
bool events_dump(SwitchModel &model, DaemonEvents &events);

} // namespace platform_linux
