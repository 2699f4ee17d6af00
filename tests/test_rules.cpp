// The trap rules and the rules of bindings between the switch model and the classifier: where they stand, what becomes of them
// when ports and VLAN interfaces come and go. The classifier and the log are recorders, the model a handful of ports.
#include <cerrno>
#include <cstdarg>
#include <sstream>

#include "acknowledged.h"
#include "bindings.h"
#include "classifier.h"
#include "dhcpsnoop_nm.h"
#include "guard.h"
#include "management.h"
#include "model.h"
#include "port_limits.h"
#include "refusals.h"
#include "refused_frames.h"
#include "report.h"
#include "scene.h"
#include "taken_frame.h"

using namespace platform_linux;

namespace
{

struct Recorder {
    bool possible = true, alone = true; // alone: no other daemon
    int addResult = 0, full = 0;        // full: so many more rules of bindings find no room
    std::string journal = "";           // what was asked of the classifier, and what was said
} recorder;

std::map<uint32_t, Port> ports, gone;
std::vector<ModelWatcher> watchers;

int asked(int result, const std::string &line)
{
    recorder.journal += (recorder.journal.empty() ? "" : ", ") + line;
    return result;
}

// "+1 f0 3/10 02 00 00 00 00 05 0a 00 0a 05": kind, check items, port, VLAN, MAC, address.
int rule(const char *what, const guard_rule_key &key)
{
    const Bytes mac(key.mac, key.mac + 6), address(key.addr, key.addr + (key.kind == GUARD_IPV6 ? 16 : 4));
    asked(0, world_format("%s%u %02x %u/%u %s %s", what, key.kind, key.mask, key.ifindex, key.vid, hex(mac).c_str(), hex(address).c_str()));
    return *what == '+' && recorder.full > 0 && recorder.full-- > 0 ? ENOSPC : 0;
}

} // namespace

namespace platform_linux
{

bool guard_claim() { return recorder.alone; }
bool guard_open(uint32_t bindings, std::string &why, std::string &)
{
    why = recorder.possible ? "" : "said by the recorder";
    return asked(recorder.possible, world_format("open %u", bindings)) != 0;
}
void guard_close() { asked(0, "close"); }
int guard_port_add(uint32_t ifIndex, uint16_t nativeVid, const PortVlans &) { return asked(recorder.addResult, world_format("add %u %u", ifIndex, nativeVid)); }
void guard_port_remove(uint32_t ifIndex, uint32_t) { asked(0, world_format("remove %u", ifIndex)); }
void guard_device_gone(uint32_t) {}
void guard_vlans_changed() {}
void guard_doubt(uint32_t) {}
void guard_put_off(bool) {}
int guard_device_add(uint32_t, bool) { return 0; }
int guard_port_protect(uint32_t, bool) { return 0; }
void guard_port_hold(uint32_t, bool) {}
void guard_port_host(uint32_t, bool) {}
bool guard_stands(uint32_t) { return true; }
void guard_port_apart(uint32_t, bool) {}
void guard_protecting(bool) {}
void guard_own_set(const std::set<MacAddress> &) {}
void model_watch_devices(DeviceWatcher) {}
bool model_has_file() { return false; }
void model_devices(DeviceWatcher) {}
bool guard_mend(uint32_t &, int &) { return false; }
void model_watch_gone(GoneWatcher) {}
void guard_ports_complete() { asked(0, "complete"); }
int guard_trap_port(uint32_t ifIndex, int family, bool on)
{
    return asked(ports.count(ifIndex) != 0 && ports.at(ifIndex).aggregate == 0 ? 0 : ENODEV, world_format("port %u %d %s", ifIndex, family, on ? "on" : "off"));
}
int guard_trap_vlan(uint16_t vid, int family, bool on) { return asked(0, world_format("vlan %u %d %s", vid, family, on ? "on" : "off")); }
int guard_rule_add(const guard_rule_key &key) { return rule("+", key); }
int guard_rule_remove(const guard_rule_key &key) { return rule("-", key); }
void guard_rate_trust(uint32_t ifIndex, bool trusted) { asked(0, world_format("%s %u", trusted ? "trusts" : "limits", ifIndex)); }
bool guard_known_add(uint32_t ifIndex, const uint8_t mac[6]) { return asked(recorder.full > 0 && recorder.full-- > 0 ? ENOSPC : 0, world_format("knows %u/%02x", ifIndex, mac[5])) == 0; }
void guard_known_remove(uint32_t ifIndex, const uint8_t mac[6]) { asked(0, world_format("forgets %u/%02x", ifIndex, mac[5])); }
const Port *model_port(uint32_t ifIndex) { return ports.count(ifIndex) == 0 ? nullptr : &ports.at(ifIndex); }
const std::map<uint32_t, Port> &model_ports() { return ports; }
uint32_t model_vlan_interface(uint16_t vid) { return vid == 10 ? 110 : 0; }
void model_watch(ModelWatcher watcher) { watchers.push_back(watcher); }
void platform_report(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char line[256];
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    asked(0, "\"" + std::string(line) + "\"");
}

} // namespace platform_linux

