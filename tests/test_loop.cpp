// One pass of the loop: what is watched, what is served in which order, how a frame becomes a record; and the lease scan.
#include "scene.h"

#include <functional>

#include <sys/mman.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

// The packet information as the kernel attaches it.
Bytes info(uint32_t ifIndex = 1, uint16_t outer = 10, uint16_t inner = 0, uint8_t l2 = 14) { return be32(ifIndex) + repeated(0xEE, 16) + be16(outer) + be16(inner) + Bytes{l2}; }
using Controls = std::vector<WorldControl>;
const Controls WITH_INFO = {{263, 8, info()}};

// The loop keeps what it has seen of packet information for the life of the process, so that each row has a process of its
// own.
std::string alone(const std::function<std::string()> &body)
{
    constexpr size_t SIZE = 65536;
    static auto *const text = static_cast<char *>(mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        prepare("");
        dhcpsnoop_user_timer_check(); // takes up this world's time
        Printed out;                  // dumps
        snprintf(text, SIZE, "%s", (body() + world_check_tables()).c_str());
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0 ? text : "the child failed";
}

// One pass. What was called and printed as an error, and the records: type, length, interface, port, VLANs, layer-2 length.
std::string pass()
{
    world.clear();
    PrintedError error;
    dhcpsnoop_main_pass();
    std::string text = calls_summary();
    for (const DhcpsnoopRxPkt &rx : world.received) {
        text += world_format(" | %u %x len %u on %u port %u vlan %u.%u l2 %u", rx.valid, rx.etherType, rx.len, rx.inIf->ifIndex, rx.ifIndex, rx.outerVid, rx.innerVid, rx.l2HdrLen);
        for (size_t i = rx.len; i < sizeof rx.data; i++)
            text += rx.data[i] == 0 ? "" : " dirty";
    }
    return text + (error.text().empty() ? "" : " | " + error.text().substr(0, error.text().rfind(':')));
}

// A pass in which one frame waits on a data socket.
std::string arrives(const WorldArrival &arrival, bool ipv6 = false)
{
    world.arrivals[ipv6 ? 1 : 0].push_back(arrival);
    world.readable = {ipv6 ? gDhcpsnoop.data6Sock : gDhcpsnoop.dataSock};
    const std::string text = pass();
    return text.substr(text.find(" s") + 2);
}

std::string control(const Controls &controls)
{
    return alone([&] { return arrives({.frame = Frame{}.bytes(), .control = controls}); });
}

std::string watches(int data, int data6, int cmd, int rt)
{
    return alone([=] {
        gDhcpsnoop.dataSock = data;
        gDhcpsnoop.data6Sock = data6;
        gDhcpsnoop.cmdSock = cmd;
        gDhcpsnoop.rtSock = rt;
        const std::string first = pass(); // the time-out is set afresh
        return first == pass() ? first : "changes";
    });
}

std::string received(ssize_t result, bool ipv6 = false)
{
    return alone([=] { return arrives({.frame = Bytes(2048, 0), .control = WITH_INFO, .ifIndex = 1, .result = result}, ipv6); });
}

// A frame of port 5 in that VLAN; VLAN interface 130 is snooped, 140 is not. With the questions asked and the texts.
std::string in_vlan(uint16_t outer, bool ipv6, int flags = 2)
{
    return alone([=] {
        world.access(5, 30);
        world.vlan_interface(130, 30);
        world.vlan_interface(140, 40);
        snoop(130);
        debug(flags);
        const std::string text = arrives({.frame = Frame{}.bytes(), .control = {{263, 8, info(5, outer)}}, .ifIndex = 5}, ipv6);
        const Lines asked = world.questions("qorIndexTrans");
        return text + " " + (asked.empty() ? "" : asked[0]) + " " + (text.empty() ? said() : "");
    });
}

std::string served(std::optional<int> result, DhcpsnoopRole role = DHCPSNOOP_ROLE_NONE)
{
    return alone([=] {
        make_binding(HOST, MAC_CLIENT, 1, 10)->leaseTime = 60;
        world.now += 60;
        world.role(role);
        world.arrivals[0].push_back({.frame = Frame{}.bytes(), .control = WITH_INFO});
        world.readable = {gDhcpsnoop.dataSock};
        world.selectResult = result;
        pass();
        return std::to_string(world.received.size()) + held();
    });
}

std::string event(ssize_t result)
{
    return alone([=] {
        world.events.push_back({Bytes(2048, 0xFF), result});
        world.readable = {gDhcpsnoop.rtSock};
        const std::string before = world_state(), text = pass();
        return text.substr(text.rfind(',')) + (world_state() == before ? "" : " changed");
    });
}

// clang-format off
#define RECORD " | 1 800 len 286 on 1 port 1 vlan 10.0 l2 14"
TEST(Loop, Rows)
{
    const std::string none = "{[DHCPSNOOP]: rxpktInfo was NULL!\r\n}", none6 = "{[DHCPSNOOP] rxpktInfo was NULL!}", on4 = " | 1 800 len 286 on 4 port 4 vlan 20.0 l2 14";
    const int beyond = 104 - static_cast<int>(2 * CMSG_LEN(0)); // so that the next message's 25 bytes end one behind the room of 128
    check({
        {"all four, for a minute", watches(900, 901, 902, 903), "select data data6 cmd rt, 60 s"},
        {"descriptor 0 is not watched", watches(0, 0, 0, 903), "select rt, 60 s"},
        {"none at all", watches(-1, -1, -1, -1), "select, 60 s"},
        {"a descriptor that does not fit the set is left out", watches(FD_SETSIZE, FD_SETSIZE + 70, 902, 1 << 20), "select cmd, 60 s"},
        {"the last that fits", watches(FD_SETSIZE - 1, -1, -1, -1), "select data, 60 s"},
        {"each source once, in order", alone([] {
            for (int i = 0; i < 2; i++) {
                world.arrivals[0].push_back({.frame = Frame{}.bytes(), .control = WITH_INFO});
                world.arrivals[1].push_back({.frame = Bytes(60, 0), .control = WITH_INFO, .ifIndex = 1});
                world.events.push_back({Bytes(16, 0), 16});
            }
            world.readable = {900, 901, 902, 903};
            const std::string text = pass();
            return text + world_format(", left %zu %zu %zu", world.arrivals[0].size(), world.arrivals[1].size(), world.events.size());
        }), "select data data6 cmd rt, 60 s, accept, platform_event_recv 2048 12" RECORD " | 1 86dd len 60 on 1 port 1 vlan 10.0 l2 14 | [DHCPSNOOP] Command server accept failed!\r\n, left 1 1 1"},
        {"nothing is served after a time-out; the lease scan runs", served(0), "0"},
        {"Kept: after a failure every watched socket is served", served(-1), "1"},
        {"a readable socket is served", served(std::nullopt), "1"},
        {"no lease scan of a slave", served(0, DHCPSNOOP_ROLE_SLAVE), "0 | .50 bound 1/10 60s 60s ago"},
        {"a master's", served(-1, DHCPSNOOP_ROLE_MASTER), "1"},
        {"every field; IPv4: the packet information's port", control({{263, 8, info(1, 100, 20, 22)}}), " | 1 800 len 286 on 1 port 1 vlan 100.20 l2 22"},
        {"IPv6: the link-layer address's", alone([] { return arrives({.frame = Frame{}.bytes(), .control = {{263, 8, info(1, 0xFFF, 0, 255)}}, .ifIndex = 77}, true); }), " | 1 86dd len 286 on 1 port 77 vlan 4095.0 l2 255"},
        {"behind a short frame stands no earlier one", alone([] {
            arrives({.frame = Bytes(2048, 0xAA), .control = WITH_INFO});
            const std::string text = arrives({.frame = Bytes(60, 0xBB), .control = WITH_INFO});
            return text + " " + hex(Bytes(world.received[0].data, world.received[0].data + 2));
        }), " | 1 800 len 60 on 1 port 1 vlan 10.0 l2 14 bb bb"},
        {"nothing received is reported", received(0) + received(0, true), " | [DHCPSNOOP]: recvmsg error len!\r\n | [DHCPSNOOP]: recvmsg error len!"},
        {"a failure is passed over silently", received(-1), ""},
        {"one byte is a frame", received(1), " | 1 800 len 1 on 1 port 1 vlan 10.0 l2 14"},
        {"more than the buffer counts as the buffer", received(2048) + received(70'000), " | 1 800 len 2048 on 1 port 1 vlan 10.0 l2 14 | 1 800 len 2048 on 1 port 1 vlan 10.0 l2 14"},
        {"level SOL_PACKET, any type", control({{263, 0, info()}}), RECORD},
        {"more than the 25 bytes, the first of two, other levels and a short one before it", control({{1, 29, Bytes(8, 0)}, {263, 8, Bytes(20, 0)}, {263, 20, info() + Bytes{1}}}), RECORD},
        {"the first of two", control({{263, 8, info()}, {263, 8, info(2, 20)}}), RECORD},
        {"another level", control({{1, 8, info()}}), ""},
        {"24 bytes are too few, and none", control({{263, 8, Bytes(24, 0)}}) + control({{263, 8, {}}}) + control({}), ""},
        {"beyond the room of 128 bytes", control({{1, 1, Bytes(116, 0)}, {263, 8, info()}}), ""},
        {"its last byte behind that room", control({{1, 1, Bytes(static_cast<size_t>(beyond), 0)}, {263, 8, info()}}), ""},
        {"dropped until information was seen", alone([] {
            std::string text;
            for (const int flags : {1, 2, 3}) {
                debug(flags);
                for (const bool ipv6 : {false, true}) {
                    text += arrives({.frame = Frame{}.bytes()}, ipv6);
                    text += said();
                }
            }
            return text;
        }), none + none6 + none + none6},
        // Kept: the information last seen serves the frames that come without any; and after one frame without control
        // data there is no room for any, so that every later frame is taken with the information seen before.
        {"information last seen", alone([] {
            world.access(4, 20);
            snoop(4);
            std::string text;
            for (const Controls &controls : {Controls{{263, 8, info(4, 20)}}, Controls{{1, 29, Bytes(16, 0)}}, Controls{}, WITH_INFO})
                text += arrives({.frame = Frame{}.bytes(), .control = controls});
            return text;
        }), on4 + on4 + on4 + on4},
        {"the VLAN interface of a port without snooping", in_vlan(30, false) + in_vlan(30, true), " | 1 800 len 286 on 130 port 5 vlan 30.0 l2 14 qorIndexTrans 0,0,0,0,30,3,0 7  | 1 86dd len 286 on 130 port 5 vlan 30.0 l2 14 qorIndexTrans 0,0,0,0,30,3,0 7 "},
        {"a VLAN interface without snooping: dropped silently", in_vlan(40, false) + in_vlan(40, true), " qorIndexTrans 0,0,0,0,40,3,0 7  qorIndexTrans 0,0,0,0,40,3,0 7 "},
        {"no VLAN interface", in_vlan(50, false) + in_vlan(50, true) + in_vlan(50, false, 1), " qorIndexTrans 0,0,0,0,50,3,0 7 {[DHCPSNOOP]: qor index trans error!\r\n} qorIndexTrans 0,0,0,0,50,3,0 7 qor index trans error! qorIndexTrans 0,0,0,0,50,3,0 7 "},
        {"no event is reported", event(0), ", platform_event_recv 2048 12 | [DHCPSNOOP]: recvfrom rt_socket  failed!\r\n "},
        {"a failure and a datagram of one byte harm nothing", event(-1) + event(1), ", platform_event_recv 2048 12, platform_event_recv 2048 12"},
    });
}

using Timer = Daemon;
TEST_F(Timer, Scans)
{
    prepare("vlan-if");
    const int64_t start = world.now;
    dhcpsnoop_user_timer_check(); // takes up this world's time
    const auto scan = [start](std::initializer_list<int64_t> times) {
        world.clear();
        debug(2);
        for (const int64_t after : times) {
            world.now = start + after;
            dhcpsnoop_user_timer_check();
        }
        return said();
    };
    // A binding of that type, lease and age at the next scan.
    auto expires = [&, after = int64_t{1000}](uint8_t type, uint32_t lease, int64_t age) mutable {
        DhcpsnoopUser *user = make_binding(HOST, MAC_CLIENT, 3, 20);
        user->userType = type;
        user->leaseTime = lease;
        user->leaseStart = static_cast<uint32_t>(start + (after += 60) - age);
        const std::string text = scan({after}), kept = binding(HOST) == nullptr ? "" : " kept";
        dhcpsnoop_user_delete(binding(HOST));
        return text.substr(0, 76) + kept;
    };
    const std::string SCAN = "Timeout, check the user binding table!", KEPT = SCAN + " kept", GONE = "Timeout, check the user binding table!|User time out, mac:02:c1:00:00:00:01.";
    check({
        {"scans are a minute apart", scan({0, 59}), ""},
        {"a minute", scan({60}), SCAN},
        {"not again", scan({60, 119}), ""},
        {"later", scan({500}), SCAN},
        {"a minute from then", scan({559}), ""},
        {"a clock set back scans at once", scan({-1}), SCAN},
        {"and takes up the new time", scan({58}), ""},
        {"its minute", scan({59}), SCAN},
        {"one second left", expires(1, 3600, 3599), KEPT},
        {"the lease is over at its end", expires(1, 3600, 3600), GONE},
        {"static and IP source guard entries never expire", expires(2, 60, 100'000) + expires(4, 60, 100'000), KEPT + KEPT},
        {"the lease time is unsigned; an endless lease", expires(1, 0x80000000, 100'000) + expires(1, 0xFFFFFFFF, 900'000'000), KEPT + KEPT},
        {"a lease of 0 is over at once", expires(1, 0, 0), GONE},
        {"but not before it starts", expires(1, 0, -1), KEPT},
    });
    for (uint32_t i = 0; i < 130; i++) // every one of the 63 buckets has two or more entries
        make_binding(ip4(10, 0, 0, static_cast<uint8_t>(i)), MAC_CLIENT, 3, 20)->leaseTime = i % 2 == 0 ? 60 : 600;
    for (const Mac &mac : {MAC_CLIENT, MAC_CLIENT2}) {
        Parsed parsed(Frame{.chaddr = mac});
        parsed.info.rxTime = static_cast<uint32_t>(world.now);
        dhcpsnoop_mac_user_add(&parsed.info);
    }
    const int64_t now = world.now - start;
    const auto counted = [&](int64_t after) { return scan({after}).empty() ? "" : world_format("%zu, %zu wait", count_bindings(), count_waiting()); };
    check({
        {"every bucket and every entry is visited", counted(now + 60), "65, 2 wait"},
        {"waiting clients go after two minutes", counted(now + 120), "65, 0 wait"},
        {"silently", said() + (world.texts(Did::Log).empty() ? "" : " logged"), SCAN},
    });
    if (sizeof(time_t) < 8)
        GTEST_SKIP() << "a 32-bit clock ends in 2038";
    world.reset();
    world.now = 0xF0000000;
    make_binding(HOST, MAC_CLIENT, 1, 10)->leaseTime = 100;
    scan({0xF0000000 + 99 - start});
    EXPECT_EQ(count_bindings(), 1u);
    scan({0xF0000000 + 199 - start});
    EXPECT_EQ(count_bindings(), 0u);
}
// clang-format on

} // namespace
