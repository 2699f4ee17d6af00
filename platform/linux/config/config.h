// The configuration file /etc/dhcpsnoop/dhcpsnoop.conf: the desired state, by names of ports and bridges. The
// same reader serves the daemon's platform, which brings the state about, and the client, which checks and
// compares.
//
//   bridge br0 uplink eno1            every port of br0 snoops with the checks on; eno1 is trusted and exempt
//   bridge br0 guard ip mac port      and is guarded
//   bridge br0 host server            this machine's own DHCP on br0 is snooped too
//   interface vnet* max-users 4       a setting of ports, by name, list, range or pattern
//   vlan 10 snooping on               a setting of a VLAN, by its interface
//   guard interface swp1 ip mac       the guard of ports or of a VLAN (guard vlan 10 ip mac)
//   binding 10.0.0.9 mac 02:00:00:00:00:01 vlan 10 interface swp3
//   server-learning on                a setting of the switch
//   protection strict                 whether bindings are protected from other hosts (strict, as-asked)
//   bindings 4096, interfaces 256     room
//   port, vlan N interface NAME, system, role              the switch model (switch_conf.h)
//   listen, connect, certificate, key, authority, peer, journal    redundancy (redundancy_conf.h)
//
// The most specific line that speaks of a port wins, the later one among equals.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "binding.h"
#include "guard.h"
#include "guard_words.h"
#include "redundancy_conf.h"
#include "runtime_paths.h"
#include "selector.h"
#include "setting.h"
#include "switch_conf.h"

namespace platform_linux
{

constexpr const char *CONFIG_DIRECTORY = "/etc/dhcpsnoop";
constexpr const char *CONFIG_DIRECTORY_ENV = "DHCPSNOOP_CONFIG"; // names another directory
constexpr const char *CONFIG_NAME = "dhcpsnoop.conf";

constexpr uint32_t ROOM_MAX = 65535;

// A line about ports: one setting, relay servers, or the guard.
struct PortLine {
    uint32_t line;
    Selector ports;
    const Setting *setting = nullptr;     // null: the guard
    Value value = {};                     // of the setting
    std::optional<uint32_t> server = {};  // a relay server; 0: none
    std::optional<GuardWords> guard = {}; // both features
    std::optional<uint8_t> arp = {};      // check items of ARP inspection alone
};

// What this machine is to the hosts of a bridge. The words of the file.
enum HostRole : uint8_t { HOST_SERVER = 1, HOST_CLIENT = 2, HOST_RELAY = 4 };
constexpr std::pair<HostRole, const char *> HOST_ROLES[] = {
    {HOST_SERVER, "server"},
    {HOST_CLIENT, "client"},
    {HOST_RELAY,  "relay" }
};

struct BridgeLine {
    uint32_t line;
    std::string bridge;
    std::optional<Selector> uplink = {};
    uint8_t host = 0; // HostRole, several; 0: the machine is no port of the bridge by this line
    std::optional<GuardWords> guard = {};
};

struct VlanLine {
    uint32_t line;
    uint16_t vid;
    const Setting *setting = nullptr; // null: the guard
    Value value = {};
    std::optional<GuardWords> guard = {};
    std::optional<uint8_t> arp = {};
};

struct GlobalLine {
    uint32_t line;
    const Setting *setting;
    Value value;
};

struct BindingLine {
    uint32_t line;
    StaticBinding binding;
};

struct Config {
    std::string name; // of the file, for messages
    std::vector<BridgeLine> bridges;
    std::vector<PortLine> ports;
    std::vector<VlanLine> vlans;
    std::vector<GlobalLine> globals;
    std::vector<BindingLine> bindingLines;
    std::map<UserKey, uint32_t> lineOfBinding; // the same by address: a file has room for thousands
    uint16_t bindings = 0, interfaces = 0;     // 0: not said
    uint32_t protectionLine = 0;               // 0: not said, strict
    bool protectionIsStrict = true;
    SwitchConf model;
    RedundancyConf redundancy;

    bool protects(const std::string &bridge) const;
    uint8_t host_roles(const std::string &bridge) const; // HostRole, of all lines
};

// False with "name:line: error" in `error`; `config` is then of no use.
bool config_parse(std::string_view name, std::string_view text, Config &config, std::string &error);

// The file in the directory that the argument, or CONFIG_DIRECTORY_ENV, names; else in CONFIG_DIRECTORY.
std::string config_path(const std::string &directory = "");

} // namespace platform_linux
