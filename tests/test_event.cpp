// Datagrams of platform events: the walk over messages and attributes, and what links and aggregates that
// come, go and join do to interfaces and bindings.
#include "daemon_test.h"
#include "event_message.h"

namespace
{

constexpr uint16_t NEWLINK = 16, DELLINK = 17, IPSG_CHANGE = 198, DAI_CHANGE = 199;
constexpr uint16_t JOINED = 38, CONFIGURED = 49, PORT_ADDED = 52, PORT_REMOVED = 53;
constexpr uint32_t PORT = 1, OTHER = 2, TRUNK = 8, VLAN_IF = 110;
constexpr uint32_t ON_PORT = ip4(10, 0, 0, 50), ON_TRUNK = ip4(10, 0, 0, 51), FIXED = ip4(10, 0, 0, 52);

// The texts of switching an interface off.
Lines off(uint32_t ifIndex)
{
    const auto line = [&](const char *rest) {
        return world_format("[DHCPSNOOP] Process user on interface %u, inet type 1, %s.\r\n", ifIndex, rest);
    };
    return {
        world_format("[DHCPSNOOP] Notify interface state to hwapi: unit %u, verion 1, state 0.\r\n", ifIndex),
        line("user type = 1, operate 2"), line("user type = 2, operate 0")};
}

using ::operator+; // of bytes

Lines operator+(Lines left, const Lines &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

const Lines NEW = {"[DHCPSNOOP] Receive RTM_NEWLINK message.\r\n"};
const Lines DEL = {"[DHCPSNOOP] Receive RTM_DELLINK message.\r\n"};

Lines about(const char *name, uint32_t ifIndex)
{
    return {world_format("[DHCPSNOOP] Receive %s message: ifindex %u.\r\n", name, ifIndex)};
}

Lines unknown(uint16_t type) { return {world_format("[DHCPSNOOP] Unknown rtm type %u!\r\n", type)}; }

// A copy of exactly that size, so that the sanitizer watches its ends.
int32_t deliver(Bytes datagram, std::optional<int32_t> length = {})
{
    const Bytes before = datagram;
    const int32_t result = dhcpsnoop_notify_recv(datagram.data(), length.value_or(static_cast<int32_t>(datagram.size())));
    EXPECT_EQ(datagram, before);
    return result;
}

class Events : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        world.access(PORT, 10);
        world.access(OTHER, 10);
        world.trunk(TRUNK, {10});
        world.vlan_interface(VLAN_IF, 10);
        for (const uint32_t ifIndex : {PORT, TRUNK, VLAN_IF})
            snoop(ifIndex);
        gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
        make_binding(ON_PORT, MAC_CLIENT, PORT, 10);
        make_binding(ON_TRUNK, MAC_CLIENT2, TRUNK, 10);
        make_binding(FIXED, MAC_CLIENT, PORT, 20)->userType = DHCPSNOOP_USER_STATIC;
        dhcpsnoop_if_lookup(PORT)->curUser = 1;
        world.clear();
    }
};

