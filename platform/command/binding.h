// A static binding in words and as requests.
#pragma once

#include <array>
#include <optional>
#include <span>

#include "listing.h"
#include "setting.h"
#include "text.h"

struct StaticBinding {
    UserKey key;
    std::optional<std::array<uint8_t, 6>> mac;
    uint32_t vlan = 0;     // 0: any
    std::string interface; // its name; empty: any
    uint32_t attribute = 0;
    bool bound = true; // in force; needs MAC, VLAN and interface
    bool operator==(const StaticBinding &) const = default;
};

// "ADDRESS [mac MAC] [vlan VID] [interface IF] [attribute N] [unbound]". Refuses addresses that no host has:
// unspecified, loopback, multicast and broadcast ones, and group MAC addresses.
StaticBinding parseBinding(std::span<const std::string> words);
Words bindingWords(const StaticBinding &binding); // parseBinding reads them back

// A binding of any type as the daemon has it. Times are in seconds.
struct Binding {
    UserKey key;
    uint32_t vlan, ifIndex, attribute, lease, elapsed, type, state;
    Bytes mac;
};

// Words of a binding's type and state.
constexpr Choice USER_TYPES[] = {
    {"dynamic",         DHCPSNOOP_USER_DYNAMIC},
    {"static",          DHCPSNOOP_USER_STATIC },
    {"ip-source-guard", DHCPSNOOP_USER_IPSG   }
};
constexpr uint32_t STATE_WAITING = 0x100; // the platform's, beside the daemon's
constexpr Choice USER_STATES[] = {
    {"bound",     DHCPSNOOP_BIND_BOUND    },
    {"unbound",   DHCPSNOOP_BIND_UNBOUND  },
    {"created",   DHCPSNOOP_BIND_CREATED  },
    {"requested", DHCPSNOOP_BIND_REQUESTED},
    {"waiting",   STATE_WAITING           }
};

bool hasMac(const Binding &binding);
Binding readBinding(const Daemon &daemon, const UserKey &key);
// The words that recreate it. An incomplete binding in force is "unbound" there.
StaticBinding asStatic(const Binding &binding);

// Creates the binding, fills it in and puts it in force. A refusal of any step removes it again.
void addBinding(const Daemon &daemon, const StaticBinding &binding);
void deleteBinding(const Daemon &daemon, const UserKey &key);
