// The daemon in the tests' fake world. An input's first byte picks one of 256 states with full tables; then each step is a frame, a
// request, a datagram of events, a packet from the peer unit, or something that the switch or the clock does. After every step the
// tables must be whole, what was sent must have true headers, and no buffer may have been left or, where that is not allowed, written to.
// And the daemon may not have allocated anything. Before a guarded daemon stands the judge of the Linux platform: every holder that it
// asks is there, so no frame may move a binding, or end one of another port.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <malloc.h>
#include <regex>
#include <sanitizer/allocator_interface.h>
#include <sanitizer/asan_interface.h>

#include "dhcpsnoop_format.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_sync.h"
#include "event_message.h"
#include "input.h"
#include "judge.h"
#include "management.h"
#include "steps.h"
#include "user_index.h"
#include "wire.h"

namespace
{

constexpr int64_t START_TIME = 1'000'000'000;
constexpr int STEPS_MAX = 48;
constexpr size_t FRAME_END = offsetof(DhcpsnoopRxPkt, data) + DHCPSNOOP_FRAME_MAX;
constexpr std::array<uint16_t, 12> EVENTS = {16, 17, 87, 88, 90, 91, 93, 123, 124, 190, 198, 199}; // that have a handler
// How a frame comes in: interface that it is attributed to, port, outer VLAN.
constexpr std::array<std::array<uint16_t, 3>, 16> ARRIVALS = {{{1, 1, 10}, {2, 2, 20}, {2, 2, 10}, {3, 3, 10}, {4, 4, 10}, {4, 4, 20}, {5, 5, 0}, {6, 6, 0}, {20, 7, 20}, {30, 8, 30}, {20, 1, 20}, {30, 77, 30}, {4, 4, 30}, {1, 1, 4095}, {2, 2, 99}, {0, 1, 10}}};

World pristine;
bool worldChanged, refusing, countsHold, frameTrue, standbyActs;
bool leasesPassed;              // time has gone by: an address may be another's by right
std::span<const uint8_t> whole; // the input
DhcpsnoopRxPkt *rxpkt;          // on the heap, so that its ends are watched

// While one lives the daemon works, and allocates nothing; the world's depth is above 0 outside, and in what the daemon calls.
struct DaemonScope {
    DaemonScope() { --worldDepth; }
    ~DaemonScope() { ++worldDepth; }
};

void on_allocation(const volatile void *, size_t size)
{
    if (worldDepth++ == 0)
        fault("the daemon allocates %zu bytes", size);
    worldDepth--;
}

class Around : public platform_linux::JudgeSwitch
{
    bool is_alive(const platform_linux::HostPlace &) const override { return true; }
    void ask(size_t, const platform_linux::JudgedClaim &) override {}
    platform_linux::Answer answer(size_t) const override { return platform_linux::Answer::heard; }
    void refuse(platform_linux::Refused, const platform_linux::JudgedClaim &) override {}
    platform_linux::Ticks now() const override { return world.now * 1000; }
};

platform_linux::Judge &judge()
{
    static Around around;
    static platform_linux::Judge made(around, 9, 1);
    return made;
}

// The bindings of hosts whose lease goes on.
std::vector<DhcpsnoopUser> holders()
{
    std::vector<DhcpsnoopUser> found;
    for (const DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash))
        if (user->userType == DHCPSNOOP_USER_DYNAMIC && user->bindState == DHCPSNOOP_BIND_BOUND && world.now - user->leaseStart < user->leaseTime)
            found.push_back(*user);
    return found;
}

void check_holders(const std::vector<DhcpsnoopUser> &before, const DhcpsnoopRxPkt &rx)
{
    const bool vlanIf = rx.inIf != nullptr && rx.inIf->isVlanIf != 0, trusted = rx.inIf != nullptr && !vlanIf && (rx.inIf->flags & DHCPSNOOP_IF_TRUSTED) != 0;
    const uint32_t port = rx.inIf == nullptr || vlanIf ? rx.ifIndex : rx.inIf->ifIndex;
    for (const DhcpsnoopUser &user : before) {
        const DhcpsnoopUser *after = dhcpsnoop_user_lookup(&user.key);
        if (after == nullptr && !trusted && user.ifIndex != port)
            fault("a frame on port %u ends a binding of port %u", port, user.ifIndex);
        if (after != nullptr && (memcmp(after->mac, user.mac, 6) != 0 || after->ifIndex != user.ifIndex || after->vid != user.vid))
            fault("a frame on port %u moves a binding of port %u", port, user.ifIndex);
    }
}

