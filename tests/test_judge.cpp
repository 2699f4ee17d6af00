// The judge of messages before the daemon's own paths and tables: who takes an address, by which message, and who rightly has it.
// A row is a play of steps; its outcome is a sign for each message (+ passed, - dropped), then what is held and refused.
//
//   v1 request .50 xid 7    host v (of v, w, a) at port 1 sends; more words: to .51 (also in ciaddr), yi, as v (chaddr), id v (client
//                           identifier, DUID), rapid, vlan 20, lie (two message types), zero (lifetimes), server (it names the server)
//   s ack v .50             the server on port 2 answers host v's latest message
//   down 1, up 1            a port; heard, silent, awaited: what holders that are asked answer; wait 10: seconds
//   6:                      in front of all: DHCPv6, addresses :50
#include <algorithm>
#include <sstream>

#include "ask_frame.h"
#include "judge.h"
#include "scene.h"

using namespace platform_linux;

namespace
{

class Around : public JudgeSwitch
{
  public:
    bool is_alive(const HostPlace &place) const override { return !dead.contains(place.ifIndex); }
    void ask(size_t, const JudgedClaim &claim) override { asked.push_back(world_format("%u", claim.holder.place.ifIndex)); }
    Answer answer(size_t) const override { return answers; }
    void refuse(Refused reason, const JudgedClaim &) override { refused[static_cast<size_t>(reason)]++; }
    Ticks now() const override { return world.now * 1000; }

    std::set<uint32_t> dead = {};
    Answer answers = Answer::heard;
    Lines asked = {};
    std::map<size_t, int> refused = {};
};

Around around;
std::string verdicts;
Judge &judge()
{
    static Judge made(around, 64, 1);
    return made;
}

Mac mac_of(const std::string &host) { return {2, 0xC1, 0, 0, 0, static_cast<uint8_t>(host[0] == 'v' ? 1 : host[0] == 'w' ? 2
                                                                                                                         : 3)}; }

// A message's words.
struct Play {
    std::string host, type, address = ".0", also = ".0", as, id;
    uint32_t port = 2, xid = 0, vlan = 10;
    bool six = false, rapid = false, lie = false, yi = false, zero = false, server = false;

    uint32_t number(const std::string &text) const { return ip4(10, 0, 0, 0) + static_cast<uint32_t>(std::stoul(text.substr(1))); }
    Bytes duid() const { return opt6(1, Bytes{0, 3, 0, 1} + mac_bytes(mac_of(id.empty() ? host : id))); }
    bool isReply() const { return host == "s"; }

    Bytes frame4() const
    {
        static const Lines TYPES = {"", "discover", "offer", "request", "decline", "ack", "nak", "release", "inform"};
        const auto code = static_cast<uint8_t>(std::ranges::find(TYPES, type) - TYPES.begin());
        const uint32_t named = number(address), extra = number(also);
        const bool none = address == ".0";
        Message message = {.type = code, .ciaddr = also != ".0" ? extra : 0, .chaddr = mac_of(as.empty() ? host : as), .address = none || (yi && !isReply()) ? 0 : named};
        message.more = (rapid ? opt(80, {}) : Bytes{}) + (lie ? opt_type(code) : Bytes{}) + (id.empty() ? Bytes{} : opt(61, mac_bytes(mac_of(id)))) + (server ? opt_ip(54, SERVER) : Bytes{});
        Frame frame = message.frame();
        frame.xid = xid;
        frame.yiaddr = yi ? named : frame.yiaddr;
        return frame;
    }

