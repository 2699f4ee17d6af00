// The redundancy file: text in; address and keys of the peer unit and the path of the journal out, or the
// first error.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>

#include "conf_file.h"

namespace platform_linux
{

constexpr const char *REDUNDANCY_CONF_PATH = "/etc/dhcpsnoop/redundancy.conf";
constexpr const char *REDUNDANCY_CONF_ENV = "DHCPSNOOP_REDUNDANCY_CONF"; // names another file
constexpr const char *JOURNAL_PATH = "/var/lib/dhcpsnoop/journal";

struct PeerConf {
    bool listens;         // and the peer connects; else the other way round
    sockaddr_in6 address; // an IPv4 address as ::ffff:a.b.c.d
    std::string addressText;
    std::string certificate, key, authority; // PEM files
    std::string name;                        // in the peer's certificate
};

struct RedundancyConf {
    std::optional<PeerConf> peer;
    std::optional<std::string> journal; // empty = none; absent = JOURNAL_PATH if its directory exists
};

// As switch_conf_parse and switch_conf_read.
bool redundancy_conf_parse(std::string_view name, std::string_view text, RedundancyConf &conf,
                           std::string &error);
ConfFile redundancy_conf_read(RedundancyConf &conf, std::string &error);

} // namespace platform_linux