void hand_frame(const DhcpsnoopRxPkt &rx)
{
    *rxpkt = rx;
    const std::vector<DhcpsnoopUser> before = world.judge != nullptr && !leasesPassed ? holders() : std::vector<DhcpsnoopUser>{};
    DaemonScope(), dhcpsnoop_recv(rxpkt);
    check_holders(before, rx);
    ASAN_UNPOISON_MEMORY_REGION(rxpkt, sizeof *rxpkt);
    if (rxpkt->ifIndex != rx.ifIndex || rxpkt->len != rx.len)
        fault("the record around a frame was written to");
}

// The preset's bits: 0-2 how options 82, 18 and 37 are built: off, typed, raw, both with texts, template, the global one, an odd
// mode; 3-4 what becomes of a client's own, 5 sub-option 9, 6 relaying interfaces, 7 everything that guards: checks, limits, hooks,
// learning, the master's role, and the trace.
void prepare_daemon(uint8_t preset)
{
    const uint32_t form = preset & 7;
    std::string steps = world_format("if.set 8 # = %d;if.set 9 # = %d;if.set 7 # 'some text;if.set 34 # = %u;", preset >> 3 & 3, preset >> 5 & 1, (preset & 0x40) != 0 ? 0xC0000201 : 0);
    for (const char *on : {"4", "11", "13"})
        steps = world_format("if.set %s # = %d;", on, form != 0) + steps;
    for (const int format : {30, 31, 32, 33})
        steps += world_format("if.set %d # = %c;", format, "03434506"[form]);
    for (const int text : {5, 6, 12, 14})
        steps += form < 3 || form > 5 ? "" : world_format("if.set %d # ", text) + (form == 5 ? "'%D/%N.%i:%y %S-%r %s.%c%l;" : ": 0909 736f6d652074657874;");
    steps += (preset & 0x80) != 0 ? "if.set 16 # = 1;if.set 17 # = 1;if.set 18 # = 2;" : "";
    for (const std::string n : {"1", "2", "3", "4", "5", "6", "20", "30"}) {
        const bool trusted = n == "3" || n == "4" || n == "6";
        apply(std::regex_replace("if.set 1 # = 1;if.set 2 # = 3;" + (trusted ? "if.set 3 # = 1" : steps + "server.set 1 # .1 = 1;server.set 1 # 0xC6336401 = 1"), std::regex("#"), n));
    }
    if (form == 6)
        for (DhcpsnoopOptionFormat *format : {&gDhcpsnoop.circuitIdFmt, &gDhcpsnoop.remoteIdFmt, &gDhcpsnoop.interfaceIdFmt, &gDhcpsnoop.remoteId6Fmt})
            *format = {DHCPSNOOP_FORMAT_TEMPLATE, 11, "%s.%c.%d:%N"};
    // 100.0.0.10 is in the first one's bucket, behind the VLAN interface.
    apply("bind .100 1 10;bind .101 2 20 2;set .101 state 4;bind 0x6400000A 7 20 2;bind .102 1 10;set .102 type 2;bind .103 1 10;set .103 type 4;set 1 cur 1");
    make_binding("2001:db8::1", MAC_CLIENT2, 2, 30);
    for (const uint8_t client : Bytes{1, 2}) // wait for their answer, where requests are relayed
        hand_frame(rx_packet(Frame{.src = {2, 0, 0, 0, 0, client}, .chaddr = {2, 0, 0, 0, 0, client}}, {.port = client == 1 ? 2u : 7u, .outer = 20, .inIf = client == 1 ? 2u : 20u}));
    if ((preset & 0x80) == 0)
        return;
    apply("hooks");
    gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback;
    gDhcpsnoop.serverLearn = gDhcpsnoop.daiStarted = gDhcpsnoop.debugFlags = 1;
}

