// guard.bpf.c, compiled for this machine's byte order.
#pragma once

#include <cstddef>

extern "C" const unsigned char guard_object_begin[], guard_object_end[];

inline size_t guard_object_size() { return static_cast<size_t>(guard_object_end - guard_object_begin); }
