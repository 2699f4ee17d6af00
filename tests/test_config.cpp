// The configuration file: its errors, the state that its lines want of a port, and the way there and back with a daemon.
#include <gtest/gtest.h>

#include "dhcpsnoop_cmd.h"
#include "reconcile.h"
#include "world.h"

using namespace platform_linux;

namespace
{

Config parsed(const std::string &text)
{
    Config config;
    std::string error;
    EXPECT_TRUE(config_parse("f", text, config, error)) << error;
    return config;
}

// "trust on@1": each value that is none of a port at rest, and its line.
std::string wanted(const Config &config, const PortId &port)
{
    const WantedPort state = wanted_port(config, port);
    std::string text;
    const auto add = [&text](const std::string &value, const Source &source) {
        text += (text.empty() ? "" : ", ") + value + "@" + std::to_string(source.line);
    };
    for (const Setting &setting : INTERFACE_SCOPE.settings)
        if (const auto said = state.settings.find(&setting); said != state.settings.end() && !isInitial(setting, said->second.value))
            add(setting.name + (" " + joinQuoted(valueWords(setting, said->second.value))), said->second.source);
    for (const uint32_t server : state.servers.value)
        add("relay-server " + ipv4Text(server), state.servers.source);
    if (state.ip.isSaid() || state.arp.isSaid())
        add("guard " + joinQuoted(item_words(state.ip.value)) + "/" + joinQuoted(item_words(state.arp.value)), state.ip.source);
    return text;
}

#define BRIDGE "bridge br0 uplink eno1\nbridge br0 guard ip mac\n"
#define PORT "snooping on@2, source-mac-check on@2, binding-check on@2, guard ip mac/ip mac@2"
// clang-format off
const struct { const char *claim, *text, *port, *bridge, *wanted; uint16_t vlan = 0; } WANTED[] = {
    {"a port of a bridge", BRIDGE, "vnet0", "br0", PORT},
    {"its uplink: trusted, exempt, not checked", BRIDGE, "eno1", "br0", "snooping on@2, trust on@2, guard exempt/exempt@2"},
    {"a port of another bridge, and of none", BRIDGE, "vnet0", "br1", ""},
    {"", BRIDGE, "vnet0", "", ""},
    {"several uplinks", "bridge br0 uplink eno1,enp1s0f0-3\n", "enp1s0f2", "br0", "snooping on@1, trust on@1, guard exempt/exempt@1"},
    {"the bridge, a pattern, a range, a list, the name: the more specific, wherever it stands", "interface vnet7 max-users 7\ninterface vnet7,vnet9 max-users 6\ninterface vnet1-9 max-users 5\ninterface vnet* max-users 4\n", "vnet7", "", "max-users 7@1"},
    {"", "interface vnet7,vnet9 max-users 6\ninterface vnet1-9 max-users 5\ninterface vnet* max-users 4\n", "vnet7", "", "max-users 6@1"},
    {"", "interface vnet1-9 max-users 5\ninterface vnet* max-users 4\n", "vnet7", "", "max-users 5@1"},
    {"", "interface vnet* snooping off\n" BRIDGE, "vnet7", "br0", "source-mac-check on@3, binding-check on@3, guard ip mac/ip mac@3"},
    {"among equals the later", "interface vnet* max-users 4\ninterface *7 max-users 5\n", "vnet7", "", "max-users 5@2"},
    {"a range ends with its numbers, and takes none with a zero in front", "interface swp1-22 trust on\n", "swp23", "", ""},
    {"", "interface swp1-22 trust on\n", "swp02", "", ""},
    {"servers of one rank add up; a more specific line begins anew; or takes all away", "interface v* relay-server 10.0.0.1\ninterface v* relay-server 10.0.0.2 add\n", "v1", "", "relay-server 10.0.0.1@2, relay-server 10.0.0.2@2"},
    {"", "interface v1 relay-server 10.0.0.3\ninterface v* relay-server 10.0.0.1\n", "v1", "", "relay-server 10.0.0.3@1"},
    {"", "interface v1 relay-server none\ninterface v* relay-server 10.0.0.1\n", "v1", "", ""},
    {"the guard of a port before that of its bridge, ARP inspection by itself", BRIDGE "guard interface v1 off\narp-inspection interface v* ip\n", "v1", "br0", "snooping on@2, source-mac-check on@2, binding-check on@2, guard /@3"},
    {"a VLAN's interface: the lines of its VLAN, not those of the bridge below", BRIDGE "vlan 10 snooping on\nvlan 11 max-users 3\n", "br0.10", "br0", "snooping on@3", 10},
    {"the machine itself: a server or relay is trusted, a client is not; the guard has no say for it", BRIDGE "bridge br0 uplink br* host server\n", "br0", "br0", "snooping on@3, trust on@3, guard exempt/exempt@3"},
    {"", "bridge br0 host client relay guard ip\n", "br0", "br0", "snooping on@1, trust on@1, guard exempt/exempt@1"},
    {"", "bridge br0 host client\nbridge br1 host server\n" BRIDGE, "br0", "br0", "snooping on@1, source-mac-check on@1, binding-check on@1, guard exempt/exempt@1"},
    {"unless no line says what it does", BRIDGE, "br0", "br0", ""},
    {"a limit, its parts in any order; a more specific line takes it away", "interface v* dhcp-rate 1000\ninterface v1 dhcp-rate 9 reserved 0 burst 64\n", "v1", "", "dhcp-rate 9 burst 64 reserved 0@2"},
    {"", "interface v* dhcp-rate off\n", "v1", "", "dhcp-rate off@1"},
    {"", "interface v* dhcp-rate off\ninterface v1 dhcp-rate default\n", "v1", "", ""},
    {"quotes, a comment, blanks", "  interface 'v1' subopt9-text \"a # b\" # a comment\n\n#\n", "v1", "", "subopt9-text text 'a # b'@1"},
};

#define NO_VLAN(text) "f:1: VLAN '" text "' is not a number from 1 to 4094"
#define PORT_USAGE "f:1: expected: port NAME access VLAN, or port NAME trunk VLANS [native VLAN], or port NAME routed"
#define RATE_USAGE "f:1: dhcp-rate takes: N|off|default [burst N] [reserved N]"
#define PEER "certificate /a\nkey /b\nauthority /c\npeer right\n"
#define INCOMPLETE "a peer takes all of listen or connect, certificate, key, authority and peer"
#define ADDRESS "ADDRESS:PORT, an IPv6 address in [brackets]"
const struct { const char *text, *error; } ERRORS[] = { // several files and what is wrong with them are separated by "|"
    {"protection maybe\n", "f:1: expected: protection strict|as-asked"},
    {"# one\nbrigde br0\n", "f:2: 'brigde' begins no line of the configuration (bridge, interface, vlan, guard, arp-inspection, binding, bindings, interfaces, server-learning, …)"},
    {"bridge br0 uplink\n", "f:1: expected: bridge NAME [uplink PORTS] [host server|client|relay ...] [guard ITEMS [family 4|6|both]]"},
    {"bridge br0 host guard ip\n|bridge br0 host servant\n", "f:1: expected: bridge NAME [uplink PORTS] [host server|client|relay ...] [guard ITEMS [family 4|6|both]]|f:1: the host is server, client or relay, not 'servant'"},
    {"bridge br*\n", "f:1: bridge takes one name, not 'br*'"},
    {"bridge br0 guard exempt\n", "f:1: only ports can be exempt, not a bridge"},
    {"interface v1 snoping on\n", "f:1: there is no setting 'snoping' of an interface"},
    {"interface v1 users 5\n", "f:1: there is no setting 'users' of an interface"},
    {"interface v1 max-users many\n", "f:1: max-users must be a number from 0 to 65535, not 'many'"},
    {"interface v1 dhcp-rate 100001\n|interface v1 dhcp-rate 9 burst 63\n|interface v1 dhcp-rate 9 reserved 65536\n|interface v1 dhcp-rate off burst 64\n|interface v1 dhcp-rate 9 burst\n", "f:1: dhcp-rate must be a number from 1 to 100000, not '100001'|f:1: burst must be at least 64, not 63: a network device hands over so many frames at once, and the rate would be lost|f:1: reserved must be a number from 0 to 65535, not '65536'|" RATE_USAGE "|" RATE_USAGE},
    {"interface v1, trust on\n", "f:1: '' in 'v1,' is not the name of a device"},
    {"interface swp9-1 trust on\n", "f:1: the range 'swp9-1' runs backwards"},
    {"interface v1 subopt9-text 'a\n", "f:1: a quote is not closed"},
    {"vlan 4095 snooping on\n", "f:1: VLAN must be a number from 1 to 4094, not '4095'"},
    {"guard vlan 10 exempt\n", "f:1: only ports can be exempt, not a VLAN"},
    {"binding 10.0.0.1 unbound\nbinding 10.0.0.1 unbound\n", "f:2: line 1 binds that address already"},
    {"binding 224.0.0.1 unbound\n", "f:1: binding: no host has the address 224.0.0.1"},
    {"binding 10.0.0.1 mac 03:00:00:00:00:01 unbound\n", "f:1: binding: no host has the MAC address 03:00:00:00:00:01"},
    {"binding ::1 unbound\n", "f:1: binding: no host has the address ::1"},
    {"binding 10.0.0.1 mac 02:00:00:00:00:01\n", "f:1: binding: mac, vlan and interface are needed, or unbound"},
    {"bindings 65536\n", "f:1: bindings must be a number from 1 to 65535, not '65536'"},
    {"port p access 0|port p access 4294967306|port p access +7|vlan 10x interface v|port p trunk 1,,2|port p trunk 1,|port p trunk 1-|port p trunk 1-2-3|port p trunk 1 native 4095|system 256", NO_VLAN("0") "|" NO_VLAN("4294967306") "|" NO_VLAN("+7") "|" NO_VLAN("10x") "|" NO_VLAN("") "|" NO_VLAN("") "|" NO_VLAN("") "|" NO_VLAN("2-3") "|" NO_VLAN("4095") "|f:1: system '256' is not a number from 1 to 255"},
    {"port p trunk 20-10|port p trunk 1-5 native 5", "f:1: VLAN range '20-10' runs backwards|f:1: VLAN 5 is native and in the list: the list is of tagged VLANs only"},
    {"port p access 1 2|port p trunk 1, 2|port p trunk 1 natif 2|port p routed 1", PORT_USAGE "|" PORT_USAGE "|" PORT_USAGE "|" PORT_USAGE},
    {"port p access 1\nport p access 2\n|port p access 1\nvlan 1 interface p\n|vlan 1 interface p\nport p routed\n|vlan 1 interface a\nvlan 1 interface b\n|role none\nrole none\n|system 1\nsystem 1\n", "f:2: 'p' is a port already|f:2: 'p' is a port already|f:2: 'p' is a VLAN's interface already|f:2: VLAN 1 has the interface 'a' already|f:2: the role is set already|f:2: the system number is set already"},
    {"port abcdefghijklmno access 7|port abcdefghijklmnop access 7|port a/b access 7|port a:b access 7|port . routed|vlan 7 interface ..|port a\x1b access 7|port a\x7f access 7", "sound|f:1: 'abcdefghijklmnop' is longer than a device name can be (15)|f:1: 'a/b' is not a device name|f:1: 'a:b' is not a device name|f:1: '.' is not a device name|f:1: '..' is not a device name|f:1: 'a?' is not a device name|f:1: 'a?' is not a device name"},
    {"vlan 7 interface|role primary|system", "f:1: expected: vlan VID interface NAME|f:1: expected: role none, role master or role slave|f:1: expected: system NUMBER"},
    {"port p access 7\r\nrole master\r\n|port\tp\taccess\t7#x|port p trunk 1-1,4094|journal off # here\n|connect [2001:db8::1]:65535\n" PEER, "sound|sound|sound|sound|sound"},
    {"listen 192.0.2.1:4747\n|" PEER, "f:1: " INCOMPLETE "|f:4: " INCOMPLETE},
    {"listen 192.0.2.1|connect peer.example:1|connect 192.0.2.1:65536|connect 192.0.2.1:0|connect 192.0.2.1:1x", "f:1: expected: listen " ADDRESS "|f:1: expected: connect " ADDRESS "|f:1: expected: connect " ADDRESS "|f:1: expected: connect " ADDRESS "|f:1: expected: connect " ADDRESS},
    {"listen 192.0.2.1:1\nconnect 192.0.2.2:1\n|key /a\nkey /b\n", "f:2: the peer's address is set already: one unit listens, the other connects|f:2: the key is set already"},
    {"journal here|key b|peer a b|key", "f:1: expected: journal /FILE, or journal off|f:1: 'b' is no absolute path|f:1: expected: peer NAME|f:1: expected: key /FILE"},
};
// clang-format on

TEST(Config, WantedOfAPort)
{
    for (const auto &row : WANTED)
        EXPECT_EQ(wanted(parsed(row.text), {7, row.port, row.bridge, row.vlan != 0, row.vlan, std::string(row.port) == row.bridge}), row.wanted) << row.claim << row.text;
}

TEST(Config, Errors)
{
    for (const auto &row : ERRORS) {
        std::string errors, error;
        for (const std::string &file : parts(row.text, '|')) {
            Config config;
            errors += (errors.empty() ? "" : "|") + (config_parse("f", file, config, error) ? "sound" : error);
        }
        EXPECT_EQ(errors, row.error);
    }
    std::string text, error;
    EXPECT_TRUE(conf_file_read("/dev/zero", text, error) == ConfFile::wrong && error == "/dev/zero: is no regular file") << error;
}

// Every setting of a port, of the switch and a binding: brought about, then there is no difference; and gone with their lines.
TEST(Config, IsBroughtAboutAndUndone)
{
    constexpr char TEXT[] = R"(interface lo snooping on
interface lo trust on
interface lo option82 on
interface lo option82-policy drop
interface lo option82-mode 9
interface lo circuit-id template %s.%c.%d:%N
interface lo remote-id raw type 4 hex 00ff27
interface lo subopt9 on
interface lo subopt9-text "it's"
interface lo option18 on
interface lo interface-id format 1 text %s
interface lo option37 on
interface lo remote-id6 text switch-7
interface lo source-mac-check on
interface lo binding-check on
interface lo max-users 50
interface lo relay-address 10.0.0.1
interface lo relay-server 192.0.2.1
interface lo relay-server 192.0.2.2
server-learning on
enterprise-number 4711
binding 10.0.0.5 mac 02:00:00:00:00:05 vlan 10 interface lo attribute 3
)";
    const Config empty = parsed(""), config = parsed(TEXT);
    const PortId port = {1, "lo", "", false}; // the one device that is everywhere
    const Daemon daemon([](const Bytes &body) {
        Bytes reply = body;
        reply.resize(dhcpsnoop_cmd_process(reply.data(), static_cast<uint32_t>(reply.size())));
        return reply;
    });
    const auto reconcile = [&](const Config &to, const Config &from, Make make) {
        Differences all;
        for (const Differences &some : {reconcile_globals(to, daemon, make), reconcile_port(to, daemon, port, make), reconcile_bindings(to, from, daemon, make)})
            all.insert(all.end(), some.begin(), some.end());
        std::string text;
        for (const Difference &difference : all)
            text += difference.error + "\n";
        return text;
    };
    world.reset();
    world.access(1, 10);
    const std::string before = world_state();
    EXPECT_EQ(reconcile(config, empty, Make::yes), std::string(22, '\n'));
    EXPECT_EQ(reconcile(config, empty, Make::no), "");
    EXPECT_EQ(reconcile_port(empty, daemon, port, Make::no).size(), 18u) << "each running value is told";
    EXPECT_EQ(reconcile(parsed("enterprise-number 32473\n"), config, Make::yes).find_first_not_of('\n'), std::string::npos);
    EXPECT_EQ(world_state(), before);
    EXPECT_EQ(world_check_tables(), "");
}

} // namespace
