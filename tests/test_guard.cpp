// The guard in a kernel, over the lives of daemons, ports and devices: a bridge of two ports in a namespace of its own, the frames that pass
// it, and the entries of the maps. Each row is a sequence of steps and all that they gave.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <span>
#include <sstream>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bpf/bpf.h>
#include <linux/capability.h>
#include <linux/rtnetlink.h>

#include "classifier.h"
#include "fd.h"
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

class Guard : public NetnsTest
{
  protected:
    void SetUp() override
    {
        NetnsTest::SetUp();
        if (IsSkipped())
            return;
        bridge_of_two();
        std::string why, note;
        if (!guard_open(8, why, note))
            GTEST_SKIP() << "needs eBPF: " << why;
    }
    void TearDown() override
    {
        guard_config_close();
        guard_close();
    }

    static Fd map(const char *name)
    {
        const std::vector<std::string> directories = pins_all();
        return Fd(directories.empty() ? -1 : bpf_obj_get((directories[0] + "/" + name).c_str()));
    }

    template <class Value>
    static Value read(const char *name, uint32_t key = 0)
    {
        Value value = {};
        bpf_map_lookup_elem(map(name).get(), &key, &value);
        return value;
    }

    static void change_state(const std::function<void(guard_state &)> &change)
    {
        guard_state state = read<guard_state>("guard_state");
        const uint32_t zero = 0;
        change(state);
        EXPECT_EQ(bpf_map_update_elem(map("guard_state").get(), &zero, &state, BPF_ANY), 0);
    }

    // "4:5/1/10/3": kind (4, 6 or a), then address, MAC, VLAN and port as numbers; 0 = not an item of it.
    static guard_rule_key key_of(const std::string &text)
    {
        unsigned address = 0, mac = 0, vid = 0, port = 0;
        sscanf(text.c_str() + 2, "%u/%u/%u/%u", &address, &mac, &vid, &port);
        guard_rule_key key = {};
        key.kind = text[0] == 'a' ? GUARD_ARP : text[0] == '6' ? GUARD_IPV6
                                                               : GUARD_IPV4;
        key.mask = static_cast<uint8_t>((address ? GUARD_CHECK_ADDRESS : 0) | (mac ? GUARD_CHECK_MAC : 0) | (vid ? GUARD_CHECK_VLAN : 0) | (port ? GUARD_CHECK_PORT : 0));
        key.addr[3] = static_cast<uint8_t>(address);
        key.mac[5] = static_cast<uint8_t>(mac);
        key.vid = static_cast<uint16_t>(vid);
        key.ifindex = port;
        return key;
    }

    // Does the classifier find it, installed by this run or inherited? As many as there are of this mask must be noted.
    static std::string has(const guard_rule_key &key)
    {
        guard_rule rule = {};
        const guard_state state = read<guard_state>("guard_state");
        const bool found = bpf_map_lookup_elem(map("guard_rules").get(), &key, &rule) == 0;
        const bool noted = (state.masks >> (16 * key.kind + key.mask / 16) & 1) != 0;
        return found && noted && (rule.run == state.run || state.rules_until != 0) ? "yes" : found ? "unnoted"
                                                                                                   : "no";
    }

    static std::string result(int error) { return error == 0 ? "" : strerrorname_np(error); }

    // The entries of guard_ports, guard_port_items and guard_refused.
    static std::string entries()
    {
        std::string counts;
        for (const char *name : {"guard_ports", "guard_port_items", "guard_refused"})
            counts += (counts.empty() ? "" : " ") + std::to_string(map_keys<uint32_t>(map(name).get()).size());
        return counts;
    }

