// DHCPv6 messages on their way: options 18 and 37 built, appended and stripped; what is learned from IA options; where the
// client's port is found; whole exchanges. Whole frames are compared with those that scapy encoded.
#include <algorithm>
#include <random>

#include "scene.h"

#include "dhcp6snoop_msg.h"
#include "dhcpv6_frames.h"

namespace
{

constexpr uint32_t F18 = DHCPSNOOP_IF_OPTION18, F37 = DHCPSNOOP_IF_OPTION37, BOTH = F18 | F37, ENTERPRISE = 32473; // RFC 5612
constexpr Arrival FROM_SERVER = {.port = 2};
constexpr const char *HOST6 = "2001:db8::100", *SECOND6 = "2001:db8::101";
const Bytes PORT1 = hex_bytes("01 06 00 06 00 0a 11 22 77 33 02 08 00 06 02 00 00 00 01 01");
const Bytes PORT3 = hex_bytes("01 06 00 06 00 0a 01 00 00 03 02 08 00 06 02 00 00 00 01 03");

Bytes id18(const Bytes &data) { return opt6(18, data); }
Bytes id37(const Bytes &data) { return opt6(37, be32(ENTERPRISE) + data); }
Bytes all_but_one(const Bytes &bytes) { return Bytes(bytes.begin(), bytes.end() - 1); }
Bytes filler(size_t frameLen) { return opt6(1, Bytes(frameLen - 70, 0)); } // makes a frame of that length
std::string frame(const char *before, const char *bytes) { return before + hex(hex_bytes(bytes)); }

std::string pass_time(int64_t seconds)
{
    world.now += seconds;
    dhcpsnoop_user_timer_check();
    return held();
}

// A message through the daemon: what was sent and what is held.
std::string through(const Bytes &bytes, const Arrival &arrival = {})
{
    world.clear();
    receive(bytes, arrival);
    EXPECT_EQ(world_check_tables(true), "");
    return sent_summary() + held();
}

// Where it was sent, and the whole frame.
std::string whole(const Bytes &bytes, const Arrival &arrival = {})
{
    const std::string sent = through(bytes, arrival);
    return sent.substr(0, 2) + hex(sent_frame());
}

// What was said of it, from there on.
std::string spoken(const Bytes &bytes, const Arrival &arrival, const char *from, size_t count = std::string::npos)
{
    through(bytes, arrival);
    const std::string all = said();
    return all.substr(std::min(all.find(from), all.size()), count);
}

// A client on port 1 in VLAN 10, another one on port 3; the server on port 2; port 4 in VLAN 20. All of both versions.
DhcpsnoopIf *port; // 1
void set_up()
{
    prepare("guarded port3 port4");
    gDhcpsnoop.enterpriseNum = ENTERPRISE;
    world.ports[1].location = {0x111, 0x122, 0x133, 4, 5, 6, 0x177};
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        set_flag_field(ifp, DHCPSNOOP_IF_VERSION, 3);
        ifp->flags |= ifp->ifIndex == 2 ? 0 : BOTH;
    }
    port = dhcpsnoop_if_lookup(1);
    pass_time(0);
}

class Msg6 : public Daemon
{
    void SetUp() override { set_up(); }
};

std::string asking(uint32_t flags, const Bytes &bytes, const Arrival &arrival = {})
{
    port->flags = (port->flags & ~BOTH) | flags;
    return arrival.port == 1 ? whole(bytes) : through(bytes, arrival);
}

// The options that a client's message gets from format and text of the interface, and from the global ones.
std::string built(uint8_t format, const std::string &own, uint16_t mode, const std::string &global, const std::string &own37 = "")
{
    port->interfaceIdFmt = port->remoteId6Fmt = format;
    port->interfaceIdLen = port->remoteId6Len = static_cast<uint8_t>(own.size());
    std::copy(own.begin(), own.end(), port->interfaceId);
    std::copy(own.begin(), own.end(), port->remoteId6);
    std::copy(own37.begin(), own37.end(), port->remoteId6);
    gDhcpsnoop.interfaceIdFmt = {mode, static_cast<uint16_t>(global.size()), {}};
    std::copy(global.begin(), global.end(), gDhcpsnoop.interfaceIdFmt.text);
    gDhcpsnoop.remoteId6Fmt = gDhcpsnoop.interfaceIdFmt;
    gIfChanges++;
    through(client6(1));
    const Bytes sent = sent_frame();
    return hex(Bytes(sent.begin() + 66, sent.end()));
}

