// The Linux platform's translation of events: netlink datagrams of any content, dumps that begin and end anywhere, guard
// configurations that follow one another. Whatever comes in, the daemon is handed whole messages of six kinds, whose story holds
// together: nobody joins twice or leaves where he is not, ARP inspection runs where items are set, and in the end the story is the model's.
#include <cstring>
#include <linux/rtnetlink.h>
#include <map>
#include <utility>

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

template <class Value>
Value get(const DaemonEvent &event, size_t offset)
{
    Value value;
    if (offset + sizeof value > event.length || event.length > event.bytes.size())
        fault("a message of %u bytes is too short for its kind", event.length);
    memcpy(&value, event.bytes.data() + offset, sizeof value);
    return value;
}

// What the daemon has heard.
struct Story {
    std::map<uint32_t, uint32_t> memberOf;
    std::map<uint32_t, uint8_t> ip, arp;
    bool inspecting = false;

    void hear(const DaemonEvents &events)
    {
        for (const DaemonEvent &event : events) {
            const auto type = get<uint16_t>(event, 4);
            if (get<uint32_t>(event, 0) != event.length)
                fault("a message of %u bytes says %u", event.length, get<uint32_t>(event, 0));
            if (type == RTM_NEWLINK || type == RTM_DELLINK)
                hear_link(type, get<uint32_t>(event, 20), event);
            else if (type == QOR_EVENT_IPSG_ITEMS)
                ip[get<uint32_t>(event, 16)] = get<uint8_t>(event, 20);
            else if (type != QOR_EVENT_DAI_START && (!inspecting || (type != QOR_EVENT_DAI_STOP && type != QOR_EVENT_DAI_ITEMS)))
                fault("a message of type %u", type);
            else if (type == QOR_EVENT_DAI_STOP)
                arp.clear();
            else
                arp[get<uint32_t>(event, 16)] = get<uint8_t>(event, 20);
            inspecting = type == QOR_EVENT_DAI_START || (inspecting && type != QOR_EVENT_DAI_STOP);
        }
    }

    void hear_link(uint16_t type, uint32_t ifIndex, const DaemonEvent &event)
    {
        const bool gone = type == RTM_DELLINK;
        const auto attribute = gone ? uint16_t{38} : get<uint16_t>(event, 34);
        const auto member = attribute == 38 ? ifIndex : get<uint32_t>(event, 36);
        if (ifIndex == 0 || member == 0 || (!gone && (event.length != 40 || get<uint16_t>(event, 32) != 8)))
            fault("not one attribute of one word");
        const uint32_t was = std::exchange(memberOf[member], attribute == 52 ? ifIndex : 0);
        if (attribute == 53 ? was != ifIndex : was != 0 || (attribute != 38 && attribute != 52))
            fault("attribute %u of interface %u, and port %u was in aggregate %u", attribute, ifIndex, member, was);
    }
};

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
    Story story;
    while (input.more()) {
        DaemonEvents events;
        const uint8_t step = input.u8() & 7;
        if (step == 5)
            model.dump_begin();
        else if (step == 6)
            model.dump_end((input.u8() & 1) != 0, events);
        else if (step < 5) {
            const std::vector<uint8_t> datagram = input.bytes(input.u16());
            is_guard_announcement(datagram);
            model.feed(datagram, events);
        }
        story.hear(events);
        if (step != 7)
            continue;
        GuardedInterfaces wanted;
        for (const auto &[ifIndex, port] : model.ports())
            if (const uint8_t choice = input.u8(); choice != 0)
                wanted[ifIndex] = {static_cast<uint8_t>(choice & GUARD_CHECK_ALL), static_cast<uint8_t>(choice << 4 & GUARD_CHECK_ALL), port.vlan};
        // A device that goes takes what was told of it along.
        std::erase_if(story.ip, [&model](const auto &told) { return !model.ports().contains(told.first); });
        std::erase_if(story.arp, [&model](const auto &told) { return !model.ports().contains(told.first); });
        guard.follow(wanted, model.ports(), events);
        story.hear(events);
        for (const auto &[ifIndex, port] : model.ports())
            if (story.ip[ifIndex] != wanted[ifIndex].ip || story.arp[ifIndex] != wanted[ifIndex].arp)
                fault("interface %u has other items than it was told", ifIndex);
    }
    DaemonEvents events;
    model.dump_end(false, events);
    story.hear(events);
    for (const auto &[ifIndex, port] : model.ports())
        if (port.aggregate != story.memberOf[ifIndex])
            fault("port %u is in aggregate %u, the daemon was told otherwise", ifIndex, port.aggregate);
    return 0;
}
