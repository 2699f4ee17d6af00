#include "unit_record.h"

#include <algorithm>
#include <cstring>

#include "wire.h"

namespace platform_linux
{
namespace
{
enum Offset : size_t {
    OFFSET_TYPE = 0,
    OFFSET_ADD = 1,
    OFFSET_IP_TYPE = 2,
    OFFSET_USER_TYPE = 3,
    OFFSET_ADDRESS = 4,
    OFFSET_PORT = 20,
    OFFSET_VID = 36,
    OFFSET_ORIG_VID = 38,
    OFFSET_LEASE_TIME = 40,
    OFFSET_LEASE_START = 44,
    OFFSET_CLOCK = 48,
    OFFSET_BIND_STATE = 52,
    OFFSET_MAC_MARK = 53,
    OFFSET_USER_ATTR = 54,
    OFFSET_MAC = 56,
};

bool all_zero(const uint8_t *bytes, size_t count)
{
    return std::all_of(bytes, bytes + count, [](uint8_t byte) { return byte == 0; });
}

// A name as the kernel gives them, or none, and zeros.
bool is_port(const char *port)
{
    const size_t length = strnlen(port, IFNAMSIZ);
    if (length == IFNAMSIZ)
        return false;
    for (size_t i = 0; i < IFNAMSIZ; i++)
        if (i < length ? port[i] <= ' ' || port[i] > '~' || port[i] == '/' : port[i] != 0)
            return false;
    return true;
}

bool is_valid(const UnitRecord &record)
{
    if (record.type != SYNC_USER && record.type != SYNC_SERVER)
        return false;
    if (record.ipType != DHCPSNOOP_IPV4 && (record.ipType != DHCPSNOOP_IPV6 || record.type == SYNC_SERVER))
        return false;
    if (record.ipType == DHCPSNOOP_IPV4 && !all_zero(record.address + 4, sizeof record.address - 4))
        return false;
    if (record.type == SYNC_USER && record.add && record.userType != DHCPSNOOP_USER_DYNAMIC &&
        record.userType != DHCPSNOOP_USER_STATIC)
        return false;
    return is_port(record.port);
}

// A start in the future, by a clock that was set back since, is now.
uint32_t age_at(uint32_t clock, uint32_t start)
{
    return static_cast<int32_t>(clock - start) > 0 ? clock - start : 0;
}

void put_port(UnitRecord &record, const char *port)
{
    memcpy(record.port, port, strnlen(port, sizeof record.port - 1));
}
} // namespace

UnitKey unit_key(const UnitRecord &record)
{
    UnitKey key{};
    key[0] = record.type;
    key[1] = record.ipType;
    memcpy(&key[4], record.address, sizeof record.address);
    if (record.type == SYNC_SERVER) {
        wire_put16(&key[2], record.vid);
        memcpy(&key[20], record.port, sizeof record.port);
    }
    return key;
}

UnitBytes unit_encode(const UnitRecord &record, uint32_t now)
{
    UnitBytes bytes{};
    uint8_t *out = bytes.data();
    out[OFFSET_TYPE] = record.type;
    out[OFFSET_ADD] = record.add ? 1 : 0;
    out[OFFSET_IP_TYPE] = record.ipType;
    out[OFFSET_USER_TYPE] = record.userType;
    memcpy(out + OFFSET_ADDRESS, record.address, sizeof record.address);
    memcpy(out + OFFSET_PORT, record.port, sizeof record.port);
    wire_put16(out + OFFSET_VID, record.vid);
    wire_put16(out + OFFSET_ORIG_VID, record.origVid);
    wire_put32(out + OFFSET_LEASE_TIME, record.leaseTime);
    wire_put32(out + OFFSET_LEASE_START, record.leaseStart);
    wire_put32(out + OFFSET_CLOCK, now);
    out[OFFSET_BIND_STATE] = record.bindState;
    out[OFFSET_MAC_MARK] = record.macMark;
    wire_put16(out + OFFSET_USER_ATTR, record.userAttr);
    memcpy(out + OFFSET_MAC, record.mac, sizeof record.mac);
    return bytes;
}

uint32_t unit_clock(std::span<const uint8_t, UNIT_RECORD_LEN> bytes)
{
    return wire_get32(bytes.data() + OFFSET_CLOCK);
}

std::optional<UnitRecord> unit_decode(std::span<const uint8_t, UNIT_RECORD_LEN> bytes, uint32_t now,
                                      UnitClock clock)
{
    const uint8_t *in = bytes.data();
    UnitRecord record{};
    record.type = in[OFFSET_TYPE];
    record.add = in[OFFSET_ADD] == 1;
    record.ipType = in[OFFSET_IP_TYPE];
    record.userType = in[OFFSET_USER_TYPE];
    memcpy(record.address, in + OFFSET_ADDRESS, sizeof record.address);
    memcpy(record.port, in + OFFSET_PORT, sizeof record.port);
    record.vid = wire_get16(in + OFFSET_VID);
    record.origVid = wire_get16(in + OFFSET_ORIG_VID);
    record.leaseTime = wire_get32(in + OFFSET_LEASE_TIME);
    record.leaseStart = wire_get32(in + OFFSET_LEASE_START);
    record.bindState = in[OFFSET_BIND_STATE];
    record.macMark = in[OFFSET_MAC_MARK];
    record.userAttr = wire_get16(in + OFFSET_USER_ATTR);
    memcpy(record.mac, in + OFFSET_MAC, sizeof record.mac);
    if (in[OFFSET_ADD] > 1 || !is_valid(record))
        return {};

    if (clock == UnitClock::peers)
        record.leaseStart = now - age_at(unit_clock(bytes), record.leaseStart);
    return record;
}

UnitRecord unit_from_user(const SyncUserRecord &user, const char *port)
{
    UnitRecord record{};
    record.type = SYNC_USER;
    record.add = user.header.add == 1;
    record.ipType = user.key.ipType;
    memcpy(record.address, user.key.ipAddr, sizeof record.address);
    put_port(record, port);
    record.userType = user.userType;
    record.bindState = user.bindState;
    record.macMark = user.macMark;
    record.userAttr = user.userAttr;
    record.vid = user.vid;
    record.origVid = user.origVid;
    record.leaseTime = user.leaseTime;
    record.leaseStart = user.leaseStart;
    memcpy(record.mac, user.mac, sizeof record.mac);
    return record;
}

UnitRecord unit_from_server(const SyncServerRecord &server, const char *port)
{
    UnitRecord record{};
    record.type = SYNC_SERVER;
    record.add = server.header.add == 1;
    record.ipType = DHCPSNOOP_IPV4;
    wire_put32(record.address, server.serverIp);
    put_port(record, port);
    record.vid = record.origVid = server.vid;
    return record;
}

SyncUserRecord unit_to_user(const UnitRecord &record, uint32_t ifIndex)
{
    SyncUserRecord user{};
    user.header = {SYNC_USER, static_cast<uint8_t>(record.add ? 1 : 0), SYNC_USER_BODY_LEN};
    user.key.ipType = record.ipType;
    memcpy(user.key.ipAddr, record.address, sizeof user.key.ipAddr);
    if (!record.add)
        return user;
    user.vid = record.vid;
    user.origVid = record.origVid;
    user.ifIndex = ifIndex;
    user.leaseTime = record.leaseTime;
    user.leaseStart = record.leaseStart;
    user.userType = record.userType;
    user.bindState = record.bindState;
    user.macMark = record.macMark;
    user.userAttr = record.userAttr;
    memcpy(user.mac, record.mac, sizeof user.mac);
    return user;
}

SyncServerRecord unit_to_server(const UnitRecord &record, uint32_t ifIndex)
{
    SyncServerRecord server{};
    server.header = {SYNC_SERVER, static_cast<uint8_t>(record.add ? 1 : 0), SYNC_SERVER_BODY_LEN};
    server.serverIp = wire_get32(record.address);
    server.ifIndex = ifIndex;
    server.vid = record.vid;
    return server;
}

} // namespace platform_linux
