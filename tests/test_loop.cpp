// One pass of the loop: what is watched, what is served in which order, how a frame becomes a record; and the lease scan.

#include <algorithm>

#include <sys/mman.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include "event_message.h"
#include "steps.h"

namespace
{

// The packet information as the kernel attaches it.
using Control = std::tuple<int, int, Bytes>; // level, type, data
using Controls = std::vector<Control>;
Bytes info(uint32_t ifIndex = 1, uint16_t outer = 10, uint16_t inner = 0, uint8_t l2 = 14) { return be32(ifIndex) + Bytes(16, 0xEE) + be16(outer) + be16(inner) + Bytes{l2}; }
Controls with_info(uint32_t ifIndex = 1, uint16_t outer = 10, uint16_t inner = 0, uint8_t l2 = 14) { return {{263, 8, info(ifIndex, outer, inner, l2)}}; }

// One pass. Its calls (the usual select left out), records (type, length, interface, port, VLANs, layer-2 length), errors
// and texts.
std::string done;
void pass()
{
    world.clear();
    PrintedError error;
    dhcpsnoop_main_pass();
    const std::string calls = calls_summary(), usual = "select data data6 cmd rt, 60 s";
    done += calls.starts_with(usual) ? calls.substr(usual.size()) : calls;
    for (const DhcpsnoopRxPkt &rx : world.received) {
        done += world_format(" | %u %x %u on %u port %u vlan %u.%u l2 %u", rx.valid, rx.etherType, rx.len, rx.inIf->ifIndex, rx.ifIndex, rx.outerVid, rx.innerVid, rx.l2HdrLen);
        done += Bytes(rx.data + rx.len, rx.data + 2048) == Bytes(2048u - rx.len) ? "" : " dirty";
    }
    done += error.text().substr(0, error.text().rfind(':')) + said();
}

// A pass in which one frame waits on a data socket.
void frame(const Controls &control, bool ipv6 = false, uint32_t ifIndex = 1, std::optional<ssize_t> result = {}, const Bytes &bytes = Frame{}.bytes())
{
    Bytes laidOut;
    for (const auto &[level, type, data] : control)
        laidOut = world_control(laidOut, level, type, data);
    world.arrivals[ipv6 ? 1 : 0].push_back({bytes, laidOut, ifIndex, result});
    world.readable = {ipv6 ? gDhcpsnoop.data6Sock : gDhcpsnoop.dataSock};
    pass();
}

// What the passes of `body` did, in a process of its own: the loop keeps what it has seen of packet information.
std::string alone(const std::function<void()> &body, const char *words = "")
{
    constexpr size_t SIZE = 65536;
    static auto *const text = static_cast<char *>(mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        prepare(words);
        dhcpsnoop_user_timer_check(); // takes up this world's time
        debug(0);
        Printed out; // dumps
        body();
        snprintf(text, SIZE, "%s", (done + world_check_tables()).c_str());
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0 ? text : "the child failed";
}

std::string control(const Controls &controls)
{
    return alone([&] { frame(controls); });
}

std::string watches(int data, int data6, int cmd, int rt)
{
    return alone([=] {
        gDhcpsnoop.dataSock = data, gDhcpsnoop.data6Sock = data6, gDhcpsnoop.cmdSock = cmd, gDhcpsnoop.rtSock = rt;
        pass();
        pass(); // the time-out is set afresh
    });
}

// A frame in that VLAN of port 3, which is not snooped; VLAN interface 110 of VLAN 10 is snooped if the words say so.
std::string in_vlan(const char *words, uint16_t outer, bool ipv6 = false, int flags = 2)
{
    const auto body = [=] {
        debug(*words != '\0' ? 0 : flags);
        frame(with_info(3, outer), ipv6, 3);
        done += " " + world.questions("qorIndexTrans").at(0);
    };
    return alone(body, words);
}

// A frame is there, and a binding whose lease ends; select says so, or gives 0 or -1.
std::string served(int result, DhcpsnoopRole role = DHCPSNOOP_ROLE_NONE)
{
    return alone([=] {
        make_binding(HOST, MAC_CLIENT, 1, 10)->leaseTime = 60;
        world.now += 60;
        world.role(role);
        world.arrivals[0] = {{Frame{}.bytes(), world_control({}, 263, 8, info()), 1, {}}};
        world.readable = result > 0 ? std::set{gDhcpsnoop.dataSock} : std::set<int>{};
        world.refuse("select", result, result < 0);
        pass();
        done += held();
    });
}

std::string event(ssize_t result, const Bytes &datagram = Bytes(2048, 0xFF))
{
    return alone([&] {
        world.events.push_back({datagram, result});
        world.readable = {gDhcpsnoop.rtSock};
        const std::string before = world_state();
        pass();
        done += world_state() == before ? "" : " changed";
    });
}

#define RECORD " | 1 800 286 on 1 port 1 vlan 10.0 l2 14"
#define ON4 " | 1 800 286 on 4 port 4 vlan 20.0 l2 14"
TEST(Loop, Rows)
{
    const size_t ahead = 104 - 2 * CMSG_LEN(0); // behind so much the next message's 25 bytes end one behind the room of 128
    check({
        {"descriptor 0 is not watched; none at all; a descriptor that does not fit the set is left out; the last that fits", series({watches(0, 0, 0, 903), watches(-1, -1, -1, -1), watches(FD_SETSIZE, FD_SETSIZE + 70, 902, 1 << 20), watches(FD_SETSIZE - 1, -1, -1, -1)}), "select rt, 60 sselect rt, 60 s / select, 60 sselect, 60 s / select cmd, 60 sselect cmd, 60 s / select data, 60 sselect data, 60 s"},
        {"each source once, in order", alone([] {
             for (int i = 0; i < 2; i++) {
                 world.arrivals[i] = {{Frame{}.bytes(), world_control({}, 263, 8, info()), 1, {}}, {}};
                 world.events.push_back({Bytes(16, 0), 16});
             }
             world.readable = {900, 901, 902, 903};
             pass();
             done += world_format(", left %zu %zu %zu", world.arrivals[0].size(), world.arrivals[1].size(), world.events.size());
         }),
         ", accept, platform_event_recv 2048 12" RECORD " | 1 86dd 286 on 1 port 1 vlan 10.0 l2 14[DHCPSNOOP] Command server accept failed!\r\n, left 1 1 1"},
        {"nothing is served after a time-out, the lease scan runs; Kept: after a failure every watched socket is served; a readable socket is served; no lease scan of a slave; a master's", series({served(0), served(-1).substr(0, 98), served(1), served(0, DHCPSNOOP_ROLE_SLAVE), served(0, DHCPSNOOP_ROLE_MASTER).substr(0, 30)}), " / , accept, platform_event_recv 2048 12" RECORD "[DHCPSNOOP] Command s / " RECORD " /  | .50 bound 1/10 60s 60s ago / , qorHwScalarSync null 0x40013"},
        {"every field; IPv4: the packet information's port; IPv6: the link-layer address's; behind a short frame stands no earlier one", series({alone([] { frame(with_info(1, 100, 20, 22), false, 77); }), alone([] { frame(with_info(1, 0xFFF, 0, 255), true, 77); }), alone([] { frame(with_info(), false, 1, {}, Bytes(2048, 0xAA)), frame(with_info()), done += hex(Bytes(world.received[0].data, world.received[0].data + 7)); })}), series({" | 1 800 286 on 1 port 1 vlan 100.20 l2 22", " | 1 86dd 286 on 1 port 77 vlan 4095.0 l2 255", " | 1 800 2048 on 1 port 1 vlan 10.0 l2 14" RECORD "ff ff ff ff ff ff 02"})},
        {"nothing received is reported; a failure is passed over silently; one byte is a frame; more than the buffer counts as the buffer", series({alone([] { frame(with_info(), false, 1, 0), frame(with_info(), true, 1, 0); }), alone([] { frame(with_info(), false, 1, -1); }), alone([] { frame(with_info(), false, 1, 1, {9}); }), alone([] { frame(with_info(), false, 1, 70'000); })}), "[DHCPSNOOP]: recvmsg error len!\r\n[DHCPSNOOP]: recvmsg error len! /  /  | 1 800 1 on 1 port 1 vlan 10.0 l2 14 /  | 1 800 2048 on 1 port 1 vlan 10.0 l2 14"},
        {"level SOL_PACKET, any type; more than the 25 bytes, other levels and a short one before it; the first of two", series({control({{263, 0, info()}}), control({{1, 29, Bytes(8, 0)}, {263, 8, Bytes(20, 0)}, {263, 20, info() + Bytes{1}}}), control({{263, 8, info()}, {263, 8, info(2, 20)}})}), RECORD},
        {"another level, 24 bytes, none; beyond the room of 128 bytes, and its last byte behind it", series({control({{1, 8, info()}}) + control({{263, 8, Bytes(24, 0)}}) + control({{263, 8, {}}}) + control({}), control({{1, 1, Bytes(116, 0)}, {263, 8, info()}}) + control({{1, 1, Bytes(ahead, 0)}, {263, 8, info()}})}), ""},
        {"dropped until information was seen", alone([] { debug(2), frame({}), frame({}, true), debug(1), frame({}), frame({}, true); }), "{[DHCPSNOOP]: rxpktInfo was NULL!\r\n}{[DHCPSNOOP] rxpktInfo was NULL!}"},
        // Kept: the information last seen serves the frames that come without any; and after one frame without control
        // data there is no room for any, so that every later frame is taken with the information seen before.
        {"information last seen", alone([] { world.access(4, 20), snoop(4), frame(with_info(4, 20)), frame({{1, 29, Bytes(16, 0)}}), frame({}), frame(with_info()); }), ON4 ON4 ON4 ON4},
        {"the VLAN interface of a port without snooping; one without snooping: dropped silently; no VLAN interface", series({in_vlan("vlan-if", 10) + in_vlan("vlan-if", 10, true), in_vlan("", 10) + in_vlan("", 10, true), in_vlan("", 50) + in_vlan("", 50, true) + in_vlan("", 50, false, 1)}), " | 1 800 286 on 110 port 3 vlan 10.0 l2 14 qorIndexTrans 0,0,0,0,10,3,0 7 | 1 86dd 286 on 110 port 3 vlan 10.0 l2 14 qorIndexTrans 0,0,0,0,10,3,0 7 /  qorIndexTrans 0,0,0,0,10,3,0 7 qorIndexTrans 0,0,0,0,10,3,0 7 / {[DHCPSNOOP]: qor index trans error!\r\n} qorIndexTrans 0,0,0,0,50,3,0 7qor index trans error! qorIndexTrans 0,0,0,0,50,3,0 7 qorIndexTrans 0,0,0,0,50,3,0 7"},
        {"no event is reported; a datagram is walked: port 1 is gone; a failure and a datagram of one byte harm nothing", series({event(0), event(32, event_message(17, host32(0) + host32(1) + Bytes(8, 0))), event(-1) + event(1)}), ", platform_event_recv 2048 12[DHCPSNOOP]: recvfrom rt_socket  failed!\r\n  / , platform_event_recv 2048 12, qorIfSetApi 1 306 23 changed / , platform_event_recv 2048 12, platform_event_recv 2048 12"},
    });
}

// Port 1 snoops and relays; the scan has taken up this world's time.
void start()
{
    world.reset();
    world.access(1, 10);
    snoop(1);
    apply("set 1 relay .254;server.set 1 1 .1 = 1;scan");
}

#define SCAN "Timeout, check the user binding table!"
#define GONE "User time out, mac:02:c1:00:00:00:01.; 7 1 [DHCPSNOOP] Delete dynamic dhcpsnoop entry: ip 10.0.0."
const Step SCANS[] = {
    {"a minute apart; after a minute; not again; nor later; a clock set back scans at once, and takes up the new time; its minute", "debug 2", "later 59;scan;later 1;scan;scan;later 59;scan;later -3600;scan;later 59;scan;later 1;scan", " / " SCAN " /  /  / " SCAN " /  / " SCAN},
    {"a lease is over at its end, one of 0 at once; one second left; static and IP source guard's never expire; lease time is unsigned; an endless lease", "bind .1 1 10;set .1 lease 60;bind .2 1 10;set .2 lease 0;bind .3 1 10;set .3 lease 61;bind .4 1 10;set .4 lease 1 type 2;bind .5 1 10;set .5 lease 1 type 4;bind .6 1 10;set .6 lease 0x80000000;bind .7 1 10;set .7 lease 0xffffffff;debug 2", "later 60;scan;later 60;scan", SCAN "; " GONE "1; " GONE "2 | -10.0.0.1 | -10.0.0.2 | if1 cur=5 / " SCAN "; " GONE "3 | -10.0.0.3 | if1 cur=4"},
    {"waiting clients go after two minutes, silently", "discover 1;debug 2", "later 60;scan;later 60;scan", SCAN " / " SCAN " | -waiting/02c100000001"},
};
TEST(Timer, Scans)
{
    check_steps(SCANS, start);
    start();
    for (uint32_t i = 0; i < 130; i++) // every one of the 63 buckets has two or more entries
        make_binding(ip4(10, 0, 0, static_cast<uint8_t>(i)), MAC_CLIENT, 3, 20)->leaseTime = i % 2 == 0 ? 60 : 600;
    apply("later 60;scan");
    EXPECT_EQ(std::ranges::count(held(), '|'), 65) << "every bucket and every entry is visited";
}

} // namespace
