// The daemon's own events for other programs: a local sequenced-packet socket, root's alone, on which every
// subscriber gets each record as one packet from the moment it is connected. Nobody can hold the daemon up:
// what a subscriber does not read in time it loses, and is told how much.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace platform_linux
{

constexpr char EVENT_SOCKET_PATH[] = "/run/dhcpsnoop/events";
constexpr char EVENT_SOCKET_ENV[] = "DHCPSNOOP_EVENTS"; // another path

constexpr size_t SUBSCRIBERS_MAX = 16; // a connection beyond them is closed at once

enum : uint16_t {
    EVENT_LOST = 0, // not the daemon's: this subscriber missed `lost` records here
    EVENT_USER_ADDED = 188,
    EVENT_USER_DELETED = 189,
};

// In the host's byte order but for the addresses.
struct EventRecord {
    uint32_t zero, type, length; // 0, 51, 72
    uint16_t event;
    uint8_t reserved[10];
    union {
        struct {
            uint8_t mac[6];
            uint16_t vid;
            uint32_t ifIndex;
            uint8_t address[16], gateway[16]; // IPv4 in the first 4
            uint8_t reserved[2];
            uint8_t family; // 1
            uint8_t zero;
        } user;
        uint64_t lost;
    };
};
static_assert(sizeof(EventRecord) == 72 && offsetof(EventRecord, user) == 24);

// The environment's path or the usual one.
inline const char *event_socket_path()
{
    const char *path = getenv(EVENT_SOCKET_ENV);
    return path != nullptr && *path != 0 ? path : EVENT_SOCKET_PATH;
}

// Makes the socket in place of one that an earlier run left, and its directory. 0 or an errno value; the
// platform then works without subscribers.
int subscribers_open(const char *path);
void subscribers_close();

// To everyone who is connected. Never waits, allocates nothing. 0, or ENOTCONN when there is no socket.
int subscribers_publish(const EventRecord &record);

} // namespace platform_linux
