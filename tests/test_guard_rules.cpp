// The bindings in the kernel's maps over the daemon's life: references, what a new run inherits and gives up,
// room, and the check items of ports that come and go.
#include "netns_test.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <bpf/bpf.h>

#include "classifier.h"
#include "guard.h"
#include "guard_pins.h"

using namespace platform_linux;

namespace
{

constexpr uint8_t ADDRESS = GUARD_CHECK_ADDRESS, MAC = GUARD_CHECK_MAC, VLAN = GUARD_CHECK_VLAN, PORT = GUARD_CHECK_PORT;

// Numbers in place of addresses: 0 = not an item of it.
guard_rule_key key_of(uint8_t address, uint8_t mac, uint8_t vid, uint8_t port, uint8_t kind = GUARD_IPV4)
{
    guard_rule_key key = {};
    key.kind = kind;
    key.mask = static_cast<uint8_t>((address ? ADDRESS : 0) | (mac ? MAC : 0) | (vid ? VLAN : 0) | (port ? PORT : 0));
    key.addr[3] = address;
    key.mac[5] = mac;
    key.vid = vid;
    key.ifindex = port;
    return key;
}

class GuardRules : public NetnsTest
{
  protected:
    void SetUp() override
    {
        NetnsTest::SetUp();
        if (IsSkipped())
            return;
        veth("p1", "c1");
        std::string why, note;
        if (!guard_open(4, why, note))
            GTEST_SKIP() << "needs eBPF: " << why;
    }
    void TearDown() override
    {
        guard_config_close();
        guard_close();
    }

    // The next daemon, with room for so many; gives its note.
    std::string restart(uint32_t room = 4)
    {
        std::string why, note;
        guard_close();
        EXPECT_TRUE(guard_open(room, why, note)) << why;
        return note;
    }

    static int map(const char *name)
    {
        const std::vector<std::string> directories = pins_all();
        const int fd = directories.empty() ? -1 : bpf_obj_get((directories[0] + "/" + name).c_str());
        EXPECT_GE(fd, 0) << name;
        return fd;
    }

    static guard_state state()
    {
        const int fd = map("guard_state");
        const uint32_t zero = 0;
        guard_state state = {};
        EXPECT_EQ(bpf_map_lookup_elem(fd, &zero, &state), 0);
        close(fd);
        return state;
    }

