// The binding table, the MAC-user table, and bindings in hardware and as events.

#include <random>

#include "event_message.h"
#include "steps.h"
#include "user_index.h"

namespace
{

using User = Daemon;
constexpr uint32_t IPSG = 1, DAI = 2;

DhcpsnoopIf *port(uint32_t ifIndex = 1) { return dhcpsnoop_if_lookup(ifIndex); }

const Word WORDS[] = {
    {"trusted", [] { port()->flags |= DHCPSNOOP_IF_TRUSTED; }},
    {"trusted-vlan", [] { port(110)->flags |= DHCPSNOOP_IF_TRUSTED; }},
    {"two-users", [] { port()->maxUser = 2; }},
    {"two-in-vlan", [] { port(110)->maxUser = 2; }},
    {"asked", [] { make_binding(HOST, MAC_CLIENT, 1, 10)->bindState = DHCPSNOOP_BIND_REQUESTED, binding(HOST)->leaseTime = 60, binding(HOST)->vendorTag = 99; }},
    {"gateway", [] { memcpy(&binding(HOST)->gateway, Bytes{10, 0, 0, 254}.data(), 4); }},
    {"ipv6", [] { make_binding("a00:32::", MAC_CLIENT, 1, 10)->gateway = 9; }},
};

const Arrival IN_VLAN20 = {.outer = 20}, ON_VLAN = {.port = 3, .outer = 20, .inIf = 110};
#define ASKED "| .50 asked 1/10 10s ago"
#define NOTIFY "Notify add user: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, gateway 10.0.0.254."
const Row ROWS[] = {
    {"in a VLAN without VLAN interface", "vlan-if", {.arrival = IN_VLAN20}, "2 296 | .50 asked 1/20", "User information: interface 1, vid 20, mac 02:c1:00:00:00:01, ip 10.0.0.50.|User do not exist, add it to user table.|!User entry is already exist!"},
    {"on a trusted port", "trusted", {}, "2 292", "Received Boot-Request message on trust port, don't record user entry!"},
    {"the VLAN's trust does not count", "vlan-if trusted-vlan", {.arrival = ON_VLAN}, "2 296 | .50 asked 3/10"},
    {"nothing changed: the lease begins again", "bound", {.after = 10}, "2 292 | .50 bound 1/10", "User entry is already exist!|!User information is changed, delete it!"},
    {"another VLAN", "bound", {.arrival = IN_VLAN20}, "2 296 | .50 asked 1/20", "User information is changed, delete it!|Delete the user entry: ip is 10.0.0.50."},
    {"a static entry is never displaced", "static", {.chaddr = MAC_CLIENT2, .after = 10}, "2 292 | .50 static bound 1/10 10s ago", "Static user is already exist, return!"},
    {"two are the limit", "two-users bound", {.address = HOST + 1}, "2 292 | .50 bound 1/10 | .51 asked 1/10"},
    {"a third is not taken", THEN, {.address = HOST + 2}, " | .50 bound 1/10 | .51 asked 1/10", "Number of users on the interface exceeds the limit!"},
    {"a changed one is: its old entry makes room", THEN, {.chaddr = MAC_CLIENT2, .address = HOST + 1}, "2 292 | .50 bound 1/10 | .51 asked 1/10 of 02"},
    {"the VLAN has a limit of its own, a port without entry none", "vlan-if bound two-in-vlan", {.address = HOST + 1, .arrival = ON_VLAN}, "2 296 | .50 bound 1/10 | .51 asked 3/10"},
    {"not a third, neither on the port", THEN, {.address = HOST + 2}, " | .50 bound 1/10 | .51 asked 3/10"},
    {"Kept: a changed entry is gone before the limit is looked at", "bound no-users", {.chaddr = MAC_CLIENT2}, ""},
    {"announced, handed to the hook, installed, in this order", "guarded hook asked", {.type = ACK, .more = opt_ip(3, RELAY), .after = 10, .lease = 7200}, "1 304, qorNetlinkSend 16 0 72, deftinstall ip 0a000032 tag 00000063 mac 02 c1 00 00 00 01 one 1 add 1, 256 256, hw +1 .50 f0/80 | .50 bound 1/10 7200s hw 80", "User entry is already exist, update the entry information.|" NOTIFY},
    {"a router alone", "asked", {.type = ACK, .more = opt_ip(3, RELAY), .after = 10, .lease = 0}, "1 304, qorNetlinkSend 16 0 72 " ASKED, NOTIFY},
    {"an address that nobody asked for creates nothing", "asked", {.type = ACK, .address = HOST + 1, .after = 10}, "1 298 " ASKED, "User entry 10.0.0.51 isn't exist!"},
    {"a static entry is not changed", "static", {.type = ACK, .more = opt_ip(3, RELAY), .after = 10}, "1 304 | .50 static bound 1/10 10s ago", "There is a static entry with the same ip address!"},
    {"a node", "one-node bound gateway", {.type = RELEASE}, "2 292, qorNetlinkSend 16 0 72"},
    {"that is taken again", THEN, {}, "2 292 | .50 asked 1/10"},
    {"is all there is", THEN, {.address = HOST + 1}, " | .50 asked 1/10", "Can't allocate memory for user entry!"},
    {"and was zero: no gateway, so nothing is announced", THEN, {.type = RELEASE}, "2 292"},
    {"released: the hook is told only whose it was", "hook bound gateway", {.type = RELEASE}, "2 292, qorNetlinkSend 16 0 72, deftinstall ip 00000000 tag 00000000 mac 02 c1 00 00 00 01 one 0 add 0, null null", "Delete the user entry: ip is 10.0.0.50."},
};
TEST_F(User, Rows) { check_rows(ROWS, WORDS); }

TEST_F(User, LearnedAndDeletedDirectly)
{
    const auto users = [] { return held() + world_format(" | %u users", port()->curUser) + (port(110) == nullptr ? "" : world_format(", %u in the VLAN", port(110)->curUser)); };
    const auto learn = [&](const char *words, const Arrival &arrival) {
        prepare(words, WORDS);
        world.now = 0;
        const Parsed parsed(Frame{.options = opt_type(3) + opt_ip(54, SERVER) + opt(60, hex_bytes("01 04 00 00 00 63")) + OPT_END}, arrival);
        const Key key(HOST);
        const int32_t result = dhcpsnoop_user_add(&key, nullptr, &parsed.info);
        return std::to_string(result) + users();
    };
    const auto deleted = [&](const char *words) {
        prepare(words, WORDS);
        dhcpsnoop_user_delete(binding(HOST) != nullptr ? binding(HOST) : binding("a00:32::"));
        const Lines log = world.texts(Did::Log);
        return (log.empty() ? "" : log[0]) + calls_summary() + users();
    };
    check({
        {"on a VLAN interface, from a port with an entry; on a VLAN interface, from a trusted port; no room; every field; told", series({learn("vlan-if", {.outer = 20, .inIf = 110}), learn("vlan-if trusted", {.inIf = 110}), learn("no-users", {}), (learn("", {}), parts(world_state(), '\n').at(2)), world.texts(Did::Log).at(0)}), "0 | .50 asked 1/10 by .1 | 1 users, 1 in the VLAN / 0 | 0 users, 0 in the VLAN / -1 | 0 users / 10.0.0.50 vid=10 orig=10 if=1 lease=60 type=1 state=4 mark#30 tag#63 server#a000001 mac:02c100000001 / 7 1 [DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.0.50, mac 02:c1:00:00:00:01, interface swp1, vlan 10, leasetime 60.\r\n"},
        {"dynamic; IPv6 is not announced; nor a static one, nor is it counted; nor one of IP source guard", series({deleted("hook vlan-if bound"), deleted("hook ipv6"), deleted("hook bound static gateway").substr(0, 62), deleted("hook bound ipsg gateway")}), "7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50\r\n | 0 users, 0 in the VLAN / 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip a00:32::\r\n | 0 users / 7 1 [DHCPSNOOP] Delete static dhcpsnoop entry: ip 10.0.0.50\r\n  / 7 1 [DHCPSNOOP] Delete other dhcpsnoop entry: ip 10.0.0.50\r\n | .50 bound 1/10 | 1 users"},
    });
    prepare("");
    world.ports[1].name = std::string(70, 'n'); // longer than its room
    Message{}.receive();
    EXPECT_NE(world.texts(Did::Log).at(0).find(", interface " + std::string(63, 'n') + ", vlan 10, "), std::string::npos);
    EXPECT_EQ(world.questions("nmGetIfPartDescr"), Lines{"nmGetIfPartDescr 1 63"});
}

TEST_F(User, Query)
{
    // A query for the first of two bindings, changed: by all its fields, and by those of the mask.
    const auto found = [](uint8_t mask, void (*change)(DhcpsnoopUserQuery &)) {
        DhcpsnoopUserQuery query = {.ipAddr = {10, 0, 0, 50}, .ifIndex = 1, .mac = {2, 0xC1, 0, 0, 0, 1}, .vid = 10, .ipType = 1, .mask = 0xF0};
        change(query);
        const int32_t all = dhcpsnoop_user_get(&query);
        query.mask = mask;
        return world_format("%d %d", all, dhcpsnoop_user_get(&query));
    };
    prepare("bound");
    make_binding(HOST + 1, MAC_CLIENT2, 2, 20);
    check({
        {"right in everything", found(0xF0, [](DhcpsnoopUserQuery &) {}), "0 0"},
        {"16 bytes of the address and its type", series({found(0x70, [](DhcpsnoopUserQuery &q) { q.ipAddr[3] = 9; }), found(0x70, [](DhcpsnoopUserQuery &q) { q.ipAddr[15] = 1; }), found(0x70, [](DhcpsnoopUserQuery &q) { q.ipType = 2; })}), "-1 0"},
        {"MAC, VLAN, port; the second binding by its port alone", series({found(0xB0, [](DhcpsnoopUserQuery &q) { q.mac[0] = 9; }), found(0xD0, [](DhcpsnoopUserQuery &q) { q.vid = 20; }), found(0xE0, [](DhcpsnoopUserQuery &q) { q.ifIndex = 9; }), found(0x10, [](DhcpsnoopUserQuery &q) { q.ifIndex = 2; })}), "-1 0"},
        {"nothing there", (prepare(""), found(0, [](DhcpsnoopUserQuery &) {})), "-1 -1"},
    });
}

TEST_F(User, MacUsers)
{
    const Mac a = {0, 0, 0, 0, 1, 2}, b = {0, 0, 0, 0, 2, 1}, last = {0, 0, 0, 0, 1, 2 + 63}; // one bucket
    prepare("vlan-if no-users");
    Parsed first(Frame{.chaddr = a, .options = opt_type(3) + opt_ip(54, 77) + OPT_END}), second(Frame{.chaddr = b}, ON_VLAN);
    first.info.rxTime = second.info.rxTime = 1234;
    const std::string before = world_state();
    DhcpsnoopMacUser *one = dhcpsnoop_mac_user_add(&first.info), *two = dhcpsnoop_mac_user_add(&second.info);
    // In the place of the client, whatever the limits say.
    EXPECT_EQ(world_changes(before), " | +waiting/000000000102 vid=10 if=1 age=120 seen=1234 server#4d | +waiting/000000000201 vid=10 if=3 age=120 seen=1234");
    DhcpsnoopMacUser *again = dhcpsnoop_mac_user_add(&first.info); // duplicates are the caller's affair; the newest is found
    EXPECT_TRUE(dhcpsnoop_mac_user_lookup(a.data()) == again && dhcpsnoop_mac_user_lookup(b.data()) == two);
    dhcpsnoop_mac_user_delete(again);
    EXPECT_TRUE(dhcpsnoop_mac_user_lookup(a.data()) == one && gDhcpsnoop.userFreeList.next == again && dhcpsnoop_mac_user_lookup(last.data()) == nullptr);
}

TEST_F(User, FoundAsAlongTheChains)
{
    auto pick = [random = std::mt19937(1)](uint32_t of) mutable { return static_cast<uint32_t>(random() % of); };
    std::string faults;
    world.reset(4, 300);
    for (int i = 0; i < 6000 && faults.empty(); i++) {
        const Key key(HOST + pick(400));
        const Mac mac = {2, 0, 0, 0, 0, static_cast<uint8_t>(pick(13))};
        if (Parsed waits(Frame{.chaddr = mac}); pick(8) == 0)
            dhcpsnoop_mac_user_add(&waits.info);
        else if (DhcpsnoopUser *user = binding(key); user == nullptr)
            make_binding(key, mac, pick(4), 10);
        else if (pick(3) == 0)
            dhcpsnoop_user_mac_set(user, mac.data()), dhcpsnoop_user_port_set(user, pick(4)), user->userType = static_cast<uint8_t>(pick(3));
        else
            dhcpsnoop_user_delete(user), dhcpsnoop_mac_user_delete(dhcpsnoop_mac_user_lookup(mac.data()));
        faults = i % 20 == 0 ? world_check_tables(false) : "";
        uint32_t counted[4] = {};
        for (const DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash))
            counted[user->ifIndex]++;
        for (uint32_t port = 0; port < 4; port++)
            if (user_index_on_port(port) != counted[port])
                faults += world_format("%u bindings on port %u, not %u", counted[port], port, user_index_on_port(port));
    }
    EXPECT_EQ(faults, "");
}

