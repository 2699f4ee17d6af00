// Start-up and shutdown: what is opened, in which order, and that a failure at any point undoes it all.
#include "daemon_test.h"

#include <algorithm>

#include "management.h"

namespace
{

// Starts nothing by itself: the world has no daemon yet.
class Start : public testing::Test
{
  protected:
    void SetUp() override
    {
        world.reset_without_daemon();
        world.clear();
    }
    void TearDown() override { world.reset_without_daemon(); }

    static int32_t start(uint32_t optionMode = 3) { return dhcpsnoop_init_ex(4, 8, 2, optionMode, nullptr, nullptr, nullptr); }
};

const Lines WHOLE_START = {
    "OsixCreateMSem 9",
    "socket AF_PACKET 3 0x0800",
    "platform_packet_info_enable 900",
    "socket AF_PACKET 3 0x86dd",
    "platform_packet_info_enable 901",
    "unlink /tmp/dhcpsnoop.socket",
    "socket AF_UNIX 1 0",
    "bind AF_UNIX /tmp/dhcpsnoop.socket 110 mode 0600",
    "listen 10",
    "socket AF_NETLINK 3 0",
    "bind AF_NETLINK 0 0 12",
    "platform_event_group_join 903 32",
    "platform_event_group_join 903 31",
    "platform_event_group_join 903 40",
    "platform_event_group_join 903 1",
    "platform_event_group_join 903 56",
    "platform_event_group_join 903 57",
    "platform_event_group_join 903 40",
    "ioctl FIONBIO 1",
};

TEST_F(Start, OpensItsSocketsInOrder)
{
    debug(3);
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(world.calls(), WHOLE_START);
    // Kept: udpSock stays at the 0 of the zero-fill.
    EXPECT_EQ((std::vector<int>{gDhcpsnoop.dataSock, gDhcpsnoop.data6Sock, gDhcpsnoop.cmdSock, gDhcpsnoop.rtSock, gDhcpsnoop.udpSock}), (std::vector<int>{900, 901, 902, 903, 0}));
    EXPECT_TRUE(gDhcpsnoop.semId == 77 && gDhcpsnoop.debugFlags == 0);
    EXPECT_EQ(world_check_tables(true), "");
}

TEST_F(Start, SecondCallReturnsAtOnceAndChangesNothing)
{
    ASSERT_EQ(start(), 0);
    gDhcpsnoop.serverLearn = 1;
    dhcpsnoop_server_add(ip4(10, 0, 0, 1), 10, 1);
    const std::string before = world_state();
    world.clear();
    EXPECT_EQ(dhcpsnoop_init_ex(9, 9, 9, 5, deftinstall_client_entry_callback, nullptr, nullptr), 0);
    EXPECT_EQ(world.calls(), Lines{});
    EXPECT_EQ(world_state(), before);
    EXPECT_EQ(gDhcpsnoop.ifMax, 4);
    EXPECT_EQ(gDhcpsnoop.deftinstallCb, nullptr);
}

TEST_F(Start, PoolSizes)
{
    // Given, made: zeros mean 20, 256 and 256.
    const std::pair<std::array<uint16_t, 3>, std::array<uint16_t, 3>> rows[] = {{{0, 0, 0}, {20, 256, 256}}, {{1, 2, 3}, {1, 2, 3}}};
    for (const auto &[given, made] : rows) {
        world.reset_without_daemon();
        ASSERT_EQ(dhcpsnoop_init_ex(given[0], given[1], given[2], 3, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ((std::array<uint16_t, 3>{gDhcpsnoop.ifMax, gDhcpsnoop.userMax, gDhcpsnoop.serverMax}), made);
        EXPECT_EQ(world_check_tables(), ""); // counts the nodes against these
    }
}

TEST_F(Start, ShortFormHasTheDefaults)
{
    ASSERT_EQ(dhcpsnoop_init(5, 6), 0);
    EXPECT_TRUE(gDhcpsnoop.ifMax == 5 && gDhcpsnoop.userMax == 6 && gDhcpsnoop.serverMax == 256 && gDhcpsnoop.circuitIdFmt.mode == 3);
    EXPECT_TRUE(gDhcpsnoop.deftinstallCb == nullptr && gDhcpsnoop.ipsgIfGet == nullptr && gDhcpsnoop.antiArpIfGet == nullptr);
}

TEST_F(Start, HooksAreStoredEachInItsPlace)
{
    ASSERT_EQ(dhcpsnoop_init_ex(0, 0, 0, 3, deftinstall_client_entry_callback, ipsgIfGetApi, arpAntiAttackIfGetApi), 0);
    EXPECT_TRUE(gDhcpsnoop.deftinstallCb == deftinstall_client_entry_callback && gDhcpsnoop.ipsgIfGet == ipsgIfGetApi && gDhcpsnoop.antiArpIfGet == arpAntiAttackIfGetApi);
}

std::string format_text(const DhcpsnoopOptionFormat &format)
{
    std::string text = world_format("%u %u ", format.mode, format.len);
    for (const uint8_t byte : format.text)
        if (byte != 0)
            text += static_cast<char>(byte);
    return text;
}

TEST_F(Start, OptionFormats)
{
    // Option mode; circuit-id, remote-id, interface-id and DHCPv6 remote-id as made. An unknown mode is stored as it is.
    const std::pair<uint32_t, Lines> rows[] = {
        {0, Lines(4, "3 0 ")},
        {1, Lines(4, "1 0 ")},
        {4, Lines(4, "4 0 ")},
        {5, {"5 11 %s.%c.%d:%N", "5 2 %d", "5 11 %d %N:%s.%c", "5 11 %s.%c.%d:%N"}},
        {9, Lines(4, "9 0 ")},
    };
    for (const auto &[optionMode, formats] : rows) {
        world.reset_without_daemon();
        ASSERT_EQ(start(optionMode), 0);
        EXPECT_EQ((Lines{format_text(gDhcpsnoop.circuitIdFmt), format_text(gDhcpsnoop.remoteIdFmt), format_text(gDhcpsnoop.interfaceIdFmt), format_text(gDhcpsnoop.remoteId6Fmt)}), formats);
    }
}

const std::string SEM = "OsixDeleteSem 77";
const std::string DATA = "close 900", DATA6 = "close 901", CMD = "close 902", RT = "close 903",
                  ZERO = "close 0";
const std::string PATH = "unlink /tmp/dhcpsnoop.socket";
const Lines OPEN = {SEM, DATA, DATA6, CMD, PATH, RT};

TEST_F(Start, FailureReleasesEverythingMade)
{
    const struct {
        const char *claim, *refused;
        int32_t result;
        int failCalloc;
        const char *error; // perror's own part
        Lines undone;
    } rows[] = {
        {"Kept: an early failure closes descriptor 0 twice and removes the path", "OsixCreateMSem 9", -1, 0, "", {ZERO, PATH, ZERO}},
        {"no memory for interfaces", "", 0, 1, "", {SEM, ZERO, PATH, ZERO}},
        {"no memory for users", "", 0, 2, "", {SEM, ZERO, PATH, ZERO}},
        {"no memory for servers", "", 0, 3, "", {SEM, ZERO, PATH, ZERO}},
        {"no IPv4 socket", "socket AF_PACKET 3 0x0800", -1, 0, "", {SEM, ZERO, PATH, ZERO}},
        {"no packet information on it", "platform_packet_info_enable 900", -1, 0, "[DHCPSNOOP]dataSock setsockopt failed!\r\n: ", {SEM, DATA, ZERO, PATH, ZERO}},
        {"no IPv6 socket", "socket AF_PACKET 3 0x86dd", -1, 0, "", {SEM, DATA, ZERO, PATH, ZERO}},
        {"no packet information on it", "platform_packet_info_enable 901", -1, 0, "[DHCPSNOOP] data6_socket setsockopt failed\r\n: ", {SEM, DATA, DATA6, ZERO, PATH, ZERO}},
        {"no command socket: its -1 is not closed", "socket AF_UNIX", -1, 0, "[DHCPSNOOP] Create cmd_socket ERROR!\r\n: ", {SEM, DATA, DATA6, ZERO}},
        {"a command socket of 0 counts as failure", "socket AF_UNIX", 0, 0, "[DHCPSNOOP] Create cmd_socket ERROR!\r\n: ", {SEM, DATA, DATA6, ZERO, PATH, ZERO}},
        {"command socket not bound", "bind AF_UNIX", -1, 0, "[DHCPSNOOP] Bind cmd_socket failed!\r\n: ", {SEM, DATA, DATA6, CMD, PATH, ZERO}},
        {"command socket does not listen", "listen", -1, 0, "[DHCPSNOOP] Listen cmdSock error\r\n: ", {SEM, DATA, DATA6, CMD, PATH, ZERO}},
        {"no event socket", "socket AF_NETLINK", -1, 0, "", {SEM, DATA, DATA6, CMD, PATH}},
        {"an event socket of 0 counts as failure", "socket AF_NETLINK", 0, 0, "", {SEM, DATA, DATA6, CMD, PATH, ZERO}},
        {"event socket not bound", "bind AF_NETLINK", -1, 0, "", OPEN},
        {"group 32 must be joined", "platform_event_group_join 903 32", -1, 0, "", OPEN},
        {"group 31 must be joined", "platform_event_group_join 903 31", -1, 0, "", OPEN},
        {"group 40 must be joined", "platform_event_group_join 903 40", -1, 0, "", OPEN},
        {"group 1 must be joined", "platform_event_group_join 903 1", -1, 0, "", OPEN},
        {"group 56 must be joined", "platform_event_group_join 903 56", -1, 0, "", OPEN},
        {"event socket stays blocking", "ioctl FIONBIO", -1, 0, "", OPEN},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.claim) + ": " + row.refused);
        world.reset_without_daemon();
        world.clear();
        if (*row.refused != '\0')
            world.refuse(row.refused, row.result, 1);
        world.failCalloc = row.failCalloc;
        debug(3);
        PrintedError error;
        EXPECT_EQ(start(), -1);
        EXPECT_EQ(error.text().substr(0, std::string(row.error).size()), row.error);
        EXPECT_EQ(error.text().empty(), *row.error == '\0') << error.text();

        // What was opened is what a whole start opens, up to the failure; then it is undone.
        Lines calls = world.calls();
        ASSERT_GE(calls.size(), row.undone.size());
        const Lines undone(calls.end() - static_cast<ptrdiff_t>(row.undone.size()), calls.end());
        EXPECT_EQ(undone, row.undone);
        calls.resize(calls.size() - row.undone.size());
        ASSERT_LE(calls.size(), WHOLE_START.size());
        EXPECT_TRUE(std::equal(calls.begin(), calls.end(), WHOLE_START.begin()));
        // The record has just been zero-filled, so no debug text can appear.
        EXPECT_EQ(debug_texts(), Lines{});
        EXPECT_EQ(gDhcpsnoop.cmdSock, -1);
        EXPECT_EQ(gDhcpsnoop.rtSock, -1);
        EXPECT_TRUE(gDhcpsnoop.ifPool == nullptr && gDhcpsnoop.userPool == nullptr && gDhcpsnoop.serverPool == nullptr);

        // The loop runs all the same, and walks its tables.
        world.now += 1000;
        dhcpsnoop_user_timer_check();

        // A second attempt may succeed.
        EXPECT_EQ(start(), 0);
        EXPECT_EQ(world_check_tables(), "");
    }
}

TEST_F(Start, OptionalGroupsMayBeMissing)
{
    world.refuse("platform_event_group_join 903 57");
    world.refuse("platform_event_group_join 903 40", 0, 1);
    world.refuse("platform_event_group_join 903 40");
    EXPECT_EQ(start(), 0);
    EXPECT_EQ(world.calls(), WHOLE_START);
}

TEST_F(Start, ShutdownReleasesEverything)
{
    ASSERT_EQ(start(), 0);
    gDhcpsnoop.udpSock = 950;
    world.clear();
    dhcpsnoop_shutdown();
    EXPECT_EQ(world.calls(), (Lines{SEM, DATA, DATA6, "close 950", CMD, PATH, RT}));
    world.clear();
    dhcpsnoop_shutdown();
    EXPECT_EQ(world.calls(), Lines{});
}

TEST_F(Start, RelaySocketSendsFromPort67)
{
    const int sock = dhcpsnoop_udp_socket_init();
    EXPECT_EQ(sock, 900);
    EXPECT_EQ(world.calls(), (Lines{"socket AF_INET 2 0", "setsockopt SO_BROADCAST 1", "setsockopt SO_REUSEADDR 1",
                                    "setsockopt SO_RCVBUF 1", "bind AF_INET 00000000:67 16"}));
}

TEST_F(Start, RelaySocketFailures)
{
    // refused, text, calls, closed
    const std::tuple<const char *, const char *, size_t, bool> rows[] = {
        {"socket AF_INET", "[DHCPSNOOP] Create server socket ERROR,errno 0x1!\r\n", 1, false},
        {"setsockopt SO_BROADCAST", "[DHCPSNOOP] Set socket BROADCAST option ERROR,errno 0x1!\r\n", 3, true},
        {"setsockopt SO_REUSEADDR", "[DHCPSNOOP] Set socket REUSEPORT option ERROR,errno 0x1!\r\n", 4, true},
        {"setsockopt SO_RCVBUF", "[DHCPSNOOP] Set socket SO_RCVBUF option ERROR,errno 0x1!\r\n", 5, true},
        {"bind AF_INET", "[DHCPSNOOP] Udp socket bind ERROR, errorno 0x1!\r\n", 6, true},
    };
    for (const auto &[refused, text, calls, closed] : rows) {
        for (const int flags : {0, 1, 2, 3}) {
            SCOPED_TRACE(world_format("%s, flags %u", refused, flags));
            world.reset_without_daemon();
            world.clear();
            debug(flags);
            world.refuse(refused);
            EXPECT_EQ(dhcpsnoop_udp_socket_init(), -1);
            EXPECT_EQ(debug_texts(), flags == 0 ? Lines{} : Lines{text});
            EXPECT_EQ(world.calls().size(), calls);
            EXPECT_EQ(world.calls().back() == "close 900", closed);
        }
    }
}

} // namespace
