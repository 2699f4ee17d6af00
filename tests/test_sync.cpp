// The running role, and the records that keep the peer unit in step: byte by byte as they leave, packed into
// full copies, and applied or refused as they come.
#include "daemon_test.h"

#include <algorithm>

#include "dhcpsnoop_sync.h"
#include "event_message.h"

namespace
{

constexpr uint32_t PORT = 1, VLAN_IF = 110;
constexpr uint32_t HOST = ip4(10, 0, 0, 50), SERVER = ip4(10, 0, 0, 1);
constexpr uint8_t ADD = 1, DELETE = 0;

Bytes key_bytes(uint8_t ipType, const Bytes &address)
{
    return Bytes{ipType, 0, 0, 0} + address + Bytes(16 - address.size(), 0);
}

Bytes header(uint8_t type, uint8_t add, uint16_t length) { return Bytes{type, add} + host16(length); }

// What a record says of a binding besides its key.
struct Carried {
    uint16_t vid = 10, origVid = 11;
    uint32_t ifIndex = PORT, leaseTime = 3600, leaseStart = 0x3B9ACA00;
    uint8_t hwFlags = 0xC0, userType = 1, bindState = 1, macMark = 0x30;
    uint16_t userAttr = 7;
    Mac mac = MAC_CLIENT;
    uint32_t ipsgHwId = 0x01020304, daiHwId = 0x05060708;

    Bytes bytes() const
    {
        return host16(vid) + host16(origVid) + host32(ifIndex) + host32(leaseTime) + host32(leaseStart) +
               Bytes{hwFlags, userType, bindState, macMark} + host16(userAttr) + mac_bytes(mac) + host32(ipsgHwId) + host32(daiHwId);
    }
};

Bytes user_record(uint8_t add, uint32_t address, const Carried &carried = {}, uint16_t length = 56)
{
    return header(1, add, length) + key_bytes(1, be32(address)) + carried.bytes();
}

Bytes delete_record(uint32_t address) // as it is sent
{
    return header(1, DELETE, 56) + key_bytes(1, be32(address)) + Bytes(36, 0);
}

Bytes server_record(uint8_t add, uint32_t address, uint32_t ifIndex, uint16_t vid, uint16_t length = 12)
{
    return header(2, add, length) + host32(address) + host32(ifIndex) + host16(vid) + host16(0);
}

void carry(DhcpsnoopUser *user, const Carried &carried)
{
    user->vid = carried.vid;
    user->origVid = carried.origVid;
    user->ifIndex = carried.ifIndex;
    user->leaseTime = carried.leaseTime;
    user->leaseStart = carried.leaseStart;
    user->hwFlags = carried.hwFlags;
    user->userType = carried.userType;
    user->bindState = carried.bindState;
    user->macMark = carried.macMark;
    user->userAttr = carried.userAttr;
    memcpy(user->mac, carried.mac.data(), carried.mac.size());
    user->ipsgHwId = carried.ipsgHwId;
    user->daiHwId = carried.daiHwId;
}

// A copy of exactly that size, so that the sanitizer watches its ends.
void deliver(Bytes packet)
{
    const Bytes before = packet;
    QorBuffer transfer = {packet.data(), static_cast<uint32_t>(packet.size())};
    dhcpsnoop_sync_pkt_recv(&transfer);
    EXPECT_EQ(packet, before);
}

class Sync : public Daemon
{
  protected:
    void SetUp() override { start(); }

    void start(DhcpsnoopRole role = DHCPSNOOP_ROLE_SLAVE, uint16_t users = 0, uint16_t servers = 0)
    {
        world.reset(0, users, servers);
        world.access(PORT, 10);
        world.access(2, 10);
        world.vlan_interface(VLAN_IF, 10);
        snoop(PORT);
        snoop(VLAN_IF);
        world.role(role);
        dhcpsnoop_running_role_get();
    }

    static uint16_t count(uint32_t ifIndex) { return dhcpsnoop_if_lookup(ifIndex)->curUser; }

