// The world is the same for every state. The daemon gets into each by its own interfaces, settings and
// frames, but for what only another feature makes: an IP source guard binding and a DHCPv6 one.
#include "prepare.h"

#include <cstdlib>
#include <cstring>
#include <malloc.h>

#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_msg.h"
#include "dhcpsnoop_nm.h"
#include "dhcpsnoop_user.h"
#include "frame.h"
#include "list.h"
#include "management.h"
#include "pools.h"
#include "world.h"

namespace
{

constexpr uint16_t IF_COUNT = 10, USER_COUNT = 9, SERVER_COUNT = 2;

struct Block {
    void *at;
    size_t size;
};

std::array<Block, 4> blocks()
{
    const auto block = [](void *at) { return Block{at, malloc_usable_size(at)}; };
    return {
        {{&gDhcpsnoop, sizeof gDhcpsnoop},
         block(gDhcpsnoop.ifPool),
         block(gDhcpsnoop.userPool),
         block(gDhcpsnoop.serverPool)}
    };
}

// Every byte of an entry is where it was and what it was.
template <class Entry> bool list_equal(DhcpsnoopLink *head, const Block &pool, const uint8_t *before)
{
    for (const Entry *entry : list_each<Entry>(head)) {
        const auto offset = static_cast<size_t>(reinterpret_cast<const uint8_t *>(entry) -
                                                static_cast<const uint8_t *>(pool.at));
        if (memcmp(static_cast<const void *>(entry), before + offset, sizeof *entry) != 0)
            return false;
    }
    return true;
}

void must(int32_t result)
{
    if (result != 0)
        abort();
}

void if_number(uint32_t ifIndex, uint32_t cmd, uint32_t value)
{
    must(dhcpSnoopIfSetApi(ifIndex, cmd, &value));
}

void if_text(uint32_t ifIndex, uint32_t cmd, Bytes text)
{
    QorBuffer value = {text.data(), static_cast<uint32_t>(text.size())};
    must(dhcpSnoopIfSetApi(ifIndex, cmd, &value));
}

Bytes typed(const Bytes &text) { return Bytes{1, static_cast<uint8_t>(text.size())} + text; }

void deliver(const Frame &frame, uint32_t inIf, uint32_t port, uint16_t vid)
{
    const Bytes bytes = frame.bytes();
    static DhcpsnoopRxPkt rx;
    rx = {};
    rx.valid = 1;
    rx.len = static_cast<uint16_t>(bytes.size());
    memcpy(rx.data, bytes.data(), bytes.size());
    rx.inIf = interface_entry(inIf);
    rx.ifIndex = port;
    rx.outerVid = vid;
    rx.l2HdrLen = static_cast<uint16_t>(frame.l2_length());
    rx.etherType = 0x0800;
    dhcpsnoop_recv(&rx);
}

void request_from(const Mac &mac, uint32_t address, uint32_t inIf, uint32_t port, uint16_t vid)
{
    Frame frame = client_frame(3, opt_ip(50, address) + opt_ip(54, ADDRESS_SERVER));
    frame.src = frame.chaddr = mac;
    deliver(frame, inIf, port, vid);
}

void discover_from(const Mac &mac, uint32_t inIf, uint32_t port, uint16_t vid)
{
    Frame frame = client_frame(1);
    frame.src = frame.chaddr = mac;
    deliver(frame, inIf, port, vid);
}

void acknowledge(const Mac &mac, uint32_t address)
{
    Frame frame = server_frame(5, opt_ip(3, ADDRESS_SERVER));
    frame.chaddr = mac;
    frame.yiaddr = address;
    deliver(frame, 3, 3, 10);
}

DhcpsnoopUserKey key4(uint32_t address)
{
    DhcpsnoopUserKey key = {};
    key.ipType = DHCPSNOOP_IPV4;
    const Bytes bytes = be32(address);
    memcpy(key.ipAddr, bytes.data(), bytes.size());
    return key;
}

void bindings_make()
{
    request_from(POOL_MACS[0], ADDRESS_BOUND, 1, 1, 10);
    acknowledge(POOL_MACS[0], ADDRESS_BOUND);
    request_from(POOL_MACS[1], ADDRESS_REQUESTED, 2, 2, 20);
    request_from(POOL_MACS[3], ip4(100, 0, 0, 10), 20, 7,
                 20); // behind the VLAN interface, same bucket as the first

    const DhcpsnoopUserKey fixed = key4(ADDRESS_STATIC);
    uint32_t action = USER_ACTION_CREATE, port = 1, vid = 10;
    must(dhcpSnoopUserSetApi(&fixed, USER_ACTION, &action));
    must(dhcpSnoopUserSetApi(&fixed, USER_INTERFACE, &port));
    must(dhcpSnoopUserSetApi(&fixed, USER_VLAN, &vid));
    action = USER_ACTION_BIND;
    must(dhcpSnoopUserSetApi(&fixed, USER_ACTION, &action));

    // These two come from elsewhere: IP source guard, and a DHCPv6 exchange.
    const DhcpsnoopUserKey guarded = key4(ADDRESS_IPSG);
    DhcpsnoopUser *user = dhcpsnoop_user_table_add(&guarded);
    user->userType = DHCPSNOOP_USER_IPSG;
    user->ifIndex = 1;
    DhcpsnoopUserKey six = {};
    six.ipType = DHCPSNOOP_IPV6;
    memcpy(six.ipAddr, "\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\1", sizeof six.ipAddr);
    user = dhcpsnoop_user_table_add(&six);
    user->userType = DHCPSNOOP_USER_DYNAMIC;
    memcpy(user->mac, POOL_MACS[1].data(), sizeof user->mac);
    user->ifIndex = 2;
    user->vid = user->origVid = 30;
    user->leaseStart = static_cast<uint32_t>(world.now);
    user->leaseTime = 3600;
    interface_entry(2)->curUser++;
    interface_entry(30)->curUser++;
}

void relaying_on()
{
    for (const uint32_t ifIndex : {2u, 5u, 20u}) {
        if_number(ifIndex, IF_RELAY_ADDR, ADDRESS_RELAY);
        for (const uint32_t server : {ADDRESS_SERVER, ADDRESS_SERVER2}) {
            const uint32_t pair[2] = {ifIndex, server};
            uint32_t add = USER_ACTION_CREATE;
            must(dhcpSnoopServerIpSetApi(pair, SERVER_IP_SLOT, &add));
        }
    }
    discover_from(POOL_MACS[4], 2, 2, 20);
    discover_from(POOL_MACS[7], 20, 7, 20);
}

void option82_on(uint32_t variant, uint32_t policy, bool subopt9)
{
    if (variant == 0)
        return;
    for (const uint32_t ifIndex : {1u, 2u, 5u, 20u}) {
        if_number(ifIndex, IF_OPTION82, 1);
        if_number(ifIndex, IF_POLICY, policy);
        if (subopt9) {
            if_number(ifIndex, IF_SUBOPT9, 1);
            if (ifIndex == 1)
                if_text(ifIndex, IF_SUBOPT9_TEXT, text_bytes("edge"));
        }
        const Bytes circuit = text_bytes(variant == 5 ? "%D/%N.%i:%y %S-%r %s.%c%l" : "circuit one");
        const Bytes remote = text_bytes(variant == 5 ? "%d %e" : "remote");
        switch (variant) {
        case 1: // typed is what switching it on gives
            break;
        case 2:
            if_number(ifIndex, IF_CIRCUIT_ID_FORMAT, DHCPSNOOP_FORMAT_RAW);
            if_number(ifIndex, IF_REMOTE_ID_FORMAT, DHCPSNOOP_FORMAT_RAW);
            if_number(ifIndex, IF_MODE, DHCPSNOOP_FORMAT_RAW);
            break;
        case 3:
            if_text(ifIndex, IF_CIRCUIT_ID, typed(circuit));
            if_text(ifIndex, IF_REMOTE_ID, typed(remote));
            break;
        case 4:
            if_number(ifIndex, IF_CIRCUIT_ID_FORMAT, DHCPSNOOP_FORMAT_RAW);
            if_number(ifIndex, IF_REMOTE_ID_FORMAT, DHCPSNOOP_FORMAT_RAW);
            if_number(ifIndex, IF_MODE, DHCPSNOOP_FORMAT_RAW);
            if_text(ifIndex, IF_CIRCUIT_ID, typed(circuit));
            if_text(ifIndex, IF_REMOTE_ID, typed(remote));
            break;
        case 5:
            if_number(ifIndex, IF_CIRCUIT_ID_FORMAT, DHCPSNOOP_FORMAT_TEMPLATE);
            if_number(ifIndex, IF_REMOTE_ID_FORMAT, DHCPSNOOP_FORMAT_TEMPLATE);
            if_text(ifIndex, IF_CIRCUIT_ID, circuit);
            if_text(ifIndex, IF_REMOTE_ID, remote);
            if_number(ifIndex, IF_MODE, DHCPSNOOP_FORMAT_TEMPLATE);
            break;
        case 6:
            if_number(ifIndex, IF_CIRCUIT_ID_FORMAT, 0);
            if_number(ifIndex, IF_REMOTE_ID_FORMAT, 0);
            break;
        case 7:
            if_number(ifIndex, IF_CIRCUIT_ID_FORMAT, 6);
            if_number(ifIndex, IF_MODE, 9);
            break;
        }
    }
    if (variant == 6) {
        gDhcpsnoop.circuitIdFmt = {DHCPSNOOP_FORMAT_TEMPLATE, 11, "%s.%c.%d:%N"};
        gDhcpsnoop.remoteIdFmt = {DHCPSNOOP_FORMAT_TEMPLATE, 2, "%d"};
    }
}

// DHCPv6 options in the same ways as option 82, and as a template of nothing.
void options6_on(uint32_t variant)
{
    if (variant == 0)
        return;
    for (const uint32_t ifIndex : {1u, 2u, 5u, 20u}) {
        if_number(ifIndex, IF_OPTION18, 1);
        if_number(ifIndex, IF_OPTION37, 1);
        constexpr std::array<uint32_t, 8> MODES = {DHCPSNOOP_FORMAT_TYPED,
                                                   DHCPSNOOP_FORMAT_TYPED,
                                                   DHCPSNOOP_FORMAT_RAW,
                                                   DHCPSNOOP_FORMAT_TYPED,
                                                   DHCPSNOOP_FORMAT_RAW,
                                                   1,
                                                   0,
                                                   2};
        if_number(ifIndex, IF_INTERFACE_ID_FORMAT, MODES[variant]);
        if_number(ifIndex, IF_REMOTE_ID6_FORMAT, variant == 7 ? 6 : MODES[variant]);
        if (variant < 3 || variant > 5)
            continue;
        const Bytes text = variant == 5 ? text_bytes("%d.%i %s%c") : typed(text_bytes("text six"));
        if_text(ifIndex, IF_INTERFACE_ID, text);
        if_text(ifIndex, IF_REMOTE_ID6, text);
    }
    if (variant == 6) {
        gDhcpsnoop.interfaceIdFmt = {DHCPSNOOP_FORMAT_TEMPLATE, 255, {}};
        memset(gDhcpsnoop.interfaceIdFmt.text, 'z', 255);
        gDhcpsnoop.remoteId6Fmt = {2, 8, "%i.%s.%d"};
    }
}

void guards_on()
{
    for (const uint32_t ifIndex : {1u, 2u}) {
        if_number(ifIndex, IF_CHECK_MAC, 1);
        if_number(ifIndex, IF_CHECK_BINDING, 1);
        if_number(ifIndex, IF_MAX_USER, 2);
    }
    if_number(20, IF_MAX_USER, 3);
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
    gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback;
    gDhcpsnoop.serverLearn = 1;
    gDhcpsnoop.daiStarted = 1;
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
}

} // namespace

