// The client without a daemon: the bytes of its requests, what it makes of replies of any kind, what it
// prints, and the socket between. Expected bytes are laid out by hand from the layout in adr.h: three words
// of marker 0, type 2, length 4, value; index header 1 and count; index items of type, length, value; data
// header 3, type, length, value.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <net/if.h>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "command.h"

namespace
{

Bytes unhex(const std::string &text)
{
    Bytes bytes;
    int high = -1;
    for (char c : text) {
        if (c == ' ')
            continue;
        int digit = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
        if (high >= 0)
            bytes.push_back(static_cast<uint8_t>(high * 16 + digit));
        high = high >= 0 ? -1 : digit;
    }
    return bytes;
}

std::string hexOf(const Bytes &bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

Words split(const std::string &line)
{
    Words words;
    std::istringstream stream(line);
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

// What a command line did.
struct Ran {
    ExitStatus status;
    std::string out, err;
    std::vector<std::string> requests; // bodies, in hexadecimal
};

Ran run(const Words &line, const Exchange &exchange)
{
    Ran ran;
    std::ostringstream out, err;
    Daemon daemon([&](const Bytes &body) {
        ran.requests.push_back(hexOf(body));
        return exchange(body);
    });
    ran.status = runClient(line, daemon, out, err);
    ran.out = out.str();
    ran.err = err.str();
    return ran;
}

Bytes accept(const Bytes &body) { return body; } // result 0, and the value as it was asked

// A peer that gives these replies in turn and after them the last again.
Exchange replies(const std::vector<std::string> &bodies)
{
    return [bodies, next = size_t{0}](const Bytes &) mutable {
        const std::string &body = bodies[std::min(next, bodies.size() - 1)];
        next++;
        return unhex(body);
    };
}

// Only strung together: every byte but those of the three words' frame stands at the row.
std::string body(const std::string &func, const std::string &cmd, const std::string &rest,
                 const std::string &result = "00000000")
{
    return hexOf(unhex("00020004 000000" + func + "00020004" + result + "00020004 000000" + cmd + rest));
}

constexpr char IF[] = "0101 020004 01020304 "; // index 16909060
constexpr char NONE[] = "0100 020004 00000000 ";

struct RequestRow {
    const char *claim, *line;
    std::vector<std::string> requests;
};

std::string ifSet(const std::string &cmd, const std::string &data) { return body("05", cmd, IF + data); }
std::string ifGet(const std::string &cmd) { return body("07", cmd, IF + std::string("03020004 00000000")); }

const RequestRow REQUESTS[] = {
    {"every byte of one request",
     "interface 16909060 trust on",
     {"0002000400000005"
      "0002000400000000"
      "0002000400000003"
      "0101"
      "02000401020304"
      "0302000400000001"}},
    {"snooping off", "interface 16909060 snooping off", {ifSet("01", "03020004 00000000")}},
    {"a version is set after a look at trust",
     "interface 16909060 version both",
     {ifGet("03"), ifSet("02", "03020004 00000003")}},
    {"IPv6 is version 2", "interface 16909060 version 6", {ifGet("03"), ifSet("02", "03020004 00000002")}},
    {"option 82", "interface 16909060 option82 on", {ifSet("04", "03020004 00000001")}},
    {"policy keep is 0", "interface 16909060 option82-policy keep", {ifSet("08", "03020004 00000000")}},
    {"policy drop is 1", "interface 16909060 option82-policy drop", {ifSet("08", "03020004 00000001")}},
    {"policy append is 3", "interface 16909060 option82-policy append", {ifSet("08", "03020004 00000003")}},
    {"a mode by word", "interface 16909060 option82-mode raw", {ifSet("0a", "03020004 00000004")}},
    {"a mode by number", "interface 16909060 option82-mode 15", {ifSet("0a", "03020004 0000000f")}},
    {"a template: format 5, then the bare text",
     "interface 16909060 circuit-id template %s.%c.%d:%N",
     {ifSet("1e", "03020004 00000005"), ifSet("05", "0300000b 25732e25632e25643a254e")}},
    {"a text is typed: format 3, then type 1, length, text",
     "interface 16909060 circuit-id text ab",
     {ifSet("1e", "03020004 00000003"), ifSet("05", "03000004 01026162")}},
    {"a raw text travels typed all the same",
     "interface 16909060 circuit-id raw text ab",
     {ifSet("1e", "03020004 00000004"), ifSet("05", "03000004 01026162")}},
    {"bytes",
     "interface 16909060 remote-id hex 00:ff",
     {ifSet("1f", "03020004 00000003"), ifSet("06", "03000004 010200ff")}},
    {"a type byte of one's own",
     "interface 16909060 remote-id raw type 7 hex 00ff",
     {ifSet("1f", "03020004 00000004"), ifSet("06", "03000004 070200ff")}},
    {"a generated value is an empty text of type 0",
     "interface 16909060 remote-id generated",
     {ifSet("1f", "03020004 00000003"), ifSet("06", "03000002 0000")}},
    {"the switch's format, with the interface's text",
     "interface 16909060 circuit-id global text ab",
     {ifSet("1e", "03020004 00000000"), ifSet("05", "03000002 6162")}},
    {"the switch's format and value",
     "interface 16909060 circuit-id global",
     {ifSet("1e", "03020004 00000000"), ifSet("05", "03000000")}},
    {"a format by number: the text is bare",
     "interface 16909060 interface-id format 1 text ab",
     {ifSet("20", "03020004 00000001"), ifSet("0c", "03000002 6162")}},
    {"DHCPv6 remote-id",
     "interface 16909060 remote-id6 text ab",
     {ifSet("21", "03020004 00000003"), ifSet("0e", "03000004 01026162")}},
    {"sub-option 9", "interface 16909060 subopt9 on", {ifSet("09", "03020004 00000001")}},
    {"its text is bare", "interface 16909060 subopt9-text ab", {ifSet("07", "03000002 6162")}},
    {"a text that is a keyword",
     "interface 16909060 subopt9-text text hex",
     {ifSet("07", "03000003 686578")}},
    {"option 18", "interface 16909060 option18 on", {ifSet("0b", "03020004 00000001")}},
    {"option 37", "interface 16909060 option37 off", {ifSet("0d", "03020004 00000000")}},
    {"source MAC check", "interface 16909060 source-mac-check on", {ifSet("10", "03020004 00000001")}},
    {"binding check", "interface 16909060 binding-check on", {ifSet("11", "03020004 00000001")}},
    {"user limit", "interface 16909060 max-users 50", {ifSet("12", "03020004 00000032")}},
    {"flag 14", "interface 16909060 flag14 on", {ifSet("14", "03020004 00000001")}},
    {"setting 21", "interface 16909060 setting21 0x100", {ifSet("15", "03020004 00000100")}},
    {"statistics of one", "interface 16909060 clear statistics", {ifSet("1c", "03020004 00000000")}},
    {"relay address, first octet most significant",
     "interface 16909060 relay-address 10.0.0.1",
     {ifSet("22", "03020004 0a000001")}},
    {"no relay", "interface 16909060 relay-address off", {ifSet("22", "03020004 00000000")}},
    {"a relay server is added with action 4",
     "interface 16909060 relay-server 192.0.2.1 add",
     {body("13", "01", "0102 020004 01020304 020004 c0000201 03020004 00000004")}},
    {"and deleted with 6, verb first, by the shorter name",
     "interface 16909060 server delete 192.0.2.1",
     {body("13", "01", "0102 020004 01020304 020004 c0000201 03020004 00000006")}},
    {"VLAN", "vlan 10 snooping on", {body("0f", "03", "0101 020004 0000000a 03020004 00000001")}},
    {"VLAN's limit", "vlan 4094 max-users 7", {body("0f", "01", "0101 020004 00000ffe 03020004 00000007")}},
    {"global requests count no index item and carry one",
     "snooping off",
     {body("00", "01", NONE + std::string("03020004 00000000"))}},
    {"server learning", "server-learning on", {body("00", "10", NONE + std::string("03020004 00000001"))}},
    {"hardware notify", "hardware-notify on", {body("00", "04", NONE + std::string("03020004 00000001"))}},
    {"enterprise number",
     "enterprise-number 4294967295",
     {body("00", "02", NONE + std::string("03020004 ffffffff"))}},
    {"statistics of all", "clear statistics", {body("00", "11", NONE + std::string("03020004 00000000"))}},
    {"a debug flag is read before it is set",
     "debug dump on",
     {body("02", "14", NONE + std::string("03020004 00000000")),
      body("00", "14", NONE + std::string("03020004 00000002"))}},
    {"a binding is created, filled in, bound",
     "binding add 10.0.0.5 mac 02:00:00:00:00:AB vlan 10 interface 16909060 attribute 9",
     {body("0a", "09", "0103 00000101 000003000000 0000100a000005000000000000000000000000 03020004 00000004"),
      body("0a", "05",
           "0103 00000101 000003000000 0000100a000005000000000000000000000000 03000006 0200000000ab"),
      body("0a", "01", "0103 00000101 000003000000 0000100a000005000000000000000000000000 03020004 0000000a"),
      body("0a", "02", "0103 00000101 000003000000 0000100a000005000000000000000000000000 03020004 01020304"),
      body("0a", "04", "0103 00000101 000003000000 0000100a000005000000000000000000000000 03020004 00000009"),
      body("0a", "09",
           "0103 00000101 000003000000 0000100a000005000000000000000000000000 03020004 00000001")}},
    {"an IPv6 binding is bound",
     "binding bind 2001:db8::1",
     {body("0a", "09",
           "0103 00000102 000003000000 00001020010db8000000000000000000000001 03020004 00000001")}},
    {"unbound",
     "binding unbind 10.0.0.5",
     {body("0a", "09",
           "0103 00000101 000003000000 0000100a000005000000000000000000000000 03020004 00000002")}},
    {"deleted",
     "binding delete 10.0.0.5",
     {body("0a", "09",
           "0103 00000101 000003000000 0000100a000005000000000000000000000000 03020004 00000006")}},
};

TEST(CtlRequest, BytesOfEveryCommand)
{
    for (const RequestRow &row : REQUESTS) {
        SCOPED_TRACE(row.claim);
        Ran ran = run(split(row.line), accept);
        EXPECT_EQ(ran.requests, row.requests);
        EXPECT_EQ(ran.status, EXIT_DONE);
        EXPECT_EQ(ran.out + ran.err, "");
    }
}

// Every setting that can be made is in the table above.
TEST(CtlRequest, TableIsComplete)
{
    auto made = [](const std::string &line) {
        return std::any_of(std::begin(REQUESTS), std::end(REQUESTS),
                           [&](const RequestRow &row) { return std::string(row.line).starts_with(line); });
    };
    for (const Setting &setting : INTERFACE_SCOPE.settings)
        EXPECT_TRUE(!canBeSet(setting) || made("interface 16909060 " + std::string(setting.name) + " "))
            << setting.name;
    for (const Setting &setting : VLAN_SCOPE.settings)
        EXPECT_TRUE(made("vlan 10 " + std::string(setting.name)) ||
                    made("vlan 4094 " + std::string(setting.name)))
            << setting.name;
}

struct UsageRow {
    const char *claim;
    Words line;
    const char *message; // part of it
};

const UsageRow USAGE[] = {
    {"nothing", {}, "Usage: dhcpsnoopctl"},
    {"unknown command", {"shwo", "interfaces"}, "unknown command 'shwo interfaces'"},
    {"half a command", {"show"}, "unknown command 'show'"},
    {"too much", {"show", "vlans", "10"}, "there is '10'"},
    {"unknown port",
     {"interface", "no-such-port", "trust", "on"},
     "there is no interface 'no-such-port' here"},
    {"index 0", {"interface", "0", "trust", "on"}, "there is no interface '0'"},
    {"unknown setting", {"interface", "16909060", "trsut", "on"}, "no setting 'trsut' of an interface"},
    {"a counter", {"interface", "16909060", "users", "3"}, "no setting 'users'"},
    {"no setting", {"interface", "16909060"}, "which setting?"},
    {"no value", {"interface", "16909060", "trust"}, "trust takes: on|off"},
    {"a wrong switch", {"interface", "16909060", "trust", "yes"}, "trust takes: on|off"},
    {"two values", {"interface", "16909060", "trust", "on", "off"}, "trust takes: on|off"},
    {"a wrong word", {"interface", "16909060", "version", "5"}, "version takes: 4|6|both|none"},
    {"mode past the field", {"interface", "16909060", "option82-mode", "16"}, "a number from 0 to 15"},
    {"number past 16 bits",
     {"interface", "16909060", "max-users", "65536"},
     "a number from 0 to 65535, not '65536'"},
    {"number past 32 bits", {"enterprise-number", "4294967296"}, "not '4294967296'"},
    {"negative number", {"enterprise-number", "-1"}, "not '-1'"},
    {"number and more", {"enterprise-number", "12x"}, "not '12x'"},
    {"address",
     {"interface", "16909060", "relay-address", "10.0.0.256"},
     "'10.0.0.256' is not an IPv4 address"},
    {"server without verb", {"interface", "16909060", "relay-server", "10.0.0.1"}, "ADDRESS add|delete"},
    {"server with two verbs",
     {"interface", "16909060", "relay-server", "add", "delete"},
     "ADDRESS add|delete"},
    {"server 0.0.0.0", {"interface", "16909060", "relay-server", "0.0.0.0", "add"}, "0.0.0.0 is no server"},
    {"text of 129 bytes",
     {"interface", "16909060", "circuit-id", "text", std::string(129, 'x')},
     "129 bytes are too long"},
    {"text without its keyword", {"interface", "16909060", "circuit-id", "x"}, "circuit-id takes:"},
    {"odd hexadecimal",
     {"interface", "16909060", "circuit-id", "hex", "abc"},
     "not a row of hexadecimal bytes"},
    {"hexadecimal with a separator at the end",
     {"interface", "16909060", "circuit-id", "hex", "ab:"},
     "not a row of"},
    {"format past the last",
     {"interface", "16909060", "circuit-id", "format", "7", "text", "x"},
     "from 0 to 6"},
    {"type past a byte",
     {"interface", "16909060", "circuit-id", "type", "256", "text", "x"},
     "from 0 to 255"},
    {"template without text", {"interface", "16909060", "circuit-id", "template"}, "circuit-id takes:"},
    {"letter after a conversion",
     {"interface", "16909060", "circuit-id", "template", "%sx"},
     "after '%s' must come one of"},
    {"'%' at the end", {"interface", "16909060", "circuit-id", "template", "100%"}, "a letter must follow"},
    {"VLAN 0", {"vlan", "0", "snooping", "on"}, "from 1 to 4094"},
    {"VLAN 4095", {"vlan", "4095", "snooping", "on"}, "from 1 to 4094"},
    {"no such debug flag", {"debug", "all", "on"}, "trace|dump on|off"},
    {"binding without its place",
     {"binding", "add", "10.0.0.5", "mac", "02:00:00:00:00:01"},
     "mac, vlan and interface are needed"},
    {"short MAC", {"binding", "add", "10.0.0.5", "mac", "02:00:00:00:01"}, "is not a MAC address"},
    {"binding with half a pair", {"binding", "add", "10.0.0.5", "vlan"}, "'vlan' lacks its value"},
    {"filter unknown", {"show", "bindings", "colour", "red"}, "cannot be chosen by 'colour'"},
    {"filter without value", {"show", "bindings", "vlan"}, "'vlan' lacks its value"},
    {"filter's word", {"show", "bindings", "state", "open"}, "bound, unbound, created, requested"},
};

TEST(CtlUsage, WrongLinesAreRefusedBeforeAnythingIsAsked)
{
    for (const UsageRow &row : USAGE) {
        SCOPED_TRACE(row.claim);
        Ran ran = run(row.line, accept);
        EXPECT_EQ(ran.status, EXIT_USAGE);
        EXPECT_NE(ran.err.find(row.message), std::string::npos) << ran.err;
        EXPECT_EQ(ran.out, "");
        EXPECT_TRUE(ran.requests.empty());
    }
}

// The daemon has the same rule (dhcpsnoop_format_check over the text and its terminating NUL).
TEST(CtlUsage, Templates)
{
    const std::pair<const char *, bool> rows[] = {
        {"", true},       {"%s", true},          {"%sx", false},    {"%s.%c", true}, {"%s-%c", false},
        {"%1", true},     {"%", false},          {"100%", false},   {"%%s", true},   {"%%", false},
        {"%s%c", false},  {"%s)", true},         {"%s>%d", true},   {"plain", true}, {"%Q", true},
        {"%s. %c", true}, {"%@", true},          {"%[", true},      {"%`x", true},   {"%{x", true},
        {"%s,", false},   {"%d %N:%s.%c", true}, {"%z\xC3", false},
    };
    for (auto [text, good] : rows)
        EXPECT_EQ(!templateFault(text), good) << text;
    EXPECT_EQ(templateUnknown("%s.%Q.%n"), "%Q %n");
    Ran ran = run(split("interface 16909060 circuit-id template %n"), accept);
    EXPECT_EQ(ran.status, EXIT_DONE);
    EXPECT_NE(ran.err.find("note: in circuit-id %n has no meaning"), std::string::npos) << ran.err;
}

struct ReplyRow {
    const char *claim, *line;
    std::vector<std::string> replies;
    ExitStatus status;
    const char *err, *out; // a part of each; null = it is empty
};

constexpr char ALL_ZERO_KEY[] = "0103 00000100 000003000000 00001000000000000000000000000000000000 ";

const ReplyRow REPLIES[] = {
    {"a list with one VLAN and its limit",
     "show vlans",
     {body("0d", "00", "0101 020004 00000000 03020004 0000000a"),
      body("0e", "00", "0101 020004 0000000a 03020004 00000000", "ffffffff"),
      body("10", "01", "0101 020004 0000000a 03020004 00000007")},
     EXIT_DONE,
     nullptr,
     "VLAN  MAX-USERS\n10    7\n"},
    {"a VLAN gone before it is asked for is left out",
     "show vlans",
     {body("0d", "00", "0101 020004 00000000 03020004 0000000a"),
      body("0e", "00", "0101 020004 0000000a 03020004 00000000", "ffffffff"),
      body("10", "01", "0101 020004 0000000a 03020004 00000000", "03e80002")},
     EXIT_DONE,
     nullptr,
     "VLAN  MAX-USERS\n"},
    {"an empty reply", "show vlans", {""}, EXIT_REFUSED, "could not decode the request", nullptr},
    {"one byte short",
     "show vlans",
     {body("0d", "00", "0101 020004 00000000 03020004 000000")},
     EXIT_NO_DAEMON,
     "malformed",
     nullptr},
    {"one byte long",
     "show vlans",
     {body("0d", "00", "0101 020004 00000000 03020004 0000000a 00")},
     EXIT_NO_DAEMON,
     "malformed",
     nullptr},
    {"a single byte", "show vlans", {"00"}, EXIT_NO_DAEMON, "malformed", nullptr},
    {"another function's",
     "show vlans",
     {body("0e", "00", "0101 020004 00000000 03020004 0000000a")},
     EXIT_NO_DAEMON,
     "malformed",
     nullptr},
    {"another command's",
     "show vlans",
     {body("0d", "01", "0101 020004 00000000 03020004 0000000a")},
     EXIT_NO_DAEMON,
     "malformed",
     nullptr},
    {"a word of type 3",
     "show vlans",
     {"000300040000000d 0002000400000000 0002000400000000 0101 02000400000000 030200040000000a"},
     EXIT_NO_DAEMON,
     "malformed",
     nullptr},
    {"no data header",
     "show vlans",
     {body("0d", "00", "0101 020004 00000000 01020004 0000000a")},
     EXIT_NO_DAEMON,
     "value is not there",
     nullptr},
    {"bytes for a number",
     "show vlans",
     {body("0d", "00", "0101 020004 00000000 03000004 0000000a")},
     EXIT_NO_DAEMON,
     "value is not there",
     nullptr},
    {"a number of 3 bytes",
     "show vlans",
     {body("0d", "00", "0101 020004 00000000 03020003 0000000a")},
     EXIT_NO_DAEMON,
     "a number of 3 bytes",
     nullptr},
    {"a value past the reply",
     "show vlans",
     {body("0d", "00", "0101 020004 00000000 0302ffff 0000000a")},
     EXIT_NO_DAEMON,
     "longer than the reply",
     nullptr},
    {"a list that stands still",
     "show vlans",
     {body("0d", "00", "0101 020004 00000000 03020004 0000000a"),
      body("0e", "00", "0101 020004 00000000 03020004 0000000a")},
     EXIT_NO_DAEMON,
     "does not go forward",
     nullptr},
    {"a list of bindings that stands still at an address without end",
     "show bindings",
     {body("08", "00",
           ALL_ZERO_KEY +
               std::string("03000001 01 03000003 000000 03000010 00000000000000000000000000000000")),
      body("0c", "01", ALL_ZERO_KEY + std::string("03020004 00000000"), "03e80002"),
      body("09", "00",
           ALL_ZERO_KEY +
               std::string("03000001 01 03000003 000000 03000010 00000000000000000000000000000000"))},
     EXIT_NO_DAEMON,
     "does not go forward",
     nullptr},
    {"a binding of neither family",
     "show bindings",
     {body("08", "00",
           ALL_ZERO_KEY +
               std::string("03000001 03 03000003 000000 03000010 00000000000000000000000000000000"))},
     EXIT_NO_DAEMON,
     "not the key of a binding",
     nullptr},
    {"a key whose pieces have other lengths",
     "show bindings",
     {body("08", "00",
           ALL_ZERO_KEY +
               std::string("03000001 01 03000004 00000003 000010 0000000000000000000000000000000000"))},
     EXIT_NO_DAEMON,
     "malformed",
     nullptr},
    {"four relay servers of one interface",
     "show servers",
     {body("11", "00", "0102 020004 00000000 020004 00000000 03020004 00000007 03020004 0a000001"),
      body("12", "00", "0102 020004 00000000 020004 00000000 03020004 00000007 03020004 0a000002")},
     EXIT_NO_DAEMON,
     "does not go forward",
     nullptr},
    {"a refusal that has a name",
     "vlan 10 max-users 5",
     {body("0f", "01", "0101 020004 0000000a 03020004 00000005", "03e80004")},
     EXIT_REFUSED,
     "vlan 10 max-users: refused, NM_HW_REFUSED (0x3E80004): the hardware layer refused the change",
     nullptr},
    {"one that has none",
     "vlan 10 max-users 5",
     {body("0f", "01", "0101 020004 0000000a 03020004 00000005", "00000011")},
     EXIT_REFUSED,
     "refused, result 17: no name is known",
     nullptr},
    {"an interface that does not snoop",
     "interface 16909060 trust on",
     {body("05", "03", IF + std::string("03020004 00000001"), "03e80002")},
     EXIT_REFUSED,
     "NM_NO_ENTRY (0x3E80002): no such entry or interface (is snooping off there? 'interface 16909060 snooping on' comes first)",
     nullptr},
    {"a setting whose switch is off",
     "interface 16909060 subopt9-text x",
     {body("05", "07", IF + std::string("03000001 78"), "03e80010")},
     EXIT_REFUSED,
     "('interface 16909060 subopt9 on' comes first)",
     nullptr},
    {"a text refused after its format was taken",
     "interface 16909060 circuit-id text x",
     {body("05", "1e", IF + std::string("03020004 00000003")),
      body("05", "05", IF + std::string("03000003 010178"), "03e8000d")},
     EXIT_REFUSED,
     "NM_BAD_LENGTH (0x3E8000D): the value is too short or too long, or has no room (its format is set, its text is not)",
     nullptr},
    {"trust lost with a change of version",
     "interface 16909060 version 6",
     {body("07", "03", IF + std::string("03020004 00000001")),
      body("05", "02", IF + std::string("03020004 00000002")),
      body("07", "03", IF + std::string("03020004 00000000"))},
     EXIT_DONE,
     "note: the change of version took trust away",
     nullptr},
};

TEST(CtlReply, IsCheckedBeforeItIsBelieved)
{
    for (const ReplyRow &row : REPLIES) {
        SCOPED_TRACE(row.claim);
        Ran ran = run(split(row.line), replies(row.replies));
        EXPECT_EQ(ran.status, row.status);
        EXPECT_NE(ran.err.find(row.err ? row.err : ""), std::string::npos) << ran.err;
        EXPECT_EQ(ran.err.empty(), row.err == nullptr) << ran.err;
        EXPECT_EQ(ran.out, row.out ? row.out : "");
    }
}

// Every command survives a reply of the right frame whose other bytes, or whose length, are anything.
TEST(CtlReply, AnyBytesEndInAnExitStatus)
{
    const char *lines[] = {"show interfaces",
                           "show interface 16909060",
                           "show vlans",
                           "show servers",
                           "show bindings --json",
                           "show global",
                           "show config",
                           "show statistics",
                           "interface 16909060 version both",
                           "debug trace on",
                           "binding add 10.0.0.5 unbound"};
    uint32_t state = 1;
    auto random = [&] { return (state = state * 1664525 + 1013904223) >> 8; };
    for (int round = 0; round < 4000; round++) {
        const char *line = lines[static_cast<size_t>(round) % std::size(lines)];
        size_t asked = 0;
        Ran ran = run(split(line), [&](Bytes answer) {
            asked++;
            for (size_t i = 26; i < answer.size(); i++)
                if (random() % 4 == 0)
                    answer[i] = static_cast<uint8_t>(random());
            if (random() % 20 == 0)
                answer[15] = 1; // refused
            if (random() % 4 == 0)
                answer[12] = answer[13] = answer[14] = answer[15] = 0xFF; // end of a list
            if (random() % 20 == 0)
                answer.resize(random() % 60);
            return answer;
        });
        EXPECT_TRUE(ran.status >= EXIT_DONE && ran.status <= EXIT_NO_DAEMON);
        EXPECT_EQ(ran.status == EXIT_DONE, ran.err.empty() || ran.err.find("note:") != std::string::npos)
            << ran.err;
        EXPECT_LT(asked, 2000u);
    }
}

// A daemon made of answers by function and command; what is not among them is the end of
// a list, or no such entry.
struct Answers {
    std::map<std::pair<uint8_t, uint8_t>, std::deque<std::string>> items; // the data item; the last one stays

    Bytes operator()(Bytes reply)
    {
        const size_t data[] = {33, 33, 40, 55}; // where the data item is, by number of index items
        auto found = items.find({reply[7], reply[23]});
        if (found == items.end()) {
            const std::set<uint8_t> lists = {3, 4, 8, 9, 13, 14, 17, 18};
            Bytes code = unhex(lists.count(reply[7]) ? "ffffffff" : "03e80002");
            std::copy(code.begin(), code.end(), reply.begin() + 12);
            return reply;
        }
        Bytes item = unhex(found->second.front());
        if (found->second.size() > 1)
            found->second.pop_front();
        std::copy(item.begin(), item.end(), reply.begin() + static_cast<ptrdiff_t>(data[reply[25]]));
        return reply;
    }
};

Answers oneBinding()
{
    return {{
        {{8, 0}, {"03000001 01 03000003 000000 03000010 0a000005000000000000000000000000"}},
        {{12, 1}, {"03020004 0000000a"}},
        {{12, 2}, {"03020004 01020304"}},
        {{12, 4}, {"03020004 00000000"}},
        {{12, 5}, {"03000006 020000 0000ab"}},
        {{12, 6}, {"03020004 00000e10"}},
        {{12, 7}, {"03020004 0000000a"}},
        {{12, 8}, {"03020004 00000001"}},
        {{12, 9}, {"03020004 00000001"}},
    }};
}

TEST(CtlShow, Bindings)
{
    const char *table = "ADDRESS   MAC                VLAN  INTERFACE  TYPE     STATE  LEASE  LEFT\n"
                        "10.0.0.5  02:00:00:00:00:ab  10    16909060   dynamic  bound  3600   3590\n";
    const char *heading = "ADDRESS  MAC  VLAN  INTERFACE  TYPE  STATE  LEASE  LEFT\n";
    const std::pair<const char *, const char *> rows[] = {
        {"show bindings", table},
        {"show bindings vlan 10 interface 16909060 mac 02:00:00:00:00:ab", table},
        {"show bindings address 10.0.0.5 type dynamic state bound", table},
        {"show bindings vlan 11", heading},
        {"show bindings vlan 10 state requested", heading},
    };
    for (auto [line, out] : rows)
        EXPECT_EQ(run(split(line), oneBinding()).out, out) << line;

    auto json = nlohmann::json::parse(run(split("show bindings --json"), oneBinding()).out);
    EXPECT_EQ(json, nlohmann::json::parse(R"([{"address": "10.0.0.5", "mac": "02:00:00:00:00:ab", "vlan": 10,
        "interface": "16909060", "index": 16909060, "type": "dynamic", "state": "bound", "lease": 3600, "left": 3590,
        "elapsed": 10, "attribute": 0}])"));
}

TEST(CtlShow, BindingWithoutEndOrPlace)
{
    Answers answers = oneBinding();
    answers.items[{12, 1}] = answers.items[{12, 2}] = {"03020004 00000000"};
    answers.items[{12, 5}] = {"03000006 000000000000"};
    answers.items[{12, 6}] = {"03020004 ffffffff"};
    answers.items[{12, 8}] = {"03020004 00000002"};
    answers.items[{12, 9}] = {"03020004 00000003"};
    EXPECT_EQ(run({"show", "bindings"}, answers).out,
              "ADDRESS   MAC  VLAN  INTERFACE  TYPE    STATE    LEASE    LEFT\n"
              "10.0.0.5  -    -     -          static  created  forever  forever\n");
    auto json = nlohmann::json::parse(run(split("show bindings --json"), answers).out);
    EXPECT_TRUE(json[0]["lease"].is_null() && json[0]["mac"].is_null() && json[0]["interface"].is_null());
    // Global settings as they were asked: all 0.
    Ran config =
        run(split("show config"), [&](Bytes asked) { return asked[7] == 2 ? asked : answers(asked); });
    EXPECT_NE(config.out.find("dhcpsnoopctl binding add 10.0.0.5 unbound\n"), std::string::npos)
        << config.out;
}

// Interface 1 is the loopback in every network namespace.
TEST(CtlShow, InterfaceAndItsConfiguration)
{
    char loopback[IF_NAMESIZE];
    if (!if_indextoname(1, loopback))
        GTEST_SKIP() << "interface 1 has no name here";
    Answers answers = {{
        {{2, 1}, {"03020004 00000001"}},   {{2, 2}, {"03020004 00007ed9"}},
        {{2, 3}, {"03020004 00000000"}},   {{2, 4}, {"03020004 00000000"}},
        {{2, 16}, {"03020004 00000001"}},  {{2, 20}, {"03020004 00000002"}},
        {{3, 0}, {"03020004 00000001"}},   {{17, 0}, {"03020004 00000001 03020004 c0000201"}},
        {{21, 1}, {"03020004 00000000"}},  {{7, 1}, {"03020004 00000001"}},
        {{7, 2}, {"03020004 00000003"}},   {{7, 3}, {"03020004 00000001"}},
        {{7, 4}, {"03020004 00000001"}},   {{7, 5}, {"03000003 254e3a"}},
        {{7, 6}, {"03000004 0102 00ff"}},  {{7, 7}, {"03000003 612762"}},
        {{7, 8}, {"03020004 00000002"}},   {{7, 9}, {"03020004 00000001"}},
        {{7, 10}, {"03020004 00000007"}},  {{7, 11}, {"03020004 00000000"}},
        {{7, 12}, {"03000000"}},           {{7, 13}, {"03020004 00000001"}},
        {{7, 14}, {"03000004 0902 6162"}}, {{7, 16}, {"03020004 00000000"}},
        {{7, 17}, {"03020004 00000001"}},  {{7, 18}, {"03020004 00008000"}},
        {{7, 19}, {"03020004 00000002"}},  {{7, 20}, {"03020004 00000000"}},
        {{7, 21}, {"03020004 00000064"}},  {{7, 22}, {"03020004 00000004"}},
        {{7, 23}, {"03020004 00000005"}},  {{7, 24}, {"03020004 00000003"}},
        {{7, 30}, {"03020004 00000005"}},  {{7, 31}, {"03020004 00000004"}},
        {{7, 32}, {"03020004 00000000"}},  {{7, 33}, {"03020004 00000003"}},
        {{7, 34}, {"03020004 0a000001"}},
    }};
    const Exchange peer = answers;
    std::string name = loopback;
    EXPECT_EQ(run({"show", "interface", name}, peer).out, "interface           " + name +
                                                              "\n"
                                                              "index               1\n"
                                                              "snooping            on\n"
                                                              "version             both\n"
                                                              "trust               on\n"
                                                              "option82            on\n"
                                                              "option82-policy     keep\n"
                                                              "option82-mode       7\n"
                                                              "circuit-id          template %N:\n"
                                                              "remote-id           raw hex 00ff\n"
                                                              "subopt9             on\n"
                                                              "subopt9-text        text 'a'\\''b'\n"
                                                              "option18            off\n"
                                                              "interface-id        global generated\n"
                                                              "option37            on\n"
                                                              "remote-id6          typed type 9 text ab\n"
                                                              "source-mac-check    off\n"
                                                              "binding-check       on\n"
                                                              "max-users           32768\n"
                                                              "relay-address       10.0.0.1\n"
                                                              "relay-servers       192.0.2.1\n"
                                                              "flag14              off\n"
                                                              "setting21           100\n"
                                                              "users               2\n"
                                                              "dropped-untrusted   3\n"
                                                              "dropped-source-mac  4\n"
                                                              "dropped-binding     5\n");
    EXPECT_EQ(run({"show", "interfaces"}, peer).out,
              "INTERFACE  INDEX  VERSION  TRUST  OPTION82  USERS  MAX-USERS  RELAY     DROPPED\n" + name +
                  std::string(11 - name.size(), ' ') +
                  "1      both     on     on        2      32768      10.0.0.1  12\n");
    EXPECT_EQ(run({"show", "servers"}, peer).out,
              "INTERFACE  SERVER\n" + name + std::string(11 - name.size(), ' ') + "192.0.2.1\n");
    EXPECT_EQ(run({"show", "statistics"}, peer).out,
              "INTERFACE  USERS  MAX-USERS  UNTRUSTED  SOURCE-MAC  BINDING\n" + name +
                  std::string(11 - name.size(), ' ') + "2      32768      3          4           5\n");
    EXPECT_EQ(run({"show", "global"}, peer).out, "snooping           on\n"
                                                 "enterprise-number  32473\n"
                                                 "hardware-notify    off\n"
                                                 "server-learning    on\n"
                                                 "bindings           0\n"
                                                 "debug trace        off\n"
                                                 "debug dump         on\n");
    // What is as it always is is left out, and so are the details of an option that is off.
    std::string prefix = "dhcpsnoopctl interface " + name + " ";
    EXPECT_EQ(run({"show", "config"}, peer).out,
              "dhcpsnoopctl snooping on\n"
              "dhcpsnoopctl enterprise-number 32473\n"
              "dhcpsnoopctl hardware-notify off\n"
              "dhcpsnoopctl server-learning on\n" +
                  prefix + "snooping on\n" + prefix + "version both\n" + prefix + "trust on\n" + prefix +
                  "option82 on\n" + prefix + "option82-mode 7\n" + prefix + "circuit-id template %N:\n" +
                  prefix + "remote-id raw hex 00ff\n" + prefix + "subopt9 on\n" + prefix +
                  "subopt9-text text 'a'\\''b'\n" + prefix + "option37 on\n" + prefix +
                  "remote-id6 typed type 9 text ab\n" + prefix + "binding-check on\n" + prefix +
                  "relay-address 10.0.0.1\n" + prefix + "relay-server 192.0.2.1 add\n");
    auto json = nlohmann::json::parse(run({"show", "interface", name, "--json"}, peer).out);
    EXPECT_EQ(json["circuit-id"],
              nlohmann::json::parse(R"({"format": "template", "text": "%N:", "hex": "254e3a"})"));
    EXPECT_EQ(json["remote-id"], nlohmann::json::parse(R"({"format": "raw", "type": 1, "hex": "00ff"})"));
    EXPECT_EQ(json["trust"], true);
    EXPECT_EQ(json["relay-servers"], nlohmann::json::parse(R"(["192.0.2.1"])"));
    EXPECT_EQ(json["version"], "both");
    EXPECT_EQ(json["dropped-source-mac"], 4);
}

TEST(CtlShow, TypedTextsAreNotBelieved)
{
    const std::pair<const char *, const char *> rows[] = {{"03000000", "no type and length"},
                                                          {"03000001 01", "no length"},
                                                          {"03000003 010278", "a length past the text"}};
    for (auto [item, claim] : rows) {
        Answers answers = {{{{7, 30}, {"03020004 00000003"}}, {{7, 5}, {item}}}};
        Daemon daemon(answers);
        EXPECT_THROW(getValue(daemon, interfaceTarget(16909060), *findSetting(INTERFACE_SCOPE, "circuit-id")),
                     NoDaemon)
            << claim;
    }
}

// Values go to words and come back, whatever their bytes are.
TEST(CtlSetting, WordsReadBack)
{
    const Setting &circuit = *findSetting(INTERFACE_SCOPE, "circuit-id"),
                  &text = *findSetting(INTERFACE_SCOPE, "subopt9-text");
    const OptionText values[] = {
        {FORMAT_TYPED, TYPE_TEXT, unhex("61")},
        {FORMAT_TYPED, TYPE_GENERATED, {}},
        {FORMAT_TYPED, TYPE_TEXT, {}},
        {FORMAT_TYPED, TYPE_GENERATED, unhex("61")},
        {FORMAT_RAW, 200, unhex("00ff0a")},
        {FORMAT_TEMPLATE, 0, {}},
        {FORMAT_TEMPLATE, 0, unhex("25 73 78")},
        {FORMAT_TEMPLATE, 0, unhex("25 73 2e 00 ff")},
        {FORMAT_TEMPLATE, 0, unhex("67656e657261746564")},
        {FORMAT_TEMPLATE, 0, unhex("686578")},
        {FORMAT_GLOBAL, 0, {}},
        {FORMAT_GLOBAL, 0, unhex("25")},
        {6, 0, unhex("2067656e")},
        {1, 0, Bytes(128, 0x27)},
    };
    for (const OptionText &value : values) {
        Words words = valueWords(circuit, value);
        EXPECT_EQ(std::get<OptionText>(parseValue(circuit, words)), value) << joinQuoted(words);
        words = valueWords(text, value.text);
        EXPECT_EQ(std::get<Bytes>(parseValue(text, words)), value.text) << joinQuoted(words);
    }
}

TEST(CtlSetting, WordsForAShell)
{
    EXPECT_EQ(joinQuoted({"%s.%c", "a b", "it's", "", "$(id)", "a\\b", "*"}),
              "%s.%c 'a b' 'it'\\''s' '' '$(id)' 'a\\b' '*'");
}

TEST(CtlBinding, RefusedHalfwayLeavesNothingBehind)
{
    Ran ran =
        run(split("binding add 10.0.0.5 mac 02:00:00:00:00:01 vlan 10 interface 16909060"), [](Bytes asked) {
            if (asked[23] == 2)
                asked[12] = 0x03, asked[13] = 0xE8, asked[15] = 0x04;
            return asked;
        });
    EXPECT_EQ(ran.status, EXIT_REFUSED);
    EXPECT_NE(ran.err.find("NM_HW_REFUSED"), std::string::npos);
    EXPECT_EQ(ran.requests.back(),
              body("0a", "09",
                   "0103 00000101 000003000000 0000100a000005000000000000000000000000 03020004 00000006"));

    ran = run(split("binding add 10.0.0.5 unbound"), [](Bytes asked) {
        asked[12] = 0x03, asked[13] = 0xE8, asked[15] = 0x03;
        return asked;
    });
    EXPECT_NE(ran.err.find("NM_EXISTS"), std::string::npos);
    EXPECT_EQ(ran.requests.size(), 1u) << "an entry that was there before is not removed";
}

TEST(CtlServers, ListIsReadAgainWhenItChangedUnderneath)
{
    // The first walk ends after one server, which is then gone; the second finds another.
    const std::vector<std::string> walk = {
        body("11", "00", "0102 020004 00000000 020004 00000000 03020004 00000007 03020004 0a000001"),
        body("12", "00", "0102 020004 00000007 020004 0a000001 0300000c 000000000000000000000000",
             "ffffffff"),
        body("15", "01", "0102 020004 00000007 020004 0a000001 03020004 00000000", "03e80002"),
        body("11", "00", "0102 020004 00000000 020004 00000000 03020004 00000007 03020004 0a000002"),
        body("12", "00", "0102 020004 00000007 020004 0a000002 0300000c 000000000000000000000000",
             "ffffffff"),
        body("15", "01", "0102 020004 00000007 020004 0a000002 03020004 00000000"),
    };
    Ran ran = run(split("show servers --json"), replies(walk));
    EXPECT_EQ(ran.requests.size(), 6u);
    EXPECT_EQ(nlohmann::json::parse(ran.out)[0]["server"], "10.0.0.2");
}

TEST(CtlComplete, WordsThatMayFollow)
{
    const std::pair<const char *, const char *> rows[] = {
        {"",
         "show interface vlan snooping server-learning hardware-notify enterprise-number binding clear debug "
         "platform complete help"},
        {"show", "interfaces interface vlans servers bindings statistics global config"},
        {"show vlans", "--json"},
        {"show bindings vlan 10", "interface mac address type state --json"},
        {"show bindings type", "dynamic static --json"},
        {"interface lo trust", "on off"},
        {"interface lo option82-policy", "keep drop append"},
        {"interface lo relay-server 10.0.0.1", "add delete"},
        {"interface lo nonsense", ""},
        {"vlan 10", "snooping max-users"},
        {"debug", "trace dump"},
        {"debug trace", "on off"},
        {"binding", "add bind unbind delete"},
        {"binding add 10.0.0.5 mac 02:00:00:00:00:01", "vlan interface attribute unbound"},
        {"nonsense", ""},
    };
    for (auto [line, words] : rows)
        EXPECT_EQ(completions(split(line)), split(words)) << line;
}

std::string withoutFonts(std::string line)
{
    for (size_t at; (at = line.find("\\f")) != std::string::npos;)
        line.erase(at, 3); // \fB, \fI, \fP
    return line;
}

// The manual says what the tables say.
TEST(CtlManual, ListsEveryCommandSettingAndConversion)
{
    std::ifstream file(DHCPSNOOP_SOURCE_DIR "/ctl/dhcpsnoopctl.8");
    ASSERT_TRUE(file);
    std::set<std::string> tags; // the lines that .TP makes tags of, without their fonts
    for (std::string line, last; std::getline(file, line); last = line)
        if (last == ".TP")
            tags.insert(withoutFonts(line) + ' ');
    auto has = [&](const std::string &name) {
        auto found = tags.lower_bound(name + ' ');
        return found != tags.end() && found->starts_with(name + ' ');
    };
    for (const Command &command : commands())
        EXPECT_TRUE(has(command.words)) << command.words;
    for (const Scope *scope : {&INTERFACE_SCOPE, &VLAN_SCOPE})
        for (const Setting &setting : scope->settings)
            EXPECT_TRUE(has(setting.name)) << setting.name;
    for (const Conversion &row : CONVERSIONS)
        EXPECT_TRUE(has(std::string("%") + row.letter)) << row.letter;
}

// A listening socket of the test's own whose one connection `serve` gets.
class Listener
{
  public:
    explicit Listener(std::function<void(int)> serve)
    {
        char pattern[] = "/tmp/ctl_test.XXXXXX";
        directory_ = mkdtemp(pattern);
        path = directory_ + "/socket";
        listening_ = listenAt(path);
        thread_ = std::thread([this, serve = std::move(serve)] {
            int connection = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection >= 0) {
                serve(connection);
                close(connection);
            }
        });
    }
    ~Listener()
    {
        shutdown(listening_, SHUT_RDWR);
        thread_.join();
        close(listening_);
        unlink(path.c_str());
        rmdir(directory_.c_str());
    }
    static int listenAt(const std::string &path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 || listen(sock, 1) != 0)
            std::abort();
        return sock;
    }
    std::string path;

