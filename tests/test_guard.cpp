// The guard in a kernel: a bridge of two ports in a namespace of its own, and what becomes of the frames that
// come in on one of them, while the daemon runs, after it died, after it came back, and after the release.
#include "netns_test.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/capability.h>
#include <sys/syscall.h>

#include "classifier.h"
#include "guard.h"

using namespace platform_linux;

namespace
{

constexpr uint32_t ROOM = 8; // for bindings

class Guard : public NetnsTest
{
  protected:
    void SetUp() override
    {
        NetnsTest::SetUp();
        if (IsSkipped())
            return;
        bridge_of_two();
        port_ = index("p1");
        std::string why, note;
        if (!guard_open(ROOM, why, note))
            GTEST_SKIP() << "needs eBPF: " << why;
        EXPECT_EQ(note, "");
    }

    void TearDown() override { guard_close(); }

    // A new daemon: opens the guard and adds port p1. Gives the note.
    std::string start()
    {
        std::string why, note;
        EXPECT_TRUE(guard_open(ROOM, why, note)) << why;
        EXPECT_EQ(guard_port_add(port_, 1, PortVlans(6)), 0);
        return note;
    }

    // A daemon that runs `work` and is killed in the middle of it.
    void run_and_kill(const std::function<void()> &work)
    {
        guard_close();
        const pid_t child = fork();
        if (child == 0) {
            work();
            kill(getpid(), SIGKILL);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    }

    // Does the bridge forward a DISCOVER from client c1 to client c2?
    bool passes(const Bytes &frame = discover().bytes())
    {
        Wire from("c1"), to("c2");
        from.send(frame);
        return to.receive().has_value();
    }

    void change_state(const std::function<void(guard_state &)> &change)
    {
        std::string directory;
        std::istringstream(run("echo /run/dhcpsnoop/bpf/*-*")) >> directory;
        const int map = bpf_obj_get((directory + "/guard_state").c_str());
        const uint32_t zero = 0;
        guard_state state = {};
        ASSERT_EQ(bpf_map_lookup_elem(map, &zero, &state), 0) << directory;
        change(state);
        ASSERT_EQ(bpf_map_update_elem(map, &zero, &state, BPF_ANY), 0);
        close(map);
    }

    int filters(const std::string &device)
    {
        const std::string shown = run("tc filter show dev " + device + " ingress");
        int count = 0;
        for (size_t at = 0; (at = shown.find("handle 0xd4cf dhcpsnoop_guard", at)) != std::string::npos; at++)
            count++;
        return count;
    }

    bool has_qdisc(const std::string &device)
    {
        return run("tc qdisc show dev " + device).find("clsact") != std::string::npos;
    }

    uint32_t port_ = 0;
};

TEST_F(Guard, TakesAndReturnsThePort)
{
    EXPECT_EQ(guard_trap_port(port_, 4, true), ENODEV) << "not added yet";
    ASSERT_EQ(guard_port_add(port_, 1, PortVlans(6)), 0);
    EXPECT_TRUE(passes()) << "no trap";
    ASSERT_EQ(guard_trap_port(port_, 6, true), 0);
    EXPECT_TRUE(passes()) << "the other family's trap";
    ASSERT_EQ(guard_trap_port(port_, 4, true), 0);
    EXPECT_FALSE(passes());
    Frame dns = discover();
    dns.dstPort = 53, dns.srcPort = 5353;
    EXPECT_TRUE(passes(dns.bytes()));
    ASSERT_EQ(guard_trap_port(port_, 4, false), 0);
    EXPECT_TRUE(passes());

    ASSERT_EQ(guard_trap_vlan(1, 4, true), 0);
    EXPECT_FALSE(passes()) << "the trap of its native VLAN";
    ASSERT_EQ(guard_port_add(port_, 2, PortVlans(6)), 0);
    EXPECT_TRUE(passes()) << "its native VLAN is another now";
    ASSERT_EQ(guard_port_add(port_, 1, PortVlans(6)), 0);
    ASSERT_EQ(guard_trap_vlan(1, 4, false), 0);
    EXPECT_TRUE(passes());

    ASSERT_EQ(guard_trap_port(port_, 4, true), 0);
    guard_port_remove(port_);
    EXPECT_TRUE(passes()) << "no port any more";
    EXPECT_FALSE(has_qdisc("p1"));
    EXPECT_EQ(guard_trap_port(port_, 4, true), ENODEV);
}

TEST_F(Guard, RefusesWhatIsNoPortFamilyOrVlan)
{
    ASSERT_EQ(guard_port_add(port_, 1, PortVlans(6)), 0);
    EXPECT_EQ(guard_port_add(99999, 1, PortVlans(6)), ENODEV);
    EXPECT_EQ(guard_trap_port(99999, 4, true), ENODEV);
    for (const int family : {0, 1, 5, 10})
        EXPECT_EQ(guard_trap_port(port_, family, true), EINVAL) << family;
    EXPECT_EQ(guard_trap_vlan(0, 4, true), EINVAL);
    EXPECT_EQ(guard_trap_vlan(4094, 4, true), 0);
    EXPECT_EQ(guard_trap_vlan(4095, 4, true), EINVAL);
    EXPECT_EQ(guard_trap_vlan(10, 5, true), EINVAL);
    EXPECT_TRUE(passes());
}

TEST_F(Guard, ComesBackWhenItWasTakenOffThePort)
{
    ASSERT_EQ(guard_port_add(port_, 1, PortVlans(6)), 0);
    ASSERT_EQ(guard_trap_port(port_, 4, true), 0);
    run("tc qdisc del dev p1 clsact");
    EXPECT_TRUE(passes());
    ASSERT_EQ(guard_trap_port(port_, 4, true), 0);
    EXPECT_FALSE(passes());
    run("tc qdisc del dev p1 clsact");
    ASSERT_EQ(guard_port_add(port_, 1, PortVlans(6)), 0);
    EXPECT_FALSE(passes());
    run("ip link del p1");
    EXPECT_EQ(guard_trap_port(port_, 4, true), ENODEV);
}

// What a dead daemon trapped stays trapped, through its death and through the next one's start.
TEST_F(Guard, OutlivesTheDaemon)
{
    run_and_kill([this] {
        start();
        guard_trap_port(port_, 4, true);
    });
    EXPECT_FALSE(passes()) << "nobody runs";
    EXPECT_NE(start().find("traps of an earlier run on 1 ports and VLANs hold for 60 s"), std::string::npos);
    guard_ports_complete();
    EXPECT_FALSE(passes()) << "taken over";
    EXPECT_EQ(filters("p1"), 1) << "and not doubled";
    guard_close();
    EXPECT_NE(start(), "");
    EXPECT_FALSE(passes()) << "taken over once more while it holds";

    ASSERT_EQ(guard_trap_port(port_, 4, true), 0);
    ASSERT_EQ(guard_trap_port(port_, 4, false), 0);
    EXPECT_TRUE(passes()) << "the operator's off ends what was inherited too";
}

TEST_F(Guard, InheritsAVlansTrap)
{
    run_and_kill([this] {
        start();
        guard_trap_vlan(1, 4, true);
    });
    EXPECT_NE(start().find("on 1 ports and VLANs"), std::string::npos);
    EXPECT_FALSE(passes());
    guard_trap_vlan(1, 4, false);
    EXPECT_TRUE(passes());
}

// The second restart after the time was over does not bring back what had ended.
TEST_F(Guard, InheritsNothingThatHadEnded)
{
    run_and_kill([this] {
        start();
        guard_trap_port(port_, 4, true);
    });
    start();
    change_state([](guard_state &state) { state.inherited_until = 1; });
    EXPECT_TRUE(passes());
    EXPECT_EQ(start(), "");
    EXPECT_TRUE(passes());
}

// Maps that an older daemon left in another shape are replaced, not died of.
TEST_F(Guard, ReplacesMapsOfAnotherShape)
{
    run_and_kill([this] { start(); });
    std::string directory;
    std::istringstream(run("echo /run/dhcpsnoop/bpf/*-*")) >> directory;
    const std::string path = directory + "/guard_state";
    ASSERT_EQ(unlink(path.c_str()), 0);
    const int map = bpf_map_create(BPF_MAP_TYPE_ARRAY, "guard_state", 4, 4, 1, nullptr);
    ASSERT_EQ(bpf_obj_pin(map, path.c_str()), 0) << strerror(errno);
    close(map);
    EXPECT_EQ(start(), "");
    ASSERT_EQ(guard_trap_port(port_, 4, true), 0);
    EXPECT_FALSE(passes());
}

// As many ports as share places in the map's hash table.
TEST_F(Guard, InheritsTheTrapsOfManyPorts)
{
    run_and_kill([this] { start(); });
    constexpr uint32_t COUNT = 3000, FIRST = 100000;
    const auto with_map = [this](const std::function<void(int map)> &work) {
        std::string directory;
        std::istringstream(run("echo /run/dhcpsnoop/bpf/*-*")) >> directory;
        const int map = bpf_obj_get((directory + "/guard_ports").c_str());
        ASSERT_GE(map, 0) << directory;
        work(map);
        close(map);
    };
    with_map([](int map) {
        guard_port trapped = {};
        trapped.trap = GUARD_TRAP_V4;
        for (uint32_t i = FIRST; i < FIRST + COUNT; i++)
            ASSERT_EQ(bpf_map_update_elem(map, &i, &trapped, BPF_ANY), 0);
    });
    EXPECT_NE(start().find("on 3000 ports and VLANs"), std::string::npos);
    with_map([](int map) {
        for (uint32_t i = FIRST; i < FIRST + COUNT; i++) {
            guard_port port = {};
            ASSERT_EQ(bpf_map_lookup_elem(map, &i, &port), 0);
            ASSERT_TRUE(port.trap == 0 && port.inherited == GUARD_TRAP_V4) << i;
        }
    });
    guard_ports_complete();
    with_map([this](int map) {
        uint32_t key = 0, next = 0;
        ASSERT_EQ(bpf_map_get_next_key(map, nullptr, &key), 0);
        EXPECT_EQ(key, port_);
        EXPECT_NE(bpf_map_get_next_key(map, &key, &next), 0) << "devices that are gone are forgotten";
    });
}

// The number of a namespace that is gone is given to the next one; what is pinned under it is not.
TEST_F(Guard, InheritsNothingFromANamespaceThatIsGone)
{
    run_and_kill([this] {
        start();
        guard_trap_vlan(1, 4, true);
    });
    change_state([](guard_state &state) { state.netns_cookie++; });
    EXPECT_EQ(start(), "");
    EXPECT_TRUE(passes());
    ASSERT_EQ(guard_trap_vlan(1, 4, true), 0);
    guard_close();
    EXPECT_NE(start().find("on 1 ports and VLANs"), std::string::npos) << "its own are pinned again";
}

// The same index need not be the same device.
TEST_F(Guard, ForgetsADeviceThatWasMadeAnew)
{
    run_and_kill([this] {
        start();
        guard_trap_port(port_, 4, true);
    });
    run("ip link del p1");
    run("ip link add p1 index " + std::to_string(port_) + " type veth peer name c1");
    run("ip link set p1 up && ip link set c1 up && ip link set p1 master br0");
    ASSERT_EQ(index("p1"), port_);
    start();
    EXPECT_TRUE(passes());
}

TEST_F(Guard, LeavesDevicesThatAreNoPortsAnyMore)
{
    run_and_kill([this] {
        start();
        guard_port_add(index("p2"), 1, PortVlans(6));
        guard_trap_port(port_, 4, true);
    });
    std::string why, note;
    ASSERT_TRUE(guard_open(ROOM, why, note)) << why;
    ASSERT_EQ(guard_port_add(index("p2"), 1, PortVlans(6)), 0);
    guard_ports_complete();
    EXPECT_TRUE(passes());
    EXPECT_EQ(filters("p1"), 0);
    EXPECT_EQ(filters("p2"), 1);
}

TEST_F(Guard, ReleasesTheMachine)
{
    run("tc qdisc add dev p2 clsact"); // somebody else's
    run_and_kill([this] {
        start();
        guard_port_add(index("p2"), 1, PortVlans(6));
        guard_trap_port(port_, 4, true);
    });
    EXPECT_FALSE(passes());
    std::string report;
    EXPECT_TRUE(trap_release(report)) << report;
    EXPECT_NE(report.find("p1: classifier removed\n"), std::string::npos) << report;
    EXPECT_NE(report.find("p2: classifier removed\n"), std::string::npos) << report;
    EXPECT_TRUE(passes());
    EXPECT_FALSE(has_qdisc("p1"));
    EXPECT_TRUE(has_qdisc("p2"));
    EXPECT_EQ(run("find /run/dhcpsnoop/bpf -mindepth 1 -type d"), "");

    report.clear();
    EXPECT_TRUE(trap_release(report));
    EXPECT_EQ(report, "") << "nothing is left to remove";
}

// A filter of somebody else that came later keeps the queueing discipline, and its own place.
TEST_F(Guard, LeavesTheFiltersOfOthers)
{
    ASSERT_EQ(guard_port_add(port_, 1, PortVlans(6)), 0);
    run("tc filter add dev p1 ingress prio 5 protocol ip u32 match u32 0 0 flowid 1:1");
    guard_close();
    std::string report;
    EXPECT_TRUE(trap_release(report)) << report;
    EXPECT_EQ(filters("p1"), 0);
    EXPECT_NE(run("tc filter show dev p1 ingress").find("u32"), std::string::npos);
}

// Two namespaces share a bpffs and not their maps.
TEST_F(Guard, KeepsToItsNamespace)
{
    ASSERT_EQ(guard_port_add(port_, 1, PortVlans(6)), 0);
    ASSERT_EQ(guard_trap_vlan(1, 4, true), 0);
    const pid_t child = fork();
    if (child == 0) {
        std::string why, note, report;
        if (unshare(CLONE_NEWNET) != 0)
            _exit(10);
        if (!guard_open(ROOM, why, note) || !note.empty())
            _exit(11);
        _exit(trap_release(report) && report.find("removed") != std::string::npos ? 0 : 12);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_FALSE(passes());
}

// In a child that keeps only the given capabilities.
int with_capabilities(uint64_t kept, const std::function<int()> &work)
{
    const pid_t child = fork();
    if (child == 0) {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct sets[2] = {};
        for (size_t i = 0; i < 2; i++)
            sets[i].effective = sets[i].permitted = static_cast<uint32_t>(kept >> (32 * i));
        _exit(syscall(SYS_capset, &header, sets) == 0 ? work() : 100);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

constexpr uint64_t NETWORK = uint64_t{1} << CAP_NET_ADMIN | uint64_t{1} << CAP_NET_RAW,
                   BPF = uint64_t{1} << CAP_BPF;

TEST_F(Guard, SaysWhyThereIsNoTrap)
{
    guard_close();
    EXPECT_EQ(
        with_capabilities(
            NETWORK,
            [this] {
                std::string why, note;
                if (guard_open(ROOM, why, note))
                    return 1;
                if (why !=
                    "bpf(2): Operation not permitted (it takes CAP_BPF, CAP_NET_ADMIN and CAP_NET_RAW in the "
                    "initial user namespace)") {
                    fprintf(stderr, "%s\n", why.c_str());
                    return 2;
                }
                if (guard_port_add(port_, 1, PortVlans(6)) != EOPNOTSUPP || guard_trap_port(port_, 4, true) != EOPNOTSUPP ||
                    guard_trap_vlan(1, 4, true) != EOPNOTSUPP)
                    return 3;
                guard_ports_complete();
                guard_port_remove(port_);
                return 0;
            }),
        0);
    EXPECT_TRUE(passes());
}

// A service needs no more, once a bpffs is mounted for it; without one it runs and says what is lost.
TEST_F(Guard, NeedsThreeCapabilities)
{
    guard_close();
    const auto works = [this](bool pinned) {
        return with_capabilities(NETWORK | BPF, [this, pinned] {
            std::string why, note;
            if (!guard_open(ROOM, why, note) || guard_port_add(port_, 1, PortVlans(6)) != 0 ||
                guard_trap_port(port_, 4, true) != 0) {
                fprintf(stderr, "%s\n", why.c_str());
                return 1;
            }
            return note.empty() == pinned && (pinned || note.find("no bpffs at /run/dhcpsnoop/bpf") == 0) ? 0
                                                                                                          : 2;
        });
    };
    EXPECT_EQ(works(true), 0);
    EXPECT_FALSE(passes());
    ASSERT_EQ(umount("/run/dhcpsnoop/bpf"), 0);
    EXPECT_EQ(works(false), 0);
    EXPECT_FALSE(passes());
    EXPECT_EQ(filters("p1"), 1);
}

} // namespace
