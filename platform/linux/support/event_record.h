// The record that subscribers to the daemon's events get, and where their socket is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace platform_linux
{

constexpr char EVENT_SOCKET_PATH[] = "/run/dhcpsnoop/events";
constexpr char EVENT_SOCKET_ENV[] = "DHCPSNOOP_EVENTS"; // another path

// An event beside the daemon's (QOR_EVENT_USER_…): this subscriber missed `lost` records here.
constexpr uint16_t EVENT_LOST = 0;

// In the host's byte order but for the addresses.
struct EventRecord {
    uint32_t zero, type, length; // 0, QOR_NETLINK_RECORD, 72
    uint16_t event;
    uint8_t reserved[10];
    union {
        struct {
            uint8_t mac[6];
            uint16_t vid;
            uint32_t ifIndex;
            uint8_t address[16], gateway[16]; // IPv4 in the first 4
            uint8_t reserved[2];
            uint8_t family; // DHCPSNOOP_IPV4
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

} // namespace platform_linux
