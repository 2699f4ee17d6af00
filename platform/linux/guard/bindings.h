// The daemon's bindings as rules of the guard: what of a binding record is checked, on which port, and which
// rule of the kernel each of them is behind. bindings.cpp knows the model (model.h) and drives guard.h,
// behind which a recorder stands in tests.
#pragma once

#include <cstdint>

#include "model.h"
#include "platform.h"

namespace platform_linux
{

constexpr uint32_t RULES_OF_A_BINDING = 2; // IP source guard and ARP inspection

// Once, after the guard is open and the model is loaded: makes room for the rules of so many bindings.
void bindings_start(uint32_t bindings);

// Adds or deletes the record of a request for port `ifIndex`. An add writes a handle into the record's
// identifier of its kind; the same binding given once more with that handle stays installed once, as the
// record says now. A delete takes what the handle stands for, nothing for 0, one that is spent or one of
// another host's binding, and is 0 then too.
//
// A member of an aggregate is not guarded itself: accepted, nothing is installed. So is an IPv6 binding for
// ARP inspection. Rules of a port that is away, or has become such a member, come back with it. EINVAL: no
// record of a binding, or one that checks nothing; ENODEV: no such port; ENOSPC: no room; EOPNOTSUPP: no
// eBPF.
int32_t binding_set(uint32_t ifIndex, const QorIfRequest *request);

// Installs the rules of a port that is back. They follow the model by themselves, but are to be there before
// the port is guarded again.
void bindings_resume(const Port &port);

// Why what is deleted stays in force for a while. Each ends for itself.
enum class Hold : uint8_t {
    checkItems = 1, // where they change, the daemon withdraws a binding before it installs it anew
    takeOver = 2,   // so it does with all when it gets a role
};

// While a hold is on, what is deleted stays in force until none is on any more, unless it was added once
// more.
void bindings_hold(Hold hold, bool on);

// Begins Hold::takeOver as if everything had been deleted in it: when it ends, only what was added since is
// left.
void bindings_hold_all();

} // namespace platform_linux
