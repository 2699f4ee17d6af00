// The judge of DHCP messages in the daemon: made at the start, asked through platform.h.
#pragma once

#include <cstdint>

namespace platform_linux
{

// `bindings` is the daemon's room. False, reported, when the kernel gives no descriptor or no secret.
bool judgement_start(uint32_t bindings);

} // namespace platform_linux