    Bytes frame6() const
    {
        static const Lines TYPES = {"", "solicit", "advertise", "request", "confirm", "renew", "rebind", "reply", "release", "decline"};
        const auto code = static_cast<uint8_t>(std::ranges::find(TYPES, type) - TYPES.begin());
        const auto part = [this](const std::string &text) { return text == ".0" ? Bytes{} : ia_na(iaaddr(("2001:db8::" + text.substr(1)).c_str(), zero ? 0 : 3600)); };
        Frame6 frame = isReply() ? server6(code) : client6(code);
        frame.src = isReply() ? MAC_SERVER : mac_of(as.empty() ? host : as);
        frame.xid = xid;
        frame.options = duid() + part(address) + part(also) + (rapid ? opt6(14, {}) : Bytes{}) + (lie ? iaaddr("2001:db8::50", 3600) : Bytes{});
        return frame;
    }
};

void say(Play &play, std::istringstream &words)
{
    static std::map<std::string, Play> latest; // by host
    std::string word;
    if (play.isReply()) {
        words >> word;
        const Play &client = latest[word];
        play.xid = client.xid, play.as = client.as.empty() ? client.host : client.as, play.id = client.id.empty() && play.six ? client.host : client.id;
    }
    while (words >> word)
        if (word[0] == '.' || word[0] == ':')
            (play.address == ".0" ? play.address : play.also) = word;
        else if (word == "xid" || word == "vlan")
            words >> (word == "xid" ? play.xid : play.vlan);
        else if (word == "as" || word == "id")
            words >> (word == "as" ? play.as : play.id);
        else
            (word == "rapid" ? play.rapid : word == "lie"  ? play.lie
                                        : word == "yi"     ? play.yi
                                        : word == "server" ? play.server
                                                           : play.zero) = true;
    if (!play.isReply())
        latest[play.host] = play;
    if (play.isReply() && !play.six)
        play.id.clear(); // the client identifier is not returned
    receive(play.six ? play.frame6() : play.frame4(), {.port = play.port, .outer = static_cast<uint16_t>(play.vlan)});
}

void step(const std::string &text, bool six)
{
    static uint32_t xid;
    std::istringstream words(text);
    std::string first;
    words >> first;
    uint32_t number = 0;
    if (first == "heard" || first == "silent" || first == "awaited") {
        around.answers = first == "heard" ? Answer::heard : first == "silent" ? Answer::silent
                                                                              : Answer::awaited;
    } else if (first == "wait" || first == "down" || first == "up") {
        words >> number;
        if (first == "wait")
            world.now += number;
        else if (first == "down")
            around.dead.insert(number);
        else
            around.dead.erase(number);
    } else {
        Play play;
        play.six = six;
        play.xid = ++xid;
        play.host = first.substr(0, 1);
        play.port = play.host == "s" ? 2 : static_cast<uint32_t>(first[1] - '0');
        words >> play.type;
        say(play, words);
    }
}

std::string played(const std::string &steps)
{
    prepare("port3 vlan-if"); // by which port 5 is snooped
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList))
        set_flag_field(ifp, DHCPSNOOP_IF_VERSION, 3);
    judge().forget();
    around = {};
    verdicts.clear();
    world.judge = [](const DhcpsnoopPktInfo *info) {
        const bool passes = judge().passes(*info);
        verdicts += passes ? '+' : '-';
        return passes ? 0 : -1;
    };
    const bool six = steps.starts_with("6: ");
    for (const std::string &text : parts(six ? steps.substr(3) : steps, ';'))
        step(text, six);
    std::string text = verdicts + held();
    text += around.asked.empty() ? "" : " | asks " + joined(around.asked);
    for (const auto &[reason, count] : around.refused)
        text += world_format(" | %s %d", reason == static_cast<size_t>(Refused::bindingTheft) ? "theft" : reason == static_cast<size_t>(Refused::ambiguous) ? "ambiguous"
                                                                                                                                                            : "stray",
                             count);
    return text;
}

#define BOUND "v1 discover;s offer v .50;v1 request .50;s ack v .50;"
#define BOUND6 "6: v1 solicit;s advertise v :50;v1 request :50;s reply v :50;"
#define HIS " | .50 bound 1/10"
#define HIS6 " | :50 bound 1/10"

struct JudgeRow {
    const char *claim, *steps, *outcome;
};

