// Events about enforcement: check items that change on a port or VLAN, ARP inspection that starts and stops,
// users to be announced again.
#include "daemon_test.h"
#include "event_message.h"

namespace
{

constexpr uint16_t DAI_START = 123, DAI_STOP = 124, USERS_UPDATE = 190, IPSG_CHANGE = 198, DAI_CHANGE = 199;
constexpr uint32_t PORT = 1, OTHER = 2, VLAN_IF = 110;
constexpr uint32_t HOST = ip4(10, 0, 0, 50);

void deliver(Bytes datagram) { dhcpsnoop_notify_recv(datagram.data(), static_cast<int32_t>(datagram.size())); }

Bytes items_message(uint16_t type, uint32_t ifIndex, uint8_t items)
{
    return event_message(type, host32(ifIndex) + Bytes{items});
}

// What went to the hardware: "+" (add) or "-" (delete) with the port, the items that its record carries, the rule.
std::string hardware()
{
    std::string text;
    for (const WorldEntry *entry : world.all(Did::Call)) {
        const Bytes &record = entry->data;
        if (!entry->text.starts_with("hw ")) {
            text += entry->text + "; ";
            continue;
        }
        const auto carried = [&](size_t at, size_t size, uint32_t item) {
            return record[at] != 0 || record[at + size - 1] != 0 ? item : 0;
        };
        const uint32_t items = carried(39, 1, 0x80) | carried(38, 1, 0x40) | carried(6, 2, 0x20) | carried(8, 4, 0x10);
        const std::string call = entry->text.substr(0, entry->text.find(':')); // "hw add 1"
        text += (call[3] == 'a' ? "+" : "-") + call.substr(call.rfind(' ') + 1) + world_format(" %02x %02x; ", items, record[37]);
    }
    return text;
}

// What sets a row's binding apart.
using Prepare = void (*)(DhcpsnoopUser *);
constexpr Prepare fixed = [](DhcpsnoopUser *u) { u->userType = DHCPSNOOP_USER_STATIC; };
constexpr Prepare guarded = [](DhcpsnoopUser *u) { u->userType = DHCPSNOOP_USER_IPSG; };
constexpr Prepare unbound = [](DhcpsnoopUser *u) { u->bindState = DHCPSNOOP_BIND_REQUESTED; };
constexpr Prepare elsewhere = [](DhcpsnoopUser *u) { u->ifIndex = OTHER; };
constexpr Prepare vlan20 = [](DhcpsnoopUser *u) { u->vid = 20; };
constexpr Prepare ipv6 = [](DhcpsnoopUser *u) { u->key.ipType = DHCPSNOOP_IPV6; };
constexpr Prepare port77 = [](DhcpsnoopUser *u) { u->ifIndex = 77; };
constexpr Prepare noGateway = [](DhcpsnoopUser *u) { u->gateway = 0; };

// One kind of enforcement as a binding records it.
struct Mark {
    bool installed;
    uint8_t source, items;
    bool operator==(const Mark &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Mark &mark)
{
    return out << world_format("%s, source %u, items %02x", mark.installed ? "installed" : "not installed", mark.source, mark.items);
}

class Enforcement : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        world.access(PORT, 10);
        world.access(OTHER, 10);
        world.vlan_interface(VLAN_IF, 10);
        user = make_binding(HOST, MAC_CLIENT, PORT, 10);
    }

    void mark(bool dai, const Mark &mark)
    {
        (dai ? user->daiSource : user->ipsgSource) = mark.source;
        (dai ? user->daiCheckItems : user->ipsgCheckItems) = mark.items;
        if (mark.installed)
            user->hwFlags |= dai ? DHCPSNOOP_HW_DAI : DHCPSNOOP_HW_IPSG;
    }

    Mark marked(bool dai) const
    {
        return {(user->hwFlags & (dai ? DHCPSNOOP_HW_DAI : DHCPSNOOP_HW_IPSG)) != 0,
                dai ? user->daiSource : user->ipsgSource, dai ? user->daiCheckItems : user->ipsgCheckItems};
    }

