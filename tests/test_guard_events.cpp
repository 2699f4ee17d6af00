// What the daemon is told of the guard's configuration: the messages that lead from one configuration to the
// next, and what announcements of others can do.
#include <gtest/gtest.h>

#include "guard.h"
#include "guard_events.h"
#include "linux_switch.h"

using namespace platform_linux;

namespace
{

// Ports 7 and 8 in VLAN 10; 110 is VLAN 10's interface, 120 VLAN 20's.
std::map<uint32_t, Port> box()
{
    std::map<uint32_t, Port> ports;
    for (const uint32_t number : {7u, 8u, 110u, 120u}) {
        Port &port = ports[number] = {};
        port.kind = number > 100 ? PortKind::vlanInterface : PortKind::port;
        port.vlan = static_cast<uint16_t>(number > 100 ? number - 100 : 0);
        port.members.set(number == 120 ? 20 : 10);
    }
    return ports;
}

const GuardedInterface IP = {0x80, 0, 0}, IP_MAC = {0xC0, 0, 0}, ARP = {0, 0x80, 0};
const GuardedInterface VLAN10_IP = {0x80, 0, 10}, VLAN10_ARP = {0, 0xC0, 10}, VLAN20_IP = {0x80, 0, 20};

TEST(GuardEvents, Steps)
{
    const struct {
        const char *claim;
        GuardedInterfaces wanted;
        const char *events; // "type index:items"
        uint32_t absent = 0;
    } steps[] = {
        {"a port", {{7, IP}}, "198 7:80, "},
        {"nothing twice", {{7, IP}}, ""},
        {"other items", {{7, IP_MAC}}, "198 7:c0, "},
        {"VLANs by their interfaces", {{7, IP_MAC}, {110, VLAN10_IP}, {120, VLAN20_IP}}, "198 110:80, 198 120:80, "},
        {"a port that falls back to its VLAN", {{110, VLAN10_IP}, {120, VLAN20_IP}}, "198 7:00, 198 110:80, "},
        {"VLANs off", {}, "198 110:00, 198 120:00, "},
        {"the first port starts ARP inspection", {{7, ARP}}, "123 7:80, "},
        {"the next may have its VLAN's bindings: they are replaced", {{7, ARP}, {8, ARP}}, "199 8:80, 123 8:80, "},
        {"other items", {{7, {0, 0xF0, 0}}, {8, ARP}}, "199 7:f0, "},
        {"a VLAN's", {{7, {0, 0xF0, 0}}, {8, ARP}, {110, VLAN10_ARP}}, "199 110:c0, "},
        {"two that fall back to one VLAN", {{110, VLAN10_ARP}}, "199 7:00, 199 8:00, 199 110:c0, "},
        {"the last stops it", {{7, IP}}, "198 7:80, 124, "},
        {"a VLAN first: the start alone installs on ports only", {{7, IP}, {110, VLAN10_ARP}}, "123 110:c0, 199 110:c0, "},
        {"both features in one step", {{7, {0, 0x80, 0}}, {110, VLAN10_ARP}}, "198 7:00, 199 7:80, 123 7:80, "},
        {"both on a port", {{7, {0x80, 0x80, 0}}}, "198 7:80, 199 110:00, "},
        {"the daemon learns from the link message that a port has gone", {}, "124, ", 7},
    };
    GuardEvents guard;
    for (const auto &step : steps) {
        DaemonEvents events;
        std::map<uint32_t, Port> ports = box();
        ports.erase(step.absent);
        guard.follow(step.wanted, ports, events);
        EXPECT_EQ(describe(events), step.events) << step.claim;
        EXPECT_EQ(guard.told(), step.wanted) << step.claim;
    }
}

TEST(GuardEvents, Announcements)
{
    const struct {
        const char *claim;
        uint32_t length, type, size; // as the message says, and of the datagram
        bool counts;
    } rows[] = {
        {"without padding", 21, 199, 21, true},
        {"without items", 20, 198, 24, false},
        {"its stop, which has no body", 16, 124, 16, true},
        {"longer than the datagram", 25, 198, 24, false},
        {"a length above 2 GiB", 0xFFFFFFF0, 198, 24, false},
        {"cut off", 16, 124, 15, false},
        {"a link message", 32, 16, 32, false},
    };
    for (const auto &row : rows) {
        const uint32_t words[16] = {row.length, row.type};
        EXPECT_EQ(is_guard_announcement({reinterpret_cast<const uint8_t *>(words), row.size}), row.counts) << row.claim;
    }
}

TEST(GuardEvents, ItemsComeIntoForceWhenTheyAreSettled)
{
    guard_items items = {0x80, 0x40, 0, 0};
    guard_switch(items, GuardFeature::ipSourceGuard, 0xF0);
    EXPECT_EQ(items.ip, 0x80) << "what is in force goes on";
    EXPECT_EQ(guard_wanted(items, GuardFeature::ipSourceGuard), 0xF0);
    guard_settle(items, GuardFeature::ipSourceGuard);
    EXPECT_EQ(items.ip, 0xF0);
    guard_switch(items, GuardFeature::ipSourceGuard, 0x40);
    guard_switch(items, GuardFeature::ipSourceGuard, 0);
    EXPECT_TRUE(items.ip == 0 && items.ip_pending == 0) << "off at once";
    guard_switch(items, GuardFeature::ipSourceGuard, GUARD_EXEMPT);
    EXPECT_TRUE(items.ip == 0x01 && items.ip_pending == 0) << "exempt at once";
    EXPECT_EQ(guard_checked(items, GuardFeature::ipSourceGuard), 0) << "which is off for the daemon";
    guard_switch(items, GuardFeature::ipSourceGuard, 0x80);
    EXPECT_EQ(items.ip, 0x01) << "goes on until the items are in force";
}

} // namespace