const JudgeRow THEFTS[] = {
    {"a request", BOUND "a3 request .50", "++++-" HIS " | theft 1"},
    {"while the victim renews", BOUND "v1 request .50;a3 request .50;s ack v .50", "+++++-+" HIS " | theft 1"},
    {"in ciaddr, beside an address of his own", BOUND "a3 request .51 .50", "++++-" HIS " | theft 1"},
    {"in yiaddr", BOUND "a3 request .50 yi", "++++-" HIS " | theft 1"},
    {"with two message types", BOUND "a3 release .50 lie", "++++-" HIS " | ambiguous 1"},
    {"a decline", BOUND "a3 decline .50", "++++-" HIS " | theft 1"},
    {"a release", BOUND "a3 release .50", "++++-" HIS " | theft 1"},
    {"a decline in the victim's name", BOUND "a3 decline .50 as v", "++++-" HIS " | asks 1"},
    {"that the victim denies", BOUND "a3 request .50 as v;a3 request .50 as v", "++++--" HIS " | asks 1 | theft 1"},
    {"a NAK for another address, in the victim's name", "v1 request .50 server;s ack v .50;a3 request .99 as v;a3 request .99 as v;s nak a", "++---" HIS " by .1 | asks 1 | theft 1 | stray 1"},
    {"with the victim's client identifier", "v1 discover id v;s offer v .50;v1 request .50 id v;s ack v .50;a3 discover id v;s offer a .50;a3 request .50 id v;a3 request .50 id v;s ack a .50", "++++++---" HIS " | asks 1 | theft 1 | stray 1"},
    {"an unbound address that another is getting", "v1 discover;s offer v .50;v1 request .50;a3 request .50;s ack v .50", "+++++ | .50 bound 1/10"},
    {"the victim's transaction", "v1 discover xid 7;a3 discover as v xid 7;v1 request .50 xid 7;a3 request .50 as v xid 7;s ack v .50", "+-+-+" HIS " | theft 2"},
    {"an inform, and its answer", BOUND "a3 inform .0 .50;s ack a .50", "++++--" HIS " | theft 1 | stray 1"},
    {"an answer to nobody, from another's address", BOUND "wait 121;s ack v .50;s ack a .50", "+++++-" HIS " | stray 1"},
    {"6 solicit", BOUND6 "a3 solicit :50", "++++-" HIS6 " | theft 1"},
    {"6 request", BOUND6 "a3 request :50", "++++-" HIS6 " | theft 1"},
    {"6 release", BOUND6 "a3 release :50", "++++-" HIS6 " | theft 1"},
    {"6 decline beside an own address", BOUND6 "a3 decline :51 :50", "++++-" HIS6 " | theft 1"},
    {"6 rebind", BOUND6 "a3 rebind :50", "++++-" HIS6 " | theft 1"},
    {"6 with the victim's DUID", BOUND6 "a3 request :50 id v;a3 request :50 id v", "++++--" HIS6 " | asks 1 | theft 1"},
    {"6 with the victim's MAC address and another DUID", BOUND6 "a3 request :50 as v id a;a3 request :50 as v id a", "++++--" HIS6 " | asks 1 | theft 1"},
    {"6 at the victim's place with another DUID", BOUND6 "v1 release :50 id a", "++++-" HIS6 " | theft 1"},
    {"6 an address outside of an IA", BOUND6 "a3 release :51 lie", "++++-" HIS6 " | ambiguous 1"},
    {"6 a reply that takes it back, to another", BOUND6 "a3 rebind :51;s reply a :50 zero", "+++++-" HIS6 " | stray 1"},
};

const JudgeRow RIGHTS[] = {
    {"renewing, rebinding, with another client identifier", BOUND "v1 request .0 .50;s ack v .50;v1 request .50 id w;s ack v .50", "++++++++" HIS},
    {"a decline and a release of his own", BOUND "v1 decline .50;v1 request .50;s ack v .50;v1 release .50", "++++++++"},
    {"at another port, the old one down", BOUND "down 1;v3 request .50;s ack v .50", "++++++ | .50 bound 3/10"},
    {"the old one up, nobody there", BOUND "silent;v3 request .50;wait 4;v3 request .50;s ack v .50", "++++-++ | .50 bound 3/10 | asks 1"},
    {"asked at the discover already", BOUND "silent;v3 discover;v3 request .50;s ack v .50", "+++++++ | .50 bound 3/10 | asks 1"},
    {"while the answer is awaited", BOUND "awaited;v3 request .50;v3 request .50", "++++--" HIS " | asks 1"},
    {"a silence is forgotten when the holder speaks", BOUND "silent;v3 discover;v1 request .50;heard;wait 5;v3 request .50;v3 request .50", "++++++--" HIS " 5s ago | asks 1, 1 | theft 1"},
    {"another one, when the lease is over", BOUND "wait 3600;a3 discover;s offer a .50;a3 request .50;s ack a .50", "++++++++ | .50 bound 3/10 of 03"},
    {"who holds on to it by requests alone", BOUND "wait 1800;v1 request .50;wait 1800;a3 discover;s offer a .50;a3 request .50;s ack a .50", "+++++++++ | .50 bound 3/10 of 03"},
    {"by a server's offer, the holder silent", BOUND "silent;a3 discover;s offer a .50;a3 request .50;a3 request .50;s ack a .50", "++++++-++ | .50 bound 3/10 of 03 | asks 1"},
    {"after a release", BOUND "v1 release .50;a3 discover;s offer a .50;a3 request .50;s ack a .50", "+++++++++ | .50 bound 3/10 of 03"},
    {"with rapid commit: bound without a request", "v1 discover rapid;s ack v .50", "++" HIS},
    {"its own NAK", BOUND "v1 request .50;s nak v", "++++++" HIS},
    {"in two VLANs at two ports", BOUND "v3 request .60 vlan 20;s ack v .60", "++++++" HIS " | .60 bound 3/20"},
    {"6 renewing, confirming, several IAs", BOUND6 "v1 renew :50;s reply v :50;v1 confirm :50;v1 request :50 :51;s reply v :50 :51", "+++++++++" HIS6 " | :51 bound 1/10"},
    {"6 lifetimes of zero in the request", "6: v1 solicit;s advertise v :50;v1 request :50 zero;s reply v :50", "++++" HIS6},
    {"6 rapid commit", "6: v1 solicit rapid;s reply v :50", "++" HIS6},
    {"6 moved, the old port down", BOUND6 "down 1;v3 rebind :50;s reply v :50", "++++++ | :50 bound 3/10"},
    {"6 another MAC address with its DUID, the old one silent", BOUND6 "silent;w3 rebind :50 id v;w3 rebind :50 id v;s reply w :50", "++++-++ | :50 bound 3/10 of 02 | asks 1"},
    {"6 its own address taken back", BOUND6 "v1 renew :50;s reply v :50 zero", "++++++"},
};

