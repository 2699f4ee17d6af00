// The client's command lines against the daemon itself, its command server's core called in place of the
// socket: what is set is shown, what is shown rebuilds, and what the daemon refuses is explained.
#include <gtest/gtest.h>

#include <filesystem>
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
const std::string NEW_CONFIG = "dhcpsnoopctl enterprise-number 32473\n"; // of a daemon just started
const std::string A = "interface 500000001 ", B = "interface 500000002 ";

Bytes inDaemon(const Bytes &body)
{
    Bytes buffer = body;
    uint32_t length = dhcpsnoop_cmd_process(buffer.data(), static_cast<uint32_t>(buffer.size()));
    EXPECT_LE(length, buffer.size());
    buffer.resize(length);
    return buffer;
}

Ran run(const std::string &line) { return ::run(line, inDaemon); }

void must(const std::string &line)
{
    Ran ran = run(line);
    EXPECT_EQ(ran.status, EXIT_DONE) << line << ": " << ran.err;
}

Ran loadText(const std::string &text, const std::string &options = "", const Exchange &exchange = inDaemon)
{
    const std::string name = testing::TempDir() + "load-" + std::to_string(getpid());
    std::ofstream(name) << text;
    Ran ran = ::run("load " + name + options, exchange);
    std::filesystem::remove(name);
    return ran;
}

class CtlDaemon : public testing::Test
{
  protected:
    void SetUp() override { start(); }
    void TearDown() override { EXPECT_EQ(world_check_tables(), ""); }
    void start()
    {
        world.reset();
        world.access(PORT_A, 10);
        world.trunk(PORT_B, {10, 20});
        world.vlan_interface(VLAN_IF, 10);
    }
};

// Every setting at a value that it does not have at first.
void configure()
{
    for (const char *line : {"server-learning on", "enterprise-number 4711", "hardware-notify on", "snooping on"})
        must(line);
    for (const char *setting : {"snooping on", "version both", "trust on", "option82 on", "option82-policy drop", "option82-mode 9",
                                "circuit-id template %s.%c.%d:%N", "remote-id raw type 4 hex 00ff27", "subopt9 on", "subopt9-text it's", "option18 on",
                                "interface-id format 1 text %s", "option37 on", "remote-id6 text switch-7", "source-mac-check on", "binding-check on",
                                "max-users 50", "relay-address 10.0.0.1", "relay-server 192.0.2.1 add", "relay-server 192.0.2.2 add",
                                "relay-server 192.0.2.3 add", "flag14 on", "setting21 65535"})
        must(A + setting);
    for (const char *setting : {"snooping on", "option82 on", "circuit-id global text x", "remote-id generated"})
        must(B + setting);
    must("vlan 10 snooping on");
    must("vlan 10 max-users 7");
    must("binding add 10.0.0.5 mac 02:00:00:00:00:05 vlan 10 " + A + "attribute 3");
    must("binding add 2001:db8::1 mac 02:00:00:00:00:06 unbound");
    must("binding add 10.0.0.6 mac 02:00:00:00:00:07 unbound"); // in force without VLAN and interface
    must("binding bind 10.0.0.6");
}

TEST_F(CtlDaemon, EverySettingIsReadBackAsItWasMade)
{
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
}

TEST_F(CtlDaemon, ShownConfigurationRebuildsIt)
{
    configure();
    std::string before = run("show config").out;
    std::string interfaces = run("show interfaces --json").out, global = run("show global").out, bindings = run("show bindings").out;
    start();
    EXPECT_EQ(run("show interfaces --json").out, "[]\n");
    must("binding add 2001:db8::1 mac 02:00:00:00:00:06 unbound"); // as from a journal
    for (const char *claim : {"new", "there already"}) {
        Ran loaded = loadText("# settings\n\n" + before);
        EXPECT_EQ(loaded.status, EXIT_DONE) << claim << ": " << loaded.err;
    }
    EXPECT_EQ(run("show config").out, before);
    EXPECT_EQ(run("show interfaces --json").out, interfaces);
    EXPECT_EQ(run("show global").out, global);
    EXPECT_EQ(run("show bindings").out, bindings);
    EXPECT_NE(before.find("dhcpsnoopctl binding add 2001:db8::1 mac 02:00:00:00:00:06 unbound\n"), std::string::npos) << before;
}

// All other lines are done; each that was not is told with its place.
TEST_F(CtlDaemon, LinesThatCannotBeLoaded)
{
    const std::tuple<const char *, ExitStatus, const char *> rows[] = {
        {"interface 500000001 trust on", EXIT_REFUSED, ":2: interface 500000001 trust: refused, NM_NO_ENTRY"},
        {"interface swp77 snooping on", EXIT_USAGE, ":2: "},
        {"interface 500000002 remote-id text 'x", EXIT_USAGE, ":2: a quote is not closed"},
        {"interface 500000002 remote-id text $(id)", EXIT_USAGE, ":2: "},
        {"snooping on; snooping off", EXIT_USAGE, ":2: "},
        {"load /dev/null", EXIT_USAGE, ":2: 'load /dev/null' is no command"},
        {"monitor", EXIT_USAGE, ":2: 'monitor' is no command"},
        {"dhcpsnoopctl", EXIT_USAGE, ":2: '' is no command"},
        {"interface 500000002 trust maybe", EXIT_USAGE, ":2: "},
    };
    for (const auto &[line, status, message] : rows) {
        SCOPED_TRACE(line);
        start();
        Ran ran = loadText(std::string("interface 500000002 snooping on\n") + line + "\nserver-learning on\n");
        EXPECT_EQ(ran.status, status);
        EXPECT_NE(ran.err.find(message), std::string::npos) << ran.err;
        const bool understood = ran.requests.size() > 0; // else nothing is done at all
        EXPECT_EQ(run("show config").out,
                  understood ? NEW_CONFIG + "dhcpsnoopctl server-learning on\ndhcpsnoopctl interface 500000002 snooping on\n" : NEW_CONFIG);
    }
}