    std::string step(const std::string &verb, std::istringstream &in)
    {
        std::string what, word, why, note;
        in >> what;
        const uint32_t found = if_nametoindex(what.c_str()), ifIndex = found != 0 ? found : 99999;
        if (verb == "sh" && std::getline(in, word))
            return run(what + word), "";
        if (verb == "restart" || verb == "close")
            guard_close(), guard_config_close();
        if (verb == "close")
            return "";
        if (verb == "restart")
            return guard_open(what.empty() ? 8 : number(what), why, note) ? note : why;
        if (verb == "claim")
            return guard_claim() ? "claimed" : "another's";
        if (verb == "dhcp") { // from client c1 to client c2
            Wire from("c1"), to("c2");
            Frame frame = discover();
            frame.dstPort = what == "dns" ? 53 : 67;
            frame.srcPort = what == "dns" ? 5353 : 68;
            from.send(frame.bytes());
            return to.receive() ? "passes" : "held";
        }
        if (verb == "add" && in >> word)
            return result(guard_port_add(ifIndex, static_cast<uint16_t>(number(word)), PortVlans(6)));
        if (verb == "remove")
            return guard_port_remove(ifIndex), "";
        if (verb == "complete")
            return guard_ports_complete(), "";
        if (verb == "trap" || verb == "free") {
            const int family = in >> word ? static_cast<int>(number(word)) : 4;
            return result(isalpha(what[0]) ? guard_trap_port(ifIndex, family, verb == "trap") : guard_trap_vlan(static_cast<uint16_t>(number(what)), family, verb == "trap"));
        }
        if (verb == "release") {
            const std::vector<std::string> directories = pins_all();
            trap_release(note);
            for (const std::string &directory : directories)
                note.replace(note.find(directory), directory.size(), "maps");
            return note;
        }
        if (verb == "filters") {
            const std::string shown = run("tc filter show dev " + what + " ingress; tc qdisc show dev " + what);
            const size_t ours = shown.find("handle 0xd4cf dhcpsnoop_guard");
            return std::string(ours == std::string::npos ? "" : shown.find("handle 0xd4cf", ours + 1) == std::string::npos ? "one"
                                                                                                                           : "many") +
                   (shown.find("u32") != std::string::npos ? " another's" : "") + (shown.find("clsact") != std::string::npos ? " qdisc" : "");
        }
        if (verb == "entries")
            return entries();
        if (verb == "items") { // checked on a port; read when nothing is to be written
            guard_items items = guard_config_open(why) ? guard_config_get({false, ifIndex}) : guard_items{};
            if (in >> word)
                items.ip = static_cast<uint8_t>(number(word)), guard_config_set({false, ifIndex}, items);
            return word.empty() ? std::to_string(items.ip) : "";
        }
        if (verb == "expired") // the time to inherit is over
            return change_state([](guard_state &state) { state.inherited_until = state.rules_until = 1; }), "";
        if (verb == "foreign") // the maps are of a namespace that is gone
            return change_state([](guard_state &state) { state.netns_cookie++; }), "";
        if (verb == "aged") { // a rule's time to be taken over
            const guard_rule_key key = key_of(what);
            guard_rule rule = {};
            bpf_map_lookup_elem(map("guard_rules").get(), &key, &rule);
            rule.inherited_until -= GUARD_INHERIT_RULES_SECONDS + 1;
            return bpf_map_update_elem(map("guard_rules").get(), &key, &rule, BPF_ANY), "";
        }
        if (verb == "+" || verb == "-")
            return result(verb == "+" ? guard_rule_add(key_of(what)) : guard_rule_remove(key_of(what)));
        return verb == "has" ? has(key_of(what)) : verb == "masks" ? std::to_string(read<guard_state>("guard_state").masks)
                                                                   : "unknown step " + verb;
    }

    // Steps are separated by ", ", what they gave by "; ".
    std::string play(const std::string &steps)
    {
        std::istringstream in(steps);
        std::string gave;
        for (std::string words, verb; std::getline(in, words, ',');) {
            std::istringstream line(words);
            line >> verb;
            if (const std::string got = step(verb, line); !got.empty())
                gave += (gave.empty() ? "" : "; ") + got;
        }
        return gave;
    }

