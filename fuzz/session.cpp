// Plays one input: restores the state that it chose, hands its records to the daemon with the ends of every
// buffer watched, some of them twice over different remains on the stack, and checks what left and what
// stayed.
#include "session.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <sanitizer/asan_interface.h>

#include "changes.h"
#include "dhcpsnoop_cmd.h"
#include "dhcpsnoop_event.h"
#include "dhcpsnoop_msg.h"
#include "dhcpsnoop_sync.h"
#include "dhcpsnoop_timer.h"
#include "events.h"
#include "fault.h"
#include "frames.h"
#include "input.h"
#include "invariants.h"
#include "management.h"
#include "peer.h"
#include "prepare.h"
#include "requests.h"
#include "world.h"

namespace
{

constexpr int64_t START_TIME = 1'000'000'000;
constexpr int RECORDS_MAX = 48;
constexpr size_t STACK_FILLED = 48 * 1024;

Memory prepared[256];
World pristine;
bool worldChanged;     // by a record
bool refusing;         // the switch refuses some calls
bool countsHold;       // nothing has moved bindings between interfaces behind the counts
bool frameWhole;       // what is sent now must have true headers
bool standbyActs;      // what happens now happens on a standby unit
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
    // Rules for the hardware and records for the peer have other lengths than what a standby unit may tell.
    constexpr size_t EVENT_LEN = 72, INSTALL_UNSET_LEN = 12;
    if (did == Did::Call && standbyActs && count != EVENT_LEN && count != INSTALL_UNSET_LEN)
        fault("a standby unit hands over a record of %zu bytes", count);
    if (did == Did::Frame)
        invariants_check_frame(bytes, count, frameWhole);
    else if (did == Did::Relay && (count < 240 || count > DHCPSNOOP_FRAME_MAX))
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

// On the heap in its own size, so that its ends are watched.
std::unique_ptr<uint8_t[]> exact_copy(const Bytes &bytes)
{
    std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return copy;
}

void event_play(const Bytes &datagram, int32_t length)
{
    const auto buffer = exact_copy(datagram);
    if (dhcpsnoop_notify_recv(buffer.get(), length) != 0)
        fault("a datagram of events is answered");
    if (!std::equal(datagram.begin(), datagram.end(), buffer.get()))
        fault("a datagram of events was written to");
}

void packet_play(const Bytes &packet, bool unpointed)
{
    standbyActs = dhcpsnoop_running_role_get() == DHCPSNOOP_ROLE_SLAVE;
    // Bindings of every type are counted when they come, dynamic ones when they go.
    countsHold = countsHold && !standbyActs;
    const Memory before = memory_save();
    const auto buffer = exact_copy(packet);
    QorBuffer transfer = {unpointed ? nullptr : buffer.get(), static_cast<uint32_t>(packet.size())};

    dhcpsnoop_sync_pkt_recv(&transfer);

    if (!std::equal(packet.begin(), packet.end(), buffer.get()) || transfer.length != packet.size())
        fault("a packet from the peer was written to");
    if ((!standbyActs || unpointed) && !memory_tables_equal(before))
        fault("a packet that is not for this unit changed the tables");
    standbyActs = false;
}

void begin(uint8_t preset)
{
    if (worldChanged)
        world = pristine;
    worldChanged = refusing = false;
    memory_restore(prepared[preset]);
    world.role(prepared_role(preset));
    // The lease scan remembers when it last ran. Twice, an hour apart: then that is the same for every input.
    for (const int64_t before : {7200, 3600}) {
        world.now = START_TIME - before;
        dhcpsnoop_user_timer_check();
    }
    world.now = START_TIME;
    countsHold = true;
    transcript = 0xCBF29CE484222325;
}

void frame_record(Input &input)
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

void request_record(Input &input)
{
    const uint8_t kind = input.u8();
    const Bytes request =
        (kind & 2) != 0 ? input.bytes(input.u16() % (DHCPSNOOP_REQUEST_MAX + 1)) : request_take(input);
    if (request.size() <= DHCPSNOOP_REQUEST_MAX)
        play((kind & 1) != 0, [&] { request_play(request); });
}

void event_record(Input &input)
{
    const uint8_t kind = input.u8();
    const Bytes datagram =
        (kind & 2) != 0 ? input.bytes(input.u16() % DHCPSNOOP_FRAME_MAX) : events_take(input);
    auto length = static_cast<int32_t>(datagram.size());
    if ((kind & 4) != 0) // of a receive that failed, or gave less
        length = std::min<int32_t>(length, static_cast<int8_t>(input.u8()));
    play((kind & 1) != 0, [&] { event_play(datagram, length); });
}

void packet_record(Input &input)
{
    const uint8_t kind = input.u8();
    const Bytes packet =
        (kind & 2) != 0 ? input.bytes(input.u16() % DHCPSNOOP_FRAME_MAX) : packet_take(input);
    play((kind & 1) != 0, [&] { packet_play(packet, (kind & 0xF0) == 0xF0); });
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

void session_run(const uint8_t *bytes, size_t size, const std::array<Record, 8> &kinds, bool standby)
{
    Input input(bytes, size);
    begin(input.u8());
    if (standby)
        world.role(DHCPSNOOP_ROLE_SLAVE);
    for (int i = 0; i < RECORDS_MAX && input.more(); i++) {
        switch (input.pick(kinds)) {
        case Record::frame:
            frame_record(input);
            break;
        case Record::request:
            request_record(input);
            break;
        case Record::event:
            event_record(input);
            break;
        case Record::packet:
            packet_record(input);
            break;
        case Record::change:
            worldChanged = true;
            refusing = change_take(input) || refusing;
            break;
        }
    }
    invariants_check(countsHold);
}
