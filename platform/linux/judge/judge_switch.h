// The switch around the judge: what it asks, and whom it tells.
#pragma once

#include <cstddef>
#include <cstdint>

#include "clock.h"
#include "dhcpsnoop.h"
#include "host.h"
#include "refusals.h"

namespace platform_linux
{

// A host that claims an address, or a transaction, of another.
struct JudgedClaim {
    DhcpsnoopUserKey address; // ipType 0: none
    Host claimant, holder;
};

constexpr size_t JUDGE_QUESTIONS = 64; // to holders, at a time

enum class Answer : uint8_t { awaited, heard, silent };

// What the judge needs besides the daemon's tables.
class JudgeSwitch
{
  public:
    virtual ~JudgeSwitch() = default;
    // Whether a host can be there: the port is up and in the VLAN.
    virtual bool is_alive(const HostPlace &place) const = 0;
    // Asks the claim's holder for the address. `number` is below JUDGE_QUESTIONS, and may have been used.
    virtual void ask(size_t number, const JudgedClaim &claim) = 0;
    virtual Answer answer(size_t number) const = 0;
    virtual void refuse(Refused reason, const JudgedClaim &claim) = 0;
    virtual Ticks now() const = 0;
};

} // namespace platform_linux