TEST_F(Events, Walk)
{
    const Bytes first = event_message(5), second = event_message(6);
    const Bytes odd = event_message(7, {0xEE}); // 17 bytes
    // claim, datagram, length, texts
    const std::tuple<const char *, Bytes, std::optional<int32_t>, Lines> rows[] = {
        {"nothing", {}, {}, {}},
        {"a failed receive", first, -1, {}},
        {"no whole header", Bytes(first.begin(), first.end() - 1), {}, {}},
        {"a header is enough", first, {}, unknown(5)},
        {"the datagram is what was received, not the buffer", first + second, 16, unknown(5)},
        {"a length field below the header's", event_message(5, {}, 15), {}, {}},
        {"a length field of 0", event_message(5, {}, 0), {}, {}},
        {"a length field beyond the datagram", event_message(5, {}, 17), {}, {}},
        {"a length field of nearly 4 GB", event_message(5, {}, 0xFFFFFFFD), {}, {}},
        {"a length field of 2 GB", event_message(5, {}, 0x80000010), {}, {}},
        {"two messages, in order", first + second, {}, unknown(5) + unknown(6)},
        {"the next message stands at a multiple of 4", odd + Bytes(3, 0) + second, {}, unknown(7) + unknown(6)},
        {"padding may be missing at the end", odd, {}, unknown(7)},
        {"padding may be cut short at the end", odd + Bytes(2, 0), {}, unknown(7)},
        {"15 bytes behind a message are none", first + Bytes(second.begin(), second.end() - 1), {}, unknown(5)},
        {"a second that is too long does not undo the first", first + event_message(6, {}, 17), {}, unknown(5)},
        {"a second that is too short ends the walk", first + event_message(6, {}, 4) + second, {}, unknown(5)},
    };
    for (const auto &[claim, datagram, length, texts] : rows) {
        SCOPED_TRACE(claim);
        const std::string before = world_state();
        for (const int flags : {1, 2}) {
            world.clear();
            debug(flags);
            EXPECT_EQ(deliver(datagram, length), 0);
            EXPECT_EQ(debug_texts(), texts);
        }
        debug(0);
        EXPECT_EQ(world_state(), before);
        EXPECT_EQ(world.calls(), Lines{});
    }
}

TEST_F(Events, Links)
{
    const auto link = [](const Bytes &attributes) { return link_message(NEWLINK, PORT, attributes); };
    const auto gone = [](uint32_t ifIndex) { return DEL + about("RTM_DELLINK", ifIndex) + off(ifIndex); };
    const Lines again = about("IFLA_PHYJOINAGG", PORT), joined = NEW + again + off(PORT);
    const Lines config = about("IFLA_SYNCCFG", PORT), other = {"[DHCPSNOOP] Unknown event 3!\r\n"};
    const Bytes short8 = Bytes{0, 0, 0, 0} + host32(PORT) + Bytes(7, 0); // a byte less than the header
    // claim, datagram, texts, the interface that is not there any more
    const std::tuple<const char *, Bytes, Lines, uint32_t> rows[] = {
        {"a port that goes is switched off", link_message(DELLINK, PORT), gone(PORT), PORT},
        {"a VLAN interface that goes is", link_message(DELLINK, VLAN_IF), gone(VLAN_IF), VLAN_IF},
        {"one without snooping is nobody's business", link_message(DELLINK, OTHER), DEL, 0},
        {"a message that ends before its header does, DELLINK", event_message(DELLINK, short8), DEL, 0},
        {"a message that ends before its header does, NEWLINK", event_message(NEWLINK, short8), NEW, 0},
        {"a header alone, NEWLINK", event_message(NEWLINK), NEW, 0},
        {"a header alone, DELLINK", event_message(DELLINK), DEL, 0},
        {"no attribute", link({}), NEW, 0},
        {"joining an aggregate switches off", link(link_attribute(JOINED)), joined, PORT},
        {"attributes of an interface without snooping are not read", link_message(NEWLINK, OTHER, link_attribute(JOINED) + link_attribute(3)), NEW, 0},
        {"joining twice switches off once", link(link_attribute(JOINED) + link_attribute(JOINED)), joined + again, PORT},
        {"configuration is only reported", link(link_attribute(CONFIGURED)), NEW + config, 0},
        {"others are reported by number", link(link_attribute(3, text_bytes("swp1"))), NEW + other, 0},
        {"an attribute of 5 bytes takes 8", link(link_attribute(3, {9}) + Bytes(3, 0) + link_attribute(CONFIGURED)), NEW + other + config, 0},
        {"without padding at the end of the message", link(link_attribute(CONFIGURED) + link_attribute(3, {9})), NEW + config + other, 0},
        {"3 bytes are no attribute", link({4, 0, 38}), NEW, 0},
        {"an attribute shorter than its header ends the walk", link(link_attribute(JOINED, {}, 3) + link_attribute(JOINED)), NEW, 0},
        {"an attribute of length 0 ends the walk", link(link_attribute(CONFIGURED) + link_attribute(JOINED, {}, 0)), NEW + config, 0},
        {"an attribute longer than the message ends the walk", link(link_attribute(JOINED, {}, 5)), NEW, 0},
        {"an attribute of 64 KB ends the walk", link(link_attribute(JOINED, Bytes(4, 0), 0xFFFF)), NEW, 0},
        {"the next message is no attribute of this one", link(link_attribute(JOINED, {}, 8)) + event_message(5), NEW + unknown(5), 0},
        {"nor is anything behind a message that is only a header's", event_message(NEWLINK, Bytes(4, 0) + host32(PORT) + Bytes(8, 0)) + host32(16 << 16 | 16) + host16(JOINED) + Bytes(10, 0), NEW, 0},
        {"two links, in order", link_message(NEWLINK, TRUNK, link_attribute(CONFIGURED)) + link_message(DELLINK, PORT), NEW + about("IFLA_SYNCCFG", TRUNK) + gone(PORT), PORT},
        {"what the first switched off is not there for the second", link_message(DELLINK, PORT) + link(link_attribute(CONFIGURED)), gone(PORT) + NEW, PORT},
    };
    for (const auto &[claim, datagram, texts, vanished] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        const std::string before = world_state();
        debug(2); // the traces of tables stay out
        deliver(datagram);
        EXPECT_EQ(debug_texts(), texts);
        debug(0);
        for (const uint32_t ifIndex : {PORT, VLAN_IF, TRUNK})
            EXPECT_EQ(dhcpsnoop_if_lookup(ifIndex) == nullptr, ifIndex == vanished);
        if (vanished == 0) {
            EXPECT_EQ(world_state(), before);
            EXPECT_EQ(world.calls(), Lines{});
        }
        EXPECT_EQ(world_check_tables(), "");
    }
}

