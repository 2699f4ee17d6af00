// The client: the bytes of its requests, what it makes of replies of any kind, what it prints; then against the daemon itself, its
// command server's core called in place of the socket. Expected bytes are laid out by hand from the layout in adr.h: three words of
// marker 0, type 2, length 4, value; index header 1 and count; index items of type, length, value; data header 3, type, length, value.
#include <gtest/gtest.h>

#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <unistd.h>

#include "command.h"
#include "dhcpsnoop_cmd.h"
#include "world.h"

namespace
{

// Indexes that have no name in any network namespace: a port and the VLAN interface of VLAN 10.
constexpr uint32_t PORT_A = 500000001, VLAN_IF = 500000003;
const std::string A = "interface 500000001 ";

struct Ran {
    ExitStatus status;
    std::string out, err;
    std::vector<Bytes> requests; // bodies
};

Bytes inDaemon(const Bytes &body)
{
    Bytes buffer = body;
    buffer.resize(dhcpsnoop_cmd_process(buffer.data(), static_cast<uint32_t>(body.size())));
    return buffer;
}

Ran run(const std::string &line, const Exchange &exchange = inDaemon)
{
    std::istringstream stream(line);
    const Words words{std::istream_iterator<std::string>(stream), {}};
    Ran ran;
    std::ostringstream out, err;
    const Daemon daemon([&](const Bytes &body) { return ran.requests.push_back(body), exchange(body); });
    ran.status = runClient(words, daemon, out, err);
    ran.out = out.str();
    ran.err = err.str();
    return ran;
}

void start()
{
    world.reset();
    world.access(PORT_A, 10);
    world.vlan_interface(VLAN_IF, 10);
    world.vlan_interface(VLAN_IF + 1, 5);
    world.access(VLAN_IF + 2, 10);
    world.refuse("qorIfSetApi 500000005 305", 19);
}

void must(const std::string &lines, const std::string &before = "")
{
    for (const std::string &line : parts(lines, ';')) {
        const Ran ran = run(before + line);
        EXPECT_EQ(ran.status, EXIT_DONE) << line << ": " << ran.err;
    }
}

// Only strung together: every byte but those of the three words' frame stands at the row.
std::string body(const std::string &func, const std::string &cmd, const std::string &rest, const std::string &result = "00000000")
{
    return hex(hex_bytes("00020004 000000" + func + "00020004" + result + "00020004 000000" + cmd + rest));
}

constexpr char IF[] = "0101 020004 01020304 "; // index 16909060
constexpr char NONE[] = "0100 020004 00000000 ";

std::string ifSet(const std::string &cmd, const std::string &data) { return body("05", cmd, IF + data); }
std::string ifGet(const std::string &cmd) { return body("07", cmd, IF + std::string("03020004 00000000")); }
std::string word(const std::string &last) { return "03020004 " + std::string(8 - last.size(), '0') + last; }
// Replies to the list of VLANs: the first, the one behind 1, and its limit.
std::string vlanFirst(const std::string &data) { return body("0d", "00", "0101 020004 00000000" + data); }
std::string vlanNext(const std::string &data, const std::string &result = "00000000") { return body("0e", "00", "0101 020004 00000001" + data, result); }
std::string vlanUsers(const std::string &data, const std::string &result = "00000000") { return body("10", "01", "0101 020004 00000001" + data, result); }

const std::string ON = "03020004 00000001", OFF = "03020004 00000000";
constexpr char KEY[] = "0103 00000101 000003000000 0000100a000005000000000000000000000000 "; // 10.0.0.5
constexpr char SERVER[] = "0102 020004 01020304 020004 c0000201 ";                           // 192.0.2.1
const std::string ANY_KEY = "0103 00000100 000003000000 00001000000000000000000000000000000000 ";
const std::string IPV4_ZERO = "03000001 01 03000003 000000 03000010 00000000000000000000000000000000";

const std::tuple<const char *, const char *, std::vector<std::string>> REQUESTS[] = {
    {"every byte of one request", "interface 16909060 trust on", {hex(hex_bytes("0002000400000005000200040000000000020004000000030101020004010203040302000400000001"))}},
    {"a switch; a word of several; a mode by its name; an empty text of type 0; a format by its number", "interface 16909060 option37 off;interface 16909060 option82-policy append;interface 16909060 option82-mode raw;interface 16909060 remote-id generated;interface 16909060 interface-id format 1 text ab", {ifSet("0d", OFF), ifSet("08", word("3")), ifSet("0a", word("4")), ifSet("1f", word("3")), ifSet("06", "03000002 0000"), ifSet("20", ON), ifSet("0c", "03000002 6162")}},
    {"the bare text behind format 5; type 1, length and text behind format 3; a raw text travels typed all the same; the switch's own format", "interface 16909060 circuit-id template %s.%c.%d:%N;interface 16909060 circuit-id text ab;interface 16909060 circuit-id raw text ab;interface 16909060 circuit-id global", {ifSet("1e", word("5")), ifSet("05", "0300000b 25732e25632e25643a254e"), ifSet("1e", word("3")), ifSet("05", "03000004 01026162"), ifSet("1e", word("4")), ifSet("05", "03000004 01026162"), ifSet("1e", OFF), ifSet("05", "03000000")}},
    {"a type and bytes; option 37's; a text that is a keyword", "interface 16909060 remote-id raw type 7 hex 00ff;interface 16909060 remote-id6 text ab;interface 16909060 subopt9-text text hex", {ifSet("1f", word("4")), ifSet("06", "03000004 070200ff"), ifSet("21", word("3")), ifSet("0e", "03000004 01026162"), ifSet("07", "03000003 686578")}},
    {"a number; first octet most significant; a version is set after a look at trust; a relay server is added with action 4", "interface 16909060 max-users 50;interface 16909060 relay-address 10.0.0.1;interface 16909060 version both;interface 16909060 relay-server 192.0.2.1 add", {ifSet("12", word("32")), ifSet("22", word("a000001")), ifGet("03"), ifSet("02", word("3")), body("13", "01", SERVER + word("4"))}},
    {"and deleted with 6, verb first, by the shorter name; VLAN; global requests count no index item and carry one; a number of 32 bits", "interface 16909060 server delete 192.0.2.1;vlan 10 snooping on;snooping off;enterprise-number 4294967295", {body("13", "01", SERVER + word("6")), body("0f", "03", "0101 020004 0000000a" + ON), body("00", "01", NONE + OFF), body("00", "02", NONE + word("ffffffff"))}},
    {"a debug flag is read before it is set; a binding is created, filled in, bound", "debug dump on;binding add 10.0.0.5 mac 02:00:00:00:00:AB vlan 10 interface 16909060 attribute 9", {body("02", "14", NONE + OFF), body("00", "14", NONE + word("2")), body("0a", "09", KEY + word("4")), body("0a", "05", KEY + std::string("03000006 0200000000ab")), body("0a", "01", KEY + word("a")), body("0a", "02", KEY + word("1020304")), body("0a", "04", KEY + word("9")), body("0a", "09", KEY + ON)}},
    {"several settings in a line, a text among them; short words; a MAC address by groups of four", "interface 16909060 trust on circuit-id text ab max-users 50;bin a 10.0.0.5 mac 0200.0000.00aB unbound", {ifSet("03", ON), ifSet("1e", word("3")), ifSet("05", "03000004 01026162"), ifSet("12", word("32")), body("0a", "09", KEY + word("4")), body("0a", "05", KEY + std::string("03000006 0200000000ab"))}},
    {"an IPv6 binding is bound; unbound; deleted", "binding bind 2001:db8::1;binding unbind 10.0.0.5;binding delete 10.0.0.5", {body("0a", "09", "0103 00000102 000003000000 00001020010db8000000000000000000000001" + ON), body("0a", "09", KEY + word("2")), body("0a", "09", KEY + word("6"))}},
};

#define EMPTY "no bindings\n"
#define TABLE "ADDRESS   MAC                VLAN  INTERFACE  TYPE    STATE  LEASE    LEFT\n"
#define ROW "10.0.0.5  02:00:00:00:00:ab  10    500000001  static  bound  forever  forever\n"
const struct {
    const char *claim;
    std::string before, lines; // separated by ';'
    std::vector<std::string> replies;
    ExitStatus status;
    std::string said;
    std::string after = "", out = ""; // a line that shows it; all that is printed
} ROWS[] = {
    {"no such command, interface or setting", "", "shwo interfaces;interface no-such-port trust on;interface 0 trust on;interface 7 trsut on", {}, EXIT_USAGE, "unknown command 'shwo interfaces';there is no interface 'no-such-port' here;there is no interface '0';no setting 'trsut' of an interface"},
    {"a word that begins two; a slip; a command's first word; a wrong setting behind a right one", "", "sh int;shwo interfaces;show;interface 7 trust on max-users 65536;interface 7 trust on max-user 5", {}, EXIT_USAGE, "'int' can be one of: interfaces interface;did you mean 'show'?;must be followed by one of: ports;from 0 to 65535;did you mean 'max-users'?"},
    {"a value out of its range", "", "interface 7 trust yes;interface 7 option82-mode 16;interface 7 max-users 65536;enterprise-number 4294967296;interface 7 relay-address 10.0.0.256", {}, EXIT_USAGE, "trust takes: on|off;a number from 0 to 15;a number from 0 to 65535, not '65536';not '4294967296';'10.0.0.256' is not an IPv4 address"},
    {"a text too long", "", "interface 7 circuit-id text " + std::string(129, 'x'), {}, EXIT_USAGE, "129 bytes are too long"},
    {"a text or a list of options that is wrong", "", "interface 7 circuit-id hex abc;interface 7 circuit-id template 100%;interface 7 circuit-id template %s-%c;vlan 4095 snooping on;binding add 10.0.0.5 mac 02:00:00:00:00:01;show bindings vlan", {}, EXIT_USAGE, "not a row of hexadecimal bytes;a letter must follow;after '%s' must come one of;from 1 to 4094;mac, vlan and interface are needed;'vlan' lacks its value"},
    {"check items", "", "guard interface 7;guard vlan 10 ip off;guard vlan 10 exempt;arp-inspection vlan 4095 ip;guard interface 7 ip family 5;guard vlan 10 family 6;guard interface 7 off family 6;arp-inspection vlan 10 ip family 4", {}, EXIT_USAGE, "which check items?;'off' is no check item;not a VLAN;from 1 to 4094;which family?;which family?;a family goes with;'family' is no check item"},
    {"one byte short; one byte long; another function's; another command's; a word of type 3; no data header; bytes for a number; a number of 3 bytes; a value past the reply", "", "show vlans;show vlans;show vlans;show vlans;show vlans;show vlans;show vlans;show vlans;show vlans", {vlanFirst("03020004 000000"), vlanFirst("03020004 0000000a 00"), body("0e", "00", "0101 02000400000000 03020004 0000000a"), body("0d", "01", "0101 02000400000000 03020004 0000000a"), "00030004" + vlanFirst("03020004 0000000a").substr(8), vlanFirst("01020004 0000000a"), vlanFirst("03000004 0000000a"), vlanFirst("03020003 0000000a"), vlanFirst("03020005 0000000a")}, EXIT_NO_DAEMON, "does not belong to the request;does not belong to the request;does not belong;does not belong;does not belong;the value is not there;the value is not there;a number of 3 bytes;longer than the reply"},
    {"a list with one VLAN and its limit", "", "show vlans", {vlanFirst("03020004 00000001"), vlanNext(OFF, "ffffffff"), vlanUsers("03020004 00000007")}, EXIT_DONE, "", "", "VLAN  MAX-USERS\n1     7\n"},
    {"a VLAN gone before it is asked for is left out", "", "show vlans", {vlanFirst("03020004 00000001"), vlanNext(OFF, "ffffffff"), vlanUsers(OFF, "03e80002")}, EXIT_DONE, "", "", "no VLAN snoops\n"},
    {"a VLAN that is none", "", "show vlans", {vlanFirst("03020004 00000fff"), body("0e", "00", "0101 020004 00000fff" + OFF, "ffffffff")}, EXIT_NO_DAEMON, "malformed reply: 4095 is no VLAN"},
    {"an empty reply; a refusal that has a name; a text refused after its format was taken; an entry that was there before is not removed; the trap is not taken away from under a daemon; whatever it answers", "", "show vlans;vlan 10 max-users 5;interface 16909060 circuit-id text x;binding add 10.0.0.5 unbound;platform release;platform release", {"", body("0f", "01", "0101 020004 0000000a 03020004 00000005", "03e80004"), ifSet("1e", word("3")), body("05", "05", IF + std::string("03000003 010178"), "03e8000d"), body("0a", "09", KEY + word("4"), "03e80003"), body("02", "01", NONE + ON), body("02", "01", NONE + ON, "03e80010")}, EXIT_REFUSED, "could not decode the request;vlan 10 max-users: refused, the hardware layer refused the change;refused, the value is too short or too long, or has no room (its format is set, its text is not);refused, the entry exists already;a daemon is running;a daemon is running"},
    {"a list that stands still", "", "show vlans", {vlanFirst("03020004 00000001"), vlanNext("03020004 00000001")}, EXIT_NO_DAEMON, "does not go forward"},
    {"a list of bindings that stands still; a binding of neither family; a key whose pieces have other lengths; four relay servers of one interface", "", "show bindings;show bindings;show bindings;show servers", {body("08", "00", ANY_KEY + IPV4_ZERO), body("0c", "01", ANY_KEY + OFF, "03e80002"), body("09", "00", ANY_KEY + IPV4_ZERO), body("08", "00", ANY_KEY + "03000001 03" + IPV4_ZERO.substr(11)), body("08", "00", ANY_KEY + "03000001 01 03000004 00000000 0300000f 000000000000000000000000000000"), body("11", "00", "0102 020004 00000000 020004 00000000 03020004 00000007 03020004 0a000001"), body("12", "00", "0102 020004 00000000 020004 00000000 03020004 00000007 03020004 0a000002")}, EXIT_NO_DAEMON, "does not go forward;not the key of a binding;not the key of a binding;does not go forward"},
    {"an interface that is refused: nothing stays behind", "", "binding add 10.0.0.5 mac 02:00:00:00:00:ab vlan 10 interface 7", {body("0a", "09", KEY + word("4")), body("0a", "05", KEY + std::string("03000006 0200000000ab")), body("0a", "01", KEY + word("a")), body("0a", "02", KEY + word("7"), "03e80004"), body("0a", "09", KEY + word("6"))}, EXIT_REFUSED, "refused, the hardware"},
    {"one binding is looked up, 10 of its 3600 seconds are gone", "", "show bindings address 10.0.0.5 type dynamic state bound", {body("0c", "01", KEY + word("a")), body("0c", "02", KEY + word("1020304")), body("0c", "04", KEY + word("0")), body("0c", "06", KEY + word("e10")), body("0c", "07", KEY + word("a")), body("0c", "08", KEY + word("1")), body("0c", "09", KEY + word("1")), body("0c", "05", KEY + std::string("03000006 0200000000ab"))}, EXIT_DONE, "", "", "ADDRESS   MAC                VLAN  INTERFACE  TYPE     STATE  LEASE  LEFT\n10.0.0.5  02:00:00:00:00:ab  10    16909060   dynamic  bound  1h     59m50s\n"},
    {"trust without snooping", "", A + "trust on", {}, EXIT_REFUSED, "trust: refused, no such entry or interface (is snooping off there?"},
    {"a look at it, with the name of the result", "", "-v show " + A, {}, EXIT_REFUSED, "snooping on' comes first) [NM_NO_ENTRY (0x3E80002)]\n"},
    {"a version", "", A + "version both", {}, EXIT_REFUSED, "interface 500000001 version: refused, no such entry"},
    {"a circuit-id without option 82", A + "snooping on", A + "circuit-id text x", {}, EXIT_REFUSED, "option82 on' comes first)"},
    {"an interface-id without option 18", A + "snooping on", A + "interface-id text x", {}, EXIT_REFUSED, "option18 on' comes first)"},
    {"a fourth relay server", A + "snooping on;" + A + "server 10.0.0.1 add;" + A + "server 10.0.0.2 add;" + A + "server 10.0.0.3 add", A + "server 10.0.0.4 add", {}, EXIT_REFUSED, "(are all three in use?)"},
    {"a VLAN without an interface", "", "vlan 99 snooping on", {}, EXIT_REFUSED, "vlan 99 snooping: refused, nothing more, or the VLAN has no interface"},
    {"a binding that is there", "binding add 10.0.0.5 unbound", "binding add 10.0.0.5 unbound", {}, EXIT_REFUSED, "refused, the entry exists already"},
    {"a port that the platform refuses", "", "interface 500000005 snooping on", {}, EXIT_REFUSED, "refused, No such device (is it no port of the switch"},
    {"a version that takes no trust away", A + "snooping on;" + A + "trust on", A + "version both", {}, EXIT_DONE, "", "show vlans", "no VLAN snoops\n"},
    {"a version that takes trust away", A + "snooping on;" + A + "trust on", A + "version 4", {}, EXIT_DONE, "took trust away; 'interface 500000001 trust on'"},
    {"VLANs in order, whatever the order of the interfaces", "vlan 10 snooping on", "vlan 5 snooping on", {}, EXIT_DONE, "", "show vlans", "VLAN  MAX-USERS\n5     32768\n10    32768\n"},
    {"bindings by place, by state", "binding add 10.0.0.5 mac 02:00:00:00:00:ab vlan 10 " + A, "show bindings vlan 10 interface 500000001 mac 02:00:00:00:00:ab", {}, EXIT_DONE, "", "show bindings address 10.0.0.5 type static state bound", TABLE ROW TABLE ROW},
    {"letters that nobody replaces", A + "snooping on;" + A + "option82 on", A + "circuit-id template %s.%Q.%n", {}, EXIT_DONE, "%Q %n"},
    {"bindings of a prefix, of lists, ranges and patterns; counted", "binding add 10.0.0.5 mac 02:00:00:00:00:ab vlan 10 " + A, "show bindings 10.0.0.4/31 vlan 5,9-10 interface 5000* mac 02-00:*-AB st bou", {}, EXIT_DONE, "", "show bindings 10.0.0.4/31 port nobody,500000001 --count", TABLE ROW "1\n"},
    {"none of them by the last bit, VLAN, name or family", "binding add 10.0.0.5 mac 02:00:00:00:00:ab vlan 10 " + A, "show bindings 10.0.0.4/32;show bindings vlan 11-20,9;show bindings interface 5000?;show bindings ::/0", {}, EXIT_DONE, "", "", EMPTY},
    {"bindings of another VLAN; by an address too; an address that nobody has", "binding add 10.0.0.5 mac 02:00:00:00:00:ab vlan 10 " + A, "show bindings vlan 11;show bindings address 10.0.0.5 vlan 11;show bindings address 10.0.0.6", {}, EXIT_DONE, "", "", EMPTY},
};

TEST(Ctl, Requests)
{
    for (const auto &[claim, line, requests] : REQUESTS) {
        std::vector<std::string> asked;
        for (const std::string &each : parts(line, ';')) {
            const Ran ran = run(each, [](const Bytes &request) { return request; }); // result 0, and the value as it was asked
            for (const Bytes &request : ran.requests)
                asked.push_back(hex(request));
            EXPECT_EQ(std::to_string(ran.status) + ran.out + ran.err, "0") << each;
        }
        EXPECT_EQ(asked, requests) << claim;
    }
}

// What comes of each of the lines, with these replies in turn, the last again and again, or without any with the daemon; and a part of what is said. No peer is asked about a line that is wrong.
TEST(Ctl, Lines)
{
    for (const auto &row : ROWS) {
        size_t asked = 0;
        const Exchange peer = [&row, &asked](const Bytes &) { return hex_bytes(row.replies[std::min(asked++, row.replies.size() - 1)]); };
        start();
        must(row.before);
        std::istringstream errors(row.said);
        for (const std::string &line : parts(row.lines, ';')) {
            SCOPED_TRACE(row.claim + (": " + line));
            std::string error;
            std::getline(errors, error, ';');
            const Ran ran = run(line, row.replies.empty() ? inDaemon : peer);
            EXPECT_EQ(ran.status, row.status) << ran.err;
            EXPECT_NE(ran.err.find(error), std::string::npos) << ran.err;
            EXPECT_EQ(ran.err.empty(), error.empty()) << ran.err;
            EXPECT_EQ(ran.status == EXIT_NO_DAEMON, ran.err.find("malformed reply: ") != std::string::npos) << ran.err;
            EXPECT_EQ(ran.out + (row.after.empty() ? "" : run(row.after).out), row.out);
            EXPECT_LE(ran.requests.size(), row.status == EXIT_USAGE ? 0u : 19u);
        }
        EXPECT_GE(asked, row.replies.size()) << row.claim;
        EXPECT_EQ(world_check_tables(), "") << row.claim;
    }
}

// Every command survives a reply of the right frame whose other bytes, or whose length, are anything.
TEST(Ctl, AnyBytesEndInAnExitStatus)
{
    const char *lines[] = {"show interfaces", "show interface 16909060", "show vlans", "show servers", "show bindings --json", "show global", "show config", "show statistics", "interface 16909060 version both", "debug trace on", "binding add 10.0.0.5 unbound"};
    uint32_t state = 1;
    const auto one_in = [&](uint32_t n) { return ((state = state * 1664525 + 1013904223) >> 8) % n == 0; };
    for (size_t round = 0; round < 4000; round++) {
        const Ran ran = run(lines[round % std::size(lines)], [&](Bytes answer) {
            for (size_t i = 26; i < answer.size(); i++)
                answer[i] = one_in(4) ? static_cast<uint8_t>(state >> 16) : answer[i];
            answer[15] = one_in(20) ? 1 : answer[15]; // refused
            if (one_in(4))                            // the end of a list
                std::fill_n(answer.begin() + 12, 4, uint8_t{0xFF});
            answer.resize(one_in(20) ? state % 60 : answer.size());
            return answer;
        });
        EXPECT_TRUE(ran.status >= EXIT_DONE && ran.status <= EXIT_NO_DAEMON && ran.requests.size() < 5000);
        EXPECT_EQ(ran.status == EXIT_DONE, ran.err.empty() || ran.err.find("note:") != std::string::npos) << ran.err;
    }
}

TEST(Ctl, TypedTextsAreNotBelieved)
{
    for (const char *item : {"03000000", "03000001 01", "03000003 010278"}) { // nothing, no length, a length past the text
        Daemon daemon([item](const Bytes &asked) { return hex_bytes(asked[23] == 30 ? body("07", "1e", IF + word("3")) : body("07", "05", IF + std::string(item))); });
        EXPECT_THROW(getValue(daemon, interfaceTarget(16909060), *findSetting(INTERFACE_SCOPE, "circuit-id")), NoDaemon) << item;
    }
}

// Values go to words and come back, whatever their bytes are; a shell reads the words as they are.
TEST(Ctl, WordsReadBack)
{
    EXPECT_EQ(joinQuoted({"%s.%c", "a b", "it's", "", "$(id)", "a\\b", "*"}), "%s.%c 'a b' 'it'\\''s' '' '$(id)' 'a\\b' '*'");
    const Setting &circuit = *findSetting(INTERFACE_SCOPE, "circuit-id"), &text = *findSetting(INTERFACE_SCOPE, "subopt9-text");
    const OptionText values[] = {
        {DHCPSNOOP_FORMAT_TYPED, DHCPSNOOP_TYPE_TEXT, hex_bytes("61")}, {DHCPSNOOP_FORMAT_TYPED, DHCPSNOOP_TYPE_GENERATED, {}}, {DHCPSNOOP_FORMAT_TYPED, DHCPSNOOP_TYPE_TEXT, {}}, {DHCPSNOOP_FORMAT_RAW, 200, hex_bytes("00ff0a")}, {DHCPSNOOP_FORMAT_TEMPLATE, 0, hex_bytes("25 73 2e 00 ff")}, {DHCPSNOOP_FORMAT_TEMPLATE, 0, hex_bytes("67656e657261746564")}, {DHCPSNOOP_FORMAT_GLOBAL, 0, {}}, {6, 0, hex_bytes("2067656e")}, {1, 0, Bytes(128, 0x27)}};
    for (const OptionText &value : values) {
        Words words = valueWords(circuit, value);
        EXPECT_EQ(std::get<OptionText>(parseValue(circuit, words)), value) << joinQuoted(words);
        words = valueWords(text, value.text);
        EXPECT_EQ(std::get<Bytes>(parseValue(text, words)), value.text) << joinQuoted(words);
    }
}

TEST(Ctl, SettingsAreTakenAndShown)
{
    start(); // and every setting at a value that it does not have at first
    must("snooping on;trust on;option82 on;option82-policy drop;option82-mode 9;circuit-id template %s.%c.%d:%N", A);
    must("remote-id raw type 4 hex 00ff27;subopt9 on;subopt9-text it's;option18 on;interface-id format 1 text %s;option37 on", A);
    must("remote-id6 text switch-7;source-mac-check on;binding-check on;max-users 50;relay-address 10.0.0.1;flag14 on;setting21 65535", A);
    must("relay-server 192.0.2.1 add;relay-server 192.0.2.2 add;relay-server 192.0.2.3 add", A);
    must("server-learning on;enterprise-number 4711;hardware-notify on;snooping on;vlan 10 snooping on;vlan 10 max-users 7");
    must("binding add 2001:db8::1 mac 02:00:00:00:00:06 unbound");
    must("binding add 10.0.0.6 mac 02:00:00:00:00:07 unbound;binding bind 10.0.0.6"); // in force without VLAN and interface
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
        "dropped-untrusted": 0, "dropped-source-mac": 0, "dropped-binding": 0, "dhcp-rate": null, "dropped-rate": null})"));
}

} // namespace
