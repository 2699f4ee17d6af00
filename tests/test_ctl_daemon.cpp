// The client's command lines against the daemon itself, its command server's core called in place of the
// socket: what is set is shown, what is shown rebuilds, and what the daemon refuses is explained.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "ctl_run.h"
#include "dhcpsnoop_cmd.h"
#include "world.h"

namespace
{

// Indexes that have no name in any network namespace: two ports and the VLAN interface of VLAN 10.
constexpr uint32_t PORT_A = 500000001, PORT_B = 500000002, VLAN_IF = 500000003;
const std::string A = "interface 500000001 ", B = "interface 500000002 ";

Bytes inDaemon(const Bytes &body)
{
    Bytes buffer = body;
    buffer.resize(dhcpsnoop_cmd_process(buffer.data(), static_cast<uint32_t>(body.size())));
    return buffer;
}

// A line of the client; one that begins with "load:" stands in a file that is loaded.
Ran run(const std::string &line, const Exchange &exchange = inDaemon)
{
    if (!line.starts_with("load:"))
        return ::run(line, exchange);
    const std::string name = testing::TempDir() + "load-" + std::to_string(getpid());
    const size_t options = line.find(" @ "); // of the load
    std::ofstream(name) << line.substr(5, options - 5);
    Ran ran = ::run("load " + name + (options != std::string::npos ? line.substr(options + 2) : ""), exchange);
    std::remove(name.c_str());
    return ran;
}

void start()
{
    world.reset();
    world.access(PORT_A, 10);
    world.trunk(PORT_B, {10, 20});
    world.vlan_interface(VLAN_IF, 10);
    world.vlan_interface(VLAN_IF + 1, 5);
    world.access(VLAN_IF + 2, 10);
    world.refuse("qorIfSetApi 500000005 305", 19);
}

// Lines, separated by ';'.
void must(const std::string &lines)
{
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line, ';');) {
        const Ran ran = run(line);
        EXPECT_EQ(ran.status, EXIT_DONE) << line << ": " << ran.err;
    }
}

// Every setting at a value that it does not have at first.
void configure()
{
    must("server-learning on;enterprise-number 4711;hardware-notify on;snooping on");
    for (const char *setting : {"snooping on", "version both", "trust on", "option82 on", "option82-policy drop", "option82-mode 9",
                                "circuit-id template %s.%c.%d:%N", "remote-id raw type 4 hex 00ff27", "subopt9 on", "subopt9-text it's", "option18 on",
                                "interface-id format 1 text %s", "option37 on", "remote-id6 text switch-7", "source-mac-check on", "binding-check on",
                                "max-users 50", "relay-address 10.0.0.1", "relay-server 192.0.2.1 add", "relay-server 192.0.2.2 add",
                                "relay-server 192.0.2.3 add", "flag14 on", "setting21 65535"})
        must(A + setting);
    for (const char *setting : {"snooping on", "option82 on", "circuit-id global text x", "remote-id generated"})
        must(B + setting);
    must("vlan 10 snooping on;vlan 10 max-users 7;binding add 10.0.0.5 mac 02:00:00:00:00:05 vlan 10 " + A + "attribute 3");
    must("binding add 2001:db8::1 mac 02:00:00:00:00:06 unbound");
    must("binding add 10.0.0.6 mac 02:00:00:00:00:07 unbound;binding bind 10.0.0.6"); // in force without VLAN and interface
}

