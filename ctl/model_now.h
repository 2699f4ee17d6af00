// The ports of the switch as this process sees them in the kernel, through a configuration's switch model.
#pragma once

#include <map>
#include <vector>

#include "config.h"
#include "wanted.h"

// The switch model of the configuration that is in force; empty where none is.
platform_linux::SwitchConf runningModel();

using Ports = std::map<uint32_t, platform_linux::Port>; // by index
// Of this namespace. Throws CtlError when the kernel does not tell.
Ports portsNow(const platform_linux::SwitchConf &model);
std::vector<platform_linux::PortId> portIdsNow(const platform_linux::SwitchConf &model);