// The record of one call, then the identifiers that the binding has and what was said.
TEST_F(User, Rules)
{
    const auto rule = [](uint32_t add, uint8_t items, uint32_t kind, uint8_t daiStarted = 1, int32_t refused = 0) {
        prepare("bound");
        DhcpsnoopUser *user = binding(HOST);
        user->userAttr = 7, user->origVid = 11, user->ipsgHwId = 3, user->daiHwId = 4; // told apart from vid here only
        gDhcpsnoop.daiStarted = daiStarted;
        world.newHwId = 51;
        world.refuse("hw", refused);
        const int32_t result = dhcpsnoop_user_state_notify(user, add, &items, kind);
        return world_format("%d ", result) + world.calls().at(0) + world_format(", then %u %u", user->ipsgHwId, user->daiHwId) + (items == 0xF0 ? "" : "|" + said());
    };
    // Of that add, MAC, VLAN, port, address and the rest.
    const auto right = [](const char *head, bool mac, int vid, int port, int id, bool address, const char *rest) {
        return std::string(head) + " 1: mac " + (mac ? "02 c1 00 00 00 01" : "00 00 00 00 00 00") + world_format(" vid %d if %d ipsg %d addr ", vid, port, id) + (address ? "0a 00 00 32" : "00 00 00 00") + " 00 00 00 00 00 00 00 00 00 00 00 00 " + rest;
    };
    const std::string text = ", then 51 4|Add user in hwapi: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, checkitem 0x80.";
    check({
        {"everything, IP source guard; ARP inspection; Kept: ARP inspection that was not started; deleted", series({rule(1, 0xF0, IPSG), rule(1, 0xF0, DAI), rule(1, 0xF0, DAI, 0), rule(0, 0xF0, IPSG), rule(0, 0xF0, DAI).substr(0, 13)}), series({right("0 hw add", true, 10, 1, 3, true, "attr 7 orig 11 type 1 rule 80 macValid 30 kind 20 dai 0, then 51 4"), right("0 hw add", true, 10, 1, 0, true, "attr 7 orig 11 type 1 rule 40 macValid 30 kind 20 dai 4, then 3 52"), right("0 hw add", true, 10, 1, 0, true, "attr 7 orig 11 type 1 rule 00 macValid 30 kind 20 dai 0, then 3 52"), right("0 hw delete", true, 10, 1, 3, true, "attr 7 orig 11 type 1 rule 80 macValid 30 kind 20 dai 0, then 3 4"), "0 hw delete 1"})},
        {"no item at all; IP and port; MAC; VLAN", series({rule(1, 0, IPSG), rule(1, 0x90, IPSG), rule(1, 0x40, IPSG), rule(1, 0x20, IPSG)}), series({right("0 hw add", false, 0, 0, 3, false, "attr 7 orig 0 type 1 rule 80 macValid 00 kind 00 dai 0") + text, right("0 hw add", false, 0, 1, 3, true, "attr 7 orig 0 type 1 rule 80 macValid 00 kind 20 dai 0") + text, right("0 hw add", true, 0, 0, 3, false, "attr 7 orig 0 type 1 rule 80 macValid 30 kind 00 dai 0") + text, right("0 hw add", false, 10, 0, 3, false, "attr 7 orig 11 type 1 rule 80 macValid 00 kind 00 dai 0") + text})},
        {"Kept: the identifiers are taken over from a failed add", rule(1, 0x10, IPSG, 1, 9), right("9 hw add", false, 0, 1, 3, false, "attr 7 orig 0 type 1 rule 80 macValid 00 kind 00 dai 0") + text + "|Add user info in hwapi failed!"},
    });
    prepare("ipv6", WORDS);
    uint8_t items = 0x80;
    dhcpsnoop_user_state_notify(binding("a00:32::"), 0, &items, IPSG);
    EXPECT_EQ(world.calls().at(0), right("hw delete", false, 0, 0, 0, true, "attr 0 orig 0 type 2 rule 80 macValid 00 kind 80 dai 0"));
    EXPECT_EQ(unsaid("Delete user in hwapi: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip a00:32::, checkitem 0x80."), "");
}

