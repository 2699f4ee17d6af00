// After start-up the daemon allocates nothing: every allocation of the process is counted while it works
// through mixed traffic, apart from those of the fake platform.
#include "daemon_test.h"

#include <random>

#include "dhcpsnoop_nm.h"
#include "request.h"

namespace
{
// Volatile: a compiler may take the allocation functions for ones that read no variable of ours.
volatile bool counting;
volatile unsigned long allocations;
} // namespace

// The sanitizer is the allocator; it reports what passes through it.
#if defined(__SANITIZE_ADDRESS__)
static void count_one()
{
    if (counting && worldDepth == 0)
        allocations = allocations + 1;
}

extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void *, size_t), void (*)(const volatile void *));
static bool hook_allocations()
{
    static const int installed = __sanitizer_install_malloc_and_free_hooks(
        [](const volatile void *, size_t) { count_one(); }, [](const volatile void *) { count_one(); });
    return installed != 0;
}
#else
static bool hook_allocations()
{
    return false;
}
#endif

namespace
{

using NoAllocation = Daemon;

TEST_F(NoAllocation, TheCountingWorks)
{
    if (!hook_allocations())
        GTEST_SKIP() << "needs an allocator that reports to us: a build of g++ with -fsanitize=address";
    const auto counted = [](auto &&work) {
        allocations = 0;
        counting = true;
        work();
        counting = false;
        return +allocations;
    };
    static void *volatile block;
    static int *volatile number;
    EXPECT_GE(counted([] { block = malloc(100), free(block); }), 2u);
    EXPECT_GE(counted([] { number = new int(1); delete number; }), 2u);
    EXPECT_GE(counted([] { block = strdup("text"), free(block); }), 2u); // what the C library takes for itself counts too
    EXPECT_EQ(counted([] { WorldScope scope; free(malloc(100)); }), 0u);
}

constexpr int IPV4 = 0, IPV6 = 1;

// Frames of every message type, from clients, servers and nowhere, whole, cut and damaged.
std::vector<WorldArrival> mixed_frames(int version, uint32_t count)
{
    std::mt19937 random(1);
    const auto upto = [&random](size_t limit) { return static_cast<uint32_t>(random() % limit); };
    std::vector<WorldArrival> arrivals;
    while (count-- > 0) {
        const auto type = static_cast<uint8_t>(1 + upto(version == IPV4 ? 9 : 13)), host = static_cast<uint8_t>(upto(100));
        const bool server = type == 2 || (version == IPV4 ? type == 5 || type == 6 : type == 7 || type == 10);
        const std::vector<Tag> tags(upto(2), Tag{0x8100, 10});
        Bytes bytes;
        if (version == IPV4) {
            const uint32_t address = ip4(10, 0, 0, host);
            Frame frame = server ? server_frame(type, opt_ip(3, 9) + opt_lease(100)) : client_frame(type, opt_ip(50, address) + opt(60, {1, 4, 0, 0, 0, 1}));
            frame.tags = tags;
            frame.chaddr = {2, 0, 0, 0, 0, host};
            frame.yiaddr = server ? address : 0;
            frame.giaddr = upto(4) == 0 ? ip4(10, 0, 0, 254) : 0;
            bytes = frame.bytes();
        } else {
            const Bytes ia = ia_na(iaaddr(world_format("2001:db8::%u", host).c_str(), 100 * upto(3), upto(4) == 0 ? status6(2) : Bytes{}));
            Frame6 frame = server ? server6(type, ia + opt6(18, Bytes(4, 1))) : client6(type, ia + ia_ta({}));
            frame.tags = tags;
            frame.src = {2, 0, 0, 0, 0, host};
            bytes = frame.bytes();
        }
        if (upto(5) == 0)
            bytes.resize(upto(bytes.size()));
        for (uint32_t damage = upto(4) == 0 ? 8 : 0; damage > 0 && !bytes.empty(); damage--)
            bytes[upto(bytes.size())] = static_cast<uint8_t>(random());
        const Bytes info = be32(server ? 2 : 1 + upto(6)) + Bytes(16, 0) + be16(10) + be16(0) + Bytes{static_cast<uint8_t>(14 + 4 * tags.size())};
        arrivals.push_back({.frame = bytes, .control = {{263, 8, info}}, .ifIndex = server ? 2u : 1u});
    }
    return arrivals;
}

// Without such an allocator the traffic runs all the same, uncounted.
TEST_F(NoAllocation, MixedTraffic)
{
    hook_allocations();
    world.reset(0, 64, 8);
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
        ifp->circuitIdFmt = ifIndex == 1 ? 5 : 0;
        memcpy(ifp->circuitId, "%s.%c.%d:%N", 11);
        ifp->circuitIdLen = 11;
        ifp->relayAddr = ifIndex == 3 ? ip4(10, 0, 0, 254) : 0;
        ifp->serverIp[0] = ip4(10, 9, 0, 1);
    }
    world.vlan_interface(110, 10);
    world.members(10, {1, 2, 3, 4, 5});
    snoop(110);
    const std::vector<WorldArrival> arrivals[] = {mixed_frames(IPV4, 2000), mixed_frames(IPV6, 1000)};
    // Every function with every command of 40, with a number, a pair and a text.
    std::vector<Bytes> requests;
    for (uint32_t func = 0; func < 23; func++)
        for (uint32_t cmd = 0; cmd < 40; cmd++)
            for (const uint8_t type : {uint8_t{0}, uint8_t{2}, uint8_t{4}, uint8_t{5}})
                requests.push_back(type == 5 ? Request(func, cmd).number(4).data(2, be32(cmd % 4)).bytes : Request(func, cmd).number(1).key(1, {10, 0, 0, 7}).data(type, Bytes(4, 1)).bytes);

    for (const int flags : {0, 1, 3}) {
        SCOPED_TRACE(flags);
        debug(flags);
        Printed out;
        printf("standard output has its buffer\n");
        allocations = 0;
        for (const int version : {IPV4, IPV6}) {
            world.clear();
            for (const WorldArrival &arrival : arrivals[version]) {
                world.arrivals[version].push_back(arrival);
                world.readable = {version == IPV4 ? gDhcpsnoop.dataSock : gDhcpsnoop.data6Sock};
                world.now += 2;
                counting = true;
                dhcpsnoop_main_pass();
                counting = false;
            }
            EXPECT_TRUE(world.arrivals[version].empty() && world.all(Did::Frame).size() > 500 && world.texts(Did::Log).size() > 20) << "it did work";
            EXPECT_EQ(world.all(Did::Relay).size() > 50, version == IPV4);
        }
        for (Bytes request : requests) {
            counting = true;
            dhcpsnoop_cmd_process(request.data(), static_cast<uint32_t>(request.size()));
            counting = false;
            debug(flags);
        }
        EXPECT_EQ(+allocations, 0u);
        EXPECT_EQ(world_check_tables(), "");
    }
}

} // namespace
