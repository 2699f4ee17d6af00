// The Linux platform's switch model: the model file, the kernel's link messages (recorded, made, broken), and
// the answers that the daemon gets from it.
#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <unistd.h>

#include "linux_switch.h"
#include "platform.h"

using namespace platform_linux;
using namespace linux_test;

namespace
{
constexpr uint32_t UP = 0x10003; // switched on, with carrier

// Model file

struct ConfCase {
    const char *claim, *text, *outcome; // what the model is, or from "f:" on what is wrong
};

std::string describe(const SwitchConf &conf)
{
    constexpr const char *ROLES[] = {"none", "master", "slave"};
    std::string text = "system " + std::to_string(conf.system) + " role " + ROLES[conf.role];
    for (const auto &[name, port] : conf.ports) {
        text += "; " + name + " " + std::to_string(port.number) + (port.routed ? " routed" : "") +
                " native " + std::to_string(port.nativeVid) + " tagged";
        for (size_t vid = 0; vid < port.tagged.size(); vid++)
            text += port.tagged[vid] ? " " + std::to_string(vid) : "";
    }
    for (const auto &[name, vid] : conf.vlanInterfaces)
        text += "; " + name + " is vlan " + std::to_string(vid);
    return text;
}

#define NUMBER(text) "f:1: VLAN '" text "' is not a number from 1 to 4094"
constexpr const char *USAGE = "f:1: expected: port NAME access VLAN, or port NAME trunk VLANS [native VLAN], or port NAME routed";

const ConfCase CONF_CASES[] = {
    {"an empty file is a switch without ports", "", "system 1 role none"},
    {"every kind of line",
     "system 3   # this unit\nport swp1 access 10\nport swp2 trunk 10,20,100-103 native 1\n\n  # a comment\nport swp3 routed\n"
     "vlan 10 interface vlan10\nrole slave\n",
     "system 3 role slave; swp1 1 native 10 tagged; swp2 2 native 1 tagged 10 20 100 101 102 103; swp3 3 routed native 0 tagged; vlan10 is vlan 10"},
    {"ports are numbered as they stand", "port b access 1\nport a access 1\n", "system 1 role none; a 2 native 1 tagged; b 1 native 1 tagged"},
    {"a trunk without native VLAN has none", "port p trunk 5", "system 1 role none; p 1 native 0 tagged 5"},
    {"first and last VLAN", "port p trunk 1-1,4094", "system 1 role none; p 1 native 0 tagged 1 4094"},
    {"lines of another system's editor", "port p access 7\r\nrole master\r\n", "system 1 role master; p 1 native 7 tagged"},
    {"tabs, and a comment that touches the word", "port\tp\taccess\t7#x", "system 1 role none; p 1 native 7 tagged"},
    {"a name of 15", "port abcdefghijklmno access 7", "system 1 role none; abcdefghijklmno 1 native 7 tagged"},

    {"the line that is wrong", "role none\n\nport p access x\n", "f:3: VLAN 'x' is not a number from 1 to 4094"},
    {"VLAN 0", "port p access 0", NUMBER("0")},
    {"VLAN 4095", "port p access 4095", NUMBER("4095")},
    {"a number that wraps", "port p access 4294967306", NUMBER("4294967306")},
    {"a signed number", "port p access +7", NUMBER("+7")},
    {"a number with a tail", "vlan 10x interface v", NUMBER("10x")},
    {"an empty item", "port p trunk 1,,2", NUMBER("")},
    {"a comma at the end", "port p trunk 1,", NUMBER("")},
    {"a range without end", "port p trunk 1-", NUMBER("")},
    {"a range of three", "port p trunk 1-2-3", NUMBER("2-3")},
    {"a range backwards", "port p trunk 20-10", "f:1: VLAN range '20-10' runs backwards"},
    {"native and tagged at once", "port p trunk 1-5 native 5", "f:1: VLAN 5 is native and in the list: the list is of tagged VLANs only"},
    {"a port without mode", "port p", USAGE},
    {"a word too many", "port p access 1 2", USAGE},
    {"native without VLAN", "port p trunk 1 native", USAGE},
    {"a list with blanks", "port p trunk 1, 2", USAGE},
    {"a port twice", "port p access 1\nport p access 2\n", "f:2: 'p' is a port already"},
    {"a port as VLAN interface", "port p access 1\nvlan 1 interface p\n", "f:2: 'p' is a port already"},
    {"a VLAN interface as port", "vlan 1 interface p\nport p routed\n", "f:2: 'p' is a VLAN's interface already"},
    {"a VLAN with two interfaces", "vlan 1 interface a\nvlan 1 interface b\n", "f:2: VLAN 1 has the interface 'a' already"},
    {"a name of 16", "port abcdefghijklmnop access 7", "f:1: 'abcdefghijklmnop' is longer than a device name can be (15)"},
    {"a path as name", "port a/b access 7", "f:1: 'a/b' is not a device name"},
    {"a byte that no terminal should get", "port a\x1b access 7", "f:1: 'a?' is not a device name"},
    {"an unknown word", "ports p access 7", "f:1: 'ports' is none of port, vlan, system and role"},
    {"a role that is none", "role primary", "f:1: expected: role none, role master or role slave"},
    {"two roles", "role none\nrole none\n", "f:2: the role is set already"},
    {"two systems", "system 1\nsystem 1\n", "f:2: the system number is set already"},
    {"a system that does not fit its byte", "system 256", "f:1: system '256' is not a number from 1 to 255"},
};

TEST(SwitchConf, Rows)
{
    for (const ConfCase &row : CONF_CASES) {
        SwitchConf conf;
        std::string error;
        const bool right = switch_conf_parse("f", row.text, conf, error);
        EXPECT_EQ(right ? describe(conf) : error, row.outcome) << row.claim;
        EXPECT_TRUE(!right || error.empty()) << row.claim;
    }
}

TEST(SwitchConf, FileThatCannotBeRead)
{
    SwitchConf conf;
    std::string error;
    // claim, file, error
    const std::tuple<const char *, const char *, const char *> rows[] = {
        {"a file that was named is not optional", "/nonexistent/switch.conf", "/nonexistent/switch.conf: No such file or directory"},
        {"a directory", "/tmp", "/tmp: Is a directory"},
        {"without end", "/dev/zero", "/dev/zero: longer than 1 MiB"},
    };
    for (const auto &[claim, file, expected] : rows) {
        setenv("DHCPSNOOP_SWITCH_CONF", file, 1);
        EXPECT_EQ(switch_conf_read(conf, error), ConfFile::wrong) << claim;
        EXPECT_EQ(error, expected) << claim;
    }
    unsetenv("DHCPSNOOP_SWITCH_CONF");
}

// Recorded link messages

struct ReplayStep {
    const char *command, *told; // to the daemon
    const char *changed;        // ports that are new or not as they were, and "- name" of those that are gone
    bool complete = true;       // false: a dump is asked for
};

// Without a model file: the ports are those of the bridge.
const ReplayStep REPLAY[] = {
    {"ip link add br0 address 02:00:00:00:00:10 type bridge vlan_filtering 1 mcast_snooping 0", "", ""},
    {"ip link add swp1 address 02:00:00:00:00:01 type veth peer name h1", "", ""},
    {"ip link property add dev swp1 altname port-one", "", ""},
    {"ip link add swp2 address 02:00:00:00:00:02 type dummy", "", ""},
    {"ip link set swp1 master br0", "", "swp1: native 1, tagged none, untagged 1, down, disabled\n"},
    {"ip link set swp2 master br0", "", "swp2: native 1, tagged none, untagged 1, down, disabled\n"},
    {"ip link set br0 up", "", ""},
    {"ip link set h1 up", "", ""},
    {"ip link set swp1 up", "", "swp1: native 1, tagged none, untagged 1, up, forwarding\n"},
    {"bridge vlan add dev swp1 vid 10 pvid untagged", "", "swp1: native 10, tagged none, untagged 1,10, up, forwarding\n"},
    {"bridge vlan del dev swp1 vid 1", "", "swp1: native 10, tagged none, untagged 10, up, forwarding\n"},
    {"bridge vlan add dev swp2 vid 20-29", "", "swp2: native 1, tagged 20-29, untagged 1, down, disabled\n"},
    {"bridge vlan add dev swp2 vid 100", "", "swp2: native 1, tagged 20-29,100, untagged 1, down, disabled\n"},
    {"ip link add link br0 name br0.10 type vlan id 10", "", "br0.10 is vlan 10: native 10, down, forwarding\n"},
    {"ip link set br0 type bridge stp_state 1", "", ""},
    {"ip link set swp1 down", "", "swp1: native 10, tagged none, untagged 10, down, disabled\n"},
    {"ip link set swp1 up", "", "swp1: native 10, tagged none, untagged 10, up, listening\n"},
    {"ip link set br0 type bridge stp_state 0", "", ""}, // the state stays until its timer runs out
    {"dump", "", ""},
    {"ip link set br0 type bridge vlan_default_pvid 5", "", "", false}, // no message says whose VLAN that changes
    {"ip link set br0 type bridge vlan_protocol 802.1ad", "",
     "swp1: native 10, tagged none, untagged 10, up, listening, 802.1ad\nswp2: native 1, tagged 20-29,100, untagged 1, down, disabled, 802.1ad\n"
     "br0.10 is vlan 10: native 10, down, forwarding, 802.1ad\n"},
    {"ip link set br0 type bridge vlan_filtering 0", "",
     "swp1: native 1, tagged none, untagged 1, up, listening\nswp2: native 1, tagged none, untagged 1, down, disabled\n"
     "br0.10 is vlan 10: native 10, down, forwarding\n",
     false},
    {"ip link set swp1 nomaster", "", "- swp1\n"}, // the kernel sends RTM_DELLINK, of the bridge family: the port lives on
    {"ip link set swp2 nomaster", "", "- swp2\n"},
    {"ip link add bond0 type bond mode active-backup", "", ""},
    {"ip link set swp2 master bond0", "port 7 joined, aggregate 9 + 7", ""},
    {"ip link set bond0 master br0", "", "bond0 (aggregate): native 1, tagged none, untagged 1, down, disabled\n"},
    {"dump", "", ""},
    {"ip link set swp2 nomaster", "aggregate 9 - 7", ""},
    {"ip link set swp2 master bond0", "port 7 joined, aggregate 9 + 7", ""},
    {"ip link del swp2", "aggregate 9 - 7, 7 gone", ""},
    {"ip link add team0 type team", "", ""},
    {"ip link add swp3 type dummy", "", ""},
    {"ip link set swp3 master team0", "port 11 joined, aggregate 10 + 11", ""},
    {"ip link del team0", "aggregate 10 - 11, 10 gone", ""},
    {"ip link set swp1 down", "", ""},
    {"ip link set swp1 name swp9", "", ""},
    {"ip link del br0", "8 gone, 4 gone", "- br0.10\n- bond0\n"},
};

std::string difference(const std::string &before, const std::string &after)
{
    std::string text;
    std::istringstream lines(after), gone(before);
    for (std::string line; std::getline(lines, line);)
        text += before.find(line + "\n") == std::string::npos ? line + "\n" : "";
    for (std::string line; std::getline(gone, line);)
        if (const std::string name = line.substr(0, line.find_first_of(" :")); ("\n" + after).find("\n" + name + line[name.size()]) == std::string::npos)
            text += "- " + name + "\n";
    return text;
}

bool feed_step(SwitchModel &model, const Recorded &step, DaemonEvents &events)
{
    const bool dump = step.command == "dump";
    bool complete = true;
    if (dump)
        model.dump_begin();
    for (const Bytes &message : step.messages)
        complete = model.feed(message, events) && complete;
    if (dump)
        model.dump_end(true, events);
    return complete;
}

// After each dump, a model that was seeded by it alone is the same as one that was told of every change.
TEST(Links, RecordedOnAKernelWithVlanAwareBridges)
{
    if constexpr (std::endian::native != std::endian::little)
        GTEST_SKIP() << "the recording is of a little-endian machine";
    const std::vector<Recorded> recording = read_recording("links-6.1.txt");
    ASSERT_EQ(recording.size(), std::size(REPLAY));
    SwitchModel model;
    std::string before;
    for (size_t i = 0; i < recording.size(); i++) {
        const ReplayStep &expected = REPLAY[i];
        ASSERT_EQ(recording[i].command, expected.command);
        DaemonEvents events;
        EXPECT_EQ(feed_step(model, recording[i], events), expected.complete) << expected.command;
        EXPECT_EQ(linux_test::describe(events), expected.told) << expected.command;
        const std::string after = linux_test::describe(model.ports());
        EXPECT_EQ(difference(before, after), expected.changed) << expected.command;
        before = after;
        if (recording[i].command == "dump") {
            SwitchModel seeded;
            feed_step(seeded, recording[i], events);
            EXPECT_TRUE(std::ranges::equal(seeded.ports(), model.ports())) << linux_test::describe(seeded.ports());
        }
    }
}

// Whatever the bytes, nothing outside them is read (sanitizers watch) and the daemon gets whole messages
// only.
TEST(Links, BrokenMessages)
{
    const auto check = [](SwitchModel &model, const Bytes &bytes) {
        DaemonEvents events;
        model.feed(bytes, events);
        if (events.empty())
            return;
        const std::string text = linux_test::describe(events);
        ASSERT_EQ(text.find("unknown"), std::string::npos) << text;
        ASSERT_EQ(text.find("wrong"), std::string::npos) << text;
    };
    SwitchModel model;
    std::set<Bytes> seen;
    for (const Recorded &step : read_recording("links-6.1.txt"))
        for (const Bytes &message : step.messages) {
            if (!seen.insert(message).second)
                continue;
            const std::map<uint32_t, Port> before = model.ports();
            SwitchModel scratch = model;
            for (size_t length = 0; length < message.size(); length++) {
                Bytes cut(message.begin(), message.begin() + static_cast<ptrdiff_t>(length));
                check(model, cut);
                if (length < 16 || length % 4 != 0)
                    continue;
                const auto whole = static_cast<uint32_t>(length);
                memcpy(cut.data(), &whole, sizeof whole);
                check(scratch, cut);
            }
            ASSERT_TRUE(model.ports() == before) << "a message of which a part is missing";
            for (size_t at = 0; at < message.size(); at++) {
                Bytes broken = message;
                broken[at] ^= 0xFF;
                check(scratch, broken);
            }
            check(model, message);
        }
}

// Made link messages

LinkMessage new_link(uint32_t ifIndex, const char *name, const char *kind = nullptr, uint32_t master = 0,
                     const char *masterKind = nullptr, uint32_t flags = UP)
{
    LinkMessage message(RTM_NEWLINK, AF_UNSPEC, ifIndex, flags);
    const uint8_t mac[] = {2, 0, 0, 0, 1, static_cast<uint8_t>(ifIndex)};
    message.text(IFLA_IFNAME, name).attribute(IFLA_ADDRESS, mac, sizeof mac);
    if (master != 0)
        message.number(IFLA_MASTER, master);
    if (kind == nullptr && masterKind == nullptr)
        return message;
    message.begin(IFLA_LINKINFO);
    if (kind != nullptr)
        message.text(IFLA_INFO_KIND, kind);
    if (masterKind != nullptr)
        message.text(IFLA_INFO_SLAVE_KIND, masterKind);
    return message.end();
}

LinkMessage new_bridge(uint32_t ifIndex, bool filtering, uint16_t protocol = 0x8100)
{
    const uint8_t on = filtering ? 1 : 0;
    const uint16_t wire = htons(protocol);
    LinkMessage message(RTM_NEWLINK, AF_UNSPEC, ifIndex, UP);
    message.text(IFLA_IFNAME, "br").begin(IFLA_LINKINFO).text(IFLA_INFO_KIND, "bridge").begin(IFLA_INFO_DATA);
    message.attribute(IFLA_BR_VLAN_FILTERING, &on, 1).attribute(IFLA_BR_VLAN_PROTOCOL, &wire, 2);
    return message.end().end();
}

struct Vlan {
    uint16_t flags, vid;
};

LinkMessage bridge_port(uint32_t ifIndex, uint32_t bridge, const std::vector<Vlan> &vlans, uint8_t state = BR_STATE_FORWARDING, uint16_t number = 1)
{
    LinkMessage message(RTM_NEWLINK, AF_BRIDGE, ifIndex, UP);
    message.number(IFLA_MASTER, bridge).begin(IFLA_PROTINFO | NLA_F_NESTED);
    message.attribute(IFLA_BRPORT_STATE, &state, 1).attribute(IFLA_BRPORT_NO, &number, 2).end();
    message.begin(IFLA_AF_SPEC);
    for (const Vlan &vlan : vlans)
        message.attribute(IFLA_BRIDGE_VLAN_INFO, &vlan, sizeof vlan);
    return message.end();
}

void feed_all(SwitchModel &model, const std::vector<LinkMessage> &messages)
{
    DaemonEvents events;
    for (const LinkMessage &message : messages)
        model.feed(message.bytes(), events);
}

constexpr uint16_t PVID = BRIDGE_VLAN_INFO_PVID, UNTAGGED = BRIDGE_VLAN_INFO_UNTAGGED,
                   BEGIN = BRIDGE_VLAN_INFO_RANGE_BEGIN, END = BRIDGE_VLAN_INFO_RANGE_END;

struct VlanCase {
    const char *claim;
    std::vector<Vlan> vlans;
    const char *port;
};

const VlanCase VLAN_CASES[] = {
    {"no VLAN at all", {}, "native 0, tagged none, untagged none"},
    {"each by itself", {{PVID | UNTAGGED, 1}, {0, 7}, {UNTAGGED, 9}}, "native 1, tagged 7, untagged 1,9"},
    {"a native VLAN that is sent tagged", {{PVID, 4}}, "native 4, tagged 4, untagged none"},
    {"a range", {{BEGIN, 10}, {END, 12}, {0, 20}}, "native 0, tagged 10-12,20, untagged none"},
    {"an untagged range", {{BEGIN | UNTAGGED, 10}, {END | UNTAGGED, 11}}, "native 0, tagged none, untagged 10-11"},
    {"all there are", {{BEGIN, 1}, {END, 4094}}, "native 0, tagged 1-4094, untagged none"},
    {"ids that are none", {{0, 0}, {PVID, 4095}, {0, 65535}, {0, 3}}, "native 0, tagged 3, untagged none"},
    {"an end without begin", {{END, 8}}, "native 0, tagged 8, untagged none"},
    {"a begin without end", {{BEGIN, 8}, {0, 9}, {0, 12}}, "native 0, tagged 9,12, untagged none"},
    {"a begin that something else follows", {{BEGIN, 8}, {0, 10}, {END, 12}}, "native 0, tagged 10,12, untagged none"},
    {"a range backwards", {{BEGIN, 12}, {END | PVID, 10}}, "native 0, tagged none, untagged none"},
    {"an end out of range", {{BEGIN, 12}, {END, 4095}, {0, 5}}, "native 0, tagged 5, untagged none"},
};

TEST(Links, VlanLists)
{
    for (const VlanCase &row : VLAN_CASES) {
        SwitchModel model;
        feed_all(model, {new_bridge(2, true), new_link(3, "p", nullptr, 2, "bridge"),
                         bridge_port(3, 2, {{PVID | UNTAGGED, 99}}), bridge_port(3, 2, row.vlans)});
        EXPECT_EQ(linux_test::describe(model.ports()), std::string("p: ") + row.port + ", up, forwarding\n") << row.claim;
    }
}

struct FeedCase {
    const char *claim;
    std::vector<LinkMessage> before;
    LinkMessage message;
    const char *told, *ports;
    bool complete;
};

const LinkMessage WIRELESS = LinkMessage(RTM_NEWLINK, AF_UNSPEC, 3, UP).text(IFLA_WIRELESS, "event");
const LinkMessage GONE = LinkMessage(RTM_DELLINK, AF_UNSPEC, 3);
const LinkMessage LEFT = LinkMessage(RTM_DELLINK, AF_BRIDGE, 3).number(IFLA_MASTER, 2);
const LinkMessage SWITCHING_CARD = LinkMessage(RTM_NEWLINK, AF_BRIDGE, 3, UP).text(IFLA_IFNAME, "p").begin(IFLA_AF_SPEC).end();
const LinkMessage STOCK_NAMES = new_link(3, "p").text(IFLA_PHYS_PORT_NAME, "1").begin(IFLA_PROP_LIST).text(IFLA_ALT_IFNAME, "x").end();
const std::vector<LinkMessage> PLAIN = {new_bridge(2, false), new_link(3, "p", nullptr, 2, "bridge"), bridge_port(3, 2, {})};
const std::vector<LinkMessage> BONDED = {new_link(3, "p", nullptr, 8, "bond")};
const char *const PLAIN_PORT = "p: native 1, tagged none, untagged 1, up, forwarding\n";

const FeedCase FEED_CASES[] = {
    {"a wireless event says nothing of the master: it stays", PLAIN, WIRELESS, "", PLAIN_PORT, true},
    {"and of a bond", BONDED, WIRELESS, "", "", true},
    {"leaving a bridge is not the end of a port", PLAIN, LEFT, "", "", true},
    {"leaving a bridge is not leaving a bond", BONDED, LEFT, "", "", true},
    {"a card that switches by itself is in no bridge", {new_link(3, "p")}, SWITCHING_CARD, "", "", true},
    {"a bridge that names itself is not its own port", {new_bridge(2, false)}, bridge_port(2, 2, {}), "", "", true},
    {"a port name and another name, whose numbers the switch uses otherwise", {}, STOCK_NAMES, "", "", true},
    {"a port of a bridge that nobody told of", {}, bridge_port(3, 2, {}), "", "", false},
    {"the end of one that nobody told of", {}, LEFT, "", "", true},
    {"an unknown device goes", {}, GONE, "", "", true},
    {"a device goes", PLAIN, GONE, "3 gone", "", true},
    {"a member of a bond goes", BONDED, GONE, "aggregate 8 - 3, 3 gone", "", true},
    {"told again that it is a member", BONDED, BONDED[0], "", "", true},
    {"from bond to bond at one stroke", BONDED, new_link(3, "p", nullptr, 9, "bond"), "aggregate 8 - 3, port 3 joined, aggregate 9 + 3", "", true},
    {"from a bridge into a team", PLAIN, new_link(3, "p", nullptr, 9, "team"), "port 3 joined, aggregate 9 + 3", "", true},
    {"from a bond into a bridge", BONDED, new_link(3, "p", nullptr, 2, "bridge"), "aggregate 8 - 3", "p: native 1, tagged none, untagged 1, up, disabled\n", true},
    {"from bridge to bridge at one stroke: its VLANs are still to be told", {new_bridge(2, true), new_bridge(4, true), new_link(3, "p", nullptr, 2, "bridge"), bridge_port(3, 2, {{PVID, 7}})}, new_link(3, "p", nullptr, 4, "bridge"), "", "p: native 0, tagged none, untagged none, up, disabled\n", true},
    {"a dormant port is not up", PLAIN, new_link(3, "p", nullptr, 2, "bridge", UP | 0x20000), "", "p: native 1, tagged none, untagged 1, down, forwarding\n", true},
    {"carrier without being switched on", PLAIN, new_link(3, "p", nullptr, 2, "bridge", 0x10002), "",
     "p: native 1, tagged none, untagged 1, down, forwarding\n", true},
    {"index 0 is no device", {}, new_link(0, "p", nullptr, 2, "bridge"), "", "", true},
};

TEST(Links, Rows)
{
    for (const FeedCase &row : FEED_CASES) {
        SwitchModel model;
        feed_all(model, row.before);
        DaemonEvents events;
        EXPECT_EQ(model.feed(row.message.bytes(), events), row.complete) << row.claim;
        EXPECT_EQ(linux_test::describe(events), row.told) << row.claim;
        EXPECT_EQ(linux_test::describe(model.ports()), row.ports) << row.claim;
    }
}

TEST(Links, SeveralMessagesInOneDatagramAndOneThatIsNoMultipleOfFour)
{
    SwitchModel model;
    Bytes datagram;
    for (const LinkMessage &message : PLAIN)
        datagram.insert(datagram.end(), message.bytes().begin(), message.bytes().end());
    Bytes odd = new_link(4, "q", nullptr, 2, "bridge").bytes();
    const auto length = static_cast<uint32_t>(odd.size() - 1);
    memcpy(odd.data(), &length, sizeof length);
    datagram.insert(datagram.end(), odd.begin(), odd.end());
    const Bytes last = new_link(5, "r", nullptr, 2, "bridge").bytes();
    datagram.insert(datagram.end(), last.begin(), last.end());
    DaemonEvents events;
    model.feed(datagram, events);
    EXPECT_EQ(linux_test::describe(model.ports()), std::string(PLAIN_PORT) + "r: native 1, tagged none, untagged 1, up, disabled\n");
}

TEST(Links, AMessageIsAsLongAsItSaysIfThatIsThere)
{
    // claim, says, whole, left
    const std::tuple<const char *, uint32_t, bool, size_t> rows[] = {
        {"less than a header", 15, false, 40},
        {"a header", 16, true, 24},
        {"padded to 4", 17, true, 20},
        {"all there is", 40, true, 0},
        {"without its padding", 39, true, 0},
        {"more than there is", 41, false, 40},
        {"2 GiB", 0x80000000, false, 40},
        {"4 GiB", 0xFFFFFFFF, false, 40},
    };
    for (const auto &[claim, says, whole, left] : rows) {
        Bytes bytes(40);
        memcpy(bytes.data(), &says, sizeof says);
        std::span<const uint8_t> rest(bytes);
        EXPECT_EQ(next_message(rest) != nullptr, whole) << claim;
        EXPECT_EQ(rest.size(), left) << claim;
    }
    std::span<const uint8_t> none;
    EXPECT_EQ(next_message(none), nullptr);
}

TEST(Links, WhatACompleteDumpDoesNotNameIsGone)
{
    SwitchModel model;
    feed_all(model, PLAIN);
    feed_all(model, {new_link(4, "q", nullptr, 8, "bond"), new_link(5, "r", nullptr, 8, "bond")});
    for (const bool complete : {false, true}) {
        DaemonEvents events;
        model.dump_begin();
        model.feed(new_bridge(2, false).bytes(), events);
        model.feed(new_link(4, "q").bytes(), events);
        model.dump_end(complete, events);
        EXPECT_EQ(linux_test::describe(events), complete ? "3 gone, aggregate 8 - 5, 5 gone" : "aggregate 8 - 4");
        EXPECT_EQ(linux_test::describe(model.ports()), complete ? "" : PLAIN_PORT);
    }
}

std::string watched;

void watcher(ModelChange change, const Port &port, const Port *before)
{
    constexpr const char *NAMES[] = {"appeared", "vanished", "changed"};
    watched += std::string(port.name) + " " + NAMES[static_cast<size_t>(change)] + " " + std::to_string(port.ifIndex);
    if (before != nullptr)
        watched += " native " + std::to_string(before->nativeVid) + "->" + std::to_string(port.nativeVid);
    watched += "; ";
}

TEST(Model, WatcherHearsWhatTheDataPlaneMustFollow)
{
    SwitchModel model;
    model.watch(watcher);
    const auto heard = [&model](const LinkMessage &message) {
        watched.clear();
        feed_all(model, {message});
        return watched;
    };
    feed_all(model, {new_bridge(2, true), new_link(3, "p", nullptr, 2, "bridge"), new_link(4, "q", nullptr, 2, "bridge")});
    EXPECT_EQ(heard(bridge_port(3, 2, {{PVID | UNTAGGED, 7}})), "p changed 3 native 0->7; ");
    EXPECT_EQ(heard(bridge_port(3, 2, {{PVID | UNTAGGED, 7}})), "") << "the same again";
    EXPECT_EQ(heard(new_bridge(2, false)), "p changed 3 native 7->1; q changed 4 native 0->1; ");
    EXPECT_EQ(heard(LEFT), "p vanished 3; ");
    EXPECT_EQ(heard(GONE), "") << "it was no port any more";
    EXPECT_EQ(heard(new_link(9, "p", nullptr, 2, "bridge")), "p appeared 9; ") << "the same name under a new index";

    // A dump of links, then one of VLANs: nobody hears of what is known by halves.
    watched.clear();
    model.dump_begin();
    feed_all(model, {new_bridge(2, true), new_link(3, "p", nullptr, 2, "bridge"), bridge_port(3, 2, {{PVID, 7}})});
    EXPECT_EQ(watched, "");
    DaemonEvents events;
    model.dump_end(true, events);
    EXPECT_EQ(watched, "p appeared 3; q vanished 4; p vanished 9; ");
}

// Answers

const char *const CONF = "system 2\nport acc access 10\nport trk trunk 10,20 native 1\nport rtd routed\nport agg access 10\nport mem access 10\n"
                         "port blk access 10\nport dwn access 10\nvlan 10 interface v10\n";
enum : uint32_t { BRIDGE = 2,
                  ACC,
                  TRK,
                  RTD,
                  AGG,
                  MEM,
                  BLK,
                  DWN,
                  V10,
                  OTHER };

// The daemon's own model, which the answers are made from.
class Answers : public testing::Test
{
  protected:
    void SetUp() override
    {
        configure(CONF);
        feed_all(switch_model(), {new_bridge(BRIDGE, true, 0x88A8), new_link(ACC, "acc", nullptr, BRIDGE, "bridge"),
                                  bridge_port(ACC, BRIDGE, {{PVID | UNTAGGED, 77}}), new_link(TRK, "trk"), new_link(RTD, "rtd"),
                                  new_link(AGG, "agg", "bond"), new_link(MEM, "mem", nullptr, AGG, "bond"), new_link(BLK, "blk", nullptr, BRIDGE, "bridge"), bridge_port(BLK, BRIDGE, {}, BR_STATE_BLOCKING, 2), new_link(DWN, "dwn", nullptr, 0, nullptr, 0x3), new_link(V10, "v10"), new_link(OTHER, "other")});
    }

