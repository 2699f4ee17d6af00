// The command socket: its transport (cmd_server.cpp) and its requests (cmd_process.cpp).
#pragma once

#include <cstdint>

// Serves one connection of the command socket whole. 0 when the reply went out in full, else -1.
int32_t dhcpsnoop_cmd_server(void);

// Executes the request in `buffer` and rewrites it as the reply. Gives the reply's length, 0 when it is no
// request. Never touches a byte beyond `length` (which is at most DHCPSNOOP_REQUEST_MAX), but for the 22
// bytes that answer an empty request.
uint32_t dhcpsnoop_cmd_process(uint8_t *buffer, uint32_t length);
