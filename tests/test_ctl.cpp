// The client without a daemon: the bytes of its requests, what it makes of replies of any kind, what it prints, and the socket
// between. Expected bytes are laid out by hand from the layout in adr.h: three words of marker 0, type 2, length 4, value; index
// header 1 and count; index items of type, length, value; data header 3, type, length, value.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "ctl_run.h"
#include "frame.h"

namespace
{

std::string hexOf(const Bytes &bytes)
{
    std::string text = hex(bytes);
    std::erase(text, ' ');
    return text;
}

// A peer that gives these replies in turn and after them the last again.
Exchange replies(const std::vector<std::string> &bodies)
{
    return [bodies, next = size_t{0}](const Bytes &) mutable { return hex_bytes(bodies.at(std::min(next++, bodies.size() - 1))); };
}

// Only strung together: every byte but those of the three words' frame stands at the row.
std::string body(const std::string &func, const std::string &cmd, const std::string &rest, const std::string &result = "00000000")
{
    return hexOf(hex_bytes("00020004 000000" + func + "00020004" + result + "00020004 000000" + cmd + rest));
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

// clang-format off
const std::tuple<const char *, const char *, std::vector<std::string>> REQUESTS[] = {
    {"every byte of one request", "interface 16909060 trust on", {"0002000400000005000200040000000000020004000000030101020004010203040302000400000001"}},
    {"a switch; a word of several; a mode by its name; an empty text of type 0; a format by its number", "interface 16909060 option37 off;interface 16909060 option82-policy append;interface 16909060 option82-mode raw;interface 16909060 remote-id generated;interface 16909060 interface-id format 1 text ab", {ifSet("0d", OFF), ifSet("08", word("3")), ifSet("0a", word("4")), ifSet("1f", word("3")), ifSet("06", "03000002 0000"), ifSet("20", ON), ifSet("0c", "03000002 6162")}},
    {"the bare text behind format 5; type 1, length and text behind format 3; a raw text travels typed all the same; the switch's own format", "interface 16909060 circuit-id template %s.%c.%d:%N;interface 16909060 circuit-id text ab;interface 16909060 circuit-id raw text ab;interface 16909060 circuit-id global", {ifSet("1e", word("5")), ifSet("05", "0300000b 25732e25632e25643a254e"), ifSet("1e", word("3")), ifSet("05", "03000004 01026162"), ifSet("1e", word("4")), ifSet("05", "03000004 01026162"), ifSet("1e", OFF), ifSet("05", "03000000")}},
    {"a type and bytes; option 37's; a text that is a keyword", "interface 16909060 remote-id raw type 7 hex 00ff;interface 16909060 remote-id6 text ab;interface 16909060 subopt9-text text hex", {ifSet("1f", word("4")), ifSet("06", "03000004 070200ff"), ifSet("21", word("3")), ifSet("0e", "03000004 01026162"), ifSet("07", "03000003 686578")}},
    {"a number; first octet most significant; a version is set after a look at trust; a relay server is added with action 4", "interface 16909060 max-users 50;interface 16909060 relay-address 10.0.0.1;interface 16909060 version both;interface 16909060 relay-server 192.0.2.1 add", {ifSet("12", word("32")), ifSet("22", word("a000001")), ifGet("03"), ifSet("02", word("3")), body("13", "01", SERVER + word("4"))}},
    {"and deleted with 6, verb first, by the shorter name; VLAN; global requests count no index item and carry one; a number of 32 bits", "interface 16909060 server delete 192.0.2.1;vlan 10 snooping on;snooping off;enterprise-number 4294967295", {body("13", "01", SERVER + word("6")), body("0f", "03", "0101 020004 0000000a" + ON), body("00", "01", NONE + OFF), body("00", "02", NONE + word("ffffffff"))}},
    {"a debug flag is read before it is set; a binding is created, filled in, bound", "debug dump on;binding add 10.0.0.5 mac 02:00:00:00:00:AB vlan 10 interface 16909060 attribute 9", {body("02", "14", NONE + OFF), body("00", "14", NONE + word("2")), body("0a", "09", KEY + word("4")), body("0a", "05", KEY + std::string("03000006 0200000000ab")), body("0a", "01", KEY + word("a")), body("0a", "02", KEY + word("1020304")), body("0a", "04", KEY + word("9")), body("0a", "09", KEY + ON)}},
    {"an IPv6 binding is bound; unbound; deleted", "binding bind 2001:db8::1;binding unbind 10.0.0.5;binding delete 10.0.0.5", {body("0a", "09", "0103 00000102 000003000000 00001020010db8000000000000000000000001" + ON), body("0a", "09", KEY + word("2")), body("0a", "09", KEY + word("6"))}},
};

// What the peer answers to each of the lines, separated by ';', and a part of what is said; no peer is asked about a line that
// is wrong.
const struct {
    const char *claim;
    std::string line;
    std::vector<std::string> replies;
    ExitStatus status;
    const char *err, *out = "";
} ROWS[] = {
    {"no command, no such command, interface or setting", ";shwo interfaces;interface no-such-port trust on;interface 0 trust on;interface 7 trsut on", {}, EXIT_USAGE, "Usage: dhcpsnoopctl;unknown command 'shwo interfaces';there is no interface 'no-such-port' here;there is no interface '0';no setting 'trsut' of an interface"},
    {"a value out of its range", "interface 7 trust yes;interface 7 option82-mode 16;interface 7 max-users 65536;enterprise-number 4294967296;interface 7 relay-address 10.0.0.256", {}, EXIT_USAGE, "trust takes: on|off;a number from 0 to 15;a number from 0 to 65535, not '65536';not '4294967296';'10.0.0.256' is not an IPv4 address"},
    {"a text too long", "interface 7 circuit-id text " + std::string(129, 'x'), {}, EXIT_USAGE, "129 bytes are too long"},
    {"a text or a list of options that is wrong", "interface 7 circuit-id hex abc;interface 7 circuit-id template 100%;vlan 4095 snooping on;binding add 10.0.0.5 mac 02:00:00:00:00:01;show bindings vlan", {}, EXIT_USAGE, "not a row of hexadecimal bytes;a letter must follow;from 1 to 4094;mac, vlan and interface are needed;'vlan' lacks its value"},
    {"check items", "guard interface 7;guard vlan 10 ip off;guard vlan 10 exempt;arp-inspection vlan 4095 ip", {}, EXIT_USAGE, "which check items?;'off' is no check item;not a VLAN;from 1 to 4094"},
    {"one byte short; one byte long; another function's; another command's; a word of type 3; no data header; bytes for a number; a number of 3 bytes; a value past the reply", "show vlans;show vlans;show vlans;show vlans;show vlans;show vlans;show vlans;show vlans;show vlans", {vlanFirst("03020004 000000"), vlanFirst("03020004 0000000a 00"), body("0e", "00", "0101 02000400000000 03020004 0000000a"), body("0d", "01", "0101 02000400000000 03020004 0000000a"), "00030004" + vlanFirst("03020004 0000000a").substr(8), vlanFirst("01020004 0000000a"), vlanFirst("03000004 0000000a"), vlanFirst("03020003 0000000a"), vlanFirst("03020005 0000000a")}, EXIT_NO_DAEMON, "does not belong to the request;does not belong to the request;does not belong;does not belong;does not belong;the value is not there;the value is not there;a number of 3 bytes;longer than the reply"},
    {"a list with one VLAN and its limit", "show vlans", {vlanFirst("03020004 00000001"), vlanNext(OFF, "ffffffff"), vlanUsers("03020004 00000007")}, EXIT_DONE, "", "VLAN  MAX-USERS\n1     7\n"},
    {"a VLAN gone before it is asked for is left out", "show vlans", {vlanFirst("03020004 00000001"), vlanNext(OFF, "ffffffff"), vlanUsers(OFF, "03e80002")}, EXIT_DONE, "", "VLAN  MAX-USERS\n"},
    {"a VLAN that is none", "show vlans", {vlanFirst("03020004 00000fff"), body("0e", "00", "0101 020004 00000fff" + OFF, "ffffffff")}, EXIT_NO_DAEMON, "malformed reply: 4095 is no VLAN"},
    {"an empty reply; a refusal that has a name; a text refused after its format was taken; an entry that was there before is not removed; the trap is not taken away from under a daemon; whatever it answers", "show vlans;vlan 10 max-users 5;interface 16909060 circuit-id text x;binding add 10.0.0.5 unbound;platform release;platform release", {"", body("0f", "01", "0101 020004 0000000a 03020004 00000005", "03e80004"), ifSet("1e", word("3")), body("05", "05", IF + std::string("03000003 010178"), "03e8000d"), body("0a", "09", KEY + word("4"), "03e80003"), body("02", "01", NONE + ON), body("02", "01", NONE + ON, "03e80010")}, EXIT_REFUSED, "could not decode the request;vlan 10 max-users: refused, NM_HW_REFUSED (0x3E80004): the hardware layer refused the change;NM_BAD_LENGTH (0x3E8000D): the value is too short or too long, or has no room (its format is set, its text is not);NM_EXISTS;a daemon is running;a daemon is running"},
    {"a list that stands still", "show vlans", {vlanFirst("03020004 00000001"), vlanNext("03020004 00000001")}, EXIT_NO_DAEMON, "does not go forward"},
    {"a list of bindings that stands still; a binding of neither family; a key whose pieces have other lengths; four relay servers of one interface", "show bindings;show bindings;show bindings;show servers", {body("08", "00", ANY_KEY + IPV4_ZERO), body("0c", "01", ANY_KEY + OFF, "03e80002"), body("09", "00", ANY_KEY + IPV4_ZERO), body("08", "00", ANY_KEY + "03000001 03" + IPV4_ZERO.substr(11)), body("08", "00", ANY_KEY + "03000001 01 03000004 00000000 0300000f 000000000000000000000000000000"), body("11", "00", "0102 020004 00000000 020004 00000000 03020004 00000007 03020004 0a000001"), body("12", "00", "0102 020004 00000000 020004 00000000 03020004 00000007 03020004 0a000002")}, EXIT_NO_DAEMON, "does not go forward;not the key of a binding;not the key of a binding;does not go forward"},
};
// clang-format on

TEST(Ctl, Requests)
{
    for (const auto &[claim, line, requests] : REQUESTS) {
        std::vector<std::string> asked;
        std::istringstream lines(line);
        for (std::string each; std::getline(lines, each, ';');) {
            const Ran ran = run(each, [](const Bytes &request) { return request; }); // result 0, and the value as it was asked
            for (const Bytes &request : ran.requests)
                asked.push_back(hexOf(request));
            EXPECT_EQ(std::to_string(ran.status) + ran.out + ran.err, "0") << each;
        }
        EXPECT_EQ(asked, requests) << claim;
    }
    // The interface (command 2) is refused: nothing stays behind.
    const Ran ran = run("binding add 10.0.0.5 mac 02:00:00:00:00:01 vlan 10 interface 16909060", [](Bytes asked) {
        if (asked[23] == 2)
            asked[12] = 0x03, asked[13] = 0xE8, asked[15] = 0x04;
        return asked;
    });
    EXPECT_EQ(ran.status, EXIT_REFUSED);
    EXPECT_EQ(hexOf(ran.requests.back()), body("0a", "09", KEY + word("6")));
}

TEST(Ctl, OneBindingIsLookedUp)
{
    const std::string values[] = {"", "a", "1020304", "", "0", "", "e10", "a", "1", "1"}; // by command; 10 of 3600 seconds are gone
    const auto daemon = [&values](Bytes reply) {
        EXPECT_EQ(reply[7], 12) << "not searched for";
        const Bytes item = hex_bytes(reply[23] == 5 ? "03000006 0200000000ab" : word(values[reply[23]]));
        std::copy(item.begin(), item.end(), reply.begin() + 55);
        return reply;
    };
    const std::string heading = "ADDRESS  MAC  VLAN  INTERFACE  TYPE  STATE  LEASE  LEFT\n";
    EXPECT_EQ(run("show bindings address 10.0.0.5 type dynamic state bound", daemon).out, "ADDRESS   MAC                VLAN  INTERFACE  TYPE     STATE  LEASE  LEFT\n10.0.0.5  02:00:00:00:00:ab  10    16909060   dynamic  bound  3600   3590\n");
    EXPECT_EQ(run("show bindings address 10.0.0.5 vlan 11", daemon).out, heading);
    EXPECT_EQ(run("show bindings address 10.0.0.5", [](Bytes reply) { return reply[12] = 3, reply[13] = 0xE8, reply[15] = 2, reply; }).out, heading);
}

TEST(Ctl, Answers)
{
    for (const auto &row : ROWS) {
        const Exchange exchange = replies(row.replies);
        std::istringstream lines(row.line), errors(row.err);
        for (std::string line, error; std::getline(lines, line, ';');) {
            std::getline(errors, error, ';');
            SCOPED_TRACE(row.claim + (": " + line));
            const Ran ran = run(line, exchange);
            EXPECT_EQ(ran.status, row.status);
            EXPECT_NE(ran.err.find(error), std::string::npos) << ran.err;
            EXPECT_EQ(ran.err.empty(), error.empty()) << ran.err;
            EXPECT_EQ(ran.status == EXIT_NO_DAEMON, ran.err.find("malformed reply: ") != std::string::npos) << ran.err;
            EXPECT_EQ(ran.out, row.out);
            EXPECT_TRUE(row.status != EXIT_USAGE || ran.requests.empty());
        }
    }
    EXPECT_EQ(run("platform release", [](const Bytes &) -> Bytes { throw NoDaemon("does not answer in time"); }).status, EXIT_NO_DAEMON);
}

// The daemon has the same rule (dhcpsnoop_format_check over the text and its terminating NUL).
TEST(Ctl, Templates)
{
    for (const char *good : {"", "%s", "%s.%c", "%1", "%%s", "%s)", "%s>%d", "%Q", "%s. %c", "%@", "%`x", "%{x"})
        EXPECT_FALSE(templateFault(good)) << good;
    for (const char *bad : {"%sx", "%s-%c", "%", "100%", "%%", "%s%c", "%s,", "%z\xC3"})
        EXPECT_TRUE(templateFault(bad)) << bad;
    EXPECT_EQ(templateUnknown("%s.%Q.%n"), "%Q %n");
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

// A listening socket of the test's own whose one connection `serve` gets.
class Listener
{
  public:
    explicit Listener(const std::function<void(int)> &serve) : listening_(listenAt(path)), thread_(&Listener::run, this, serve) {}
    ~Listener()
    {
        shutdown(listening_, SHUT_RDWR);
        thread_.join();
        close(listening_);
        unlink(path.c_str());
    }
    static int listenAt(const std::string &path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 || listen(sock, 1) != 0)
            std::abort();
        return sock;
    }
    const std::string path = "/tmp/ctl_test." + std::to_string(getpid());

  private:
    void run(const std::function<void(int)> &serve) const
    {
        const int connection = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0)
            return;
        serve(connection);
        close(connection);
    }
    int listening_;
    std::thread thread_;
};

// What the client sends, taken as the daemon takes it: the length, then the body in one receive. Then the answer in pieces,
// because a stream keeps no boundaries.
Bytes answered(int connection, uint32_t length, const Bytes &bytes)
{
    uint32_t asked = 0;
    EXPECT_EQ(recv(connection, &asked, sizeof asked, 0), 4);
    Bytes request(asked), framed(sizeof length);
    EXPECT_EQ(recv(connection, request.data(), asked, 0), static_cast<ssize_t>(asked));
    std::memcpy(framed.data(), &length, sizeof length);
    for (const uint8_t byte : framed + bytes)
        EXPECT_EQ(send(connection, &byte, 1, MSG_NOSIGNAL), 1);
    return request;
}

std::string exchanged(const std::string &path)
{
    try {
        return hexOf(socketExchange(path, std::chrono::milliseconds(200))(Bytes(30, 7)));
    } catch (const NoDaemon &error) {
        return error.what();
    }
}

TEST(CtlSocket, Peers)
{
    Bytes request;
    const std::tuple<const char *, std::function<void(int)>, const char *> rows[] = {
        {"one request and its reply", [&](int c) { request = answered(c, 5, {1, 2, 3, 4, 5}); }, "0102030405"},
        {"does not answer", [](int c) { char byte; recv(c, &byte, 1, MSG_WAITALL | MSG_PEEK); std::this_thread::sleep_for(std::chrono::milliseconds(400)); }, "did not answer in time"},
        {"never stands still and never ends", [](int c) { for (answered(c, 1000, {}); send(c, "", 1, MSG_NOSIGNAL) == 1;) std::this_thread::sleep_for(std::chrono::milliseconds(20)); }, "did not answer in time"},
        {"closes without an answer", [](int c) { Bytes bytes(34); recv(c, bytes.data(), bytes.size(), MSG_WAITALL); }, "closed the connection without a whole answer"},
        {"gives a length past any reply", [](int c) { answered(c, 1521, {}); }, "a length of 1521 bytes"},
        {"gives the greatest length", [](int c) { answered(c, UINT32_MAX, {}); }, "a length of 4294967295 bytes"},
        {"gives less than it says", [](int c) { answered(c, 40, Bytes(39)); }, "without a whole answer"},
    };
    for (const auto &[claim, serve, outcome] : rows) {
        const Listener listener(serve);
        const std::string text = exchanged(listener.path);
        EXPECT_NE(text.find(outcome), std::string::npos) << claim << ": " << text;
    }
    EXPECT_EQ(request, Bytes(30, 7));
}

TEST(CtlSocket, NobodyListens)
{
    EXPECT_EQ(exchanged("/tmp/ctl_test.nobody/socket"), "no daemon is listening on /tmp/ctl_test.nobody/socket");
    const std::string path = "/tmp/ctl_test.stale." + std::to_string(getpid());
    close(Listener::listenAt(path)); // a socket file that outlived its daemon
    EXPECT_EQ(exchanged(path), "no daemon is listening on " + path);
    unlink(path.c_str());
    EXPECT_THROW(socketExchange(std::string(200, 'x'))(Bytes(30)), UsageError);
}

TEST(CtlSocket, OthersThanRoot)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, to become another user";
    Listener listener([](int) {});
    chmod(listener.path.c_str(), 0600);
    // Somebody else has taken the daemon's place, as anybody can in /tmp.
    const std::string taken = "/tmp/ctl_test.impostor." + std::to_string(getpid());
    ASSERT_EQ(seteuid(65534), 0);
    const int impostor = Listener::listenAt(taken);
    const std::string error = exchanged(listener.path);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_NE(error.find("the daemon serves root only"), std::string::npos) << error;
    EXPECT_EQ(exchanged(taken), taken + " is served by user 65534, not by root: not trusted");
    close(impostor);
    unlink(taken.c_str());
}

} // namespace
