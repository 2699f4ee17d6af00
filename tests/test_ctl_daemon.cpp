// The client's command lines against the daemon itself, its command server's core called in place of the
// socket: what is set is shown, what is shown rebuilds, and what the daemon refuses is explained.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ctl_run.h"
#include "dhcpsnoop_main.h"
#include "world.h"

namespace
{

// Indexes that have no name in any network namespace.
constexpr uint32_t PORT_A = 500000001, PORT_B = 500000002, VLAN_IF = 500000003, VLAN = 10;
const std::string A = "500000001", B = "500000002", V = "500000003";

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

class CtlDaemon : public testing::Test
{
  protected:
    void SetUp() override { start(); }
    void TearDown() override { EXPECT_EQ(world_check_tables(), ""); }
    void start()
    {
        world.reset();
        world.access(PORT_A, VLAN);
        world.trunk(PORT_B, {VLAN, 20});
        world.vlan_interface(VLAN_IF, VLAN);
    }
};

// For each setting a value that it does not have at first, and one more where kinds differ.
const char *const SETTINGS[] = {
    "version both",
    "trust on",
    "option82 on",
    "option82-policy drop",
    "option82-mode 9",
    "circuit-id template %s.%c.%d:%N",
    "remote-id raw type 4 hex 00ff27",
    "subopt9 on",
    "subopt9-text it's",
    "option18 on",
    "interface-id format 1 text %s",
    "option37 on",
    "remote-id6 text switch-7",
    "source-mac-check on",
    "binding-check on",
    "max-users 50",
    "relay-address 10.0.0.1",
    "relay-server 192.0.2.1 add",
    "relay-server 192.0.2.2 add",
    "relay-server 192.0.2.3 add",
    "flag14 on",
    "setting21 65535",
};

void configure()
{
    must("server-learning on");
    must("enterprise-number 4711");
    must("hardware-notify on");
    must("snooping on");
    must("interface " + A + " snooping on");
    for (const char *setting : SETTINGS)
        must("interface " + A + ' ' + setting);
    must("interface " + B + " snooping on");
    must("interface " + B + " option82 on");
    must("interface " + B + " circuit-id global text x");
    must("interface " + B + " remote-id generated");
    must("vlan 10 snooping on");
    must("vlan 10 max-users 7");
    must("binding add 10.0.0.5 mac 02:00:00:00:00:05 vlan 10 interface " + A + " attribute 3");
    must("binding add 2001:db8::1 mac 02:00:00:00:00:06 unbound");
}

TEST_F(CtlDaemon, EverySettingIsReadBackAsItWasMade)
{
    must("interface " + A + " snooping on");
    for (const char *setting : SETTINGS)
        must("interface " + A + ' ' + setting);
    auto shown = nlohmann::json::parse(run("show interface " + A + " --json").out);
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
        "users": 0, "dropped-untrusted": 0, "dropped-source-mac": 0, "dropped-binding": 0})"));
}

TEST_F(CtlDaemon, ShownConfigurationRebuildsIt)
{
    configure();
    std::string before = run("show config").out;
    auto lines = nlohmann::json::parse(run("show config --json").out).get<std::vector<Words>>();
    std::string interfaces = run("show interfaces --json").out, global = run("show global").out;

    start();
    EXPECT_EQ(run("show interfaces --json").out, "[]\n");
    for (const Words &line : lines) {
        Ran ran = runWords(line, inDaemon);
        EXPECT_EQ(ran.status, EXIT_DONE) << joinQuoted(line) << ": " << ran.err;
    }
    EXPECT_EQ(run("show config").out, before);
    EXPECT_EQ(run("show interfaces --json").out, interfaces);
    EXPECT_EQ(run("show global").out, global);
    EXPECT_NE(before.find("dhcpsnoopctl binding add 2001:db8::1 mac 02:00:00:00:00:06 unbound\n"),
              std::string::npos)
        << before;
}

// What the daemon forgets with a switch, the client must not give back.
TEST_F(CtlDaemon, SwitchingOffForgetsTheDetails)
{
    configure();
    must("interface " + A + " option82 off");
    must("interface " + A + " option18 off");
    must("interface " + A + " option37 off");
    std::string config = run("show config").out;
    for (const char *gone : {"option82 on", "option82-policy", "circuit-id template", "remote-id raw",
                             "subopt9", "option18", "interface-id", "option37", "remote-id6"})
        EXPECT_EQ(config.find("interface " + A + ' ' + gone), std::string::npos) << gone;
    start();
    must("interface " + A + " snooping on");
    must("interface " + A + " option82 on");
    EXPECT_EQ(run("show config").out.find("circuit-id"), std::string::npos)
        << "generated values are the initial ones";
}