    DhcpsnoopUser *user = nullptr;
};

TEST_F(Enforcement, CheckItemsChange)
{
    const Mark none = {false, 0, 0};
    const struct {
        const char *claim;
        uint32_t ifIndex; // the event's
        uint8_t items;
        Mark before;
        const char *hardware; // RR = the rule
        Mark after;
        const char *refused = nullptr;
        Prepare prepare = nullptr;
    } rows[] = {
        // a port's setting
        {"a port's: installed", PORT, 0x90, none, "+1 90 RR; ", {true, 2, 0x90}},
        {"a port's: the port's is replaced", PORT, 0x90, {true, 2, 0xF0}, "-1 f0 RR; +1 90 RR; ", {true, 2, 0x90}},
        {"a port's: even by the same", PORT, 0x40, {true, 2, 0x40}, "-1 40 RR; +1 40 RR; ", {true, 2, 0x40}},
        {"a port's: the VLAN's is replaced", PORT, 0x90, {true, 1, 0x40}, "-1 40 RR; +1 90 RR; ", {true, 2, 0x90}},
        {"a port's: without any item the port's is withdrawn", PORT, 0x00, {true, 2, 0x90}, "-1 90 RR; ", none},
        // Kept: no item on a port does not withdraw what the VLAN installed.
        {"a port's: without any item the VLAN's stays", PORT, 0x00, {true, 1, 0x90}, "", {true, 1, 0x90}},
        {"a port's: without any item nothing is installed", PORT, 0x00, none, "", none},
        {"other bits are no items", PORT, 0x0F, {true, 2, 0x90}, "-1 90 RR; ", none},
        {"one item is enough", PORT, 0x1F, none, "+1 10 RR; ", {true, 2, 0x1F}},
        // a VLAN's
        {"a VLAN's: installed, on the binding's port", VLAN_IF, 0x90, none, "+1 90 RR; ", {true, 1, 0x90}},
        {"a VLAN's: the VLAN's is replaced", VLAN_IF, 0x20, {true, 1, 0x40}, "-1 40 RR; +1 20 RR; ", {true, 1, 0x20}},
        {"a VLAN's: the port's stays", VLAN_IF, 0x90, {true, 2, 0x40}, "", {true, 2, 0x40}},
        {"a VLAN's: without any item the VLAN's is withdrawn", VLAN_IF, 0x00, {true, 1, 0x90}, "-1 90 RR; ", none},
        {"a VLAN's: without any item the port's stays", VLAN_IF, 0x00, {true, 2, 0x90}, "", {true, 2, 0x90}},
        // marks as the peer unit sends them: installed, whose items it was not said
        {"installed by nobody known: a port's change leaves it", PORT, 0x90, {true, 0, 0}, "", {true, 0, 0}},
        {"installed by nobody known: a VLAN's too", VLAN_IF, 0x90, {true, 0, 0}, "", {true, 0, 0}},
        {"a source without an installation keeps one away", PORT, 0x90, {false, 1, 0x40}, "", {false, 1, 0x40}},
        // refusals
        {"a refused withdrawal leaves what was", PORT, 0x90, {true, 2, 0xF0}, "-1 f0 RR; ", {true, 2, 0xF0}, "hw delete"},
        {"a refused installation leaves nothing", PORT, 0x90, {true, 2, 0xF0}, "-1 f0 RR; +1 90 RR; ", none, "hw add"},
        // who is meant
        {"static bindings are not", PORT, 0x90, none, "", none, nullptr, fixed},
        {"those of IP source guard are not", PORT, 0x90, none, "", none, nullptr, guarded},
        {"those not bound yet are not", PORT, 0x90, none, "", none, nullptr, unbound},
        {"nor are they withdrawn", PORT, 0x00, {true, 2, 0x90}, "", {true, 2, 0x90}, nullptr, unbound},
        {"a port's: not those of another port", PORT, 0x90, none, "", none, nullptr, elsewhere},
        {"a port's: in whatever VLAN", PORT, 0x90, none, "+1 90 RR; ", {true, 2, 0x90}, nullptr, vlan20},
        {"a VLAN's: not those of another VLAN", VLAN_IF, 0x90, none, "", none, nullptr, vlan20},
        {"a VLAN's: on whatever port", VLAN_IF, 0x90, none, "+2 90 RR; ", {true, 1, 0x90}, nullptr, elsewhere},
        {"IPv6 as well", PORT, 0x80, none, "+1 80 RR; ", {true, 2, 0x80}, nullptr, ipv6},
        {"an interface that the switch does not know is a port", 77, 0x90, none, "+77 90 RR; ", {true, 2, 0x90}, nullptr, port77},
    };
    for (const auto &row : rows) {
        for (const bool dai : {false, true}) {
            for (const uint8_t started : {uint8_t{0}, uint8_t{1}}) {
                SCOPED_TRACE(world_format("%s; %s, started %u", row.claim, dai ? "ARP inspection" : "IPSG", started));
                SetUp();
                gDhcpsnoop.daiStarted = started;
                mark(dai, row.before);
                mark(!dai, {true, 2, 0x50}); // never touched
                if (row.prepare != nullptr)
                    row.prepare(user);
                if (row.refused != nullptr)
                    world.refuse(row.refused);
                deliver(items_message(dai ? DAI_CHANGE : IPSG_CHANGE, row.ifIndex, row.items));
                std::string expected = row.hardware;
                for (size_t at; (at = expected.find("RR")) != std::string::npos;)
                    expected.replace(at, 2, !dai ? "80" : started == 1 ? "40"
                                                                       : "00");
                EXPECT_EQ(hardware(), expected);
                EXPECT_EQ(marked(dai), row.after);
                EXPECT_EQ(marked(!dai), (Mark{true, 2, 0x50}));
                user->key.ipType = DHCPSNOOP_IPV4; // its bucket's
            }
        }
    }
}