void prepare_world()
{
    world.reset(10, 9, 2);
    world.recording = false;
    world.now = START_TIME;
    apply("access 1 10;access 3 10;access 5 0;access 6 0;access 7 20;vlanif 20 20;vlanif 30 30");
    world.trunk(2, {10, 20});
    world.trunk(4, {10, 20, 30});
    world.trunk(8, {30, 40}, 1);
    world.ports[5].workMode = world.ports[6].workMode = 1;
    world.members(20, {2, 4, 7});
    world.members(30, {4, 8, 77});
    world.bootFile = text_bytes("boot/switch.img");
    world.option125 = text_bytes("provision");
    world.ipsg = {{1, {1, DHCPSNOOP_CHECK_ALL}}, {20, {1, DHCPSNOOP_CHECK_IP}}};
    world.dai = {{1, {1, DHCPSNOOP_CHECK_MAC}}, {20, {1, DHCPSNOOP_CHECK_PORT | DHCPSNOOP_CHECK_VLAN}}};
}

// The state record, the three pools and the index, as bytes.
Bytes memory(const Bytes *restore = nullptr)
{
    Bytes saved;
    gIfChanges++; // what is kept of the interfaces is not among the bytes
    for (void *block : {static_cast<void *>(&gDhcpsnoop), static_cast<void *>(gDhcpsnoop.ifPool), static_cast<void *>(gDhcpsnoop.userPool), static_cast<void *>(gDhcpsnoop.serverPool), static_cast<void *>(gUserIndex)}) {
        const size_t size = block == &gDhcpsnoop ? sizeof gDhcpsnoop : malloc_usable_size(block);
        if (restore != nullptr)
            memcpy(block, restore->data() + saved.size(), size);
        saved.insert(saved.end(), static_cast<uint8_t *>(block), static_cast<uint8_t *>(block) + size);
    }
    return saved;
}

// Whether the tables are others than in that memory, which is then in force: what stands in free entries does not matter.
bool changed_since(const Bytes &before)
{
    const std::string now = world_state();
    memory(&before);
    return world_state() != now;
}

size_t get16(const uint8_t *p) { return size_t{p[0]} << 8 | p[1]; }

// Of a frame whose headers came in true.
void check_frame(const Bytes &frame)
{
    const size_t l2 = rx_packet(frame).l2HdrLen, rest = frame.size() - std::min(l2, frame.size());
    const uint8_t *ip = &frame[l2];
    const bool six = rest > 0 && get16(ip - 2) == 0x86DD;
    const size_t header = rest == 0 ? 0 : six ? 40
                                              : (ip[0] & 15u) * 4;
    const uint8_t *udp = ip + header;
    if (header < 20 || header + 8 > rest || get16(ip + (six ? 4 : 2)) != rest - (six ? 40 : 0) || get16(udp + 4) != rest - header)
        fault("lengths of a sent frame are not its own: %s", dump(frame).c_str());
    const Bytes addresses = six ? Bytes(ip + 8, ip + 40) : Bytes(ip + 12, ip + 20);
    if ((!six && internet_checksum(Bytes(ip, udp)) != 0) || (get16(udp + 6) != 0 && internet_checksum(addresses + Bytes{0, 17, udp[4], udp[5]} + Bytes(udp, ip + rest)) != 0))
        fault("checksums of a sent frame are not its own: %s", dump(frame).c_str());
}

// The compiler fills variables that were not set yet with 0xAA: nothing of them may leave.
void check_leak(std::span<const uint8_t> bytes)
{
    const auto unset = [](std::span<const uint8_t> in) { return std::search_n(in.begin(), in.end(), 4, 0xAA) != in.end(); };
    if (unset(bytes) && !unset(whole))
        fault("%zu bytes leave, some of them never set", bytes.size());
}

void on_sent(Did did, const uint8_t *bytes, size_t count, uint32_t)
{
    check_leak({bytes, count});
    // Rules for the hardware and records for the peer have other lengths than what a standby unit may tell.
    if (did == Did::Call && standbyActs && count != 72 && count != 12)
        fault("a standby unit hands over a record of %zu bytes", count);
    const size_t least = did == Did::Frame ? 12 : 240, most = DHCPSNOOP_FRAME_MAX + (did == Did::Frame ? 4 : 0);
    if (did != Did::Call && (count < least || count > most))
        fault("%zu bytes were sent", count);
    if (did == Did::Frame && frameTrue)
        check_frame(Bytes(bytes, bytes + count));
}