TEST(CtlDaemon, SettingsAreReadBackAndRebuilt)
{
    start();
    configure();
    auto shown = nlohmann::json::parse(run("show " + A + "--json").out);
    shown.erase("users");
    EXPECT_EQ(shown, nlohmann::json::parse(R"({
        "interface": "500000001", "index": 500000001, "snooping": true, "version": "both", "trust": true,
        "option82": true, "option82-policy": "drop", "option82-mode": "9",
        "circuit-id": {"format": "template", "text": "%s.%c.%d:%N", "hex": "25732e25632e25643a254e"},
        "remote-id": {"format": "raw", "type": 4, "hex": "00ff27"},
        "subopt9": true, "subopt9-text": {"text": "it's", "hex": "69742773"},
        "option18": true, "interface-id": {"format": "1", "text": "%s", "hex": "2573"},
        "option37": true, "remote-id6": {"format": "typed", "type": 1, "text": "switch-7", "hex": "7377697463682d37"},
        "source-mac-check": true, "binding-check": true, "max-users": 50, "relay-address": "10.0.0.1",
        "relay-servers": ["192.0.2.1", "192.0.2.2", "192.0.2.3"], "flag14": true, "setting21": 65535,
        "dropped-untrusted": 0, "dropped-source-mac": 0, "dropped-binding": 0})"));
    const auto all = [] { return run("show config").out + run("show interfaces --json").out + run("show global").out + run("show bindings").out; };
    const std::string before = all(), config = run("show config").out;
    start();
    EXPECT_EQ(run("show interfaces --json").out, "[]\n");
    must("binding add 2001:db8::1 mac 02:00:00:00:00:06 unbound"); // as from a journal
    must("load:# settings\n\n" + config);
    must("load:" + config); // all of it there already
    EXPECT_EQ(all(), before);
    // What the daemon forgets with a switch, the client must not give back.
    for (const char *option : {"option82 off", "option18 off", "option37 off"})
        must(A + option);
    for (const char *gone : {"option82 on", "option82-policy", "circuit-id", "remote-id", "subopt9", "option18", "interface-id", "option37"})
        EXPECT_EQ(run("show config").out.find(A + gone), std::string::npos) << gone;
}

