// Messages, bindings and settings that were refused because a table is full, a limit is reached, a port is
// missing, or a sender may not say so: counted by reason and place, and logged with the remedy, each reason
// once a minute at most. The place is the interface by its name, because a tap that comes back has the same
// one. From any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "clock.h"

namespace platform_linux
{

enum class Refused : uint8_t {
    bindingsFull,   // no free entry for a binding or a waiting client
    usersLimit,     // the interface has max-users bindings
    noTrustedPort,  // no trusted port takes a client's message
    noRelayServer,  // the interface relays, and has no server
    interfacesFull, // no free entry for an interface that is to snoop
    guardFull,      // no room for a rule in the guard
    floodLimit,     // a VLAN has more ports than a flood reaches
    untrusted,      // a server's message came in on a port without trust
    clientChecks,   // a client's message contradicts its Ethernet source or its binding
    bindingTheft,   // a client's message claims an address or a transaction of another
    ambiguous,      // a client's message means one thing to the daemon and another to a server
    strayReply,     // a server's message would change a binding of a client that it does not answer
    dhcpRate,       // a port hands over more DHCP messages than its limit says
};
constexpr size_t REFUSALS = 13;

struct RefusalCount {
    const char *reason, *remedy; // "bindings-full"; a sentence for the operator
    std::string place;
    uint64_t total;    // since the daemon's start
    uint32_t lastHour; // up to now, by whole minutes
};

// Counts refusals. An empty place reads as REFUSAL_NO_PLACE. Allocates nothing.
void refusal_count(Refused reason, const char *where, Ticks now = ticks(), uint32_t number = 1);

// Logs the refusals of reasons whose minute is over. Called often; costs nothing when there are none.
void refusals_log(Ticks now = ticks());

// Each reason and place with a refusal, by reason.
std::vector<RefusalCount> refusals(Ticks now = ticks());

// The same as lines "REASON PLACE TOTAL LAST-HOUR REMEDY".
std::string refusals_text();

} // namespace platform_linux
