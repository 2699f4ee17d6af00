// Management requests decoded, executed and answered.
#include "daemon_test.h"

#include "management.h"
#include "request.h"

namespace
{

const std::string HOST_SYNC = "qorHwDhcpSnoopUserSync 01 00 00 00 0a 00 0a 02 00 00 00 00 00 00 00 00 00 00 00 00 ";
const std::string ZEROS = " 00 00 00 00 00 00 00 00 00 00 00 00";

Bytes cut(const Request &request, size_t length) { return Bytes(request.bytes.begin(), request.bytes.begin() + static_cast<long>(length)); }

Bytes changed(const Request &request, size_t at, uint8_t value)
{
    Bytes bytes = request.bytes;
    bytes[at] = value;
    return bytes;
}

// Port 5 and the VLAN interface 100 of VLAN 10 are snooped; 10.0.10.1 and .2 are bindings, 10.0.0.1 and .2 relay servers.
class Command : public Daemon
{
  protected:
    void SetUp() override
    {
        Daemon::SetUp();
        world.access(5, 10);
        world.vlan_interface(100, 10);
        snoop(5, DHCPSNOOP_IF_OPTION82);
        snoop(100);
        DhcpsnoopIf *port = dhcpsnoop_if_lookup(5);
        port->serverIp[1] = 0x0A000001;
        port->serverIp[2] = 0x0A000002;
        make_binding(0x0A000A02, {2, 0, 0, 0, 0, 2}, 5, 10)->bindState = DHCPSNOOP_BIND_REQUESTED;
        make_binding(0x0A000A01, {2, 0, 0, 0, 0, 1}, 5, 10);
    }
};

TEST_F(Command, Functions)
{
    // Request, result, what stands from the data item on, calls.
    const std::tuple<const char *, Request, uint32_t, std::string, Lines> rows[] = {
        {"0 sets a global setting; its index counts none and is there", Request(0, 2).number(9).count(0).word(0x01020304), 0, "03 02 00 04 01 02 03 04", {"qorHwScalarSync null 0x40002 16909060 0x3"}},
        {"2 reads one", Request(2, 3).number(9).count(0).word(0), 0, "03 02 00 04 00 00 00 02", {}},
        {"3 finds the first interface", Request(3, 0).number(0).word(0), 0, "03 02 00 04 00 00 00 05", {}},
        {"4 the next", Request(4, 0).number(5).word(0), 0, "03 02 00 04 00 00 00 64", {}},
        {"4 after the last", Request(4, 0).number(100).word(3), 0xFFFFFFFF, "03 02 00 04 00 00 00 03", {}},
        {"3 with bytes answers the result only", Request(3, 0).number(0).data(0, Bytes(2, 1)), 0, "03 00 00 02 01 01", {}},
        {"5 sets an interface", Request(5, 18).number(5).word(3), 0, "03 02 00 04 00 00 00 03", {"qorHwIfSync 5 0x402c012 3 0x3"}},
        {"6 is the same, with a text", Request(6, 5).number(5).data(0, {'a', 'b', 'c'}), 0, "03 00 00 03 61 62 63", {"qorHwIfSync 5 0x402c005 {61 62 63} 0x80000003"}},
        {"7 reads an interface", Request(7, 18).number(5).word(0), 0, "03 02 00 04 00 00 00 03", {}},
        {"7 with a pair of words gives the value in the first", Request(7, 18).number(5).data(4, Bytes(8, 1)), 0, "03 04 00 08 00 00 00 03 01 01 01 01", {}},
        {"7 with a form there is not", Request(7, 18).number(5).data(7, Bytes(4, 1)), 0x3E80010, "03 07 00 04 01 01 01 01", {}},
        {"8 finds the first binding, in three items", Request(8, 0).key(0, {}).room(28), 0, "03 00 00 01 01 03 00 00 03 00 00 00 03 00 00 10 0a 00 0a 01" + ZEROS, {}},
        {"9 the next", Request(9, 0).key(1, {10, 0, 10, 1}).room(28), 0, "03 00 00 01 01 03 00 00 03 00 00 00 03 00 00 10 0a 00 0a 02" + ZEROS, {}},
        {"10 changes a binding", Request(10, 4).key(1, {10, 0, 10, 2}).word(0x10007), 0, "03 02 00 04 00 01 00 07", {HOST_SYNC + "0x8ce8004 65543 0x3"}},
        {"11 is the same", Request(11, 5).key(1, {10, 0, 10, 2}).data(0, {1, 2, 3, 4, 5, 6}), 0, "03 00 00 06 01 02 03 04 05 06", {HOST_SYNC + "0x8ce8005 {01 02 03 04 05 06} 0x80000003"}},
        {"12 a MAC: the item tells its length, what stood behind it stays", Request(12, 5).key(1, {10, 0, 10, 1}).room(8), 0, "03 00 00 06 02 00 00 00 00 01 ee ee", {}},
        {"14 the next", Request(14, 0).number(10).word(0), 0xFFFFFFFF, "03 02 00 04 00 00 00 00", {}},
        {"15 sets a VLAN", Request(15, 1).number(10).word(6), 0, "03 02 00 04 00 00 00 06", {"qorHwIfSync 100 0x402c012 6 0x3"}},
        {"17 finds the first relay server, in two items whatever form was asked for", Request(17, 0).number(0).number(0).room(12), 0, "03 02 00 04 00 00 00 05 03 02 00 04 0a 00 00 01", {}},
        {"18 the next", Request(18, 0).number(5).number(0x0A000001).room(12), 0, "03 02 00 04 00 00 00 05 03 02 00 04 0a 00 00 02", {}},
        {"19 adds a relay server", Request(19, 1).number(5).number(0x0A000003).word(4), 0, "03 02 00 04 00 00 00 04", {}},
        {"20 is the same", Request(20, 1).number(5).number(0x0A000003).word(6), 0, "03 02 00 04 00 00 00 06", {}},
        {"21 knows one", Request(21, 1).number(5).number(0x0A000002).word(9), 0, "03 02 00 04 00 00 00 09", {}},
        {"21 does not know one", Request(21, 1).number(5).number(0x0A000003).word(9), 0x3E80002, "03 02 00 04 00 00 00 09", {}},
    };
    for (const auto &[claim, request, result, tail, calls] : rows) {
        SCOPED_TRACE(claim);
        world.clear();
        const Reply reply = ask(request);
        EXPECT_EQ(reply.length, request.bytes.size());
        EXPECT_EQ(reply.result(), result);
        EXPECT_EQ(reply.tail(request.dataAt).substr(0, tail.size()), tail);
        EXPECT_EQ(world.calls(), calls);
        // Before the data only the result changes.
        Bytes head = cut(request, request.dataAt);
        std::copy_n(reply.bytes.begin() + 12, 4, head.begin() + 12);
        EXPECT_TRUE(std::equal(head.begin(), head.end(), reply.bytes.begin()));
    }
}

// Requests that are none: the answer is empty, nothing is done, and the text says why.
TEST_F(Command, Refused)
{
    const Request good = Request(7, 18).number(5).word(0);
    // claim, request, text (with either debug bit, or with the information bit only when it begins with '!'; null: none)
    const std::tuple<const char *, Bytes, const char *> rows[] = {
        {"25 bytes", cut(good, 25), "lenRx 25 err!"},
        {"a func word of another type", changed(good, 1, 0), "decode func word failed!"},
        {"a command word with another marker", changed(good, 16, 3), "decode command word failed!"},
        {"another index header", changed(good, 24, 2), "decode index header failed!"},
        {"an index too few", changed(good, 25, 0), "!func 7 indexNum 0 err!"},
        {"an index to a global setting", Request(2, 3).number(9).word(0).bytes, "!func 2 indexNum 1 err!"},
        {"another data header", changed(good, 33, 4), "decode data charVal 4 err!"},
        {"an end before the data header", cut(good, 33), "decode data charVal 0 err!"},
        {"a word of three bytes", changed(good, 36, 3), "decode data shortVal 3 err, type = 2!"},
        {"a pair of one word", changed(good, 34, 4), "decode data shortVal 4 err, type = 4!"},
        {"bytes beyond the end", changed(Request(5, 5).number(5).data(0, {'a', 'b'}), 36, 3), "decode data shortVal 3 err, type = 0!"},
        {"an end in the index", cut(good, 32), nullptr},
        {"an end in the word", cut(good, 40), nullptr},
    };
    for (const auto &[claim, request, text] : rows) {
        SCOPED_TRACE(claim);
        const bool informationOnly = text != nullptr && text[0] == '!';
        const Lines lines = text == nullptr ? Lines{} : Lines{std::string("[DHCPSNOOP] Command process: ") + (text + (informationOnly ? 1 : 0)) + "\r\n"};
        const std::string before = world_state();
        for (const int flags : {0, 1, 2}) {
            world.clear();
            debug(flags);
            const Reply reply = ask(request);
            EXPECT_EQ(reply.length, 0u);
            EXPECT_EQ(reply.bytes, request);
            EXPECT_EQ(debug_texts(), flags == 1 || (flags == 2 && !informationOnly) ? lines : Lines{});
            EXPECT_EQ(world.calls(), Lines{});
        }
        debug(0);
        EXPECT_EQ(world_state(), before);
    }
}

TEST_F(Command, FunctionThereIsNot)
{
    debug(DHCPSNOOP_DEBUG_INFO);
    for (const uint32_t func : {22u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(func);
        const int32_t number = static_cast<int32_t>(func);
        world.clear();
        // Kept: the request itself is the answer, result word and all.
        const Request request = Request(func, 1).word(5);
        const Reply reply = ask(request);
        EXPECT_EQ(reply.length, request.bytes.size());
        EXPECT_EQ(reply.bytes, request.bytes);
        EXPECT_EQ(debug_texts(), (Lines{world_format("[DHCPSNOOP] Command process: error func %d in get indexnum!\r\n", number),
                                        world_format("[DHCPSNOOP] Command process: error func %d in encode data!\r\n", number)}));
        // Its index, which nobody skips, is taken for the data.
        EXPECT_EQ(ask(Request(func, 1).number(5).word(5)).length, 0u);
    }
}

TEST_F(Command, EmptyRequest)
{
    // Kept: 22 bytes of the buffer, as they stand.
    Bytes bytes(22, 0x5A);
    Printed out;
    EXPECT_EQ(dhcpsnoop_cmd_process(bytes.data(), 0), 22u);
    EXPECT_EQ(dhcpsnoop_cmd_process(nullptr, 40), 22u);
    EXPECT_EQ(bytes, Bytes(22, 0x5A));
    const std::string text = "\r\n deftInstall assert error in line 623 in func dhcpsnoop_cmd_process.";
    EXPECT_EQ(out.text(), text + text);
}

// A value in another form than its attribute's is refused before anything is asked of the platform: a number
// is never taken for an address, and an address never comes back as a number.
TEST_F(Command, FormOfTheValue)
{
    const auto index = [](uint32_t func, uint32_t cmd) {
        Request request(func, cmd);
        if (func >= 10)
            return request.key(1, {10, 0, 10, 2});
        return func < 3 ? request.number(0).count(0) : request.number(5);
    };
    // Setting and reading function, commands whose values are bytes, and numbers.
    const std::tuple<uint32_t, uint32_t, std::vector<uint32_t>, std::vector<uint32_t>> rows[] = {
        {0, 2, {19}, {1, 2, 4, 16, 20}},
        {5, 7, {5, 6, 7, 12, 14}, {1, 2, 3, 4, 8, 9, 10, 11, 13, 16, 17, 18, 20, 21, 30, 31, 32, 33, 34}},
        {10, 12, {5}, {1, 2, 4, 9}},
    };
    dhcpsnoop_if_lookup(5)->flags |= 0x1E000000; // all options on
    const std::string before = world_state();
    const auto refused = [&before](const Request &request) {
        world.clear();
        const Reply reply = ask(request);
        EXPECT_EQ(reply.result(), 0x3E80010u) << world_hex(request.bytes.data(), request.bytes.size());
        EXPECT_EQ(reply.tail(request.dataAt), request.tail());
        EXPECT_EQ(world.calls(), Lines{});
        EXPECT_EQ(world_state(), before);
    };
    for (const auto &[setting, reading, bytes, numbers] : rows) {
        for (const uint32_t func : {setting, reading}) {
            SCOPED_TRACE(func);
            for (const uint32_t cmd : bytes) {
                refused(index(func, cmd).word(0x41414141));
                refused(index(func, cmd).data(4, Bytes(8, 0x41)));
                refused(index(func, cmd).data(9, {}));
            }
            for (const uint32_t cmd : numbers) {
                refused(index(func, cmd).data(0, Bytes(16, 0x41)));
                refused(index(func, cmd).data(9, {}));
            }
        }
    }
    refused(Request(15, 1).number(10).data(0, Bytes(4, 0)));
    refused(Request(16, 3).number(10).data(9, Bytes(4, 0)));
    refused(Request(19, 1).number(5).number(7).data(0, Bytes(4, 0)));
    // Those that take no value do not mind.
    EXPECT_EQ(ask(index(0, 17).data(0, {})).result(), 0u);
    EXPECT_EQ(ask(index(5, 28).data(0, {})).result(), 0u);
}

// An answer that does not fit into the request's length is not written, in no part.
TEST_F(Command, RoomForTheAnswer)
{
    const std::tuple<const char *, Request, bool> rows[] = {
        {"a key in 28 bytes", Request(8, 0).key(0, {}).room(28), true},
        {"a key in 27", Request(8, 0).key(0, {}).room(27), false},
        {"a relay server in 12", Request(17, 0).number(0).number(0).room(12), true},
        {"a relay server in 11", Request(17, 0).number(0).number(0).room(11), false},
        {"a relay server in a word", Request(18, 0).number(5).number(0x0A000001).word(1), false},
        {"a MAC in 6", Request(12, 5).key(1, {10, 0, 10, 1}).room(6), true},
        {"a MAC in 5", Request(12, 5).key(1, {10, 0, 10, 1}).room(5), false},
        {"no circuit-id in no room", Request(7, 5).number(5).room(0), true},
    };
    for (const auto &[claim, request, fits] : rows) {
        SCOPED_TRACE(claim);
        const Reply reply = ask(request);
        EXPECT_EQ(reply.length, request.bytes.size());
        EXPECT_EQ(reply.result(), fits ? 0u : 0x3E8000Du);
        EXPECT_TRUE(fits || reply.tail(request.dataAt) == request.tail());
    }
}

// Every request cut at every length, and with every byte of its header changed: within its memory, whole
// tables, and an answer as long as the request or none.
TEST_F(Command, AnyBytes)
{
    const Request requests[] = {
        Request(0, 19).number(0).count(0).data(0, Bytes(24, 1)),
        Request(5, 5).number(5).data(0, Bytes(40, 1)),
        Request(7, 5).number(5).room(64),
        Request(8, 0).key(0, {}).room(28),
        Request(10, 9).key(1, {10, 0, 10, 3}).word(4),
        Request(17, 0).number(0).number(0).room(12),
        Request(21, 1).number(5).number(7).data(4, Bytes(8, 0)),
    };
    const auto check = [](const Bytes &bytes) {
        const Reply reply = ask(bytes);
        ASSERT_TRUE(reply.length == 0 || reply.length == bytes.size()) << world_hex(bytes.data(), bytes.size());
    };
    world.recording = false;
    for (const Request &request : requests) {
        for (size_t length = 1; length <= request.bytes.size(); length++)
            check(cut(request, length));
        for (size_t at = 0; at < request.dataAt + 4; at++) {
            for (int value = 0; value < 256; value++)
                check(changed(request, at, static_cast<uint8_t>(value)));
            ASSERT_EQ(world_check_tables(), "") << "with byte " << at << " changed";
        }
    }
}

} // namespace
