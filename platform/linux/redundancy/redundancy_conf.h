// Redundancy in the configuration file: lines in; address and keys of the peer unit and the path of the
// journal out, or an error.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>

#include "conf_file.h"

namespace platform_linux
{

constexpr const char *JOURNAL_PATH = "/var/lib/dhcpsnoop/journal";

struct PeerConf {
    bool listens;         // and the peer connects; else the other way round
    sockaddr_in6 address; // an IPv4 address as ::ffff:a.b.c.d
    std::string addressText;
    std::string certificate, key, authority; // PEM files
    std::string name;                        // in the peer's certificate

    // The address by its text.
    bool operator==(const PeerConf &other) const
    {
        return listens == other.listens && addressText == other.addressText && name == other.name &&
               certificate == other.certificate && key == other.key && authority == other.authority;
    }
};

struct RedundancyConf {
    std::optional<PeerConf> peer;
    std::optional<std::string> journal; // empty = none; absent = JOURNAL_PATH if its directory exists
    bool operator==(const RedundancyConf &) const = default;
};

// Takes the lines listen, connect, certificate, key, authority, peer and journal into `conf`, which outlives
// it.
ConfReader redundancy_conf_reader(RedundancyConf &conf);

} // namespace platform_linux