TEST_F(Events, AnInterfaceThatGoesTakesItsBindingsAlong)
{
    world.ipsg[PORT] = {.items = 0x90};
    dhcpsnoop_user_update_hw(binding(FIXED), 1);
    world.clear();
    deliver(link_message(DELLINK, PORT));
    EXPECT_EQ(binding(ON_PORT), nullptr);
    EXPECT_NE(binding(ON_TRUNK), nullptr);
    ASSERT_NE(binding(FIXED), nullptr); // static ones stay and are withdrawn
    EXPECT_EQ(binding(FIXED)->hwFlags, 0);
    EXPECT_EQ(dhcpsnoop_if_lookup(VLAN_IF)->curUser, 1);
    EXPECT_EQ(world.calls("qorIfSetApi"), Lines{"qorIfSetApi 1 306 23"}); // the trap goes
    EXPECT_EQ(world.calls("hw delete").size(), 1u);

    world.clear();
    deliver(link_message(DELLINK, VLAN_IF)); // by VLAN, wherever they are
    EXPECT_EQ(binding(ON_TRUNK), nullptr);
    EXPECT_NE(binding(FIXED), nullptr);
}

TEST_F(Events, MembersOfAnAggregate)
{
    world.ipsg[OTHER] = {.items = 0x80};
    world.ipsg[TRUNK] = {.items = 0x40};
    const auto change = [](uint16_t attribute) {
        return link_message(NEWLINK, TRUNK, link_attribute(attribute, host32(OTHER)));
    };
    const std::string before = world_state();

    // A port joins an aggregate whose binding is not in hardware: it is installed for the port, and the table
    // goes on describing the aggregate.
    debug(1);
    deliver(change(PORT_ADDED));
    EXPECT_EQ(debug_texts()[1], about("IFLA_AGGADDPHY", TRUNK)[0]);
    EXPECT_EQ(debug_texts()[2], "[DHCPSNOOP] Process user on trunk interface 8, port 2, operate 1.\r\n");
    ASSERT_EQ(world.calls("hw ").size(), 1u);
    EXPECT_TRUE(world.calls()[0].starts_with("hw add 2: mac 00 00 00 00 00 00 vid 0 if 0 ipsg 0 addr 0a 00 00 33"));
    EXPECT_EQ(world.questions("qorIfGetApi"), Lines{"qorIfGetApi 8 65536285"});
    debug(0);
    EXPECT_EQ(world_state(), before);

    // Kept: what the aggregate has installed is not installed again for a port that joins.
    dhcpsnoop_user_update_hw(binding(ON_TRUNK), 1);
    const std::string installed = world_state();
    world.clear();
    deliver(change(PORT_ADDED));
    EXPECT_EQ(world.calls(), Lines{});

    // It is withdrawn for a port that leaves, with the aggregate's items.
    debug(1);
    deliver(change(PORT_REMOVED));
    EXPECT_EQ(debug_texts()[1], about("IFLA_AGGREMOVEPHY", TRUNK)[0]);
    EXPECT_EQ(debug_texts()[2], "[DHCPSNOOP] Process user on trunk interface 8, port 2, operate 0.\r\n");
    ASSERT_EQ(world.calls("hw ").size(), 1u);
    EXPECT_TRUE(world.calls()[0].starts_with("hw delete 2: mac 02 c1 00 00 00 02 vid 0 if 0"));
    debug(0);
    EXPECT_EQ(world_state(), installed);
}