    void TearDown() override { empty(); }

    static void empty()
    {
        DaemonEvents events;
        switch_model().dump_begin();
        switch_model().dump_end(true, events);
        switch_model().configure({});
    }

    static void configure(const char *text)
    {
        SwitchConf conf;
        std::string error;
        ASSERT_TRUE(switch_conf_parse("f", text, conf, error)) << error;
        switch_model().configure(conf);
    }
};

TEST_F(Answers, ModelOfTheFile)
{
    EXPECT_EQ(linux_test::describe(model_ports()), "acc: native 10, tagged none, untagged 10, up, forwarding, 802.1ad\n"
                                                   "trk: native 1, tagged 10,20, untagged 1, up, forwarding\nrtd: routed, up, forwarding\n"
                                                   "agg (aggregate): native 10, tagged none, untagged 10, up, forwarding\n"
                                                   "mem: native 10, tagged none, untagged 10, up, forwarding, member of 6\n"
                                                   "blk: native 10, tagged none, untagged 10, up, blocking, 802.1ad\ndwn: native 10, tagged none, untagged 10, down, forwarding\n"
                                                   "v10 is vlan 10: native 10, up, forwarding\n")
        << "VLANs from the file, state from the kernel";
}

TEST_F(Answers, WhichFramesLeaveAndHow)
{
    // claim, ifIndex, vid, forwards, untagged
    const std::tuple<const char *, uint32_t, uint32_t, int32_t, int32_t> rows[] = {
        {"an access port, its VLAN", ACC, 10, 0, 1},
        {"another VLAN", ACC, 20, -1, 0},
        {"a trunk, tagged", TRK, 20, 0, 0},
        {"a trunk, its native VLAN", TRK, 1, 0, 1},
        {"a trunk, not a member", TRK, 30, -1, 0},
        {"a routed port has no VLANs", RTD, 999, 0, 1},
        {"an aggregate", AGG, 10, 0, 1},
        {"a member sends for its aggregate only", MEM, 10, -1, 1},
        {"blocked by spanning tree", BLK, 10, -1, 1},
        {"down", DWN, 10, -1, 1},
        {"a VLAN interface, its VLAN", V10, 10, 0, 1},
        {"a VLAN interface, another", V10, 20, -1, 0},
        {"no VLAN", ACC, 0, -1, 0},
        {"a VLAN that there is none of", TRK, 4096, -1, 0},
        {"more than a VLAN's bits", TRK, 0x1000A, -1, 0},
        {"no port of the switch", OTHER, 10, -1, -1},
        {"no device", 4711, 10, -1, -1},
    };
    for (const auto &[claim, ifIndex, vid, forwards, untagged] : rows) {
        SysIfQuery query{vid, {}};
        EXPECT_EQ(sysIFGet(ifIndex, 255, &query), forwards) << claim;
        EXPECT_EQ(sysIFGet(ifIndex, 258, &query), untagged) << claim;
    }
}

TEST_F(Answers, WhichFramesMayComeIn)
{
    // claim, ifIndex, vid, receives
    const std::tuple<const char *, uint32_t, uint16_t, bool> rows[] = {
        {"its VLAN", ACC, 10, true},
        {"a foreign VLAN", ACC, 20, false},
        {"routed: no VLAN", RTD, 0, true},
        {"routed: a VLAN of others", RTD, 10, false},
        {"what comes in through a port that is down says that it is not", DWN, 10, true},
        {"blocked", BLK, 10, false},
        {"a member of an aggregate", MEM, 10, false},
        {"no VLAN there is", TRK, 4096, false},
    };
    for (const auto &[claim, ifIndex, vid, receives] : rows)
        EXPECT_EQ(model_port(ifIndex)->receives(vid), receives) << claim;
}

std::vector<uint32_t> vlan_ports(uint32_t vid, uint32_t room, int32_t *result)
{
    uint8_t data[256];
    memset(data, 0xEE, sizeof data);
    QorBuffer list{data, room};
    *result = qorVlanGetApi(vid, 5410, &list);
    std::vector<uint32_t> ports;
    for (size_t at = 0; *result == 0 && at < list.length; at += 4)
        memcpy(&ports.emplace_back(), data + at, 4);
    for (size_t i = list.length; i < sizeof data && *result == 0; i++)
        EXPECT_EQ(data[i], 0xEE) << "written past the list";
    return ports;
}

TEST_F(Answers, PortsOfAVlan)
{
    int32_t result;
    EXPECT_EQ(vlan_ports(10, 256, &result), (std::vector<uint32_t>{ACC, TRK, AGG}));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(vlan_ports(20, 256, &result), (std::vector<uint32_t>{TRK}));
    EXPECT_EQ(vlan_ports(10, 8, &result), (std::vector<uint32_t>{ACC, TRK})) << "no more than there is room for";
    for (const uint32_t vid : {0u, 30u, 4095u, 4096u, 0x1000Au}) {
        vlan_ports(vid, 256, &result);
        EXPECT_NE(result, 0) << vid;
    }
    feed_all(switch_model(), {new_link(TRK, "trk", nullptr, 0, nullptr, 0x3)});
    EXPECT_TRUE(vlan_ports(20, 256, &result).empty());
    EXPECT_EQ(result, 0) << "a VLAN whose only port is down is not unknown";
}

TEST_F(Answers, WithTwoBridgesAVlanIsThatOfItsInterface)
{
    empty();
    const auto vlanDevice = [](uint32_t ifIndex, uint32_t lower, uint16_t vid) {
        LinkMessage message(RTM_NEWLINK, AF_UNSPEC, ifIndex, UP);
        message.text(IFLA_IFNAME, "v").number(IFLA_LINK, lower);
        message.begin(IFLA_LINKINFO).text(IFLA_INFO_KIND, "vlan").begin(IFLA_INFO_DATA);
        return message.attribute(IFLA_VLAN_ID, &vid, 2).end().end();
    };
    feed_all(switch_model(), {new_bridge(20, false), new_bridge(30, false), new_link(21, "a", nullptr, 20, "bridge"),
                              new_link(31, "b", nullptr, 30, "bridge"), bridge_port(21, 20, {}), bridge_port(31, 30, {})});
    int32_t result;
    EXPECT_EQ(vlan_ports(1, 256, &result), (std::vector<uint32_t>{21, 31}));
    feed_all(switch_model(), {vlanDevice(32, 30, 1)});
    EXPECT_EQ(vlan_ports(1, 256, &result), (std::vector<uint32_t>{31}));
    feed_all(switch_model(), {vlanDevice(22, 20, 1)});
    EXPECT_EQ(model_vlan_interface(1), 22u) << "the lowest index of two";
    feed_all(switch_model(), {LinkMessage(RTM_DELLINK, AF_UNSPEC, 22)});
    EXPECT_EQ(model_vlan_interface(1), 32u);
    feed_all(switch_model(), {vlanDevice(32, 30, 2)});
    EXPECT_EQ(model_vlan_interface(1), 0u);
    EXPECT_EQ(model_vlan_interface(2), 32u);
    feed_all(switch_model(), {vlanDevice(33, ACC, 5), vlanDevice(34, 30, 0), vlanDevice(35, 30, 4095)});
    EXPECT_EQ(model_port(33), nullptr) << "not on a bridge";
    EXPECT_EQ(model_port(34), nullptr);
    EXPECT_EQ(model_port(35), nullptr);
}

TEST_F(Answers, NumbersOfAnInterface)
{
    const struct {
        const char *claim;
        uint32_t ifIndex, attribute;
        int32_t result; // 1 = refused
        uint32_t value;
    } rows[] = {
        {"number in the file", TRK, 5, 0, 2},
        {"number of a VLAN interface", V10, 5, 0, 10},
        {"tags of a provider bridge", ACC, 45, 0, 0x88A8},
        {"tags outside a bridge", TRK, 45, 0, 0x8100},
        {"bridged", ACC, 193, 0, 0},
        {"routed", RTD, 193, 0, 1},
        {"not a VLAN interface", ACC, 417, 0, 0},
        {"a VLAN interface", V10, 417, 0, 1},
        {"its VLAN", V10, 5400, 0, 10},
        {"no VLAN of a port: the answer scopes an event to the port", ACC, 5400, 1, 0x5A5A5A5A},
        {"not asked for by the daemon", ACC, 4, 1, 0x5A5A5A5A},
        {"no port", OTHER, 5, 1, 0x5A5A5A5A},
    };
    for (const auto &row : rows) {
        uint32_t value = 0x5A5A5A5A;
        EXPECT_EQ(qorIfGetApi(row.ifIndex, row.attribute, &value) != 0, row.result != 0) << row.claim;
        EXPECT_EQ(value, row.value) << row.claim;
    }
    uint32_t members = 2;
    QorNestedGet nested{65536223, &members, 1};
    EXPECT_EQ(qorIfGetApi(AGG, 65536285, &nested), 0);
    EXPECT_EQ(nested.count, 1);
    EXPECT_EQ(members, 1u);
    EXPECT_NE(qorIfGetApi(ACC, 65536285, &nested), 0);
}

TEST_F(Answers, Texts)
{
    uint8_t room[8] = {};
    QorBuffer text{room, 3};
    EXPECT_EQ(qorIfGetApi(TRK, 3, &text), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(room), text.length), "trk");
    text.length = 2;
    EXPECT_NE(qorIfGetApi(TRK, 3, &text), 0) << "no room: no half name";
    text.length = sizeof room;
    EXPECT_EQ(qorIfGetApi(TRK, 33, &text), 0);
    EXPECT_EQ(text.length, 6u);
    EXPECT_EQ(room[5], TRK);
    text.length = 5;
    EXPECT_NE(qorIfGetApi(TRK, 33, &text), 0);