TEST_F(Enforcement, StandbyUnitMarksWhatItDoesNotProgram)
{
    world.role(DHCPSNOOP_ROLE_SLAVE);
    deliver(items_message(IPSG_CHANGE, PORT, 0x90));
    deliver(items_message(DAI_START, PORT, 0x40));
    EXPECT_EQ(hardware(), "");
    EXPECT_EQ(marked(false), (Mark{true, 2, 0x90}));
    EXPECT_EQ(marked(true), (Mark{true, 2, 0x40}));
    deliver(items_message(IPSG_CHANGE, PORT, 0));
    deliver(event_message(DAI_STOP));
    EXPECT_EQ(hardware(), "");
    EXPECT_EQ(user->hwFlags, 0);
}

TEST_F(Enforcement, TextsOfAChange)
{
    user->userType = DHCPSNOOP_USER_STATIC; // nothing else is printed
    // type, interface, items; "port 1" or "vlan 10"
    const std::tuple<uint16_t, uint32_t, uint8_t, const char *> rows[] = {
        {IPSG_CHANGE, PORT, 0x90, "interface 1"}, {IPSG_CHANGE, VLAN_IF, 0x05, "vlan 10"}, {DAI_CHANGE, PORT, 0, "interface 1"}, {DAI_CHANGE, VLAN_IF, 0xF0, "vlan 10"}};
    for (const auto &[type, ifIndex, items, where] : rows) {
        SCOPED_TRACE(world_format("%u on %s", type, where));
        world.clear();
        debug(2);
        deliver(items_message(type, ifIndex, items));
        Lines texts = {world_format("[DHCPSNOOP] Interface index is %u, check item is 0x%x.\r\n", ifIndex, items),
                       world_format("[DHCPSNOOP] Check all user-bind entries on %s.\r\n", where),
                       world_format("[DHCPSNOOP] %s p_param->item = %u\n\r", type == DAI_CHANGE ? "RTM_ANTIARP_DAICHANGEDCHECKITEM" : "RTM_IPSG_CHANGEDCHECKITEM", items)};
        if (type == DAI_CHANGE)
            texts.insert(texts.begin(), "[DHCPSNOOP] Receive RTM_ANTIARP_DAICHANGEDCHECKITEM message.\r\n");
        if ((items & 0xF0) == 0)
            texts.push_back("[DHCPSNOOP] Delete user-bind entries on hardware.\r\n");
        EXPECT_EQ(debug_texts(), texts);
    }
}

