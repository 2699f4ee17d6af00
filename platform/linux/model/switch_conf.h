// The switch model in the configuration file: lines in, the switch that they describe or an error out.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "conf_file.h"
#include "dhcpsnoop.h"
#include "port.h"

namespace platform_linux
{

struct ConfPort {
    uint32_t number; // place in the file, from 1
    bool routed;
    uint16_t nativeVid; // 0 = its untagged frames belong to no VLAN
    VlanSet tagged;     // besides the native one
    bool operator==(const ConfPort &) const = default;
};

struct SwitchConf {
    uint32_t system = 1;
    DhcpsnoopRole role = DHCPSNOOP_ROLE_NONE;
    std::map<std::string, ConfPort, std::less<>> ports;          // by device name
    std::map<std::string, uint16_t, std::less<>> vlanInterfaces; // device name to VLAN

    std::set<std::string, std::less<>> hosts; // bridges whose own machine is a port

    // Else the kernel's bridges are the switch.
    bool describes_ports() const { return !ports.empty() || !vlanInterfaces.empty(); }
    // What counts from the start on only: `hosts` apart.
    bool operator==(const SwitchConf &other) const
    {
        return system == other.system && role == other.role && ports == other.ports &&
               vlanInterfaces == other.vlanInterfaces;
    }
};

// Takes the lines port, vlan, system and role into `conf`, which outlives it.
ConfReader switch_conf_reader(SwitchConf &conf);

// False with "name:line: error" in `error`; `conf` is then of no use.
bool switch_conf_parse(std::string_view name, std::string_view text, SwitchConf &conf, std::string &error);

} // namespace platform_linux