    void play_rows(std::span<const GuardRow> rows)
    {
        for (const GuardRow &row : rows) {
            EXPECT_EQ(play(row.steps), row.outcome) << row.claim;
            TearDown();
            SetUp();
        }
    }

    static uint32_t number(const std::string &text) { return static_cast<uint32_t>(strtoul(text.c_str(), nullptr, 0)); }
};

#define TRAPS_HOLD(count) "traps of an earlier run on " count " ports and VLANs hold for 60 s unless they are set again"
#define RULES_COUNT(count) count " binding rules of an earlier run count for 24 h unless something else is learned"

// clang-format off
TEST_F(Guard, TrapsAndPorts)
{
    play_rows(std::vector<GuardRow>{
        {"a port's trap", "trap p1, add p1 1, dhcp, trap p1 6, dhcp, trap p1, dhcp, dhcp dns, free p1, dhcp", "ENODEV; passes; passes; held; passes; passes"},
        {"its VLAN's, and another native VLAN", "add p1 1, trap 1, dhcp, add p1 2, dhcp, add p1 1, free 1, dhcp", "held; passes; passes"},
        {"of a VLAN that it is no member of: it may come out anywhere", "add p1 3, dhcp, trap 2, dhcp, free 2, dhcp", "passes; held; passes"},
        {"no port any more", "add p1 1, trap p1, remove p1, dhcp, filters p1, trap p1, entries", "passes; ENODEV; 0 0 0"},
        {"no port, family or VLAN", "add p1 1, add none 1, trap none, trap p1 0, trap p1 1, trap p1 5, trap p1 10, trap 0, trap 4094, trap 4095, trap 10 5, dhcp, entries",
         "ENODEV; ENODEV; EINVAL; EINVAL; EINVAL; EINVAL; EINVAL; EINVAL; EINVAL; passes; 1 0 1"},
        {"taken off the port by somebody", "add p1 1, trap p1, sh tc qdisc del dev p1 clsact, dhcp, trap p1, dhcp, sh tc qdisc del dev p1 clsact, add p1 1, dhcp, sh ip link del p1, trap p1", "passes; held; held; ENODEV"},
        {"a daemon's end, and its successor's", "add p1 1, trap p1, close, dhcp, restart, add p1 1, complete, dhcp, filters p1, restart, add p1 1, dhcp, trap p1, free p1, dhcp",
         "held; " TRAPS_HOLD("1") "; held; one qdisc; " TRAPS_HOLD("1") "; held; passes"},
        {"a VLAN's", "add p1 1, trap 1, restart, add p1 1, dhcp, free 1, dhcp", TRAPS_HOLD("1") "; held; passes"},
        {"its end is not taken back", "add p1 1, trap p1, restart, add p1 1, expired, dhcp, restart, add p1 1, dhcp", TRAPS_HOLD("1") "; passes; passes"},
        {"maps of another shape", "add p1 1, close, sh cd /run/dhcpsnoop/bpf/*-*/ && rm guard_state && ln guard_ports guard_state, restart, add p1 1, trap p1, dhcp", "held"},
        {"of a namespace whose number was given away", "add p1 1, trap 1, foreign, restart, add p1 1, dhcp, trap 1, restart", "passes; " TRAPS_HOLD("1")},
        {"a device that was made anew", "add p1 1, trap p1, close, sh i=$(ip -o link show p1 | cut -d: -f1) && ip link del p1 && ip link add p1 index $i type veth peer name c1 && ip link set p1 up master br0 && ip link set c1 up, restart, add p1 1, dhcp", TRAPS_HOLD("1") "; passes"},
        {"no port any more for the next daemon", "add p1 1, add p2 1, trap p1, restart, add p2 1, complete, dhcp, filters p1, filters p2, entries", TRAPS_HOLD("1") "; passes; one qdisc; 1 0 1"},
        {"the release", "sh tc qdisc add dev p2 clsact, add p1 1, add p2 1, trap p1, close, dhcp, release, dhcp, filters p1, filters p2, release, sh ! find /run/dhcpsnoop/bpf -mindepth 1 -type d | grep .", "held; p1: classifier removed\np2: classifier removed\nmaps removed\n; passes;  qdisc"},
        {"a filter of somebody else", "add p1 1, sh tc filter add dev p1 ingress prio 5 protocol ip u32 match u32 0 0 flowid 1:1, close, release, filters p1", "p1: classifier removed\nmaps removed\n;  another's qdisc"},
    });
}