TEST_F(Events, ThePlatformMaySayThatMembersDoNotFollow)
{
    // claim, result, count (as the platform leaves it; none = as it was, 1), follows
    const std::tuple<const char *, int32_t, std::optional<uint8_t>, bool> rows[] = {
        {"it leaves the count alone", 0, {}, true},
        {"it counts none", 0, 0, true},
        {"it counts two", 0, 2, false},
        {"it counts 255", 0, 255, false},
        {"it does not know", -1, 2, true},
    };
    for (const auto &[claim, result, count, follows] : rows) {
        for (const uint16_t attribute : {PORT_ADDED, PORT_REMOVED}) {
            SCOPED_TRACE(world_format("%s, attribute %u", claim, attribute));
            SetUp();
            world.ipsg[OTHER] = {.items = 0x80};
            if (attribute == PORT_REMOVED)
                binding(ON_TRUNK)->hwFlags = DHCPSNOOP_HW_IPSG;
            world.trunkQueryResult = result;
            world.trunkQueryCount = count;
            deliver(link_message(NEWLINK, TRUNK, link_attribute(attribute, host32(OTHER))));
            EXPECT_EQ(world.calls(attribute == PORT_ADDED ? "hw add 2" : "hw delete 2").size(), follows ? 1u : 0u);
        }
    }
}

TEST_F(Events, AttributesAfterTheInterfaceIsGone)
{
    const Bytes joined = link_attribute(JOINED), member = host32(OTHER);
    // claim, attributes, texts (behind those of the interface's end), calls
    const std::tuple<const char *, Bytes, Lines, size_t> rows[] = {
        // Kept: adding a port goes by the index alone.
        {"a port added to it is processed", joined + link_attribute(PORT_ADDED, member),
         about("IFLA_AGGADDPHY", TRUNK) + Lines{"[DHCPSNOOP] Process user on trunk interface 8, port 2, operate 1.\r\n"} +
             Lines{"[DHCPSNOOP] Add user in hwapi: port 2 ,vid 10 ,mac 02:c1:00:00:00:01 ,ip 10.0.0.53, checkitem 0x80.\r\n"},
         1},
        {"one removed from it is not", joined + link_attribute(PORT_REMOVED, member), about("IFLA_AGGREMOVEPHY", TRUNK), 0},
    };
    for (const auto &[claim, attributes, texts, calls] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        world.ipsg[OTHER] = {.items = 0x80};
        make_binding(ip4(10, 0, 0, 53), MAC_CLIENT, TRUNK, 10)->userType = DHCPSNOOP_USER_STATIC;
        debug(2);
        deliver(link_message(NEWLINK, TRUNK, attributes));
        EXPECT_EQ(debug_texts(), NEW + about("IFLA_PHYJOINAGG", TRUNK) + off(TRUNK) + texts);
        EXPECT_EQ(world.calls("hw ").size(), calls);
        EXPECT_EQ(dhcpsnoop_if_lookup(TRUNK), nullptr);
    }
}

