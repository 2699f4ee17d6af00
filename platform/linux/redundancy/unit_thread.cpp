#include "unit_thread.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <utility>

#include "dhcpsnoop_user.h"
#include "report.h"
#include "wake.h"
#include "wire.h"

namespace platform_linux
{
namespace
{
constexpr size_t HOLD_PEER = 4096; // records in line for the daemon
constexpr Ticks COPY_LOOK = 250;   // for a full copy's next step
constexpr Ticks GATHER = 10;       // changes that come closely are taken together
constexpr Ticks SYNC_AFTER = 400;  // from a record to its place on the disk, at most
constexpr Ticks EXPIRE_PERIOD = 60'000;
constexpr Ticks JOURNAL_RETRY = 10'000;
constexpr Ticks CLOCK_WAIT = 300'000;
} // namespace

void UnitShared::wake() const
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wakeup, &one, sizeof one); // full is awake too
}

void UnitShared::wake_daemon() const
{
    const int sock = eventSocket;
    if (sock >= 0)
        wake_event_socket(sock);
}

UnitThread::UnitThread(UnitShared &shared, DhcpsnoopRole role, std::string daemonSocket)
    : shared_(shared), role_(role), announced_(role), daemon_(std::move(daemonSocket)),
      control_([this](const std::string &request, ControlSocket::Answer answer) {
          control(request, std::move(answer));
      })
{
}

bool UnitThread::open_peer(const PeerConf &conf)
{
    link_.emplace(conf,
                  PeerLink::Handlers{[this] { return role_; }, [this] { peer_up(); }, [this] { peer_down(); },
                                     [this](const PeerFrame &frame) { peer_frame(frame); }});
    std::string error;
    if (!link_->start(error)) {
        platform_report(LOG_ERR, "%s", error.c_str());
        return false;
    }
    return true;
}

void UnitThread::open_journal(const std::string &path)
{
    std::string error;
    if (!journal_.open(path, now(), table_, error))
        platform_report(LOG_ERR, "bindings are not kept over a restart: %s", error.c_str());
}

void UnitThread::open_control(const char *path)
{
    std::string error;
    if (!control_.open(path, error))
        platform_report(LOG_WARNING, "the role cannot be changed at run time: %s", error.c_str());
}

DhcpsnoopRole UnitThread::daemon_role() const
{
    // A daemon without a role makes no records.
    return role_ == DHCPSNOOP_ROLE_NONE ? DHCPSNOOP_ROLE_MASTER : role_;
}

void UnitThread::line_up()
{
    // Chain by chain of the daemon's table: 32,768 bindings in any order took 0.6 to 4 s, as the caches
    // would.
    std::ranges::stable_sort(toDaemon_, {}, [](const UnitRecord &record) {
        const DhcpsnoopUserKey key = unit_to_user(record, 0).key;
        return dhcpsnoop_user_hash_key(&key);
    });
}

void UnitThread::begin()
{
    if (now().wall < journal_.newest()) {
        clockWait_ = ticks() + CLOCK_WAIT;
        platform_report(LOG_NOTICE,
                        "journal: its newest record is %u seconds ahead of the clock: leases wait until the "
                        "clock is set, 5 minutes at most",
                        journal_.newest() - now().wall);
    } else {
        table_.clock_accept(0);
    }
    const std::vector<UnitRecord> over = table_.expire_parked(now().wall);
    for (const UnitRecord &record : over)
        note(record);
    portsVersion_ = shared_.portsVersion;
    look_for_ports();
    const size_t parked = table_.held().size() - toDaemon_.size();
    line_up();
    replayed_ = !toDaemon_.empty();
    if (replayed_ || parked != 0 || !over.empty())
        platform_report(
            LOG_NOTICE,
            "journal: %zu bindings and servers, %zu wait for their port or the clock, %zu ran out",
            toDaemon_.size(), parked, over.size());
    advance();
}

// ---- the daemon's records

// Appends a change of the table to the journal.
void UnitThread::note(const UnitRecord &record)
{
    if (!journal_.is_open())
        return;
    const UnitTable::Held *held = table_.find(record);
    journal_.append(record, held != nullptr ? held->place : UnitPlace{}, now());
}

void UnitThread::copied(uint32_t records)
{
    lastCopy_ = now().wall;
    lastCopyCount_ = records;
}

void UnitThread::take_copy_end(bool complete)
{
    if (!copy_.is_open())
        return; // its beginning was lost, or the unit had another role then
    copy_.end(complete);
    if (!complete)
        return;
    const std::vector<UnitRecord> gone = table_.copy_end();
    for (const UnitRecord &record : gone)
        note(record);
    if (replayed_ && !gone.empty())
        platform_report(LOG_WARNING,
                        "the daemon has not taken %zu of the journal's records: is its table too small?",
                        gone.size());
    replayed_ = false;
    send_copy_end();
    copied(copyRecords_);
}

