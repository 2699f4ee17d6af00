// The part of the platform's thread that leads the daemon from one role to another, and gives it records
// while it is a standby.
#include "unit_thread.h"

#include <algorithm>
#include <cstring>

#include "refusals.h"

namespace platform_linux
{
namespace
{
constexpr size_t PACKET_MAX = 1400; // of records for the daemon, as it makes them itself
const AdrRequest ON = {FUNC_GLOBAL_SET, GLOBAL_HW_NOTIFY, {}, 1U};
const AdrRequest OFF = {FUNC_GLOBAL_SET, GLOBAL_HW_NOTIFY, {}, 0U};

} // namespace

AdrRequest act_on(const UnitRecord &record, uint32_t action)
{
    return {
        FUNC_USER_SET, USER_ACTION, AdrUserKey{record.ipType, std::to_array(record.address)},
          action
    };
}

// A standby drops the records that find no room. Only sums are compared: the daemon tells nobody which.
void UnitThread::count_refused()
{
    size_t given = 0;
    if (table_.held().size() > shared_.room)
        given = static_cast<size_t>(std::ranges::count_if(table_.held(), [](const auto &entry) {
            return entry.second.record.type == SYNC_USER && !entry.second.place.waits();
        }));
    const size_t refused = given > shared_.room ? given - shared_.room : 0;
    if (refused > refused_)
        refusal_count(Refused::bindingsFull, "", ticks(), static_cast<uint32_t>(refused - refused_));
    refused_ = refused;
}

void UnitThread::deliver()
{
    uint8_t packet[PACKET_MAX];
    size_t used = 0;
    while (!toDaemon_.empty()) {
        const UnitRecord &record = toDaemon_.front();
        UnitTable::Held *held = table_.find(record);
        const UnitPort *there = held == nullptr || !held->place.waits() ? port(record) : nullptr;
        const size_t size = record.type == SYNC_USER ? sizeof(SyncUserRecord) : sizeof(SyncServerRecord);
        if (used + size > sizeof packet)
            break;
        if (record.type == SYNC_USER && (there != nullptr || !record.add)) {
            const SyncUserRecord user = unit_to_user(record, there != nullptr ? there->ifIndex : 0);
            memcpy(packet + used, &user, size);
            used += size;
        } else if (record.type == SYNC_SERVER && there != nullptr) {
            const SyncServerRecord server = unit_to_server(record, there->ifIndex);
            memcpy(packet + used, &server, size);
            used += size;
        } else if (held != nullptr && record.add) {
            held->place.at = UnitPlace::At::parked; // its port has gone again
        }
        toDaemon_.pop_front();
    }
    if (toDaemon_.empty())
        count_refused();
    if (used == 0)
        return;
    step_ = Step::deliver;
    daemon_.ask({FUNC_GLOBAL_SET, GLOBAL_SYNC_PACKET, {}, AdrBytes(packet, packet + used)},
                [this] { step_ = Step::none; });
}

// A change of role ends. The daemon's thread may have waited for the end.
void UnitThread::enforce()
{
    shared_.enforcement = Enforcement::normal;
    shared_.wake_daemon();
}

// Withdraws all bindings. The daemon adds none before it is a standby: it would forget an added one without
// withdrawing it. The setting acts only when it changes, so it is set first.
void UnitThread::withdraw()
{
    step_ = Step::withdraw;
    shared_.enforcement = Enforcement::refuseAdds;
    daemon_.ask(ON, [] {});
    daemon_.ask(OFF, [this] {
        shared_.daemonRole = DHCPSNOOP_ROLE_SLAVE;
        enforce();
        step_ = Step::none;
    });
}

// Installs all bindings. Each time as a standby, even a short one, has left wrong marks of installed bindings
// in the daemon. So the marks are cleared first, while installed rules stay in force; a binding that is
// installed again takes its rules over, and the others go at the end.
void UnitThread::take_over(DhcpsnoopRole target)
{
    const bool empty = fresh_ && !replayed_;
    shared_.enforcement = empty ? Enforcement::normal : Enforcement::refuseAdds;
    shared_.daemonRole = target;
    copy_.want();
    if (empty)
        return;
    step_ = Step::clear;
    daemon_.ask(ON, [this] {
        shared_.enforcement = Enforcement::clearMarks;
        daemon_.ask(OFF, [this] { install(); });
    });
}

// A static binding is bound again: it is in force whether its port is guarded or not, and the daemon does not
// install it when the port becomes guarded later.
void UnitThread::install()
{
    step_ = Step::install;
    shared_.enforcement = Enforcement::normal;
    for (const auto &[key, held] : table_.held()) {
        const UnitRecord &record = held.record;
        if (record.type == SYNC_USER && record.userType == DHCPSNOOP_USER_STATIC &&
            record.bindState == DHCPSNOOP_BIND_BOUND && !held.place.waits())
            daemon_.ask(act_on(record, USER_ACTION_BIND), [] {}); // refused if it has gone meanwhile
    }
    daemon_.ask(ON, [this] {
        step_ = Step::none;
        shared_.installed = shared_.clock.set_ahead() == 0; // else all are installed once more
        shared_.wake_daemon();
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
    if (role_ == DHCPSNOOP_ROLE_MASTER)
        copy_.want();
    if (!link_ || !link_->is_up())
        return;
    link_->send_role();
    request_copy();
}

// Begins the next step towards the unit's role.
void UnitThread::advance()
{
    while (step_ == Step::none) {
        const DhcpsnoopRole target = daemon_role();
        const DhcpsnoopRole now = shared_.daemonRole;
        if (!toDaemon_.empty() && (now == DHCPSNOOP_ROLE_SLAVE || target != DHCPSNOOP_ROLE_SLAVE)) {
            if (target != DHCPSNOOP_ROLE_SLAVE) // a standby for a moment: parked bindings got their port
                shared_.enforcement = Enforcement::refuseAdds;
            shared_.daemonRole = DHCPSNOOP_ROLE_SLAVE;
            deliver();
        } else if (now != target) {
            if (target == DHCPSNOOP_ROLE_SLAVE)
                withdraw();
            else if (now == DHCPSNOOP_ROLE_SLAVE)
                take_over(target);
            else
                shared_.daemonRole = target;
            fresh_ = false;
        } else {
            fresh_ = false;
            if (shared_.enforcement != Enforcement::normal)
                enforce();
            settle();
            break;
        }
    }
}

} // namespace platform_linux
