// A full copy of the daemon's tables, on its way to the peer and the journal.
//
//            want             ask              begin
//    idle ---------> wanted ---------> asked ---------> open
//     ^                ^                 |                |
//     |                |   lost          |                |  end
//     |                +-----------------+----------------+
//     +---------------------------------------------------+
//
// A copy that is wanted while another one is asked or open follows that one: its end leads to `wanted`. So
// does an incomplete copy.
#pragma once

#include <cstdint>

#include "clock.h"

namespace platform_linux
{

class FullCopy
{
  public:
    bool is_idle() const { return state_ == State::idle; }
    bool is_open() const { return state_ == State::open; }

    void want()
    {
        again_ = again_ || state_ == State::asked || state_ == State::open;
        if (state_ == State::idle)
            state_ = State::wanted;
    }

    // True when a copy is wanted and its time has come: the caller asks the daemon.
    bool ask(Ticks now)
    {
        if (state_ != State::wanted || now < next_)
            return false;
        state_ = State::asked;
        wakeAt_ = now + PATIENCE;
        next_ = now + PERIOD;
        return true;
    }

    // True, once in a while, when the daemon has neither begun nor ended in time: the caller wakes it.
    bool is_late(Ticks now)
    {
        if ((state_ != State::asked && state_ != State::open) || now < wakeAt_)
            return false;
        wakeAt_ = now + PATIENCE;
        return true;
    }

    void begin(Ticks now)
    {
        again_ = again_ || state_ == State::wanted;
        state_ = State::open;
        next_ = now + PERIOD;
        wakeAt_ = now + PATIENCE;
    }

    // Records or the end are missing: all is copied once more.
    void lost() { finish(true); }

    void end(bool complete) { finish(!complete); }

    // The unit's role has changed: no copy is wanted, and the end of an open one means nothing.
    void forget()
    {
        state_ = State::idle;
        again_ = false;
    }

  private:
    static constexpr Ticks PERIOD = 1000;   // between two copies, at least
    static constexpr Ticks PATIENCE = 1000; // of the daemon

    enum class State : uint8_t { idle, wanted, asked, open };

    void finish(bool wanted)
    {
        state_ = wanted || again_ ? State::wanted : State::idle;
        again_ = false;
    }

    State state_ = State::idle;
    bool again_ = false;
    Ticks next_ = 0, wakeAt_ = 0;
};

} // namespace platform_linux
