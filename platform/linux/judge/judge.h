// The judge of DHCP messages: it stands before the daemon's paths and lets no host take, end or move the
// binding of another. A trusted server's word counts only for the client whose transaction it answers.
//
//   names a bound address                verdict
//   its holder, at its place             passes
//   another client                       is dropped, unless a server has offered it the address
//   another client, with an offer        passes when the lease is over, else the holder is asked
//   the same client elsewhere            passes when the holder's port is dead, else the holder is asked
//
// The holder is asked at its own port; the message is dropped meanwhile, because clients repeat. It passes
// when nobody has answered. Nothing is allocated after the start, and no call waits. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "judge_switch.h"
#include "platform.h"

namespace platform_linux
{

class Judge
{
  public:
    // `bindings` is the daemon's room; the seed is a secret of this process.
    Judge(JudgeSwitch &around, uint32_t bindings, uint64_t seed);
    ~Judge();
    Judge(const Judge &) = delete;
    Judge &operator=(const Judge &) = delete;

    // As platform_message_judge. May put the binding of an acknowledged address right.
    bool passes(const DhcpsnoopPktInfo &info);
    void forget(); // everything

  private:
    class Records;
    std::unique_ptr<Records> records_;
};

} // namespace platform_linux
