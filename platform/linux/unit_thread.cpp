#include "unit_thread.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "logging.h"
#include "management.h"
#include "wire.h"

namespace platform_linux
{
namespace
{
constexpr size_t PACKET_MAX = 1400;   // of records for the daemon, as it makes them itself
constexpr size_t HOLD_PEER = 4096;    // records in line for the daemon
constexpr Ticks COPY_PERIOD = 1000;   // at least between two full copies
constexpr Ticks COPY_PATIENCE = 1000; // then the daemon is woken again
constexpr Ticks GATHER = 10;          // changes that come closely are taken together
constexpr Ticks SYNC_AFTER = 400;     // from a record to its place on the disk, at most
constexpr Ticks EXPIRE_PERIOD = 60'000;
constexpr Ticks JOURNAL_RETRY = 10'000;
constexpr uint32_t ON = 1, OFF = 0;

const char *role_text(DhcpsnoopRole role)
{
    constexpr const char *TEXTS[] = {"none", "master", "slave"};
    return TEXTS[role];
}

std::optional<DhcpsnoopRole> role_of(const std::string &text)
{
    for (const DhcpsnoopRole role : {DHCPSNOOP_ROLE_NONE, DHCPSNOOP_ROLE_MASTER, DHCPSNOOP_ROLE_SLAVE})
        if (text == role_text(role))
            return role;
    return {};
}
} // namespace

void UnitShared::wake() const
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wakeup, &one, sizeof one); // full is awake too
}

// An empty request that asks for its acknowledgement, as events.cpp sends it.
void UnitShared::wake_daemon() const
{
    nlmsghdr request{};
    request.nlmsg_len = sizeof request;
    request.nlmsg_type = NLMSG_NOOP;
    request.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const int sock = eventSocket;
    if (sock >= 0)
        sendto(sock, &request, sizeof request, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&kernel),
               sizeof kernel);
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
    if (!journal_.open(path, wall_clock(), table_, error))
        platform_report(LOG_ERR, "bindings are not kept over a restart: %s", error.c_str());
}

void UnitThread::open_control(const std::string &path)
{
    std::string error;
    if (!control_.open(path, error))
        platform_report(LOG_WARNING, "the role cannot be changed at run time: %s", error.c_str());
}

DhcpsnoopRole UnitThread::daemon_role() const
{
    // A daemon without a role makes no records, and the journal wants them.
    return role_ == DHCPSNOOP_ROLE_NONE && journal_.is_open() ? DHCPSNOOP_ROLE_MASTER : role_;
}

std::optional<uint32_t> UnitThread::port_index(const char *port) const
{
    if (*port == 0)
        return 0;
    const auto it = ports_.find(std::string_view(port));
    return it != ports_.end() ? std::optional(it->second) : std::nullopt;
}

void UnitThread::begin()
{
    shared_.recording = journal_.is_open() || link_;
    const uint32_t now = wall_clock();
    look_for_ports();
    std::vector<UnitRecord> over;
    size_t parked = 0;
    for (auto &[key, held] : table_.held()) {
        if (held.record.expired(now)) {
            over.push_back(held.record);
            continue;
        }
        held.parked = !port_index(held.record.port);
        if (held.parked)
            parked++;
        else
            toDaemon_.push_back(held.record);
    }
    for (UnitRecord &record : over) {
        record.add = false;
        table_.apply(record);
        note(record);
    }
    replayed_ = !toDaemon_.empty();
    if (replayed_ || parked != 0 || !over.empty())
        platform_report(LOG_NOTICE, "journal: %zu bindings and servers, %zu wait for their port, %zu ran out",
                        toDaemon_.size(), parked, over.size());
    advance();
}

// ---- the daemon's records

void UnitThread::send_record(const UnitBytes &bytes)
{
    if (role_ != DHCPSNOOP_ROLE_MASTER || !link_ || !link_->is_up())
        return;
    if (!peerBehind_ && link_->send(PeerMessage::record, bytes)) {
        sent_++;
        return;
    }
    dropped_++;
    peerBehind_ = true;
    copyForPeer_ = false;
}

// Into the journal, what the table has taken in or forgotten.
void UnitThread::note(const UnitRecord &record)
{
    if (journal_.is_open())
        journal_.append(unit_encode(record, wall_clock()));
}

void UnitThread::take_copy_end(bool complete)
{
    copyOpen_ = false;
    copyAsked_ = false;
    if (copyBroken_ || !complete) {
        copyNeeded_ = true;
        return;
    }
    const std::vector<UnitRecord> gone = table_.copy_end();
    for (const UnitRecord &record : gone)
        note(record);
    if (replayed_ && !gone.empty())
        platform_report(LOG_WARNING,
                        "the daemon has not taken %zu of the journal's records: is its table too small?",
                        gone.size());
    replayed_ = false;
    if (copyForPeer_) {
        uint8_t count[4];
        wire_put32(count, copyCount_);
        link_->send(PeerMessage::copyEnd, count);
    }
    copyForPeer_ = false;
    lastCopy_ = wall_clock();
    lastCopyCount_ = copyCount_;
}

