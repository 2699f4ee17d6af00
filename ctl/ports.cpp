// Every port of the switch, whether it snoops or not.
#include <numeric>
#include <ostream>

#include "guard_view.h"
#include "overview.h"

using namespace platform_linux;

namespace
{

constexpr const char *KINDS[] = {"port", "aggregate", "vlan-interface", "host"}; // by PortKind
constexpr const char *STP_STATES[] = {"disabled", "listening", "learning", "forwarding", "blocking"};

// "1,10-20".
std::string vlanText(const Port &port)
{
    const VlanSet vlans = port.kind == PortKind::vlanInterface ? VlanSet().set(port.vlan) : port.members;
    std::string text;
    for (size_t vid = 1; vid < vlans.size(); vid++) {
        if (!vlans[vid])
            continue;
        const size_t first = vid;
        while (vid + 1 < vlans.size() && vlans[vid + 1])
            vid++;
        text += (text.empty() ? "" : ",") + std::to_string(first) +
                (vid > first ? "-" + std::to_string(vid) : "");
    }
    return text;
}

std::string shortened(const std::string &text)
{
    constexpr size_t ROOM = 12;
    return text.size() <= ROOM ? text : text.substr(0, text.rfind(',', ROOM - 2) + 1) + "..";
}

// "up" when it forwards.
std::string stateText(const Port &port)
{
    if (port.aggregate != 0)
        return "in " + interfaceText(port.aggregate);
    if (!port.up || port.stp == StpState::forwarding)
        return port.up ? "up" : "down";
    return STP_STATES[static_cast<size_t>(port.stp)];
}

std::string snoopingText(const PortView &view)
{
    if (view.settings.empty())
        return view.snoopsByVlan ? "vlan" : "off";
    const Setting &version = *findSetting(INTERFACE_SCOPE, "version");
    return valueWords(version, view.settings.at("version"))[0];
}

// A guard by ARP inspection alone is "arp:" and its items.
std::string guardText(const PortView &view)
{
    return view.guard != 0 || view.arp == 0 ? itemsText(view.guard) : "arp:" + itemsText(view.arp);
}

Json portJson(const PortView &view)
{
    Json out = {
        {"interface",      view.port.name                                                 },
        {"index",          view.port.ifIndex                                              },
        {"kind",           KINDS[static_cast<size_t>(view.port.kind)]                     },
        {"bridge",         view.bridge.empty() ? Json(nullptr) : Json(view.bridge)        },
        {"vlans",          vlanText(view.port)                                            },
        {"native-vlan",    view.port.nativeVid ? Json(view.port.nativeVid) : Json(nullptr)},
        {"state",          stateText(view.port)                                           },
        {"snooping",       snoopingText(view)                                             },
        {"trust",          view.has("trust")                                              },
        {"guard",          itemsText(view.guard)                                          },
        {"arp-inspection", itemsText(view.arp)                                            },
        {"bindings",       view.bindings                                                  }
    };
    for (const char *counter : DROP_COUNTERS)
        out[counter] = view.has(counter) ? view.settings.at(counter) : 0;
    for (size_t reason = 0; reason < GUARD_REASONS; reason++)
        out["refused"][GUARD_REASON_WORDS[reason]] = view.refused[reason];
    return out;
}

} // namespace

// REFUSED counts the packets that the kernel refused, DROPS the messages that the daemon dropped.
ExitStatus showPorts(const Context &context, std::span<const std::string>)
{
    Json list = Json::array();
    std::vector<Words> rows = {
        {"PORT", "BRIDGE", "VLANS", "STATE", "SNOOPING", "TRUST", "GUARD", "BINDINGS", "DROPS", "REFUSED"}
    };
    for (const PortView &view : readOverview(context).ports) {
        list.push_back(portJson(view));
        const uint64_t refused = std::accumulate(view.refused.begin(), view.refused.end(), uint64_t{0});
        rows.push_back({view.port.name, view.bridge, shortened(vlanText(view.port)), stateText(view.port),
                        snoopingText(view), view.has("trust") ? "on" : "off", guardText(view),
                        std::to_string(view.bindings), std::to_string(view.dropped()),
                        std::to_string(refused)});
    }
    return print(context, list, rows, "no ports: there is no bridge with ports");
}