// On the heap in its own size, so that its ends are watched; `use` may not write to it.
template <class Use>
void hand_over(const Bytes &bytes, Use use)
{
    Bytes copy(bytes);
    DaemonScope(), use(copy.data());
    if (copy != bytes)
        fault("a buffer was written to");
}

// Makes IP and UDP headers true, of a message to the server or back. False when there is no room for them.
bool mend(Bytes &frame, size_t l2, bool reply)
{
    const auto put = [&frame](size_t at, size_t value) { std::ranges::copy(be16(static_cast<uint32_t>(value)), frame.begin() + static_cast<ptrdiff_t>(at)); };
    const bool six = l2 <= frame.size() && get16(&frame[l2 - 2]) == 0x86DD;
    const size_t udp = l2 + (six ? 40 : 20), client = six ? 546 : 68, server = six ? 547 : 67;
    if (frame.size() <= udp + 8)
        return false;
    frame[l2] = six ? 0x60 : 0x45;
    frame[l2 + (six ? 6 : 9)] = 17;
    put(l2 - 2, six ? 0x86DD : 0x0800);
    put(l2 + (six ? 4 : 2), frame.size() - (six ? udp : l2));
    put(udp, reply ? server : client);
    put(udp + 2, reply ? client : server);
    put(udp + 4, frame.size() - udp);
    put(udp + 6, 0);
    if (six)
        return true;
    frame[udp + 8] = reply ? 2 : 1;
    put(l2 + 10, 0);
    put(l2 + 10, internet_checksum(Bytes(&frame[l2], &frame[udp])));
    return true;
}

void frame_step(Input &input)
{
    const uint8_t how = input.u8();
    const auto &[inIf, port, outer] = ARRIVALS[how & 15];
    Bytes frame = input.bytes(input.u16() % (DHCPSNOOP_FRAME_MAX + 1));
    if ((how & 0x80) != 0) { // filled with options of nothing, so that so many bytes are left
        const size_t left = frame.size() + input.u8();
        frame.insert(frame.begin() + static_cast<ptrdiff_t>(std::min<size_t>(frame.size(), 285)), left < DHCPSNOOP_FRAME_MAX ? DHCPSNOOP_FRAME_MAX - left : 0, 0);
    }
    const Arrival arrival = {.port = port, .outer = outer, .inIf = inIf};
    frameTrue = (how & 0x10) != 0 && mend(frame, rx_packet(frame).l2HdrLen, (how & 0x20) != 0);
    DhcpsnoopRxPkt rx = rx_packet(frame, arrival);
    rx.inIf = dhcpsnoop_if_lookup(inIf);
    if ((how & 0x40) != 0) { // packet information of any content
        rx.ifIndex = input.u32();
        rx.outerVid = input.u16();
        rx.innerVid = input.u16();
        rx.l2HdrLen = input.u16();
        rx.etherType = input.u16();
        const uint16_t length = input.u16();
        rx.len = length != 0 ? length : rx.len;
        frameTrue = false;
    }
    hand_frame(rx);
    frameTrue = false;
}

// Of the right form for its function, or the input's bytes.
Bytes request_take(Input &input)
{
    const uint8_t func = input.u8();
    if (func >= 0x80)
        return input.bytes(input.u16() % (DHCPSNOOP_REQUEST_MAX + 1));
    const uint8_t cmd = input.u8();
    Bytes index = request_index(0);
    if (func >= FUNC_USER_FIRST && func <= FUNC_USER_GET)
        index = request_key(1 + input.u8() / 0xE0, be32(ip4(10, 0, 0, input.u8())));
    else if (func > FUNC_GLOBAL_GET)
        index = request_index(input.u8());
    if (func >= FUNC_SERVER_IP_FIRST)
        index = index + request_index(ip4(10, 0, 0, input.u8()));
    const uint8_t type = input.u8() % 5;
    return request_bytes(func, cmd, index, type, type == 2 ? be32(input.u8()) : input.bytes(input.u8()));
}