void UnitThread::take_record(const UnitRecord &record)
{
    const UnitBytes bytes = unit_encode(record, wall_clock());
    if (table_.apply(record))
        journal_.append(bytes);
    send_record(bytes);
    copyCount_++;
}

void UnitThread::take_change(const Change &change, Ticks now)
{
    switch (change.kind) {
    case Change::Kind::record:
        take_record(change.record);
        break;
    case Change::Kind::copyBegin:
        table_.copy_begin();
        copyOpen_ = true;
        copyBroken_ = false;
        copyCount_ = 0;
        copyNext_ = now + COPY_PERIOD;
        peerBehind_ = false;
        copyForPeer_ = role_ == DHCPSNOOP_ROLE_MASTER && link_ && link_->send(PeerMessage::copyBegin);
        break;
    case Change::Kind::copyEnd:
        take_copy_end(change.record.add);
        break;
    }
}

void UnitThread::drain(Ticks now)
{
    const ChangeQueue::Taken taken = shared_.changes.take();
    moreChanges_ = !taken.changes.empty();
    for (const Change &change : taken.changes)
        take_change(change, now);
    if (taken.dropped != 0) {
        dropped_ += taken.dropped;
        copyBroken_ = true;
        copyNeeded_ = true;
        copyOpen_ = false; // its end may be among what was lost
        copyAsked_ = false;
    }
}

void UnitThread::ask_for_copy(Ticks now)
{
    if (shared_.bindingChanged.exchange(false))
        copyNeeded_ = true;
    if (peerBehind_ && link_ && link_->is_idle())
        copyNeeded_ = true;
    if (shared_.daemonRole != DHCPSNOOP_ROLE_MASTER || !shared_.recording || busy_)
        return;
    if (copyAsked_) {
        if (now - copyAskedAt_ >= COPY_PATIENCE) {
            copyAskedAt_ = now;
            shared_.wake_daemon();
        }
        return;
    }
    if (!copyNeeded_ || now < copyNext_ || shared_.eventSocket < 0)
        return;
    copyNeeded_ = false;
    copyAsked_ = true;
    copyAskedAt_ = now;
    copyNext_ = now + COPY_PERIOD;
    shared_.copyWanted = true;
    shared_.wake_daemon();
}

// ---- the daemon's role

void UnitThread::deliver()
{
    uint8_t packet[PACKET_MAX];
    size_t used = 0;
    while (!toDaemon_.empty()) {
        const UnitRecord &record = toDaemon_.front();
        const auto ifIndex = port_index(record.port);
        const size_t size = record.type == SYNC_USER ? sizeof(SyncUserRecord) : sizeof(SyncServerRecord);
        if (used + size > sizeof packet)
            break;
        if (record.type == SYNC_USER && (ifIndex || !record.add)) {
            const SyncUserRecord user = unit_to_user(record, ifIndex.value_or(0));
            memcpy(packet + used, &user, size);
            used += size;
        } else if (record.type == SYNC_SERVER && ifIndex) {
            const SyncServerRecord server = unit_to_server(record, *ifIndex);
            memcpy(packet + used, &server, size);
            used += size;
        }
        toDaemon_.pop_front();
    }
    if (used == 0)
        return;
    busy_ = true;
    daemon_.set_bytes(GLOBAL_SYNC_PACKET, {packet, used}, [this](bool) { busy_ = false; });
}

// All bindings are withdrawn, and none is added any more before the daemon is a standby: what it forgets as
// such it would not withdraw. The setting acts when it changes only, so it is set first.
void UnitThread::stand_by()
{
    busy_ = true;
    shared_.enforcement = Enforcement::refuseAdds;
    daemon_.set_number(GLOBAL_HW_NOTIFY, ON, [](bool) {});
    daemon_.set_number(GLOBAL_HW_NOTIFY, OFF, [this](bool) {
        shared_.daemonRole = DHCPSNOOP_ROLE_SLAVE;
        shared_.enforcement = Enforcement::normal;
        busy_ = false;
    });
}