    // "length mode" of every packet that was sent.
    static Lines sent()
    {
        Lines lines;
        for (const WorldEntry *entry : world.all(Did::Call))
            lines.push_back(std::to_string(entry->data.size()) + entry->text.substr(entry->text.rfind(' ')));
        return lines;
    }
};

TEST_F(Sync, Role)
{
    const struct {
        uint32_t notMaster, notSlave, role;
    } rows[] = {{0, 1, 1}, {0, 0, 1}, {7, 0, 2}, {0xFFFFFFFF, 9, 0}};
    const char *const words[] = {"None", "Master", "Slave"};
    for (const auto &row : rows) {
        for (uint8_t stored = 0; stored < 3; stored++) {
            SCOPED_TRACE(world_format("%u %u, was %u", row.notMaster, row.notSlave, stored));
            world.hwScalars[53] = row.notMaster;
            world.hwScalars[54] = row.notSlave;
            gDhcpsnoop.runningRole = stored;
            world.clear();
            debug(2);
            EXPECT_EQ(dhcpsnoop_running_role_get(), row.role);
            EXPECT_EQ(gDhcpsnoop.runningRole, row.role);
            const std::string text = world_format("[DHCPSNOOP] running role of the dhcpsnoop changed from %s to %s.\r\n", words[stored], words[row.role]);
            EXPECT_EQ(debug_texts(), stored == row.role ? Lines{} : Lines{text});
        }
    }
}

TEST_F(Sync, Records)
{
    start(DHCPSNOOP_ROLE_MASTER);
    DhcpsnoopUser *user = make_binding(HOST, MAC_CLIENT, PORT, 10);
    carry(user, {});
    user->gateway = user->vendorTag = user->serverId = 0xEEEEEEEE; // not carried
    user->ipsgSource = user->daiSource = user->ipsgCheckItems = user->daiCheckItems = 0xEE;
    DhcpsnoopUserKey key6 = {.ipType = 2, .reserved = {}, .ipAddr = {0x20, 1, 0xD, 0xB8, 5}};
    key6.ipAddr[15] = 9;
    DhcpsnoopUser *user6 = dhcpsnoop_user_table_add(&key6);
    carry(user6, {.vid = 0xFFFF, .leaseTime = 0xFFFFFFFF, .userType = 2});
    // Kept: the entry's order is address, VLAN, port; the record's is address, port, VLAN.
    DhcpsnoopServer server = {};
    server.serverIp = SERVER;
    server.vid = 0xABCD0014; // 16 bits travel
    server.ifIndex = 0x01020304;

    const Bytes key6Bytes = key_bytes(2, Bytes(key6.ipAddr, key6.ipAddr + 16));
    const struct {
        const char *claim;
        const DhcpsnoopUser *user; // null: the server
        uint32_t add;
        Bytes record;
    } rows[] = {
        {"a binding", user, 1, user_record(ADD, HOST)},
        {"a binding that goes: the key alone", user, 0, delete_record(HOST)},
        {"an IPv6 binding", user6, 1, header(1, 1, 56) + key6Bytes + Carried{.vid = 0xFFFF, .leaseTime = 0xFFFFFFFF, .userType = 2}.bytes()},
        {"an IPv6 binding that goes", user6, 0, header(1, 0, 56) + key6Bytes + Bytes(36, 0)},
        {"a server", nullptr, 1, server_record(ADD, SERVER, 0x01020304, 0x0014)},
        {"a server that goes", nullptr, 0, server_record(DELETE, SERVER, 0x01020304, 0x0014)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        Bytes out(row.record.size(), 0xEE);
        EXPECT_EQ(row.user != nullptr ? dhcpsnoop_sync_user_pkt_build(row.user, row.add, out.data())
                                      : dhcpsnoop_sync_server_pkt_build(&server, row.add, out.data()),
                  row.record.size());
        EXPECT_EQ(hex(out), hex(row.record));

        world.clear();
        debug(1);
        if (row.user != nullptr)
            dhcpsnoop_sync_user_send(row.user, row.add);
        else
            dhcpsnoop_sync_server_send(&server, row.add);
        EXPECT_EQ(world.calls(), Lines{"qorHwScalarSync null 0x40013 {" + world_hex(row.record.data(), row.record.size()) + "} 0x80000003"});
        EXPECT_EQ(debug_texts(), (Lines{world_format("[DHCPSNOOP] Send dhcpsnoop %s sync packet, add flag %u.\r\n",
                                                     row.user != nullptr ? "user" : "server", row.add),
                                        world_format("[DHCPSNOOP] Send dhcpsnoop sync packet: len %zu.\r\n", row.record.size())}));
    }
}

TEST_F(Sync, Packets)
{
    Bytes packet(17);
    for (size_t i = 0; i < packet.size(); i++)
        packet[i] = static_cast<uint8_t>(0xF0 + i);
    debug(3);
    Printed dumped;
    dhcpsnoop_sync_pkt_send(nullptr, 17, 5);
    dhcpsnoop_sync_pkt_send(packet.data(), 0, 5);
    EXPECT_EQ(debug_texts(), Lines{});
    EXPECT_EQ(world.calls(), Lines{});
    dhcpsnoop_sync_pkt_send(packet.data(), 17, 0x00120002);
    EXPECT_EQ(sent(), Lines{"17 0x80120002"});
    EXPECT_EQ(dumped.text(), "\n\rf0  f1  f2  f3  f4  f5  f6  f7  f8  f9  fa  fb  fc  fd  fe  ff  \n\r00  ");
    // What the transport does not take is not sent again.
    world.clear();
    world.refuse("qorHwScalarSync", 3);
    debug(1);
    dhcpsnoop_sync_pkt_send(packet.data(), 17, 3);
    EXPECT_EQ(debug_texts(), (Lines{"[DHCPSNOOP] Send dhcpsnoop sync packet: len 17.\r\n", "[DHCPSNOOP] Send dhcpsnoop sync packet ERROR!\r\n"}));
    EXPECT_EQ(world.calls().size(), 1u);
}

TEST_F(Sync, FullCopies)
{
    // claim, users, guarded, servers, request (guarded: bindings of IP source guard), lengths
    const std::tuple<const char *, uint32_t, uint32_t, uint32_t, uint32_t, std::vector<size_t>> rows[] = {
        {"nothing to send", 0, 0, 0, 1, {}},
        {"not requested", 1, 0, 1, 0, {}},
        {"only 1 is a request", 1, 0, 1, 2, {}},
        {"bindings of IP source guard stay here", 2, 3, 0, 1, {120}},
        {"23 bindings fit", 23, 0, 0, 1, {1380}},
        {"24 do not", 24, 0, 0, 1, {1380, 60}},
        {"a server behind 23 bindings fits", 23, 0, 1, 1, {1396}},
        {"to the last byte", 22, 0, 5, 1, {1400}},
        {"one beyond", 22, 0, 6, 1, {1400, 16}},
        {"87 servers", 0, 0, 87, 1, {1392}},
        {"88 servers", 0, 0, 88, 1, {1392, 16}},
        {"both over several", 24, 1, 90, 1, {1380, 1388, 112}},
    };
    for (const auto &[claim, users, guarded, servers, request, lengths] : rows) {
        SCOPED_TRACE(claim);
        start(DHCPSNOOP_ROLE_NONE);
        // Consecutive addresses stand in consecutive buckets, which are sent in order.
        Bytes expected;
        for (uint32_t i = 0; i < users; i++) {
            const Carried numbered = {.userAttr = static_cast<uint16_t>(i)};
            carry(make_binding(ip4(63, 0, 0, 0) + i, MAC_CLIENT, PORT, 10), numbered);
            expected = expected + user_record(ADD, ip4(63, 0, 0, 0) + i, numbered);
        }
        for (uint32_t i = 0; i < guarded; i++)
            make_binding(ip4(10, 0, 0, 0) + i, MAC_CLIENT, PORT, 10)->userType = DHCPSNOOP_USER_IPSG;
        for (uint32_t i = 0; i < servers; i++)
            dhcpsnoop_server_add(SERVER + i, 10, PORT);
        for (uint32_t i = servers; i-- > 0;) // newest first
            expected = expected + server_record(ADD, SERVER + i, PORT, 10);
        world.clear();

        dhcpsnoop_sync_all_send(0x00050002, request);
        Bytes all;
        Lines lines;
        for (const size_t length : lengths)
            lines.push_back(world_format("%zu 0x80050002", length));
        EXPECT_EQ(sent(), lines);
        for (const WorldEntry *entry : world.all(Did::Call))
            all = all + entry->data;
        EXPECT_EQ(hex(all), hex(lengths.empty() ? Bytes{} : expected));
    }
}

TEST_F(Sync, OnlyAStandbyUnitApplies)
{
    const Bytes packet = user_record(ADD, HOST) + server_record(ADD, SERVER, PORT, 10);
    for (const DhcpsnoopRole role : {DHCPSNOOP_ROLE_NONE, DHCPSNOOP_ROLE_MASTER}) {
        SCOPED_TRACE(role);
        start(role);
        const std::string before = world_state();
        debug(3);
        Printed dumped;
        deliver(packet);
        EXPECT_EQ(dumped.text(), "");
        EXPECT_EQ(debug_texts(), Lines{});
        debug(0);
        EXPECT_EQ(world_state(), before);
    }
    start();
    dhcpsnoop_sync_pkt_recv(nullptr);
}

TEST_F(Sync, BindingsFollowTheMaster)
{
    world.ipsg[PORT] = {.items = 0xF0};
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    debug(2);
    {
        Printed dumped;
        deliver(user_record(ADD, HOST));
        const std::string text = dumped.text();
        // The packet, then the record behind its header.
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4 + 4);
        EXPECT_TRUE(text.ends_with("\n\r" + std::string("04  03  02  01  08  07  06  05  ")) ||
                    text.ends_with("\n\r" + std::string("01  02  03  04  05  06  07  08  ")));
    }
    // Kept: the packet's line has no end.
    EXPECT_EQ(debug_texts(), (Lines{"[DHCPSNOOP] Receive dhcpsnoop sync packet: len 60.",
                                    "[DHCPSNOOP] Receive dhcpsnoop user sync packet: add flag 1, len 56.\r\n"}));
    debug(0);
    DhcpsnoopUser *user = binding(HOST);
    ASSERT_NE(user, nullptr);
    Bytes held(60, 0xEE);
    dhcpsnoop_sync_user_pkt_build(user, 1, held.data());
    EXPECT_EQ(hex(held), hex(user_record(ADD, HOST)));
    EXPECT_TRUE(user->vid == 10 && user->origVid == 11 && user->ifIndex == PORT && user->hwFlags == 0xC0);
    EXPECT_TRUE(user->gateway == 0 && user->ipsgSource == 0 && user->ipsgCheckItems == 0); // not carried
    EXPECT_EQ(count(PORT), 1);
    EXPECT_EQ(count(VLAN_IF), 1);

    // Kept: one that is there is overwritten whole and leaves the counts of its old place as they are; what
    // is not carried stays.
    user->gateway = 0x11;
    snoop(2);
    const Carried moved = {.vid = 20, .ifIndex = 2, .userType = 2, .mac = MAC_CLIENT2};
    deliver(user_record(ADD, HOST, moved));
    EXPECT_EQ(binding(HOST), user);
    dhcpsnoop_sync_user_pkt_build(user, 1, held.data());
    EXPECT_EQ(hex(held), hex(user_record(ADD, HOST, moved)));
    EXPECT_EQ(user->gateway, 0x11u);
    EXPECT_EQ(count(PORT), 1);
    EXPECT_EQ(count(VLAN_IF), 1);
    EXPECT_EQ(count(2), 0);

    deliver(delete_record(HOST));
    EXPECT_EQ(binding(HOST), nullptr);
    EXPECT_EQ(world.texts(Did::Log), Lines{"7 1 [DHCPSNOOP] Delete static dhcpsnoop entry: ip 10.0.0.50\r\n"});
    EXPECT_EQ(world.calls(), Lines{}); // neither hardware nor the peer heard of anything
}

TEST_F(Sync, Counts)
{
    // Kept: a static binding counts when it comes from the peer, and does not when it goes.
    deliver(user_record(ADD, HOST, {.userType = 2}));
    EXPECT_EQ(count(PORT), 1);
    EXPECT_EQ(count(VLAN_IF), 1);
    deliver(delete_record(HOST) + user_record(ADD, HOST));
    EXPECT_EQ(count(PORT), 2);
    deliver(delete_record(HOST));
    EXPECT_EQ(count(PORT), 1);
    EXPECT_EQ(count(VLAN_IF), 1);

    // Interfaces that do not snoop count nothing; the limit is the learner's.
    dhcpsnoop_if_lookup(PORT)->maxUser = 0;
    deliver(user_record(ADD, HOST, {.vid = 20, .ifIndex = 2}) + user_record(ADD, HOST + 1));
    EXPECT_EQ(count_bindings(), 2u);
    EXPECT_EQ(count(PORT), 2);
    EXPECT_EQ(count(VLAN_IF), 2);

    dhcpsnoop_if_lookup(PORT)->curUser = 0xFFFF;
    deliver(user_record(ADD, HOST + 2));
    EXPECT_EQ(count(PORT), 0);
}

TEST_F(Sync, Servers)
{
    start(DHCPSNOOP_ROLE_SLAVE, 0, 2);
    debug(1);
    deliver(server_record(ADD, SERVER, PORT, 20));
    EXPECT_EQ(debug_texts(), (Lines{"[DHCPSNOOP] Receive dhcpsnoop sync packet: len 16.",
                                    "[DHCPSNOOP] Receive dhcpsnoop server sync packet: add flag 1, len 12.\r\n"}));
    debug(0);
    const auto held = [] {
        Lines lines;
        for (const DhcpsnoopServer *s : list_each<DhcpsnoopServer>(&gDhcpsnoop.serverList))
            lines.push_back(world_format("%u vid %u if %u", s->serverIp - SERVER, s->vid, s->ifIndex));
        return lines;
    };
    EXPECT_EQ(held(), Lines{"0 vid 20 if 1"});
    deliver(server_record(ADD, SERVER, PORT, 20)); // known
    EXPECT_EQ(held().size(), 1u);
    deliver(server_record(DELETE, SERVER, 20, PORT)); // another port and VLAN
    EXPECT_EQ(held().size(), 1u);
    deliver(server_record(ADD, SERVER, 2, 20) + server_record(ADD, SERVER + 1, PORT, 20));
    EXPECT_EQ(held(), (Lines{"1 vid 20 if 1", "0 vid 20 if 1"})); // full: the newest made room
    deliver(server_record(DELETE, SERVER, PORT, 20) + server_record(7, SERVER + 1, PORT, 20));
    EXPECT_EQ(held(), Lines{}); // anything but 1 deletes
    EXPECT_EQ(world.calls(), Lines{});
}

TEST_F(Sync, NoNodeIsFree)
{
    start(DHCPSNOOP_ROLE_SLAVE, 1);
    deliver(user_record(ADD, HOST) + user_record(ADD, HOST + 1) + server_record(ADD, SERVER, PORT, 10));
    EXPECT_EQ(binding(HOST + 1), nullptr);
    EXPECT_EQ(count(PORT), 1);
    EXPECT_NE(dhcpsnoop_server_lookup(SERVER, 10, PORT), nullptr); // the walk goes on
}

// What a record's handler reads must be there; what the record says of its own length only moves the walk on.
TEST_F(Sync, RecordsOfAnyLength)
{
    const Bytes user = user_record(ADD, HOST), gone = delete_record(HOST + 9),
                server = server_record(ADD, SERVER, PORT, 10);
    const auto first = [](const Bytes &bytes, size_t count) {
        return Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count));
    };
    const Bytes other = user_record(ADD, HOST + 1);
    uint16_t passedOver; // a VLAN whose bytes are the front of a header of type 3
    memcpy(&passedOver, "\3\0", sizeof passedOver);
    const Bytes deleteShort = header(1, DELETE, 20) + key_bytes(1, be32(HOST + 9));
    const struct {
        const char *claim;
        Bytes packet;
        const char *there; // H the host, O the other, S the server, K the one that was there before
    } rows[] = {
        {"nothing", {}, "K"},
        {"3 bytes", first(user, 3), "K"},
        {"a header alone", first(user, 4), "K"},
        {"an addition one byte short", first(user, 59), "K"},
        {"an addition", user, "HK"},
        {"a deletion of the key alone", deleteShort, ""},
        {"a deletion one byte short", first(deleteShort, 23), "K"},
        {"a deletion as it is sent", gone, ""},
        {"anything but 1 deletes", user_record(2, HOST + 9), ""},
        {"a deletion that says more than is there", header(1, DELETE, 0xFFFF) + key_bytes(1, be32(HOST + 9)), ""},
        {"a server", server, "SK"},
        {"a server one byte short", first(server, 15), "K"},
        {"two, the second short", user + first(other, 59), "HK"},
        {"two and a server", user + other + server, "HOSK"},
        {"1 to 3 bytes behind the last", user + Bytes(3, 1), "HK"},
        {"other types are passed over by their length", header(3, 1, 5) + Bytes(5, 1) + other, "OK"},
        {"other types longer than the packet end it", header(3, 1, 0xFFFC) + other, "K"},
        {"a length whose sum would wrap in 16 bits", user_record(ADD, HOST, {}, 0xFFFC) + other, "HK"},
        {"the longest length", user_record(ADD, HOST, {}, 0xFFFF) + other, "HK"},
        {"a length beyond the packet does not keep the record out", user_record(ADD, HOST, {}, 57), "HK"},
        {"a length within the record leads into it: what stands there is a header",
         header(1, ADD, 20) + key_bytes(1, be32(HOST)) + Carried{.vid = passedOver, .origVid = 32}.bytes() + other,
         "HOK"},
        {"a server of a longer record", header(2, ADD, 20) + host32(SERVER) + host32(PORT) + host16(10) + Bytes(10, 0) + other, "OSK"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        start();
        make_binding(HOST + 9, MAC_CLIENT, PORT, 10);
        const std::string before = world_state();
        deliver(row.packet);
        std::string there;
        there += binding(HOST) != nullptr ? "H" : "";
        there += binding(HOST + 1) != nullptr ? "O" : "";
        there += dhcpsnoop_server_lookup(SERVER, 10, PORT) != nullptr ? "S" : "";
        there += binding(HOST + 9) != nullptr ? "K" : "";
        EXPECT_EQ(there, row.there);
        EXPECT_EQ(there == "K", world_state() == before);
        EXPECT_EQ(world_check_tables(), "");
    }
}

