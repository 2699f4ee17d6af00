// From the daemon's binding records to rules of the guard: what is checked, what handles stand for, what
// becomes of rules when ports go and come back. The guard is a recorder, the model a handful of ports.
#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "bindings.h"
#include "frame.h"
#include "guard.h"
#include "model.h"

using namespace platform_linux;

namespace
{
std::string journal;
int refusals = 0; // so many more adds find no room
std::map<uint32_t, Port> ports;
ModelWatcher watcher = nullptr;

std::string digits(const uint8_t *bytes, size_t count)
{
    std::string text = hex(Bytes(bytes, bytes + count));
    std::erase(text, ' ');
    return text;
}

int note(const char *what, const guard_binding_key &key)
{
    char text[32];
    snprintf(text, sizeof text, "%s %u %02x if%u vid%u ", what, key.kind, key.mask, key.ifindex, key.vid);
    journal += text + digits(key.mac, 6) + " " + digits(key.addr, key.kind == GUARD_IPV6 ? 16 : 4) + "\n";
    return *what == '+' && refusals > 0 && refusals-- > 0 ? ENOSPC : 0;
}
} // namespace

namespace platform_linux
{
int guard_binding_add(const guard_binding_key &key) { return note("+", key); }
int guard_binding_remove(const guard_binding_key &key) { return note("-", key); }
const Port *model_port(uint32_t ifIndex) { return ports.contains(ifIndex) ? &ports.at(ifIndex) : nullptr; }
void model_watch(ModelWatcher watched) { watcher = watched; }
} // namespace platform_linux

namespace
{

std::string take() { return std::exchange(journal, ""); }

// Ports 3 and 4 (4 in the aggregate 5), VLAN interface 6 of VLAN 20. Room for two bindings.
class Bindings : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ports.clear();
        refusals = 0;
        for (const uint32_t ifIndex : {3u, 4u, 5u, 6u})
            ports[ifIndex].ifIndex = ifIndex;
        ports[4].aggregate = 5;
        ports[6].kind = PortKind::vlanInterface;
        ports[6].vlan = 20;
        bindings_start(2);
        take();
    }

    static int32_t request(uintptr_t operation, uint32_t ifIndex, QorUserRecord &record)
    {
        const QorIfRequest request = {operation, &record, {0, 0}};
        return binding_set(ifIndex, &request);
    }
    static int32_t add(uint32_t ifIndex, QorUserRecord &record) { return request(QOR_USER_ADD, ifIndex, record); }
    static int32_t remove(uint32_t ifIndex, QorUserRecord &record) { return request(QOR_USER_DELETE, ifIndex, record); }

    // A record of 10.0.10.5 with check items, as the daemon makes it; 2001:db8::5 for IPv6.
    static QorUserRecord record(uint8_t items, uint8_t flags = DHCPSNOOP_HW_IPSG, uint8_t ipType = DHCPSNOOP_IPV4)
    {
        QorUserRecord made = {};
        made.ipType = ipType;
        made.ruleFlags = flags;
        if (items & GUARD_CHECK_MAC) {
            memcpy(made.mac, "\2\0\0\0\0\5", 6);
            made.macValid = 0x30;
        }
        if (items & GUARD_CHECK_VLAN)
            made.vid = made.origVid = 10;
        if (items & GUARD_CHECK_PORT)
            made.ifIndex = 3;
        if (items & GUARD_CHECK_ADDRESS) {
            const Bytes address = ipType == DHCPSNOOP_IPV4 ? hex_bytes("0a000a05") : hex_bytes("20010db8000000000000000000000005");
            memcpy(made.addr, address.data(), address.size());
            made.addrKind = ipType == DHCPSNOOP_IPV4 ? 0x20 : 0x80;
        }
        return made;
    }
};

const std::string FULL = " 1 f0 if3 vid10 020000000005 0a000a05\n";

