// The switch model file: text in, the switch that it describes or the first error out.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "conf_file.h"
#include "dhcpsnoop.h"
#include "port.h"

namespace platform_linux
{

constexpr const char *SWITCH_CONF_PATH = "/etc/dhcpsnoop/switch.conf";
constexpr const char *SWITCH_CONF_ENV = "DHCPSNOOP_SWITCH_CONF"; // names another file

struct ConfPort {
    uint32_t number; // place in the file, from 1
    bool routed;
    uint16_t nativeVid; // 0 = its untagged frames belong to no VLAN
    VlanSet tagged;     // besides the native one
};

struct SwitchConf {
    uint32_t system = 1;
    DhcpsnoopRole role = DHCPSNOOP_ROLE_NONE;
    std::map<std::string, ConfPort, std::less<>> ports;          // by device name
    std::map<std::string, uint16_t, std::less<>> vlanInterfaces; // device name to VLAN
};

// False with "name:line: error" in `error`; `conf` is then of no use.
bool switch_conf_parse(std::string_view name, std::string_view text, SwitchConf &conf, std::string &error);

// The file that SWITCH_CONF_ENV names, else that at SWITCH_CONF_PATH.
ConfFile switch_conf_read(SwitchConf &conf, std::string &error);

} // namespace platform_linux