TEST_F(Sync, DumpsStayWithinTheRecord)
{
    // claim, packet, bytes (of packet and record body)
    const std::tuple<const char *, Bytes, size_t> rows[] = {
        {"an addition that says 64 KB", user_record(ADD, HOST, {}, 0xFFFF), 60 + 56},
        {"an addition that says 3", user_record(ADD, HOST, {}, 3), 60 + 3},
        {"a server that says 64 KB", server_record(ADD, SERVER, PORT, 10, 0xFFFF), 16 + 12},
        {"an unknown type", header(9, 1, 0xFFFF) + Bytes(4, 1), 8},
    };
    for (const auto &[claim, packet, bytes] : rows) {
        SCOPED_TRACE(claim);
        start();
        debug(2);
        Printed dumped;
        deliver(packet);
        const std::string text = dumped.text();
        EXPECT_EQ(std::count(text.begin(), text.end(), ' '), static_cast<ptrdiff_t>(2 * bytes));
    }
}

TEST_F(Sync, TakeOver)
{
    make_binding(HOST, MAC_CLIENT, PORT, 10);
    carry(make_binding(HOST + 1, MAC_CLIENT, PORT, 10), {});
    world.role(DHCPSNOOP_ROLE_MASTER);
    world.clear();
    debug(2);
    deliver(delete_record(HOST));
    EXPECT_NE(binding(HOST), nullptr);
    EXPECT_TRUE(printed("[DHCPSNOOP] running role of the dhcpsnoop changed from Slave to Master.\r\n"));
    dhcpsnoop_user_delete(binding(HOST + 1));
    // Its rules are withdrawn from hardware by this unit, and the new standby hears of it.
    EXPECT_EQ(world.calls("hw delete 1").size(), 2u);
    EXPECT_EQ(hex(world.all(Did::Call).back()->data), hex(delete_record(HOST + 1)));
    dhcpsnoop_server_add(SERVER, 20, 2);
    ASSERT_EQ(world.calls("qorHwScalarSync").size(), 2u);
    EXPECT_EQ(hex(world.all(Did::Call).back()->data), hex(server_record(ADD, SERVER, 2, 20)));
}

} // namespace