TEST_F(Guard, RulesAndItems)
{
    play_rows(std::vector<GuardRow>{
        {"references", "- 4:0/0/0/3, + 4:0/0/0/3, + 4:0/0/0/3, - 4:0/0/0/3, has 4:0/0/0/3, - 4:0/0/0/3, has 4:0/0/0/3, masks, - 4:0/0/0/3, + 4:0/0/0/0", "ENOENT; yes; no; 0; ENOENT; EINVAL"},
        {"the same again in the next run", "+ 4:5/1/10/3, + 4:5/1/10/3, restart, + 4:5/1/10/3, - 4:5/1/10/3, has 4:5/1/10/3, masks", RULES_COUNT("1") "; no; 0"},
        {"the address has another MAC", "+ 4:5/1/10/3, restart, has 4:5/1/10/3, + 4:5/2/10/3, has 4:5/2/10/3, has 4:5/1/10/3", RULES_COUNT("1") "; yes; yes; no"},
        {"it is on another port", "+ 4:5/1/10/3, restart, + 4:5/1/10/4, has 4:5/1/10/3", RULES_COUNT("1") "; no"},
        {"with fewer items", "+ 4:5/1/10/3, restart, + 4:5/0/0/3, has 4:5/1/10/3", RULES_COUNT("1") "; no"},
        {"of another kind", "+ 4:5/1/10/3, restart, + a:5/2/10/3, has 4:5/1/10/3", RULES_COUNT("1") "; yes"},
        {"the MAC is on another port", "+ 4:5/1/10/3, restart, + 4:6/1/10/4, has 4:5/1/10/3", RULES_COUNT("1") "; no"},
        {"of another VLAN; one more address; somebody else", "+ 4:5/1/10/3, restart, + 4:6/1/20/4, + 4:7/1/10/3, + 4:8/2/10/3, has 4:5/1/10/3", RULES_COUNT("1") "; yes"},
        {"one more address, with more items", "+ 4:5/1/10/0, restart, + 4:6/1/10/3, has 4:5/1/10/0", RULES_COUNT("1") "; yes"},
        {"the host without its address, its port alone, another port alone", "+ 4:0/1/10/3, + 4:0/0/0/3, + 4:0/0/0/4, restart, + 4:5/1/10/3, has 4:0/1/10/3, has 4:0/0/0/3, has 4:0/0/0/4", RULES_COUNT("3") "; no; no; yes"},
        {"their time is over", "+ 4:5/1/10/3, restart, expired, restart, has 4:5/1/10/3", RULES_COUNT("1") "; no"},
        {"however often a daemon starts, they have it once", "+ 4:5/1/10/3, restart, restart, has 4:5/1/10/3, aged 4:5/1/10/3, + 4:6/2/10/3, restart, has 4:5/1/10/3, has 4:6/2/10/3", RULES_COUNT("1") "; " RULES_COUNT("1") "; yes; " RULES_COUNT("1") "; no; yes"},
        {"room: none, made by an inherited one, more, and never less", "close, release, restart 2, + 4:1/1/10/3, + 4:2/2/10/3, + 4:3/3/10/3, has 4:3/3/10/3, restart 2, + 4:3/3/10/3, restart 3, + 4:4/4/10/3, has 4:3/3/10/3, restart 1, has 4:3/3/10/3, has 4:4/4/10/3",
         "maps removed\n; ENOSPC; no; " RULES_COUNT("2") "; " RULES_COUNT("2") "; yes; " RULES_COUNT("3") "; yes; yes"},
        {"a port's check items are its device's", "add p1 1, items p1 0x80, remove p1, add p1 1, items p1, restart, add p1 1, complete, items p1, entries", "128; 128; 1 1 1"},
        {"not those of another device of its number", "add p1 1, items p1 0x80, close, sh i=$(ip -o link show p1 | cut -d: -f1) && ip link del p1 && ip link add p1 index $i type veth peer name c1, restart, add p1 1, items p1", "0"},
        {"nor of one that has gone", "add p1 1, items p1 0x80, sh ip link del p1, complete, restart, complete, entries", "0 0 0"},
    });
}
// clang-format on