// Installs what is not installed: all bindings of a unit that stood by, whose marks are false and cleared
// first; those that were delivered for a port that came, beside others that stay as they are. The setting
// acts when it changes only, so it is set first, to no effect.
void UnitThread::take_over(DhcpsnoopRole target)
{
    const Enforcement clearing = marked_ ? Enforcement::ignoreDeletes : Enforcement::refuseDeletes;
    const bool empty = fresh_ && !replayed_;
    if (!empty)
        shared_.enforcement = Enforcement::refuseAdds;
    shared_.daemonRole = target;
    marked_ = false;
    copyNeeded_ = copyNeeded_ || shared_.recording;
    if (empty)
        return;
    busy_ = true;
    daemon_.set_number(GLOBAL_HW_NOTIFY, ON, [this, clearing](bool) {
        shared_.enforcement = clearing;
        daemon_.set_number(GLOBAL_HW_NOTIFY, OFF, [this](bool) {
            shared_.enforcement = Enforcement::normal;
            daemon_.set_number(GLOBAL_HW_NOTIFY, ON, [this](bool) { busy_ = false; });
        });
    });
}

void UnitThread::settle()
{
    for (const ControlSocket::Answer &answer : waiting_)
        answer("ok");
    waiting_.clear();
    if (announced_ == role_)
        return;
    announced_ = role_;
    if (!link_ || !link_->is_up())
        return;
    link_->send_role();
    request_copy();
}

// One step towards the role that is wanted, when none is under way.
void UnitThread::advance()
{
    while (!busy_) {
        const DhcpsnoopRole target = daemon_role();
        const DhcpsnoopRole now = shared_.daemonRole;
        if (!toDaemon_.empty() && (now == DHCPSNOOP_ROLE_SLAVE || target != DHCPSNOOP_ROLE_SLAVE)) {
            shared_.daemonRole = DHCPSNOOP_ROLE_SLAVE; // for a moment: a port came whose bindings waited
            deliver();
        } else if (now != target) {
            if (target == DHCPSNOOP_ROLE_SLAVE)
                stand_by();
            else if (now == DHCPSNOOP_ROLE_SLAVE)
                take_over(target);
            else
                shared_.daemonRole = target;
            fresh_ = false;
        } else {
            fresh_ = false;
            marked_ = marked_ || now == DHCPSNOOP_ROLE_SLAVE;
            settle();
            break;
        }
    }
}

void UnitThread::look_for_ports()
{
    const uint32_t version = shared_.portsVersion;
    if (version == portsVersion_)
        return;
    {
        const std::scoped_lock lock(shared_.portsMutex);
        ports_ = shared_.ports;
    }
    portsVersion_ = version;
    if (fresh_)
        return;
    for (auto &[key, held] : table_.held()) {
        if (!held.parked || !port_index(held.record.port))
            continue;
        held.parked = false;
        toDaemon_.push_back(held.record);
    }
}

// ---- the peer's records

void UnitThread::request_copy()
{
    if (role_ == DHCPSNOOP_ROLE_SLAVE && link_ && link_->is_up() &&
        link_->peer_role() == DHCPSNOOP_ROLE_MASTER)
        link_->send(PeerMessage::copyRequest);
}

void UnitThread::peer_up()
{
    peerBehind_ = false;
    copyForPeer_ = false;
    if (role_ == DHCPSNOOP_ROLE_MASTER)
        copyNeeded_ = true;
    if (role_ == DHCPSNOOP_ROLE_MASTER && link_->peer_role() == DHCPSNOOP_ROLE_MASTER)
        platform_report(LOG_WARNING, "the peer unit is master too: neither takes the other's bindings");
}

void UnitThread::peer_down()
{
    copyForPeer_ = false;
    peerBehind_ = false;
    if (role_ == DHCPSNOOP_ROLE_SLAVE)
        copyOpen_ = false;
}

// What has no port here waits for it.
void UnitThread::bring(const UnitRecord &record)
{
    const bool parked = record.add && !port_index(record.port);
    if (table_.apply(record, parked))
        note(record);
    if (!parked)
        toDaemon_.push_back(record);
}

void UnitThread::peer_record(const PeerFrame &frame)
{
    if (role_ != DHCPSNOOP_ROLE_SLAVE)
        return;
    auto record = unit_decode(frame.payload, wall_clock(), UnitClock::peers);
    copyCount_++;
    if (!record) {
        dropped_++;
        return;
    }
    received_++;
    // Two clocks do not tick together: what is the same but for that is the same.
    if (const auto it = table_.held().find(unit_key(*record)); it != table_.held().end()) {
        const int32_t apart = static_cast<int32_t>(record->leaseStart - it->second.record.leaseStart);
        if (apart >= -1 && apart <= 1)
            record->leaseStart = it->second.record.leaseStart;
    }
    bring(*record);
}

void UnitThread::peer_copy_end(const PeerFrame &frame)
{
    if (role_ != DHCPSNOOP_ROLE_SLAVE || !copyOpen_)
        return;
    copyOpen_ = false;
    if (wire_get32(frame.payload.data()) != copyCount_) {
        request_copy();
        return;
    }
    for (const UnitRecord &record : table_.copy_end()) {
        note(record);
        toDaemon_.push_back(record);
    }
    lastCopy_ = wall_clock();
    lastCopyCount_ = copyCount_;
}