    char name[16] = "x";
    EXPECT_EQ(qorIfUnit2Name(V10, name, 4), 0);
    EXPECT_STREQ(name, "v10");
    EXPECT_NE(nmGetIfPartDescr(ACC, name, 3), 0) << "no room for the terminator";
    EXPECT_STREQ(name, "v10") << "an answer that does not fit leaves the buffer as it was";
    EXPECT_EQ(nmGetIfPartDescr(ACC, name, 4), 0);
    EXPECT_STREQ(name, "acc");
    EXPECT_NE(qorIfUnit2Name(OTHER, name, 16), 0);

    char answer[128] = {};
    QorBuffer scalar{answer, sizeof answer};
    EXPECT_EQ(qorScalarGetApi(0, 74, &scalar), 0);
    EXPECT_TRUE(std::string(answer, scalar.length).starts_with("Linux ")) << answer;
    EXPECT_NE(qorScalarGetApi(0, 67, &scalar), 0);
}

TEST_F(Answers, HostName)
{
    if (unshare(CLONE_NEWUTS) < 0)
        GTEST_SKIP() << "needs a host name of its own, which takes root: " << strerror(errno);
    const std::string longest(64, 'h');
    for (const std::string &host : {std::string("switch-1"), longest}) {
        ASSERT_EQ(sethostname(host.data(), host.size()), 0);
        char answer[128] = {};
        QorBuffer scalar{answer, sizeof answer};
        EXPECT_EQ(qorScalarGetApi(0, 66, &scalar), 0);
        EXPECT_EQ(std::string(answer, scalar.length), host);
        EXPECT_EQ(nmGetHostname(), host);
    }
    for (const std::string none : {"", "(none)"}) { // the second is the kernel's own, before anybody sets one
        ASSERT_EQ(sethostname(none.data(), none.size()), 0);
        EXPECT_EQ(nmGetHostname(), nullptr);
    }
}