const Step ENFORCED[] = {
    {"the port's, IP source guard first; what is installed is not refreshed; a refused withdrawal leaves it installed; the other is withdrawn all the same; once; a refused install leaves it not installed", "items 1 0x90;items 110 0xc0", "enforce 1;items 1 0xf0;enforce 1;once 1 hw delete;enforce 0;enforce 0;enforce 0;once 1 hw add;enforce 1", "hw +1 .50 90/80; hw +1 .50 90/00 | 10.0.0.50 hw#c0 ipsgFrom=2 daiFrom=2 ipsg#90 dai#90 /  / hw -1 .50 90/80; hw -1 .50 90/00 | 10.0.0.50 hw#80 daiFrom=0 dai=0 / hw -1 .50 90/80 | 10.0.0.50 hw=0 ipsgFrom=0 ipsg=0 /  / hw +1 .50 f0/80; hw +1 .50 f0/00 | 10.0.0.50 hw#40 daiFrom=2 dai#f0"},
    {"the VLAN's where the port's are off, but the request goes to the port; withdrawn; only 1 is on; a failing answer is off", "enabled 1 0;items 110 0xc0", "enforce 1;enforce 0;enabled 110 2;enforce 1;enabled 110 1;refuse 5 ipsgIfGetApi 110 1;refuse 5 arpAntiAttackIfGetApi 110 1;enforce 1", "hw +1 .50 c0/80; hw +1 .50 c0/00 | 10.0.0.50 hw#c0 ipsgFrom=1 daiFrom=1 ipsg#c0 dai#c0 / hw -1 .50 c0/80; hw -1 .50 c0/00 | 10.0.0.50 hw=0 ipsgFrom=0 daiFrom=0 ipsg=0 dai=0 /  / "},
    {"a VLAN without interface has none", "enabled 1 0;items 110 0xc0;refuse -1 qorIndexTrans 1,1,1,1,10,3,0 7", "enforce 1", ""},
};
TEST_F(User, WhoseCheckItems)
{
    check_steps(ENFORCED, [] { prepare("bound"), apply("hooks;debug 0"); });
}