    // Does the classifier let it pass: installed by this run, or inherited?
    static bool counts(const guard_rule_key &key)
    {
        const int fd = map("guard_rules");
        guard_rule rule = {};
        const bool found = bpf_map_lookup_elem(fd, &key, &rule) == 0;
        close(fd);
        EXPECT_TRUE(!found || (state().masks >> (16 * key.kind + key.mask / 16) & 1)) << "nobody would look for it";
        return found && (rule.run == state().run || state().rules_until != 0);
    }
};

TEST_F(GuardRules, CountTheirReferences)
{
    const guard_rule_key key = key_of(0, 0, 0, 3);
    EXPECT_EQ(guard_rule_remove(key), ENOENT);
    EXPECT_EQ(guard_rule_add(key), 0);
    EXPECT_EQ(guard_rule_add(key), 0);
    EXPECT_EQ(guard_rule_remove(key), 0);
    EXPECT_TRUE(counts(key));
    EXPECT_EQ(guard_rule_remove(key), 0);
    EXPECT_FALSE(counts(key));
    EXPECT_EQ(state().masks, 0u);
    EXPECT_EQ(guard_rule_remove(key), ENOENT);
    EXPECT_EQ(guard_rule_add(key_of(0, 0, 0, 0)), EINVAL) << "it would let everybody pass";
}

TEST_F(GuardRules, EndWhenTheNextRunSaysOtherwise)
{
    const guard_rule_key old = key_of(5, 1, 10, 3);
    const struct {
        const char *claim;
        guard_rule_key old, fresh;
        bool stays;
    } rows[] = {
        {"the same binding", old, old, true},
        {"the address has another MAC", old, key_of(5, 2, 10, 3), false},
        {"the address is on another port", old, key_of(5, 1, 10, 4), false},
        {"the address, with fewer items", old, key_of(5, 0, 0, 3), false},
        {"the address of another kind", old, key_of(5, 2, 10, 3, GUARD_ARP), true},
        {"the MAC is on another port", old, key_of(6, 1, 10, 4), false},
        {"the MAC is on another port of another VLAN", old, key_of(6, 1, 20, 4), true},
        {"the MAC has one more address", old, key_of(6, 1, 10, 3), true},
        {"one more address, with more items", key_of(5, 1, 10, 0), key_of(6, 1, 10, 3), true},
        {"somebody else", old, key_of(6, 2, 10, 3), true},
        {"the host, without its address", key_of(0, 1, 10, 3), old, false},
        {"the host's port alone", key_of(0, 0, 0, 3), old, false},
        {"another port alone", key_of(0, 0, 0, 4), old, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        ASSERT_EQ(guard_rule_add(row.old), 0);
        EXPECT_NE(restart().find("1 binding rules of an earlier run count for 24 h"), std::string::npos);
        EXPECT_TRUE(counts(row.old));
        ASSERT_EQ(guard_rule_add(row.fresh), 0);
        EXPECT_TRUE(counts(row.fresh));
        EXPECT_EQ(counts(row.old), row.stays);
        EXPECT_EQ(guard_rule_remove(row.fresh), 0);
        EXPECT_EQ(guard_rule_add(row.old), 0);
        EXPECT_EQ(guard_rule_remove(row.old), 0) << "this run's own now";
        EXPECT_FALSE(counts(row.old));
        EXPECT_EQ(state().masks, 0u);
    }
}

TEST_F(GuardRules, OfARunBeforeEndWithTheirTime)
{
    ASSERT_EQ(guard_rule_add(key_of(5, 1, 10, 3)), 0);
    restart();
    guard_state over = state();
    over.rules_until = 1;
    const uint32_t zero = 0;
    const int fd = map("guard_state");
    ASSERT_EQ(bpf_map_update_elem(fd, &zero, &over, BPF_ANY), 0);
    close(fd);
    EXPECT_EQ(restart(), "");
    EXPECT_FALSE(counts(key_of(5, 1, 10, 3)));
}

// However often the daemon is started: one that nobody installs again does not get its time anew.
TEST_F(GuardRules, OfARunBeforeHaveTheirTimeOnce)
{
    const guard_rule_key ending = key_of(5, 1, 10, 3), fresh = key_of(6, 2, 10, 3);
    ASSERT_EQ(guard_rule_add(ending), 0);
    restart();
    EXPECT_NE(restart(), "");
    EXPECT_TRUE(counts(ending));
    const int fd = map("guard_rules");
    guard_rule rule = {};
    ASSERT_EQ(bpf_map_lookup_elem(fd, &ending, &rule), 0);
    rule.inherited_until -= GUARD_INHERIT_RULES_SECONDS + 1; // as if so much had gone by
    ASSERT_EQ(bpf_map_update_elem(fd, &ending, &rule, BPF_ANY), 0);
    close(fd);
    ASSERT_EQ(guard_rule_add(fresh), 0);
    restart();
    EXPECT_FALSE(counts(ending));
    EXPECT_TRUE(counts(fresh));
}

TEST_F(GuardRules, HaveTheRoomTheyWereGiven)
{
    for (uint8_t host = 1; host <= 4; host++)
        ASSERT_EQ(guard_rule_add(key_of(host, host, 10, 3)), 0);
    EXPECT_EQ(guard_rule_add(key_of(5, 5, 10, 3)), ENOSPC);
    EXPECT_FALSE(counts(key_of(5, 5, 10, 3)));
    restart();
    EXPECT_EQ(guard_rule_add(key_of(5, 5, 10, 3)), 0) << "an inherited one makes way";
    EXPECT_NE(restart(6).find("4 binding rules"), std::string::npos) << "they move into more room";
    for (const uint8_t host : {uint8_t{6}, uint8_t{7}})
        EXPECT_EQ(guard_rule_add(key_of(host, host, 10, 3)), 0);
    EXPECT_TRUE(counts(key_of(5, 5, 10, 3)));
    restart(2);
    EXPECT_TRUE(counts(key_of(7, 7, 10, 3))) << "and never into less";
}

TEST_F(GuardRules, AreOneDaemons)
{
    ASSERT_EQ(pins_all().size(), 1u);
    const int other = open(pins_all()[0].c_str(), O_RDONLY);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    EXPECT_FALSE(guard_claim());
    close(other);
    EXPECT_TRUE(guard_claim());
    const int late = open(pins_all()[0].c_str(), O_RDONLY);
    EXPECT_NE(flock(late, LOCK_EX | LOCK_NB), 0);
    close(late);
}

// The check items of a port are its device's: they survive the port, not the device.
TEST_F(GuardRules, CheckItemsAreTheDevices)
{
    const uint32_t port = index("p1");
    std::string why;
    ASSERT_EQ(guard_port_add(port, 1, PortVlans(6)), 0);
    ASSERT_TRUE(guard_config_open(why)) << why;
    guard_items items = {};
    items.ip = ADDRESS;
    ASSERT_EQ(guard_config_set({false, port}, items), 0);
    guard_port_remove(port);
    ASSERT_EQ(guard_port_add(port, 1, PortVlans(6)), 0);
    EXPECT_EQ(guard_config_get({false, port}).ip, ADDRESS) << "no port for a while";
    restart();
    ASSERT_EQ(guard_port_add(port, 1, PortVlans(6)), 0);
    guard_ports_complete();
    EXPECT_EQ(guard_config_get({false, port}).ip, ADDRESS) << "another daemon";
    EXPECT_EQ(guard_ports_refusals().count(port), 1u);
    const std::string again = "ip link del p1 && ip link add p1 index " + std::to_string(port) + " type veth peer name c1";
    guard_close();
    run(again);
    restart();
    ASSERT_EQ(guard_port_add(port, 1, PortVlans(6)), 0);
    EXPECT_EQ(guard_config_get({false, port}).ip, 0) << "another device of that number";
    ASSERT_EQ(guard_config_set({false, port}, items), 0);
    run("ip link del p1");
    guard_port_remove(port);
    EXPECT_EQ(guard_config_get({false, port}).ip, 0) << "the device has gone";
}

} // namespace
