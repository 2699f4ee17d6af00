#include "questions.h"

#include <cstring>

namespace platform_linux
{
namespace
{

constexpr size_t PER_PORT = 8; // awaited, of claimants at one port

bool is_same(const DhcpsnoopUserKey &one, const DhcpsnoopUserKey &other)
{
    return memcmp(&one, &other, sizeof one) == 0;
}

bool is_same(const Host &one, const Host &other) { return one.place == other.place && one.mac == other.mac; }

bool is_same(const JudgedClaim &one, const JudgedClaim &other)
{
    return is_same(one.address, other.address) && is_same(one.holder, other.holder) &&
           is_same(one.claimant, other.claimant);
}

} // namespace

void Questions::follow(Question &question)
{
    if (question.state != Question::State::awaited)
        return;
    const Answer answer = around_.answer(static_cast<size_t>(&question - questions_.data()));
    if (answer != Answer::awaited)
        question.state = answer == Answer::heard ? Question::State::heard : Question::State::silent;
}

bool Questions::counts(const Question &question, Ticks now)
{
    const Ticks age = now - question.asked;
    return question.state == Question::State::awaited ||
           (question.state == Question::State::heard && age < HEARD) ||
           (question.state == Question::State::silent && age < SILENT);
}

Verdict Questions::ask(const JudgedClaim &claim, Ticks now)
{
    Question *room = nullptr;
    size_t awaited = 0;
    for (Question &question : questions_) {
        follow(question);
        if (counts(question, now) && is_same(question.claim, claim))
            return question.state == Question::State::awaited ? Verdict::asked
                   : question.state == Question::State::heard ? Verdict::refused
                                                              : Verdict::his;
        const bool isAwaited = question.state == Question::State::awaited;
        awaited += isAwaited && question.claim.claimant.place.ifIndex == claim.claimant.place.ifIndex;
        const bool isBetter = room == nullptr || question.state == Question::State::free ||
                              (room->state != Question::State::free && question.asked < room->asked);
        if (!isAwaited && isBetter)
            room = &question;
    }
    if (room != nullptr && awaited < PER_PORT) {
        *room = {Question::State::awaited, now, claim};
        latest_ = now;
        around_.ask(static_cast<size_t>(room - questions_.data()), claim);
    }
    return Verdict::asked;
}

void Questions::hear(const DhcpsnoopUserKey &address, Ticks now)
{
    if (now - latest_ >= SILENT) // none counts: most messages come by here
        return;
    for (Question &question : questions_)
        if (question.state != Question::State::free && is_same(question.claim.address, address)) {
            question.state = Question::State::heard;
            question.asked = now;
        }
}

void Questions::clear()
{
    questions_.fill({});
    latest_ = LONG_AGO;
}

} // namespace platform_linux
