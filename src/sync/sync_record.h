// The records that travel between the two units, in host order: the peer is the same daemon on the same kind
// of unit.
#pragma once

#include "dhcpsnoop.h"

struct SyncHeader {
    uint8_t type;    // SYNC_…
    uint8_t add;     // 1 = add or replace, 0 = delete
    uint16_t length; // of the bytes behind the header
};

// For a delete only the header and the key are filled.
struct SyncUserRecord {
    SyncHeader header;
    DhcpsnoopUserKey key;
    uint16_t vid, origVid;
    uint32_t ifIndex;
    uint32_t leaseTime, leaseStart;
    uint8_t hwFlags, userType, bindState, macMark;
    uint16_t userAttr;
    uint8_t mac[6];
    uint32_t ipsgHwId, daiHwId;
};

struct SyncServerRecord {
    SyncHeader header;
    uint32_t serverIp, ifIndex;
    uint16_t vid, zero;
};

constexpr uint16_t SYNC_USER_BODY_LEN = 56, SYNC_SERVER_BODY_LEN = 12;
constexpr uint32_t SYNC_USER_DELETE_LEN =
    sizeof(SyncHeader) + sizeof(DhcpsnoopUserKey); // the bytes that a delete reads
static_assert(sizeof(SyncHeader) == 4);
static_assert(sizeof(SyncUserRecord) == sizeof(SyncHeader) + SYNC_USER_BODY_LEN);
static_assert(offsetof(SyncUserRecord, vid) == 24 && offsetof(SyncUserRecord, hwFlags) == 40 &&
              offsetof(SyncUserRecord, mac) == 46 && offsetof(SyncUserRecord, daiHwId) == 56);
static_assert(sizeof(SyncServerRecord) == sizeof(SyncHeader) + SYNC_SERVER_BODY_LEN);
static_assert(offsetof(SyncServerRecord, vid) == 12);