TEST_F(Bindings, CheckWhatTheirRecordGives)
{
    const struct {
        uint8_t items, flags, ipType;
        const char *rule;
    } rows[] = {
        {0xF0, DHCPSNOOP_HW_IPSG, DHCPSNOOP_IPV4, "+ 1 f0 if3 vid10 020000000005 0a000a05\n"},
        {0x80, DHCPSNOOP_HW_IPSG, DHCPSNOOP_IPV4, "+ 1 80 if0 vid0 000000000000 0a000a05\n"},
        {0x40, DHCPSNOOP_HW_IPSG, DHCPSNOOP_IPV4, "+ 1 40 if0 vid0 020000000005 00000000\n"},
        {0x20, DHCPSNOOP_HW_IPSG, DHCPSNOOP_IPV4, "+ 1 20 if0 vid10 000000000000 00000000\n"},
        {0x10, DHCPSNOOP_HW_IPSG, DHCPSNOOP_IPV4, "+ 1 10 if3 vid0 000000000000 00000000\n"},
        {0x90, DHCPSNOOP_HW_IPSG, DHCPSNOOP_IPV4, "+ 1 90 if3 vid0 000000000000 0a000a05\n"},
        {0xF0, DHCPSNOOP_HW_IPSG, DHCPSNOOP_IPV6, "+ 2 f0 if3 vid10 020000000005 20010db8000000000000000000000005\n"},
        {0xF0, DHCPSNOOP_HW_DAI, DHCPSNOOP_IPV4, "+ 3 f0 if3 vid10 020000000005 0a000a05\n"},
        {0xF0, 0, DHCPSNOOP_IPV4, "+ 3 f0 if3 vid10 020000000005 0a000a05\n"}, // inspection not started
        {0xF0, DHCPSNOOP_HW_DAI, DHCPSNOOP_IPV6, ""},                          // no ARP for IPv6
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.rule);
        QorUserRecord made = record(row.items, row.flags, row.ipType);
        EXPECT_EQ(add(3, made), 0);
        EXPECT_EQ(take(), row.rule);
        uint32_t &handle = row.flags == DHCPSNOOP_HW_IPSG ? made.ipsgHwId : made.daiHwId;
        EXPECT_EQ(handle != 0, *row.rule != '\0');
        if (row.flags == 0)
            handle = 0; // the daemon does not give it back then
        EXPECT_EQ(remove(3, made), 0);
        EXPECT_EQ(take(), *row.rule != '\0' ? "-" + std::string(row.rule + 1) : "");
    }
}

TEST_F(Bindings, GoWithTheirHandleAndNoOther)
{
    QorUserRecord one = record(0x10), two = record(0x10), never = record(0x10);
    ASSERT_EQ(add(3, one), 0);
    ASSERT_EQ(add(3, two), 0);
    EXPECT_NE(one.ipsgHwId, two.ipsgHwId) << "two bindings, one rule twice";
    take();
    EXPECT_EQ(remove(3, never), 0);
    EXPECT_EQ(remove(5, one), 0) << "withdrawn for another port, with the handle of this one";
    EXPECT_EQ(take(), "");
    EXPECT_EQ(remove(3, one), 0);
    EXPECT_EQ(remove(3, one), 0) << "a spent handle";
    QorUserRecord three = record(0xF0);
    ASSERT_EQ(add(3, three), 0);
    EXPECT_EQ(remove(3, one), 0) << "whose place is another's now";
    EXPECT_EQ(take(), "- 1 10 if3 vid0 000000000000 00000000\n+" + FULL);
}

TEST_F(Bindings, GivenAgainAreInstalledOnce)
{
    QorUserRecord made = record(0x80);
    ASSERT_EQ(add(3, made), 0);
    const uint32_t handle = made.ipsgHwId;
    take();
    ASSERT_EQ(add(3, made), 0);
    EXPECT_EQ(take(), "") << "as it is";
    EXPECT_EQ(made.ipsgHwId, handle);
    QorUserRecord stricter = record(0xF0);
    stricter.ipsgHwId = handle;
    ASSERT_EQ(add(3, stricter), 0);
    EXPECT_EQ(take(), "+" + FULL + "- 1 80 if0 vid0 000000000000 0a000a05\n") << "with other items, without a gap";

    QorUserRecord unnamed = record(0xF0, 0);
    ASSERT_EQ(add(3, unnamed), 0);
    unnamed.daiHwId = 0;
    take();
    ASSERT_EQ(add(3, unnamed), 0);
    EXPECT_EQ(take(), "") << "before inspection starts, told by what it says";
}

TEST_F(Bindings, FollowTheirPort)
{
    QorUserRecord made = record(0xF0), member = record(0xF0);
    ASSERT_EQ(add(3, made), 0);
    EXPECT_EQ(add(4, member), 0) << "a member of an aggregate";
    EXPECT_EQ(member.ipsgHwId, 0u);
    EXPECT_EQ(add(99, member), ENODEV);
    take();
    const Port port = ports.at(3);
    watcher(ModelChange::vanished, port, nullptr);
    EXPECT_EQ(take(), "-" + FULL);
    watcher(ModelChange::appeared, port, nullptr);
    EXPECT_EQ(take(), "+" + FULL);
    Port joined = port;
    joined.aggregate = 5;
    watcher(ModelChange::changed, joined, &port);
    EXPECT_EQ(take(), "-" + FULL);
    EXPECT_EQ(remove(3, made), 0);
    watcher(ModelChange::changed, port, &joined);
    EXPECT_EQ(take(), "") << "withdrawn while it was away";
}

