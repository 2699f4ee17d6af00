// The daemon's own work on one frame, piece by piece: look-ups as the tables grow, parsing, option
// 82 in and out, checksums, finding a DHCPv6 client's port. Decides where a frame's time goes that the daemon
// takes longer for than the bare loop.
#include <benchmark/benchmark.h>

#include <cstring>

#include "dhcp6snoop_msg.h"
#include "dhcpsnoop_if.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_msg.h"
#include "dhcpsnoop_user.h"
#include "frame.h"
#include "world.h"

namespace
{

constexpr uint32_t FIRST_ADDRESS = ip4(10, 64, 0, 1);

DhcpsnoopUserKey key_of(uint32_t address)
{
    DhcpsnoopUserKey key = {};
    key.ipType = DHCPSNOOP_IPV4;
    const Bytes bytes = be32(address);
    std::memcpy(key.ipAddr, bytes.data(), bytes.size());
    return key;
}

// A daemon with so many bindings, option 82 as raw texts on port 1, so that building it asks the switch
// nothing.
void start(uint32_t bindings)
{
    world.reset(4, static_cast<uint16_t>(bindings + 16));
    world.recording = false;
    world.access(1, 10);
    dhcpsnoop_if_enable(1);
    DhcpsnoopIf *port = dhcpsnoop_if_lookup(1);
    port->circuitIdFmt = port->remoteIdFmt = DHCPSNOOP_FORMAT_RAW;
    port->circuitIdLen = port->remoteIdLen = 12;
    std::memcpy(port->circuitId, "circuit-0001", 12);
    std::memcpy(port->remoteId, "remote-00001", 12);
    port->flags |= DHCPSNOOP_IF_OPTION82;
    for (uint32_t i = 0; i < bindings; i++) {
        const DhcpsnoopUserKey key = key_of(FIRST_ADDRESS + i);
        dhcpsnoop_user_table_add(&key)->userType = DHCPSNOOP_USER_DYNAMIC;
    }
}

void fill(DhcpsnoopRxPkt *rx, const Bytes &frame)
{
    *rx = {};
    rx->valid = 1;
    rx->len = static_cast<uint16_t>(frame.size());
    std::memcpy(rx->data, frame.data(), frame.size());
    rx->inIf = dhcpsnoop_if_lookup(1);
    rx->ifIndex = 1;
    rx->outerVid = 10;
    rx->l2HdrLen = 14;
    rx->etherType = 0x0800;
}

Bytes request_frame()
{
    return Frame{.options = opt_type(3) + opt_ip(50, FIRST_ADDRESS) + opt_ip(54, ip4(10, 0, 0, 1)) +
                            Bytes(40, 0) + Bytes{255}};
}

void lookup_found(benchmark::State &state)
{
    const auto bindings = static_cast<uint32_t>(state.range(0));
    start(bindings);
    uint32_t next = 0;
    for (auto _ : state) {
        const DhcpsnoopUserKey key = key_of(FIRST_ADDRESS + next);
        benchmark::DoNotOptimize(dhcpsnoop_user_lookup(&key));
        next = (next + 7919) % bindings;
    }
}

// A DISCOVER looks for the binding of 0.0.0.0, which nobody has.
void lookup_zero(benchmark::State &state)
{
    start(static_cast<uint32_t>(state.range(0)));
    const DhcpsnoopUserKey key = key_of(0);
    for (auto _ : state)
        benchmark::DoNotOptimize(dhcpsnoop_user_lookup(&key));
}

void parse(benchmark::State &state)
{
    start(16);
    static DhcpsnoopRxPkt rx;
    fill(&rx, request_frame());
    DhcpsnoopPktInfo info;
    for (auto _ : state)
        benchmark::DoNotOptimize(dhcpsnoop_packet_parse(&rx, &info, 1));
}

// Parsing included: every round takes a fresh frame.
void option82_insert(benchmark::State &state)
{
    start(16);
    static DhcpsnoopRxPkt fresh, rx;
    fill(&fresh, request_frame());
    rx = fresh;
    DhcpsnoopPktInfo info;
    for (auto _ : state) {
        std::memcpy(rx.data, fresh.data, 512);
        dhcpsnoop_packet_parse(&rx, &info, 1);
        benchmark::DoNotOptimize(dhcpsnoop_process_option82(&info));
    }
}

void update_checksum(benchmark::State &state)
{
    start(16);
    static DhcpsnoopRxPkt rx;
    fill(&rx, request_frame());
    DhcpsnoopPktInfo info;
    dhcpsnoop_packet_parse(&rx, &info, 1);
    for (auto _ : state)
        benchmark::DoNotOptimize(dhcpsnoop_update_checksum(&info, 0, 0));
}

// A REPLY whose option 18 is that of the last of so many interfaces.
void find_port6(benchmark::State &state)
{
    const auto interfaces = static_cast<uint32_t>(state.range(0));
    world.reset(static_cast<uint16_t>(interfaces), 16);
    world.recording = false;
    for (uint32_t i = 1; i <= interfaces; i++) {
        world.access(i, 10);
        dhcpsnoop_if_enable(i);
        DhcpsnoopIf *port = dhcpsnoop_if_lookup(i);
        port->flags |= DHCPSNOOP_IF_OPTION18;
        port->interfaceIdFmt = DHCPSNOOP_FORMAT_RAW;
        port->interfaceIdLen = 9;
        snprintf(reinterpret_cast<char *>(port->interfaceId), 10, "port-%04u", i);
    }
    const DhcpsnoopIf *last = dhcpsnoop_if_lookup(interfaces);
    static DhcpsnoopRxPkt rx;
    fill(&rx, server6(7, opt6(18, Bytes(last->interfaceId, last->interfaceId + 9))).bytes());
    rx.etherType = 0x86DD;
    DhcpsnoopPktInfo info;
    if (dhcpsnoop_packet_parse(&rx, &info, 1) != 0 || dhcp6snoop_get_if_from_opt(&info, 18) != last)
        state.SkipWithError("the port was not found");
    for (auto _ : state)
        benchmark::DoNotOptimize(dhcp6snoop_get_if_from_opt(&info, 18));
}

BENCHMARK(lookup_found)->Arg(256)->Arg(32768);
BENCHMARK(lookup_zero)->Arg(256)->Arg(32768);
BENCHMARK(parse);
BENCHMARK(option82_insert);
BENCHMARK(update_checksum);
BENCHMARK(find_port6)->Arg(8)->Arg(64)->Arg(512);

} // namespace

BENCHMARK_MAIN();