void obtain()
{
    through(client6(3, ia_na(iaaddr(HOST6, 3600))));
    through(server6(7, ia_na(iaaddr(HOST6, 3600))), FROM_SERVER);
}

#define NO_ROOM(option) "Packet len exceeds the max, don't insert option" option ".|Construct option" option ", option len 0"
TEST_F(Msg6, FourMessages)
{
    check({
        {"SOLICIT: to the server's port alone, with both options; by the IPv6 socket; an IA without address teaches nothing; ADVERTISE: to the client's port alone, which its options name, without them", series({whole(hex_bytes(SOLICIT)), std::to_string(world.all(Did::Frame)[0]->socket - gDhcpsnoop.data6Sock) + held(), whole(hex_bytes(ADVERTISE_18_37), FROM_SERVER) + held()}), series({frame("2 ", SOLICIT_18_37), "0", frame("1 ", ADVERTISE)})},
        {"REQUEST of two addresses of an IA_NA and one of an IA_TA; provisional, not in hardware; REPLY: without the options; bound for the valid lifetimes, and enforced; no role, nothing synchronised; the first lease ends", series({whole(hex_bytes(REQUEST6)), held(), whole(hex_bytes(REPLY_18_37), FROM_SERVER), held(), std::to_string(world.calls("qorHwScalarSync").size()), pass_time(600)}), series({frame("2 ", REQUEST_18_37), " | :1 asked 1/10 | :100 asked 1/10 | :101 asked 1/10", frame("1 ", REPLY), " | :1 bound 1/10 600s hw 80 | :100 bound 1/10 hw 80 | :101 bound 1/10 hw 80", "0", " | :100 bound 1/10 600s ago hw 80 | :101 bound 1/10 600s ago hw 80"})},
        {"bound again by a master: the standby is told of each", (world.role(DHCPSNOOP_ROLE_MASTER), through(hex_bytes(REPLY_18_37), FROM_SERVER), std::to_string(world.calls("qorHwScalarSync").size())), "2"},
    });
}

TEST_F(Msg6, Options)
{
    const auto text = [](const std::string &data) { return hex(id18(text_bytes(data)) + id37(text_bytes(data))); };
    const std::string standard = hex(id18(PORT1) + id37(PORT1));
    // Kept: the length handed on is a single byte, and so much of a longer option is appended.
    const auto longer = [&](size_t size) { return built(0, "", 5, std::string(size, 'z')).substr(0, 3 * ((size + 4) % 256)); };
    const auto room = [](size_t frameLen) { return spoken(client6(1, filler(frameLen)).bytes(), {}, "total num 0"); };
    const Bytes sum = client6(1, opt6(8, {0, 0}) + id18(PORT1)), elapsed = opt6(8, {sum[60], sum[61]}); // makes the sum all ones, its complement 0
    const Frame6 zero = {.udpChecksum = 0, .options = elapsed + id18(PORT1)};
    const auto rest = [](int len) { return world_format(".|Send packet to server.|TPID of this interface is 0x0.|Send message to server, len is %d buflen is %d.|Process pkt end.", len, len); };
    const std::string said18 = "total num 0.|Construct option18, option len 24.|Insert option18 to packet.|";
    check({
        {"37 alone; neither; 37 is there; both are there; Kept: a sum of zero stays 0, though receivers discard such a datagram; both again", series({asking(F37, hex_bytes(SOLICIT)), asking(0, hex_bytes(SOLICIT)), asking(BOTH, hex_bytes(SOLICIT_37)), asking(BOTH, hex_bytes(SOLICIT_18_37)), asking(F18, client6(1, elapsed).bytes()), asking(BOTH, hex_bytes(SOLICIT))}), series({frame("2 ", SOLICIT_37), frame("2 ", SOLICIT), frame("2 ", SOLICIT_37_18), frame("2 ", SOLICIT_18_37), "2 " + hex(zero.bytes()), frame("2 ", SOLICIT_18_37)})},
        {"own format 3 or 4 instead of a global template; a global mode of 0 is the default data, and one of 6; the interface's string of 128 bytes", series({built(3, "", 5, "%s") + built(4, "", 5, "%s"), built(0, "", 0, "%s") + built(0, "", 6, "%s"), built(3, std::string(128, '%'), 3, "")}), series({standard + standard, standard + standard, text(std::string(128, '%'))})},
        {"Kept: the interface's string counts even when the mode came from the global setting; Kept: 1, 2 and 5 are templates here, only 5 is one in option 82; the global template by each mode", series({built(0, "uplink", 4, "%s"), built(1, "v%s.", 3, "") + built(2, "v%s.", 3, "") + built(5, "v%s.", 5, "global"), built(0, "own", 1, "g%s") + built(0, "own", 2, "g%s") + built(0, "own", 5, "g%s")}), series({text("uplink"), text("v10.") + text("v10.") + text("v10."), text("g10") + text("g10") + text("g10")})},
        {"Kept: of a template that renders to nothing, the enterprise number still makes an option 37; each option has settings of its own; options of 255 and 257 bytes; an option 18 of 256 bytes is none", series({built(5, "", 3, ""), built(4, "eighteen", 3, "", "37"), longer(251) + longer(253), built(0, "", 5, std::string(252, 'z'))}), series({hex(opt6(37, be32(ENTERPRISE))), hex(id18(text_bytes("eighteen")) + id37(text_bytes("37ghteen"))), hex(id18(Bytes(251, 'z'))) + " 00 ", hex(Bytes{0, 37, 1, 0})})},
    });
    built(0, "", 3, "");
    check({
        {"both just fit the frame; 37 does not; 18 just does; neither does", series({room(1996), room(1997), room(2024).substr(0, 75), room(2025)}), series({said18 + "Construct option37, option len 28.|Insert option37 to packet" + rest(2048), said18 + NO_ROOM("37") + rest(2021), said18, "total num 0.|" NO_ROOM("18") ".|" NO_ROOM("37") + rest(2025)})},
    });
}