struct RefusalRow {
    std::vector<std::string> before;
    std::string line;
    const char *message;
};

TEST_F(CtlDaemon, RefusalsAreExplained)
{
    const RefusalRow rows[] = {
        {{},
         "interface " + A + " trust on",
         "NM_NO_ENTRY (0x3E80002): no such entry or interface (is snooping off there?"},
        {{}, "show interface " + A, "NM_NO_ENTRY (0x3E80002)"},
        {{"interface " + A + " snooping on"},
         "interface " + A + " circuit-id text x",
         "option82 on' comes first)"},
        {{"interface " + A + " snooping on", "interface " + A + " option82 on"},
         "interface " + A + " subopt9-text x",
         "subopt9 on' comes first)"},
        {{"interface " + A + " snooping on"},
         "interface " + A + " interface-id text x",
         "option18 on' comes first)"},
        {{"interface " + A + " snooping on"},
         "interface " + A + " remote-id6 text x",
         "option37 on' comes first)"},
        {{"interface " + A + " snooping on", "interface " + A + " server 10.0.0.1 add",
          "interface " + A + " server 10.0.0.2 add", "interface " + A + " server 10.0.0.3 add"},
         "interface " + A + " server 10.0.0.4 add",
         "NM_BAD_COMMAND (0x3E80010): unknown command or value, or something it needs is not there (are all three in use?)"},
        {{}, "interface " + A + " server 10.0.0.1 add", "is snooping off there?"},
        {{}, "vlan 99 snooping on", "NM_END (0xFFFFFFFF): nothing more, or the VLAN has no interface"},
        {{}, "binding bind 10.0.0.5", "binding 10.0.0.5: refused, NM_NO_ENTRY"},
        {{"binding add 10.0.0.5 unbound"}, "binding add 10.0.0.5 unbound", "NM_EXISTS"},
    };
    for (const RefusalRow &row : rows) {
        SCOPED_TRACE(row.line);
        start();
        for (const std::string &line : row.before)
            must(line);
        Ran ran = run(row.line);
        EXPECT_EQ(ran.status, EXIT_REFUSED);
        EXPECT_NE(ran.err.find(row.message), std::string::npos) << ran.err;
        EXPECT_EQ(ran.out, "");
    }
}

TEST_F(CtlDaemon, VersionTakesTrustAwayAndSaysSo)
{
    must("interface " + A + " snooping on");
    must("interface " + A + " trust on");
    EXPECT_EQ(run("interface " + A + " version 4").err, "") << "the same version is no change";
    testing::internal::CaptureStdout(); // the daemon says it too
    Ran ran = run("interface " + A + " version both");
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(ran.status, EXIT_DONE);
    EXPECT_NE(ran.err.find("took trust away; 'interface 500000001 trust on'"), std::string::npos) << ran.err;
}

TEST_F(CtlDaemon, DebugFlagsAreSwitchedOneByOne)
{
    must("debug trace on");
    must("debug dump on");
    must("debug trace off");
    EXPECT_EQ(gDhcpsnoop.debugFlags, DHCPSNOOP_DEBUG_DUMP);
    must("debug dump off");
    EXPECT_EQ(gDhcpsnoop.debugFlags, 0);
}

TEST_F(CtlDaemon, BindingsAreListedInOrderAndWhole)
{
    const char *addresses[] = {"10.0.0.5", "10.0.0.10", "9.255.255.255", "2001:db8::2", "2001:db8::10"};
    for (const char *address : addresses)
        must(std::string("binding add ") + address + " unbound");
    auto listed = nlohmann::json::parse(run("show bindings --json").out);
    std::vector<std::string> order;
    for (const auto &binding : listed)
        order.push_back(binding["address"]);
    EXPECT_EQ(order, (std::vector<std::string>{"9.255.255.255", "10.0.0.5", "10.0.0.10", "2001:db8::2",
                                               "2001:db8::10"}));

    must("binding delete 10.0.0.5");
    must("binding add 10.0.0.5 mac 02:00:00:00:00:05 vlan 10 interface " + A);
    EXPECT_EQ(run("show bindings address 10.0.0.5 state bound --json").out.find("\"lease\": null") ==
                  std::string::npos,
              false);
    must("binding unbind 10.0.0.5");
    EXPECT_EQ(run("show bindings state bound").out,
              "ADDRESS  MAC  VLAN  INTERFACE  TYPE  STATE  LEASE  LEFT\n");
    EXPECT_EQ(run("show global").out.find("bindings           5\n") == std::string::npos, false);
}

} // namespace
