// The Linux platform's switch model: the kernel's link messages (made and broken ones; those of a kernel are in
// test_linux_host.cpp), and the answers that the daemon gets from it.
#include <gtest/gtest.h>

#include <cstring>
#include <sched.h>
#include <sstream>
#include <unistd.h>

#include "guard.h"
#include "linux_switch.h"
#include "platform.h"

using namespace platform_linux;

namespace
{
std::string traps;             // asked of the data plane: "3 v4 on "
std::string heard;             // by the watcher: "+ port" came, "port" changed, "- name" went
std::map<uint32_t, Port> held; // by its account

void watcher(ModelChange change, const Port &port, const Port *before)
{
    EXPECT_EQ(before != nullptr, change == ModelChange::changed);
    EXPECT_TRUE(before == nullptr || held[port.ifIndex] == *before) << "as it was before";
    const bool gone = change == ModelChange::vanished;
    heard += heard.empty() ? "" : "; ";
    heard += gone ? std::string("- ") + port.name : (change == ModelChange::appeared ? "+ " : "") + describe(port);
    held[port.ifIndex] = port;
    if (gone)
        held.erase(port.ifIndex);
}

// Messages for the daemon, then the changes that the watcher heard, then "dump" where the model asks for one.
std::string outcome(const DaemonEvents &events, bool complete)
{
    return describe(events) + std::exchange(heard, {}) + (complete ? "" : " dump");
}

// Link messages separated by ";", among them "dump", "end" (of a whole one) and "broken" (its end).
std::string play(SwitchModel &model, const std::string &messages)
{
    DaemonEvents events;
    bool complete = true;
    for (const std::string &message : parts(messages, ';'))
        if (message.ends_with("dump"))
            model.dump_begin();
        else if (message.ends_with("hosts") || message.ends_with("hosts br"))
            model.set_hosts(message.ends_with("br") ? std::set<std::string, std::less<>>{"br"} : std::set<std::string, std::less<>>{});
        else if (message.ends_with("end") || message.ends_with("broken"))
            model.dump_end(message.ends_with("end"), events);
        else
            complete = model.feed(link_message(message), events) && complete;
    return outcome(events, complete);
}

#define LINK(number, name) "new " #number " name=" name " mac=02000000010" #number " in=2 info{ slave=bridge };"
#define FILTERING(number) "new " #number " name=br info{ kind=bridge data{ filter=1 tpid=8100 } };"
#define TWO FILTERING(2) LINK(3, "p") "port 3 in=2 protinfo{ state=3 number=1 } spec{ vlan=99pu };"
#define PLAIN "new 2 name=br info{ kind=bridge };" LINK(3, "p") "port 3 in=2 protinfo{ state=3 number=1 };"
#define BONDED "new 3 name=p in=8 info{ slave=bond }"

// clang-format off
const struct { const char *claim, *before, *messages, *outcome; } LINK_ROWS[] = { // without a model file
    {"a range, and what is no VLAN", TWO, "port 3 in=2 spec{ vlan=10b vlan=12e name=v vlan=20 }", "p#1 0 t10-12,20 u up forwarding"},
    {"ids that are none", TWO, "port 3 in=2 spec{ vlan=0 vlan=4095p vlan=65535 vlan=3 }", "p#1 0 t3 u up forwarding"},
    {"a begin without end", TWO, "port 3 in=2 spec{ vlan=8b vlan=9 vlan=12e }", "p#1 0 t9,12 u up forwarding"},
    {"a range backwards", TWO, "port 3 in=2 spec{ vlan=12b vlan=10ep }", "p#1 0 t u up forwarding"},
    {"an end out of range", TWO, "port 3 in=2 spec{ vlan=12b vlan=4095e vlan=5 }", "p#1 0 t5 u up forwarding"},
    {"a port number and a state; a state that is none", TWO, "port 3 in=2 protinfo{ state=4 number=7 }; port 3 in=2 protinfo{ state=5 }", "p#7 0 t u up blocking"},
    {"a bridge's setting is its ports'", TWO LINK(4, "q"), "new 2 name=br info{ kind=bridge data{ filter=0 } }", "p#1 1 t u1 up forwarding; q#0 1 t u1 up disabled dump"},
    {"and its default VLAN, though no message says whose", TWO, "new 2 name=br info{ kind=bridge data{ filter=1 tpid=8100 default=5 } }", " dump"},
    {"and its protocol, which counts with VLANs only", TWO PLAIN, "new 2 name=br info{ kind=bridge data{ tpid=88a8 } }; new 2 name=br info{ kind=bridge data{ filter=1 tpid=88a8 } }", "p#1 0 t u up forwarding 88a8 dump"},
    {"a wireless event says nothing of the master: it stays", PLAIN, "new 3 wireless=event", ""},
    {"and of a bond", BONDED, "new 3 wireless=event", ""},
    {"leaving a bridge is not the end of a port", PLAIN, "left 3 in=2", "- p"},
    {"leaving a bridge is not leaving a bond", BONDED, "left 3 in=2; gone 3", "8 - 3, 3 gone, "},
    {"a card that switches by itself is in no bridge, nor a bridge that names itself", "new 3 name=p;" FILTERING(2), "port 3 name=p spec{ }; port 2 in=2", ""},
    {"a port of a bridge that nobody told of, and the end of one", "", "port 3 in=2; left 4 in=2; gone 5", " dump"},
    {"a member of a bond goes", BONDED, "gone 3", "8 - 3, 3 gone, "},
    {"from a bridge into a team", PLAIN, "new 3 name=p in=9 info{ slave=team }", "3 joined, 9 + 3, - p"},
    {"from bridge to bridge at one stroke: its VLANs are still to be told", TWO FILTERING(4), "new 3 name=p in=4 info{ slave=bridge }", "p#0 0 t u up disabled"},
    {"a link message that tells the port's state", PLAIN, "new 3 name=p mac=020000000103 in=2 info{ slave=bridge slavedata{ state=1 number=9 } }", "p#9 1 t u1 up listening"},
    {"a port that is dormant, has no carrier, or is switched off is not up", PLAIN, "new 3 name=p flags=30003 mac=020000000103 in=2 info{ slave=bridge };" LINK(3, "p") "new 3 name=p flags=3 mac=020000000103 in=2 info{ slave=bridge };" LINK(3, "p") "new 3 name=p flags=10002 mac=020000000103 in=2 info{ slave=bridge }", "p#1 1 t u1 down forwarding; p#1 1 t u1 up forwarding; p#1 1 t u1 down forwarding; p#1 1 t u1 up forwarding; p#1 1 t u1 down forwarding"},
    {"index 0 is no device", FILTERING(2), LINK(0, "p"), ""},
    {"of a dump nobody hears by halves", TWO LINK(4, "q"), "dump;" FILTERING(2) LINK(3, "p") "port 3 in=2 spec{ vlan=7 }", ""},
    {"what a whole dump does not name is gone", TWO LINK(4, "q") "new 5 name=r in=8 info{ slave=bond };", "dump;" FILTERING(2) LINK(3, "p") "port 3 in=2 spec{ vlan=7 }; end", "4 gone, 8 - 5, 5 gone, p#1 0 t7 u up forwarding; - q"},
    {"a broken dump says nothing of others", TWO LINK(4, "q"), "dump;" FILTERING(2) "broken; gone 4", "4 gone, - q"},
    {"VLAN devices on a bridge, of which the lowest is the VLAN's interface", FILTERING(2), "new 7 name=v7 below=2 info{ kind=vlan data{ vid=5 } }; new 6 name=v6 below=2 info{ kind=vlan data{ vid=5 } }", "+ v7#5 =5 up forwarding; + v6#5 =5 up forwarding"},
    {"the bridge's own machine, in the VLANs that the bridge gives it, while its name is the one that was named", FILTERING(2), "hosts br; port 2 in=2 spec{ vlan=7pu vlan=10 }; new 2 name=br flags=2 info{ kind=bridge data{ tpid=88a8 } }; new 2 name=rb info{ kind=bridge };" FILTERING(2) "hosts", "+ br#0 0 t u host up forwarding; br#0 7 t10 u7 host up forwarding; br#0 1 t u1 host up forwarding; - br; + br#0 7 t10 u7 host up forwarding; - br dump"},
    {"not on another device, and no VLAN that there is none of", FILTERING(2), "new 7 name=v below=4 info{ kind=vlan data{ vid=5 } }; new 8 name=v below=2 info{ kind=vlan data{ vid=0 } }; new 9 name=v below=2 info{ kind=vlan data{ vid=4095 } }", ""},
};
// clang-format on

TEST(Links, Rows)
{
    for (const auto &row : LINK_ROWS) {
        SwitchModel model;
        held.clear();
        model.watch(watcher);
        play(model, row.before);
        EXPECT_EQ(play(model, row.messages), row.outcome) << row.claim;
        EXPECT_TRUE(std::string(row.messages).find("dump") != std::string::npos || held == model.ports()) << row.claim;
    }
}

TEST(Links, ADatagramOfSeveralMessagesOneOfWhichIsNoMultipleOfFour)
{
    Bytes odd = link_message(LINK(4, "q"));
    odd[0]--;
    SwitchModel model;
    DaemonEvents events;
    model.feed(link_message(FILTERING(2)) + odd + link_message(LINK(5, "r")), events);
    EXPECT_EQ(describe(model.ports()), "r#0 0 t u up disabled");
}

const std::map<std::string, uint32_t> NAMES = {{"acc", 3}, {"trk", 4}, {"rtd", 5}, {"agg", 6}, {"mem", 7}, {"blk", 8}, {"dwn", 9}, {"v10", 10}, {"other", 11}, {"nothing", 4711}};

// What the daemon got, "no" where it was refused; a buffer is written no further than it says.
std::string got(int32_t result, const std::string &value) { return result != 0 ? "no" : value; }

std::string got(int32_t result, const QorBuffer &buffer)
{
    const auto *bytes = static_cast<const uint8_t *>(buffer.data);
    EXPECT_TRUE(result != 0 || bytes[buffer.length] == 0xEE) << "written past the answer";
    return got(result, std::string(bytes, bytes + buffer.length));
}

std::string answer(const std::string &verb, uint32_t ifIndex, uint32_t value)
{
    uint8_t bytes[256];
    memset(bytes, 0xEE, sizeof bytes);
    QorBuffer buffer = {bytes, value};
    SysIfQuery query = {value, {}};
    uint32_t word = 0x5A5A5A5A, place[7] = {9, 9, 9, 9, value, 3, 0};
    char text[16] = "x";
    int32_t result = 0;
    if (verb == "sends") // and without a tag
        return std::to_string(sysIFGet(ifIndex, 255, &query)) + "/" + std::to_string(sysIFGet(ifIndex, 258, &query));
    if (verb == "name" || verb == "mac") { // into so many bytes
        result = qorIfGetApi(ifIndex, verb == "name" ? 3 : 33, &buffer);
        return verb == "name" ? got(result, buffer) : hex(text_bytes(got(result, buffer)));
    }
    if (verb == "string") {
        result = qorIfUnit2Name(ifIndex, text, value);
        EXPECT_EQ(result, nmGetIfPartDescr(ifIndex, text, value));
        return got(result, "") + text;
    }
    if (verb == "ports") { // of a VLAN, room for three
        buffer.length = 12;
        result = qorVlanGetApi(value, 5410, &buffer);
        return result != 0 ? "no" : hex(text_bytes(got(result, buffer)));
    }
    if (verb == "location") {
        EXPECT_EQ(qorIndexTrans(&ifIndex, 6, place), model_port(ifIndex) != nullptr ? 0 : ENODEV);
        return std::to_string(place[value]);
    }
    if (verb == "trap") { // on, then off
        result = qorIfSetApi(ifIndex, 305, &value) + qorIfSetApi(ifIndex, 306, &value);
        return got(result, "") + std::exchange(traps, {});
    }
    if (verb != "hw")
        result = verb == "place" ? qorIndexTrans(place, 7, &word) : qorIfGetApi(ifIndex, value, &word);
    EXPECT_TRUE(result == 0 || word == 0x5A5A5A5A) << "refused, not touched";
    return got(result, std::to_string(verb == "hw" ? qorHwScalarGet(0, value, nullptr) : word));
}

// Questions separated by ";": a verb, an interface where it takes one, values.
std::string ask(const std::string &questions)
{
    std::string answers;
    for (const std::string &question : parts(questions, ';')) {
        std::istringstream words(question);
        std::string verb, name;
        words >> verb;
        if (verb != "ports" && verb != "place" && verb != "hw")
            words >> name;
        for (uint32_t value; words >> value;)
            answers += (answers.empty() ? "" : " ") + answer(verb, name.empty() ? 0 : NAMES.at(name), value);
    }
    return answers;
}

void configure(const char *text)
{
    SwitchConf conf;
    std::string error;
    ASSERT_TRUE(switch_conf_parse("f", text, conf, error)) << error;
    switch_model().configure(conf);
}

#define SWITCH "new 2 name=br info{ kind=bridge data{ filter=1 tpid=88a8 } };" LINK(3, "acc") "port 3 in=2 protinfo{ state=3 number=1 } spec{ vlan=77pu }; new 4 name=trk mac=020000000104; new 5 name=rtd; new 6 name=agg info{ kind=bond }; new 7 name=mem in=6 info{ slave=bond };" LINK(8, "blk") "port 8 in=2 protinfo{ state=4 number=2 }; new 9 name=dwn flags=3; new 10 name=v10; new 11 name=other"
#define BRIDGES "dump; new 20 name=x info{ kind=bridge }; new 30 name=y info{ kind=bridge }; new 21 name=a in=20 info{ slave=bridge }; port 21 in=20 protinfo{ state=3 }; new 31 name=b in=30 info{ slave=bridge }; port 31 in=30 protinfo{ state=3 }; end"

// clang-format off
const struct { const char *claim, *messages, *questions, *answers; } ANSWER_ROWS[] = { // one after the other; "" = no messages
    {"an access port forwards its VLAN, untagged", SWITCH, "sends acc 10 20 0 4096", "0/1 -1/0 -1/0 -1/0"},
    {"a trunk its VLANs, the native one untagged", "", "sends trk 20 1 30 4096 65546", "0/0 0/1 -1/0 -1/0 -1/0"},
    {"a routed port, which has no VLANs; an aggregate", "", "sends rtd 999; sends agg 10", "0/1 0/1"},
    {"not a member, a blocked port, one that is down", "", "sends mem 10; sends blk 10; sends dwn 10", "-1/1 -1/1 -1/1"},
    {"a VLAN interface its VLAN", "", "sends v10 10 20", "0/1 -1/0"},
    {"no port of the switch, no device", "", "sends other 10; sends nothing 10", "-1/-1 -1/-1"},
    {"the ports of a VLAN, no more than there is room for; nobody's VLAN, and none", "", "ports 10 20 30 0 4095 4096 65546", "03 00 00 00 04 00 00 00 06 00 00 00 04 00 00 00 no no no no no"},
    {"a VLAN whose only port is down is not unknown", "new 4 name=trk mac=020000000104 flags=3", "ports 20", ""},
    {"number in the file, TPID, bridged, no VLAN interface; no VLAN: the answer scopes an event to the port; not asked for", "", "get acc 5 45 193 417 5400 4", "1 34984 0 0 no no"},
    {"TPID outside a bridge; routed; a VLAN interface, whose number is its VLAN; no port", "", "get trk 5 45; get rtd 193; get v10 5 417 5400; get other 5", "2 33024 1 10 1 10 no"},
    {"a name that fits, and no half name; an address", "", "name trk 3 2; mac trk 6 5", "trk no 02 00 00 00 01 04 6e 6f"},
    {"a name with its terminator, or the buffer as it was; no name", "", "string v10 4 3 0; string other 16", "v10 nox nox nox"},
    {"where it is: system, slot, port, 0, unit, type, card", "", "location trk 0 1 2 3 4 5 6; location agg 2 4 5; location v10 2 4 5; location other 0", "2 0 2 0 2 1 0 4 4 2 10 10 3 9"},
    {"what is there: VLAN interfaces", "", "place 10 0 20 4095 65535 65546", "10 no no no no no"},
    {"a trap, of DHCPv4, DHCPv6 and neither; on no port", "", "trap acc 23 24 25; trap other 23", "3 v4 on 3 v4 off  3 v6 on 3 v6 off  no no11 v4 on 11 v4 off "},
    {"with two bridges a VLAN is the VLAN of its interface", BRIDGES "; new 32 name=v below=30 info{ kind=vlan data{ vid=1 } }", "ports 1; place 1", "1f 00 00 00 32"},
    {"of the lowest of two", "new 22 name=v below=20 info{ kind=vlan data{ vid=1 } }", "ports 1; place 1 2", "15 00 00 00 22 no"},
    {"of the other one when that goes, and its VLAN changes", "gone 22; new 32 name=v below=30 info{ kind=vlan data{ vid=2 } }", "ports 1; place 1 2", "15 00 00 00 1f 00 00 00 no 32"},
    {"neither master nor slave: alone", "role none", "hw 53 54 45 46", "1 1 1 0"},
    {"slave", "role slave", "hw 53 54 45", "1 0 0"},
};
// clang-format on

TEST(Answers, Rows)
{
    configure("system 2\nport acc access 10\nport trk trunk 10,20 native 1\nport rtd routed\nport agg access 10\n"
              "port mem access 10\nport blk access 10\nport dwn access 10\nvlan 10 interface v10\n");
    for (const auto &row : ANSWER_ROWS) {
        const std::string messages = row.messages;
        if (messages.starts_with("dump"))
            switch_model().configure({});
        if (messages.starts_with("role"))
            configure(row.messages);
        else
            play(switch_model(), messages);
        EXPECT_EQ(ask(row.questions), row.answers) << row.claim;
    }
    play(switch_model(), "dump; end");
    switch_model().configure({});
}

TEST(Answers, OfTheMachineAndOfNothing)
{
    configure("system 2\nport agg access 10\nport mem access 10\n");
    play(switch_model(), "new 6 name=agg info{ kind=bond }; new 7 name=mem in=6 info{ slave=bond }");
    uint32_t members = 2, enabled = 1;
    QorNestedGet nested{65536223, &members, 1};
    EXPECT_TRUE(qorIfGetApi(6, 65536285, &nested) == 0 && nested.count == 1 && members == 1);
    EXPECT_NE(qorIfGetApi(7, 65536285, &nested), 0);
    QorIfRequest binding{QOR_USER_ADD, nullptr, {}};
    EXPECT_NE(qorIfSetApi(6, 300, &binding), 0) << "a rule that cannot be enforced is refused";
    uint8_t items = 0xF0, room[128];
    for (const auto hook : {ipsgIfGetApi, arpAntiAttackIfGetApi}) {
        EXPECT_TRUE(hook(6, 1, &enabled) == 0 && enabled == 0 && hook(6, 2, &items) == 0 && items == 0);
        EXPECT_TRUE(hook(11, 1, &enabled) != 0 && hook(6, 3, &enabled) != 0);
    }
    EXPECT_EQ(qorSelfSysIndex(), 2u);
    play(switch_model(), "dump; end");
    switch_model().configure({});
    EXPECT_NE(qorHwScalarSync(nullptr, 0x40013, nullptr, 3), 0) << "no peer: not sent";
    EXPECT_EQ(qorHwScalarSync(nullptr, 0x40001, nullptr, 3), 0);
    EXPECT_TRUE(qorHwCardGet(&members, 49152043, room) != 0 && qorHwSlotGet(&members, 32768049, room) != 0);
    QorBuffer machine{room, sizeof room};
    EXPECT_TRUE(qorScalarGetApi(0, 74, &machine) == 0 && std::string(room, room + machine.length).starts_with("Linux "));
    if (unshare(CLONE_NEWUTS) < 0)
        GTEST_SKIP() << "needs a host name of its own, which takes root: " << strerror(errno);
    for (const std::string &host : {std::string("switch-1"), std::string(64, 'h'), std::string("(none)")}) {
        ASSERT_EQ(sethostname(host.data(), host.size()), 0);
        QorBuffer name{room, 64};
        EXPECT_TRUE(qorScalarGetApi(0, 66, &name) == 0 && std::string(room, room + name.length) == host) << host;
        EXPECT_STREQ(nmGetHostname(), host == "(none)" ? nullptr : host.c_str()) << "the kernel's own, not yet set";
    }
}

} // namespace

// The data plane's recorder.
int32_t platform_linux::trap_start(uint32_t) { return 0; }
bool platform_linux::trap_heard(std::span<const uint8_t>) { return false; }
void platform_linux::trap_messages_lost() {}
void platform_linux::trap_put_off(bool) {}
bool platform_linux::trap_mend() { return false; }

int32_t platform_linux::trap_set(uint32_t ifIndex, int family, bool on)
{
    traps += std::to_string(ifIndex) + " v" + std::to_string(family) + (on ? " on " : " off ");
    return model_port(ifIndex) != nullptr || !on ? 0 : ENODEV;
}