TEST_F(Msg6, Stripped)
{
    const auto stripped = [](const Frame6 &message) {
        Parsed p(message);
        const uint32_t sum = dhcp6snoop_strip_opt(&p.info, 18);
        return hex(p.bytes()) + (sum == p.info.udpHdr[6] * 256u + p.info.udpHdr[7] ? "" : " wrong sum") + (p.info.interfaceIdOpt == nullptr ? "" : " 18 there");
    };
    const auto reply = [](const Bytes &options) { return hex(server6(7, options)); };
    const Bytes keep = opt6(1, {1, 2, 3}), longer = opt6(1, {1, 2}, 65535), round = opt6(1, {1, 2}, 65532) + opt6(18, {1});
    Frame6 slack = server6(7, opt6(18, {1, 2, 3, 4}) + keep), ends = server6(7, keep), shorter = server6(7, opt6(18, {1, 2, 3, 4}));
    slack.slack = Bytes(5, 0xEE);
    ends.payloadLen = 8 + 4 + 7 + 5;
    check({
        {"every one of that code; at the end of the message, both; an option that claims more than there is goes to the end; another that does stays; a step of 65536 does not come round", series({whole(hex_bytes(REPLY_18_TWICE), FROM_SERVER), whole(hex_bytes(ADVERTISE_18_37), FROM_SERVER), stripped(server6(7, keep + opt6(18, {1, 2}, 65535))), stripped(server6(7, opt6(18, {1}) + longer)), stripped(server6(7, round))}), series({frame("1 ", REPLY), frame("1 ", ADVERTISE), reply(keep), reply(longer), reply(round)})},
        {"three bytes at the end stay, and an option inside an IA; behind the datagram: dropped from the frame; the IPv6 length loses only what was removed; a full frame, kept and stripped", series({stripped(server6(7, opt6(18, {1}) + ia_na(opt6(18, {1})) + Bytes{0, 18, 0})), stripped(slack), stripped(server6(7, filler(2048))) + stripped(server6(7, opt6(18, Bytes(1978, 0))))}), series({reply(ia_na(opt6(18, {1})) + Bytes{0, 18, 0}), hex(ends.bytes()), reply(filler(2048)) + reply({})})},
    });
    for (shorter.udpLen = 0; *shorter.udpLen < 12; ++*shorter.udpLen) { // a datagram that ends before the options
        Parsed p(shorter);
        dhcp6snoop_strip_opt(&p.info, 18);
        EXPECT_EQ(world_format("%u %u %u", p.info.frameLen, p.info.udpLen, p.info.ipBodyLen), world_format("74 %u 20", *shorter.udpLen));
    }
}