// What makes the counts differ from the bindings by design: interfaces that come to bindings which are there, bindings moved by
// hand, bindings from the peer.
bool moves_bindings(uint32_t func, uint32_t cmd)
{
    return (func <= FUNC_GLOBAL_SYNC && cmd == GLOBAL_SYNC_PACKET) || ((func == FUNC_IF_SET || func == FUNC_IF_SYNC) && cmd == IF_ENABLE) ||
           (func == FUNC_VLAN_SET && cmd == VLAN_ENABLE) ||
           ((func == FUNC_USER_SET || func == FUNC_USER_SYNC) && (cmd == USER_VLAN || cmd == USER_INTERFACE));
}

void request_step(Input &input)
{
    constexpr ptrdiff_t RESULT = 12, HEADER = 26;
    const Bytes request = request_take(input), before = memory();
    if (request.empty()) // is answered from room for any
        return;
    Bytes reply(request);
    const uint32_t replied = (DaemonScope(), dhcpsnoop_cmd_process(reply.data(), static_cast<uint32_t>(reply.size())));
    if (replied != 0 && replied != reply.size())
        fault("a request of %zu bytes is answered with %u", reply.size(), replied);
    if (replied < HEADER)
        return;
    check_leak(std::span(reply).subspan(HEADER));
    const uint32_t func = wire_get32(&reply[4]), cmd = wire_get32(&reply[20]), result = func < FUNC_COUNT ? wire_get32(&reply[RESULT]) : 1;
    std::copy_n(&request[RESULT], 4, &reply[RESULT]);
    if (!std::equal(reply.begin(), result != 0 ? reply.end() : reply.begin() + HEADER, request.begin()))
        fault("func %u result 0x%x: the request came back changed", func, result);
    countsHold = countsHold && !(result == 0 && moves_bindings(func, cmd));
    // An unbinding is withdrawn from one feature, then refused by the other.
    const bool action = (func == FUNC_USER_SET || func == FUNC_USER_SYNC) && cmd == USER_ACTION;
    if (result != 0 && !(action && refusing) && memory() != before && changed_since(before))
        fault("func %u cmd %u was refused with 0x%x and changed the tables", func, cmd, result);
}

void event_step(Input &input)
{
    Bytes datagram;
    for (int count = input.u8() % 6; count >= 0; count--) {
        const uint8_t kind = input.u8();
        const Bytes payload = input.bytes(input.u8());
        datagram = datagram + host32(input.length(16 + payload.size())) + host16(EVENTS[kind % EVENTS.size()]) + host16(0) +
                   host32(kind / EVENTS.size() % 4) + host32(kind) + payload;
        datagram.resize(count > 0 ? (datagram.size() + 3) / 4 * 4 : datagram.size());
    }
    const uint8_t failed = input.u8(); // of a receive that failed, or gave less
    const auto length = static_cast<int32_t>(failed < 0x80 ? datagram.size() : std::min<size_t>(datagram.size(), failed - 0x81u));
    hand_over(datagram, [&](uint8_t *bytes) { dhcpsnoop_notify_recv(bytes, failed == 0x80 ? -1 : length); });
}

// Records of bindings and servers; every length may lie, and the last record may be cut.
void packet_step(Input &input)
{
    Bytes packet;
    for (int count = input.u8() % 24; count >= 0; count--) {
        const uint8_t type = input.u8(), add = input.u8();
        Bytes body = input.bytes(type % 3 == 2 ? 12 : 56);
        body.resize(type % 3 == 2 ? 12 : 56);
        packet = packet + Bytes{static_cast<uint8_t>(type % 3), add} + host16(input.length(body.size())) + body;
    }
    packet.resize(packet.size() - std::min<size_t>(packet.size(), input.u8() % 64));
    standbyActs = dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_SLAVE;
    countsHold = countsHold && !standbyActs; // all are counted when they come, dynamic ones when they go
    const Bytes before = memory();
    hand_over(packet, [&packet](uint8_t *bytes) {
        QorBuffer transfer = {bytes, static_cast<uint32_t>(packet.size())};
        dhcpsnoop_sync_pkt_recv(&transfer);
    });
    if (!standbyActs && memory() != before)
        fault("a packet that is not for this unit changed the tables");
    standbyActs = false;
}

