// One pass of the loop: what is watched, what is served in which order, and how a frame becomes a record.
#include "daemon_test.h"

#include <functional>

#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

// The packet information as the kernel attaches it.
Bytes packet_info(uint32_t ifIndex, uint16_t outer, uint16_t inner, uint8_t l2)
{
    return be32(ifIndex) + repeated(0xEE, 16) + be16(outer) + be16(inner) + Bytes{l2};
}

WorldControl info_message(uint32_t ifIndex, uint16_t outer = 10, uint16_t inner = 0, uint8_t l2 = 14)
{
    return {263, 8, packet_info(ifIndex, outer, inner, l2)};
}

// The loop keeps what it has seen of packet information for the life of the process, so that each test here
// has a process of its own: it runs in a child that reports its failures itself.
class Loop : public testing::Test
{
  protected:
    static void in_child(const std::function<void()> &body)
    {
        fflush(nullptr);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            world.reset();
            world.access(1, 10);
            snoop(1);
            Printed out; // dumps
            body();
            EXPECT_EQ(world_check_tables(), "");
            fflush(nullptr);
            _exit(HasFailure() ? 1 : 0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child failed, status " << status;
    }

    // A pass in which one frame waits on a data socket.
    static void pass_with(const WorldArrival &arrival, bool ipv6 = false)
    {
        world.clear();
        world.arrivals[ipv6 ? 1 : 0].push_back(arrival);
        world.readable = {ipv6 ? gDhcpsnoop.data6Sock : gDhcpsnoop.dataSock};
        dhcpsnoop_main_pass();
    }
};

TEST_F(Loop, WatchesItsFourSocketsForSixtySeconds)
{
    const struct {
        const char *claim;
        int data, data6, cmd, rt;
        const char *line;
    } rows[] = {
        {"all four", 900, 901, 902, 903, "select data data6 cmd rt, 60 s"},
        {"descriptor 0 is not watched", 0, 0, 0, 903, "select rt, 60 s"},
        {"none at all", -1, -1, -1, -1, "select, 60 s"},
        {"a descriptor that does not fit the set is left out", FD_SETSIZE, FD_SETSIZE + 70, 902, 1 << 20, "select cmd, 60 s"},
        {"the last that fits", FD_SETSIZE - 1, -1, -1, -1, "select data, 60 s"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        in_child([&row] {
            gDhcpsnoop.dataSock = row.data;
            gDhcpsnoop.data6Sock = row.data6;
            gDhcpsnoop.cmdSock = row.cmd;
            gDhcpsnoop.rtSock = row.rt;
            world.clear();
            dhcpsnoop_main_pass();
            dhcpsnoop_main_pass(); // the time-out is set afresh
            EXPECT_EQ(world.calls(), (Lines{row.line, row.line}));
        });
    }
}

TEST_F(Loop, ServesEachSourceOnceInOrder)
{
    in_child([] {
        for (int i = 0; i < 2; i++) {
            world.arrivals[0].push_back({.frame = Frame{}.bytes(), .control = {info_message(1)}});
            world.arrivals[1].push_back({.frame = Bytes(60, 0), .control = {info_message(1)}, .ifIndex = 1});
            world.events.push_back({Bytes(16, 0), 16});
        }
        world.readable = {900, 901, 902, 903};
        PrintedError error; // the world has no connection to accept
        dhcpsnoop_main_pass();
        ASSERT_EQ(world.received.size(), 2u);
        EXPECT_EQ(world.received[0].etherType, 0x0800);
        EXPECT_EQ(world.received[1].etherType, 0x86DD);
        EXPECT_EQ(world.calls(), (Lines{"select data data6 cmd rt, 60 s", "accept", "platform_event_recv 2048 12"}));
        EXPECT_EQ(world.arrivals[0].size(), 1u);
        EXPECT_EQ(world.arrivals[1].size(), 1u);
        EXPECT_EQ(world.events.size(), 1u);
    });
}

TEST_F(Loop, SelectResult)
{
    const struct {
        const char *claim;
        std::optional<int> result;
        size_t served;
    } rows[] = {
        {"nothing is served after a time-out", 0, 0},
        {"Kept: after a failure every watched socket is served", -1, 1},
        {"a readable socket is served", std::nullopt, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        in_child([&row] {
            world.arrivals[0].push_back({.frame = Frame{}.bytes(), .control = {info_message(1)}});
            world.readable = {gDhcpsnoop.dataSock};
            world.selectResult = row.result;
            PrintedError error;
            dhcpsnoop_main_pass();
            EXPECT_EQ(world.received.size(), row.served);
        });
    }
}

TEST_F(Loop, LeaseScanByRole)
{
    for (const DhcpsnoopRole role : {DHCPSNOOP_ROLE_NONE, DHCPSNOOP_ROLE_MASTER, DHCPSNOOP_ROLE_SLAVE}) {
        for (const int result : {0, -1}) {
            SCOPED_TRACE(world_format("role %d, select %d", role, result));
            in_child([role, result] {
                make_binding(ip4(10, 0, 0, 9), MAC_CLIENT, 1, 10)->leaseTime = 60;
                world.now += 60;
                world.role(role);
                world.selectResult = result;
                PrintedError error;
                dhcpsnoop_main_pass();
                EXPECT_EQ(count_bindings(), role == DHCPSNOOP_ROLE_SLAVE ? 1u : 0u);
            });
        }
    }
}

TEST_F(Loop, FrameBecomesARecord)
{
    in_child([] {
        const Bytes frame = Frame{.tags = {{0x88A8, 100}, {0x8100, 20}}}.bytes();
        pass_with({.frame = frame, .control = {info_message(1, 100, 20, 22)}, .ifIndex = 77});
        ASSERT_EQ(world.received.size(), 1u);
        const DhcpsnoopRxPkt &rx = world.received[0];
        EXPECT_TRUE(rx.valid == 1 && rx.len == frame.size() && rx.inIf == dhcpsnoop_if_lookup(1));
        EXPECT_EQ(hex(Bytes(rx.data, rx.data + frame.size())), hex(frame));
        EXPECT_EQ(rx.ifIndex, 1u); // IPv4: the packet information's
        EXPECT_TRUE(rx.outerVid == 100 && rx.innerVid == 20 && rx.l2HdrLen == 22 && rx.etherType == 0x0800);

        pass_with({.frame = frame, .control = {info_message(1, 0xFFF, 0, 255)}, .ifIndex = 77}, true);
        ASSERT_EQ(world.received.size(), 1u);
        EXPECT_EQ(world.received[0].ifIndex, 77u); // IPv6: the link-layer address's
        EXPECT_TRUE(world.received[0].outerVid == 0xFFF && world.received[0].l2HdrLen == 255 && world.received[0].etherType == 0x86DD);
    });
}

TEST_F(Loop, WhatStandsBehindAShortFrameIsNoEarlierOne)
{
    in_child([] {
        pass_with({.frame = Bytes(2048, 0xAA), .control = {info_message(1)}});
        pass_with({.frame = Bytes(60, 0xBB), .control = {info_message(1)}});
        ASSERT_EQ(world.received.size(), 1u);
        const DhcpsnoopRxPkt &rx = world.received[0];
        EXPECT_EQ(Bytes(rx.data, rx.data + 60), Bytes(60, 0xBB));
        EXPECT_EQ(Bytes(rx.data + 60, rx.data + 2048), Bytes(2048 - 60, 0));
    });
}

TEST_F(Loop, ReceivedLength)
{
    const struct {
        const char *claim;
        ssize_t result;
        size_t records;
        uint16_t length;
        const char *error;
    } rows[] = {
        {"nothing received is reported", 0, 0, 0, "[DHCPSNOOP]: recvmsg error len!\r\n: "},
        {"a failure is passed over silently", -1, 0, 0, ""},
        {"one byte is a frame", 1, 1, 1, ""},
        {"a whole buffer", 2048, 1, 2048, ""},
        {"more than the buffer counts as the buffer", 70'000, 1, 2048, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        in_child([&row] {
            PrintedError error;
            pass_with({.frame = Bytes(2048, 0), .control = {info_message(1)}, .result = row.result});
            EXPECT_EQ(world.received.size(), row.records);
            if (!world.received.empty()) {
                EXPECT_EQ(world.received[0].len, row.length);
            }
            EXPECT_EQ(error.text().substr(0, std::string(row.error).size()), row.error);
            EXPECT_EQ(error.text().empty(), *row.error == '\0');
        });
    }
    in_child([] {
        PrintedError error;
        pass_with({.frame = {}, .control = {info_message(1)}, .result = 0}, true);
        EXPECT_EQ(error.text().substr(0, 33), "[DHCPSNOOP]: recvmsg error len!: ");
    });
}

TEST_F(Loop, PacketInformationIsFoundByItsLevel)
{
    const Bytes info = packet_info(1, 10, 0, 14);
    const Bytes other = packet_info(2, 20, 0, 14);
    const struct {
        const char *claim;
        std::vector<WorldControl> control;
        bool found;
    } rows[] = {
        {"level SOL_PACKET, any type", {{263, 8, info}}, true},
        {"level SOL_PACKET, type 0", {{263, 0, info}}, true},
        {"more than the 25 bytes", {{263, 20, info + Bytes{1, 2, 3}}}, true},
        {"another level", {{1, 8, info}}, false},
        {"no control data", {}, false},
        {"24 bytes are too few", {{263, 8, Bytes(info.begin(), info.end() - 1)}}, false},
        {"a message of no bytes", {{263, 8, {}}}, false},
        {"other levels before it", {{1, 29, Bytes(16, 0)}, {263, 8, info}}, true},
        {"a short one before it", {{263, 8, Bytes(20, 0)}, {263, 8, info}}, true},
        {"the first of two", {{263, 8, info}, {263, 8, other}}, true},
        {"beyond the room of 128 bytes", {{1, 1, Bytes(116, 0)}, {263, 8, info}}, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        in_child([&row] {
            pass_with({.frame = Frame{}.bytes(), .control = row.control});
            ASSERT_EQ(world.received.size(), row.found ? 1u : 0u);
            if (row.found) {
                EXPECT_EQ(world.received[0].outerVid, 10);
            }
        });
    }
}

TEST_F(Loop, FrameWithoutInformationIsDroppedUntilSomeWasSeen)
{
    in_child([] {
        for (const int flags : {0, 1, 2, 3}) {
            debug(flags);
            pass_with({.frame = Frame{}.bytes()});
            EXPECT_EQ(world.received.size(), 0u);
            EXPECT_EQ(printed("[DHCPSNOOP]: rxpktInfo was NULL!\r\n"), flags >= 2);
            pass_with({.frame = Frame{}.bytes()}, true);
            EXPECT_EQ(printed("[DHCPSNOOP] rxpktInfo was NULL!"), flags >= 2);
        }
    });
}

// Kept: the information last seen serves the frames that come without any; and after one frame without control data
// there is no room for any, so that every later frame is taken with the information seen before.
TEST_F(Loop, InformationLastSeenServesFramesThatBringNone)
{
    in_child([] {
        world.access(2, 20);
        snoop(2);
        const std::vector<WorldControl> controls[] = {{info_message(2, 20)}, {{1, 29, Bytes(16, 0)}}, {}, {info_message(1, 10)}};
        for (const auto &control : controls) {
            pass_with({.frame = Frame{}.bytes(), .control = control});
            ASSERT_EQ(world.received.size(), 1u);
            EXPECT_TRUE(world.received[0].ifIndex == 2 && world.received[0].outerVid == 20);
        }
    });
}

TEST_F(Loop, InterfaceOfAFrame)
{
    const struct {
        const char *claim;
        uint32_t port;
        uint16_t outer;
        bool refused;
        uint32_t inIf; // 0 = dropped
        const char *text4, *text6;
    } rows[] = {
        {"the port's own entry", 1, 30, false, 1, "", ""},
        {"the VLAN interface of a port without snooping", 5, 30, false, 130, "", ""},
        {"a VLAN interface without snooping: dropped silently", 5, 40, false, 0, "", ""},
        {"no VLAN interface", 5, 50, false, 0, "[DHCPSNOOP]: qor index trans error!\r\n", "[DHCPSNOOP] qor index trans error!\r\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        in_child([&row] {
            world.access(5, 30);
            world.vlan_interface(130, 30);
            world.vlan_interface(140, 40);
            snoop(130);
            for (const bool ipv6 : {false, true}) {
                for (const int flags : {1, 2}) {
                    debug(flags);
                    pass_with({.frame = Frame{}.bytes(), .control = {info_message(row.port, row.outer)}, .ifIndex = row.port}, ipv6);
                    ASSERT_EQ(world.received.size(), row.inIf != 0 ? 1u : 0u);
                    if (row.inIf != 0) {
                        EXPECT_EQ(world.received[0].inIf, dhcpsnoop_if_lookup(row.inIf));
                        EXPECT_EQ(world.received[0].ifIndex, row.port);
                    }
                    const std::string text = ipv6 ? row.text6 : row.text4;
                    if (flags == 2)
                        EXPECT_EQ(debug_texts(), text.empty() ? Lines{} : Lines{text});
                    else
                        EXPECT_FALSE(printed(text));
                }
            }
            // Only the VLAN and the 3 stand in the question.
            if (row.port == 5) {
                EXPECT_EQ(world.questions("qorIndexTrans"), Lines{world_format("qorIndexTrans 0,0,0,0,%u,3,0 7", row.outer)});
            }
        });
    }
}

TEST_F(Loop, Events)
{
    const struct {
        const char *claim;
        ssize_t result;
        const char *error;
    } rows[] = {
        {"nothing received is reported", 0, "[DHCPSNOOP]: recvfrom rt_socket  failed!\r\n : "},
        {"a failure is passed on and harms nothing", -1, ""},
        {"a datagram of one byte", 1, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        in_child([&row] {
            world.events.push_back({Bytes(2048, 0xFF), row.result});
            world.readable = {gDhcpsnoop.rtSock};
            const std::string before = world_state();
            PrintedError error;
            dhcpsnoop_main_pass();
            EXPECT_EQ(error.text().substr(0, std::string(row.error).size()), row.error);
            EXPECT_EQ(error.text().empty(), *row.error == '\0');
            EXPECT_EQ(world_state(), before);
        });
    }
}

} // namespace
