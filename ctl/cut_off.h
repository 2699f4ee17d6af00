// The hosts that the guard would cut off, told before it stands on a port: those that this machine has seen
// lately and that no binding in force speaks for.
#pragma once

#include <optional>

#include "binding.h"
#include "config.h"
#include "hosts.h"
#include "model_now.h"

// The guard as it is to stand on a port, by its own setting or that of a VLAN.
struct GuardPlan {
    const platform_linux::Port &port;
    uint16_t vid; // of the VLAN's setting; 0: its own
    platform_linux::GuardWords guard;
};

// How a port is snooped, by its own setting or that of its VLANs' interfaces.
struct PortSnooping {
    bool trusted = false;
    uint32_t versions = 0; // DHCPSNOOP_IPV4, DHCPSNOOP_IPV6
};

class CutOff
{
  public:
    // Without a daemon bindings are not known, and nobody is missed for lack of one.
    CutOff(const Daemon &daemon, bool daemonRuns) : daemon_(daemon), daemonRuns_(daemonRuns) {}

    // A binding that is going to be in force.
    void add(const StaticBinding &binding);
    // "swp3: who would lose the network, and why; the remedy", for each reason.
    Words warnings(const GuardPlan &plan, const PortSnooping &snooping);

  private:
    struct Bound {
        UserKey key;
        uint32_t ifIndex;
        Bytes mac;
    };
    const std::vector<Bound> &bindings();
    const std::vector<platform_linux::SeenHost> &hosts();
    std::string missing(const GuardPlan &plan, const platform_linux::SeenHost &host, uint32_t ipType);

    const Daemon &daemon_;
    const bool daemonRuns_;
    std::vector<Bound> lines_;
    std::optional<std::vector<Bound>> bindings_;
    std::optional<std::vector<platform_linux::SeenHost>> hosts_;
};

// Of the daemon, as it runs.
PortSnooping runningSnooping(const Daemon &daemon, const Ports &ports, const platform_linux::Port &port);
// As the file wants it.
PortSnooping wantedSnooping(const platform_linux::Config &config, const Ports &ports,
                            const platform_linux::Port &port);