TEST_F(Enforcement, PayloadsCutShort)
{
    // claim, type, shortest (payload that means something), texts (of a shorter one)
    const std::tuple<const char *, uint16_t, size_t, Lines> rows[] = {
        {"IPSG_CHANGEDCHECKITEM", IPSG_CHANGE, 5, {}},
        {"DAICHANGEDCHECKITEM", DAI_CHANGE, 5, {"[DHCPSNOOP] Receive RTM_ANTIARP_DAICHANGEDCHECKITEM message.\r\n"}},
        {"DAISTART", DAI_START, 5, {"[DHCPSNOOP] Receive RTM_SYSTEM_DAISTART message.\r\n"}},
        {"UPDATEDHCPSNOOPUSER", USERS_UPDATE, 4, {}},
    };
    user->gateway = 1;
    for (const auto &[claim, type, shortest, texts] : rows) {
        for (size_t length = 0; length <= shortest; length++) {
            SCOPED_TRACE(world_format("%s, %zu bytes", claim, length));
            world.clear();
            user->hwFlags = user->daiSource = user->ipsgSource = 0;
            const std::string before = world_state();
            debug(1);
            Bytes payload = host32(type == USERS_UPDATE ? 10 : PORT) + Bytes{0x90};
            payload.resize(length);
            // The bytes that are missing stand behind the message.
            deliver(event_message(type, payload) + Bytes(15, 0x11));
            debug(0);
            if (length < shortest) {
                EXPECT_EQ(debug_texts(), texts);
                EXPECT_EQ(world_state(), before);
                EXPECT_EQ(world.calls(), Lines{});
                EXPECT_EQ(world.asked, Lines{});
            } else {
                EXPECT_EQ(world.calls().size(), 1u);
            }
        }
    }
}

TEST_F(Enforcement, ArpInspectionStarts)
{
    const Mark none = {false, 0, 0};
    const struct {
        const char *claim;
        Mark before;
        const char *hardware;
        Mark after;
        const char *refused = nullptr;
        Prepare prepare = nullptr;
    } rows[] = {
        {"a dynamic binding, with the event's items", none, "+1 90 40; ", {true, 2, 0x90}},
        {"before a server acknowledged it, too", none, "+1 90 40; ", {true, 2, 0x90}, nullptr, unbound},
        {"what is installed is left", {true, 1, 0x40}, "", {true, 1, 0x40}},
        {"items that were left over are replaced", {false, 1, 0x40}, "+1 90 40; ", {true, 2, 0x90}},
        {"a static binding, with its own items", {false, 0, 0x60}, "+1 60 40; ", {true, 0, 0x60}, nullptr, fixed},
        {"a static binding that is installed", {true, 0, 0x60}, "", {true, 0, 0x60}, nullptr, fixed},
        {"not those of IP source guard", none, "", none, nullptr, guarded},
        {"not those of another port", none, "", none, nullptr, elsewhere},
        {"a refusal leaves it as it was", {false, 1, 0x40}, "+1 90 40; ", {false, 1, 0x40}, "hw add"},
        {"a static binding's refusal", {false, 0, 0x60}, "+1 60 40; ", {false, 0, 0x60}, "hw add", fixed},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        SetUp();
        mark(true, row.before);
        mark(false, {true, 2, 0x50});
        if (row.prepare != nullptr)
            row.prepare(user);
        if (row.refused != nullptr)
            world.refuse(row.refused);
        deliver(items_message(DAI_START, PORT, 0x90));
        EXPECT_EQ(hardware(), row.hardware);
        EXPECT_EQ(marked(true), row.after);
        EXPECT_EQ(marked(false), (Mark{true, 2, 0x50}));
        EXPECT_EQ(gDhcpsnoop.daiStarted, 1);
    }

    // It is by port: a VLAN interface's index means nobody, though it starts.
    SetUp();
    debug(1);
    deliver(items_message(DAI_START, VLAN_IF, 0x90));
    EXPECT_EQ(hardware(), "");
    EXPECT_EQ(gDhcpsnoop.daiStarted, 1);
    EXPECT_EQ(debug_texts(), Lines{"[DHCPSNOOP] Receive RTM_SYSTEM_DAISTART message.\r\n"});
}

