// The judge's questions to holders of addresses, and their answers while these count.
//
//             ask               no answer in a second
//     free ---------> awaited -------------------------> silent: the claim is believed for 90 s
//                        |                                  |
//                        |  the holder answers              |  the holder speaks
//                        v                                  v
//                      heard: the claim is refused for 4 s from the question, or from the holder's word, on
#pragma once

#include <array>

#include "judge_switch.h"

namespace platform_linux
{

// Of a claim to an address.
enum class Verdict : uint8_t {
    his,     // or nobody's
    asked,   // the holder is asked
    refused, // another's
};

class Questions
{
  public:
    explicit Questions(JudgeSwitch &around) : around_(around) {}

    // As the answer says. Without one the holder is asked, where there is room for a question.
    Verdict ask(const JudgedClaim &claim, Ticks now);
    // A holder that speaks at its place has answered.
    void hear(const DhcpsnoopUserKey &address, Ticks now);
    void clear();

  private:
    struct Question {
        enum class State : uint8_t { free, awaited, silent, heard } state = State::free;
        Ticks asked = 0;
        JudgedClaim claim = {};
    };

    static constexpr Ticks HEARD = 4'000, SILENT = 90'000; // a renewing client repeats after a minute
    static constexpr Ticks LONG_AGO = -SILENT;

    void follow(Question &question);
    static bool counts(const Question &question, Ticks now);

    JudgeSwitch &around_;
    std::array<Question, JUDGE_QUESTIONS> questions_;
    Ticks latest_ = LONG_AGO;
};

} // namespace platform_linux