TEST_F(Msg6, LearnedFromWhichMessages)
{
    const auto learned = [](uint8_t type, bool bound) {
        set_up();
        if (bound)
            obtain();
        world.now += 5;
        return through(client6(type, ia_na(iaaddr(HOST6, 7200))));
    };
    check({
        {"SOLICIT and REQUEST ask; CONFIRM, RENEW, REBIND teach nothing; a bound client's REQUEST; CONFIRM, RENEW of a bound client; RELEASE and DECLINE", series({learned(1, false) + ", " + learned(3, false), learned(4, false) + learned(5, false) + learned(6, false), learned(3, true), learned(4, true) + ", " + learned(5, true), learned(8, true) + ", " + learned(9, true)}), "2 162 | :100 asked 1/10, 2 162 | :100 asked 1/10 / 2 1622 1622 162 / 2 162 | :100 bound 1/10 hw 80 / 2 162 | :100 bound 1/10 5s ago hw 80, 2 162 | :100 bound 1/10 5s ago hw 80 / 2 162, 2 162"},
        {"RECONFIGURE is passed on; nor does a server's port teach anything of clients; asked; a rogue server", series({through(server6(10, opt6(19, {5})), FROM_SERVER), through(client6(3, ia_na(iaaddr(SECOND6, 60))), FROM_SERVER), through(client6(3, ia_na(iaaddr(HOST6, 60)))), through(server6(7, ia_na(iaaddr(HOST6, 9999)) + opt6(18, {1})), {.port = 3})}), "1 71, 3 71 /  / 2 162 | :100 asked 1/10 /  | :100 asked 1/10"},
        {"bound; time passes; REBIND: not the client; but the server renews; to its last second; gone at the next scan", series({through(server6(7, ia_na(iaaddr(HOST6, 3600))), FROM_SERVER), pass_time(1800), through(client6(6, ia_na(iaaddr(HOST6, 0)))), through(server6(7, ia_na(iaaddr(HOST6, 5000))), FROM_SERVER), pass_time(4999), pass_time(60)}), "1 110, 3 110 | :100 bound 1/10 hw 80 /  | :100 bound 1/10 1800s ago hw 80 / 2 162 | :100 bound 1/10 1800s ago hw 80 / 1 110, 3 110 | :100 bound 1/10 5000s hw 80 /  | :100 bound 1/10 5000s 4999s ago hw 80 / "},
    });
}