DhcpsnoopIf *interface_entry(uint32_t ifIndex) { return dhcpsnoop_if_lookup(ifIndex); }

Memory memory_save()
{
    Memory memory;
    for (const Block &block : blocks()) {
        const auto *bytes = static_cast<const uint8_t *>(block.at);
        memory.insert(memory.end(), bytes, bytes + block.size);
    }
    return memory;
}

void memory_restore(const Memory &memory)
{
    const uint8_t *from = memory.data();
    for (const Block &block : blocks()) {
        memcpy(block.at, from, block.size);
        from += block.size;
    }
}

bool memory_tables_equal(const Memory &before)
{
    const auto [record, ifs, users, servers] = blocks();
    const uint8_t *const ifsBefore = before.data() + record.size;
    const uint8_t *const usersBefore = ifsBefore + ifs.size;
    const uint8_t *const serversBefore = usersBefore + users.size;
    if (memcmp(record.at, before.data(), record.size) != 0 ||
        !list_equal<DhcpsnoopIf>(&gDhcpsnoop.ifList, ifs, ifsBefore) ||
        !list_equal<DhcpsnoopServer>(&gDhcpsnoop.serverList, servers, serversBefore))
        return false;
    for (DhcpsnoopLink &bucket : gDhcpsnoop.userHash)
        if (!list_equal<DhcpsnoopUser>(&bucket, users, usersBefore))
            return false;
    for (DhcpsnoopLink &bucket : gDhcpsnoop.macUserHash)
        if (!list_equal<DhcpsnoopMacUser>(&bucket, users, usersBefore))
            return false;
    return true;
}