std::string text_of(const Bytes &bytes) { return std::string(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(std::min<size_t>(bytes.size(), 255))); }

// The world's answers, hostile ones among them: texts and lists that are too long, hooks that give any length, refusals.
using Change = void (*)(uint8_t which, uint32_t value, const Bytes &bytes);
constexpr Change CHANGES[] = {
    [](uint8_t which, uint32_t value, const Bytes &bytes) {
        ((which & 1) != 0 ? world.bootFile : world.option125) = bytes;
        world.hookLength = (which & 2) != 0 ? std::optional(value) : std::nullopt;
    },
    [](uint8_t, uint32_t, const Bytes &bytes) { world.hostname = world.scalarTexts[66] = world.scalarTexts[74] = text_of(bytes); },
    [](uint8_t which, uint32_t, const Bytes &bytes) { world.ports[1 + which % 8].name = text_of(bytes); },
    [](uint8_t which, uint32_t, const Bytes &bytes) { world.vlanMembers[which] = bytes; },
    [](uint8_t which, uint32_t value, const Bytes &bytes) {
        const std::string text = text_of(bytes);
        DhcpsnoopOptionFormat *const formats[] = {&gDhcpsnoop.circuitIdFmt, &gDhcpsnoop.remoteIdFmt, &gDhcpsnoop.interfaceIdFmt, &gDhcpsnoop.remoteId6Fmt};
        DhcpsnoopOptionFormat &format = *formats[which % 4] = {static_cast<uint16_t>(value % 8), static_cast<uint16_t>(text.size()), {}};
        memcpy(format.text, text.data(), text.size());
        dhcpsnoop_format_check(format.text, format.len);
        gIfChanges++;
    },
    [](uint8_t, uint32_t value, const Bytes &) {
        leasesPassed = true;
        world.now = std::clamp<int64_t>(world.now + static_cast<int32_t>(value), 0, UINT32_MAX);
        if (world.hwScalars[54] != 0) // a standby unit does not age its tables
            DaemonScope(), dhcpsnoop_user_timer_check();
    },
    [](uint8_t which, uint32_t, const Bytes &) {
        gDhcpsnoop.ipsgIfGet = (which & 1) != 0 ? ipsgIfGetApi : nullptr;
        gDhcpsnoop.antiArpIfGet = (which & 2) != 0 ? arpAntiAttackIfGetApi : nullptr;
        gDhcpsnoop.deftinstallCb = (which & 4) != 0 ? deftinstall_client_entry_callback : nullptr;
        gDhcpsnoop.daiStarted = which >> 3 & 1;
        gDhcpsnoop.serverLearn = which >> 4 & 1;
        gDhcpsnoop.debugFlags = which >> 5 & 3;
    },
    [](uint8_t which, uint32_t value, const Bytes &) { ((which & 1) != 0 ? world.ipsg : world.dai)[value & 255] = {which >> 1 & 3u, static_cast<uint8_t>(value >> 8)}; },
    [](uint8_t which, uint32_t, const Bytes &) { world.role(static_cast<DhcpsnoopRole>(which % 3)); },
    [](uint8_t which, uint32_t value, const Bytes &) {
        constexpr std::array<const char *, 15> CALLS = {"qorIfSetApi", "hw add", "hw delete", "qorHwIfSync", "qorHwScalarSync", "qorHwDhcpSnoopUserSync", "qorIndexTrans", "qorVlanGetApi", "qorIfGetApi", "ipsgIfGetApi", "frame", "relay", "sysIFGet", "qorHwCardGet", "qorHwSlotGet"};
        world.refuse(CALLS[which % CALLS.size()], static_cast<int8_t>(value | 1));
        refusing = true;
    },
    [](uint8_t which, uint32_t value, const Bytes &) {
        constexpr uint32_t TPIDS[] = {0, 0x8100, 0x88A8, 0x9100, 0xFFFFFFFF};
        world.ports[1 + which % 8].tpid = TPIDS[which % 5];
        world.ports[1 + which % 8].number = value;
    },
    [](uint8_t which, uint32_t value, const Bytes &bytes) { // cards and aggregates; an event names a card by the first words of its datagram
        world.selfSystem = 16 + which % 32;
        const uint16_t event = EVENTS[bytes.size() % EVENTS.size()];
        world.ports[1 + which % 8].location = {world.selfSystem, host32_at(host16(event) + host16(0), 0), 1, 0, 1, 1, value & 3};
        world.hwScalars[45] = which >> 7;
        world.newHwId = value;
        world.trunkMembers = static_cast<uint8_t>(value >> 8);
    },
};