// What the IA options of one message do, or of each of several. Bindings of before: HOST6 bound, SECOND6 asked for, ...::1 static.
TEST_F(Msg6, IaOptions)
{
    const std::string fixed = " | :1 static bound 1/10 of 02", host = " | :100 bound 1/10 hw 80", bound2 = " | :101 bound 1/10 900s hw 80";
    const std::string bound = fixed + host + bound2, only2 = fixed + " | :101 asked 1/10", all = fixed + host + " | :101 asked 1/10"; // bound: SECOND6, too
    const Bytes ok2 = iaaddr(SECOND6, 900), gone = iaaddr(HOST6, 0), own(gone.begin() + 4, gone.end());
    const auto ia = [](uint8_t type, const std::vector<Bytes> &messages) {
        Lines outcomes;
        for (const Bytes &options : messages) {
            set_up();
            obtain();
            through(client6(3, ia_na(iaaddr(SECOND6, 60))));
            make_binding("2001:db8::1", MAC_CLIENT2, 1, 10)->userType = DHCPSNOOP_USER_STATIC;
            port->curUser--;
            const bool fromServer = type == 2 || type == 7;
            through(fromServer ? server6(type, options) : client6(type, options), fromServer ? FROM_SERVER : Arrival{});
            outcomes.push_back(held() + (sent_summary().empty() ? " not forwarded" : ""));
        }
        return series(outcomes);
    };
    const auto learned = [](const Bytes &options, uint16_t maxUser = 100) {
        set_up();
        port->maxUser = maxUser;
        const std::string sent = through(client6(3, options)).substr(0, 2);
        return sent + std::to_string(std::ranges::count(held(), '|'));
    };
    const auto addresses = [](int first, int last) {
        Bytes list;
        for (int n = first; n <= last; n++)
            list = list + iaaddr(world_format("2001:db8::%d", n).c_str(), 60);
        return list;
    };
    const auto claims = [&](uint16_t inner) { return learned(opt6(3, Bytes(12, 0) + addresses(1, 1), static_cast<uint16_t>(12 + inner))); };
    const Bytes other = opt6(1, Bytes(24, 0));
    check({
        {"REPLY binds, also in an IA_TA; skipped are the unspecified address, an IAADDR of 23 bytes; the first status counts, Success does not skip; a status of one byte is none, nor is the message's; an address's Success binds it", series({ia(7, {ia_na(ok2), ia_ta(ok2), ia_na(iaaddr("::", 0) + ok2), ia_na(opt6(5, Bytes(23, 0)) + ok2)}), ia(7, {ia_na(status6(0) + status6(2) + ok2), status6(2) + ia_na(opt6(13, {2}) + ok2), ia_na(iaaddr(SECOND6, 900, status6(0)))})}), bound},
        {"not ADVERTISE; nor in an IA_PD, nor outside an IA or behind one; an unknown address creates nothing; a static one stays", series({ia(2, {ia_na(ok2)}), ia(7, {opt6(25, Bytes(12, 0) + ok2) + ok2, ia_na(opt6(5, Bytes(24, 0), 28)) + opt6(14, {}) + ok2, ia_na(iaaddr("2001:db8::999", 60)), ia_na(iaaddr("2001:db8::1", 60)) + ia_ta(iaaddr("2001:db8::1", 0))})}), all},
        {"lifetime 0 deletes, also in a SOLICIT; NoAddrsAvail skips the IA and only that one, also behind the address; an address's failure deletes it", series({ia(7, {ia_na(gone), ia_na(ok2 + status6(2)) + ia_ta(gone), ia_na(iaaddr(HOST6, 60, status6(4)))}), ia(1, {ia_na(gone)})}), only2},
        {"one kept, one deleted; Kept: a failure holds for all later addresses of the message, until one says otherwise; a failure that holds; RELEASE of both; DECLINE of one", series({ia(7, {ia_na(gone + ok2), ia_na(iaaddr(HOST6, 60, status6(4)) + iaaddr(SECOND6, 900, status6(0)))}), ia(7, {ia_na(iaaddr(SECOND6, 900, status6(4))) + ia_ta(iaaddr(HOST6, 60))}), ia(8, {ia_na(iaaddr(HOST6, 60) + ok2)}), ia(9, {ia_na(ok2)})}), series({fixed + bound2, fixed, fixed, fixed + host})},
        // Lengths that lie.
        {"an IA_TA has not 12 fixed bytes; an IA, an IAADDR that claims more than there is; a status that is cut off; IAs shorter than their fixed part have not what stands behind; an IAADDR of which 23 bytes are there; three bytes of an option; an option of 65535 in front, a step of 65536", series({ia(7, {opt6(4, Bytes(4, 0) + gone), opt6(3, Bytes(12, 0) + gone, 65535), ia_na(opt6(5, own, 65535)), ia_na(gone + opt6(13, {0}, 2))}), ia(7, {opt6(4, {}) + opt6(1, {}) + opt6(3, {}) + opt6(1, Bytes(8, 0)) + gone, opt6(3, Bytes(12, 0) + opt6(5, all_but_one(own), 24), 40), ia_na({0, 5, 0}), ia_na(opt6(1, {1, 2}, 65532) + ok2) + ia_na(opt6(1, {1, 2}, 65535) + ok2)})}), series({only2, all})},
        // Kept: the length left for the next IAADDR is counted from the whole inner area each time.
        {"behind three, another option and a fourth are still reached; behind two not; behind one nothing is; as many as a frame holds; the first counts if the IA's length is more than its fixed part; a full port ends the learning, not the forwarding: what follows is not looked at", series({learned(ia_na(addresses(1, 3)) + other + addresses(4, 4)), learned(ia_na(addresses(1, 2)) + other + addresses(4, 4)), learned(ia_na(addresses(1, 1)) + addresses(2, 2)), learned(ia_na(addresses(1, 60))), claims(0), claims(1), claims(3), learned(ia_na(addresses(1, 2)) + ia_ta(iaaddr("2001:db8::1", 0)), 1)}), "2 4 / 2 2 / 2 1 / 2 60 / 2 0 / 2 1 / 2 1 / 2 1"},
    });
}

