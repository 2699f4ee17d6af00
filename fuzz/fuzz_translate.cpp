// The Linux platform's translation of events: netlink datagrams of any content, dumps that begin and end
// anywhere, guard configurations that follow one another. Whatever comes in, what the daemon is handed is one
// of six messages, whole, and tells a story that holds together: nobody joins twice, leaves what he is not in
// or goes while he is in it, and in the end the story is the model's.
#include <cstdlib>
#include <cstring>
#include <linux/rtnetlink.h>
#include <map>

#include "fault.h"
#include "guard.h"
#include "guard_events.h"
#include "input.h"
#include "platform_numbers.h"
#include "switch_model.h"

using namespace platform_linux;

namespace
{

constexpr const char *CONFS[] = {
    nullptr,
    "port swp1 access 10\nport swp2 trunk 10,20 native 1\nport swp3 routed\nvlan 10 interface v10\n",
    "port swp1 access 1\nport bond0 trunk 1-4094\nvlan 1 interface br0\nvlan 5 interface br0.5\nrole master\n",
};

template <class Value> Value get(const DaemonEvent &event, size_t offset)
{
    Value value;
    if (offset + sizeof value > event.length)
        fault("a message of %u bytes is too short for its kind", event.length);
    memcpy(&value, event.bytes.data() + offset, sizeof value);
    return value;
}

// What the daemon has heard.
class Listener
{
  public:
    void hear(const DaemonEvents &events)
    {
        for (const DaemonEvent &event : events)
            hear(event);
    }

    void compare(const std::map<uint32_t, Port> &ports) const
    {
        for (const auto &[ifIndex, port] : ports) {
            const auto told = memberOf_.find(ifIndex);
            if (port.aggregate != (told != memberOf_.end() ? told->second : 0))
                fault("port %u is in aggregate %u, the daemon was told otherwise", ifIndex, port.aggregate);
        }
    }

    void compare(const GuardedInterfaces &wanted, const std::map<uint32_t, Port> &ports)
    {
        for (const auto &[ifIndex, port] : ports) {
            const auto found = wanted.find(ifIndex);
            const GuardedInterface guarded = found != wanted.end() ? found->second : GuardedInterface{};
            if (ip_[ifIndex] != guarded.ip || arp_[ifIndex] != guarded.arp)
                fault("interface %u: told %x and %x, wanted %x and %x", ifIndex, ip_[ifIndex], arp_[ifIndex],
                      guarded.ip, guarded.arp);
            if (guarded.arp != 0 && !inspecting_)
                fault("ARP inspection was not started");
        }
    }

    // A device that goes takes what was told of it along.
    void forget_guard(const std::map<uint32_t, Port> &ports)
    {
        std::erase_if(ip_, [&ports](const auto &told) { return !ports.contains(told.first); });
        std::erase_if(arp_, [&ports](const auto &told) { return !ports.contains(told.first); });
    }

  private:
    void hear(const DaemonEvent &event)
    {
        if (event.length > event.bytes.size() || event.length > 2048 ||
            get<uint32_t>(event, 0) != event.length)
            fault("a message of %u bytes says %u", event.length, get<uint32_t>(event, 0));
        const auto type = get<uint16_t>(event, 4);
        switch (type) {
        case RTM_NEWLINK:
            hear_link(event);
            break;
        case RTM_DELLINK:
            if (memberOf_.contains(interface(event, 20)))
                fault("%u goes while it is in an aggregate", interface(event, 20));
            break;
        case QOR_EVENT_DAI_STOP:
            if (!inspecting_)
                fault("ARP inspection stops that was not started");
            inspecting_ = false;
            arp_.clear();
            break;
        case QOR_EVENT_DAI_START:
            inspecting_ = true;
            arp_[interface(event, 16)] = get<uint8_t>(event, 20);
            break;
        case QOR_EVENT_DAI_ITEMS:
            if (!inspecting_)
                fault("ARP check items before the start");
            arp_[interface(event, 16)] = get<uint8_t>(event, 20);
            break;
        case QOR_EVENT_IPSG_ITEMS:
            ip_[interface(event, 16)] = get<uint8_t>(event, 20);
            break;
        default:
            fault("a message of type %u", type);
        }
    }

    void hear_link(const DaemonEvent &event)
    {
        const uint32_t ifIndex = interface(event, 20), value = get<uint32_t>(event, 36);
        if (event.length != 40 || get<uint16_t>(event, 32) != 8 || value == 0)
            fault("not one attribute of one word");
        switch (get<uint16_t>(event, 34)) {
        case 38:
            if (memberOf_.contains(ifIndex))
                fault("port %u joins twice", ifIndex);
            break;
        case 52:
            if (!memberOf_.emplace(value, ifIndex).second)
                fault("port %u is added twice", value);
            break;
        case 53:
            if (const auto told = memberOf_.find(value); told == memberOf_.end() || told->second != ifIndex)
                fault("port %u leaves aggregate %u, in which it is not", value, ifIndex);
            memberOf_.erase(value);
            break;
        default:
            fault("link attribute %u", get<uint16_t>(event, 34));
        }
    }

    static uint32_t interface(const DaemonEvent &event, size_t offset)
    {
        const auto ifIndex = get<uint32_t>(event, offset);
        if (ifIndex == 0)
            fault("a message about interface 0");
        return ifIndex;
    }

    std::map<uint32_t, uint32_t> memberOf_;
    std::map<uint32_t, uint8_t> ip_, arp_;
    bool inspecting_ = false;
};

// Of the interfaces that there are, some.
GuardedInterfaces some_guarded(Input &input, const std::map<uint32_t, Port> &ports)
{
    GuardedInterfaces wanted;
    for (const auto &[ifIndex, port] : ports) {
        const uint8_t choice = input.u8();
        const GuardedInterface guarded = {static_cast<uint8_t>(choice & GUARD_CHECK_ALL),
                                          static_cast<uint8_t>(choice << 4 & GUARD_CHECK_ALL), port.vlan};
        if (choice != 0)
            wanted[ifIndex] = guarded;
    }
    return wanted;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    Input input(bytes, size);
    SwitchModel model;
    if (const char *text = CONFS[input.u8() % std::size(CONFS)]; text != nullptr) {
        SwitchConf conf;
        std::string error;
        if (!switch_conf_parse("conf", text, conf, error))
            fault("%s", error.c_str());
        model.configure(std::move(conf));
    }
    GuardEvents guard;
    Listener daemon;
    while (input.more()) {
        DaemonEvents events;
        switch (input.u8() & 7) {
        case 5:
            model.dump_begin();
            break;
        case 6:
            model.dump_end((input.u8() & 1) != 0, events);
            break;
        case 7: {
            const GuardedInterfaces wanted = some_guarded(input, model.ports());
            daemon.forget_guard(model.ports());
            guard.follow(wanted, model.ports(), events);
            daemon.hear(events);
            daemon.compare(wanted, model.ports());
            continue;
        }
        default: {
            const std::vector<uint8_t> datagram = input.bytes(input.u16());
            is_guard_announcement(datagram);
            model.feed(datagram, events);
        }
        }
        daemon.hear(events);
    }
    DaemonEvents events;
    model.dump_end(false, events);
    daemon.hear(events);
    daemon.compare(model.ports());
    return 0;
}
