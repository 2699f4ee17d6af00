// Whether bindings are protected from other hosts (judge.h): set by the configuration, read for each message.
#pragma once

#include <atomic>

namespace platform_linux
{

inline std::atomic<bool> protectionIsStrict = true;

inline const char *protection_word(bool isStrict) { return isStrict ? "strict" : "as-asked"; }

} // namespace platform_linux
