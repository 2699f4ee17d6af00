// The trap rules between the switch model and the guard: which ports it stands on, what becomes of a rule
// when ports and VLAN interfaces come and go. The guard is a recorder, the model a handful of ports.
#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bindings.h"
#include "guard.h"
#include "model.h"
#include "trap.h"

using namespace platform_linux;

namespace
{

struct Recorder {
    bool possible = true;
    bool alone = true; // no other daemon
    int addResult = 0;
    std::vector<std::string> journal;

    // What was asked of the guard since the last time.
    std::string take()
    {
        std::string text;
        for (const std::string &line : journal)
            text += line + "\n";
        journal.clear();
        return text;
    }
} recorder;

std::map<uint32_t, Port> ports;
std::vector<ModelWatcher> watchers;

std::string numbers(std::initializer_list<uint32_t> values)
{
    std::string text;
    for (const uint32_t value : values)
        text += " " + std::to_string(value);
    return text;
}

} // namespace

namespace platform_linux
{

bool guard_claim() { return recorder.alone; }

bool guard_open(uint32_t bindings, std::string &why, std::string &note)
{
    recorder.journal.push_back("open" + numbers({bindings}));
    why = recorder.possible ? "" : "said by the recorder";
    note = "";
    return recorder.possible;
}

void guard_close() { recorder.journal.push_back("close"); }

int guard_port_add(uint32_t ifIndex, uint16_t nativeVid)
{
    recorder.journal.push_back("add" + numbers({ifIndex, nativeVid}));
    return recorder.addResult;
}

void guard_port_remove(uint32_t ifIndex) { recorder.journal.push_back("remove" + numbers({ifIndex})); }

void guard_ports_complete() { recorder.journal.push_back("complete"); }

int guard_trap_port(uint32_t ifIndex, int family, bool on)
{
    recorder.journal.push_back("port" + numbers({ifIndex, static_cast<uint32_t>(family)}) + (on ? " on" : " off"));
    return ports.count(ifIndex) != 0 && ports.at(ifIndex).aggregate == 0 ? 0 : ENODEV;
}

int guard_trap_vlan(uint16_t vid, int family, bool on)
{
    recorder.journal.push_back("vlan" + numbers({vid, static_cast<uint32_t>(family)}) + (on ? " on" : " off"));
    return 0;
}

int guard_binding_add(const guard_binding_key &key)
{
    recorder.journal.push_back("bind" + numbers({key.ifindex}));
    return 0;
}

int guard_binding_remove(const guard_binding_key &key)
{
    recorder.journal.push_back("unbind" + numbers({key.ifindex}));
    return 0;
}

const Port *model_port(uint32_t ifIndex)
{
    const auto found = ports.find(ifIndex);
    return found == ports.end() ? nullptr : &found->second;
}

const std::map<uint32_t, Port> &model_ports() { return ports; }

void model_watch(ModelWatcher watcher) { watchers.push_back(watcher); }

} // namespace platform_linux

namespace
{

Port a_port(uint32_t ifIndex, PortKind kind, uint16_t vlan)
{
    Port port = {};
    port.ifIndex = ifIndex;
    port.kind = kind;
    port.up = true;
    (kind == PortKind::vlanInterface ? port.vlan : port.nativeVid) = vlan;
    return port;
}

void tell(ModelChange change, const Port &port, const Port *before = nullptr)
{
    if (change == ModelChange::vanished)
        ports.erase(port.ifIndex);
    else
        ports[port.ifIndex] = port;
    for (const ModelWatcher watcher : watchers)
        watcher(change, port, before);
}

// Ports 3 and 4 (4 in the aggregate 5), VLAN interface 10 of VLAN 100.
class TrapRules : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        recorder = Recorder();
        watchers.clear();
        ports.clear();
        ports[3] = a_port(3, PortKind::port, 1);
        ports[4] = a_port(4, PortKind::port, 1);
        ports[4].aggregate = 5;
        ports[5] = a_port(5, PortKind::aggregate, 7);
        ports[10] = a_port(10, PortKind::vlanInterface, 100);
        EXPECT_EQ(trap_start(300), 0);
    }

    void TearDown() override
    {
        for (const auto &[ifIndex, port] : ports)
            for (const int family : {4, 6})
                trap_set(ifIndex, family, false);
        for (const auto &[ifIndex, port] : std::map(ports))
            tell(ModelChange::vanished, port);
    }
};

TEST_F(TrapRules, StandOnPortsThatReceiveThemselves)
{
    EXPECT_EQ(recorder.take(), "open 600\nadd 3 1\nremove 4\nadd 5 7\nremove 10\ncomplete\n");
}

TEST_F(TrapRules, FollowTheModel)
{
    recorder.take();
    const Port fresh = a_port(6, PortKind::port, 9);
    tell(ModelChange::appeared, fresh);
    EXPECT_EQ(recorder.take(), "add 6 9\n");

    Port other = fresh;
    other.stp = StpState::blocking;
    tell(ModelChange::changed, other, &fresh);
    EXPECT_EQ(recorder.take(), "") << "nothing of its concern";

    Port native = fresh;
    native.nativeVid = 20;
    tell(ModelChange::changed, native, &fresh);
    EXPECT_EQ(recorder.take(), "add 6 20\n");

    Port member = fresh;
    member.aggregate = 5;
    tell(ModelChange::changed, member, &fresh);
    EXPECT_EQ(recorder.take(), "remove 6\n");
    tell(ModelChange::changed, fresh, &member);
    EXPECT_EQ(recorder.take(), "add 6 9\n");

    tell(ModelChange::vanished, fresh);
    EXPECT_EQ(recorder.take(), "remove 6\n");
}

