// Records from the peer unit, applied on a standby unit only. The bytes that a record's handler reads must be
// there, whatever length the record states; the stated length only moves the walk on.
#include "dhcpsnoop_sync.h"

#include <algorithm>
#include <cstring>

#include "debug.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_server.h"
#include "dhcpsnoop_user.h"
#include "sync_record.h"

static void count_up(DhcpsnoopIf *ifp)
{
    if (ifp != nullptr)
        ifp->curUser++;
}

static void user_apply(const SyncUserRecord &record)
{
    DhcpsnoopUser *user = dhcpsnoop_user_lookup(&record.key);
    if (record.header.add != 1) {
        dhcpsnoop_user_delete(user);
        return;
    }
    if (user == nullptr) {
        user = dhcpsnoop_user_table_add(&record.key);
        if (user == nullptr)
            return;
        // Kept: counted whatever its type, though learning counts dynamic bindings only.
        count_up(dhcpsnoop_if_lookup(record.ifIndex));
        count_up(dhcpsnoop_if_lookup_by_vid(record.vid));
    }
    // Kept: a binding that moves to another port or VLAN leaves the counts of both as they are.
    user->vid = record.vid;
    user->origVid = record.origVid;
    dhcpsnoop_user_port_set(user, record.ifIndex);
    user->leaseTime = record.leaseTime;
    user->leaseStart = record.leaseStart;
    user->hwFlags = record.hwFlags;
    user->userType = record.userType;
    user->bindState = record.bindState;
    user->macMark = record.macMark;
    user->userAttr = record.userAttr;
    dhcpsnoop_user_mac_set(user, record.mac);
    user->ipsgHwId = record.ipsgHwId;
    user->daiHwId = record.daiHwId;
}

void dhcpsnoop_sync_user_recv(const uint8_t *record)
{
    SyncUserRecord user = {};
    std::memcpy(&user, record, record[offsetof(SyncHeader, add)] == 1 ? sizeof user : SYNC_USER_DELETE_LEN);
    DEBUG_EVENT("[DHCPSNOOP] Receive dhcpsnoop user sync packet: add flag %d, len %d.\r\n", user.header.add,
                user.header.length);
    uint8_t bytes[sizeof user];
    std::memcpy(bytes, &user, sizeof bytes);
    debug_dump(bytes + sizeof user.header, std::min(user.header.length, SYNC_USER_BODY_LEN));
    user_apply(user);
}

void dhcpsnoop_sync_server_recv(const uint8_t *record)
{
    SyncServerRecord server;
    std::memcpy(&server, record, sizeof server);
    DEBUG_EVENT("[DHCPSNOOP] Receive dhcpsnoop server sync packet: add flag %d, len %d.\r\n",
                server.header.add, server.header.length);
    debug_dump(record + sizeof server.header, std::min(server.header.length, SYNC_SERVER_BODY_LEN));

    DhcpsnoopServer *known = dhcpsnoop_server_lookup(server.serverIp, server.vid, server.ifIndex);
    if (server.header.add != 1)
        dhcpsnoop_server_delete(known);
    else if (known == nullptr)
        dhcpsnoop_server_add(server.serverIp, server.vid, server.ifIndex);
}

// Bytes that the record's handler reads, header included; 0 for a type nobody handles.
static uint32_t record_need(const SyncHeader &header)
{
    switch (header.type) {
    case SYNC_USER:
        return header.add == 1 ? sizeof(SyncUserRecord) : SYNC_USER_DELETE_LEN;
    case SYNC_SERVER:
        return sizeof(SyncServerRecord);
    default:
        return 0;
    }
}

void dhcpsnoop_sync_pkt_recv(QorBuffer *transfer)
{
    if (transfer == nullptr || transfer->data == nullptr)
        return;
    if (dhcpsnoop_running_role_get() != DHCPSNOOP_ROLE_SLAVE)
        return;
    const auto *bytes = static_cast<const uint8_t *>(transfer->data);
    DEBUG_EVENT("[DHCPSNOOP] Receive dhcpsnoop sync packet: len %d.", transfer->length);
    debug_dump(bytes, transfer->length);

    for (uint32_t offset = 0; offset < transfer->length;) {
        const uint32_t left = transfer->length - offset;
        SyncHeader header;
        if (left < sizeof header)
            return;
        std::memcpy(&header, bytes + offset, sizeof header);
        if (left < record_need(header))
            return;
        if (header.type == SYNC_USER)
            dhcpsnoop_sync_user_recv(bytes + offset);
        else if (header.type == SYNC_SERVER)
            dhcpsnoop_sync_server_recv(bytes + offset);
        offset += static_cast<uint32_t>(sizeof header) + header.length;
    }
}
