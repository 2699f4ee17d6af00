// Which bindings may open the guard: those that a server has acknowledged with a lease, and those that
// management binds. The daemon itself installs what a client has only asked for too: when a server answers
// without a lease (an INFORM, RFC 2131 4.3.5), when ARP inspection starts, and with all that there are.
// Whoever asks a server that is not there could send from any address then.
#pragma once

#include "platform.h"

namespace platform_linux
{

// Of a record that is to be added. Told by its address: false where that is not checked.
bool is_only_asked_for(const QorUserRecord &record);

// Management does something with a binding; told before the daemon does it. One that it binds is added
// whatever its state, once for each of the two features.
void management_acts(const DhcpsnoopUserKey &key, uint32_t code, const uint32_t *action);

} // namespace platform_linux
