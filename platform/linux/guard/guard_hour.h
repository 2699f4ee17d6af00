// The frames that the classifier refused in the last hour: its counters are read every few seconds, on a
// thread of its own, so that no frame waits for it.
#pragma once

#include <string>

namespace platform_linux
{

// On the daemon's thread, once. Does nothing without the guard's maps.
void guard_hour_start();

// Lines "guard-hour REASON COUNT PLACE": the number of a guard_reason, and an interface or REFUSAL_ELSEWHERE.
std::string guard_hour_text();

} // namespace platform_linux