TEST_F(CtlDaemon, LoadTriesAgain)
{
    int attempts = 0;
    const auto late = [&](const Bytes &body) {
        if (++attempts < 3)
            throw NoDaemon("not yet");
        return inDaemon(body);
    };
    Ran ran = loadText("server-learning on\n", " wait 10", late);
    EXPECT_EQ(ran.status, EXIT_DONE) << ran.err;
    EXPECT_EQ(run("show config").out, NEW_CONFIG + "dhcpsnoopctl server-learning on\n");
    attempts = 0;
    EXPECT_EQ(loadText("server-learning on\n", "", late).status, EXIT_NO_DAEMON);
    // But not what will not be otherwise then.
    must("binding add 10.0.0.9 mac 02:00:00:00:00:09 unbound");
    for (const char *line : {"binding add 10.0.0.9 unbound", "interface 500000002 trust maybe"}) {
        ran = loadText(line, " wait 60");
        EXPECT_NE(ran.status, EXIT_DONE) << line;
        EXPECT_LT(ran.requests.size(), 20u) << line;
    }
}

// What the daemon forgets with a switch, the client must not give back.
TEST_F(CtlDaemon, SwitchingOffForgetsTheDetails)
{
    configure();
    for (const char *option : {"option82 off", "option18 off", "option37 off"})
        must(A + option);
    std::string config = run("show config").out;
    for (const char *gone : {"option82 on", "option82-policy", "circuit-id", "remote-id", "subopt9", "option18", "interface-id", "option37"})
        EXPECT_EQ(config.find(A + gone), std::string::npos) << gone;
}

TEST_F(CtlDaemon, RefusalsAreExplained)
{
    const std::tuple<std::vector<std::string>, std::string, const char *> rows[] = {
        // lines before, the line, a part of what is said
        {{}, A + "trust on", "NM_NO_ENTRY (0x3E80002): no such entry or interface (is snooping off there?"},
        {{}, "show " + A, "NM_NO_ENTRY (0x3E80002)"},
        {{}, A + "version both", "interface 500000001 version: refused, NM_NO_ENTRY"},
        {{A + "snooping on"}, A + "circuit-id text x", "option82 on' comes first)"},
        {{A + "snooping on"}, A + "interface-id text x", "option18 on' comes first)"},
        {{A + "snooping on", A + "server 10.0.0.1 add", A + "server 10.0.0.2 add", A + "server 10.0.0.3 add"}, A + "server 10.0.0.4 add", "(are all three in use?)"},
        {{}, "vlan 99 snooping on", "NM_END (0xFFFFFFFF): nothing more, or the VLAN has no interface"},
        {{"binding add 10.0.0.5 unbound"}, "binding add 10.0.0.5 unbound", "NM_EXISTS"},
        {{}, B + "snooping on", "result 19 of the platform: No such device (is it no port of the switch"},
    };
    for (const auto &[before, line, message] : rows) {
        SCOPED_TRACE(line);
        start();
        world.refuse("qorIfSetApi 500000002 305", 19);
        for (const std::string &first : before)
            must(first);
        Ran ran = run(line);
        EXPECT_EQ(ran.status, EXIT_REFUSED);
        EXPECT_NE(ran.err.find(message), std::string::npos) << ran.err;
        EXPECT_EQ(ran.out, "");
    }
}

TEST_F(CtlDaemon, EveryVlanIsShownWhateverTheOrderOfTheInterfaces)
{
    world.vlan_interface(VLAN_IF + 1, 20);
    world.vlan_interface(VLAN_IF + 2, 5);
    for (const char *vid : {"5", "10", "20"})
        must("vlan " + std::string(vid) + " snooping on");
    EXPECT_EQ(run("show vlans").out, "VLAN  MAX-USERS\n5     32768\n10    32768\n20    32768\n");
}

TEST_F(CtlDaemon, VersionTakesTrustAwayAndSaysSo)
{
    must(A + "snooping on");
    must(A + "trust on");
    EXPECT_EQ(run(A + "version 4").err, "") << "the same version is no change";
    testing::internal::CaptureStdout(); // the daemon says it too
    Ran ran = run(A + "version both");
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(ran.status, EXIT_DONE);
    EXPECT_NE(ran.err.find("took trust away; 'interface 500000001 trust on'"), std::string::npos) << ran.err;
}

} // namespace
