// One dump of the kernel's tables, for the client. RFC 3549.
#pragma once

#include <cstddef>
#include <cstdint>

#include <libmnl/libmnl.h>

namespace platform_linux
{

constexpr size_t DUMP_BODY_MAX = 256;

// Asks over a socket of its own and calls `take` with `to` for each message. `type` is the request's, `body`
// its fixed part of `size` bytes, DUMP_BODY_MAX at most. False, with errno, when the kernel does not answer
// within two seconds, or has no such table.
bool kernel_dump(int protocol, uint16_t type, const void *body, size_t size, mnl_cb_t take, void *to);

} // namespace platform_linux
