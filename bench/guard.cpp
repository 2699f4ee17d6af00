// What the guard costs a bridge: frames a second between two ports with the guard off and on, at 1,000 and at
// 32,768 bindings whose sources come at random, and how long a binding takes to come and go; what a host port
// costs the machine's own frames. In namespaces of its own; prints one JSON object.
//
//   bench_guard [ROUNDS]
//
// The same frames go through both ways in turns, in small blocks, and the fast ones among them are compared
// by their processor time, which the kernel spends on a frame's whole way in the sender's name. A frame on
// its way costs what sending it costs, the bridge, and its reception at the other end.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <bpf/bpf.h>
#include <net/if.h>
#include <sched.h>
#include <sys/mount.h>

#include "bindings.h"
#include "bridge_gate.h"
#include "classifier.h"
#include "guard.h"
#include "link.h"

using namespace platform_linux;

namespace
{

constexpr uint32_t MOST = 32768, BLOCK = 256;
constexpr uint8_t ALL = GUARD_CHECK_ADDRESS | GUARD_CHECK_MAC | GUARD_CHECK_VLAN | GUARD_CHECK_PORT;

using Frame = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

double cpu_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

enum Kind { IPV4, IPV6, ARP, KINDS };
constexpr const char *NAMES[KINDS] = {"ipv4", "ipv6", "arp"};

void must(int error, const char *what)
{
    errno = error;
    if (error != 0)
        die(what);
}

QorUserRecord record_of(Kind kind, uint32_t host, uint32_t port)
{
    QorUserRecord record = {};
    const uint8_t mac[6] = {2, 0, 0, 0, static_cast<uint8_t>(host >> 8), static_cast<uint8_t>(host)};
    const uint8_t prefix[4] = {10, 1, mac[4], mac[5]};
    memcpy(record.mac, mac, sizeof mac);
    memcpy(record.addr, prefix, sizeof prefix);
    if (kind == IPV6)
        memcpy(record.addr + 12, prefix, sizeof prefix);
    record.addr[0] = kind == IPV6 ? 0x20 : 10;
    record.vid = 1;
    record.ifIndex = port;
    record.ipType = kind == IPV6 ? DHCPSNOOP_IPV6 : DHCPSNOOP_IPV4;
    record.ruleFlags = kind == ARP ? DHCPSNOOP_HW_DAI : DHCPSNOOP_HW_IPSG;
    record.macValid = 0x30;
    record.addrKind = kind == IPV6 ? 0x80 : 0x20;
    return record;
}

int32_t request(uintptr_t operation, QorUserRecord &record)
{
    const QorIfRequest request = {
        operation, &record, {0, 0}
    };
    return binding_set(0, &request);
}

Frame frame_of(Kind kind, const QorUserRecord &record, const uint8_t *to)
{
    Frame frame(kind == ARP ? 60 : 342);
    memcpy(&frame[0], to, 6);
    memcpy(&frame[6], record.mac, 6);
    const auto put = [&frame](size_t at, std::initializer_list<uint8_t> bytes) {
        std::copy(bytes.begin(), bytes.end(), &frame[at]);
    };
    switch (kind) {
    case IPV4: // UDP of 300 bytes, without a checksum
        put(12, {8, 0, 0x45, 0, 1, 72, 0, 0, 0, 0, 64, 17, 0, 0});
        memcpy(&frame[26], record.addr, 4);
        break;
    case IPV6:
        put(12, {0x86, 0xDD, 0x60, 0, 0, 0, 1, 32, 17, 64});
        memcpy(&frame[22], record.addr, 16);
        break;
    default:
        put(12, {8, 6, 0, 1, 8, 0, 6, 4, 0, 2});
        memcpy(&frame[22], record.mac, 6);
        memcpy(&frame[28], record.addr, 4);
    }
    return frame;
}

uint64_t received()
{
    uint64_t frames = 0;
    std::ifstream("/sys/class/net/c2/statistics/rx_packets") >> frames;
    return frames;
}

// Nanoseconds a frame. All frames must arrive.
double send_block(Link &link, const std::vector<Frame> &frames, size_t &next)
{
    const uint64_t before = received();
    const double begin = cpu_ns();
    for (uint32_t i = 0; i < BLOCK; i++) {
        link.send(frames[next]);
        next = (next + 1) % frames.size();
    }
    link.flush();
    const double took = cpu_ns() - begin;
    const uint64_t arrived = received() - before; // they are handed over in the sender's own time
    if (arrived < BLOCK) {
        fprintf(stderr, "bench_guard: %llu of %u frames arrived\n", static_cast<unsigned long long>(arrived),
                BLOCK);
        exit(1);
    }
    return took / BLOCK;
}

double fast(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 10];
}

