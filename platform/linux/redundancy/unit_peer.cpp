// The part of the platform's thread that takes in what the peer unit sends.
#include "unit_thread.h"

#include "report.h"
#include "wire.h"

namespace platform_linux
{

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
    for (const UnitRecord &record : table_.copy_end(true)) {
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

} // namespace platform_linux
