// The daemon in the tests' fake world. An input's first byte picks one of 256 states with full tables; then each step is a frame, a
// request, a datagram of events, a packet from the peer unit, or something that the switch or the clock does. After every step the
// tables must be whole, what was sent must have true headers, and no buffer may have been left or, where that is not allowed, written to.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <sanitizer/asan_interface.h>

#include "scene.h"
#include "dhcpsnoop_format.h"
#include "dhcpsnoop_sync.h"
#include "event_message.h"
#include "input.h"
#include "management.h"

namespace
{

constexpr int64_t START_TIME = 1'000'000'000;
constexpr int STEPS_MAX = 48;
constexpr size_t FRAME_END = offsetof(DhcpsnoopRxPkt, data) + DHCPSNOOP_FRAME_MAX;

// clang-format off
constexpr std::array<uint16_t, 12> EVENTS = {16, 17, 87, 88, 90, 91, 93, 123, 124, 190, 198, 199}; // that have a handler
// How a frame comes in: interface that it is attributed to, port, outer VLAN.
constexpr std::array<std::array<uint16_t, 3>, 16> ARRIVALS = {
    {{1, 1, 10}, {2, 2, 20}, {2, 2, 10}, {3, 3, 10}, {4, 4, 10},  {4, 4, 20},   {5, 5, 0},  {6, 6, 0},
     {20, 7, 20}, {30, 8, 30}, {20, 1, 20}, {30, 77, 30}, {4, 4, 30}, {1, 1, 4095}, {2, 2, 99}, {0, 1, 10}}};

// clang-format on

World pristine;
bool worldChanged, refusing, countsHold, frameTrue, standbyActs;
uint64_t transcript;   // of everything that was sent and replied: FNV-1a; the sanitizer sees each byte read
DhcpsnoopRxPkt *rxpkt; // on the heap, so that its ends are watched

// ---- the 256 states

// Fills the record; the bytes behind the frame are zeros.
void receive_prepare(const Bytes &frame, const std::array<uint16_t, 3> &arrival, size_t l2)
{
    ASAN_UNPOISON_MEMORY_REGION(rxpkt, sizeof *rxpkt);
    *rxpkt = {};
    rxpkt->valid = 1;
    rxpkt->len = static_cast<uint16_t>(std::min<size_t>(frame.size(), DHCPSNOOP_FRAME_MAX));
    std::copy_n(frame.begin(), rxpkt->len, rxpkt->data);
    rxpkt->ifIndex = arrival[1];
    rxpkt->outerVid = arrival[2];
    rxpkt->l2HdrLen = static_cast<uint16_t>(l2);
    rxpkt->etherType = l2 <= frame.size() && frame[l2 - 2] == 0x86 ? 0x86DD : 0x0800;
    rxpkt->inIf = dhcpsnoop_if_lookup(arrival[0]);
}

// The preset's bits: 0-2 how options 82, 18 and 37 are built: off, typed, raw, both with texts, template, the global one, an odd
// mode; 3-4 what becomes of a client's own, 5 sub-option 9, 6 relaying interfaces, 7 everything that guards: checks, limits, hooks,
// learning, the master's role, and the trace.
void prepare_daemon(uint8_t preset)
{
    constexpr std::array<uint8_t, 8> MODES = {0, DHCPSNOOP_FORMAT_TYPED, DHCPSNOOP_FORMAT_RAW, DHCPSNOOP_FORMAT_TYPED,
                                              DHCPSNOOP_FORMAT_RAW, DHCPSNOOP_FORMAT_TEMPLATE, 0, 6};
    const uint8_t mode = MODES[preset & 7];
    const Bytes text = (preset & 7) < 3 || (preset & 7) > 5 ? Bytes{} : text_bytes(mode == DHCPSNOOP_FORMAT_TEMPLATE ? "%D/%N.%i:%y %S-%r %s.%c%l" : "some text");
    for (const uint32_t ifIndex : {1u, 2u, 3u, 4u, 5u, 6u, 20u, 30u}) {
        DhcpsnoopIf *ifp = snoop(ifIndex, ifIndex % 5 < 3 && ifIndex != 6 ? 0 : DHCPSNOOP_IF_TRUSTED);
        set_flag_field(ifp, DHCPSNOOP_IF_VERSION, DHCPSNOOP_IPV4 | DHCPSNOOP_IPV6);
        if ((ifp->flags & DHCPSNOOP_IF_TRUSTED) != 0)
            continue;
        if ((preset & 7) != 0)
            ifp->flags |= DHCPSNOOP_IF_OPTION82 | DHCPSNOOP_IF_OPTION18 | DHCPSNOOP_IF_OPTION37;
        ifp->flags |= ((preset & 0x20) != 0 ? DHCPSNOOP_IF_SUBOPT9 : 0) |
                      ((preset & 0x80) != 0 ? DHCPSNOOP_IF_CHECK_MAC | DHCPSNOOP_IF_CHECK_BINDING : 0);
        set_flag_field(ifp, DHCPSNOOP_IF_POLICY, preset >> 3 & 3);
        set_flag_field(ifp, DHCPSNOOP_IF_MODE, mode);
        ifp->circuitIdFmt = ifp->remoteIdFmt = ifp->interfaceIdFmt = ifp->remoteId6Fmt = mode;
        ifp->circuitIdLen = ifp->remoteIdLen = ifp->subopt9Len = ifp->interfaceIdLen = ifp->remoteId6Len = static_cast<uint8_t>(text.size());
        for (uint8_t *to : {ifp->circuitId, ifp->remoteId, ifp->subopt9, ifp->interfaceId, ifp->remoteId6})
            std::copy(text.begin(), text.end(), to);
        ifp->relayAddr = (preset & 0x40) != 0 ? ip4(192, 0, 2, 1) : 0;
        ifp->serverIp[0] = ip4(10, 0, 0, 1);
        ifp->serverIp[2] = ip4(198, 51, 100, 1);
        ifp->maxUser = (preset & 0x80) != 0 ? 2 : ifp->maxUser;
    }
    if ((preset & 7) == 6)
        for (DhcpsnoopOptionFormat *format : {&gDhcpsnoop.circuitIdFmt, &gDhcpsnoop.remoteIdFmt, &gDhcpsnoop.interfaceIdFmt, &gDhcpsnoop.remoteId6Fmt})
            *format = {DHCPSNOOP_FORMAT_TEMPLATE, 11, "%s.%c.%d:%N"};
    make_binding(ip4(10, 0, 0, 100), MAC_CLIENT, 1, 10);
    make_binding(ip4(10, 0, 0, 101), MAC_CLIENT2, 2, 20)->bindState = DHCPSNOOP_BIND_REQUESTED;
    make_binding(ip4(100, 0, 0, 10), MAC_CLIENT2, 7, 20); // in the first one's bucket, behind the VLAN interface
    make_binding("2001:db8::1", MAC_CLIENT2, 2, 30);
    for (const auto &[address, type] : {std::pair{ip4(10, 0, 0, 102), DHCPSNOOP_USER_STATIC}, {ip4(10, 0, 0, 103), DHCPSNOOP_USER_IPSG}}) {
        make_binding(address, MAC_CLIENT, 1, 10)->userType = type;
        dhcpsnoop_if_lookup(1)->curUser--;
    }
    for (const size_t arrival : {1, 8}) { // clients that wait for their answer, where requests are relayed
        Frame discover = client_frame(1);
        discover.chaddr = discover.src = arrival == 1 ? Mac{2, 0, 0, 0, 0x0A, 0} : Mac{2, 0, 0, 0, 1, 1};
        receive_prepare(discover.bytes(), ARRIVALS[arrival], discover.l2_length());
        dhcpsnoop_recv(rxpkt);
    }
    if ((preset & 0x80) == 0)
        return;
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
    gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback;
    gDhcpsnoop.serverLearn = gDhcpsnoop.daiStarted = 1;
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_INFO;
}

void prepare_world()
{
    world.reset(10, 9, 2);
    world.recording = false;
    world.now = START_TIME;
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
    world.ipsg = {{1, {1, DHCPSNOOP_CHECK_ALL, 0}}, {20, {1, DHCPSNOOP_CHECK_IP, 0}}};
    world.dai = {{1, {1, DHCPSNOOP_CHECK_MAC, 0}}, {20, {1, DHCPSNOOP_CHECK_PORT | DHCPSNOOP_CHECK_VLAN, 0}}};
}

// The state record and the three pools, as bytes.
Bytes memory(const Bytes *restore = nullptr)
{
    Bytes saved;
    size_t from = 0;
    for (void *block : {static_cast<void *>(&gDhcpsnoop), static_cast<void *>(gDhcpsnoop.ifPool),
                        static_cast<void *>(gDhcpsnoop.userPool), static_cast<void *>(gDhcpsnoop.serverPool)}) {
        const size_t size = block == &gDhcpsnoop ? sizeof gDhcpsnoop : malloc_usable_size(block);
        if (restore != nullptr)
            memcpy(block, restore->data() + from, size);
        from += size;
        saved.insert(saved.end(), static_cast<uint8_t *>(block), static_cast<uint8_t *>(block) + size);
    }
    return saved;
}

// Whether the tables are others than in that memory: what stands in free entries does not matter.
bool changed_since(const Bytes &before)
{
    const std::string now = world_state();
    const Bytes after = memory();
    memory(&before);
    const std::string then = world_state();
    memory(&after);
    return then != now;
}

// ---- what must hold

void check_tables()
{
    const std::string faults = world_check_tables(countsHold);
    if (!faults.empty())
        fault("%s", faults.c_str());
}

size_t get16(const uint8_t *p) { return size_t{p[0]} << 8 | p[1]; }

size_t l2_length(const uint8_t *frame, size_t size)
{
    size_t at = 12;
    while (at + 6 <= size && at < 24 && (get16(frame + at) == 0x8100 || get16(frame + at) == 0x88A8 || get16(frame + at) == 0x9100))
        at += 4;
    return at + 2;
}

// Of a frame whose headers came in true.
void check_frame(const uint8_t *frame, size_t size)
{
    const size_t l2 = l2_length(frame, size);
    const uint8_t *ip = frame + l2;
    if (l2 + 28 > size || (get16(ip - 2) != 0x0800 && get16(ip - 2) != 0x86DD))
        fault("a sent frame without an IP header");
    const bool six = get16(ip - 2) == 0x86DD;
    const size_t rest = size - l2, header = six ? 40 : (ip[0] & 15u) * 4;
    if (header < 20 || header + 8 > rest || get16(ip + (six ? 4 : 2)) + (six ? 40 : 0) != rest)
        fault("a sent frame says %zu bytes of IP; %zu are there", get16(ip + (six ? 4 : 2)), rest);
    if (!six && internet_checksum(Bytes(ip, ip + header)) != 0)
        fault("a sent frame has a wrong IPv4 header checksum");
    const uint8_t *udp = ip + header;
    if (get16(udp + 4) != rest - header)
        fault("a sent frame has a UDP length of %zu in %zu bytes", get16(udp + 4), rest - header);
    const Bytes addresses = six ? Bytes(ip + 8, ip + 40) : Bytes(ip + 12, ip + 20);
    if (get16(udp + 6) != 0 &&
        internet_checksum(addresses + Bytes{0, 17, udp[4], udp[5]} + Bytes(udp, ip + rest)) != 0)
        fault("a sent frame has a wrong UDP checksum");
}

void transcript_add(const uint8_t *bytes, size_t count)
{
    for (size_t i = 0; i < count; i++)
        transcript = (transcript ^ bytes[i]) * 0x100000001B3;
}

void on_sent(Did did, const uint8_t *bytes, size_t count, uint32_t port)
{
    transcript_add(reinterpret_cast<const uint8_t *>(&port), sizeof port);
    transcript_add(bytes, count);
    // Rules for the hardware and records for the peer have other lengths than what a standby unit may tell.
    if (did == Did::Call && standbyActs && count != 72 && count != 12)
        fault("a standby unit hands over a record of %zu bytes", count);
    if (did == Did::Frame && (count < 12 || count > DHCPSNOOP_FRAME_MAX + 4))
        fault("a frame of %zu bytes was sent", count);
    if (did == Did::Relay && (count < 240 || count > DHCPSNOOP_FRAME_MAX))
        fault("a datagram of %zu bytes was relayed", count);
    if (did == Did::Frame && frameTrue)
        check_frame(bytes, count);
}

// Leaves this byte where the daemon's next calls have their local variables.
__attribute__((noinline, no_sanitize("address"))) void stack_fill(uint8_t byte)
{
    volatile uint8_t area[48 * 1024];
    for (volatile uint8_t &at : area)
        at = byte;
}

// With `twice`, once more from the same state: nothing that is sent, replied or stored may depend on what stood on the stack.
template <class Action>
void play(bool twice, Action action)
{
    if (!twice)
        return action();
    const Bytes before = memory();
    const uint64_t begin = transcript;
    stack_fill(0xA5);
    action();
    const uint64_t first = transcript;
    const Bytes after = memory();
    memory(&before);
    transcript = begin;
    stack_fill(0x5A);
    action();
    if (transcript != first || memory() != after)
        fault("what was sent or stored depends on what stood on the stack");
}

// On the heap in its own size, so that its ends are watched; `use` may not write to it.
template <class Use>
void hand_over(const Bytes &bytes, Use use)
{
    const std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    use(copy.get());
    if (!std::equal(bytes.begin(), bytes.end(), copy.get()))
        fault("a buffer was written to");
}

// ---- the steps

void put16(uint8_t *at, size_t value)
{
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}

// Makes IP and UDP headers true, of a message to the server or back. False when there is no room for them.
bool mend(Bytes *frame, size_t l2, bool reply)
{
    const bool six = l2 <= frame->size() && get16(&(*frame)[l2 - 2]) == 0x86DD;
    const size_t header = six ? 40 : 20;
    if (frame->size() > DHCPSNOOP_FRAME_MAX || frame->size() <= l2 + header + 8)
        return false;
    uint8_t *ip = &(*frame)[l2], *udp = ip + header;
    const size_t rest = frame->size() - l2;
    ip[0] = six ? 0x60 : 0x45;
    ip[six ? 6 : 9] = 17;
    put16(ip - 2, six ? 0x86DD : 0x0800);
    put16(ip + (six ? 4 : 2), rest - (six ? 40 : 0));
    put16(udp, (six ? 546 : 68) + (reply ? (six ? 1 : -1) : 0));
    put16(udp + 2, (six ? 547 : 67) - (reply ? (six ? 1 : -1) : 0));
    put16(udp + 4, rest - header);
    put16(udp + 6, 0);
    if (six)
        return true;
    udp[8] = reply ? 2 : 1;
    put16(ip + 10, 0);
    put16(ip + 10, internet_checksum(Bytes(ip, udp)));
    return true;
}

void frame_step(Input &input, bool twice)
{
    const uint8_t how = input.u8();
    const std::array<uint16_t, 3> &arrival = ARRIVALS[how & 15];
    Bytes frame = input.bytes(input.u16() % (DHCPSNOOP_FRAME_MAX + 1));
    if ((how & 0x80) != 0) { // filled with options of nothing, so that so many bytes are left
        const size_t left = frame.size() + input.u8();
        frame.insert(frame.begin() + static_cast<ptrdiff_t>(std::min<size_t>(frame.size(), 285)), left < DHCPSNOOP_FRAME_MAX ? DHCPSNOOP_FRAME_MAX - left : 0, 0);
    }
    const size_t l2 = l2_length(frame.data(), frame.size());
    frameTrue = (how & 0x10) != 0 && mend(&frame, l2, (how & 0x20) != 0);
    receive_prepare(frame, arrival, l2);
    if ((how & 0x40) != 0) { // packet information of any content
        rxpkt->ifIndex = input.u32();
        rxpkt->outerVid = input.u16();
        rxpkt->innerVid = input.u16();
        rxpkt->l2HdrLen = input.u16();
        rxpkt->etherType = input.u16();
        const uint16_t length = input.u16();
        rxpkt->len = length != 0 ? length : rxpkt->len;
        frameTrue = false;
    }
    const DhcpsnoopRxPkt received = *rxpkt;
    play(twice, [&] {
        *rxpkt = received;
        rxpkt->inIf = dhcpsnoop_if_lookup(arrival[0]);
        dhcpsnoop_recv(rxpkt);
        ASAN_UNPOISON_MEMORY_REGION(rxpkt, sizeof *rxpkt);
        if (memcmp(&rxpkt->ifIndex, &received.ifIndex, sizeof rxpkt->ifIndex) != 0 || rxpkt->len != received.len)
            fault("the record around a frame was written to");
    });
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

void request_step(const Bytes &request)
{
    constexpr size_t RESULT = 12, HEADER = 26;
    const size_t length = request.size();
    const std::unique_ptr<uint8_t[]> buffer(new uint8_t[DHCPSNOOP_REQUEST_MAX]());
    std::copy(request.begin(), request.end(), buffer.get());
    if (length != 0) // a reply to nothing is written into room for any
        ASAN_POISON_MEMORY_REGION(buffer.get() + length, DHCPSNOOP_REQUEST_MAX - length);
    const Bytes before = memory();
    const uint32_t replied = dhcpsnoop_cmd_process(buffer.get(), static_cast<uint32_t>(length));
    ASAN_UNPOISON_MEMORY_REGION(buffer.get(), DHCPSNOOP_REQUEST_MAX);
    transcript_add(buffer.get(), length);
    if (length == 0 ? replied != 22 : replied != 0 && replied != length)
        fault("a request of %zu bytes is answered with %u", length, replied);
    if (replied != length || length < HEADER)
        return;
    const auto get32 = [&buffer](size_t at) { return get16(&buffer[at]) << 16 | get16(&buffer[at + 2]); };
    const size_t func = get32(4), cmd = get32(20), result = func < FUNC_COUNT ? get32(RESULT) : 1;
    for (size_t i = 0; i < (result != 0 ? length : HEADER); i++)
        if ((i < RESULT || i >= RESULT + 4) && buffer[i] != request[i])
            fault("func %zu result 0x%zx: byte %zu of the request came back changed", func, result, i);
    countsHold = countsHold && !(result == 0 && moves_bindings(static_cast<uint32_t>(func), static_cast<uint32_t>(cmd)));
    // An unbinding is withdrawn from one feature, then refused by the other.
    const bool action = (func == FUNC_USER_SET || func == FUNC_USER_SYNC) && cmd == USER_ACTION;
    if (result != 0 && !(action && refusing) && memory() != before && changed_since(before))
        fault("func %zu cmd %zu was refused with 0x%zx and changed the tables", func, cmd, result);
}

void event_step(Input &input, bool twice)
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
    play(twice, [&] {
        hand_over(datagram, [&](uint8_t *bytes) { dhcpsnoop_notify_recv(bytes, failed == 0x80 ? -1 : length); });
    });
}

// Records of bindings and servers; every length may lie, and the last record may be cut.
void packet_step(Input &input, bool twice)
{
    Bytes packet;
    for (int count = input.u8() % 24; count >= 0; count--) {
        const uint8_t type = input.u8(), add = input.u8();
        Bytes body = input.bytes(type % 3 == 2 ? 12 : 56);
        body.resize(type % 3 == 2 ? 12 : 56);
        packet = packet + Bytes{static_cast<uint8_t>(type % 3), add} + host16(input.length(body.size())) + body;
    }
    packet.resize(packet.size() - std::min<size_t>(packet.size(), input.u8() % 64));
    play(twice, [&] {
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
    });
}

// The world's answers, hostile ones among them: texts and lists that are too long, hooks that give any length, refusals.
void change_step(Input &input)
{
    constexpr std::array<const char *, 12> CALLS = {"qorIfSetApi", "hw add", "hw delete", "qorHwIfSync", "qorHwScalarSync",
                                                    "qorHwDhcpSnoopUserSync", "qorIndexTrans", "qorVlanGetApi", "qorIfGetApi",
                                                    "ipsgIfGetApi", "frame", "relay"};
    const uint8_t what = input.u8(), which = input.u8();
    const Bytes bytes = what % 12 < 5 ? input.bytes(input.u16() % 300) : Bytes{};
    const std::string text(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(std::min<size_t>(bytes.size(), 255)));
    WorldPort &port = world.ports[1 + which % 8];
    auto &bootLength = (which & 1) != 0 ? world.bootFileLength : world.option125Length;
    DhcpsnoopOptionFormat *const formats[] = {&gDhcpsnoop.circuitIdFmt, &gDhcpsnoop.remoteIdFmt, &gDhcpsnoop.interfaceIdFmt,
                                              &gDhcpsnoop.remoteId6Fmt};
    switch (what % 12) {
    case 0:
        ((which & 1) != 0 ? world.bootFile : world.option125) = bytes;
        bootLength.reset();
        if ((which & 2) != 0)
            bootLength = input.u32();
        world.hookSetsLengths = (which & 4) != 0;
        break;
    case 1:
        world.hostname = world.scalarTexts[66] = world.scalarTexts[74] = text;
        break;
    case 2:
        port.name = text;
        break;
    case 3:
        world.vlanMembers[which] = bytes;
        break;
    case 4:
        *formats[which % 4] = {static_cast<uint16_t>(which / 4 % 8), static_cast<uint16_t>(text.size()), {}};
        memcpy(formats[which % 4]->text, text.data(), text.size());
        dhcpsnoop_format_check(formats[which % 4]->text, static_cast<uint16_t>(text.size()));
        break;
    case 5:
        world.now = std::clamp<int64_t>(world.now + static_cast<int32_t>(input.u32()), 0, UINT32_MAX);
        if (world.hwScalars[54] != 0) // a standby unit does not age its tables
            dhcpsnoop_user_timer_check();
        break;
    case 6:
        gDhcpsnoop.ipsgIfGet = (which & 1) != 0 ? ipsgIfGetApi : nullptr;
        gDhcpsnoop.antiArpIfGet = (which & 2) != 0 ? arpAntiAttackIfGetApi : nullptr;
        gDhcpsnoop.deftinstallCb = (which & 4) != 0 ? deftinstall_client_entry_callback : nullptr;
        gDhcpsnoop.daiStarted = which >> 3 & 1;
        gDhcpsnoop.serverLearn = which >> 4 & 1;
        gDhcpsnoop.debugFlags = which >> 5 & 3;
        break;
    case 7:
        ((which & 1) != 0 ? world.ipsg : world.dai)[input.u8()] = {which >> 1 & 3u, input.u8(), which < 0xC0 ? 0 : -1};
        break;
    case 8:
        world.role(static_cast<DhcpsnoopRole>(which % 3));
        break;
    case 9:
        world.refuse(CALLS[which % CALLS.size()], static_cast<int8_t>(input.u8() | 1));
        refusing = true;
        break;
    case 10:
        port.tpid = input.pick(std::array<uint32_t, 5>{0, 0x8100, 0x88A8, 0x9100, 0xFFFFFFFF});
        port.number = input.u32();
        port.down = (which & 0x10) != 0;
        if ((which & 0x20) != 0)
            port.answer255 = port.answer258 = static_cast<int8_t>(input.u8());
        if ((which & 0x40) != 0)
            port.silent = {3, 5, 33, 45, 193, 417, 5400};
        break;
    default: // cards and aggregates; an event names a card by the first words of its datagram
        world.selfSystem = 16 + which % 32;
        port.location = {world.selfSystem, host32_at(host16(input.pick(EVENTS)) + host16(0), 0), 1, 0, 1, 1, input.u8() % 4u};
        for (const uint32_t property : {49152043u, 49152042u, 32768049u, 32768042u})
            world.cardAnswers[property] = world.slotAnswers[property] = static_cast<int8_t>(input.u8());
        world.hwScalars[45] = which >> 7;
        world.newIpsgHwId = world.newDaiHwId = input.u32();
        world.trunkQueryResult = static_cast<int8_t>(input.u8());
        world.trunkQueryCount = input.u8();
        break;
    }
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
    prepare_world();
    pristine = world;
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const Bytes started = memory();
    static Bytes prepared[256];
    Input input(bytes, size);
    const uint8_t preset = input.u8();
    if (worldChanged)
        world = pristine;
    world.sent = nullptr;
    world.role((preset & 0x80) != 0 ? DHCPSNOOP_ROLE_MASTER : DHCPSNOOP_ROLE_NONE);
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
    worldChanged = refusing = false;
    countsHold = true;
    transcript = 0xCBF29CE484222325;
    for (int i = 0; i < STEPS_MAX && input.more(); i++) {
        const uint8_t step = input.u8();
        const bool twice = (step & 8) != 0;
        switch (step & 7) {
        default:
            frame_step(input, twice);
            break;
        case 3:
        case 4: {
            const Bytes request = request_take(input);
            play(twice, [&request] { request_step(request); });
            break;
        }
        case 5:
            event_step(input, twice);
            break;
        case 6:
            packet_step(input, twice);
            break;
        case 7:
            change_step(input);
            worldChanged = true;
            break;
        }
        check_tables();
    }
    return 0;
}
}
