// After start-up the daemon allocates nothing: every allocation of the process is counted while it works
// through mixed traffic, apart from those of the fake platform.
#include "scene.h"

#include <random>

#include "dhcpsnoop_nm.h"
#include "steps.h"

// An address sanitizer is the allocator, and reports what passes through it; without one this is null.
extern "C" __attribute__((weak)) int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void *, size_t), void (*)(const volatile void *));

namespace
{

using NoAllocation = Daemon;

// Volatile: a compiler may take the allocation functions for ones that read no variable of ours.
volatile bool counting;
volatile unsigned long allocations;

void count_one() { allocations = allocations + (counting && worldDepth == 0 ? 1 : 0); }

bool hook_allocations()
{
    static const int installed = __sanitizer_install_malloc_and_free_hooks == nullptr ? 0 : __sanitizer_install_malloc_and_free_hooks([](const volatile void *, size_t) { count_one(); }, [](const volatile void *) { count_one(); });
    return installed != 0;
}

unsigned long counted(auto &&work)
{
    allocations = 0;
    counting = true;
    work();
    counting = false;
    return allocations;
}

// Frames of every message type, from clients, servers and nowhere, whole, cut and damaged; 0 is IPv4, 1 IPv6.
std::vector<WorldArrival> mixed_frames(int version, uint32_t count)
{
    std::mt19937 random(1);
    const auto upto = [&random](size_t limit) { return static_cast<uint32_t>(random() % limit); };
    std::vector<WorldArrival> arrivals;
    while (count-- > 0) {
        const auto type = static_cast<uint8_t>(1 + upto(version == 0 ? 8 : 13)), host = static_cast<uint8_t>(upto(100));
        const bool server = type == 2 || (version == 0 ? type == ACK || type == NAK : type == 7 || type == 10);
        const Bytes ia = ia_na(iaaddr(world_format("2001:db8::%u", host).c_str(), 100 * upto(3), upto(4) == 0 ? status6(2) : Bytes{}));
        Frame frame = Message{.type = type, .giaddr = upto(4) == 0 ? RELAY : 0, .chaddr = {2, 0, 0, 0, 0, host}, .address = ip4(10, 0, 0, host), .more = server ? opt_ip(3, 9) : opt(60, {1, 4, 0, 0, 0, 1}), .lease = 100}.frame();
        Frame6 frame6 = server ? server6(type, ia + opt6(18, Bytes(4, 1))) : client6(type, ia + ia_ta({}));
        frame6.src = {2, 0, 0, 0, 0, host};
        frame.tags = frame6.tags = std::vector<Tag>(upto(2), Tag{0x8100, 10});
        Bytes bytes = version == 0 ? frame.bytes() : frame6.bytes();
        if (upto(5) == 0)
            bytes.resize(1 + upto(bytes.size() - 1));
        for (uint32_t damage = upto(4) == 0 ? 8 : 0; damage > 0; damage--)
            bytes[upto(bytes.size())] = static_cast<uint8_t>(random());
        const Bytes info = be32(server ? 2 : 1 + upto(6)) + Bytes(16, 0) + be16(10) + be16(0) + Bytes{static_cast<uint8_t>(frame.l2_length())};
        arrivals.push_back({.frame = bytes, .control = world_control({}, 263, 8, info), .ifIndex = server ? 2u : 1u});
    }
    return arrivals;
}

// Without an allocator that reports to us the traffic runs all the same, uncounted.
TEST_F(NoAllocation, MixedTraffic)
{
    static void *volatile block;
    if (hook_allocations()) {
        EXPECT_GE(counted([] { block = strdup("text"), free(block); }), 2u) << "also of the C library";
        EXPECT_EQ(counted([] { WorldScope scope; free(malloc(100)); }), 0u) << "but not of the world";
    }
    world.reset(0, 64, 8, 5); // templates
    gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback;
    gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
    gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
    gDhcpsnoop.serverLearn = 1;
    world.bootFile = Bytes(20, 'b');
    for (const uint32_t ifIndex : {1u, 2u, 3u, 4u}) {
        world.trunk(ifIndex, {10, 20}, 10);
        world.ipsg[ifIndex] = {.items = 0xF0};
        DhcpsnoopIf *ifp = snoop(ifIndex, DHCPSNOOP_IF_OPTION82 | DHCPSNOOP_IF_SUBOPT9 | DHCPSNOOP_IF_OPTION18 | DHCPSNOOP_IF_OPTION37 | (ifIndex == 2 ? DHCPSNOOP_IF_TRUSTED : 0));
        set_flag_field(ifp, DHCPSNOOP_IF_VERSION, 3);
        ifp->circuitIdFmt = ifIndex == 1 ? 0 : 3;
        ifp->relayAddr = ifIndex == 3 ? RELAY : 0;
        ifp->serverIp[0] = ip4(10, 9, 0, 1);
    }
    world.vlan_interface(110, 10);
    world.members(10, {1, 2, 3, 4, 5});
    snoop(110);
    const std::vector<WorldArrival> arrivals[] = {mixed_frames(0, 2000), mixed_frames(1, 1000)};
    std::vector<Bytes> requests; // every function with every command of 40, with a number, a pair and a text
    for (uint32_t func = 0; func < 23; func++)
        for (uint32_t cmd = 0; cmd < 40; cmd++)
            for (const std::string &words : {std::string("user.set 0 .7 form 0 4"), std::string("user.set 0 .7 = 1"), std::string("user.set 0 .7 pair 1 2"), "if.set 0 4 = " + std::to_string(cmd % 4)})
                requests.push_back(request(words + world_format(" | at 7 %u at 23 %u", func, cmd)));
    for (const int flags : {0, 1, 3}) {
        SCOPED_TRACE(flags);
        debug(flags);
        Printed out;
        printf("standard output has its buffer\n");
        for (const size_t version : {0u, 1u}) {
            world.clear();
            for (const WorldArrival &arrival : arrivals[version]) {
                world.arrivals[version].push_back(arrival);
                world.readable = {version == 0 ? gDhcpsnoop.dataSock : gDhcpsnoop.data6Sock};
                world.now += 2;
                EXPECT_EQ(counted(dhcpsnoop_main_pass), 0u);
            }
            EXPECT_TRUE(world.arrivals[version].empty() && world.all(Did::Frame).size() > 500 && world.texts(Did::Log).size() > 20) << "it did work";
            EXPECT_EQ(world.all(Did::Relay).size() > 50, version == 0);
        }
        for (Bytes request : requests) {
            EXPECT_EQ(counted([&request] { dhcpsnoop_cmd_process(request.data(), static_cast<uint32_t>(request.size())); }), 0u);
            debug(flags);
        }
        EXPECT_EQ(world_check_tables(), "");
    }
}

} // namespace