void UnitThread::take_record(Change change)
{
    if (lost_by_clock(change.record))
        return;
    correct_start(change.record);
    if (table_.apply(change.record, place_of_daemons(change)))
        note(change.record);
    send_record(unit_encode(change.record, now().wall));
    copyRecords_++;
}

void UnitThread::take_change(const Change &change, Ticks now)
{
    switch (change.kind) {
    case Change::Kind::record:
        take_record(change);
        break;
    case Change::Kind::copyBegin:
        if (role_ == DHCPSNOOP_ROLE_SLAVE)
            break;
        table_.copy_begin();
        copy_.begin(now);
        copyRecords_ = 0;
        send_copy_begin();
        break;
    case Change::Kind::copyEnd:
        take_copy_end(change.record.add);
        break;
    }
}

void UnitThread::drain(Ticks now)
{
    if (moreChanges_ && now < takeAt_)
        return;
    const ChangeQueue::Taken taken = shared_.changes.take();
    moreChanges_ = !taken.changes.empty();
    takeAt_ = now + GATHER;
    for (const Change &change : taken.changes)
        take_change(change, now);
    if (taken.dropped != 0) {
        dropped_ += taken.dropped;
        copy_.lost();
    }
}

void UnitThread::ask_for_copy(Ticks now)
{
    if (shared_.bindingChanged.exchange(false) ||
        (copy_.is_idle() && peerBehind_ && link_ && link_->is_idle()))
        copy_.want();
    if (shared_.daemonRole != DHCPSNOOP_ROLE_MASTER || step_ != Step::none || shared_.eventSocket < 0)
        return;
    const bool asks = copy_.ask(now);
    if (asks)
        shared_.copyWanted = true;
    if (asks || copy_.is_late(now))
        shared_.wake_daemon();
}

// ---- the loop

void UnitThread::write_journal(Ticks now)
{
    if (!journal_.is_open())
        return;
    const bool waits = dirtySince_ != NEVER && now < dirtySince_ + JOURNAL_RETRY;
    if (journal_.has_failed() ? waits : !journal_.is_dirty()) {
        if (!journal_.has_failed())
            dirtySince_ = NEVER;
        return;
    }
    if (dirtySince_ == NEVER || journal_.has_failed())
        dirtySince_ = now;
    const bool sync = now - dirtySince_ >= SYNC_AFTER;
    journal_.write(table_, this->now(), sync);
    if (sync || journal_.has_failed())
        dirtySince_ = journal_.has_failed() ? now : NEVER;
}

void UnitThread::turn()
{
    Ticks now = ticks();
    const uint32_t version = shared_.portsVersion;
    if (version != portsVersion_)
        takeAt_ = now; // the daemon's deletes for a port that has gone come first
    drain(now);
    if (std::exchange(portsVersion_, version) != version)
        look_for_ports();
    look_at_clock(now);
    advance();
    ask_for_copy(now);
    if (now >= expireAt_) {
        expireAt_ = now + EXPIRE_PERIOD;
        forget_waiting();
    }
    write_journal(now);
    if (link_)
        link_->hold(toDaemon_.size() > HOLD_PEER);

    Ticks deadline = std::min({now + EXPIRE_PERIOD, clockWait_, daemon_.deadline(), control_.deadline()});
    if (link_)
        deadline = std::min(deadline, link_->deadline());
    if (moreChanges_)
        deadline = std::min(deadline, takeAt_);
    if (dirtySince_ != NEVER)
        deadline = std::min(deadline, dirtySince_ + (journal_.has_failed() ? JOURNAL_RETRY : SYNC_AFTER));
    if (!copy_.is_idle() || peerBehind_)
        deadline = std::min(deadline, now + COPY_LOOK);

    std::vector<pollfd> descriptors = {
        {shared_.wakeup, POLLIN, 0},
        daemon_.watch()
    };
    control_.watch(descriptors);
    if (link_)
        link_->watch(descriptors);
    const Ticks wait = std::clamp<Ticks>(deadline - now, 0, EXPIRE_PERIOD);
    poll(descriptors.data(), descriptors.size(), static_cast<int>(wait));

    now = ticks();
    if (descriptors[0].revents != 0) {
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t got = read(shared_.wakeup, &count, sizeof count);
    }
    daemon_.serve(descriptors[1].revents, now);
    control_.serve(descriptors, now);
    if (link_)
        link_->serve(descriptors, now);
}

void UnitThread::run()
{
    for (;;)
        turn();
}

} // namespace platform_linux