TEST_F(Answers, Locations)
{
    const struct {
        uint32_t ifIndex;
        uint32_t words[7];
    } rows[] = {
        {TRK, {2, 0, 2, 0, 2, 1, 0}},
        {AGG, {2, 0, 4, 0, 4, 2, 0}},
        {V10, {2, 0, 10, 0, 10, 3, 0}},
    };
    for (const auto &row : rows) {
        uint32_t words[7];
        memset(words, 0xEE, sizeof words);
        EXPECT_EQ(qorIndexTrans(&row.ifIndex, 6, words), 0);
        EXPECT_TRUE(std::ranges::equal(words, row.words)) << row.ifIndex;
    }
    uint32_t to = 0;
    for (const uint32_t first : {0u, 1u}) {
        const uint32_t request[7] = {first, first, first, first, 10, 3, 0};
        EXPECT_EQ(qorIndexTrans(request, 7, &to), 0);
        EXPECT_EQ(to, uint32_t{V10});
    }
    for (const uint32_t vid : {0u, 20u, 4095u, 65535u, 0x1000Au}) {
        const uint32_t request[7] = {0, 0, 0, 0, vid, 3, 0};
        EXPECT_NE(qorIndexTrans(request, 7, &to), 0) << vid;
    }
    const uint32_t other = OTHER;
    EXPECT_NE(qorIndexTrans(&other, 6, &to), 0);
    EXPECT_EQ(to, uint32_t{V10}) << "not answered, not touched";
    EXPECT_EQ(qorSelfSysIndex(), 2u);
}

