// Records of bindings and servers to the peer unit: single changes as they happen, and full copies packed
// into buffers of at most 1400 bytes. The platform transports them; a buffer that it
// refuses is lost until the next full copy.
#include "dhcpsnoop_sync.h"

#include <cstring>

#include "debug.h"
#include "list.h"
#include "management.h"
#include "sync_record.h"

static constexpr uint32_t CHANGE_ROOM = 256, COPY_ROOM = 1400;

void dhcpsnoop_sync_pkt_send(const uint8_t *buffer, uint32_t length, uint32_t destination)
{
    if (buffer == nullptr || length == 0)
        return;
    DEBUG_EVENT("[DHCPSNOOP] Send dhcpsnoop sync packet: len %d.\r\n", length);
    debug_dump(buffer, length);
    QorBuffer descriptor = {const_cast<uint8_t *>(buffer), length};
    if (qorHwScalarSync(nullptr, QOR_SYNC_GLOBAL + GLOBAL_SYNC_PACKET, &descriptor,
                        destination | QOR_SYNC_BUFFER) != 0)
        DEBUG_EVENT("[DHCPSNOOP] Send dhcpsnoop sync packet ERROR!\r\n");
}

uint32_t dhcpsnoop_sync_user_pkt_build(const DhcpsnoopUser *user, uint32_t add, uint8_t *out)
{
    SyncUserRecord record = {};
    record.header = {SYNC_USER, static_cast<uint8_t>(add), SYNC_USER_BODY_LEN};
    record.key = user->key;
    if (add == 1) {
        record.vid = user->vid;
        record.origVid = user->origVid;
        record.ifIndex = user->ifIndex;
        record.leaseTime = user->leaseTime;
        record.leaseStart = user->leaseStart;
        record.hwFlags = user->hwFlags;
        record.userType = user->userType;
        record.bindState = user->bindState;
        record.macMark = user->macMark;
        record.userAttr = user->userAttr;
        std::memcpy(record.mac, user->mac, sizeof record.mac);
        record.ipsgHwId = user->ipsgHwId;
        record.daiHwId = user->daiHwId;
    }
    std::memcpy(out, &record, sizeof record);
    return sizeof record;
}

uint32_t dhcpsnoop_sync_server_pkt_build(const DhcpsnoopServer *server, uint32_t add, uint8_t *out)
{
    SyncServerRecord record = {};
    record.header = {SYNC_SERVER, static_cast<uint8_t>(add), SYNC_SERVER_BODY_LEN};
    record.serverIp = server->serverIp;
    record.ifIndex = server->ifIndex;
    record.vid = static_cast<uint16_t>(server->vid);
    std::memcpy(out, &record, sizeof record);
    return sizeof record;
}

void dhcpsnoop_sync_user_send(const DhcpsnoopUser *user, uint32_t add)
{
    DEBUG_EVENT("[DHCPSNOOP] Send dhcpsnoop user sync packet, add flag %d.\r\n", add);
    uint8_t buffer[CHANGE_ROOM] = {};
    dhcpsnoop_sync_pkt_send(buffer, dhcpsnoop_sync_user_pkt_build(user, add, buffer), QOR_PEER_CHANGE);
}

void dhcpsnoop_sync_server_send(const DhcpsnoopServer *server, uint32_t add)
{
    DEBUG_EVENT("[DHCPSNOOP] Send dhcpsnoop server sync packet, add flag %d.\r\n", add);
    uint8_t buffer[CHANGE_ROOM] = {};
    dhcpsnoop_sync_pkt_send(buffer, dhcpsnoop_sync_server_pkt_build(server, add, buffer), QOR_PEER_CHANGE);
}

void dhcpsnoop_sync_all_send(uint32_t destination, uint32_t request)
{
    if (request != 1)
        return;
    uint8_t buffer[COPY_ROOM] = {};
    uint32_t used = 0;
    const auto make_room = [&](uint32_t record) {
        if (used <= COPY_ROOM - record)
            return;
        dhcpsnoop_sync_pkt_send(buffer, used, destination);
        used = 0;
    };

    for (const DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (user->userType == DHCPSNOOP_USER_IPSG)
            continue;
        make_room(sizeof(SyncUserRecord));
        used += dhcpsnoop_sync_user_pkt_build(user, 1, buffer + used);
    }
    for (const DhcpsnoopServer *server : list_each<DhcpsnoopServer>(&gDhcpsnoop.serverList)) {
        make_room(sizeof(SyncServerRecord));
        used += dhcpsnoop_sync_server_pkt_build(server, 1, buffer + used);
    }
    dhcpsnoop_sync_pkt_send(buffer, used, destination);
}