TEST_F(Msg6, ClientsPortByItsOption)
{
    const auto by = [](const Bytes &options, uint32_t flags = BOTH) { return asking(flags, server6(2, options).bytes(), FROM_SERVER); };
    Bytes otherVlan = PORT1;
    otherVlan[5] = 20;
    Frame6 cut = server6(2, opt6(18, all_but_one(PORT1), 20)); // its last byte stands behind the message
    cut.padding = {PORT1.back()};
    check({
        {"37 of port 3; both of port 1, the other way round; 18 decides when they differ; 37 when 18 is of no port; of another VLAN, another enterprise; one byte short, and cut off by the end of the message; none", series({by(id37(PORT3)), by(id37(PORT1) + id18(PORT1)), by(id18(PORT3) + id37(PORT1)), by(id18({1, 2}) + id37(PORT3)), by(id18(otherVlan)) + ", " + by(opt6(37, be32(9) + PORT1)), by(id18(all_but_one(PORT1))) + ", " + through(cut, FROM_SERVER), by({})}), "3 66 / 1 66 / 3 66 / 3 72 / 1 90, 3 90, 1 94, 3 94 / 1 89, 3 89, 1 89, 3 89 / 1 66, 3 66"},
        {"a port that asks for neither is found, and nothing stripped; a port that asks for 37 alone; a port that asks for 18 alone; a template of what the frame alone tells cannot be rebuilt for a reply; one of the interface can; 255 bytes, all the room that is asked for; and more than the buffer's", series({by(id18(PORT1) + id37(PORT1), 0), by(id18(PORT1) + id37(PORT1), F37), by(id18(PORT1) + id37(PORT1), F18), (built(0, "", 5, "%y"), by(id18(text_bytes("2026")))), (built(0, "", 5, "%i"), by(id18(text_bytes("3")))), (built(0, "", 5, std::string(255, 'z')), by(id18(Bytes(255, 'z')))), by(id37(Bytes(255, 'z')))}), "1 118 / 1 90 / 1 94 / 1 74, 3 74 / 3 66 / 1 66 / 1 66"},
    });
}

// Of interfaces with texts, without, with a template now and then: the first whose option is the same.
TEST_F(Msg6, ClientsPortAmongMany)
{
    auto pick = [random = std::mt19937(1)](uint32_t of) mutable { return static_cast<uint8_t>(random() % of); };
    world.reset(40, 1);
    for (uint32_t ifIndex = 1; ifIndex <= 40; ifIndex++)
        dhcpsnoop_if_enable(ifIndex);
    for (int round = 0; round < 60; round++, gIfChanges++) {
        DhcpsnoopIf *one = dhcpsnoop_if_lookup(1 + pick(40u));
        const std::string text = world_format("%u", pick(30)) + std::string(pick(2) * 18, 'x');
        one->interfaceIdFmt = one->remoteId6Fmt = round % 20 == 0 ? 5 : 3;
        one->interfaceIdLen = one->remoteId6Len = static_cast<uint8_t>(pick(4) * text.size() / 3);
        one->mac[5] = pick(20);
        text.copy(reinterpret_cast<char *>(one->interfaceId), text.size()), text.copy(reinterpret_cast<char *>(one->remoteId6), text.size());
        std::map<Bytes, const DhcpsnoopIf *> first[2];
        for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList))
            for (const uint32_t code : {18u, 37u}) {
                DhcpsnoopPktInfo info = {};
                info.ifp = ifp, info.svlan = 10;
                Bytes option(300);
                option.resize((code == 18 ? dhcp6snoop_construct_opt18 : dhcp6snoop_construct_opt37)(&info, option.data(), 256));
                const DhcpsnoopIf *right = option.empty() ? nullptr : first[code == 18].emplace(option, ifp).first->second;
                const Parsed reply(server6(2, option).bytes());
                EXPECT_EQ(dhcp6snoop_get_if_from_opt(&reply.info, code), right);
            }
    }
}