TEST_F(User, Events)
{
    const auto notified = [](const char *words, uint32_t add) {
        prepare(words, WORDS);
        dhcpsnoop_user_notifier(binding(HOST) != nullptr ? binding(HOST) : binding("a00:32::"), add);
        return world.journal.empty() ? "" : calls_summary() + " " + hex(world.all(Did::Call)[0]->data) + said();
    };
    const auto event = [](uint16_t number, const char *word) {
        const Bytes record = host32(0) + host32(51) + host32(72) + host16(number) + Bytes(10, 0) + mac_bytes(MAC_CLIENT) + host16(10) + host32(1) + Bytes{10, 0, 0, 50} + Bytes(12, 0) + Bytes{10, 0, 0, 254} + Bytes(12, 0) + hex_bytes("00 00 01 00");
        return "qorNetlinkSend 16 0 72 " + hex(record) + world_format(" Send notify: event %u|Notify %s user: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, gateway 10.0.0.254.", number, word);
    };
    check({
        {"added; deleted; only 1 is an addition", series({notified("bound gateway", 1), notified("bound gateway", 0), notified("bound gateway", 2)}), series({event(188, "add"), event(189, "delete"), event(189, "add")})},
        {"not dynamic, IPv6, no gateway: silent", series({notified("static gateway", 1), notified("ipv6", 1), notified("bound", 1)}), ""},
    });
}

} // namespace