TEST_F(TrapRules, OfAPortAreThePortsOwn)
{
    recorder.take();
    EXPECT_EQ(trap_set(3, 4, true), 0);
    EXPECT_EQ(trap_set(5, 6, true), 0);
    EXPECT_EQ(trap_set(3, 4, false), 0);
    EXPECT_EQ(recorder.take(), "port 3 4 on\nport 5 6 on\nport 3 4 off\n");
    EXPECT_EQ(trap_set(4, 4, true), ENODEV) << "a member of an aggregate";
    EXPECT_EQ(trap_set(99, 4, true), ENODEV);
    EXPECT_EQ(trap_set(99, 4, false), 0) << "what is not there is off";
}

TEST_F(TrapRules, OfAVlanInterfaceAreItsVlans)
{
    recorder.take();
    EXPECT_EQ(trap_set(10, 4, true), 0);
    EXPECT_EQ(trap_set(10, 6, true), 0);
    EXPECT_EQ(trap_set(10, 4, false), 0);
    EXPECT_EQ(recorder.take(), "vlan 100 4 on\nvlan 100 6 on\nvlan 100 4 off\n");
}

// The daemon is told nothing when a port leaves a bridge and comes back: its rule must be there again.
TEST_F(TrapRules, ComeBackWithTheirPort)
{
    ASSERT_EQ(trap_set(3, 4, true), 0);
    ASSERT_EQ(trap_set(3, 6, true), 0);
    ASSERT_EQ(trap_set(3, 4, false), 0);
    ASSERT_EQ(trap_set(10, 4, true), 0);
    const Port port = ports.at(3), vlan = ports.at(10);
    tell(ModelChange::vanished, port);
    tell(ModelChange::vanished, vlan);
    recorder.take();
    tell(ModelChange::appeared, port);
    tell(ModelChange::appeared, vlan);
    EXPECT_EQ(recorder.take(), "add 3 1\nport 3 6 on\nremove 10\nvlan 100 4 on\n");
    tell(ModelChange::vanished, port);
    EXPECT_EQ(trap_set(3, 6, false), 0);
    recorder.take();
    tell(ModelChange::appeared, port);
    EXPECT_EQ(recorder.take(), "add 3 1\n") << "taken back while it was away";
    EXPECT_EQ(trap_set(10, 4, false), 0);
}

// The device may go before the daemon takes its rule back: the VLAN must not stay cut off.
// Or a host with a binding would lose what it sends in between.
TEST_F(TrapRules, StandOnPortsWhoseBindingsAreThere)
{
    QorUserRecord record = {};
    record.ipType = DHCPSNOOP_IPV4;
    record.ruleFlags = DHCPSNOOP_HW_IPSG;
    record.ifIndex = 3;
    const QorIfRequest add = {QOR_USER_ADD, &record, {0, 0}}, remove = {QOR_USER_DELETE, &record, {0, 0}};
    ASSERT_EQ(binding_set(3, &add), 0);
    const Port port = ports.at(3);
    recorder.take();
    tell(ModelChange::vanished, port);
    EXPECT_EQ(recorder.take(), "remove 3\nunbind 3\n");
    tell(ModelChange::appeared, port);
    EXPECT_EQ(recorder.take(), "bind 3\nadd 3 1\n");
    EXPECT_EQ(binding_set(3, &remove), 0);
}

TEST_F(TrapRules, OfAVlanInterfaceGoWithIt)
{
    ASSERT_EQ(trap_set(10, 4, true), 0);
    const Port gone = ports.at(10);
    recorder.take();
    tell(ModelChange::vanished, gone);
    EXPECT_EQ(recorder.take(), "remove 10\nvlan 100 4 off\nvlan 100 6 off\n");
    recorder.take();
    EXPECT_EQ(trap_set(10, 4, false), 0);
    tell(ModelChange::appeared, gone);
    EXPECT_EQ(trap_set(10, 4, true), 0);
    EXPECT_EQ(recorder.take(), "port 10 4 off\nremove 10\nvlan 100 4 on\n");
}

TEST_F(TrapRules, AreSaidToBeImpossible)
{
    recorder.take();
    recorder.possible = false;
    watchers.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(trap_start(300), 0) << "the daemon runs all the same";
    EXPECT_NE(testing::internal::GetCapturedStderr().find("said by the recorder"), std::string::npos);
    EXPECT_EQ(recorder.take(), "open 600\n");
    EXPECT_TRUE(watchers.empty());
    recorder.alone = false;
    EXPECT_EQ(trap_start(300), EBUSY);
    EXPECT_EQ(recorder.take(), "") << "what another daemon has is left alone";
}

TEST_F(TrapRules, ThatCannotBeHadOnAPortAreSaid)
{
    recorder.addResult = EBUSY;
    testing::internal::CaptureStderr();
    Port port = a_port(6, PortKind::port, 9);
    std::string("swp6").copy(port.name, sizeof port.name);
    tell(ModelChange::appeared, port);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("swp6: no DHCP trap can be had on it"), std::string::npos);
    recorder.addResult = ENODEV;
    testing::internal::CaptureStderr();
    tell(ModelChange::appeared, port);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "gone again already";
}

} // namespace
