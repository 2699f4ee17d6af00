// Asks holders of addresses whether they are there, each out of its own port, and listens at that port alone:
// a host elsewhere cannot answer in its place. Two tries within a second, on a thread of its own.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "ask_frame.h"
#include "fd.h"
#include "judge_switch.h"

namespace platform_linux
{

class Asker
{
  public:
    using Heard = std::function<void(const JudgedClaim &)>;

    // `heard` is called on the thread when a holder has answered.
    explicit Asker(Heard heard) : heard_(std::move(heard)) {}
    bool start(); // false with errno

    // From the daemon's thread; neither waits.
    void ask(size_t number, const JudgedClaim &claim, const AskFrame &frame);
    // Without asking.
    void settle(size_t number, Answer answer);
    Answer answer(size_t number) const { return slots_[number].answer; }

  private:
    struct Slot {
        std::atomic<Answer> answer = Answer::silent;
        bool isNew = false; // under the mutex, as the next two
        JudgedClaim newClaim = {};
        AskFrame newFrame = {};
        JudgedClaim claim = {}; // of the thread, as all below
        AskFrame frame = {};
        Fd sock;
        Ticks due = NEVER;
        int tries = 0;
    };

    [[noreturn]] void run();
    void take_new();
    bool open(Slot &slot);
    void send(Slot &slot, Ticks now);
    bool hears(Slot &slot);
    void end(Slot &slot, Answer answer);

    Heard heard_;
    std::mutex mutex_;
    Fd wakeup_;
    std::array<Slot, JUDGE_QUESTIONS> slots_;
};

} // namespace platform_linux