TEST_F(Answers, Traps)
{
    uint32_t dhcp = 23, dhcpv6 = 24, other = 25;
    take_traps();
    EXPECT_EQ(qorIfSetApi(ACC, 305, &dhcp), 0);
    EXPECT_EQ(qorIfSetApi(V10, 305, &dhcpv6), 0);
    EXPECT_EQ(qorIfSetApi(ACC, 306, &dhcp), 0);
    EXPECT_NE(qorIfSetApi(OTHER, 305, &dhcp), 0);
    EXPECT_EQ(take_traps(), "3 v4 on 10 v6 on 3 v4 off 11 v4 on ");
    EXPECT_NE(qorIfSetApi(ACC, 305, &other), 0);
    QorIfRequest binding{0x3E800DF, nullptr, {}};
    EXPECT_NE(qorIfSetApi(ACC, 300, &binding), 0) << "what cannot be enforced is refused";
    EXPECT_EQ(take_traps(), "");
}

TEST_F(Answers, Roles)
{
    const struct {
        const char *text;
        uint32_t master, slave, standalone; // 0 or not
    } rows[] = {{"role none", 1, 1, 1}, {"role master", 0, 1, 1}, {"role slave", 1, 0, 0}};
    for (const auto &row : rows) {
        configure(row.text);
        EXPECT_EQ(qorHwScalarGet(0, 53, nullptr), row.master) << row.text;
        EXPECT_EQ(qorHwScalarGet(0, 54, nullptr), row.slave) << row.text;
        EXPECT_EQ(qorHwScalarGet(0, 45, nullptr), row.standalone) << row.text;
    }
}