void change_step(Input &input)
{
    const Change change = CHANGES[input.u8() % std::size(CHANGES)];
    const uint8_t which = input.u8();
    const uint32_t value = input.u32();
    change(which, value, input.bytes(input.u16() % 300));
    worldChanged = true;
}

} // namespace

extern "C" {

// dhcpsnoop_packet_parse(DhcpsnoopRxPkt *, DhcpsnoopPktInfo *, uint32_t), as the linker's --wrap turns it. Behind the frame stand four
// bytes that belong to nobody; once it is parsed, everything behind it is out of bounds.
int32_t __real__Z22dhcpsnoop_packet_parseP14DhcpsnoopRxPktP16DhcpsnoopPktInfoj(DhcpsnoopRxPkt *rx, DhcpsnoopPktInfo *info, uint32_t full);

int32_t __wrap__Z22dhcpsnoop_packet_parseP14DhcpsnoopRxPktP16DhcpsnoopPktInfoj(DhcpsnoopRxPkt *rx, DhcpsnoopPktInfo *info, uint32_t full)
{
    uint8_t *const behind = reinterpret_cast<uint8_t *>(rx) + FRAME_END;
    ASAN_POISON_MEMORY_REGION(behind, offsetof(DhcpsnoopRxPkt, inIf) - FRAME_END);
    const int32_t result = __real__Z22dhcpsnoop_packet_parseP14DhcpsnoopRxPktP16DhcpsnoopPktInfoj(rx, info, full);
    ASAN_POISON_MEMORY_REGION(behind, sizeof *rx - FRAME_END);
    return result;
}

int LLVMFuzzerInitialize(int *, char ***)
{
    // Nobody reads the daemon's own output here; its messages are still formatted.
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    rxpkt = static_cast<DhcpsnoopRxPkt *>(calloc(1, sizeof *rxpkt));
    puts("the buffer of the standard output is allocated");
    prepare_world();
    pristine = world;
    worldDepth = 1;
    if (__sanitizer_install_malloc_and_free_hooks(on_allocation, [](const volatile void *) {}) == 0)
        fault("no allocation would be seen");
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const Bytes started = memory();
    static Bytes prepared[256];
    static void (*const STEPS[8])(Input &) = {frame_step, frame_step, frame_step, request_step, request_step, event_step, packet_step, change_step};
    Input input(bytes, size);
    whole = {bytes, size};
    const uint8_t preset = input.u8();
    if (worldChanged)
        world = pristine;
    world.sent = nullptr;
    world.role((preset & 0x80) != 0 ? DHCPSNOOP_ROLE_MASTER : DHCPSNOOP_ROLE_NONE);
    world.judge = nullptr;
    if (prepared[preset].empty()) {
        memory(&started);
        prepare_daemon(preset);
        prepared[preset] = memory();
    }
    memory(&prepared[preset]);
    for (const int64_t before : {7200, 3600, 0}) { // the lease scan remembers when it last ran: the same for every input
        world.now = START_TIME - before;
        dhcpsnoop_user_timer_check();
    }
    world.sent = on_sent;
    worldChanged = refusing = leasesPassed = false;
    judge().forget();
    world.judge = (preset & 0x80) == 0 ? nullptr : [](const DhcpsnoopPktInfo *info) { return judge().passes(*info) ? 0 : -1; };
    countsHold = true;
    for (int i = 0; i < STEPS_MAX && input.more(); i++) {
        STEPS[input.u8() & 7](input);
        if (const std::string faults = world_check_tables(countsHold); !faults.empty())
            fault("%s", faults.c_str());
    }
    return 0;
}
}