TEST_F(Msg6, TrunksRouterPortsAndVlanInterfaces)
{
    for (const uint32_t ifIndex : {2u, 3u})
        world.trunk(ifIndex, {10, 20});
    Frame6 solicit = client6(1), reply = server6(2, id18(PORT3) + id37(PORT3));
    solicit.tags = reply.tags = {{0x8100, 10}};
    const std::string fromTrunk = whole(solicit.bytes(), {.port = 3});
    solicit.options = reply.options;
    check({
        {"a client on a trunk: its tag stays in front of the options; the server gives them back with its own tag; found again by VLAN and port", series({fromTrunk, through(reply, FROM_SERVER)}), "2 " + hex(solicit.bytes()) + " / 3 70"},
    });
    set_up();
    world.access(5, 10);
    world.vlan_interface(110, 10).location = {1, 2, 3, 4, 5, 6, 7};
    world.members(10, {1, 2, 3, 5});
    port->flags |= DHCPSNOOP_IF_ROUTER;
    const Arrival from5 = {.port = 5, .inIf = 110};
    const std::string onRouterPort = through(hex_bytes(ADVERTISE_18_37), FROM_SERVER), left = " | :100 asked 5/10";
    DhcpsnoopIf *vlan = snoop(110, BOTH);
    set_flag_field(vlan, DHCPSNOOP_IF_VERSION, 3);
    const std::string asked = through(client6(3, ia_na(iaaddr(HOST6, 60))), from5), options = hex(sent_frame()).substr(3 * 110, 71);
    check({
        {"a client on a router port; a client on a VLAN interface; the location is the receiving interface's own, not that of the port; a reply found by the VLAN interface's options goes out of it; one that names nobody goes to its members", series({onRouterPort, asked, options, through(server6(2, hex_bytes(options)), FROM_SERVER), through(server6(2), FROM_SERVER)}), series({"1 166, 2 166, 3 166, 5 166", "2 162" + left, hex(id18(hex_bytes("01 06 00 06 00 0a 01 02 07 03 02 08 00 06 02 00 00 00 01 6e"))), "110 70" + left, "1 66, 2 66, 3 66, 5 66" + left})},
        {"a port that snoops by itself is not also handled through its VLAN", spoken(client6(1), {.port = 1, .inIf = 110}, "Process"), "Process client packet.|MuxTk discords process the received packet!|Process pkt end."},
    });
    vlan->flags |= DHCPSNOOP_IF_TRUSTED;
    EXPECT_EQ(spoken(server6(2).bytes(), from5, "dhcpv6"), "dhcpv6 packet,type is 2.|MuxTk discords process the received packet!|Process pkt end.") << "no server is listened to behind a VLAN interface";
}

TEST_F(Msg6, Texts)
{
    obtain();
    check({
        {"a client's; a server's", series({spoken(hex_bytes(SOLICIT_18_37), {}, "Process"), spoken(hex_bytes(ADVERTISE_18_37), FROM_SERVER, "Process", 134)}), "Process client packet.|Process each IA option, total num 1.|IA option type 3, len 12.|IA_ADDR option doesn't exist!|Send packet to server.|TPID of this interface is 0x0.|Send message to server, len is 154 buflen is 154.|Process pkt end. / Process server packet!|Strip interface id option, client port 1.|Strip remote id option, client port 1.|Unicast packet to client port."},
        {"to nobody; a rogue server's", series({spoken(server6(2).bytes(), FROM_SERVER, "Process", 70), spoken(server6(7, ia_na(iaaddr(HOST6, 0))).bytes(), {.port = 3}, "Process")}), "Process server packet!|Broadcast packet to client.|Vlan 10 is disable! / Process server packet!|Port state is untrust, stop process!|Process pkt end."},
        {"IAs", spoken(server6(7, ia_na(status6(2)) + ia_ta({}) + ia_na(iaaddr(HOST6, 0) + iaaddr("::", 9))).bytes(), FROM_SERVER, "Process each", 298), "Process each IA option, total num 3.|IA option type 3, len 18.|Status code of IA option is not OK!|IA option type 4, len 4.|IA_ADDR option doesn't exist!|IA option type 3, len 68.|Get ip address 2001:db8::100 in IA_ADDR option, valid_time 0.|Delete user: ip is 2001:db8::100.|Delete the user entry:"},
    });
    // A frame of one version on the other's socket: the version nibble chose the parser, the socket the path.
    receive(Message{}.frame(), {.etherType = 0x86DD});
    receive(Message{.type = ACK}.frame(), {.port = 2, .etherType = 0x86DD});
    receive(hex_bytes(REQUEST6), {.etherType = 0x0800});
    EXPECT_EQ(through(hex_bytes(REPLY_18_37), {.port = 2, .etherType = 0x0800}), "");
}

} // namespace