TEST_F(Events, MemberIndexThatIsNotThere)
{
    world.ipsg[OTHER] = {.items = 0x80};
    binding(ON_TRUNK)->hwFlags = DHCPSNOOP_HW_IPSG;
    const std::string before = world_state();
    for (const uint16_t attribute : {PORT_ADDED, PORT_REMOVED}) {
        for (size_t bytes = 0; bytes < 4; bytes++) {
            SCOPED_TRACE(world_format("attribute %u with %zu bytes", attribute, bytes));
            world.clear();
            debug(1);
            deliver(link_message(NEWLINK, TRUNK, link_attribute(attribute, Bytes(bytes, 2))));
            EXPECT_EQ(debug_texts(), NEW + about(attribute == PORT_ADDED ? "IFLA_AGGADDPHY" : "IFLA_AGGREMOVEPHY", TRUNK));
            EXPECT_EQ(world.questions("qorIfGetApi"), Lines{});
            EXPECT_EQ(world.calls(), Lines{});
        }
    }
    debug(0);
    EXPECT_EQ(world_state(), before);
}

// Called with another length than the message's own, each handler keeps to the shorter of the two.
TEST_F(Events, HandlersAreBoundTwice)
{
    const Bytes newLink = link_message(NEWLINK, PORT, link_attribute(JOINED)),
                delLink = link_message(DELLINK, PORT),
                ipsg = event_message(IPSG_CHANGE, host32(PORT) + Bytes{0x90}),
                dai = event_message(DAI_CHANGE, host32(PORT) + Bytes{0x90});
    const auto cut = [](const Bytes &message) { // its own length field one short
        return host32(static_cast<uint32_t>(message.size() - 1)) + Bytes(message.begin() + 4, message.end());
    };
    const struct {
        const char *claim;
        void (*process)(uint8_t *message, int32_t length);
        Bytes message;
    } rows[] = {
        {"NEWLINK", dhcpsnoop_newlink_process, newLink},
        {"DELLINK", dhcpsnoop_dellink_process, delLink},
        {"IPSG_CHANGEDCHECKITEM", dhcpsnoop_ipsgchangeitem_process, ipsg},
        {"DAICHANGEDCHECKITEM", dhcpsnoop_daichangeitem_process, dai},
    };
    for (const auto &row : rows) {
        const auto payload = static_cast<int32_t>(row.message.size() - 16);
        const struct {
            const char *claim;
            Bytes message;
            int32_t length;
            bool acts;
        } lengths[] = {
            {"both right", row.message, payload, true},
            {"the argument longer", row.message, 4000, true},
            {"the argument one short", row.message, payload - 1, false},
            {"the argument 0", row.message, 0, false},
            {"the argument negative", row.message, -1, false},
            {"the message one short", cut(row.message), payload, false},
            {"the message's length below a header's", host32(3) + Bytes(row.message.begin() + 4, row.message.end()), payload, false},
            {"the message's length enormous", host32(0xFFFFFFFF) + Bytes(row.message.begin() + 4, row.message.end()), payload, true},
        };
        for (const auto &length : lengths) {
            SCOPED_TRACE(world_format("%s, %s", row.claim, length.claim));
            SetUp();
            const std::string before = world_state();
            Bytes message = length.message;
            row.process(message.data(), length.length);
            EXPECT_EQ(world_state() != before, length.acts);
        }
    }
}

TEST_F(Events, SendingGivesThePlatformsResult)
{
    const Bytes body(48, 0xB0);
    EXPECT_EQ(dhcpsnoop_notify_send(body.data(), 188), 0);
    world.refuse("qorNetlinkSend 16 0 72", 17, 1);
    EXPECT_EQ(dhcpsnoop_notify_send(body.data(), 0x12345), 17);
    EXPECT_EQ(hex(world.all(Did::Call)[1]->data), hex(host32(0) + host32(51) + host32(72) + host16(0x2345) + Bytes(10, 0) + body));
}

} // namespace
