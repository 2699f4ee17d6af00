// The switch model itself: the kernel's devices (links.h) seen through the ports of the configuration file,
// or through the kernel's bridges where it names none. model.h is the view of it that the rest of the
// platform has.
#pragma once

#include <array>
#include <optional>
#include <vector>

#include "links.h"
#include "model.h"
#include "switch_conf.h"

namespace platform_linux
{

class SwitchModel
{
  public:
    // Before the first dump.
    void configure(SwitchConf conf) { conf_ = std::move(conf); }

    // The bridges whose own machine is a port, from now on. Watchers are told.
    void set_hosts(const std::set<std::string, std::less<>> &hosts);

    // As LinkTable's. Watchers are called once the model is current.
    bool feed(std::span<const uint8_t> datagram, DaemonEvents &events);
    void dump_begin();
    void dump_end(bool complete, DaemonEvents &events);

    void watch(ModelWatcher watcher) { watchers_.push_back(watcher); }
    void watch_gone(GoneWatcher watcher) { goneWatchers_.push_back(watcher); }
    void watch_devices(DeviceWatcher watcher) { deviceWatchers_.push_back(watcher); }
    const std::map<uint32_t, Link> &links() const { return links_.links(); }

    const std::map<uint32_t, Port> &ports() const { return ports_; }
    uint32_t vlan_interface(uint16_t vid) const
    {
        return vid < vlanInterfaces_.size() ? vlanInterfaces_[vid] : 0;
    }
    const SwitchConf &conf() const { return conf_; }

  private:
    std::optional<Port> derive(const Link &link) const;
    std::optional<Port> derive_configured(const Link &link) const;
    std::optional<Port> derive_bridged(const Link &link) const;
    const Link *bridge_of(const Link &link) const;
    void refresh();

    SwitchConf conf_;
    LinkTable links_;
    bool dumping_ = false;
    std::map<uint32_t, Port> ports_;
    std::array<uint32_t, 4096> vlanInterfaces_{};
    std::vector<ModelWatcher> watchers_;
    std::vector<GoneWatcher> goneWatchers_;
    std::vector<DeviceWatcher> deviceWatchers_;
};

// Dumps all links and bridge VLANs into the model, telling what changed against what it knew. False, with
// errno, when the kernel does not answer; the model is then as it was but for what the dump brought. Not for
// two threads at once.
bool model_dump(SwitchModel &model, DaemonEvents &events);

// The daemon's.
SwitchModel &switch_model();

} // namespace platform_linux