TEST(JudgeRules, NobodyTakesAnAddress)
{
    for (const JudgeRow &row : THEFTS)
        EXPECT_EQ(played(row.steps), row.outcome) << row.claim;
}

TEST(JudgeRules, WhoHasARightGetsIt)
{
    for (const JudgeRow &row : RIGHTS)
        EXPECT_EQ(played(row.steps), row.outcome) << row.claim;
}

// A host that floods pushes out its own transactions only.
TEST(JudgeRules, Flood)
{
    std::string steps = "v1 discover";
    for (int i = 0; i < 3000; i++)
        steps += ";a3 discover";
    const std::string text = played(steps + ";s ack v .50;v1 request .50;s ack v .50");
    EXPECT_EQ(text.substr(3001), "+++" HIS);
}

// By default a port leaves as much room as it has; of clients that wait for a relayed answer the latest wait.
TEST(JudgeRules, Room)
{
    for (const char port : {'3', '5'}) {
        std::string steps = std::string("a") + port + " discover";
        for (int i = 1; i <= 140; i++)
            steps += world_format(";a%c request .%d;a%c request .%d", port, i, port, i);
        const std::string half = played(steps).substr(0, 281);
        EXPECT_EQ(std::to_string(std::ranges::count(half, '+')) + " of " + std::to_string(gDhcpsnoop.userMax), "257 of 256") << port;
    }
    const auto relayed = [] {
        prepare("relay");
        judge().forget();
        world.judge = [](const DhcpsnoopPktInfo *info) { return judge().passes(*info) ? 0 : -1; };
        for (uint8_t i = 1; i <= 20; i++)
            receive(Frame{.src = {2, 0, 0, 0, 0, i}, .chaddr = {2, 0, 0, 0, 0, i}});
        std::string waiting;
        for (uint8_t i = 1; i <= 20; i++)
            waiting += dhcpsnoop_mac_user_lookup(Bytes{2, 0, 0, 0, 0, i}.data()) != nullptr ? '+' : '-';
        return waiting;
    };
    EXPECT_EQ(relayed(), "----++++++++++++++++");
}

// The frames as scapy encodes them, and what it takes for their answers.
TEST(JudgeRules, Questions)
{
    const HostMac host = {0x02, 0xC1, 0, 0, 0, 1}, own = {2, 0, 0, 0, 0, 9};
    const auto asked = [&](uint16_t vid, const Key &address) {
        const AskFrame frame = ask_frame({own, 0x8100, vid}, address, host);
        return hex(Bytes(frame.bytes.begin(), frame.bytes.begin() + static_cast<ptrdiff_t>(frame.length)));
    };
    const Bytes arp = hex_bytes("02000000000902c100000001810000140806000108000604000202c1000000010a00003202000000000900000000");
    const Bytes advertised = hex_bytes("02000000000902c10000000186dd6000000000183afffe800000000000000000000000000001fe80000000000000000000fffe0000098800ad97a000000020010db8000000000000000000000050");
    const auto answered = [&](const Bytes &frame, const Key &address, const HostMac &from) {
        size_t longest = 0; // that is none
        for (size_t length = 0; length <= frame.size(); length++)
            longest = is_answer(Bytes(frame.begin(), frame.begin() + static_cast<ptrdiff_t>(length)).data(), length, address, from) ? longest : length;
        return world_format("%zu", longest);
    };
    check({
        {"an ARP probe in VLAN 20", asked(20, HOST), hex(hex_bytes("02c1000000010200000000098100001408060001080006040001020000000009000000000000000000000a000032"))},
        {"a neighbour solicitation", asked(0, "2001:db8::50"), hex(hex_bytes("02c10000000102000000000986dd6000000000203afffe80000000000000000000fffe00000920010db800000000000000000000005087001bff0000000020010db80000000000000000000000500101020000000009"))},
        {"their answers, whole; of another address, of another host", series({answered(arp, HOST, host), answered(arp, HOST + 1, host), answered(arp, HOST, own), answered(advertised, "2001:db8::50", host), answered(advertised, "2001:db8::51", host)}), "45 / 46 / 46 / 77 / 78"},
    });
}

} // namespace
