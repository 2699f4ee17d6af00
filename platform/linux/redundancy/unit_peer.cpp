// The part of the platform's thread that talks to the peer unit.
#include "unit_thread.h"

#include <utility>

#include "report.h"
#include "wire.h"

namespace platform_linux
{

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

void UnitThread::send_copy_begin()
{
    peerBehind_ = false;
    copyForPeer_ = role_ == DHCPSNOOP_ROLE_MASTER && link_ && link_->send(PeerMessage::copyBegin);
}

void UnitThread::send_copy_end()
{
    uint8_t count[4];
    wire_put32(count, copyRecords_);
    if (std::exchange(copyForPeer_, false))
        link_->send(PeerMessage::copyEnd, count);
}

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
        copy_.want();
    if (role_ == DHCPSNOOP_ROLE_MASTER && link_->peer_role() == DHCPSNOOP_ROLE_MASTER)
        platform_report(LOG_WARNING, "the peer unit is master too: neither takes the other's bindings");
}

void UnitThread::peer_down()
{
    copyForPeer_ = false;
    peerBehind_ = false;
    peerCopies_ = false;
}

void UnitThread::peer_record(const PeerFrame &frame)
{
    if (role_ != DHCPSNOOP_ROLE_SLAVE)
        return;
    auto record = unit_decode(frame.payload, now().wall, UnitClock::peers);
    peerCopyRecords_++;
    if (!record) {
        dropped_++;
        return;
    }
    received_++;
    // Two clocks do not tick together: a second more or less is no change.
    if (const auto it = table_.held().find(unit_key(*record)); it != table_.held().end()) {
        const int32_t apart = static_cast<int32_t>(record->leaseStart - it->second.record.leaseStart);
        if (apart >= -1 && apart <= 1)
            record->leaseStart = it->second.record.leaseStart;
    }
    const UnitPlace place = place_of_peers(*record);
    if (table_.apply(*record, place))
        note(*record);
    if (!record->add || !place.waits())
        toDaemon_.push_back(*record);
}

void UnitThread::peer_copy_end(const PeerFrame &frame)
{
    if (!std::exchange(peerCopies_, false))
        return;
    if (wire_get32(frame.payload.data()) != peerCopyRecords_) {
        request_copy();
        return;
    }
    for (const UnitRecord &record : table_.copy_end(true)) {
        note(record);
        toDaemon_.push_back(record);
    }
    copied(peerCopyRecords_);
}

void UnitThread::peer_frame(const PeerFrame &frame)
{
    switch (frame.type) {
    case PeerMessage::hello: // the peer has another role; a new master copies by itself
        break;
    case PeerMessage::record:
        peer_record(frame);
        break;
    case PeerMessage::copyBegin:
        if (role_ != DHCPSNOOP_ROLE_SLAVE)
            break;
        table_.copy_begin();
        peerCopies_ = true;
        peerCopyRecords_ = 0;
        break;
    case PeerMessage::copyEnd:
        peer_copy_end(frame);
        break;
    case PeerMessage::copyRequest:
        if (role_ == DHCPSNOOP_ROLE_MASTER)
            copy_.want();
        break;
    case PeerMessage::alive:
        break;
    }
}

} // namespace platform_linux