void UnitThread::peer_frame(const PeerFrame &frame)
{
    switch (frame.type) {
    case PeerMessage::hello: // the role of a peer that goes on; a new master copies by itself
        break;
    case PeerMessage::record:
        peer_record(frame);
        break;
    case PeerMessage::copyBegin:
        if (role_ != DHCPSNOOP_ROLE_SLAVE)
            break;
        table_.copy_begin();
        copyOpen_ = true;
        copyCount_ = 0;
        break;
    case PeerMessage::copyEnd:
        peer_copy_end(frame);
        break;
    case PeerMessage::copyRequest:
        if (role_ == DHCPSNOOP_ROLE_MASTER)
            copyNeeded_ = true;
        break;
    case PeerMessage::alive:
        break;
    }
}

// ---- control

std::string UnitThread::status() const
{
    const uint32_t now = wall_clock();
    std::string text;
    const auto line = [&text](const char *name, const std::string &value) {
        text += std::string(name) + " " + value + "\n";
    };
    const auto number = [&line](const char *name, uint64_t value) { line(name, std::to_string(value)); };
    line("role", role_text(role_));
    if (link_) {
        line("peer", link_->address());
        line("link", link_->is_up() ? "up" : "down");
        if (link_->is_up())
            line("peer-role", role_text(link_->peer_role()));
        else if (!link_->trouble().empty())
            line("trouble", link_->trouble());
    }
    number("sent", sent_);
    number("received", received_);
    number("dropped", dropped_);
    if (lastCopy_ != 0) {
        number("last-copy", now - lastCopy_);
        number("last-copy-records", lastCopyCount_);
    }
    size_t parked = 0;
    for (const auto &[key, held] : table_.held())
        parked += held.parked ? 1 : 0;
    number("without-port", parked);
    if (journal_.is_open()) {
        line("journal", journal_.path());
        line("journal-state", journal_.has_failed() ? "failed" : "written");
        number("journal-size", journal_.size());
        number("journal-records", journal_.records());
        number("journal-age", now - journal_.rewritten());
        number("journal-damaged", journal_.damaged());
    }
    return text;
}

void UnitThread::control(const std::string &request, ControlSocket::Answer answer)
{
    if (request == "status") {
        answer(status());
        return;
    }
    constexpr std::string_view ROLE = "role ";
    const auto role = request.starts_with(ROLE) ? role_of(request.substr(ROLE.size())) : std::nullopt;
    if (!role) {
        answer("unknown request");
        return;
    }
    if (*role != role_)
        platform_report(LOG_NOTICE, "role changes from %s to %s", role_text(role_), role_text(*role));
    if (*role == DHCPSNOOP_ROLE_SLAVE && role_ != *role)
        copyOpen_ = copyAsked_ = copyNeeded_ = false; // ours
    role_ = *role;
    waiting_.push_back(std::move(answer));
}

// ---- the loop

void UnitThread::write_journal(Ticks now)
{
    if (!journal_.is_open())
        return;
    if (journal_.has_failed() ? now < dirtySince_ + JOURNAL_RETRY : !journal_.is_dirty()) {
        if (!journal_.has_failed())
            dirtySince_ = NEVER;
        return;
    }
    if (dirtySince_ == NEVER || journal_.has_failed())
        dirtySince_ = now;
    const bool sync = now - dirtySince_ >= SYNC_AFTER;
    journal_.write(table_, wall_clock(), sync);
    if (sync || journal_.has_failed())
        dirtySince_ = journal_.has_failed() ? now : NEVER;
}

void UnitThread::turn()
{
    Ticks now = ticks();
    drain(now);
    look_for_ports();
    advance();
    ask_for_copy(now);
    if (now >= expireAt_) {
        expireAt_ = now + EXPIRE_PERIOD;
        for (const UnitRecord &record : table_.expire_parked(wall_clock()))
            note(record);
    }
    write_journal(now);
    if (link_)
        link_->hold(toDaemon_.size() > HOLD_PEER);

    Ticks deadline = std::min({now + EXPIRE_PERIOD, daemon_.deadline(), control_.deadline()});
    if (link_)
        deadline = std::min(deadline, link_->deadline());
    if (moreChanges_)
        deadline = std::min(deadline, now + GATHER);
    if (dirtySince_ != NEVER)
        deadline = std::min(deadline, dirtySince_ + (journal_.has_failed() ? JOURNAL_RETRY : SYNC_AFTER));
    if (copyAsked_ || copyNeeded_ || peerBehind_)
        deadline = std::min(deadline, now + COPY_PERIOD / 4);

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
