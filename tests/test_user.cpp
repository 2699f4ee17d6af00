// The binding table, the MAC-user table, and bindings in hardware and as events.
#include "scene.h"

#include <algorithm>

#include "event_message.h"

namespace
{

using User = Daemon;
constexpr uint32_t IPSG = 1, DAI = 2;
constexpr uint8_t DYNAMIC = 1, STATIC = 2, GUARD = 4;

DhcpsnoopIf *port(uint32_t ifIndex = 1) { return dhcpsnoop_if_lookup(ifIndex); }

const Word WORDS[] = {
    {"trusted", [] { port()->flags |= DHCPSNOOP_IF_TRUSTED; }},
    {"trusted-vlan", [] { port(110)->flags |= DHCPSNOOP_IF_TRUSTED; }},
    {"two-users", [] { port()->maxUser = 2; }},
    {"two-in-vlan", [] { port(110)->maxUser = 2; }},
    {"asked", [] { make_binding(HOST, MAC_CLIENT, 1, 10)->bindState = DHCPSNOOP_BIND_REQUESTED, binding(HOST)->leaseTime = 60, binding(HOST)->vendorTag = 99; }},
    {"gateway", [] { memcpy(&binding(HOST)->gateway, Bytes{10, 0, 0, 254}.data(), 4); }},
    {"hook", [] { gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback; }},
    {"ipv6", [] { make_binding(key6("a00:32::"), MAC_CLIENT, 1, 10)->gateway = 9; }},
    {"uncounted", [] { port()->curUser = 0; }},
    {"elsewhere", [] { make_binding(HOST, MAC_CLIENT, 77, 20); }},
};

// clang-format off
const Arrival IN_VLAN20 = {.outer = 20}, ON_VLAN = {.port = 3, .outer = 20, .inIf = 110};
#define ASKED "| .50 asked 1/10 10s ago"
#define NOTIFY "Notify add user: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, gateway 10.0.0.254."
const Row ROWS[] = {
    {"in a VLAN without VLAN interface", "vlan-if", {.arrival = IN_VLAN20}, "2 296 | .50 asked 1/20", "User information: interface 1, vid 20, mac 02:c1:00:00:00:01, ip 10.0.0.50.|User do not exist, add it to user table.|!User entry is already exist!"},
    {"on a trusted port", "trusted", {}, "2 292", "Received Boot-Request message on trust port, don't record user entry!"},
    {"the VLAN's trust does not count", "vlan-if trusted-vlan", {}, "2 292 | .50 asked 1/10"},
    {"nor on the VLAN interface", "vlan-if trusted-vlan", {.arrival = ON_VLAN}, "2 296 | .50 asked 3/10"},
    {"nothing changed: the lease begins again", "bound", {.after = 10}, "2 292 | .50 bound 1/10", "User entry is already exist!|!User information is changed, delete it!"},
    {"another VLAN", "bound", {.arrival = IN_VLAN20}, "2 296 | .50 asked 1/20", "User information is changed, delete it!|Delete the user entry: ip is 10.0.0.50."},
    {"another port", "bound port3", {.arrival = Arrival{.port = 3}}, "2 292 | .50 asked 3/10"},
    {"a static entry is never displaced", "static", {.chaddr = MAC_CLIENT2, .after = 10}, "2 292 | .50 static bound 1/10 10s ago", "Static user is already exist, return!"},
    {"nor an IP source guard entry", "ipsg", {.chaddr = MAC_CLIENT2, .after = 10}, "2 292 | .50 ipsg bound 1/10 10s ago"},
    {"two are the limit", "two-users bound", {.address = HOST + 1}, "2 292 | .50 bound 1/10 | .51 asked 1/10"},
    {"a third is not taken", THEN, {.address = HOST + 2}, " | .50 bound 1/10 | .51 asked 1/10", "Number of users on the interface exceeds the limit!"},
    {"a changed one is: its old entry makes room", THEN, {.chaddr = MAC_CLIENT2, .address = HOST + 1}, "2 292 | .50 bound 1/10 | .51 asked 1/10 of 02"},
    {"the VLAN has a limit of its own, a port without entry none", "vlan-if bound two-in-vlan", {.address = HOST + 1, .arrival = ON_VLAN}, "2 296 | .50 bound 1/10 | .51 asked 3/10"},
    {"not a third, neither on the port", THEN, {.address = HOST + 2}, " | .50 bound 1/10 | .51 asked 3/10"},
    {"Kept: a changed entry is gone before the limit is looked at", "bound no-users", {.chaddr = MAC_CLIENT2}, ""},
    {"announced, handed to the hook, installed, in this order", "guarded hook asked", {.type = ACK, .more = opt_ip(3, RELAY), .after = 10, .lease = 7200}, "1 304, qorNetlinkSend 16 0 72, deftinstall ip 0a000032 tag 00000063 mac 02 c1 00 00 00 01 one 1 add 1, 256 256, hw +1 .50 f0/80 | .50 bound 1/10 7200s hw 80", "User entry is already exist, update the entry information.|" NOTIFY},
    {"a lease of 0 is none: the provisional lease stays", "asked", {.type = ACK, .after = 10, .lease = 0}, "1 298 " ASKED},
    {"an endless lease", "asked", {.type = ACK, .lease = 0xFFFFFFFF}, "1 298 | .50 bound 1/10 4294967295s"},
    {"a router alone", "asked", {.type = ACK, .more = opt_ip(3, RELAY), .after = 10, .lease = 0}, "1 304, qorNetlinkSend 16 0 72 " ASKED, NOTIFY},
    {"no address", "asked", {.type = ACK, .address = 0, .after = 10}, "1 298 " ASKED, "Client ip address is zero,return!"},
    {"an address that nobody asked for creates nothing", "asked", {.type = ACK, .address = HOST + 1, .after = 10}, "1 298 " ASKED, "User entry 10.0.0.51 isn't exist!"},
    {"a static entry is not changed", "static", {.type = ACK, .more = opt_ip(3, RELAY), .after = 10}, "1 304 | .50 static bound 1/10 10s ago", "There is a static entry with the same ip address!"},
    {"nor an IP source guard entry", "ipsg", {.type = ACK, .after = 10}, "1 298 | .50 ipsg bound 1/10 10s ago"},
    {"released: the hook is told only whose it was", "hook bound gateway", {.type = RELEASE}, "2 292, qorNetlinkSend 16 0 72, deftinstall ip 00000000 tag 00000000 mac 02 c1 00 00 00 01 one 0 add 0, null null", "Delete the user entry: ip is 10.0.0.50."},
    {"without gateway", "hook bound", {.type = RELEASE}, "2 292"},
};
TEST_F(User, Rows) { check_rows(ROWS, WORDS); }

TEST_F(User, LearnedAndDeletedDirectly)
{
    const auto users = [] { return held() + world_format(" | %u users", port()->curUser) + (port(110) == nullptr ? "" : world_format(", %u in the VLAN", port(110)->curUser)); };
    const auto learn = [&](const char *words, const Arrival &arrival) {
        prepare(words, WORDS);
        world.now = 0;
        const Parsed parsed(Frame{.options = opt_type(3) + opt_ip(54, SERVER) + opt(60, hex_bytes("01 04 00 00 00 63")) + OPT_END}, arrival);
        const DhcpsnoopUserKey key = key4(HOST);
        const int32_t result = dhcpsnoop_user_add(&key, nullptr, &parsed.info);
        return std::to_string(result) + users();
    };
    const auto deleted = [&](const char *words) {
        prepare(words, WORDS);
        dhcpsnoop_user_delete(binding(HOST) != nullptr ? binding(HOST) : binding("a00:32::"));
        const Lines log = world.texts(Did::Log);
        return (log.empty() ? "" : log[0]) + calls_summary() + users();
    };
    const std::string state = "vid 10/10 if 1 lease 60 from 0 hw 00 type 1 state 4 mark 30 attr 0 mac 02 c1 00 00 00 01 ids 0 0 gw 00000000 tag 00000063 source 0 0 items 00 00 server 0a000001\n";
    check({
        {"on a VLAN interface, from a port with an entry", learn("vlan-if", {.outer = 20, .inIf = 110}), "0 | .50 asked 1/10 by .1 | 1 users, 1 in the VLAN"},
        {"on a VLAN interface, from a trusted port", learn("vlan-if trusted", {.inIf = 110}), "0 | 0 users, 0 in the VLAN"},
        {"every field", (learn("", {}), world_state().substr(world_state().find("vid 10/10"), state.size())), state},
        {"told", world.texts(Did::Log).at(0), "7 1 [DHCPSNOOP] Add dynamic dhcpsnoop entry: ip 10.0.0.50, mac 02:c1:00:00:00:01, interface swp1, vlan 10, leasetime 60.\r\n"},
        {"dynamic", deleted("hook vlan-if bound"), "7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0.50\r\n | 0 users, 0 in the VLAN"},
        {"IPv6 is not announced", deleted("hook ipv6"), "7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip a00:32::\r\n | 0 users"},
        {"nor a static one, nor is it counted", deleted("hook bound static gateway").substr(0, 62), "7 1 [DHCPSNOOP] Delete static dhcpsnoop entry: ip 10.0.0.50\r\n "},
        {"nor one of IP source guard", deleted("hook bound ipsg gateway"), "7 1 [DHCPSNOOP] Delete other dhcpsnoop entry: ip 10.0.0.50\r\n | .50 bound 1/10 | 1 users"},
        {"a count of 0 stays", deleted("bound uncounted").substr(63), "| 0 users"},
        {"an absent interface is no fault", deleted("elsewhere").substr(63), "| 0 users"},
        {"no binding", deleted(""), " | 0 users"},
    });
    prepare("");
    world.ports[1].name = std::string(70, 'n'); // longer than its room
    Message{}.receive();
    EXPECT_NE(world.texts(Did::Log).at(0).find(", interface " + std::string(63, 'n') + ", vlan 10, "), std::string::npos);
    const DhcpsnoopUserKey key = key4(HOST + 1);
    Parsed nobody(Frame{});
    nobody.info.chaddr = nullptr;
    EXPECT_EQ(dhcpsnoop_user_add(nullptr, nullptr, nullptr) + dhcpsnoop_user_add(&key, nullptr, nullptr) + dhcpsnoop_user_add(&key, nullptr, &nobody.info), -2);
    EXPECT_EQ(dhcpsnoop_user_update(nullptr, nullptr, nullptr), nullptr);
}

TEST_F(User, KeysAndBuckets)
{
    DhcpsnoopUserKey a = key4(ip4(10, 0, 0, 1)), b = key4(ip4(1, 0, 0, 10)), six = a;
    six.ipType = DHCPSNOOP_IPV6;
    const DhcpsnoopUserKey high = key4(0xFFFFFFFF), most = key6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    std::string buckets;
    for (const DhcpsnoopUserKey &key : {a, b, six, high, most})
        buckets += world_format("%u ", dhcpsnoop_user_hash_key(&key));
    EXPECT_EQ(buckets, "11 11 11 12 48 "); // the sum of the address's bytes, modulo 63
    DhcpsnoopUser *users[] = {dhcpsnoop_user_table_add(&a), dhcpsnoop_user_table_add(&b), dhcpsnoop_user_table_add(&six)};
    EXPECT_TRUE(dhcpsnoop_user_lookup(&a) == users[0] && dhcpsnoop_user_lookup(&b) == users[1] && dhcpsnoop_user_lookup(&six) == users[2]);
    EXPECT_EQ(gDhcpsnoop.userHash[11].next, users[2]) << "the newest stands first in its bucket";
    six.ipAddr[15] = a.ipAddr[15] = 1;
    EXPECT_TRUE(dhcpsnoop_user_lookup(&six) == nullptr && dhcpsnoop_user_lookup(&a) == users[0]) << "16 bytes are compared, or 4";
    EXPECT_TRUE(dhcpsnoop_user_lookup(nullptr) == nullptr && dhcpsnoop_user_table_add(nullptr) == nullptr);
}

TEST_F(User, Query)
{
    prepare("bound");
    make_binding(HOST + 1, MAC_CLIENT2, 2, 20);
    const DhcpsnoopUserQuery right = {.ipAddr = {10, 0, 0, 50}, .ifIndex = 1, .mac = {2, 0xC1, 0, 0, 0, 1}, .vid = 10, .ipType = 1, .mask = 0xF0};
    DhcpsnoopUserQuery address = right, end = right, type = right, mac = right, vlan = right, ifIndex = right, second = right;
    address.ipAddr[3] = 9, end.ipAddr[15] = 1, type.ipType = 2, mac.mac[0] = 9, vlan.vid = 20, ifIndex.ifIndex = second.ifIndex = 2;
    std::string found;
    for (const auto &[query, without] : {std::pair{&right, 0xF0}, {&address, 0x70}, {&end, 0x70}, {&type, 0x70}, {&mac, 0xB0}, {&vlan, 0xD0}, {&ifIndex, 0xE0}}) {
        DhcpsnoopUserQuery other = *query;
        other.mask = static_cast<uint8_t>(without); // does not ask for what is wrong
        found += world_format("%d %d, ", dhcpsnoop_user_get(query), dhcpsnoop_user_get(&other));
    }
    EXPECT_EQ(found, "0 0, -1 0, -1 0, -1 0, -1 0, -1 0, -1 0, ");
    second.mask = 0x10;
    EXPECT_EQ(dhcpsnoop_user_get(&second), 0) << "the second binding by its port alone";
    world.reset();
    const DhcpsnoopUserQuery any = {};
    EXPECT_EQ(dhcpsnoop_user_get(&any) + dhcpsnoop_user_get(nullptr), -2);
}

TEST_F(User, MacUsers)
{
    const Mac a = {0, 0, 0, 0, 1, 2}, b = {0, 0, 0, 0, 2, 1}, last = {0, 0, 0, 0, 1, 2 + 63}; // one bucket
    EXPECT_EQ(world_format("%u %u %u", dhcpsnoop_mac_user_hash(a.data()), dhcpsnoop_mac_user_hash(b.data()), dhcpsnoop_mac_user_hash(MAC_BROADCAST.data())), "3 3 18");
    prepare("vlan-if no-users");
    Parsed first(Frame{.chaddr = a, .options = opt_type(3) + opt_ip(54, 77) + OPT_END}), second(Frame{.chaddr = b}, {.port = 3, .outer = 20, .inIf = 110});
    first.info.rxTime = second.info.rxTime = 1234;
    DhcpsnoopMacUser *one = dhcpsnoop_mac_user_add(&first.info), *two = dhcpsnoop_mac_user_add(&second.info);
    // Whatever the limits say, in the place of the client.
    EXPECT_NE(world_state().find("waiting 00 00 00 00 02 01 vid 10 if 3 age 120 seen 1234 server 00000000\nwaiting 00 00 00 00 01 02 vid 10 if 1 age 120 seen 1234 server 0000004d\n"), std::string::npos);
    DhcpsnoopMacUser *again = dhcpsnoop_mac_user_add(&first.info); // duplicates are the caller's affair; the newest is found
    EXPECT_TRUE(dhcpsnoop_mac_user_lookup(a.data()) == again && dhcpsnoop_mac_user_lookup(b.data()) == two);
    dhcpsnoop_mac_user_delete(again);
    EXPECT_TRUE(dhcpsnoop_mac_user_lookup(a.data()) == one && gDhcpsnoop.userFreeList.next == again);
    EXPECT_TRUE(dhcpsnoop_mac_user_lookup(last.data()) == nullptr && dhcpsnoop_mac_user_lookup(nullptr) == nullptr);
    first.info.chaddr = nullptr;
    EXPECT_TRUE(dhcpsnoop_mac_user_add(nullptr) == nullptr && dhcpsnoop_mac_user_add(&first.info) == nullptr);
    dhcpsnoop_mac_user_delete(nullptr);
    EXPECT_EQ(outcome(), " | waits 2");

    // One node for both tables: all of it is zero when it is taken.
    prepare("one-node");
    Message{}.receive();
    binding(HOST)->gateway = 9;
    dhcpsnoop_user_delete(binding(HOST));
    const Parsed parsed(Frame{});
    DhcpsnoopMacUser *waiting = dhcpsnoop_mac_user_add(&parsed.info);
    const auto *bytes = reinterpret_cast<const uint8_t *>(waiting);
    EXPECT_EQ(Bytes(bytes + sizeof *waiting, bytes + sizeof(DhcpsnoopUser)), Bytes(sizeof(DhcpsnoopUser) - sizeof *waiting));
    Message{}.receive();
    EXPECT_EQ(unsaid("Can't allocate memory for user entry!|!Send packet to server."), "");
    EXPECT_EQ(dhcpsnoop_mac_user_add(&parsed.info), nullptr);
    EXPECT_EQ(debug_texts().back(), "[DHCPSNOOP] Can't allocate memory for mac user entry!\r\n");
    dhcpsnoop_mac_user_delete(waiting);
    Message{}.receive();
    EXPECT_EQ(held(), " | .50 asked 1/10");
    EXPECT_EQ(binding(HOST)->gateway, 0u);
}

// The record of one call, then the identifiers that the binding has and what was said.
TEST_F(User, Rules)
{
    const auto rule = [](uint32_t add, uint8_t items, uint32_t kind, uint8_t daiStarted = 1, int32_t refused = 0) {
        prepare("bound");
        DhcpsnoopUser *user = binding(HOST);
        user->userAttr = 7, user->origVid = 11, user->ipsgHwId = 3, user->daiHwId = 4; // told apart from vid here only
        gDhcpsnoop.daiStarted = daiStarted;
        world.newIpsgHwId = 51, world.newDaiHwId = 52;
        world.refuse("hw", refused);
        const int32_t result = dhcpsnoop_user_state_notify(user, add, &items, kind);
        return world_format("%d ", result) + world.calls().at(0) + world_format(", then %u %u", user->ipsgHwId, user->daiHwId) + (items == 0xF0 ? "" : "|" + said());
    };
    const std::string text = "|Add user in hwapi: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, checkitem 0x80.", noMac = " mac 00 00 00 00 00 00", mac = " mac 02 c1 00 00 00 01";
    const std::string address = " addr 0a 00 00 32 00 00 00 00 00 00 00 00 00 00 00 00", noAddress = " addr 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00";
    check({
        {"everything, IP source guard", rule(1, 0xF0, IPSG), "0 hw add 1:" + mac + " vid 10 if 1 ipsg 3" + address + " attr 7 orig 11 type 1 rule 80 macValid 30 kind 20 dai 0, then 51 4"},
        {"no item at all", rule(1, 0, IPSG), "0 hw add 1:" + noMac + " vid 0 if 0 ipsg 3" + noAddress + " attr 7 orig 0 type 1 rule 80 macValid 00 kind 00 dai 0, then 51 4" + text},
        {"IP and port", rule(1, 0x90, IPSG), "0 hw add 1:" + noMac + " vid 0 if 1 ipsg 3" + address + " attr 7 orig 0 type 1 rule 80 macValid 00 kind 20 dai 0, then 51 4" + text},
        {"MAC", rule(1, 0x40, IPSG), "0 hw add 1:" + mac + " vid 0 if 0 ipsg 3" + noAddress + " attr 7 orig 0 type 1 rule 80 macValid 30 kind 00 dai 0, then 51 4" + text},
        {"VLAN", rule(1, 0x20, IPSG), "0 hw add 1:" + noMac + " vid 10 if 0 ipsg 3" + noAddress + " attr 7 orig 11 type 1 rule 80 macValid 00 kind 00 dai 0, then 51 4" + text},
        {"ARP inspection", rule(1, 0xF0, DAI), "0 hw add 1:" + mac + " vid 10 if 1 ipsg 0" + address + " attr 7 orig 11 type 1 rule 40 macValid 30 kind 20 dai 4, then 3 52"},
        {"Kept: ARP inspection that was not started", rule(1, 0xF0, DAI, 0), "0 hw add 1:" + mac + " vid 10 if 1 ipsg 0" + address + " attr 7 orig 11 type 1 rule 00 macValid 30 kind 20 dai 0, then 3 52"},
        {"deleted", rule(0, 0xF0, IPSG), "0 hw delete 1:" + mac + " vid 10 if 1 ipsg 3" + address + " attr 7 orig 11 type 1 rule 80 macValid 30 kind 20 dai 0, then 3 4"},
        {"deleted of ARP inspection", rule(0, 0xF0, DAI).substr(0, 13), "0 hw delete 1"},
        {"Kept: the identifiers are taken over from a failed add", rule(1, 0x10, IPSG, 1, 9), "9 hw add 1:" + noMac + " vid 0 if 1 ipsg 3" + noAddress + " attr 7 orig 0 type 1 rule 80 macValid 00 kind 00 dai 0, then 51 4" + text + "|Add user info in hwapi failed!"},
    });
    DhcpsnoopUser *user6 = make_binding(key6("2001::9"), MAC_CLIENT, 3, 10);
    uint8_t items = 0x80;
    world.clear();
    world.role(DHCPSNOOP_ROLE_SLAVE);
    EXPECT_EQ(dhcpsnoop_user_state_notify(user6, 1, &items, IPSG), 0) << "a standby unit programs no hardware";
    EXPECT_EQ(outcome().find("hw"), std::string::npos);
    world.role(DHCPSNOOP_ROLE_NONE);
    dhcpsnoop_user_state_notify(user6, 0, &items, IPSG);
    EXPECT_EQ(world.calls().at(0), "hw delete 3: mac 00 00 00 00 00 00 vid 0 if 0 ipsg 0 addr 20 01 00 00 00 00 00 00 00 00 00 00 00 00 00 09 attr 0 orig 0 type 2 rule 80 macValid 00 kind 80 dai 0");
    EXPECT_EQ(said().substr(said().find("Delete")), "Delete user in hwapi: port 3 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 2001::9, checkitem 0x80.|Delete user info in hwapi failed!");
}

// Whose check items count: source (0: not installed), items, calls, questions asked; for each of the two features.
TEST_F(User, WhoseCheckItems)
{
    const auto whose = [](std::optional<WorldGuard> ofPort, std::optional<WorldGuard> ofVlan) {
        std::string text;
        for (const bool ipsg : {true, false}) {
            prepare("bound");
            (ipsg ? gDhcpsnoop.ipsgIfGet : gDhcpsnoop.antiArpIfGet) = ipsg ? ipsgIfGetApi : arpAntiAttackIfGetApi;
            auto &guards = ipsg ? world.ipsg : world.dai;
            if (ofPort)
                guards[1] = *ofPort;
            if (ofVlan)
                guards[110] = *ofVlan;
            if (!ofPort && ofVlan && ofVlan->items == 1)
                world.ports.erase(110);
            DhcpsnoopUser *user = binding(HOST);
            dhcpsnoop_user_update_hw(user, 1);
            text += world_format("%x from %u %u items %x %x calls %zu asked %zu %zu; ", user->hwFlags, user->ipsgSource, user->daiSource, user->ipsgCheckItems, user->daiCheckItems, world.calls("hw add 1").size(), world.questions(ipsg ? "ipsg" : "arp").size(), world.questions("qorIndexTrans 1,1,1,1,10,3,0 7").size());
        }
        return text;
    };
    const WorldGuard onPort = {.items = 0x90}, onVlan = {.items = 0x40};
    check({
        {"the port's", whose(onPort, onVlan), "80 from 2 0 items 90 0 calls 1 asked 2 0; 40 from 0 2 items 0 90 calls 1 asked 2 0; "},
        {"the VLAN's when the port has none", whose({}, onVlan), "80 from 1 0 items 40 0 calls 1 asked 3 1; 40 from 0 1 items 0 40 calls 1 asked 3 1; "},
        {"the VLAN's when the port is off", whose(WorldGuard{.enabled = 0, .items = 0x90}, onVlan), "80 from 1 0 items 40 0 calls 1 asked 3 1; 40 from 0 1 items 0 40 calls 1 asked 3 1; "},
        {"only 1 is on, and a failing answer is off", whose(WorldGuard{.enabled = 2, .items = 0x90}, WorldGuard{.items = 0x40, .result = 5}), "0 from 0 0 items 0 0 calls 0 asked 2 1; 0 from 0 0 items 0 0 calls 0 asked 2 1; "},
        {"a VLAN without interface is not asked", whose({}, WorldGuard{.items = 1}), "0 from 0 0 items 0 0 calls 0 asked 1 1; 0 from 0 0 items 0 0 calls 0 asked 1 1; "},
    });
    prepare("bound guarded");
    gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
    gDhcpsnoop.daiStarted = 1;
    world.dai[1] = {.items = 0x40};
    DhcpsnoopUser *user = binding(HOST);
    const auto update = [user](uint32_t add, const char *refused = "nothing", uint32_t ofTrunk = 0, uint32_t member = 8) {
        world.clear();
        world.refuse(refused, 1, 1);
        if (add < 10)
            dhcpsnoop_user_update_hw(user, add);
        else
            dhcpsnoop_user_process_on_trunk(ofTrunk, member, add - 10);
        return calls_summary() + world_format(" | %x %x/%u %x/%u on %u", user->hwFlags, user->ipsgCheckItems, user->ipsgSource, user->daiCheckItems, user->daiSource, user->ifIndex);
    };
    check({
        {"IP source guard first", update(1), "hw +1 .50 f0/80, hw +1 .0 40/40 | c0 f0/2 40/2 on 1"},
        {"what is installed is not refreshed", (world.ipsg[1].items = 0x10, update(1)), " | c0 f0/2 40/2 on 1"},
        {"a refused withdrawal leaves it installed; the other is withdrawn all the same", update(0, "hw delete"), "hw -1 .50 f0/80, hw -1 .0 40/40 | 80 f0/2 0/0 on 1"},
        {"withdrawn", update(0), "hw -1 .50 f0/80 | 0 0/0 0/0 on 1"},
        {"once", update(0), " | 0 0/0 0/0 on 1"},
        {"a refused install leaves it not installed", update(1, "hw add"), "hw +1 .0 10/80, hw +1 .0 40/40 | 40 0/0 40/2 on 1"},
        // Kept: what the trunk has installed is not installed again for a member, and is withdrawn for one that leaves.
        {"a member joins", (world.ipsg[8] = {.items = 0x80}, update(11, "nothing", 1)), "hw +8 .50 80/80 | 40 0/0 40/2 on 1"},
        {"a member leaves", update(10, "nothing", 1), "hw -8 .0 40/40 | 40 0/0 40/2 on 1"},
        {"of another trunk", update(10, "nothing", 2), " | 40 0/0 40/2 on 1"},
        {"0 is every binding", update(10, "nothing", 0, 9), "hw -9 .0 40/40 | 40 0/0 40/2 on 1"},
        {"said", said(), "Process user on trunk interface 0, port 9, operate 0.|Delete user in hwapi: port 9 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, checkitem 0x40."},
    });
    user->hwFlags = 0xC0;
    dhcpsnoop_user_process_on_trunk(1, 8, 2);
    EXPECT_EQ(outcome(), "hw -9 .0 40/40, hw -8 .0 00/80, hw -8 .0 40/40, hw -1 .0 00/80, hw -1 .0 40/40") << "deleted, and withdrawn from both";
}

TEST_F(User, Events)
{
    const auto notified = [](uint32_t add, uint8_t userType = DYNAMIC, uint8_t ipType = 1, uint8_t gateway = 10) {
        prepare("bound");
        DhcpsnoopUser user = *binding(HOST);
        user.userType = userType;
        user.key.ipType = ipType;
        memcpy(&user.gateway, Bytes{gateway, 0, 0, static_cast<uint8_t>(gateway != 0 ? 254 : 0)}.data(), 4);
        dhcpsnoop_user_notifier(&user, add);
        return world.journal.empty() ? "" : calls_summary() + " " + hex(world.all(Did::Call)[0]->data) + " " + said();
    };
    const auto event = [](uint16_t number, const char *word) {
        const Bytes record = host32(0) + host32(51) + host32(72) + host16(number) + Bytes(10, 0) + mac_bytes(MAC_CLIENT) + host16(10) + host32(1) + Bytes{10, 0, 0, 50} + Bytes(12, 0) + Bytes{10, 0, 0, 254} + Bytes(12, 0) + hex_bytes("00 00 01 00");
        return "qorNetlinkSend 16 0 72 " + hex(record) + world_format("  Send notify: event %u|Notify %s user: port 1 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.50, gateway 10.0.0.254.", number, word);
    };
    check({
        {"added", notified(1), event(188, "add")},
        {"deleted", notified(0), event(189, "delete")},
        {"only 1 is an addition", notified(2), event(189, "add")},
        {"not dynamic, IPv6, no gateway: silent", notified(1, STATIC) + notified(1, DYNAMIC, 2) + notified(1, DYNAMIC, 1, 0), ""},
    });
}

TEST_F(User, GroupsOnAnInterface)
{
    // a: dynamic on port 1 in VLAN 10; b: static there; c: dynamic on port 2 in VLAN 10; d: IPv6 on port 1 in VLAN 20;
    // e: IP source guard on port 1. Who is taken, what was said first, and how many are left after a deletion.
    const auto group = [](uint32_t ifIndex, uint32_t ipTypes, uint32_t userTypes) {
        prepare("vlan-if");
        const std::tuple<uint8_t, uint8_t, uint8_t, uint32_t, uint16_t> bindings[] = {{'a', 1, DYNAMIC, 1, 10}, {'b', 1, STATIC, 1, 10}, {'c', 1, DYNAMIC, 2, 10}, {'d', 2, DYNAMIC, 1, 20}, {'e', 1, GUARD, 1, 10}};
        for (const auto &[name, ipType, userType, on, vid] : bindings) {
            DhcpsnoopUserKey key = key4(name);
            key.ipType = ipType;
            DhcpsnoopUser *made = make_binding(key, {name}, on, vid);
            made->userType = userType;
            made->hwFlags = 0x80;
            made->ipsgCheckItems = 0x40;
        }
        world.clear();
        dhcpsnoop_user_process_on_interface(port(ifIndex), ipTypes, userTypes, 0);
        std::string taken;
        for (const WorldEntry *entry : world.all(Did::Call))
            taken += static_cast<char>(entry->data[0]);
        std::sort(taken.begin(), taken.end());
        const std::string text = said().substr(0, said().find('.'));
        const size_t before = count_bindings();
        dhcpsnoop_user_process_on_interface(port(ifIndex), ipTypes, userTypes, 2);
        return taken + world_format(", %zu of %zu left, ", count_bindings(), before) + text.substr(13);
    };
    check({
        {"a port, dynamic IPv4", group(1, 1, 1), "a, 4 of 5 left, on interface 1, inet type 1, user type = 1, operate 0"},
        {"a port, static IPv4", group(1, 1, 2), "b, 4 of 5 left, on interface 1, inet type 1, user type = 2, operate 0"},
        {"a port, both", group(1, 3, 3), "abd, 2 of 5 left, on interface 1, inet type 3, user type = 3, operate 0"},
        {"IP source guard entries only when asked for", group(1, 3, 7), "abde, 1 of 5 left, on interface 1, inet type 3, user type = 7, operate 0"},
        {"a VLAN interface, by VLAN", group(110, 3, 3), "abc, 2 of 5 left, on interface 110, inet type 3, user type = 3, operate 0"},
        {"no interface: all", group(0, 3, 3), "abcd, 1 of 5 left, on interface 0, inet type 3, user type = 3, operate 0"},
        {"IPv6; no type at all", group(0, 2, 3).substr(0, 14) + group(0, 0, 3).substr(0, 13), "d, 4 of 5 left, 5 of 5 left"},
    });
}
// clang-format on

} // namespace
