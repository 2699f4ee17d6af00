// The Linux platform's switch model in tests: link messages made of words, the model and the daemon's messages as text.
#pragma once

#include "frame.h"
#include "switch_model.h"

// A message in the kernel's layout (rtnetlink(7)): "new 3" or "gone 3", of the bridge family "port 3" or "left 3", then
// attributes: "name=p in=2 info{ kind=bridge data{ filter=1 } }". "flags=1003" are the device's, else it is up and running.
// "vlan=10pu": the native VLAN (p), untagged (u), first (b) or last (e) of a range.
Bytes link_message(const std::string &words);

// "swp1#1 10 t20-29,100 u10 up forwarding": name, number, native VLAN, tagged and untagged VLANs, state. "v10#10 =10" is
// VLAN 10's interface, "routed" a port without VLANs, "88a8" the TPID when it is not 8100, "in 6" the port's aggregate.
std::string describe(const platform_linux::Port &port);
std::string describe(const std::map<uint32_t, platform_linux::Port> &ports); // separated by "; "

// "7 joined, 9 + 7, 9 - 7, 7 gone, ": a port joins an aggregate; the aggregate 9 gets it, loses it; a device goes. "198 7:80, 124, ": the
// guard's, of a port with its items or of nothing.
std::string describe(const platform_linux::DaemonEvents &events);