namespace
{

Port a_port(uint32_t ifIndex, PortKind kind, uint16_t vlan, uint32_t aggregate = 0)
{
    Port port = {};
    port.ifIndex = ifIndex;
    port.kind = kind;
    port.up = true;
    port.aggregate = aggregate;
    std::string("swp" + std::to_string(ifIndex)).copy(port.name, sizeof port.name);
    (kind == PortKind::vlanInterface ? port.vlan : port.nativeVid) = vlan;
    return port;
}

// The model's steps: "native 6 20", "member 6 5" (of an aggregate), "stp 6", "gone 6", "back 6"; native of a new port: it appears.
void move(const std::string &verb, uint32_t ifIndex, uint32_t value)
{
    const bool known = ports.count(ifIndex) != 0;
    const Port before = known ? ports.at(ifIndex) : verb == "back" ? gone.at(ifIndex)
                                                                   : a_port(ifIndex, PortKind::port, 0);
    Port port = before;
    if (verb == "native")
        port.nativeVid = static_cast<uint16_t>(value);
    else if (verb == "member")
        port.aggregate = value;
    else if (verb == "bridge")
        port.bridge = value, port.members.set(port.nativeVid);
    else if (verb == "stp")
        port.stp = StpState::blocking;
    (verb == "gone" ? gone : ports)[ifIndex] = port;
    if (verb == "gone")
        ports.erase(ifIndex);
    const ModelChange change = verb == "gone" ? ModelChange::vanished : known ? ModelChange::changed
                                                                              : ModelChange::appeared;
    for (const ModelWatcher watcher : watchers)
        watcher(change, port, change == ModelChange::changed ? &before : nullptr);
}

// The daemon's records by their names, as it keeps them between two requests.
std::map<std::string, QorUserRecord> records;

// The record of 10.0.10.5 (v6: 2001:db8::5) on port `ifIndex`, filled in by its check items.
void fill(QorUserRecord &record, uint32_t items, uint32_t ifIndex, const std::string &words)
{
    const auto says = [&words](const char *word) { return words.find(word) != std::string::npos; };
    const Bytes address = hex_bytes(says("v6") ? "20010db8000000000000000000000005" : "0a000a05");
    const QorUserRecord before = std::exchange(record, {});
    record.ipsgHwId = before.ipsgHwId;
    record.daiHwId = before.daiHwId;
    record.ipType = says("v6") ? DHCPSNOOP_IPV6 : DHCPSNOOP_IPV4;
    record.ruleFlags = says("dai") ? DHCPSNOOP_HW_DAI : says("unstarted") ? 0
                                                                          : DHCPSNOOP_HW_IPSG;
    if ((items & GUARD_CHECK_MAC) != 0) {
        memcpy(record.mac, "\2\0\0\0\0\5", 6);
        record.macValid = 0x30;
    }
    if ((items & GUARD_CHECK_VLAN) != 0)
        record.vid = record.origVid = 10;
    if ((items & GUARD_CHECK_PORT) != 0)
        record.ifIndex = ifIndex;
    if ((items & GUARD_CHECK_ADDRESS) != 0) {
        memcpy(record.addr, address.data(), address.size());
        record.addrKind = says("v6") ? 0x80 : 0x20;
    }
}

// Steps, separated by "; ": "start", a move of the model, "on 3 4" and "off 3 4" (the daemon's trap of a family), "add a 3 f0" and "delete a 3"
// (a record and its port; with "v6", "dai" or "unstarted" behind it), "hold 1", "release 1", "hold-all", "full 2". Gives
// what the classifier was asked and what was said, then the result if it is not 0.
int play_one(const std::string &step)
{
    std::istringstream words(step);
    std::string verb, name;
    uint32_t ifIndex = 0, value = 0;
    words >> verb;
    if (verb == "add" || verb == "delete") {
        words >> name >> ifIndex >> std::hex >> value;
        if (verb == "add")
            fill(records[name], value, ifIndex, step);
        const QorIfRequest request = {verb == "add" ? QOR_USER_ADD : QOR_USER_DELETE, &records[name], {0, 0}};
        return binding_set(ifIndex, &request);
    }
    words >> ifIndex >> value;
    if (verb == "start") {
        watchers.clear();
        records.clear();
        // Ports 3 and 4 (4 in the aggregate 5), VLAN interface 10 of VLAN 100.
        ports = {{3, a_port(3, PortKind::port, 1)}, {4, a_port(4, PortKind::port, 1, 5)}, {5, a_port(5, PortKind::aggregate, 7)}, {10, a_port(10, PortKind::vlanInterface, 100)}};
        return trap_start(2);
    } else if (verb == "on" || verb == "off") {
        return trap_set(ifIndex, static_cast<int>(value), verb == "on");
    } else if (verb == "hold" || verb == "release") {
        bindings_hold(static_cast<Hold>(ifIndex), verb == "hold");
    } else if (verb == "hold-all") {
        bindings_hold_all();
    } else if (verb == "full") {
        recorder.full = static_cast<int>(ifIndex);
    } else {
        move(verb, ifIndex, value);
    }
    return 0;
}

std::string play(const std::string &steps)
{
    recorder.journal.clear();
    std::string results;
    for (size_t at = 0, end; at < steps.size(); at = end + 2) {
        end = std::min(steps.find("; ", at), steps.size());
        if (const int result = play_one(steps.substr(at, end - at)); result != 0)
            results += "; " + std::to_string(result);
    }
    return recorder.journal + results;
}

struct Step {
    const char *claim, *steps;
    std::string outcome;
};

void check(std::span<const Step> steps)
{
    recorder = {};
    for (const Step &row : steps)
        EXPECT_EQ(play(row.steps), row.outcome) << row.claim;
}

#define FULL "1 f0 3/10 02 00 00 00 00 05 0a 00 0a 05"
#define ADDRESS "1 80 0/0 00 00 00 00 00 00 0a 00 0a 05"
#define PORT "1 10 3/0 00 00 00 00 00 00 00 00 00 00"
#define NO_ROOM "\"swp3: no room for another binding in the guard, its host stays cut off where it is guarded: raise 'bindings N' in dhcpsnoop.conf (or --bindings N) and restart the daemon (refused: 1)\""
const std::string START = "open 4, add 3 1, remove 4, add 5 7, remove 10, complete";

TEST(TrapRules, Steps)
{
    const Step STEPS[] = {
        {"on ports that receive themselves", "start", START},
        {"a new port; nothing of its concern; another native VLAN", "native 6 9; stp 6; native 6 20", "add 6 9, add 6 20"},
        {"into an aggregate, out of it, gone", "member 6 5; member 6 0; gone 6", "remove 6, add 6 20, remove 6"},
        {"a port's rule is its own, an aggregate's too", "on 3 4; on 5 6; on 3 6; off 3 4", "port 3 4 on, port 5 6 on, port 3 6 on, port 3 4 off"},
        {"a member of an aggregate", "on 4 4", "port 4 4 on; 19"},
        {"an absent port", "on 99 4", "port 99 4 on; 19"},
        {"a VLAN interface's is its VLAN's", "on 10 6; on 10 4; off 10 6", "vlan 100 6 on, vlan 100 4 on, vlan 100 6 off"},
        // The daemon hears nothing of a port that leaves a bridge and comes back: its rule must be there again.
        {"a port goes and comes back", "gone 3; back 3", "remove 3, add 3 1, port 3 6 on"},
        {"its rule is taken back while it is away", "gone 3; off 3 6; back 3", "remove 3, port 3 6 off, add 3 1"},
        // The device may go before the daemon takes its rule back: the VLAN must not stay cut off.
        {"a VLAN interface goes and comes back", "gone 10; back 10", "remove 10, vlan 100 4 off, vlan 100 6 off, remove 10, vlan 100 4 on"},
        {"its rule is taken back while it is away", "gone 10; off 10 4; back 10", "remove 10, vlan 100 4 off, vlan 100 6 off, port 10 4 off, remove 10"},
        {"on and off anew", "on 10 4; off 10 4; off 5 6", "vlan 100 4 on, vlan 100 4 off, port 5 6 off"},
        {"a bridge that shares a VLAN with one that snoops", "native 7 30; bridge 7 99999; native 8 30; bridge 8 99998; on 7 4; on 8 4; off 7 4; on 8 4; off 8 4",
         "add 7 30, add 7 30, add 8 30, add 8 30, port 7 4 on, \"swp8: no snooping in VLAN 30 of bridge #99998, which is a VLAN of bridge #99999 too: give the ports of one of them other VLAN numbers (vlan_filtering, vlan_default_pvid)\", port 7 4 off, port 8 4 on, port 8 4 off; 98"},
        // A host with a binding would lose its packets between the coming of the port and of the binding.
        {"a port with a binding goes and comes back", "add a 3 f0; gone 3; back 3", "+" FULL ", remove 3, -" FULL ", +" FULL ", add 3 1"},
    };
    check(STEPS);
    recorder.addResult = EBUSY;
    EXPECT_EQ(play("native 6 9"), "add 6 9, \"swp6: no DHCP trap can be had on it: Device or resource busy\"");
    recorder.addResult = ENODEV;
    EXPECT_EQ(play("native 6 8"), "add 6 8") << "gone again already";
    recorder = {.possible = false};
    EXPECT_NE(play("start").find("open 4, \"no DHCP trap can be had here"), std::string::npos) << "the daemon runs all the same";
    EXPECT_TRUE(watchers.empty());
    recorder = {.alone = false};
    EXPECT_EQ(play("start"), "\"another daemon runs in this network namespace\"; " + std::to_string(EBUSY));
}

TEST(BindingRules, Steps)
{
    const Step STEPS[] = {
        {"", "start", START},
        // The record names the check items by giving their values. The new rule comes before the old one goes.
        {"all items, the address, the MAC", "add a 3 f0; add a 3 80; add a 3 40", "+" FULL ", +" ADDRESS ", -" FULL ", +1 40 0/0 02 00 00 00 00 05 00 00 00 00, -" ADDRESS},
        {"the VLAN, the port", "add a 3 20; add a 3 10; delete a 3", "+1 20 0/10 00 00 00 00 00 00 00 00 00 00, -1 40 0/0 02 00 00 00 00 05 00 00 00 00, +" PORT ", -1 20 0/10 00 00 00 00 00 00 00 00 00 00, -" PORT},
        {"IPv6", "add a 3 f0 v6; delete a 3", "+2 f0 3/10 02 00 00 00 00 05 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 05, -2 f0 3/10 02 00 00 00 00 05 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 05"},
        {"ARP inspection; none for IPv6", "add a 3 f0 dai; delete a 3; add a 3 f0 v6 dai", "+3 f0 3/10 02 00 00 00 00 05 0a 00 0a 05, -3 f0 3/10 02 00 00 00 00 05 0a 00 0a 05"},
        {"ARP inspection not started: found by its content", "add a 3 f0 unstarted; add again 3 f0 unstarted; delete a 3", "+3 f0 3/10 02 00 00 00 00 05 0a 00 0a 05, -3 f0 3/10 02 00 00 00 00 05 0a 00 0a 05"},
        {"a static binding of a VLAN interface", "add a 10 d0; delete a 10", "+1 e0 0/100 02 00 00 00 00 05 0a 00 0a 05, -1 e0 0/100 02 00 00 00 00 05 0a 00 0a 05"},
        {"a member of an aggregate is not guarded itself", "add a 4 f0", ""},
        {"an absent port", "add a 99 f0", "; 19"},
        // handles
        {"two bindings of one content are two rules", "add b 3 10; add c 3 10; delete b 3", "+" PORT ", +" PORT ", -" PORT},
        {"never added; for another port; spent", "delete never 3; delete c 5; delete b 3", ""},
        {"a spent handle of a place that is given to another", "add d 3 f0; delete b 3; delete c 3", "+" FULL ", -" PORT},
        {"unchanged; with other items, without a gap; and back", "add d 3 f0; add d 3 80; add d 3 f0", "+" ADDRESS ", -" FULL ", +" FULL ", -" ADDRESS},
        {"withdrawn while its port is in an aggregate", "member 3 5; delete d 3; member 3 0", "remove 3, -" FULL ", add 3 1"},
        // holds: 1 while check items change, 2 while a role is taken over
        {"all in force", "add kept 3 f0; add lost 3 80; hold-all; add kept 3 f0; hold 1; release 1", "+" FULL ", +" ADDRESS},
        {"only rules that were given again stay", "release 2", "-" ADDRESS},
        {"rules of a port that goes meanwhile may be no more", "hold-all; gone 3; back 3", "remove 3, -" FULL ", add 3 1"},
        {"and are installed anew", "add kept 3 f0; release 2", "+" FULL},
        {"beside the old rule, by which the port still goes", "hold 1; delete kept 3; add kept 3 80", "+" ADDRESS},
        {"a role is taken over meanwhile", "hold-all; release 2; add kept 3 80", ""},
        {"the old rule goes at the end", "release 1", "-" FULL},
        {"held rules make room, and the replaced one too", "hold 1; full 1; add kept 3 f0; release 1", "+" FULL ", -" ADDRESS ", +" FULL},
        // no room
        {"said once", "full 2; add kept 3 80", "+" ADDRESS ", " NO_ROOM "; 28"},
        {"the old rule and its handle stay", "add kept 3 80; delete kept 3", "+" ADDRESS ", -" FULL "; 28"},
        {"four rules of two bindings, and a fifth", "add a 3 10; add b 3 10; add c 3 10; add d 3 10; add e 3 80", "+" PORT ", +" PORT ", +" PORT ", +" PORT ", +" ADDRESS ", -" ADDRESS "; 28"},
        {"", "gone 3", "remove 3, -" PORT ", -" PORT ", -" PORT ", -" PORT},
        {"refused on the way back", "full 1; back 3", "+" PORT ", +" PORT ", +" PORT ", +" PORT ", \"swp3: 1 of its bindings cannot be installed again\", add 3 1, +" PORT},
    };
    check(STEPS);
    QorUserRecord record = {};
    const QorIfRequest wrong = {305, &record, {0, 0}};
    EXPECT_EQ(binding_set(3, &wrong), EINVAL);
}

std::string taken; // a letter for each record that the daemon gave in the last step: yes or no

void note_record(Did, const uint8_t *bytes, size_t count, uint32_t)
{
    QorUserRecord record;
    memcpy(&record, bytes, std::min(count, sizeof record));
    if (count == sizeof record)
        taken += is_only_asked_for(record) ? 'n' : 'y';
}

const Word WORDS[] = {
    {"guards", [] { gDhcpsnoop.ipsgIfGet = ipsgIfGetApi, gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi, world.ipsg[1].items = world.dai[1].items = GUARD_CHECK_ALL, world.recording = false, world.sent = note_record; }},
    {"mac-only", [] { world.ipsg[1].items = world.dai[1].items = GUARD_CHECK_MAC; }},
    {"asked", [] { dhcpsnoop_user_delete(binding(HOST)), make_binding(HOST, MAC_CLIENT, 1, 10)->bindState = DHCPSNOOP_BIND_REQUESTED; }},
    {"bind", [] { const Key key = HOST; uint32_t action = USER_ACTION_BIND; taken.clear(), dhcpSnoopUserSetApi(&key, USER_ACTION, &action); }},
    {"install", [] { taken.clear(), dhcpsnoop_user_update_hw(binding(HOST), 1); }},
};

// The daemon installs bindings that no server has acknowledged too. The guard takes them from management only.
TEST(BindingRules, OfAddressesThatWereOnlyAskedFor)
{
    const struct {
        const char *claim, *steps, *taken;
    } rows[] = {
        {"asked for", "guards asked install", "nn"},
        {"bound by management", "guards asked bind", "yy"},
        {"management binds an address that is not there, then it is asked for", "guards bind asked install", "nn"},
        {"management binds on a standby unit, then it is asked for anew", "guards slave asked bind master asked install", "nn"},
        {"by its MAC alone a binding cannot be told", "guards mac-only asked install", "yy"},
    };
    for (const auto &row : rows) {
        prepare(row.steps, WORDS);
        EXPECT_EQ(taken, row.taken) << row.claim;
    }
    world.sent = nullptr;
}

void bind(uint8_t state) { dhcpsnoop_user_delete(binding(HOST)), make_binding(HOST, MAC_CLIENT, 1, 10)->bindState = state; }

void set_interface(uint32_t ifIndex, uint32_t cmd, uint32_t value) { port_limits_doubt(), dhcpSnoopIfSetApi(ifIndex, cmd, &value); }

// clang-format off
const Word LIMITS[] = {
    {"bound", [] { bind(DHCPSNOOP_BIND_BOUND); }},
    {"asked", [] { bind(DHCPSNOOP_BIND_REQUESTED); }},
    {"again", [] { make_binding(HOST + 1, MAC_CLIENT, 1, 10)->bindState = DHCPSNOOP_BIND_BOUND; }},
    {"moves", [] { binding(HOST)->ifIndex = 2; }},
    {"goes", [] { dhcpsnoop_user_delete(binding(HOST)); }},
    {"full", [] { recorder.full = 1; }},
    {"waits", [] { dhcpsnoop_user_delete(binding(HOST)), receive(Message{.type = DISCOVER}.frame()); }},
    {"trust", [] { set_interface(1, IF_TRUST, 1); }},
    {"vlan-trust", [] { set_interface(110, IF_TRUST, 1); }},
    {"version", [] { set_interface(1, IF_VERSION, 3); }},
    {"off", [] { set_interface(2, IF_ENABLE, 0); }},
};
// clang-format on

// What the kernel's limits are told after each step: two rounds of all bindings, in parts.
TEST(PortLimits, FollowTheTables)
{
    const struct {
        const char *claim, *before, *steps, *told; // steps by ", ", what they gave by "; "
    } rows[] = {
        {"a client is known when a server has acknowledged, until its binding goes", "", "asked, bound, goes", "; knows 1/01; forgets 1/01"},
        {"with each of its bindings, in each place", "", "bound again, moves, goes", "knows 1/01, knows 1/01; forgets 1/01, knows 2/01; forgets 2/01"},
        {"an entry of the pool that is given to a waiting client", "one-node relay", "bound, waits", "knows 1/01; forgets 1/01"},
        {"without room it is tried again", "", "full bound", "knows 1/01, knows 1/01"},
        {"the trust of ports, and what takes it away", "", "trust, version, off", "trusts 1, trusts 2; limits 1; limits 2"},
        {"that of a VLAN's interface where a port does not snoop by itself", "vlan-if", "vlan-trust off", "limits 1, trusts 2"},
    };
    static Ticks now = ticks();
    ports = {{1, a_port(1, PortKind::port, 10)}, {2, a_port(2, PortKind::port, 10)}};
    ports[1].members.set(10), ports[2] = ports[1];
    const auto follow = [] {
        recorder.journal.clear();
        for (int part = 0; part < 40; part++)
            port_limits_follow(now += 100);
        return std::exchange(recorder.journal, "");
    };
    for (const auto &row : rows) {
        std::string told;
        prepare(row.before);
        port_limits_start(gDhcpsnoop.userMax);
        follow();
        for (bool first = true; const std::string &words : parts(row.steps, ',')) {
            std::istringstream in(words);
            for (std::string word; in >> word;)
                for (const Word &known : LIMITS)
                    if (word == known.word)
                        known.effect();
            told += (std::exchange(first, false) ? "" : "; ") + follow();
        }
        EXPECT_EQ(told, row.told) << row.claim;
    }
}

// "bindings-full swp1", whose counts have grown since the last call.
std::string newly()
{
    static std::map<std::string, uint64_t> known;
    std::string text;
    for (const RefusalCount &count : refusals())
        if (const std::string place = count.reason + (" " + count.place); std::exchange(known[place], count.total) != count.total)
            text += ", " + place;
    return text;
}

// clang-format off
const Word ROOM[] = {
    {"untrusted", [] { dhcpsnoop_if_lookup(2)->flags &= ~DHCPSNOOP_IF_TRUSTED; }},
    {"no-server", [] { memset(dhcpsnoop_if_lookup(1)->serverIp, 0, sizeof DhcpsnoopIf::serverIp); }},
    {"no-vlan-users", [] { dhcpsnoop_if_lookup(110)->maxUser = 0; }},
    {"both", [] { for (const uint32_t ifIndex : {1u, 2u}) set_flag_field(dhcpsnoop_if_lookup(ifIndex), DHCPSNOOP_IF_VERSION, 3); }},
};

TEST(Refusals, OfClientsMessages)
{
    const Bytes asked6 = client6(3, ia_na(iaaddr("2001:db8::100", 60))), more6 = client6(3, ia_na(iaaddr("2001:db8::100", 60) + iaaddr("2001:db8::101", 60)));
    const Bytes other = Message{.address = HOST + 1}.frame();
    const struct { const char *claim, *before; Bytes frame; const char *outcome; } ROWS[] = {
        {"room", "", other, "2 292 | .51 asked 1/10"},
        {"no entry left", "one-node bound", other, " | .50 bound 1/10, bindings-full swp1"},
        {"for a waiting client", "one-node bound relay", Message{.type = DISCOVER, .address = HOST + 1}.frame(), " | .50 bound 1/10, bindings-full swp1"},
        {"but for a known client", "one-node bound", Message{}.frame(), "2 292 | .50 bound 1/10"},
        {"a port's limit, its VLAN's", "no-users", other, ", users-limit swp1"},
        {"", "vlan-if no-vlan-users", other, ", users-limit swp110"},
        {"nobody is trusted", "untrusted", Message{.type = DISCOVER}.frame(), ", no-trusted-port swp1"},
        {"who relays needs a server", "untrusted relay no-server", Message{.type = DISCOVER}.frame(), " | waits 1, no-relay-server swp1"},
        {"", "untrusted relay", Message{.type = DISCOVER}.frame(), "relay 10.0.0.254 10.1.1.1:67 250, relay 10.0.0.254 10.3.3.3:67 250 | waits 1"},
        {"the checks of a client", "untrusted mac-check", Message{.chaddr = MAC_SERVER, .forged = true}.frame(), " | 1 drops mac 1, client-checks swp1"},
        {"", "untrusted check bound", Message{.ciaddr = HOST, .srcIp = HOST, .chaddr = MAC_SERVER}.frame(), " | .50 bound 1/10 | 1 drops binding 1, client-checks swp1"},
        {"a server without trust", "untrusted", Message{.type = OFFER}.frame(), " | 1 drops untrusted 1, untrusted-server swp1"},
        {"DHCPv6 leaves without a binding", "one-node bound both", asked6, "2 110 | .50 bound 1/10, bindings-full swp1"},
        {"", "one-node both", more6, "2 138 | :100 asked 1/10, bindings-full swp1"},
        {"", "both untrusted", asked6, " | :100 asked 1/10, no-trusted-port swp1"},
    };
    // clang-format on
    ports = {{1, a_port(1, PortKind::port, 10)}, {2, a_port(2, PortKind::port, 10)}, {110, a_port(110, PortKind::vlanInterface, 10)}};
    ports[1].members.set(10), ports[2] = ports[1];
    newly();
    for (const auto &row : ROWS) {
        prepare(row.before, ROOM);
        TakenFrame &frame = takenFrames[0];
        frame = {rx_packet(row.frame), true, false};
        receive(row.frame);
        const std::string texts = said(), text = outcome();
        frame.leaves = !sent_summary().empty();
        refused_frames_count();
        EXPECT_EQ(text + newly(), row.outcome) << row.claim;
        EXPECT_EQ(said(), texts) << row.claim;
    }
}

// One line a minute; the hour by minutes; the places that were refused last.
TEST(Refusals, AreLoggedAndKept)
{
    recorder = {};
    const Ticks start = ticks() / 60'000 * 60'000;
    for (const auto &[place, after] : {std::pair{"a", 1}, {"a", 2}, {"b", 3}})
        refusal_count(Refused::interfacesFull, place, start + after);
    refusals_log(start + 60'000);
    recorder.journal += "; ";
    refusals_log(start + 60'001);
    for (const char *text : {"\"a: the table of interfaces is full", "(refused: 1)\"; , \"b and others: ", "(refused: 2)\""})
        EXPECT_NE(recorder.journal.find(text), std::string::npos) << text << " in " << recorder.journal;
    for (int i = 1; i < 70; i++)
        refusal_count(Refused::interfacesFull, std::to_string(i).c_str(), start + i * 60'000);
    uint64_t places = 0, total = 0, lastHour = 0;
    for (const RefusalCount &count : refusals(start + 69 * 60'000))
        if (count.reason == std::string("interfaces-full"))
            places++, total += count.total, lastHour += count.lastHour;
    EXPECT_EQ(std::to_string(places) + " " + std::to_string(total) + " " + std::to_string(lastHour), "65 72 60");
}

} // namespace