// clang-format off
#define TABLE "ADDRESS   MAC                VLAN  INTERFACE  TYPE    STATE  LEASE    LEFT\n"
const std::string LOADED = "dhcpsnoopctl enterprise-number 32473\ndhcpsnoopctl server-learning on\ndhcpsnoopctl interface 500000002 snooping on\n", NEW = LOADED.substr(0, LOADED.find('\n') + 1);
const struct {
    std::string before, line; // lines separated by ';'
    ExitStatus status;
    const char *said;                 // a part
    std::string after = "", out = ""; // the line that shows it, and what that prints
} ROWS[] = {
    {"", A + "trust on", EXIT_REFUSED, "NM_NO_ENTRY (0x3E80002): no such entry or interface (is snooping off there?"},
    {"", "show " + A, EXIT_REFUSED, "NM_NO_ENTRY (0x3E80002)"},
    {"", A + "version both", EXIT_REFUSED, "interface 500000001 version: refused, NM_NO_ENTRY"},
    {A + "snooping on", A + "circuit-id text x", EXIT_REFUSED, "option82 on' comes first)"},
    {A + "snooping on", A + "interface-id text x", EXIT_REFUSED, "option18 on' comes first)"},
    {A + "snooping on;" + A + "server 10.0.0.1 add;" + A + "server 10.0.0.2 add;" + A + "server 10.0.0.3 add", A + "server 10.0.0.4 add", EXIT_REFUSED, "(are all three in use?)"},
    {"", "vlan 99 snooping on", EXIT_REFUSED, "NM_END (0xFFFFFFFF): nothing more, or the VLAN has no interface"},
    {"binding add 10.0.0.5 unbound", "binding add 10.0.0.5 unbound", EXIT_REFUSED, "NM_EXISTS"},
    {"", "interface 500000005 snooping on", EXIT_REFUSED, "result 19 of the platform: No such device (is it no port of the switch"},
    {A + "snooping on;" + A + "trust on", A + "version 4", EXIT_DONE, "", "show vlans", "VLAN  MAX-USERS\n"},
    {A + "snooping on;" + A + "trust on", A + "version both", EXIT_DONE, "took trust away; 'interface 500000001 trust on'"},
    {"vlan 10 snooping on", "vlan 5 snooping on", EXIT_DONE, "", "show vlans", "VLAN  MAX-USERS\n5     32768\n10    32768\n"}, // whatever the order of the interfaces
    // All other lines are done; each that was not is told with its place.
    {"", "load:" + B + "snooping on\n" + A + "trust on\nserver-learning on", EXIT_REFUSED, ":2: interface 500000001 trust: refused, NM_NO_ENTRY", "show config", LOADED},
    {"", "load:" + B + "snooping on\ninterface swp77 snooping on\n" + B + "trust maybe\nserver-learning on", EXIT_USAGE, ":3: ", "show config", LOADED},
    {"", "load:" + B + "snooping on\n" + B + "remote-id text 'x", EXIT_USAGE, ":2: a quote is not closed", "show config", NEW},
    {"", "load:" + B + "snooping on\n" + B + "remote-id text $(id)", EXIT_USAGE, ":2: ", "show config", NEW},
    {"", "load:" + B + "snooping on\nsnooping on; snooping off", EXIT_USAGE, ":2: ", "show config", NEW},
    {"", "load:" + B + "snooping on\nload /dev/null", EXIT_USAGE, ":2: 'load /dev/null' is no command", "show config", NEW},
    {"", "load:" + B + "snooping on\nmonitor", EXIT_USAGE, ":2: 'monitor' is no command", "show config", NEW},
    {"", "load:" + B + "snooping on\ndhcpsnoopctl", EXIT_USAGE, ":2: '' is no command", "show config", NEW},
    // What will not be otherwise then is not tried again.
    {"binding add 10.0.0.9 unbound", "load:binding add 10.0.0.9 unbound vlan 7 @ wait 60", EXIT_REFUSED, "NM_EXISTS"},
    {"", "load:" + B + "trust maybe @ wait 60", EXIT_USAGE, ":1: "},
    {"binding add 10.0.0.5 mac 02:00:00:00:00:ab vlan 10 " + A, "show bindings vlan 10 interface 500000001 mac 02:00:00:00:00:ab", EXIT_DONE, "", "show bindings address 10.0.0.5 type static state bound", TABLE "10.0.0.5  02:00:00:00:00:ab  10    500000001  static  bound  forever  forever\n"},
    {"binding add 10.0.0.5 mac 02:00:00:00:00:ab vlan 10 " + A, "show bindings vlan 11", EXIT_DONE, "", "show bindings vlan 10 state requested", "ADDRESS  MAC  VLAN  INTERFACE  TYPE  STATE  LEASE  LEFT\n"},
};
// clang-format on

TEST(CtlDaemon, Lines)
{
    for (const auto &row : ROWS) {
        SCOPED_TRACE(row.line);
        start();
        testing::internal::CaptureStdout(); // the daemon says it too
        must(row.before);
        const Ran ran = run(row.line);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(ran.status, row.status) << ran.err;
        EXPECT_NE(ran.err.find(row.said), std::string::npos) << ran.err;
        EXPECT_EQ(ran.err.empty(), row.said[0] == '\0') << ran.err;
        EXPECT_TRUE(ran.status == EXIT_DONE || (ran.out.empty() && ran.requests.size() < 20));
        EXPECT_EQ(row.after.empty() ? "" : run(row.after).out, row.out);
        EXPECT_EQ(world_check_tables(), "");
    }
}

TEST(CtlDaemon, LoadWaitsForADaemon)
{
    start();
    int attempts = 0;
    const auto late = [&](const Bytes &body) {
        if (++attempts < 3)
            throw NoDaemon("not yet");
        return inDaemon(body);
    };
    EXPECT_EQ(run("load:server-learning on @ wait 10", late).status, EXIT_DONE);
    EXPECT_NE(run("show config").out.find("dhcpsnoopctl server-learning on\n"), std::string::npos);
    attempts = 0;
    EXPECT_EQ(run("load:server-learning on", late).status, EXIT_NO_DAEMON);
}

} // namespace