// What a dead daemon trapped stays trapped: nobody closes anything.
TEST_F(Guard, OutlivesTheDaemon)
{
    guard_close();
    const pid_t child = fork();
    if (child == 0) {
        play("restart, add p1 1, trap p1");
        kill(getpid(), SIGKILL);
    }
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(play("dhcp, restart, add p1 1, complete, dhcp, free p1, dhcp"), "held; " TRAPS_HOLD("1") "; held; passes");
}

// As many ports as share places in the map's hash table.
TEST_F(Guard, InheritsTheTrapsOfManyPorts)
{
    guard_port port = {};
    port.trap = GUARD_TRAP_V4;
    for (uint32_t i = 100000; i < 103000; i++)
        ASSERT_EQ(bpf_map_update_elem(map("guard_ports").get(), &i, &port, BPF_ANY), 0);
    EXPECT_EQ(play("restart"), TRAPS_HOLD("3000"));
    for (uint32_t i = 100000; i < 103000; i += 7)
        ASSERT_TRUE(read<guard_port>("guard_ports", i).trap == 0 && read<guard_port>("guard_ports", i).inherited == GUARD_TRAP_V4) << i;
    EXPECT_EQ(play("complete, entries"), "0 0 0") << "devices that are gone are forgotten";
}

TEST_F(Guard, IsOneDaemons)
{
    Fd other(open(pins_all().at(0).c_str(), O_RDONLY));
    ASSERT_EQ(flock(other.get(), LOCK_EX), 0);
    EXPECT_EQ(play("claim"), "another's");
    other.reset();
    EXPECT_EQ(play("claim"), "claimed");
    other.reset(open(pins_all().at(0).c_str(), O_RDONLY));
    EXPECT_NE(flock(other.get(), LOCK_EX | LOCK_NB), 0);
}

struct GoneRow {
    const char *claim, *comes, *goes; // shell commands, after each of which the daemon takes in the kernel's messages
};

const GoneRow GONE_ROWS[] = {
    {"deleted while it is up", "ip link set p9 up master br0", "ip link del p9"},
    {"deleted at its other end", "ip link set p9 up master br0", "ip link del c9"},
    {"deleted before the daemon takes anything in", "ip link set p9 up master br0 && ip link del p9", "true"},
    {"its namespace goes", "ip link set p9 up master br0", "ip netns add x && ip link set c9 netns x && ip netns del x && for i in $(seq 100)\ndo ip link show p9 2>/dev/null >&2 && sleep 0.05 || break\ndone"},
    {"moved to another namespace", "ip link set p9 up master br0", "ip netns add y && ip link set p9 netns y && ip link del c9"},
    {"leaves the bridge first", "ip link set p9 up master br0; ip link set p9 nomaster", "ip link del p9"},
    {"leaves the bridge and goes at once", "ip link set p9 up master br0", "ip link set p9 nomaster && ip link del p9"},
    {"the classifier could not be attached", "tc qdisc add dev p9 clsact && tc filter add dev p9 ingress prio 1 protocol ip u32 match u32 0 0; ip link set p9 up master br0", "ip link del p9"},
};