void compare(Kind kind, uint32_t bindings, uint32_t port, Link &link, const uint8_t *to, int rounds)
{
    std::vector<QorUserRecord> records;
    std::vector<Frame> frames;
    for (uint32_t host = 0; host < bindings; host++) {
        records.push_back(record_of(kind, host, port));
        frames.push_back(frame_of(kind, records.back(), to));
        must(request(QOR_USER_ADD, records.back()), "add");
    }
    std::shuffle(frames.begin(), frames.end(), std::mt19937(1));
    std::vector<double> times[2];
    size_t next = 0;
    // Before anything is measured the bridge has learned every source.
    for (size_t sent = 0; sent < frames.size(); sent += BLOCK)
        send_block(link, frames, next);
    for (int i = 0; i < 2 * rounds; i++) {
        guard_items items = {};
        (kind == ARP ? items.arp : items.ip) = i % 2 != 0 ? ALL : uint8_t{0};
        must(guard_config_set({false, port}, items), "configuration");
        times[i % 2].push_back(send_block(link, frames, next));
    }
    printf("  \"%s %u\": {\"off ns\": %.0f, \"on ns\": %.0f, \"rate\": %.2f},\n", NAMES[kind], bindings,
           fast(times[0]), fast(times[1]), fast(times[0]) / fast(times[1]));
    for (QorUserRecord &record : records)
        must(request(QOR_USER_DELETE, record), "delete");
}

// What this machine sends through its bridge, without a host port and with one that is trapped.
void compare_host(uint32_t bridge, Link &link, const uint8_t *to, int rounds)
{
    const std::vector<Frame> frames = {frame_of(IPV4, record_of(IPV4, 1, bridge), to)};
    std::vector<double> times[2];
    size_t next = 0;
    for (int i = 0; i < 2 * rounds; i++) {
        const bool on = i % 2 != 0;
        guard_port_host(bridge, on);
        must(on ? guard_port_add(bridge, 1, PortVlans(2)) : 0, "host port");
        must(on ? guard_trap_port(bridge, 4, true) : 0, "trap");
        times[i % 2].push_back(send_block(link, frames, next));
    }
    guard_port_remove(bridge, 0);
    guard_port_host(bridge, false);
    printf("  \"from the host\": {\"off ns\": %.0f, \"on ns\": %.0f, \"cost ns\": %.0f},\n", fast(times[0]),
           fast(times[1]), fast(times[1]) - fast(times[0]));
}

// DHCP frames that nobody receives behind the trap: without a limit, within it, beyond it, and of a client
// that has a share of its own.
void compare_limit(uint32_t port, Link &link, const uint8_t *to, int rounds)
{
    const QorUserRecord client = record_of(IPV4, 1, port);
    Frame dhcp = frame_of(IPV4, client, to);
    dhcp[35] = 68, dhcp[37] = 67; // UDP ports
    const uint32_t zero = 0;
    const Fd ports = guard_config_map("guard_rates"), sum = guard_config_map("guard_rate_sum");
    constexpr uint64_t FULL = uint64_t{1} << 50;
    const guard_buckets none = {}, empty = {0, 0, 1, 0, 0}, common = {0, 0, 1, FULL, 0},
                        known = {0, 0, 1, 0, FULL};
    const std::pair<const char *, guard_buckets> ways[] = {
        {"no limit",      none  },
        {"within",        common},
        {"beyond",        empty },
        {"known, within", known },
        {"known, beyond", empty }
    };
    std::vector<double> times[std::size(ways)];
    guard_rate before = {};
    const guard_buckets all = {0, 0, 1, FULL, FULL};
    bpf_map_lookup_elem(ports.get(), &port, &before);
    must(bpf_map_update_elem(sum.get(), &zero, &all, BPF_ANY) != 0 ? errno : 0, "sum");
    must(guard_trap_port(port, 4, true), "trap");
    for (size_t i = 0; i < std::size(ways) * static_cast<size_t>(rounds); i++) {
        const size_t way = i % std::size(ways);
        guard_rate rate = {};
        rate.buckets = ways[way].second;
        must(bpf_map_update_elem(ports.get(), &port, &rate, BPF_ANY) != 0 ? errno : 0, "rate");
        if (way == 3)
            guard_known_add(port, client.mac);
        if (way == 0)
            guard_known_remove(port, client.mac);
        const double begin = cpu_ns();
        for (uint32_t frame = 0; frame < BLOCK; frame++)
            link.send(dhcp);
        link.flush();
        times[way].push_back((cpu_ns() - begin) / BLOCK);
    }
    printf("  \"DHCP ns\": {");
    for (size_t way = 0; way < std::size(ways); way++)
        printf("%s\"%s\": %.0f", way != 0 ? ", " : "", ways[way].first, fast(times[way]));
    printf("},\n");
    guard_known_remove(port, client.mac);
    must(guard_trap_port(port, 4, false), "trap");
    must(bpf_map_update_elem(ports.get(), &port, &before, BPF_ANY) != 0 ? errno : 0, "rate");
}

