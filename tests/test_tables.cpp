// The interface table (order, switching on and off, versions, the hardware trap) and the servers that
// were heard.
#include "scene.h"

namespace
{

using Tables = Daemon;

// Interfaces 10 to 40 are there, three can be snooped; dumps are on.
void three_interfaces()
{
    world.reset(3, 0, 2);
    for (const uint32_t ifIndex : {10u, 20u, 30u, 40u})
        world.access(ifIndex, 10);
    debug(2);
}

std::string enable(uint32_t ifIndex = 10)
{
    world.clear();
    std::string text = world_format("%u: ", dhcpsnoop_if_enable(ifIndex));
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList))
        text += world_format("%u ", ifp->ifIndex);
    return text + outcome() + "; " + said();
}

std::string enabled(void (*change)(WorldPort &))
{
    three_interfaces();
    change(world.ports[10]);
    debug(1);
    const std::string done = enable(), fields = world_state();
    return done + " " + fields.substr(0, fields.find('\n'));
}

// Switched over from a version to another: what was printed whatever the debug flags, the flags' change, calls, texts.
std::string version(uint32_t from, uint32_t to, uint32_t trusted = 0)
{
    three_interfaces();
    DhcpsnoopIf *ifp = snoop(10, trusted);
    set_flag_field(ifp, DHCPSNOOP_IF_VERSION, from);
    const uint32_t before = ifp->flags;
    Printed out;
    const uint32_t result = dhcpsnoop_if_version_set(ifp, to);
    return world_format("%u %x ", result, before ^ ifp->flags) + out.text() + calls_summary() + "; " + said();
}

std::string traps(uint32_t version, uint32_t state, int32_t result4 = 0, int32_t result6 = 0)
{
    three_interfaces();
    for (const char *command : {"305", "306"}) {
        world.refuse(world_format("qorIfSetApi 10 %s 23", command), result4);
        world.refuse(world_format("qorIfSetApi 10 %s 24", command), result6);
    }
    const int32_t result = dhcpsnoop_if_state_notify(10, version, state);
    return world_format("%d ", result) + calls_summary() + said().substr(60);
}

