// The part of the platform's thread that follows the wall clock. The daemon's lease scan goes by it, so all
// leases would end when it is set ahead. The daemon is a standby, which does not scan, until it has its
// leases anew, each with the age that it had.
#include "unit_thread.h"

#include "report.h"

namespace platform_linux
{
namespace
{
constexpr int32_t FUTURE = 10; // seconds that are more than two readings of one clock apart
} // namespace

bool UnitThread::awaits_clock(const UnitTable::Held &held) const
{
    return clockWait_ != NEVER && held.place.earlierClock != 0 && !held.record.never_ends();
}

// A start in the future, by a clock that was set back since, would be years away.
void UnitThread::correct_start(UnitRecord &record)
{
    const uint32_t time = now().wall;
    if (!record.add || record.never_ends() || static_cast<int32_t>(record.leaseStart - time) < FUTURE)
        return;
    record.leaseStart = time;
    toDaemon_.push_back(record);
}

// A delete by a lease scan that came before the daemon was a standby.
bool UnitThread::lost_by_clock(const UnitRecord &record)
{
    const int32_t ahead = record.add ? 0 : shared_.clock.set_ahead();
    const UnitTable::Held *held = ahead > 0 ? table_.find(record) : nullptr;
    const uint32_t time = now().wall;
    return held != nullptr && !held->record.expired(time) &&
           held->record.expired(time + static_cast<uint32_t>(ahead));
}

// All that the daemon did as a master is in the queue.
void UnitThread::follow_clock()
{
    takeAt_ = 0;
    drain(ticks());
    step_ = Step::none;
    shared_.clockSeen = false;
    const ClockReading reading = clock_reading();
    const int32_t ahead = shared_.clock.set_ahead(reading);
    if (ahead == 0) // set back again
        return;
    for (UnitRecord &record : toDaemon_)
        if (!record.never_ends())
            record.leaseStart += static_cast<uint32_t>(ahead);
    const std::vector<UnitRecord> leases = table_.clock_set(ahead);
    toDaemon_.insert(toDaemon_.end(), leases.begin(), leases.end());
    line_up();
    if (lastCopy_ != 0)
        lastCopy_ += static_cast<uint32_t>(ahead);
    shared_.clock.follow(reading);
    journal_.renew();
    platform_report(LOG_NOTICE, "the clock was set %s by %d seconds: %zu leases keep their age",
                    ahead > 0 ? "ahead" : "back", std::abs(ahead), leases.size());
    if (clockWait_ != NEVER)
        accept_clock();
}

// The journal's leases come back. By a clock that is still behind them, they are as old as when the machine
// went down, at least.
void UnitThread::accept_clock()
{
    clockWait_ = NEVER;
    const uint32_t time = now().wall;
    const uint32_t behind = time < journal_.newest() ? journal_.newest() - time : 0;
    table_.clock_accept(behind);
    const size_t before = toDaemon_.size();
    const std::vector<UnitRecord> over = table_.expire_parked(time);
    for (const UnitRecord &record : over)
        note(record);
    look_for_ports();
    line_up();
    journal_.renew();
    platform_report(LOG_NOTICE, "journal: %zu leases are back, %zu ran out%s", toDaemon_.size() - before,
                    over.size(), behind != 0 ? "; the time without power is not known" : "");
}

void UnitThread::look_at_clock(Ticks now)
{
    if (step_ != Step::none)
        return;
    if (shared_.clock.set_ahead() != 0) {
        if (daemon_role() != DHCPSNOOP_ROLE_SLAVE)
            shared_.enforcement = Enforcement::refuseAdds;
        shared_.daemonRole = DHCPSNOOP_ROLE_SLAVE;
        step_ = Step::clock;
        daemon_.ask({FUNC_GLOBAL_GET, GLOBAL_USER_COUNT}, [this] { follow_clock(); });
    } else if (clockWait_ != NEVER && (now >= clockWait_ || this->now().wall >= journal_.newest())) {
        accept_clock();
    }
}

} // namespace platform_linux