TEST_F(Bindings, HeldGoUnlessGivenAgain)
{
    QorUserRecord kept = record(0xF0), forgotten = record(0x80);
    ASSERT_EQ(add(3, kept), 0);
    ASSERT_EQ(add(3, forgotten), 0);
    take();
    bindings_hold_all();
    ASSERT_EQ(add(3, kept), 0);
    bindings_hold(Hold::checkItems, true);
    bindings_hold(Hold::checkItems, false);
    EXPECT_EQ(take(), "") << "all in force, also when check items change meanwhile";
    bindings_hold(Hold::takeOver, false);
    EXPECT_EQ(take(), "- 1 80 if0 vid0 000000000000 0a000a05\n");

    bindings_hold_all();
    watcher(ModelChange::vanished, ports.at(3), nullptr);
    watcher(ModelChange::appeared, ports.at(3), nullptr);
    EXPECT_EQ(take(), "-" + FULL) << "may be no more";
    ASSERT_EQ(add(3, kept), 0);
    EXPECT_EQ(take(), "+" + FULL);
    bindings_hold(Hold::takeOver, false);
    EXPECT_EQ(take(), "");

    bindings_hold(Hold::checkItems, true);
    QorUserRecord looser = record(0x80);
    looser.ipsgHwId = kept.ipsgHwId;
    ASSERT_EQ(remove(3, kept), 0);
    ASSERT_EQ(add(3, looser), 0);
    EXPECT_EQ(take(), "+ 1 80 if0 vid0 000000000000 0a000a05\n") << "beside the old one, by which the port still goes";
    bindings_hold_all();
    bindings_hold(Hold::takeOver, false);
    EXPECT_EQ(take(), "") << "nor when a role is taken over meanwhile";
    ASSERT_EQ(add(3, looser), 0);
    bindings_hold(Hold::checkItems, false);
    EXPECT_EQ(take(), "-" + FULL);
}

TEST_F(Bindings, HeldMakeRoom)
{
    QorUserRecord made = record(0xF0);
    ASSERT_EQ(add(3, made), 0);
    take();
    QorUserRecord looser = record(0x80);
    looser.ipsgHwId = made.ipsgHwId;
    const std::string rule = " 1 80 if0 vid0 000000000000 0a000a05\n";
    bindings_hold(Hold::checkItems, true);
    refusals = 1;
    ASSERT_EQ(add(3, looser), 0);
    EXPECT_EQ(take(), "+" + rule + "-" + FULL + "+" + rule) << "what it replaces, too";
    bindings_hold(Hold::checkItems, false);
    EXPECT_EQ(remove(3, looser), 0);
    EXPECT_EQ(take(), "-" + rule) << "and nothing is left";
}

// A static binding may be of a VLAN's interface, or of no port at all.
TEST_F(Bindings, HoldInAVlanOrEverywhere)
{
    QorUserRecord made = record(0xC0);
    made.ifIndex = 6;
    ASSERT_EQ(add(6, made), 0);
    EXPECT_EQ(take(), "+ 1 e0 if0 vid20 020000000005 0a000a05\n");
    QorUserRecord anywhere = record(0xE0);
    ASSERT_EQ(add(0, anywhere), 0);
    EXPECT_EQ(take(), "+ 1 e0 if0 vid10 020000000005 0a000a05\n");
}

TEST_F(Bindings, ThatCannotBeInstalledLeaveNothing)
{
    QorUserRecord made = record(0xF0), other = record(0x80);
    ASSERT_EQ(add(3, made), 0);
    const uint32_t handle = made.ipsgHwId;
    refusals = 2;
    other.ipsgHwId = handle;
    testing::internal::CaptureStderr();
    EXPECT_EQ(add(3, other), ENOSPC);
    EXPECT_EQ(add(3, other), ENOSPC);
    EXPECT_EQ(other.ipsgHwId, handle) << "the rule there was stays, and its handle";
    for (int i = 0; i < 3; i++) {
        QorUserRecord more = record(0xF0);
        EXPECT_EQ(add(3, more), 0);
    }
    take();
    QorUserRecord toomany = record(0x80);
    EXPECT_EQ(add(3, toomany), ENOSPC) << "four rules of two bindings";
    EXPECT_EQ(take(), "+ 1 80 if0 vid0 000000000000 0a000a05\n- 1 80 if0 vid0 000000000000 0a000a05\n");
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("no room for another binding"), std::string::npos);
    EXPECT_EQ(said.find("no room"), said.rfind("no room")) << "once";

    QorIfRequest wrong = {305, &made, {0, 0}};
    EXPECT_EQ(binding_set(3, &wrong), EINVAL);
    wrong = {QOR_USER_ADD, nullptr, {0, 0}};
    EXPECT_EQ(binding_set(3, &wrong), EINVAL);
    EXPECT_EQ(binding_set(3, nullptr), EINVAL);
}

} // namespace