  private:
    std::string directory_;
    int listening_;
    std::thread thread_;
};

// What the client sends, taken as the daemon takes it: the length, then the body in one receive.
Bytes takeRequest(int connection)
{
    uint32_t length = 0;
    EXPECT_EQ(recv(connection, &length, sizeof(length), 0), 4);
    Bytes request(length);
    EXPECT_EQ(recv(connection, request.data(), length, 0), static_cast<ssize_t>(length));
    return request;
}

void sendFramed(int connection, uint32_t length, const Bytes &bytes)
{
    Bytes framed(sizeof(length) + bytes.size());
    std::memcpy(framed.data(), &length, sizeof(length));
    std::copy(bytes.begin(), bytes.end(), framed.begin() + sizeof(length));
    EXPECT_EQ(send(connection, framed.data(), framed.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(framed.size()));
}

// Answers that never stand still and never end.
void sendSlowly(int connection)
{
    takeRequest(connection);
    sendFramed(connection, 1000, {});
    while (send(connection, "", 1, MSG_NOSIGNAL) == 1)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

std::string exchangeError(const std::string &path)
{
    try {
        socketExchange(path, std::chrono::milliseconds(200))(unhex(ifGet("03")));
    } catch (const NoDaemon &error) {
        return error.what();
    }
    return "none";
}

TEST(CtlSocket, OneRequestAndItsReply)
{
    Bytes request, reply = unhex("0102030405");
    {
        Listener listener([&](int connection) {
            request = takeRequest(connection);
            // In pieces: a stream keeps no boundaries.
            uint32_t length = 5;
            for (size_t i = 0; i < sizeof(length); i++)
                send(connection, reinterpret_cast<uint8_t *>(&length) + i, 1, MSG_NOSIGNAL);
            for (uint8_t byte : reply)
                send(connection, &byte, 1, MSG_NOSIGNAL);
        });
        EXPECT_EQ(socketExchange(listener.path)(unhex("0a0b0c")), reply);
    }
    EXPECT_EQ(hexOf(request), "0a0b0c");
}

TEST(CtlSocket, BadPeers)
{
    struct {
        const char *claim;
        std::function<void(int)> serve;
        const char *error;
    } rows[] = {
        {"does not answer",
         [](int c) {
             takeRequest(c);
             char byte;
             recv(c, &byte, 1, 0);
         },
         "did not answer in time"},
        {"answers too slowly", sendSlowly, "did not answer in time"},
        {"closes without an answer", [](int c) { takeRequest(c); },
         "closed the connection without a whole answer"},
        {"gives a length past any reply",
         [](int c) {
             takeRequest(c);
             sendFramed(c, 1521, {});
         },
         "a length of 1521 bytes"},
        {"gives the greatest length",
         [](int c) {
             takeRequest(c);
             sendFramed(c, UINT32_MAX, {});
         },
         "a length of 4294967295 bytes"},
        {"gives less than it says",
         [](int c) {
             takeRequest(c);
             sendFramed(c, 40, Bytes(39));
         },
         "without a whole answer"},
    };
    for (auto &row : rows) {
        SCOPED_TRACE(row.claim);
        Listener listener(row.serve);
        std::string error = exchangeError(listener.path);
        EXPECT_NE(error.find(row.error), std::string::npos) << error;
    }
}

TEST(CtlSocket, NobodyListens)
{
    EXPECT_EQ(exchangeError("/tmp/ctl_test.nobody/socket"),
              "no daemon is listening on /tmp/ctl_test.nobody/socket");
    std::string path;
    {
        // A socket file that outlived its daemon.
        Listener listener([](int) {});
        path = listener.path + ".stale";
        close(Listener::listenAt(path));
        EXPECT_EQ(exchangeError(path), "no daemon is listening on " + path);
        unlink(path.c_str());
    }
    EXPECT_THROW(socketExchange(std::string(200, 'x'))(Bytes(30)), UsageError);
}

// Runs `what` as the user nobody and gives what it wrote.
std::string asNobody(const std::function<std::string()> &what)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_t child = fork();
    if (child == 0) {
        std::string text = setgid(65534) == 0 && setuid(65534) == 0 ? what() : "cannot become nobody";
        _exit(write(ends[1], text.data(), text.size()) < 0);
    }
    close(ends[1]);
    std::string text;
    char buffer[512];
    for (ssize_t got; (got = read(ends[0], buffer, sizeof(buffer))) > 0;)
        text.append(buffer, static_cast<size_t>(got));
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return text;
}

TEST(CtlSocket, OthersThanRoot)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, to become another user";
    {
        Listener listener([](int) {});
        chmod(listener.path.substr(0, listener.path.rfind('/')).c_str(), 0755);
        chmod(listener.path.c_str(), 0600);
        std::string error = asNobody([&] { return exchangeError(listener.path); });
        EXPECT_NE(error.find("the daemon serves root only"), std::string::npos) << error;
    }
    // Somebody else has taken the daemon's place, as anybody can in /tmp.
    int ends[2], ready[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(pipe(ready), 0);
    std::string path = "/tmp/ctl_test.impostor." + std::to_string(getpid());
    pid_t impostor = fork();
    if (impostor == 0) {
        close(ends[1]);
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(1);
        Listener::listenAt(path);
        char byte = 1;
        _exit(write(ready[1], &byte, 1) == 1 && read(ends[0], &byte, 1) == 0 ? 0 : 1);
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_EQ(exchangeError(path), path + " is served by user 65534, not by root: not trusted");
    close(ends[1]);
    waitpid(impostor, nullptr, 0);
    close(ends[0]);
    close(ready[0]);
    unlink(path.c_str());
}

TEST(CtlSocket, PathFromTheEnvironment)
{
    unsetenv("DHCPSNOOP_SOCKET");
    EXPECT_EQ(daemonSocketPath(), "/tmp/dhcpsnoop.socket");
    setenv("DHCPSNOOP_SOCKET", "/run/other", 1);
    EXPECT_EQ(daemonSocketPath(), "/run/other");
    unsetenv("DHCPSNOOP_SOCKET");
}

} // namespace
