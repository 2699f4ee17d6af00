// The guard in a kernel, over the lives of daemons, ports and devices: a bridge of two ports in a namespace of its own, the frames that pass
// it, and the entries of the maps. Each row is a sequence of steps and all that they gave.
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <regex>
#include <sstream>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <thread>

#include <bpf/bpf.h>
#include <linux/capability.h>
#include <linux/rtnetlink.h>

#include "guard.h"
#include "guard_pins.h"
#include "map_keys.h"
#include "netns_test.h"
#include "switch_model.h"

using namespace platform_linux;

namespace
{

struct GuardRow {
    const char *claim, *steps, *outcome;
};

uint32_t number(const std::string &text) { return static_cast<uint32_t>(strtoul(text.c_str(), nullptr, 0)); }
std::string result(int error) { return error == 0 ? "" : strerrorname_np(error); }

Fd map(const char *name)
{
    const std::vector<std::string> directories = pins_all();
    return Fd(directories.empty() ? -1 : bpf_obj_get((directories[0] + "/" + name).c_str()));
}

template <class Value, class Key = uint32_t>
Value read(const char *name, const Key &key = 0)
{
    Value value = {};
    bpf_map_lookup_elem(map(name).get(), &key, &value);
    return value;
}

template <class Value, class Key>
void write(const char *name, const Key &key, const Value &value) { EXPECT_EQ(bpf_map_update_elem(map(name).get(), &key, &value, BPF_ANY), 0) << name; }

// "4:5/1/10/3": kind (4, 6 or a), then address, MAC, VLAN and port as numbers; 0 = not an item of it.
guard_rule_key key_of(const std::string &text)
{
    unsigned address = 0, mac = 0, vid = 0, port = 0;
    sscanf(text.c_str() + 2, "%u/%u/%u/%u", &address, &mac, &vid, &port);
    guard_rule_key key = {};
    key.kind = text[0] == 'a' ? GUARD_ARP : GUARD_IPV4;
    key.mask = static_cast<uint8_t>((address ? GUARD_CHECK_ADDRESS : 0) | (mac ? GUARD_CHECK_MAC : 0) | (vid ? GUARD_CHECK_VLAN : 0) | (port ? GUARD_CHECK_PORT : 0));
    key.addr[3] = static_cast<uint8_t>(address);
    key.mac[5] = static_cast<uint8_t>(mac);
    key.vid = static_cast<uint16_t>(vid);
    key.ifindex = port;
    return key;
}

// Does the classifier find it, installed by this run or inherited? As many as there are of this mask must be noted.
bool has(const guard_rule_key &key)
{
    const auto state = read<guard_state>("guard_state");
    const auto rule = read<guard_rule>("guard_rules", key);
    const bool noted = (state.masks >> (16 * key.kind + key.mask / 16) & 1) != 0;
    return rule.run != 0 && noted && (rule.run == state.run || state.rules_until != 0);
}

// From a raw socket of its own, whenever there is a c9.
void flood(const std::atomic<bool> &over)
{
    const Fd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    Frame frame;
    frame.srcPort = 67, frame.dstPort = 68;
    const Bytes offer = frame.bytes();
    sockaddr_ll to = {};
    to.sll_family = AF_PACKET;
    while (!over) {
        to.sll_ifindex = static_cast<int>(if_nametoindex("c9"));
        if (sendto(sock.get(), offer.data(), offer.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
            usleep(100);
    }
}

Fd listener(uint32_t groups)
{
    Fd sock(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    const sockaddr_nl address = {AF_NETLINK, 0, 0, groups};
    EXPECT_EQ(bind(sock.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    return sock;
}

class Guard : public GuardedBridge
{
  protected:
    void SetUp() override
    {
        GuardedBridge::SetUp();
        if (!IsSkipped())
            filters_ = listener(RTMGRP_TC);
    }
    void TearDown() override
    {
        guard_config_close();
        GuardedBridge::TearDown();
    }

    std::string step(const std::string &verb, std::istringstream &in)
    {
        std::string what, word, why, note;
        in >> what;
        const uint32_t found = if_nametoindex(what.c_str()), ifIndex = found != 0 ? found : 99999;
        guard_state state = read<guard_state>("guard_state");
        if (verb == "sh" && std::getline(in, word))
            return run(what + word);
        if (verb == "restart" || verb == "close")
            TearDown();
        if (verb == "restart")
            return guard_open(what.empty() ? 8 : number(what), why, note) ? note : why;
        if (verb == "dhcp") { // from client c1 to client c2
            Wire from("c1"), to("c2");
            Frame frame;
            frame.dstPort = what == "dns" ? 53 : 67;
            frame.srcPort = what == "dns" ? 5353 : 68;
            from.send(frame.bytes());
            return to.receive().empty() ? "held" : "passes";
        }
        if (verb == "add" && in >> word)
            return result(guard_port_add(ifIndex, static_cast<uint16_t>(number(word)), PortVlans(6)));
        if (verb == "remove")
            guard_port_remove(ifIndex, GUARD_LEFT_SECONDS);
        if (verb == "complete")
            guard_ports_complete();
        if (verb == "trapped") // so many, which are gone
            for (uint32_t absent = number(what); absent > 0; absent--)
                write("guard_ports", 100000 + absent, guard_port{0, 0, 0, GUARD_TRAP_V4, 0, 0, 0, {}, {}, {}, {}});
        if (verb == "heard") // the kernel's messages
            take_in();
        if (verb == "protect")
            guard_protect(what == "none" ? std::set<uint32_t>{} : std::set{ifIndex});
        if (verb == "flooded") { // by a server behind c9, while the commands run: do its OFFERs come to c2?
            std::atomic<bool> over = false;
            std::thread rogue(flood, std::cref(over));
            Wire to("c2");
            std::getline(in, word);
            for (int round = 0; round < 15; round++)
                for (const std::string &command : parts(what + word, ';'))
                    run(command), take_in();
            over = true;
            rogue.join();
            return to.receive().empty() ? "none" : "some";
        }
        if (verb == "attached") // the kernel's messages about filters since the last time, which are answered
            return filters_heard() != 0 ? "told" : "quiet";
        if (verb == "long-ago") { // it has left its bridge
            auto port = read<guard_port>("guard_ports", ifIndex);
            port.left_until = 1, write("guard_ports", ifIndex, port);
        }
        if (verb == "trap" || verb == "free") {
            const int family = in >> word ? static_cast<int>(number(word)) : 4;
            return result(isalpha(what[0]) ? guard_trap_port(ifIndex, family, verb == "trap") : guard_trap_vlan(static_cast<uint16_t>(number(what)), family, verb == "trap"));
        }
        if (verb == "release") {
            trap_release(note);
            return std::regex_replace(note, std::regex("/run/\\S+"), "maps");
        }
        if (verb == "entries")
            for (const char *name : {"guard_ports", "guard_port_items", "guard_refused", "guard_rates"})
                word += (word.empty() ? "" : " ") + std::to_string(map_keys<uint32_t>(map(name).get()).size());
        if (verb == "items") { // checked on a port; read when nothing is to be written
            guard_items items = guard_config_open(why) ? guard_config_get({false, ifIndex}) : guard_items{};
            if (in >> word)
                items.ip = static_cast<uint8_t>(number(word)), guard_config_set({false, ifIndex}, items);
            return word.empty() ? std::to_string(items.ip) : "";
        }
        if (verb == "expired") // the time to inherit is over
            state.inherited_until = state.rules_until = 1, write("guard_state", 0, state);
        if (verb == "foreign") // the maps are of a namespace that is gone
            state.netns_cookie++, write("guard_state", 0, state);
        if (verb == "aged") { // a rule's time to be taken over
            auto rule = read<guard_rule>("guard_rules", key_of(what));
            rule.inherited_until -= GUARD_INHERIT_RULES_SECONDS + 1;
            write("guard_rules", key_of(what), rule);
        }
        if (verb == "rate" && in >> word) // "1000/64/0", "default", or off by 0
            return result(guard_rate_set(ifIndex, {number(word), number(word.substr(word.find('/') + 1)), number(word.substr(word.rfind('/') + 1)), word == "default"}));
        if (verb == "trust" || verb == "distrust")
            guard_rate_trust(ifIndex, verb == "trust");
        if (verb == "limit") { // in force, and its buckets
            const auto rate = read<guard_rate>("guard_rates", ifIndex);
            const guard_buckets &buckets = rate.buckets;
            const uint64_t interval = std::max<uint64_t>(buckets.interval, 1);
            return std::to_string(buckets.interval) + " ns " + std::to_string(buckets.common_depth / interval) + "+" + std::to_string(buckets.known_depth / interval) + (rate.is_default ? "" : " set");
        }
        if (verb == "know" || verb == "unknow" || verb == "knows") { // a client of p1, by its MAC address's last byte
            const guard_known_key key = {if_nametoindex("p1"), {2, 0, 0, 0, 0, static_cast<uint8_t>(number(what))}, {}};
            if (verb == "unknow")
                guard_known_remove(static_cast<uint32_t>(key.ifindex), key.mac);
            if (verb == "know")
                return guard_known_add(static_cast<uint32_t>(key.ifindex), key.mac) ? "" : "no room";
            const auto known = read<guard_known>("guard_known", key);
            return verb == "unknow" ? "" : known.until != 0 ? "inherited"
                                                            : std::to_string(known.references);
        }
        if (verb == "+" || verb == "-")
            return result(verb == "+" ? guard_rule_add(key_of(what)) : guard_rule_remove(key_of(what)));
        return verb == "has" ? (has(key_of(what)) ? "yes" : "no") : verb == "masks" ? std::to_string(state.masks)
                                                                                    : word;
    }

    int filters_heard()
    {
        alignas(nlmsghdr) static uint8_t buffer[32768];
        int count = 0;
        for (ssize_t length; (length = recv(filters_.get(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0; count++)
            trap_heard({buffer, static_cast<size_t>(length)});
        while (trap_mend())
            ;
        return count;
    }

    void take_in()
    {
        DaemonEvents told;
        alignas(nlmsghdr) static uint8_t buffer[32768];
        for (ssize_t length; (length = recv(messages_.get(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
            switch_model().feed({buffer, static_cast<size_t>(length)}, told);
    }

    // Steps are separated by ", ", what they gave by "; ".
    std::string play(const std::string &steps)
    {
        std::string gave, verb;
        for (const std::string &words : parts(steps, ',')) {
            std::istringstream line(words);
            line >> verb;
            const std::string got = step(verb, line);
            gave += (gave.empty() || got.empty() ? "" : "; ") + got;
        }
        return gave;
    }

    // In a process with these capabilities alone.
    std::string play_elsewhere(const std::string &steps, uint64_t kept = UINT64_MAX)
    {
        return in_child([&] {
            __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
            const auto low = static_cast<uint32_t>(kept), high = static_cast<uint32_t>(kept >> 32);
            const __user_cap_data_struct sets[2] = {{low, low, 0}, {high, high, 0}};
            if (kept == UINT64_MAX || syscall(SYS_capset, &header, sets) == 0)
                dprintf(STDERR_FILENO, "%s; ", play(steps).c_str());
        });
    }

    void play_rows(const std::vector<GuardRow> &rows)
    {
        for (const GuardRow &row : rows) {
            EXPECT_EQ(play(row.steps), row.outcome) << row.claim;
            TearDown();
            SetUp();
        }
    }

    Fd messages_, filters_;
};

#define TRAPS_HOLD(count) "traps of an earlier run on " count " ports and VLANs hold for 60 s unless they are set again"
#define FILTERS(port) "sh { tc filter show dev " port " ingress; tc qdisc show dev " port "; } | grep -oE 'direct-action|flowid|clsact' | xargs echo -n"
#define FILTERS_OUT(port) "sh tc filter show dev " port " egress | grep -o dhcpsnoop_out | xargs echo -n"
#define RULES_COUNT(count) count " binding rules of an earlier run count for 24 h unless something else is learned"

TEST_F(Guard, TrapsAndPorts)
{
    play_rows({
        {"a port's trap", "trap p1, add p1 1, dhcp, trap p1 6, dhcp, trap p1, dhcp, dhcp dns, free p1, dhcp", "ENODEV; passes; passes; held; passes; passes"},
        {"its VLAN's, and another native VLAN", "add p1 1, trap 1, dhcp, add p1 2, dhcp, add p1 1, free 1, dhcp", "held; passes; passes"},
        {"of a VLAN that it is no member of: it may come out anywhere", "add p1 3, dhcp, trap 2, dhcp, free 2, dhcp", "passes; held; passes"},
        {"no port any more: the classifier stays, and its trap holds until it is long ago", "add p1 1, trap p1, attached, remove p1, dhcp, " FILTERS("p1") ", trap p1, entries, add p1 1, dhcp, remove p1, long-ago p1, dhcp, add p1 1, dhcp, remove p1, free p1, dhcp, attached",
         "told; held; direct-action clsact; ENODEV; 1 0 1 1; held; passes; held; passes; quiet"},
        {"no port, family or VLAN", "add p1 1, add none 1, trap none, trap p1 0, trap p1 1, trap p1 5, trap p1 10, trap 0, trap 4094, trap 4095, trap 10 5, dhcp, entries",
         "ENODEV; ENODEV; EINVAL; EINVAL; EINVAL; EINVAL; EINVAL; EINVAL; EINVAL; passes; 1 0 1 1"},
        {"taken off the port by somebody", "add p1 1, add p2 1, trap p1, attached, sh tc qdisc del dev p1 clsact, dhcp, attached, dhcp, sh tc filter del dev p1 ingress, attached, dhcp, sh ip link del p1, trap p1", "told; passes; told; held; told; held; ENODEV"},
        {"a daemon's end, and its successor's", "add p1 1, trap p1, close, dhcp, restart, add p1 1, complete, dhcp, " FILTERS("p1") ", restart, add p1 1, dhcp, trap p1, free p1, dhcp",
         "held; " TRAPS_HOLD("1") "; held; direct-action clsact; " TRAPS_HOLD("1") "; held; passes"},
        {"its end is not taken back", "add p1 1, trap p1, restart, add p1 1, expired, dhcp, restart, add p1 1, dhcp", TRAPS_HOLD("1") "; passes; passes"},
        {"maps of another shape", "add p1 1, close, sh cd /run/dhcpsnoop/bpf/*-*/ && rm guard_state && ln guard_ports guard_state, restart, add p1 1, trap p1, dhcp", "held"},
        {"of a namespace whose number was given away", "add p1 1, trap 1, foreign, restart, add p1 1, dhcp, trap 1, restart", "passes; " TRAPS_HOLD("1")},
        {"a device that was made anew", "add p1 1, trap p1, close, sh i=$(ip -o link show p1 | cut -d: -f1) && ip link del p1 && ip link add p1 index $i type veth peer name c1 && ip link set p1 up master br0 && ip link set c1 up, restart, add p1 1, dhcp", TRAPS_HOLD("1") "; passes"},
        {"no port any more for the next daemon", "add p1 1, add p2 1, trap p1, restart, add p2 1, complete, dhcp, " FILTERS("p1") ", " FILTERS("p2") ", entries", TRAPS_HOLD("1") "; passes; direct-action clsact; 1 0 1 2"},
        {"the release", "sh tc qdisc add dev p2 clsact, add p1 1, add p2 1, trap p1, close, dhcp, release, dhcp, " FILTERS("p1") ", " FILTERS("p2") ", release, sh ! find /run/dhcpsnoop/bpf -mindepth 1 -type d | grep .", "held; p1: classifier removed\np2: classifier removed\nmaps removed\n; passes; clsact"},
        {"as many ports as share places in the map's hash table", "trapped 3000, restart, complete, entries", TRAPS_HOLD("3000") "; 0 0 0 0"},
        {"a filter of somebody else", "add p1 1, sh tc filter add dev p1 ingress prio 5 protocol ip u32 match u32 0 0 flowid 1:1, close, release, " FILTERS("p1"), "p1: classifier removed\nmaps removed\n; flowid clsact"},
    });
}

TEST_F(Guard, RulesAndItems)
{
    play_rows({
        {"references", "- 4:0/0/0/3, + 4:0/0/0/3, + 4:0/0/0/3, - 4:0/0/0/3, has 4:0/0/0/3, - 4:0/0/0/3, has 4:0/0/0/3, masks, - 4:0/0/0/3, + 4:0/0/0/0", "ENOENT; yes; no; 0; ENOENT; EINVAL"},
        {"the same again in the next run", "+ 4:5/1/10/3, + 4:5/1/10/3, restart, + 4:5/1/10/3, - 4:5/1/10/3, has 4:5/1/10/3, masks", RULES_COUNT("1") "; no; 0"},
        {"the address has another MAC", "+ 4:5/1/10/3, restart, has 4:5/1/10/3, + 4:5/2/10/3, has 4:5/2/10/3, has 4:5/1/10/3", RULES_COUNT("1") "; yes; yes; no"},
        {"of another kind", "+ 4:5/1/10/3, restart, + a:5/2/10/3, has 4:5/1/10/3", RULES_COUNT("1") "; yes"},
        {"the MAC is on another port", "+ 4:5/1/10/3, restart, + 4:6/1/10/4, has 4:5/1/10/3", RULES_COUNT("1") "; no"},
        {"of another VLAN; one more address; somebody else", "+ 4:5/1/10/3, restart, + 4:6/1/20/4, + 4:7/1/10/3, + 4:8/2/10/3, has 4:5/1/10/3", RULES_COUNT("1") "; yes"},
        {"the host without its address, its port alone, another port alone", "+ 4:0/1/10/3, + 4:0/0/0/3, + 4:0/0/0/4, restart, + 4:5/1/10/3, has 4:0/1/10/3, has 4:0/0/0/3, has 4:0/0/0/4", RULES_COUNT("3") "; no; no; yes"},
        {"their time is over", "+ 4:5/1/10/3, restart, expired, restart, has 4:5/1/10/3", RULES_COUNT("1") "; no"},
        {"however often a daemon starts, they have it once", "+ 4:5/1/10/3, restart, restart, has 4:5/1/10/3, aged 4:5/1/10/3, + 4:6/2/10/3, restart, has 4:5/1/10/3, has 4:6/2/10/3", RULES_COUNT("1") "; " RULES_COUNT("1") "; yes; " RULES_COUNT("1") "; no; yes"},
        {"room: none, made by an inherited one, more, and never less", "close, release, restart 2, + 4:1/1/10/3, + 4:2/2/10/3, + 4:3/3/10/3, has 4:3/3/10/3, restart 2, + 4:3/3/10/3, restart 3, + 4:4/4/10/3, has 4:3/3/10/3, restart 1, has 4:3/3/10/3, has 4:4/4/10/3",
         "maps removed\n; ENOSPC; no; " RULES_COUNT("2") "; " RULES_COUNT("2") "; yes; " RULES_COUNT("3") "; yes; yes"},
        {"a port's check items are its device's", "add p1 1, items p1 0x80, remove p1, add p1 1, items p1, restart, add p1 1, complete, items p1, entries", "128; 128; 1 1 1 1"},
        {"not those of another device of its number", "add p1 1, items p1 0x80, close, sh i=$(ip -o link show p1 | cut -d: -f1) && ip link del p1 && ip link add p1 index $i type veth peer name c1, restart, add p1 1, items p1", "0"},
    });
}

#define LIMIT "3906250 ns 128+128"
#define ANEW "sh i=$(ip -o link show p1 | cut -d: -f1) && ip link del p1 && ip link add p1 index $i type veth peer name c1"

TEST_F(Guard, LimitsAndKnownClients)
{
    play_rows({
        {"a default follows the trust, and a setting does not", "rate p1 9/64/0, add p1 1, limit p1, trust p1, limit p1, rate p1 1000/64/0, limit p1, distrust p1, limit p1, rate p1 0, limit p1, rate p1 default, limit p1, trust p1, limit p1",
         "ENODEV; " LIMIT "; 0 ns 0+0; 1000000 ns 64+0 set; 1000000 ns 64+0 set; 0 ns 0+0 set; " LIMIT "; 0 ns 0+0"},
        {"the largest and the smallest", "add p1 1, rate p1 100000/65535/65535, limit p1, rate p1 1/65535/65535, limit p1", "10000 ns 65535+65535 set; 1000000000 ns 65535+65535 set"},
        {"a setting is its device's, over restarts, another name, down and up, another bridge", "add p1 1, add p2 1, rate p1 1000/64/0, trust p2, restart, add p1 1, add p2 1, complete, limit p1, limit p2, sh ip link set p1 down name q1 && ip link set q1 name p1 up nomaster, remove p1, add p1 2, limit p1",
         "1000000 ns 64+0 set; 0 ns 0+0; 1000000 ns 64+0 set"},
        {"not that of another device of its number, nor are its clients", "add p1 1, rate p1 1000/64/0, know 5, close, " ANEW ", restart, add p1 1, limit p1, knows 5", LIMIT "; 0"},
        {"of two bindings; the next run knows the client for a time", "know 5, know 5, unknow 5, knows 5, restart, knows 5, unknow 5, knows 5, know 5, knows 5, unknow 5, knows 5", "1; inherited; inherited; 1; 0"},
        {"room: of earlier runs; a larger daemon knows none", "close, release, restart 2, know 1, know 2, know 3, restart 2, know 3, knows 3, knows 1, restart 9, knows 3", "maps removed\n; no room; 1; 0; 0"},
    });
}

TEST_F(Guard, IsOneDaemons)
{
    const Fd other(open(pins_all().at(0).c_str(), O_RDONLY));
    ASSERT_EQ(flock(other.get(), LOCK_EX), 0);
    EXPECT_FALSE(guard_claim());
    ASSERT_EQ(flock(other.get(), LOCK_UN), 0);
    EXPECT_TRUE(guard_claim());
    EXPECT_NE(flock(other.get(), LOCK_EX | LOCK_NB), 0);
}

#define PORT_UP "sh ip link set p9 up master br0, heard, items p9 0x80, items p9, "
// Between the coming of a device p9 and the daemon's look at what is left.
const GuardRow GONE_ROWS[] = {
    {"deleted while it is up", PORT_UP "sh ip link del p9", "128"},
    {"deleted before the daemon takes anything in", "sh ip link set p9 up master br0 && ip link del p9", ""},
    {"its namespace goes", PORT_UP "sh ip netns add x && ip link set c9 netns x && ip netns del x && for i in $(seq 100); do ip link show p9 2>/dev/null >&2 && sleep 0.05 || break; done", "128"},
    {"moved to another namespace", PORT_UP "sh ip netns add y && ip link set p9 netns y && ip link del c9", "128"},
    {"leaves the bridge first", PORT_UP "sh ip link set p9 nomaster, heard, items p9, sh ip link del p9", "128; 128"},
    {"leaves the bridge and goes at once", PORT_UP "sh ip link set p9 nomaster && ip link del p9", "128"},
    {"the classifier could not be attached", "sh tc qdisc add dev p9 clsact && tc filter add dev p9 ingress prio 1 protocol ip u32 match u32 0 0, heard, " PORT_UP "sh ip link del p9", "128"},
};

// A port that goes leaves no entry behind, whatever its way: 4,096 are all that the maps hold.
TEST_F(Guard, ForgetsDevicesThatAreGone)
{
    messages_ = listener(RTMGRP_LINK);
    guard_close();
    ASSERT_EQ(trap_start(8), 0);
    const std::string before = play("sh ip link set br0 type bridge stp_state 0 && ip link set br0 down && ip link set br0 up, heard, entries");
    for (const GuardRow &row : GONE_ROWS) {
        EXPECT_EQ(play(std::string("sh ip link add p9 type veth peer name c9 && ip link set c9 up, ") + row.steps + ", heard"), row.outcome) << row.claim;
        EXPECT_EQ(play("entries"), before) << row.claim;
    }
}

#define COMES_AND_GOES "flooded ip link add p9 master br0 type veth peer name c9 && ip link set p9 up && ip link set c9 up; ip link del p9, "
#define LEAVES_AND_RETURNS "flooded ip link set p9 nomaster; ip link set p9 master br0, "
#define IS_RENAMED "flooded ip link set p9 down && ip link set p9 name q9 up; ip link set q9 down && ip link set q9 name p9 up, "
#define COMES_OVER "sh ip link add br9 up type bridge && ip link set p9 master br9, heard, flooded ip link set p9 master br0, "

// Nothing is forwarded from a port before its traps stand, on a protected bridge: the daemon is always late.
TEST_F(Guard, KeepsUnknownDevicesFromProtectedBridges)
{
    messages_ = listener(RTMGRP_LINK);
    guard_close();
    ASSERT_EQ(trap_start(8), 0);
    EXPECT_EQ(play("sh for i in br0 p1 p2 c1 c2; do ip link set $i alias told; done, heard, trap 1, " COMES_AND_GOES
                   "protect br0, " COMES_AND_GOES "sh ip link add p9 master br0 type veth peer name c9 && ip link set p9 up && ip link set c9 up, heard, " LEAVES_AND_RETURNS IS_RENAMED COMES_OVER
                   "free 1, dhcp, " FILTERS_OUT("p1") ", " FILTERS_OUT("c1") ", protect none, " FILTERS_OUT("p1")),
              "some; none; none; none; none; passes; dhcpsnoop_out dhcpsnoop_out");
}

// Two namespaces share a bpffs and not their maps.
TEST_F(Guard, KeepsToItsNamespace)
{
    EXPECT_EQ(play("add p1 1, trap 1"), "");
    EXPECT_EQ(in_child([this] { EXPECT_TRUE(unshare(CLONE_NEWNET) == 0 && play("restart, release") == "maps removed\n"); }), "status 99");
    EXPECT_EQ(play("dhcp"), "held");
}

// A service needs no more than three, once a bpffs is mounted for it; without one it runs and says what is lost.
TEST_F(Guard, NeedsThreeCapabilities)
{
    constexpr uint64_t NETWORK = uint64_t{1} << CAP_NET_ADMIN | uint64_t{1} << CAP_NET_RAW, BPF = uint64_t{1} << CAP_BPF;
    EXPECT_EQ(play_elsewhere("restart, add p1 1, trap p1, trap 1, complete, remove p1", NETWORK),
              "bpf(2): Operation not permitted (it takes CAP_BPF, CAP_NET_ADMIN and CAP_NET_RAW in the initial user namespace); EOPNOTSUPP; EOPNOTSUPP; EOPNOTSUPP; status 99");
    EXPECT_EQ(play("dhcp"), "passes");
    EXPECT_EQ(play_elsewhere("restart, add p1 1, trap p1", NETWORK | BPF), "; status 99");
    EXPECT_EQ(play("dhcp"), "held");
    ASSERT_EQ(umount("/run/dhcpsnoop/bpf"), 0);
    EXPECT_EQ(play_elsewhere("restart, add p1 1, trap p1", NETWORK | BPF),
              "no bpffs at /run/dhcpsnoop/bpf and none can be mounted: Operation not permitted; after a restart of the daemon DHCP passes and nothing is guarded until it is configured again; status 99");
    EXPECT_EQ(play("dhcp, " FILTERS("p1")), "held; direct-action clsact");
}

} // namespace