// The nftables table in front of the bridge, there and not there.
void compare_gate(uint32_t port, Link &link, const uint8_t *to, int rounds)
{
    const uint32_t bridge = if_nametoindex("br0"), other = if_nametoindex("p2");
    const GatePasses passes = {
        {port,  {bridge, true}},
        {other, {bridge, true}}
    };
    const std::vector<Frame> frames = {frame_of(IPV4, record_of(IPV4, 1, port), to)};
    std::vector<double> times[2];
    size_t next = 0;
    for (int i = 0; i < 2 * rounds; i++) {
        if (i % 2 == 0)
            bridge_gate_remove();
        else if (bridge_gate_set(passes, {}) == EOPNOTSUPP)
            return;
        times[i % 2].push_back(send_block(link, frames, next));
    }
    bridge_gate_remove();
    printf("  \"gate\": {\"off ns\": %.0f, \"on ns\": %.0f},\n", fast(times[0]), fast(times[1]));
}

void time_updates(uint32_t bindings, uint32_t port)
{
    std::vector<QorUserRecord> records;
    for (uint32_t host = 0; host < bindings; host++) {
        records.push_back(record_of(IPV4, host, port));
        must(request(QOR_USER_ADD, records.back()), "add");
    }
    std::vector<double> adds, deletes;
    for (uint32_t host = 40000; host < 42000; host++) {
        QorUserRecord record = record_of(IPV4, host, port);
        const auto begin = Clock::now();
        must(request(QOR_USER_ADD, record), "add");
        const auto added = Clock::now();
        must(request(QOR_USER_DELETE, record), "delete");
        adds.push_back(std::chrono::duration<double, std::micro>(added - begin).count());
        deletes.push_back(std::chrono::duration<double, std::micro>(Clock::now() - added).count());
    }
    std::nth_element(adds.begin(), adds.begin() + 1000, adds.end());
    std::nth_element(deletes.begin(), deletes.begin() + 1000, deletes.end());
    printf("  \"update at %u\": {\"add us\": %.2f, \"delete us\": %.2f}%s\n", bindings, adds[1000],
           deletes[1000], bindings == MOST ? "" : ",");
    for (QorUserRecord &record : records)
        must(request(QOR_USER_DELETE, record), "delete");
}

} // namespace

int main(int argc, char **argv)
{
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 400;
    must(unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
                 mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                 mount("run", "/run", "tmpfs", 0, nullptr) != 0 ||
                 mount("sys", "/sys", "sysfs", 0, nullptr) != 0
             ? errno
             : 0,
         "namespaces");
    if (system(
            "for i in 1 2; do ip link add p$i type veth peer name c$i && ip link set c$i up && ip link set p$i up; done;"
            "ip link add br0 type bridge mcast_snooping 0 && ip link set p1 master br0 && ip link set p2 master br0 &&"
            "ip link set br0 up && sleep 1;"
            "for i in /proc/sys/net/bridge/bridge-nf-call-*; do [ ! -e $i ] || echo 0 >$i; done") != 0)
        die("ip");
    const uint32_t port = if_nametoindex("p1");
    std::string why, note;
    if (!guard_open(2 * MOST + 16, why, note)) {
        fprintf(stderr, "no guard here: %s\n", why.c_str());
        return 77;
    }
    bindings_start(MOST + 16);
    must(guard_port_add(port, 1, PortVlans(2)), "port");
    if (!guard_config_open(why))
        die(why);
    constexpr uint16_t NONE = 0x88B5; // neither of them is to receive
    Link from("c1", NONE);
    const Link to("c2", NONE);
    printf("{\n");
    for (const Kind kind : {IPV4, IPV6, ARP})
        for (const uint32_t bindings : {1000u, MOST})
            compare(kind, bindings, port, from, to.address(), rounds);
    Link host("br0", NONE);
    compare_host(if_nametoindex("br0"), host, to.address(), rounds);
    compare_limit(port, from, to.address(), rounds);
    compare_gate(port, from, to.address(), rounds);
    for (const uint32_t bindings : {0u, 1000u, MOST})
        time_updates(bindings, port);
    printf("}\n");
    std::string report;
    return trap_release(report) ? 0 : 1;
}
