// Events about bindings, to other features of the platform.
#pragma once

#include <cstdint>

// Publishes an event (188 user added, 189 user deleted) with its 48-byte body. The platform's result.
int32_t dhcpsnoop_notify_send(const uint8_t *body48, uint32_t event);