TEST_F(Answers, WhatThisPlatformDoesNotHave)
{
    EXPECT_NE(qorHwScalarSync(nullptr, 0x40013, nullptr, 3), 0) << "no peer: not sent";
    EXPECT_EQ(qorHwScalarSync(nullptr, 0x40001, nullptr, 3), 0);
    EXPECT_NE(qorNetlinkSend(16, 0, "", 1), 0) << "no subscriber: not sent";
    const uint32_t words[4] = {2, 0, 0, 0};
    uint8_t answer[256];
    EXPECT_NE(qorHwCardGet(words, 49152043, answer), 0);
    EXPECT_NE(qorHwSlotGet(words, 32768049, answer), 0);
    for (const auto hook : {ipsgIfGetApi, arpAntiAttackIfGetApi}) {
        uint32_t enabled = 1;
        uint8_t items = 0xF0;
        EXPECT_EQ(hook(ACC, 1, &enabled), 0);
        EXPECT_EQ(enabled, 0u);
        EXPECT_EQ(hook(ACC, 2, &items), 0);
        EXPECT_EQ(items, 0);
        EXPECT_NE(hook(OTHER, 1, &enabled), 0);
    }
    QorBuffer option125{nullptr, 256}, bootFile{nullptr, 256};
    const DhcpsnoopInstallRecord record{};
    deftinstall_client_entry_callback(&record, &option125, &bootFile);
    EXPECT_EQ(option125.length + bootFile.length, 0u) << "nothing to insert";
    deftinstall_client_entry_callback(&record, nullptr, nullptr);
}

} // namespace