#define ACL "|Notify interface state to hwapi failed!"
TEST_F(Tables, Interfaces)
{
    const std::string mode = "; Notify interface state to hwapi: unit 10, verion 1, state 1.|Dhcpsnoop interface work mode ", bridge = "bridge.|Process user on interface 10, inet type 1, user type = 2, operate 1. if10 mac:02000000010a max=32768 s21=100", router = "router" + bridge.substr(6);
    const auto process = [](int inet, const char *rest2) { return world_format("Process user on interface 10, inet type %d, user type = %s", inet, rest2); };
    const std::string on4 = process(1, "2, operate 1.|Notify interface state to hwapi: unit 10, verion 1, state 1."), on6 = process(2, "2, operate 1.|Notify interface state to hwapi: unit 10, verion 2, state 1.");
    const std::string off4 = process(1, "1, operate 2.|") + process(1, "2, operate 0.|Notify interface state to hwapi: unit 10, verion 1, state 0."), off6 = process(2, "1, operate 2.|") + process(2, "2, operate 0.|Notify interface state to hwapi: unit 10, verion 2, state 0.");
    check({
        // In use, IPv4, policy 2 (keep), not trusted; router mode and VLAN as answered. DHCPv4 is trapped, DHCPv6 not.
        {"a port in bridge mode; in router mode; a mode word of 2 is called router, but the bit is clear", series({enabled([](WorldPort &) {}), enabled([](WorldPort &p) { p.workMode = 1; }), enabled([](WorldPort &p) { p.workMode = 2; })}), series({"0: 10 qorIfSetApi 10 305 23" + mode + bridge + " flags#80c00000", "0: 10 qorIfSetApi 10 305 23" + mode + router + " flags#80c00002", "0: 10 qorIfSetApi 10 305 23" + mode + router + " flags#80c00000"})},
        {"a VLAN interface; only 12 bits of its VLAN are taken; nothing answered; a VLAN interface whose VLAN is not answered", series({enabled([](WorldPort &p) { p.isVlanIf = true, p.vid = 0xF00A; }), enabled([](WorldPort &p) { p.isVlanIf = true, p.workMode = 1; for (const char *attribute : {"33", "193", "417", "5400"}) world.refuse(std::string("qorIfGetApi 10 ") + attribute); }), enabled([](WorldPort &p) { p.isVlanIf = true, world.refuse("qorIfGetApi 10 5400"); })}), series({"0: 10 qorIfSetApi 10 305 23" + mode + bridge + " vlanIf=1 flags#80c00028", "0: 10 qorIfSetApi 10 305 23" + mode + bridge.substr(0, bridge.find(" mac")) + " max=32768 s21=100 flags#80c00000", "0: 10 qorIfSetApi 10 305 23" + mode + bridge + " vlanIf=1 flags#80c00000"})},
        {"sorted; equal indexes in their order; a trusted interface gains IPv6 and loses its trust; it loses IPv4", series({enable(30).substr(0, 33), enable(10).substr(0, 36), version(1, 3, DHCPSNOOP_IF_TRUSTED), version(3, 2)}), series({"0: 10 30 qorIfSetApi 30 305 23; N", "0: 10 10 30 qorIfSetApi 10 305 23; N", "0 21000000 Interface trust state is changed!\n\rqorIfSetApi 10 305 24; " + on6, "0 800000 qorIfSetApi 10 306 23; " + off4})},
        {"one too many", (three_interfaces(), debug(1), snoop(10), snoop(20), snoop(30), enable(40)), "12: 10 20 30 ; Failed to allocate memory for interface 40."},
        {"one for the other, IPv4 first; the other way round; Kept: the same version touches nothing but clears the trust", series({version(1, 2), version(2, 1), version(1, 5, DHCPSNOOP_IF_TRUSTED)}), series({"0 1800000 qorIfSetApi 10 306 23, qorIfSetApi 10 305 24; " + off4 + "|" + on6, "0 1800000 qorIfSetApi 10 305 23, qorIfSetApi 10 306 24; " + on4 + "|" + off6, "0 20000000 Interface trust state is changed!\n\r; "})},
        {"add both; add neither, delete neither; a refused IPv4 ends it; a refused IPv6 is the result; any other state deletes; an IPv4 failure goes on, and is forgotten when IPv6 succeeds", series({traps(3, 1), traps(0, 1) + traps(0, 0), traps(3, 1, 4, 6), traps(3, 1, 0, 6), traps(1, 2), traps(3, 0, 4)}), "0 qorIfSetApi 10 305 23, qorIfSetApi 10 305 24 / 0 0  / 4 qorIfSetApi 10 305 23|Add dhcp acl failed! / 6 qorIfSetApi 10 305 23, qorIfSetApi 10 305 24|Add dhcpv6 acl failed! / 0 qorIfSetApi 10 306 23 / 0 qorIfSetApi 10 306 23, qorIfSetApi 10 306 24|Delete dhcp acl failed!"},
        {"both fail; IPv4 alone fails", series({traps(3, 0, 4, 6), traps(1, 0, 4)}), "6 qorIfSetApi 10 306 23, qorIfSetApi 10 306 24|Delete dhcp acl failed!|Delete dhcpv6 acl failed!" ACL " / 4 qorIfSetApi 10 306 23|Delete dhcp acl failed!" ACL},
    });
}

TEST_F(Tables, InterfaceOfAVlan)
{
    three_interfaces();
    for (const uint32_t ifIndex : {10u, 20u, 30u})
        set_flag_field(snoop(ifIndex), DHCPSNOOP_IF_VID, 10);
    dhcpsnoop_if_lookup(20)->isVlanIf = dhcpsnoop_if_lookup(30)->isVlanIf = 1;
    // The first in the list, no port even when its VLAN bits match, the low 16 bits of the number.
    for (const auto &[vid, ifIndex] : std::map<uint32_t, uint32_t>{{10, 20}, {0x1000A, 20}, {11, 0}, {0x100A, 0}})
        EXPECT_EQ(dhcpsnoop_if_lookup_by_vid(vid), dhcpsnoop_if_lookup(ifIndex)) << vid;
}

} // namespace