void prepare_world()
{
    world.reset(IF_COUNT, USER_COUNT, SERVER_COUNT);
    world.recording = false;
    world.access(1, 10);
    world.trunk(2, {10, 20});
    world.access(3, 10);
    world.trunk(4, {10, 20, 30});
    world.routed(5);
    world.routed(6);
    world.access(7, 20);
    world.trunk(8, {30, 40}, 1);
    world.vlan_interface(20, 20);
    world.vlan_interface(30, 30);
    world.members(20, {2, 4, 7});
    world.members(30, {4, 8, 77});
    world.bootFile = text_bytes("boot/switch.img");
    world.option125 = text_bytes("provision");
    world.ipsg[1] = {1, DHCPSNOOP_CHECK_ALL, 0};
    world.ipsg[20] = {1, DHCPSNOOP_CHECK_IP, 0};
    world.dai[1] = {1, DHCPSNOOP_CHECK_MAC, 0};
    world.dai[20] = {1, DHCPSNOOP_CHECK_PORT | DHCPSNOOP_CHECK_VLAN, 0};
}

DhcpsnoopRole prepared_role(uint8_t preset)
{
    return (preset & 0x80) != 0 ? DHCPSNOOP_ROLE_MASTER : DHCPSNOOP_ROLE_NONE;
}

void prepare_daemon(uint8_t preset)
{
    for (const uint32_t ifIndex : {1u, 2u, 3u, 4u, 5u, 6u, 20u, 30u})
        if_number(ifIndex, IF_ENABLE, 1);
    for (const uint32_t ifIndex : {1u, 2u, 3u, 4u, 5u, 6u, 20u, 30u})
        if_number(ifIndex, IF_VERSION, DHCPSNOOP_IPV4 | DHCPSNOOP_IPV6);
    for (const uint32_t ifIndex : {3u, 4u, 6u})
        if_number(ifIndex, IF_TRUST, 1);
    bindings_make();
    if ((preset & 0x40) != 0)
        relaying_on();
    option82_on(preset & 7, preset >> 3 & 3, (preset & 0x20) != 0);
    options6_on(preset & 7);
    if ((preset & 0x80) != 0)
        guards_on();
}
