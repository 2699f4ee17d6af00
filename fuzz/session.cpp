#include "session.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <sanitizer/asan_interface.h>

#include "dhcpsnoop_main.h"
#include "dhcpsnoop_msg.h"
#include "frame.h"
#include "frames.h"
#include "invariants.h"
#include "management.h"
#include "pools.h"
#include "prepare.h"
#include "request.h"
#include "world.h"

namespace
{

constexpr int64_t START_TIME = 1'000'000'000;
constexpr size_t STACK_FILLED = 48 * 1024;

Memory prepared[256];
World pristine;
bool worldChanged;     // by a record
bool refusing;         // the switch refuses some calls
bool countsHold;       // nothing has moved bindings between interfaces behind the counts
bool frameWhole;       // what is sent now must have true headers
uint64_t transcript;   // of all that was sent and replied
DhcpsnoopRxPkt *rxpkt; // on the heap, so that its ends are watched

// FNV-1a. Reading the bytes is half its purpose: the sanitizer sees each of them.
void transcript_add(const uint8_t *bytes, size_t count)
{
    for (size_t i = 0; i < count; i++)
        transcript = (transcript ^ bytes[i]) * 0x100000001B3;
}

void on_sent(Did did, const uint8_t *bytes, size_t count, uint32_t port)
{
    transcript_add(reinterpret_cast<const uint8_t *>(&port), sizeof port);
    transcript_add(bytes, count);
    if (did == Did::Frame)
        invariants_check_frame(bytes, count, frameWhole);
    else if (count < 240 || count > DHCPSNOOP_FRAME_MAX)
        fault("a datagram of %zu bytes was relayed", count);
}

// Leaves this byte where the daemon's next calls have their local variables.
__attribute__((noinline, no_sanitize("address"))) void stack_fill(uint8_t byte)
{
    volatile uint8_t area[STACK_FILLED];
    for (volatile uint8_t &at : area)
        at = byte;
}

// With `twice`, once more from the same state over other remains on the stack: nothing that is sent, replied
// or stored may depend on them.
template <class Action> void play(bool twice, Action action)
{
    if (!twice) {
        action();
        return;
    }
    const Memory before = memory_save();
    const uint64_t begin = transcript;
    stack_fill(0xA5);
    action();
    const uint64_t first = transcript;
    const Memory after = memory_save();

    memory_restore(before);
    transcript = begin;
    stack_fill(0x5A);
    action();
    if (transcript != first)
        fault("what was sent depends on what stood on the stack");
    if (memory_save() != after)
        fault("what was stored depends on what stood on the stack");
}

// The daemon may use the frame's 2048 bytes and, while it parses, the record's other fields. Behind the frame
// stand four bytes that belong to nobody; once parsed, everything behind it is out of bounds.
constexpr size_t FRAME_END = offsetof(DhcpsnoopRxPkt, data) + DHCPSNOOP_FRAME_MAX;

uint8_t *behind_frame() { return reinterpret_cast<uint8_t *>(rxpkt) + FRAME_END; }

void record_close() { ASAN_POISON_MEMORY_REGION(behind_frame(), sizeof *rxpkt - FRAME_END); }

void record_open()
{
    ASAN_UNPOISON_MEMORY_REGION(behind_frame(), sizeof *rxpkt - FRAME_END);
    ASAN_POISON_MEMORY_REGION(behind_frame(), offsetof(DhcpsnoopRxPkt, inIf) - FRAME_END);
}

// A request that was answered with an error must have changed nothing.
void check_refused(const Memory &before, uint32_t func, uint32_t cmd, uint32_t result)
{
    const bool action = (func == FUNC_USER_SET || func == FUNC_USER_SYNC) && cmd == USER_ACTION;
    if (result == 0 ||
        (action && refusing)) // an unbinding is withdrawn from one feature, then refused by the other
        return;
    if (!memory_tables_equal(before))
        fault("func %u cmd %u was refused with 0x%x and changed the tables", func, cmd, result);
}

// What makes the counts differ from the bindings by design: interfaces that come to bindings which are there,
// bindings moved by hand, bindings from the peer.
bool moves_bindings(uint32_t func, uint32_t cmd)
{
    switch (func) {
    case FUNC_GLOBAL_SET:
    case FUNC_GLOBAL_SYNC:
        return cmd == GLOBAL_SYNC_PACKET;
    case FUNC_IF_SET:
    case FUNC_IF_SYNC:
        return cmd == IF_ENABLE;
    case FUNC_VLAN_SET:
        return cmd == VLAN_ENABLE;
    case FUNC_USER_SET:
    case FUNC_USER_SYNC:
        return cmd == USER_VLAN || cmd == USER_INTERFACE;
    default:
        return false;
    }
}

uint32_t get32(const uint8_t *p)
{
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

void request_play(const Bytes &request)
{
    constexpr size_t RESULT = 12, HEADER = 26;
    const size_t length = request.size();
    auto *buffer = static_cast<uint8_t *>(malloc(DHCPSNOOP_REQUEST_MAX));
    memset(buffer, 0xEE, DHCPSNOOP_REQUEST_MAX);
    std::copy(request.begin(), request.end(), buffer);
    if (length != 0)
        ASAN_POISON_MEMORY_REGION(buffer + length, DHCPSNOOP_REQUEST_MAX - length);

    const Memory before = memory_save();
    const uint32_t replied = dhcpsnoop_cmd_process(buffer, static_cast<uint32_t>(length));

    ASAN_UNPOISON_MEMORY_REGION(buffer, DHCPSNOOP_REQUEST_MAX);
    transcript_add(buffer, length);
    if (length == 0 ? replied != 22 : replied != 0 && replied != length)
        fault("a request of %zu bytes is answered with %u", length, replied);
    if (replied == length && length != 0) {
        const uint32_t func = get32(buffer + 4), cmd = get32(buffer + 20);
        const uint32_t result = func < FUNC_COUNT ? get32(buffer + RESULT) : 0;
        const bool wholly = func >= FUNC_COUNT || result != 0;
        const size_t kept = wholly ? length : HEADER;
        for (size_t i = 0; i < kept; i++)
            if ((i < RESULT || i >= RESULT + 4 || func >= FUNC_COUNT) && buffer[i] != request[i])
                fault("func %u result 0x%x: byte %zu of the request came back changed", func, result, i);
        if (func < FUNC_COUNT)
            check_refused(before, func, cmd, result);
        countsHold = countsHold && !(result == 0 && moves_bindings(func, cmd));
    } else if (!std::equal(request.begin(), request.end(), buffer)) {
        fault("a request that is none was written to");
    }
    free(buffer);
}

// The index items as the function wants them.
void index_take(Input &input, uint32_t func, Request *request)
{
    if (func <= FUNC_GLOBAL_GET) {
        request->number(0).count(0);
    } else if (func >= FUNC_USER_FIRST && func <= FUNC_USER_GET) {
        const uint8_t which = input.u8();
        Bytes address = be32(POOL_ADDRESSES[which % POOL_ADDRESSES.size()]);
        if ((which & 0x40) != 0)
            address = address + input.bytes(12);
        request->key((which & 0x80) != 0 ? 2 : 1, address);
        if (which == 0xFF)
            request->bytes[29] = input.u8(); // an address type of no kind
    } else if (func >= FUNC_VLAN_FIRST && func <= FUNC_VLAN_GET) {
        request->number(input.pick(POOL_VIDS));
    } else {
        request->number(input.pick(POOL_INTERFACES));
        if (func >= FUNC_SERVER_IP_FIRST)
            request->number(input.pick(POOL_ADDRESSES));
    }
}

// A request of the right form, unless it says otherwise.
Bytes request_take(Input &input)
{
    constexpr std::array<uint8_t, 8> TYPES = {DATA_WORD,  DATA_BYTES, DATA_WORD, DATA_WORD_PAIR,
                                              DATA_BYTES, 1,          3,         255};
    const uint8_t func = input.u8();
    Request request(func, input.u8());
    index_take(input, func % FUNC_COUNT, &request);

    const uint8_t type = input.pick(TYPES);
    switch (type) {
    case DATA_WORD: {
        const uint8_t value = input.u8();
        request.word(value == 0xFF ? input.u32() : value);
        break;
    }
    case DATA_WORD_PAIR:
        request.data(type, input.bytes(8));
        break;
    default:
        request.data(type, input.bytes(input.u8()));
        break;
    }

    const uint8_t extra = input.u8();
    if ((extra & 0x80) != 0 && request.bytes.size() > extra % 0x80u)
        request.bytes.resize(request.bytes.size() - extra % 0x80u); // cut short
    else
        request.bytes.resize(request.bytes.size() + extra);
    return std::move(request.bytes);
}

WorldPort &port_taken(Input &input)
{
    static WorldPort nowhere;
    const auto found = world.ports.find(input.pick(POOL_INTERFACES));
    return found != world.ports.end() ? found->second : nowhere;
}

std::string text_taken(Input &input)
{
    const Bytes bytes = input.bytes(input.u8());
    return std::string(bytes.begin(), bytes.end());
}

DhcpsnoopOptionFormat format_taken(Input &input)
{
    DhcpsnoopOptionFormat format = {};
    format.mode = input.u8() % 8;
    const Bytes text = input.bytes(input.u16() % (sizeof format.text + 1));
    format.len = static_cast<uint16_t>(text.size());
    std::copy(text.begin(), text.end(), format.text);
    return format;
}

} // namespace

extern "C" {

// dhcpsnoop_packet_parse(DhcpsnoopRxPkt *, DhcpsnoopPktInfo *, uint32_t), as the linker's --wrap turns it.
int32_t __real__Z22dhcpsnoop_packet_parseP14DhcpsnoopRxPktP16DhcpsnoopPktInfoj(DhcpsnoopRxPkt *rx,
                                                                               DhcpsnoopPktInfo *info,
                                                                               uint32_t fullParse);

int32_t __wrap__Z22dhcpsnoop_packet_parseP14DhcpsnoopRxPktP16DhcpsnoopPktInfoj(DhcpsnoopRxPkt *rx,
                                                                               DhcpsnoopPktInfo *info,
                                                                               uint32_t fullParse)
{
    const int32_t result =
        __real__Z22dhcpsnoop_packet_parseP14DhcpsnoopRxPktP16DhcpsnoopPktInfoj(rx, info, fullParse);
    if (rx != rxpkt)
        return result;

    // With other bytes behind the frame nothing else may be found in it.
    DhcpsnoopIf *const inIf = rx->inIf;
    static DhcpsnoopPktInfo again;
    rx->inIf = reinterpret_cast<DhcpsnoopIf *>(~reinterpret_cast<uintptr_t>(inIf));
    const int32_t resultAgain =
        __real__Z22dhcpsnoop_packet_parseP14DhcpsnoopRxPktP16DhcpsnoopPktInfoj(rx, &again, fullParse);
    rx->inIf = inIf;
    again.ifp = info->ifp;
    if (result != resultAgain || memcmp(&again, info, sizeof again) != 0)
        fault("parsing saw what stands behind the frame");

    record_close();
    return result;
}
}

void session_prepare()
{
    // Nobody reads the daemon's own output here; its messages are still formatted.
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    rxpkt = static_cast<DhcpsnoopRxPkt *>(calloc(1, sizeof *rxpkt));
    prepare_world();
    world.now = START_TIME;
    pristine = world;
    const Memory started = memory_save();
    for (uint32_t preset = 0; preset < std::size(prepared); preset++) {
        memory_restore(started);
        world.role(prepared_role(static_cast<uint8_t>(preset)));
        prepare_daemon(static_cast<uint8_t>(preset));
        invariants_check(true);
        prepared[preset] = memory_save();
    }
    world.sent = on_sent;
    pristine.sent = on_sent;
}

void session_begin(uint8_t preset)
{
    if (worldChanged)
        world = pristine;
    worldChanged = refusing = false;
    // The lease scan remembers when it last ran: let that be the same for every input.
    world.now = START_TIME - 86'400;
    dhcpsnoop_user_timer_check();
    world.now = START_TIME;

    memory_restore(prepared[preset]);
    world.role(prepared_role(preset));
    countsHold = true;
    transcript = 0xCBF29CE484222325;
}

void session_frame(Input &input)
{
    const bool twice = (input.u8() & 1) != 0;
    const uint32_t interface = frame_take(input, rxpkt, &frameWhole);
    for (const auto &entry : world.ports)
        frameWhole = frameWhole && entry.second.tpid != 0x0800; // tags that read as IPv4
    const DhcpsnoopRxPkt received = *rxpkt;
    record_open();
    play(twice, [&] {
        memcpy(rxpkt, &received, FRAME_END);
        rxpkt->inIf = interface_entry(interface);
        dhcpsnoop_recv(rxpkt);
        record_open();
        if (rxpkt->inIf != interface_entry(interface) || rxpkt->ifIndex != received.ifIndex ||
            rxpkt->outerVid != received.outerVid || rxpkt->innerVid != received.innerVid ||
            rxpkt->l2HdrLen != received.l2HdrLen || rxpkt->etherType != received.etherType ||
            rxpkt->len != received.len || rxpkt->valid != 1)
            fault("the record around a frame was written to");
    });
    ASAN_UNPOISON_MEMORY_REGION(rxpkt, sizeof *rxpkt);
    frameWhole = false;
}

void session_request(Input &input)
{
    const uint8_t kind = input.u8();
    const Bytes request =
        (kind & 2) != 0 ? input.bytes(input.u16() % (DHCPSNOOP_REQUEST_MAX + 1)) : request_take(input);
    if (request.size() <= DHCPSNOOP_REQUEST_MAX)
        play((kind & 1) != 0, [&] { request_play(request); });
}

void session_world(Input &input)
{
    worldChanged = true;
    switch (input.u8() % 16) {
    case 0:
        world.now += input.u16();
        if (world.hwScalars[54] != 0)
            dhcpsnoop_user_timer_check();
        break;
    case 1: {
        const uint8_t which = input.u8();
        gDhcpsnoop.ipsgIfGet = (which & 1) != 0 ? ipsgIfGetApi : nullptr;
        gDhcpsnoop.antiArpIfGet = (which & 2) != 0 ? arpAntiAttackIfGetApi : nullptr;
        gDhcpsnoop.deftinstallCb = (which & 4) != 0 ? deftinstall_client_entry_callback : nullptr;
        break;
    }
    case 2: {
        auto &guards = (input.u8() & 1) != 0 ? world.ipsg : world.dai;
        guards[input.pick(POOL_INTERFACES)] = {input.u8() % 3u, input.u8(), input.u8() % 4 == 0 ? -1 : 0};
        break;
    }
    case 3: {
        const uint8_t which = input.u8();
        auto &data = (which & 1) != 0 ? world.bootFile : world.option125;
        auto &length = (which & 1) != 0 ? world.bootFileLength : world.option125Length;
        data = input.bytes(input.u16() % 300);
        length.reset();
        if ((which & 2) != 0)
            length = input.u32(); // whatever was filled in
        world.hookSetsLengths = (which & 4) != 0;
        break;
    }
    case 4:
        world.hostname = text_taken(input);
        if (input.u8() == 0xFF)
            world.hostname.reset();
        break;
    case 5:
        port_taken(input).name = text_taken(input);
        break;
    case 6: {
        WorldPort &port = port_taken(input);
        port.tpid = input.pick(std::array<uint32_t, 6>{0, 0x8100, 0x88A8, 0x9100, 0x0800, 0xFFFFFFFF});
        port.number = input.u32();
        port.location.fill(input.u32());
        break;
    }
    case 7: {
        WorldPort &port = port_taken(input);
        const uint8_t what = input.u8();
        port.down = (what & 1) != 0;
        if ((what & 2) != 0)
            port.answer255 = static_cast<int8_t>(input.u8());
        if ((what & 4) != 0)
            port.answer258 = static_cast<int8_t>(input.u8());
        if ((what & 8) != 0)
            port.silent = {3, 5, 33, 45, 193, 417, 5400};
        break;
    }
    case 8:
        world.vlanMembers[input.pick(POOL_VIDS)] = input.bytes(input.u16() % 300);
        break;
    case 9:
        world.role(static_cast<DhcpsnoopRole>(input.u8() % 3));
        break;
    case 10: {
        static const std::array<const char *, 12> CALLS = {
            "qorIfSetApi",   "hw add",          "hw delete",
            "qorHwIfSync",   "qorHwScalarSync", "qorHwDhcpSnoopUserSync",
            "qorIndexTrans", "qorVlanGetApi",   "qorIfGetApi",
            "ipsgIfGetApi",  "frame",           "relay"};
        const char *call = input.pick(CALLS);
        world.refuse(call, static_cast<int8_t>(input.u8() | 1));
        refusing = true;
        break;
    }
    case 11: {
        DhcpsnoopOptionFormat *const formats[] = {&gDhcpsnoop.circuitIdFmt, &gDhcpsnoop.remoteIdFmt,
                                                  &gDhcpsnoop.interfaceIdFmt, &gDhcpsnoop.remoteId6Fmt};
        const uint8_t which = input.u8();
        *formats[which % 4] = format_taken(input);
        break;
    }
    case 12:
        world.scalarTexts[input.u8() % 2 == 0 ? 66 : 74] = text_taken(input);
        break;
    case 13:
        gDhcpsnoop.debugFlags = input.u8() % 4;
        break;
    case 14:
        gDhcpsnoop.serverLearn = input.u8() % 2;
        gDhcpsnoop.enterpriseNum = input.u32();
        gDhcpsnoop.daiStarted = input.u8() % 2;
        break;
    case 15:
        world.newIpsgHwId = input.u32();
        world.newDaiHwId = input.u32();
        break;
    }
}

void session_end() { invariants_check(countsHold); }