// A port that goes leaves no entry behind, whatever its way: 4,096 are all that the maps hold.
TEST_F(Guard, ForgetsDevicesThatAreGone)
{
    const Fd messages(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    sockaddr_nl links = {};
    links.nl_family = AF_NETLINK;
    links.nl_groups = RTMGRP_LINK;
    ASSERT_EQ(bind(messages.get(), reinterpret_cast<const sockaddr *>(&links), sizeof links), 0);
    guard_close();
    ASSERT_EQ(trap_start(8), 0);
    alignas(nlmsghdr) static uint8_t buffer[32768];
    const auto take_in = [&messages] {
        DaemonEvents told;
        for (ssize_t length; (length = recv(messages.get(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
            switch_model().feed({buffer, static_cast<size_t>(length)}, told);
    };
    const auto play_shell = [this, &take_in](const char *commands) {
        std::istringstream in(commands);
        for (std::string command; std::getline(in, command, ';'); take_in())
            run(command);
    };
    run("ip link set br0 type bridge stp_state 0 && ip link set br0 down && ip link set br0 up");
    take_in();
    for (const GoneRow &row : GONE_ROWS) {
        const std::string before = entries();
        run("ip link add p9 type veth peer name c9 && ip link set c9 up");
        const uint32_t ifIndex = index("p9");
        play_shell(row.comes);
        if (if_nametoindex("p9") != 0) {
            play("items p9 0x80");
            EXPECT_EQ(read<guard_items>("guard_port_items", ifIndex).ip, GUARD_CHECK_ADDRESS) << row.claim;
        }
        play_shell(row.goes);
        EXPECT_EQ(entries(), before) << row.claim;
    }
}

// In a child that keeps only the given capabilities, or has a namespace of its own.
int in_child(const std::function<bool()> &work, uint64_t kept = UINT64_MAX)
{
    const pid_t child = fork();
    if (child == 0) {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct sets[2] = {};
        for (size_t i = 0; i < 2; i++)
            sets[i].effective = sets[i].permitted = static_cast<uint32_t>(kept >> (32 * i));
        _exit((kept == UINT64_MAX || syscall(SYS_capset, &header, sets) == 0) && work() && !::testing::Test::HasFailure() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

// Two namespaces share a bpffs and not their maps.
TEST_F(Guard, KeepsToItsNamespace)
{
    EXPECT_EQ(play("add p1 1, trap 1"), "");
    EXPECT_EQ(in_child([this] { return unshare(CLONE_NEWNET) == 0 && play("restart, release") == "maps removed\n"; }), 0);
    EXPECT_EQ(play("dhcp"), "held");
}

// A service needs no more than three, once a bpffs is mounted for it; without one it runs and says what is lost.
TEST_F(Guard, NeedsThreeCapabilities)
{
    constexpr uint64_t NETWORK = uint64_t{1} << CAP_NET_ADMIN | uint64_t{1} << CAP_NET_RAW, BPF = uint64_t{1} << CAP_BPF;
    const auto gives = [this](const std::string &steps, const std::string &outcome, uint64_t kept) {
        return in_child([&] { const std::string gave = play(steps); return fprintf(stderr, "%s\n", gave.c_str()) > 0 && gave == outcome; }, kept);
    };
    EXPECT_EQ(gives("restart, add p1 1, trap p1, trap 1, complete, remove p1",
                    "bpf(2): Operation not permitted (it takes CAP_BPF, CAP_NET_ADMIN and CAP_NET_RAW in the initial user namespace); EOPNOTSUPP; EOPNOTSUPP; EOPNOTSUPP", NETWORK),
              0);
    EXPECT_EQ(play("dhcp"), "passes");
    EXPECT_EQ(gives("restart, add p1 1, trap p1", "", NETWORK | BPF), 0);
    EXPECT_EQ(play("dhcp"), "held");
    ASSERT_EQ(umount("/run/dhcpsnoop/bpf"), 0);
    EXPECT_EQ(gives("restart, add p1 1, trap p1", "no bpffs at /run/dhcpsnoop/bpf and none can be mounted: Operation not permitted; after a restart of the daemon DHCP passes and nothing is guarded until it is configured again", NETWORK | BPF), 0);
    EXPECT_EQ(play("dhcp, filters p1"), "held; one qdisc");
}

} // namespace