TEST_F(Enforcement, ArpInspectionStops)
{
    gDhcpsnoop.daiStarted = 1;
    mark(true, {true, 2, 0x90});
    mark(false, {true, 2, 0x50});
    DhcpsnoopUser *still = make_binding(HOST + 1, MAC_CLIENT2, OTHER, 20);
    still->userType = DHCPSNOOP_USER_STATIC;
    still->hwFlags = DHCPSNOOP_HW_DAI;
    still->daiCheckItems = 0x40;
    DhcpsnoopUser *idle = make_binding(HOST + 2, MAC_CLIENT2, OTHER, 20);
    idle->daiCheckItems = 0x20; // not installed: not touched

    world.refuse("hw delete 2", 5, 1);
    deliver(event_message(DAI_STOP));
    EXPECT_EQ(hardware(), "-1 90 40; -2 40 40; ");
    EXPECT_EQ(marked(true), (Mark{false, 0, 0}));
    EXPECT_EQ(marked(false), (Mark{true, 2, 0x50}));
    EXPECT_TRUE(still->hwFlags == DHCPSNOOP_HW_DAI && still->daiCheckItems == 0x40); // was refused
    EXPECT_EQ(idle->daiCheckItems, 0x20);
    EXPECT_EQ(gDhcpsnoop.daiStarted, 0); // all the same

    // The next one tries again; the rule is one that inspection is not running for.
    world.clear();
    debug(2);
    deliver(event_message(DAI_STOP));
    EXPECT_EQ(hardware(), "-2 40 00; ");
    EXPECT_EQ(still->hwFlags, 0);
    EXPECT_EQ(debug_texts()[0], "[DHCPSNOOP] Receive RTM_SYSTEM_DAISTOP message.\r\n");
}

TEST_F(Enforcement, UsersAreAnnouncedAgain)
{
    const struct {
        const char *claim;
        uint32_t vid; // the event's
        bool announced;
        Prepare prepare = nullptr;
    } rows[] = {
        {"a dynamic binding with a gateway", 10, true},
        // Kept: bound or not.
        {"before a server acknowledged it, too", 10, true, unbound},
        {"not without a gateway", 10, false, noGateway},
        {"not a static one", 10, false, fixed},
        {"not IPv6", 10, false, ipv6},
        {"not of another VLAN", 11, false},
        {"nor of one that only ends alike", 0x1000A, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        SetUp();
        const Bytes gateway = be32(ip4(10, 0, 0, 1));
        memcpy(&user->gateway, gateway.data(), gateway.size());
        if (row.prepare != nullptr)
            row.prepare(user);
        debug(1);
        deliver(event_message(USERS_UPDATE, host32(row.vid)));
        EXPECT_EQ(debug_texts()[0], world_format("[DHCPSNOOP] Receive RTM_DHCPSNOOP_UPDATEDHCPSNOOPUSER message. Vlan is %u.\r\n", row.vid));
        ASSERT_EQ(world.calls(), row.announced ? Lines{"qorNetlinkSend 16 0 72"} : Lines{});
        if (row.announced) {
            const Bytes &record = world.all(Did::Call)[0]->data;
            EXPECT_EQ(hex(Bytes(record.begin() + 12, record.begin() + 14)), hex(host16(188)));
            EXPECT_EQ(hex(Bytes(record.begin() + 24, record.end())),
                      hex(mac_bytes(MAC_CLIENT) + host16(10) + host32(PORT) + be32(HOST) + Bytes(12, 0) + gateway + Bytes(14, 0) + Bytes{1, 0}));
        }
        user->key.ipType = DHCPSNOOP_IPV4;
    }
}

} // namespace
